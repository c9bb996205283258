/*
 * NDIS library: memory, events and time, as thin layers over the pool,
 * dispatcher and time routines of the kernel.
 */
#include "core_internal.h"

/* ---- memory ---- */

/* Length bytes of non-paged pool, or NDIS_STATUS_FAILURE. IRQL <= DISPATCH_LEVEL. */
NDIS_STATUS NTAPI NdisAllocateMemoryWithTag(PVOID *VirtualAddress, UINT Length, ULONG Tag)
{
    *VirtualAddress = ExAllocatePoolWithTag(NonPagedPool, Length, Tag);
    return *VirtualAddress != nullptr ? NDIS_STATUS_SUCCESS : NDIS_STATUS_FAILURE;
}

/* Frees memory from NdisAllocateMemoryWithTag. IRQL <= DISPATCH_LEVEL. */
VOID NTAPI NdisFreeMemory(PVOID VirtualAddress, UINT Length, UINT MemoryFlags)
{
    UNREFERENCED_PARAMETER(Length);
    if (MemoryFlags & ~static_cast<UINT>(NDIS_MEMORY_CONTIGUOUS | NDIS_MEMORY_NONCACHED))
        hk::VerifierError("NdisFreeMemory: unknown memory flags 0x%x", MemoryFlags);
    ExFreePool(VirtualAddress);
}

/* ---- events ---- */

/* A notification event, not signalled. */
VOID NTAPI NdisInitializeEvent(PNDIS_EVENT Event)
{
    KeInitializeEvent(&Event->Event, NotificationEvent, FALSE);
}

/* Signals the event, waking every waiter. IRQL <= DISPATCH_LEVEL. */
VOID NTAPI NdisSetEvent(PNDIS_EVENT Event)
{
    KeSetEvent(&Event->Event, 0, FALSE);
}

/* Resets the event. IRQL <= DISPATCH_LEVEL. */
VOID NTAPI NdisResetEvent(PNDIS_EVENT Event)
{
    KeResetEvent(&Event->Event);
}

/* Waits up to MsToWait ms (0 = forever); TRUE when signalled. IRQL == PASSIVE_LEVEL. */
BOOLEAN NTAPI NdisWaitEvent(PNDIS_EVENT Event, UINT MsToWait)
{
    hk::core::RequireIrqlExactly(PASSIVE_LEVEL, "NdisWaitEvent");
    LARGE_INTEGER timeout;
    timeout.QuadPart = -static_cast<LONGLONG>(MsToWait) * 10000;
    NTSTATUS status = KeWaitForSingleObject(&Event->Event, Executive, KernelMode, FALSE,
                                            MsToWait == 0 ? nullptr : &timeout);
    return status == STATUS_SUCCESS ? TRUE : FALSE;
}

/* ---- time ---- */

/* The system time. Any IRQL. */
VOID NTAPI NdisGetCurrentSystemTime(PLARGE_INTEGER SystemTime)
{
    KeQuerySystemTime(SystemTime);
}

/* Sleeps at least MicrosecondsToSleep. IRQL == PASSIVE_LEVEL. */
VOID NTAPI NdisMSleep(ULONG MicrosecondsToSleep)
{
    hk::core::RequireIrqlExactly(PASSIVE_LEVEL, "NdisMSleep");
    LARGE_INTEGER interval;
    interval.QuadPart = -static_cast<LONGLONG>(MicrosecondsToSleep) * 10;
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
}

/* Busy-waits MicrosecondsToStall. Any IRQL. */
VOID NTAPI NdisStallExecution(ULONG MicrosecondsToStall)
{
    KeStallExecutionProcessor(MicrosecondsToStall);
}
