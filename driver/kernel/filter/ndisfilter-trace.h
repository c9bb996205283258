/*
 * ndisfilter-trace.h - the debug mask and the trace conventions of the framework.
 *
 * Every area of the framework has one bit in GlobalDebugFlag. Its traces cost
 * one test of that bit when the bit is clear. Lines that must always appear
 * (handle-check failures, exceptions, registry reads, a few state messages)
 * use NF_PRINT, which ignores the mask.
 */
#pragma once

EXTERN_C ULONG GlobalDebugFlag;

/* Area bits of GlobalDebugFlag. 0x8 is not used. */
enum : ULONG {
    NF_DBG_ADAPTER = 0x1,         /* adapter table, contexts, properties, NDIS requests */
    NF_DBG_HOOK_PACKET = 0x2,     /* hook callbacks, receive and send paths, capture log */
    NF_DBG_FILTER_DRIVER = 0x4,   /* filter-driver registry */
    NF_DBG_EVENT_QUEUE = 0x10,    /* event queue: the full-queue message */
    NF_DBG_PACKET_FILTER = 0x20,  /* packet filter registry */
    NF_DBG_INTERFACE = 0x40,      /* interfaces and their event handlers */
    NF_DBG_IOCTL_HANDLER = 0x80,  /* IOCTL handler registry */
    NF_DBG_CORE = 0x100,          /* driver entry, dispatch, start-up, teardown, binding */
    NF_DBG_PACKET = 0x200,        /* packets, injection, invocation, injected-packet thread */
    NF_DBG_SHARED_MEMORY = 0x400, /* shared-memory channel */
    NF_DBG_COMMON = 0x800,        /* event reporting, memory, OS version, locks, timers */
    NF_DBG_HASH = 0x1000,         /* hash tables */
};

#define NF_TRACE_ON(area) ((GlobalDebugFlag & (area)) != 0)

/* A trace line of one area (printf-style arguments of the kernel debug print). */
#define NF_TRACE(area, ...)            \
    do {                               \
        if (NF_TRACE_ON(area))         \
            DbgPrint(__VA_ARGS__);     \
    } while (0)

/* A line printed whatever the mask says. */
#define NF_PRINT(...) DbgPrint(__VA_ARGS__)

/* "Enter <function>" and "Leave <function>, <status>-<name>". */
#define NF_ENTER(area, name) NF_TRACE(area, "Enter " name "\n")
#define NF_LEAVE(area, name) NF_TRACE(area, "Leave " name "\n")
#define NF_LEAVE_STATUS(area, name, status) \
    NF_TRACE(area, "Leave " name ", %d-%s\n", (int)(status), Filter_StatusString(status))

/* The error line printed just before a function returns a failure. */
#define NF_TRACE_ERROR(area, status) \
    NF_TRACE(area, "  Error: %d - %s\n", (int)(status), Filter_StatusString(status))

/* "<function>: exception, code = <code>" for a fault caught by a guard. */
#define NF_PRINT_EXCEPTION(name, code) NF_PRINT(name ": exception, code = %d\n", (int)(code))

/*
 * The Enter/Leave frame of an exported function that returns a FILTER_STATUS:
 * prints "Enter <name>" now and, when the scope ends, the error line for a
 * failure followed by "Leave <name>, <status>-<name of status>". The function
 * keeps its result in the status variable it hands over and returns it.
 */
class NfStatusTrace {
public:
    NfStatusTrace(ULONG area, PCSTR name, const FILTER_STATUS &status)
        : m_area(area), m_name(name), m_status(status)
    {
        NF_TRACE(m_area, "Enter %s\n", m_name);
    }
    ~NfStatusTrace()
    {
        if (m_status != FILTER_STATUS_SUCCESS)
            NF_TRACE_ERROR(m_area, m_status);
        NF_TRACE(m_area, "Leave %s, %d-%s\n", m_name, (int)m_status, Filter_StatusString(m_status));
    }
    NfStatusTrace(const NfStatusTrace &) = delete;
    NfStatusTrace &operator=(const NfStatusTrace &) = delete;

private:
    ULONG m_area;
    PCSTR m_name;
    const FILTER_STATUS &m_status;
};
