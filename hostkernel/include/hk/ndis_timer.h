/*
 * Host kernel runtime: NDIS timers.
 *
 * An NDIS_TIMER is a record in driver memory (the size of the Windows one);
 * it needs no freeing. A set timer's routine runs once the delay has passed,
 * at DISPATCH_LEVEL on the runtime's timer thread, as a DPC would. The record
 * must stay valid while the timer is set. Valid C11 and C++17.
 */
#ifndef HK_NDIS_TIMER_H
#define HK_NDIS_TIMER_H

#include "hk/base.h"

/* SystemSpecific1 is the timer; SystemSpecific2 and 3 are NULL. */
typedef VOID(NTAPI NDIS_TIMER_FUNCTION)(PVOID SystemSpecific1, PVOID FunctionContext,
                                        PVOID SystemSpecific2, PVOID SystemSpecific3);
typedef NDIS_TIMER_FUNCTION *PNDIS_TIMER_FUNCTION;

/* The runtime's view of the record; drivers treat it as opaque. */
typedef struct _NDIS_TIMER {
    PNDIS_TIMER_FUNCTION TimerFunction;
    PVOID FunctionContext;
    ULONG Signature; /* written by NdisInitializeTimer */
    ULONG Reserved0;
    ULONG_PTR Reserved[13];
} NDIS_TIMER, *PNDIS_TIMER;

C_ASSERT(sizeof(NDIS_TIMER) == 128);

HK_EXTERN_C_BEGIN

/* Prepares a timer that is not set. IRQL == PASSIVE_LEVEL. */
NDISAPI VOID NTAPI NdisInitializeTimer(PNDIS_TIMER Timer, PNDIS_TIMER_FUNCTION TimerFunction,
                                       PVOID FunctionContext);
/* Sets the timer to run its routine once, MillisecondsToDelay from now; a timer that is
 * already set is moved to the new time. IRQL <= DISPATCH_LEVEL. */
NDISAPI VOID NTAPI NdisSetTimer(PNDIS_TIMER Timer, UINT MillisecondsToDelay);
/* Same, with a new FunctionContext for the routine. IRQL <= DISPATCH_LEVEL. */
NDISAPI VOID NTAPI NdisSetTimerEx(PNDIS_TIMER Timer, UINT MillisecondsToDelay, PVOID FunctionContext);
/* Sets the timer to run its routine every MillisecondsPeriod (first after one period)
 * until it is cancelled. IRQL <= DISPATCH_LEVEL. */
NDISAPI VOID NTAPI NdisSetPeriodicTimer(PNDIS_TIMER Timer, UINT MillisecondsPeriod);
/* Takes the timer out of the queue. *TimerCancelled is TRUE when it was queued (set and
 * not yet expired; a periodic timer stays queued between its runs), FALSE when it was not
 * set or has fired. A routine already running is not waited for. IRQL <= DISPATCH_LEVEL. */
NDISAPI VOID NTAPI NdisCancelTimer(PNDIS_TIMER Timer, PBOOLEAN TimerCancelled);

HK_EXTERN_C_END

#endif /* HK_NDIS_TIMER_H */
