/*
 * template-filter.h - what the template client driver shows to the program
 * that loaded it (its tests, a host tool): the service name and setting,
 * and the counters, read through a function the image exports by name.
 *
 * Basic Windows types only (after <ntddk.h> or <windows.h>). Valid C and C++.
 */
#ifndef TEMPLATE_FILTER_H
#define TEMPLATE_FILTER_H

#define TEMPLATE_FILTER_SERVICE_NAME "TemplateFilter"
/* REG_DWORD: the EtherType whose frames the driver discards in both directions (0: none). */
#define TEMPLATE_FILTER_DROP_VALUE "DropEtherType"

/*
 * Each discarded frame is reported as an event: value 1 the EtherType, value 2
 * the chain (0 incoming, 1 outgoing), data TEMPLATE_FILTER_EVENT_SIZE bytes: a
 * ULONG 0, then the adapter's handle, which the user program reads as the
 * adapter's identifier (a ULONG at data offset 4).
 */
#define TEMPLATE_FILTER_EVENT_SIZE 12

typedef struct _TEMPLATE_FILTER_COUNTERS {
    ULONG DropEtherType;
    ULONG Inspected[2]; /* [0] incoming, [1] outgoing */
    ULONG Discarded[2];
} TEMPLATE_FILTER_COUNTERS, *PTEMPLATE_FILTER_COUNTERS;

#define TEMPLATE_FILTER_GET_COUNTERS "TemplateFilter_GetCounters"
typedef VOID(NTAPI *PTEMPLATE_FILTER_GET_COUNTERS)(PTEMPLATE_FILTER_COUNTERS Counters);

#endif /* TEMPLATE_FILTER_H */
