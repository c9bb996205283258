/*
 * example-event.h - how an example client driver reports an event about an
 * adapter so that the user program reads it with the adapter's id: the data
 * begins with a 32-bit code and the adapter handle (which the framework's
 * GET_EVENT replaces by the adapter's id), and the text follows at
 * EXAMPLE_EVENT_TEXT_OFFSET, where GET_EVENT leaves it as it is. Driver code
 * (after <ntddk.h>, <ndis.h> and <ndisfilter.h>).
 */
#ifndef EXAMPLE_EVENT_H
#define EXAMPLE_EVENT_H

#include <stdarg.h>

#define EXAMPLE_EVENT_TEXT_OFFSET 38

/* Formats the text behind the code and the handle and queues the event. IRQL <= DISPATCH_LEVEL. */
static inline FILTER_STATUS ExampleReportAdapterEvent(ULONG Value1, ULONG Value2, ULONG Code, PFilterAdapter Adapter,
                                                      PCSTR Format, ...)
{
    CHAR data[FILTER_EVENT_TEXT_SIZE];
    RtlZeroMemory(data, EXAMPLE_EVENT_TEXT_OFFSET);
    RtlCopyMemory(data, &Code, sizeof(Code));
    RtlCopyMemory(data + sizeof(Code), &Adapter, sizeof(Adapter));
    const int room = (int)sizeof(data) - EXAMPLE_EVENT_TEXT_OFFSET - 1;
    va_list args;
    va_start(args, Format);
    int length = _vsnprintf(data + EXAMPLE_EVENT_TEXT_OFFSET, room, Format, args);
    va_end(args);
    if (length < 0 || length > room)
        length = room;
    data[EXAMPLE_EVENT_TEXT_OFFSET + length] = '\0';
    return Filter_ReportEventEx(Value1, Value2, EXAMPLE_EVENT_TEXT_OFFSET + length + 1, data);
}

#endif /* EXAMPLE_EVENT_H */
