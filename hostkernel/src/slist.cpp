/*
 * Interlocked singly linked lists.
 *
 * Windows changes the 16-byte head with one double-width compare-exchange.
 * Here a small lock word inside the head guards the first-entry pointer and
 * the depth; it is held for a handful of instructions only.
 */
#include "core_internal.h"

namespace {

/* Holds the head's lock word for the lifetime of the guard. */
class HeadGuard {
public:
    explicit HeadGuard(PSLIST_HEADER head) : lock_(&head->HostList.Lock)
    {
        unsigned round = 0;
        while (__atomic_exchange_n(lock_, 1u, __ATOMIC_ACQUIRE) != 0)
            hk::core::SpinBackoff(&round);
    }
    ~HeadGuard() { __atomic_store_n(lock_, 0u, __ATOMIC_RELEASE); }
    HeadGuard(const HeadGuard &) = delete;
    HeadGuard &operator=(const HeadGuard &) = delete;

private:
    ULONG *lock_;
};

} // namespace

/* Empties the list. Any IRQL. */
VOID NTAPI InitializeSListHead(PSLIST_HEADER ListHead)
{
    ListHead->Alignment = 0;
    ListHead->Region = 0;
}

/* Pushes ListEntry; returns the previous first entry. Any IRQL. */
PSLIST_ENTRY NTAPI InterlockedPushEntrySList(PSLIST_HEADER ListHead, PSLIST_ENTRY ListEntry)
{
    HeadGuard guard(ListHead);
    PSLIST_ENTRY first = ListHead->HostList.Next;
    ListEntry->Next = first;
    ListHead->HostList.Next = ListEntry;
    ListHead->HostList.Depth++;
    ListHead->HostList.Sequence++;
    return first;
}

/* Pops and returns the first entry, or NULL when the list is empty. Any IRQL. */
PSLIST_ENTRY NTAPI InterlockedPopEntrySList(PSLIST_HEADER ListHead)
{
    HeadGuard guard(ListHead);
    PSLIST_ENTRY first = ListHead->HostList.Next;
    if (first != nullptr) {
        ListHead->HostList.Next = first->Next;
        ListHead->HostList.Depth--;
        ListHead->HostList.Sequence++;
    }
    return first;
}

/* Takes every entry at once; returns the former first entry (the chain stays linked). */
PSLIST_ENTRY NTAPI InterlockedFlushSList(PSLIST_HEADER ListHead)
{
    HeadGuard guard(ListHead);
    PSLIST_ENTRY first = ListHead->HostList.Next;
    ListHead->HostList.Next = nullptr;
    ListHead->HostList.Depth = 0;
    ListHead->HostList.Sequence++;
    return first;
}

/* Number of entries in the list (a snapshot). Any IRQL. */
USHORT NTAPI QueryDepthSList(PSLIST_HEADER ListHead)
{
    return __atomic_load_n(&ListHead->HostList.Depth, __ATOMIC_RELAXED);
}
