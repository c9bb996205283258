/*
 * ndisfilter-processor-local.h - state the packet path keeps per processor,
 * so that a walk never writes a cache line another processor reads:
 *
 *   NfReaders  one counter pair per processor slot, 64 bytes apart;
 *   NfGrace    a grace-period guard over a list packets walk: readers count
 *              themselves in their processor's slot and never wait; a writer
 *              unlinks under its own lock, then NfGraceWait returns once
 *              every walk that could still see the unlinked record is over;
 *   NfGate     a gate readers enter and leave by slot, which a closer shuts
 *              and then waits to drain.
 *
 * The slot is the processor number modulo NF_PROCESSOR_SLOTS. A thread that
 * moves to another processor (only possible below DISPATCH_LEVEL, or on the
 * host runtime) leaves from the slot it entered by, so counts stay exact;
 * only locality suffers.
 */
#pragma once

#define NF_PROCESSOR_SLOTS 64
#define NF_CACHE_LINE 64

/* One slot's counters on a line of their own (the record is padded, not aligned). */
typedef struct _NfReaderSlot {
    volatile LONG m_nCount[2];
    UCHAR m_Padding[NF_CACHE_LINE - 2 * sizeof(LONG)];
} NfReaderSlot;

typedef struct _NfReaders {
    NfReaderSlot m_Slots[NF_PROCESSOR_SLOTS];
} NfReaders;

/* The slot of the processor the caller runs on. */
FORCEINLINE ULONG NfCurrentSlot(VOID)
{
    return KeGetCurrentProcessorNumber() % NF_PROCESSOR_SLOTS;
}

/* ---- grace periods ---- */

typedef struct _NfGrace {
    volatile LONG m_nPhase;   /* readers count in phase m_nPhase & 1 */
    volatile LONG m_bWaiting; /* one waiter at a time flips the phase */
    UCHAR m_Padding[NF_CACHE_LINE - 2 * sizeof(LONG)];
    NfReaders m_Readers;
} NfGrace;

VOID NfGraceInitialize(NfGrace *Grace);
/*
 * Returns once every reader that entered before the call has left. Writers
 * call it after unlinking and before freeing. Never from inside a reader of
 * the same guard. IRQL <= DISPATCH_LEVEL (it sleeps at PASSIVE_LEVEL).
 */
VOID NfGraceWait(NfGrace *Grace);

/*
 * A reader of a guarded list for as long as it lives: raises to
 * DISPATCH_LEVEL, counts itself in its processor's slot, never waits.
 * Readers may nest.
 */
class NfGraceRead {
public:
    explicit NfGraceRead(NfGrace *grace) : m_grace(grace)
    {
        KeRaiseIrql(DISPATCH_LEVEL, &m_irql);
        m_slot = NfCurrentSlot();
        m_phase = (ULONG)m_grace->m_nPhase & 1;
        InterlockedIncrement(&m_grace->m_Readers.m_Slots[m_slot].m_nCount[m_phase]);
    }
    ~NfGraceRead()
    {
        InterlockedDecrement(&m_grace->m_Readers.m_Slots[m_slot].m_nCount[m_phase]);
        KeLowerIrql(m_irql);
    }
    /* The processor slot the reader counted itself in. */
    ULONG Slot() const { return m_slot; }
    NfGraceRead(const NfGraceRead &) = delete;
    NfGraceRead &operator=(const NfGraceRead &) = delete;

private:
    NfGrace *m_grace;
    ULONG m_slot;
    ULONG m_phase;
    KIRQL m_irql;
};

/*
 * Links `Entry` before `Next` so that a reader walking the Flink chain sees
 * the list either without it or with it complete. The caller holds the
 * writers' lock.
 */
FORCEINLINE VOID NfPublishBefore(PLIST_ENTRY Next, PLIST_ENTRY Entry)
{
    PLIST_ENTRY previous = Next->Blink;
    Entry->Flink = Next;
    Entry->Blink = previous;
    /* A full barrier: the entry's own links are written before it can be reached. */
    InterlockedExchangePointer((PVOID volatile *)&previous->Flink, Entry);
    Next->Blink = Entry;
}

/* ---- the gate ---- */

typedef struct _NfGate {
    volatile LONG m_bClosed;
    UCHAR m_Padding[NF_CACHE_LINE - sizeof(LONG)];
    NfReaders m_Inside;
} NfGate;

/* Opens the gate (also its initial state once zeroed and opened). */
VOID NfGateOpen(NfGate *Gate);
/* Closes the gate and waits, at PASSIVE_LEVEL, until no one is inside. */
VOID NfGateClose(NfGate *Gate);

/* Enters by the caller's slot; FALSE (and not inside) when the gate is closed. */
FORCEINLINE BOOLEAN NfGateEnter(NfGate *Gate, ULONG *Slot)
{
    ULONG slot = NfCurrentSlot();
    InterlockedIncrement(&Gate->m_Inside.m_Slots[slot].m_nCount[0]);
    if (Gate->m_bClosed) {
        InterlockedDecrement(&Gate->m_Inside.m_Slots[slot].m_nCount[0]);
        return FALSE;
    }
    *Slot = slot;
    return TRUE;
}

FORCEINLINE VOID NfGateLeave(NfGate *Gate, ULONG Slot)
{
    InterlockedDecrement(&Gate->m_Inside.m_Slots[Slot].m_nCount[0]);
}
