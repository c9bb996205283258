/*
 * Host kernel runtime: the registry routines of the run-time library.
 *
 * The registry is held in memory: host programs and tests fill it through
 * hk/host_core.h before they load a driver. Key and value names compare
 * without regard to case. Every routine here runs at PASSIVE_LEVEL.
 * Valid C11 and C++17.
 */
#ifndef HK_REGISTRY_H
#define HK_REGISTRY_H

#include "hk/base.h"

/* ---- value types ---- */
#define REG_NONE 0
#define REG_SZ 1
#define REG_EXPAND_SZ 2
#define REG_BINARY 3
#define REG_DWORD 4
#define REG_DWORD_LITTLE_ENDIAN 4
#define REG_DWORD_BIG_ENDIAN 5
#define REG_LINK 6
#define REG_MULTI_SZ 7
#define REG_RESOURCE_LIST 8
#define REG_QWORD 11
#define REG_QWORD_LITTLE_ENDIAN 11

/* ---- RelativeTo: where Path starts ---- */
#define RTL_REGISTRY_ABSOLUTE 0   /* Path is a full path (\Registry\...) */
#define RTL_REGISTRY_SERVICES 1   /* \Registry\Machine\System\CurrentControlSet\Services */
#define RTL_REGISTRY_CONTROL 2    /* \Registry\Machine\System\CurrentControlSet\Control */
#define RTL_REGISTRY_WINDOWS_NT 3 /* \Registry\Machine\Software\Microsoft\Windows NT\CurrentVersion */
#define RTL_REGISTRY_DEVICEMAP 4  /* \Registry\Machine\Hardware\DeviceMap */
#define RTL_REGISTRY_USER 5       /* \Registry\User\.Default */
#define RTL_REGISTRY_MAXIMUM 6
#define RTL_REGISTRY_HANDLE 0x40000000 /* Path is a key handle (not supported here) */
#define RTL_REGISTRY_OPTIONAL 0x80000000 /* a missing key reads as an empty one */

/* ---- RTL_QUERY_REGISTRY_TABLE.Flags ---- */
#define RTL_QUERY_REGISTRY_SUBKEY 0x00000001   /* Name is a subkey; later entries read it */
#define RTL_QUERY_REGISTRY_TOPKEY 0x00000002   /* later entries read the key of Path again */
#define RTL_QUERY_REGISTRY_REQUIRED 0x00000004 /* a missing value fails the call */
#define RTL_QUERY_REGISTRY_NOVALUE 0x00000008  /* call QueryRoutine once, with no value */
#define RTL_QUERY_REGISTRY_NOEXPAND 0x00000010 /* REG_MULTI_SZ as one value, no expansion */
#define RTL_QUERY_REGISTRY_DIRECT 0x00000020   /* store into EntryContext, no routine */
#define RTL_QUERY_REGISTRY_DELETE 0x00000040   /* delete the value once it has been read */
#define RTL_QUERY_REGISTRY_TYPECHECK 0x00000100 /* DIRECT: expected type in DefaultType's top byte */
#define RTL_QUERY_REGISTRY_TYPECHECK_SHIFT 24
#define RTL_QUERY_REGISTRY_TYPECHECK_MASK (0xffu << RTL_QUERY_REGISTRY_TYPECHECK_SHIFT)

HK_EXTERN_C_BEGIN

/* Called for a value: ValueData points to ValueLength bytes (strings include their
 * terminator). A status other than STATUS_SUCCESS stops the query and is returned. */
typedef NTSTATUS(NTAPI RTL_QUERY_REGISTRY_ROUTINE)(PWSTR ValueName, ULONG ValueType,
                                                   PVOID ValueData, ULONG ValueLength,
                                                   PVOID Context, PVOID EntryContext);
typedef RTL_QUERY_REGISTRY_ROUTINE *PRTL_QUERY_REGISTRY_ROUTINE;

typedef struct _RTL_QUERY_REGISTRY_TABLE {
    PRTL_QUERY_REGISTRY_ROUTINE QueryRoutine;
    ULONG Flags;
    PWSTR Name;
    PVOID EntryContext;
    ULONG DefaultType;
    PVOID DefaultData;
    ULONG DefaultLength;
} RTL_QUERY_REGISTRY_TABLE, *PRTL_QUERY_REGISTRY_TABLE;

/* Reads the values QueryTable names from the key RelativeTo/Path. The table ends at an
 * entry with neither QueryRoutine nor Name. For each entry:
 *  - a value that exists is passed to QueryRoutine, or with DIRECT stored into
 *    EntryContext: a ULONG for values of up to 4 bytes; a UNICODE_STRING for strings
 *    (Buffer NULL: allocated from paged pool, free with RtlFreeUnicodeString; otherwise
 *    copied when it fits, else STATUS_BUFFER_TOO_SMALL); for longer values a buffer whose
 *    first LONG is its size: negative = data only, positive = length, type, data;
 *  - a missing value uses the default (DefaultType != REG_NONE; DefaultLength 0 for a
 *    string means its NUL-terminated length) unless REQUIRED, and is otherwise skipped;
 *  - a Name of NULL with a QueryRoutine enumerates every value of the key.
 * Returns STATUS_OBJECT_NAME_NOT_FOUND for a missing key or required value,
 * STATUS_OBJECT_TYPE_MISMATCH for a failed TYPECHECK. IRQL == PASSIVE_LEVEL. */
NTSYSAPI NTSTATUS NTAPI RtlQueryRegistryValues(ULONG RelativeTo, PCWSTR Path,
                                               PRTL_QUERY_REGISTRY_TABLE QueryTable,
                                               PVOID Context, PVOID Environment);
/* Creates or replaces a value, creating its key when the parent key exists. */
NTSYSAPI NTSTATUS NTAPI RtlWriteRegistryValue(ULONG RelativeTo, PCWSTR Path, PCWSTR ValueName,
                                              ULONG ValueType, PVOID ValueData,
                                              ULONG ValueLength);
NTSYSAPI NTSTATUS NTAPI RtlDeleteRegistryValue(ULONG RelativeTo, PCWSTR Path, PCWSTR ValueName);
/* STATUS_SUCCESS when the key exists. */
NTSYSAPI NTSTATUS NTAPI RtlCheckRegistryKey(ULONG RelativeTo, PWSTR Path);
/* Creates the key (its parent must exist). */
NTSYSAPI NTSTATUS NTAPI RtlCreateRegistryKey(ULONG RelativeTo, PWSTR Path);

HK_EXTERN_C_END

#endif /* HK_REGISTRY_H */
