/*
 * ndisfilter-processor-local.cpp - the slow sides of the per-processor state:
 * waiting for a grace period and closing a gate.
 */
#include "precomp.h"
#include "ndisfilter-processor-local.h"

namespace {

/* The slot counters of `Readers` in `Phase` all read zero. */
BOOLEAN Drained(const NfReaders *Readers, ULONG Phase)
{
    for (ULONG slot = 0; slot < NF_PROCESSOR_SLOTS; slot++)
        if (Readers->m_Slots[slot].m_nCount[Phase] != 0)
            return FALSE;
    return TRUE;
}

/* Waits until `Drained`: spins a while, then sleeps 1 ms at a time at PASSIVE_LEVEL. */
VOID WaitDrained(const NfReaders *Readers, ULONG Phase)
{
    for (ULONG round = 0; !Drained(Readers, Phase); round++) {
        if (round < 4096 || KeGetCurrentIrql() >= DISPATCH_LEVEL) {
            YieldProcessor();
            continue;
        }
        LARGE_INTEGER interval;
        interval.QuadPart = -10000; /* 1 ms */
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
}

} // namespace

VOID NfGraceInitialize(NfGrace *Grace)
{
    RtlZeroMemory(Grace, sizeof(*Grace));
}

/*
 * Two flips: the first sends new readers to the other phase and waits for the
 * old one to drain; a reader that read the phase just before that flip may
 * still count itself late in the new phase, so the second flip drains that
 * one too.
 */
VOID NfGraceWait(NfGrace *Grace)
{
    while (InterlockedCompareExchange(&Grace->m_bWaiting, 1, 0) != 0)
        YieldProcessor();
    for (ULONG round = 0; round < 2; round++) {
        ULONG old = (ULONG)(InterlockedIncrement(&Grace->m_nPhase) - 1) & 1;
        WaitDrained(&Grace->m_Readers, old);
    }
    InterlockedExchange(&Grace->m_bWaiting, 0);
}

VOID NfGateOpen(NfGate *Gate)
{
    InterlockedExchange(&Gate->m_bClosed, 0);
}

VOID NfGateClose(NfGate *Gate)
{
    InterlockedExchange(&Gate->m_bClosed, 1);
    WaitDrained(&Gate->m_Inside, 0);
}
