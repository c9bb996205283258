/*
 * ndisfilter-packetapi.cpp - packets on their way through the framework: the
 * hook driver's receive and send callbacks, the filter chains walked for
 * every packet, the final deliveries, and the two injected-packet queues with
 * their worker threads.
 *
 * Ownership: a packet handed to any of these operations is theirs, also on
 * failure; when an operation returns, the packet has been delivered (it is
 * the hook driver's again), released, or kept by the filter that consumed it.
 * Only Filter_IndicatePacketToApplication copies and leaves it to its caller.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-frame.h"
#include "ndisfilter-records.h"
#include "ndisfilter-ethrlog.h"

#define NF_INJECT_WAIT_MS 10 /* bounds the delay of a packet queued between drain and reset */
#define NF_INJECT_FROM_FILTER 0x80000000u

/* ---- hand-off marks ---- */

namespace {

/*
 * A filter procedure may hand its packet on (release it, inject it, queue it)
 * and then fault. The walk must then leave the packet alone: it belongs to
 * where it went. A walk keeps a frame for its packet in a slot of a small
 * table, owned by the walking thread while the walk lasts (nested walks of
 * one thread stack their frames in the same slot, or take another); the
 * hand-off entries mark the calling thread's frames that carry their packet.
 * Slots go by thread, not by processor, since a filter may block on the host.
 * No lock and no shared counter: claiming a slot is one compare-exchange.
 * The filters' counts are kept by walk slot too (NF_WALK_SLOTS in
 * ndisfilter-records.h).
 */

struct WalkSlot;

struct WalkFrame {
    PFilterPacket Packet;
    volatile BOOLEAN HandedOn;
    WalkFrame *Outer;
    WalkSlot *Slot;
};

struct WalkSlot {
    PVOID volatile Thread;
    WalkFrame *Top;
    UCHAR Padding[64 - sizeof(PVOID) * 2]; /* one slot per cache line */
};

WalkSlot WalkSlots[NF_WALK_SLOTS];

/* Pushes a frame for `Packet`; FALSE when every slot is taken (the frame is then not tracked). */
BOOLEAN EnterWalkFrame(WalkFrame *Frame, PFilterPacket Packet)
{
    PVOID thread = KeGetCurrentThread();
    ULONG start = (ULONG)(((ULONG_PTR)thread >> 6) % NF_WALK_SLOTS);
    Frame->Packet = Packet;
    Frame->HandedOn = FALSE;
    for (ULONG i = 0; i < NF_WALK_SLOTS; i++) {
        WalkSlot *slot = &WalkSlots[(start + i) % NF_WALK_SLOTS];
        if (slot->Thread == thread ||
            InterlockedCompareExchangePointer(&slot->Thread, thread, NULL) == NULL) {
            Frame->Outer = slot->Top;
            Frame->Slot = slot;
            slot->Top = Frame;
            return TRUE;
        }
    }
    return FALSE;
}

VOID LeaveWalkFrame(WalkFrame *Frame)
{
    WalkSlot *slot = Frame->Slot;
    slot->Top = Frame->Outer;
    if (slot->Top == NULL)
        InterlockedExchangePointer(&slot->Thread, NULL);
}

/*
 * After a fault ended a filter procedure: the frames of walks nested inside
 * it (deeper on this thread's stack than `Live`, so at lower addresses) were
 * abandoned with their stack; drop them, and give back slots they leave empty.
 */
VOID DropAbandonedFrames(WalkFrame *Live)
{
    PVOID thread = KeGetCurrentThread();
    for (ULONG i = 0; i < NF_WALK_SLOTS; i++) {
        WalkSlot *slot = &WalkSlots[i];
        if (slot->Thread != thread)
            continue;
        while (slot->Top != NULL && (ULONG_PTR)slot->Top < (ULONG_PTR)Live)
            slot->Top = slot->Top->Outer;
        if (slot->Top == NULL)
            InterlockedExchangePointer(&slot->Thread, NULL);
    }
}

} // namespace

/* Marks the current thread's walk frames that carry `Packet`: it has been handed on. */
VOID NdisFilter_PacketHandedOn(PFilterPacket Packet)
{
    PVOID thread = KeGetCurrentThread();
    for (ULONG i = 0; i < NF_WALK_SLOTS; i++) {
        if (WalkSlots[i].Thread != thread)
            continue;
        for (WalkFrame *frame = WalkSlots[i].Top; frame != NULL; frame = frame->Outer)
            if (frame->Packet == Packet)
                frame->HandedOn = TRUE;
    }
}

/* ---- the filter chains ---- */

namespace {

/* Which filters of a chain a walk runs, relative to a given filter. */
struct WalkPlan {
    BOOLEAN Partial;      /* FALSE: the whole chain */
    FILTER_METHOD Method;
    PPacketFilter Given;
    /*
     * TRUE when a client handed the packet to the walk (the exported entries):
     * its final delivery or release marks it as handed on, for the client's
     * own walk frames. FALSE for packets of the hook driver and the workers.
     */
    BOOLEAN HandOn;
};

/* Delivers a packet that every filter let pass, by the type of its chain. */
VOID Deliver(FILTER_TYPE Type, PFilterPacket Packet, BOOLEAN HandOn);

/* TRUE when `Filter` is in the chain at `Head`, decided by address. The caller reads the chain. */
BOOLEAN InChain(PLIST_ENTRY Head, PPacketFilter Filter)
{
    for (PLIST_ENTRY link = Head->Flink; link != Head; link = link->Flink)
        if (CONTAINING_RECORD(link, PacketFilter, m_ListEntry) == Filter)
            return TRUE;
    return FALSE;
}

/*
 * Walks the chain of `Type` as a reader of its grace guard (at DISPATCH_LEVEL),
 * calling each filter the plan selects until one answers other than BYPASS;
 * then releases, forgets or delivers the packet. A filter that faults is
 * reported and the walk goes on. No allocation, no lock and no line another
 * processor writes: this runs for every packet. The counts go to this
 * processor's slot of each filter.
 */
VOID WalkChain(PCSTR Name, FILTER_TYPE Type, PFilterPacket Packet, const WalkPlan &Plan)
{
    BOOLEAN deliver = TRUE;
    BOOLEAN consumed = FALSE;
    BOOLEAN active = !Plan.Partial || Plan.Method == FILTER_METHOD_START_FROM_FIRST_FILTER ||
                     Plan.Method == FILTER_METHOD_START_UNTIL_THIS_FILTER ||
                     Plan.Method == FILTER_METHOD_STOP_AT_THIS_FILTER;
    WalkFrame frame;
    BOOLEAN tracked = EnterWalkFrame(&frame, Packet);
    {
        NfGraceRead walk(&g_pGlobal->m_PacketFilterGrace[Type]);
        /* The walk slot's own line of each filter's counts, or the shared one for an untracked walk. */
        const ULONG countSlot = tracked ? (ULONG)(frame.Slot - WalkSlots) : NF_WALK_SLOTS;
        auto count = [tracked](volatile LONG &counter) {
            if (tracked)
                counter = counter + 1;
            else
                InterlockedIncrement(&counter);
        };
        PLIST_ENTRY head = &g_pGlobal->m_PacketFilterList[Type];
        /* A filter that has left its chain (and may be freed) is no place to start or stop. */
        if (Plan.Partial && !InChain(head, Plan.Given))
            deliver = FALSE;
        LONG index = 0;
        PLIST_ENTRY next;
        for (PLIST_ENTRY link = deliver ? head->Flink : head; link != head; link = next) {
            next = *(PLIST_ENTRY volatile *)&link->Flink;
            PPacketFilter filter = CONTAINING_RECORD(link, PacketFilter, m_ListEntry);
            NfFilterCounts *counts = &filter->m_pCounts[countSlot];
            if (Plan.Partial) {
                if (!active) {
                    if (filter != Plan.Given)
                        continue;
                    active = TRUE;
                    if (Plan.Method == FILTER_METHOD_START_AFTER_THIS_FILTER)
                        continue;
                } else if (Plan.Method == FILTER_METHOD_STOP_AT_THIS_FILTER && filter == Plan.Given) {
                    break;
                }
            }

            NF_TRACE(NF_DBG_PACKET, "  %s: %s->Filter[%d] - %*.*s, pPacket=0x%p\n", Name, Filter_TypeString(Type),
                     (int)index++, (int)filter->m_FilterName.Length, (int)filter->m_FilterName.Length,
                     filter->m_FilterName.Buffer, (PVOID)Packet);
            count(counts->m_PacketProcess);
            FILTER_RESULT result = FILTER_RESULT_BYPASS;
            LONG code = FilterGuard([&] {
                result = filter->m_pfFilterProc(filter->m_hFilterDriver, filter->m_pDriverContext, filter,
                                                filter->m_pFilterContext, Packet);
            });

            BOOLEAN stop = FALSE;
            if (code != 0) {
                NF_PRINT("  %s: exception, code = %d, pPacket=0x%p\n", Name, (int)code, (PVOID)Packet);
                if (tracked)
                    DropAbandonedFrames(&frame);
                /* Handed on before the fault (or not known): the packet is where it went. */
                if (!tracked || frame.HandedOn) {
                    consumed = TRUE;
                    stop = TRUE;
                }
            } else {
                switch (result) {
                case FILTER_RESULT_BYPASS:
                    NF_TRACE(NF_DBG_PACKET, "  %s: FILTER_RESULT_BYPASS, pPacket=0x%p\n", Name, (PVOID)Packet);
                    count(counts->m_PacketBypass);
                    break;
                case FILTER_RESULT_DISCARD:
                    NF_TRACE(NF_DBG_PACKET, "  %s: FILTER_RESULT_DISCARD, pPacket=0x%p\n", Name, (PVOID)Packet);
                    Filter_DumpPacket("DD Filter Discard", Packet);
                    count(counts->m_PacketDiscard);
                    deliver = FALSE;
                    stop = TRUE;
                    break;
                case FILTER_RESULT_CONSUME:
                    NF_TRACE(NF_DBG_PACKET, "  %s: FILTER_RESULT_CONSUME, pPacket=0x%p\n", Name, (PVOID)Packet);
                    count(counts->m_PacketConsume);
                    consumed = TRUE;
                    stop = TRUE;
                    break;
                case FILTER_RESULT_CAPTURE:
                    NF_TRACE(NF_DBG_PACKET, "  %s: FILTER_RESULT_CAPTURE, pPacket=0x%p\n", Name, (PVOID)Packet);
                    count(counts->m_PacketCapture);
                    deliver = FALSE;
                    stop = TRUE;
                    break;
                default: /* an unknown verdict counts as processed and the walk goes on */
                    break;
                }
            }
            if (stop)
                break;
            if (Plan.Partial && Plan.Method == FILTER_METHOD_START_UNTIL_THIS_FILTER && filter == Plan.Given)
                break;
        }
    }

    if (tracked)
        LeaveWalkFrame(&frame);
    if (consumed)
        return; /* the filter owns the packet now */
    if (!deliver) {
        NdisFilter_ReleasePacket(Packet, __FILE__, __LINE__, Plan.HandOn);
        return;
    }
    NF_TRACE(NF_DBG_PACKET, "  %s: FILTER_RESULT_BYPASS, pPacket=0x%p\n", Name, (PVOID)Packet);
    Deliver(Type, Packet, Plan.HandOn);
}

} // namespace

namespace {

/* Filter_InvokeFilters; `HandOn` as in WalkPlan. */
VOID InvokeFilters(FILTER_TYPE Type, PFilterPacket Packet, BOOLEAN HandOn)
{
    NF_TRACE(NF_DBG_PACKET, "Enter Filter_InvokeFilters: Filter=%s, pPacket=0x%p\n", Filter_TypeString(Type),
             (PVOID)Packet);
    if (Packet == NULL)
        return;
    if ((ULONG)Type >= FILTER_TYPE_COUNT) {
        Filter_ReleasePacket(Packet);
        return;
    }
    WalkPlan plan = {FALSE, FILTER_METHOD_START_FROM_FIRST_FILTER, NULL, HandOn};
    WalkChain("Filter_InvokeFilters", Type, Packet, plan);
    NF_TRACE(NF_DBG_PACKET, "Leave Filter_InvokeFilters\n");
}

} // namespace

/*
 * Filter_InvokeFilters - runs the whole chain of `Type` for a packet; a packet
 * every filter bypasses is delivered (an empty chain delivers at once).
 * IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C VOID NTAPI Filter_InvokeFilters(FILTER_TYPE Type, PFilterPacket Packet)
{
    InvokeFilters(Type, Packet, TRUE);
}

/*
 * Filter_InvokeFiltersEx - runs part of the chain that holds `Filter`:
 * START_FROM_FIRST the whole chain, START_UNTIL_THIS up to and including it,
 * STOP_AT_THIS up to but excluding it, START_FROM_THIS from it on,
 * START_AFTER_THIS from its successor on (unknown methods as START_FROM_THIS).
 * An invalid filter handle releases the packet. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C VOID NTAPI Filter_InvokeFiltersEx(FILTER_METHOD Method, PPacketFilter Filter, PFilterPacket Packet)
{
    NF_TRACE(NF_DBG_PACKET, "Enter Filter_InvokeFiltersEx\n");
    NF_TRACE(NF_DBG_PACKET, "Enter Filter_InvokeFiltersEx: pPacket=0x%p\n", (PVOID)Packet);
    if (Packet == NULL)
        return;
    FILTER_TYPE type = FILTER_TYPE_INVALID;
    Filter_GetFilterType(Filter, &type);
    NF_TRACE(NF_DBG_PACKET, "Enter Filter_InvokeFiltersEx: Filter=%s, Method=%s\n", Filter_TypeString(type),
             Filter_MethodString(Method));
    if ((ULONG)type >= FILTER_TYPE_COUNT) {
        Filter_ReleasePacket(Packet);
    } else {
        WalkPlan plan = {TRUE, Method, Filter, TRUE};
        WalkChain("Filter_InvokeFiltersEx", type, Packet, plan);
    }
    NF_TRACE(NF_DBG_PACKET, "Leave Filter_InvokeFiltersEx\n");
}

/* ---- the hook driver's receive and send paths ---- */

namespace {

VOID FilterHookPacket(PFilterPacket Packet, ULONG Direction)
{
    Filter_InitPacketHeader(Packet, NULL);
    Packet->m_nDirection = Direction;
    if (Direction == FILTER_DIRECTION_TO_PROTOCOL) {
        Filter_DumpPacket("/\\ Incoming Packet", Packet);
        NdisFilter_RecordAdapterFrame(Packet->m_hAdapter, NF_ETHRLOG_LOWER, Packet);
        InvokeFilters(FILTER_TYPE_INCOMING_PACKET, Packet, FALSE);
    } else {
        Filter_DumpPacket("\\/ Outgoing Packet", Packet);
        NdisFilter_RecordAdapterFrame(Packet->m_hAdapter, NF_ETHRLOG_UPPER, Packet);
        InvokeFilters(FILTER_TYPE_OUTGOING_PACKET, Packet, FALSE);
    }
}

} // namespace

/*
 * NdisFilter_FilterReceivedPacket / NdisFilter_FilterSendPacket - a frame an
 * adapter received, or a protocol sent: parsed, marked with its direction,
 * dumped and run through the incoming or outgoing chain. The packet is the
 * framework's from here on. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C VOID NTAPI NdisFilter_FilterReceivedPacket(PFilterPacket Packet)
{
    NfCallbackScope gate;
    if (!gate.Entered())
        return;
    NF_TRACE(NF_DBG_HOOK_PACKET, "Enter NdisFilter_FilterReceivedPacket\n");
    if (Packet != NULL)
        FilterHookPacket(Packet, FILTER_DIRECTION_TO_PROTOCOL);
    NF_TRACE(NF_DBG_HOOK_PACKET, "Leave NdisFilter_FilterReceivedPacket\n");
}

EXTERN_C VOID NTAPI NdisFilter_FilterSendPacket(PFilterPacket Packet)
{
    NfCallbackScope gate;
    if (!gate.Entered())
        return;
    NF_TRACE(NF_DBG_HOOK_PACKET, "Enter NdisFilter_FilterSendPacket\n");
    if (Packet != NULL)
        FilterHookPacket(Packet, FILTER_DIRECTION_TO_ADAPTER);
    NF_TRACE(NF_DBG_HOOK_PACKET, "Leave NdisFilter_FilterSendPacket\n");
}

/* ---- entries that take a packet over ---- */

namespace {

/*
 * The frame of every entry that takes a packet over: a missing packet is
 * refused; a packet without its target (adapter or filter) is released, since
 * the packet is the entry's also on failure; otherwise `Take` does the work
 * and answers the status.
 */
template <typename Take>
FILTER_STATUS TakePacket(PCSTR Name, PVOID Target, PFilterPacket Packet, Take &&take, BOOLEAN HandOn = TRUE)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_PACKET, Name, status);
    if (Packet == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    if (HandOn)
        NdisFilter_PacketHandedOn(Packet);
    if (Target == NULL) {
        Filter_ReleasePacket(Packet);
        status = FILTER_ERROR_INVALID_ARGUMENT;
    } else {
        status = take();
    }
    return status;
}

/*
 * TakePacket for the entries that name an adapter: an adapter that is not
 * open (a forged handle, or one closed since) is refused like a missing one,
 * so nothing is ever queued for or delivered to it.
 */
template <typename Take>
FILTER_STATUS TakeAdapterPacket(PCSTR Name, PFilterAdapter Adapter, PFilterPacket Packet, Take &&take,
                                BOOLEAN HandOn = TRUE)
{
    return TakePacket(
        Name, Adapter, Packet,
        [&]() -> FILTER_STATUS {
        if (!NdisFilter_IsOpenAdapter(Adapter)) {
            NF_PRINT("%s: adapter 0x%p is not open\n", Name, (PVOID)Adapter);
            Filter_ReleasePacket(Packet);
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        return take();
        },
        HandOn);
}

} // namespace

/* ---- final deliveries ---- */

namespace {

/*
 * Hands a packet to the hook driver for the adapter or the protocols. A
 * packet that cannot go on is released; once the hook function has it, it is
 * the hook driver's whatever it answers. `FromWalk`: the packet is the one a
 * walk of the hook driver's or a worker's packet just finished with (no walk
 * frame of this thread carries it) and its m_hAdapter is `Adapter`; it is
 * only touched under the guard when it is to be dumped.
 */
FILTER_STATUS DeliverToHook(PCSTR Name, PCSTR ExceptionName, PCSTR Marker, BOOLEAN ToAdapter, PFilterAdapter Adapter,
                            PFilterPacket Packet, BOOLEAN FromWalk = FALSE)
{
    return TakeAdapterPacket(Name, Adapter, Packet, [&]() -> FILTER_STATUS {
        NfHookReference hook;
        PHOOK_INJECT_PACKET inject =
            hook.Get(ToAdapter ? &NdisHookAPI::Hook_InjectPacketToAdapter : &NdisHookAPI::Hook_InjectPacketToProtocol);
        if (inject == NULL) {
            Filter_ReleasePacket(Packet);
            return FILTER_ERROR_INTERFACE_NOT_ACTIVE;
        }
        LONG code = !FromWalk || Adapter->m_bPacketDump ? FilterGuard([&] {
            Packet->m_hAdapter = Adapter;
            Filter_DumpPacket(Marker, Packet);
        })
                                                        : 0;
        if (code != 0) {
            /* Not handed over yet: the packet is still ours to release. */
            NF_PRINT("%s: exception, code = %d\n", ExceptionName, (int)code);
            Filter_ReleasePacket(Packet);
            return FILTER_ERROR_EXCEPTION;
        }
        /* A copy for the capture log of the edge it leaves by (the adapter is open). */
        NdisFilter_RecordAdapterFrame(Adapter, ToAdapter ? NF_ETHRLOG_LOWER : NF_ETHRLOG_UPPER, Packet);
        FILTER_STATUS status = FILTER_STATUS_SUCCESS;
        code = FilterGuard([&] {
            if (inject(Adapter, Packet) != 0)
                status = FILTER_ERROR_INTERNAL_ERROR;
        });
        if (code != 0) {
            NF_PRINT("%s: exception, code = %d\n", ExceptionName, (int)code);
            status = FILTER_ERROR_EXCEPTION;
        }
        return status;
    }, !FromWalk);
}

VOID Deliver(FILTER_TYPE Type, PFilterPacket Packet, BOOLEAN HandOn)
{
    if (Type == FILTER_TYPE_INCOMING_PACKET || Type == FILTER_TYPE_INJECT_TO_PROTOCOL)
        DeliverToHook("Filter_IndicatePacketToProtocolEx", "Filter_InjectPacketToProtocolEx", "AA Indicate To Protocol",
                      FALSE, Packet->m_hAdapter, Packet, !HandOn);
    else
        DeliverToHook("Filter_InjectPacketToAdapterEx", "Filter_InjectPacketToAdapterEx", "VV Inject To Adapter", TRUE,
                      Packet->m_hAdapter, Packet, !HandOn);
}

} // namespace

EXTERN_C FILTER_STATUS NTAPI Filter_InjectPacketToAdapterEx(PFilterAdapter Adapter, PFilterPacket Packet)
{
    return DeliverToHook("Filter_InjectPacketToAdapterEx", "Filter_InjectPacketToAdapterEx", "VV Inject To Adapter",
                         TRUE, Adapter, Packet);
}

EXTERN_C FILTER_STATUS NTAPI Filter_IndicatePacketToProtocolEx(PFilterAdapter Adapter, PFilterPacket Packet)
{
    return DeliverToHook("Filter_IndicatePacketToProtocolEx", "Filter_InjectPacketToProtocolEx",
                         "AA Indicate To Protocol", FALSE, Adapter, Packet);
}

/* ---- immediate entries ---- */

namespace {

FILTER_STATUS InjectNow(PCSTR Name, PFilterAdapter Adapter, PFilterPacket Packet, ULONG Direction, FILTER_TYPE Type)
{
    return TakeAdapterPacket(Name, Adapter, Packet, [&]() -> FILTER_STATUS {
        Packet->m_hAdapter = Adapter;
        Packet->m_nDirection = Direction;
        Filter_InvokeFilters(Type, Packet);
        return FILTER_STATUS_SUCCESS;
    });
}

} // namespace

/* Runs the inject-to-adapter chain now, in the caller's context. */
EXTERN_C FILTER_STATUS NTAPI Filter_InjectPacketToAdapter(PFilterAdapter Adapter, PFilterPacket Packet)
{
    return InjectNow("Filter_InjectPacketToAdapter", Adapter, Packet, FILTER_DIRECTION_TO_ADAPTER,
                     FILTER_TYPE_INJECT_TO_ADAPTER);
}

/* Runs the inject-to-protocol chain now, in the caller's context. */
EXTERN_C FILTER_STATUS NTAPI Filter_IndicatePacketToProtocol(PFilterAdapter Adapter, PFilterPacket Packet)
{
    return InjectNow("Filter_IndicatePacketToProtocol", Adapter, Packet, FILTER_DIRECTION_TO_PROTOCOL,
                     FILTER_TYPE_INJECT_TO_PROTOCOL);
}

/* ---- the injected-packet queues ---- */

namespace {

/*
 * The queue of a packet: the parity of the sum of its IPv4 source and
 * destination (each loaded as a little-endian word), so both directions of
 * an address pair share a queue and keep their order; queue 0 without IPv4.
 */
ULONG QueueOf(PFilterPacket Packet)
{
    if (Packet->m_pIp == NULL)
        return 0;
    return (NfReadWireWord(Packet->m_pIp + 12) + NfReadWireWord(Packet->m_pIp + 16)) & 1;
}

/*
 * Appends a packet to its queue. The worker drains until it finds the queue
 * empty, so only the packet that makes an empty queue non-empty wakes it.
 */
VOID Enqueue(PFilterPacket Packet)
{
    ULONG queue = QueueOf(Packet);
    BOOLEAN first;
    {
        NfWriteLock lock(&g_pGlobal->m_InjectedPacketLock[queue]);
        first = IsListEmpty(&g_pGlobal->m_InjectedPacketList[queue]);
        InsertTailList(&g_pGlobal->m_InjectedPacketList[queue], &Packet->m_InjectLink);
        InterlockedIncrement(&g_pGlobal->m_nInjectPacketCount);
    }
    if (first)
        NdisSetEvent(&g_pGlobal->m_InjectPacketEvent[queue]);
}

FILTER_STATUS InjectLater(PCSTR Name, PFilterAdapter Adapter, PFilterPacket Packet, ULONG Direction, ULONG_PTR Origin)
{
    return TakeAdapterPacket(Name, Adapter, Packet, [&]() -> FILTER_STATUS {
        Packet->m_hAdapter = Adapter;
        Packet->m_nDirection = Direction;
        Packet->m_InjectOrigin = Origin;
        Packet->m_hInjectFilter = NULL;
        Enqueue(Packet);
        return FILTER_STATUS_SUCCESS;
    });
}

} // namespace

/* Queued; the worker treats it as a frame the adapter just received. */
EXTERN_C FILTER_STATUS NTAPI Filter_IndicatePacketFromAdapter(PFilterAdapter Adapter, PFilterPacket Packet)
{
    return InjectLater("Filter_IndicatePacketFromAdapter", Adapter, Packet, FILTER_DIRECTION_TO_PROTOCOL, 0);
}

/* Queued; the worker treats it as a frame a protocol just sent. */
EXTERN_C FILTER_STATUS NTAPI Filter_InjectPacketFromProtocol(PFilterAdapter Adapter, PFilterPacket Packet)
{
    return InjectLater("Filter_InjectPacketFromProtocol", Adapter, Packet, FILTER_DIRECTION_TO_ADAPTER, 0);
}

/* Queued; the worker runs the inject chain of `Direction` (3: back to the application). */
EXTERN_C FILTER_STATUS NTAPI Filter_InjectPacketFromApplication(PFilterAdapter Adapter, PFilterPacket Packet,
                                                                ULONG Direction)
{
    return InjectLater("Filter_InjectPacketFromApplication", Adapter, Packet, Direction, 1);
}

/*
 * Filter_InjectPacketFromFilter - a consumed packet handed back: queued, and
 * the worker re-enters the chain at `Filter` as `Method` says. The packet's
 * adapter and direction stay as they are. A filter handle that fails its
 * check is refused like a missing one; a filter removed while the packet
 * waits takes its queued packets with it.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_InjectPacketFromFilter(FILTER_METHOD Method, PPacketFilter Filter,
                                                           PFilterPacket Packet)
{
    return TakePacket("Filter_InjectPacketFromFilter", Filter, Packet, [&]() -> FILTER_STATUS {
        if (!Filter_IsValidFilter(Filter)) {
            Filter_ReleasePacket(Packet);
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        Packet->m_hInjectFilter = Filter;
        Packet->m_InjectOrigin = (ULONG_PTR)(Method | NF_INJECT_FROM_FILTER);
        Enqueue(Packet);
        return FILTER_STATUS_SUCCESS;
    });
}

/* The number of packets waiting on both queues. */
EXTERN_C LONG NTAPI Filter_GetInjectPacketCount(VOID)
{
    return InterlockedCompareExchange(&g_pGlobal->m_nInjectPacketCount, 0, 0);
}

/* Kept for the hook driver and clients that read it; the queues have no bound. */
EXTERN_C VOID NTAPI Filter_SetPendingPacketLimit(ULONG Limit)
{
    g_PendingPacketLimit = Limit;
}

namespace {

/* One packet taken off a queue, by where it came from. */
VOID ProcessInjectedPacket(PFilterPacket Packet)
{
    ULONG_PTR origin = Packet->m_InjectOrigin;
    if (!NdisFilter_IsOpenAdapter(Packet->m_hAdapter)) {
        /* Its adapter closed while it waited: never delivered to it. */
        Filter_ReleasePacket(Packet);
    } else if (origin == 0) {
        if (Packet->m_nDirection == FILTER_DIRECTION_TO_PROTOCOL || Packet->m_nDirection == FILTER_DIRECTION_TO_ADAPTER)
            FilterHookPacket(Packet, Packet->m_nDirection);
        else
            Filter_ReleasePacket(Packet);
    } else if (origin == 1) {
        Filter_InitPacketHeader(Packet, NULL);
        Filter_DumpPacket(">> Injected Packet", Packet);
        NdisFilter_RecordAdapterFrame(Packet->m_hAdapter, NF_ETHRLOG_INJECT, Packet);
        switch (Packet->m_nDirection) {
        case FILTER_DIRECTION_TO_ADAPTER:
            Filter_InvokeFilters(FILTER_TYPE_INJECT_TO_ADAPTER, Packet);
            break;
        case FILTER_DIRECTION_TO_PROTOCOL:
            Filter_InvokeFilters(FILTER_TYPE_INJECT_TO_PROTOCOL, Packet);
            break;
        case FILTER_DIRECTION_TO_APPLICATION:
            NdisFilter_WriteShareMemory(Packet);
            Filter_ReleasePacket(Packet);
            break;
        default:
            Filter_ReleasePacket(Packet);
            break;
        }
    } else {
        Filter_InvokeFiltersEx((FILTER_METHOD)(origin & 0x0FFFFFFF), Packet->m_hInjectFilter, Packet);
    }
}

/*
 * Processes the queue's packets one at a time, in order, with the lock free
 * while each is processed. TRUE when there was at least one.
 */
BOOLEAN DrainQueue(ULONG Queue)
{
    PLIST_ENTRY head = &g_pGlobal->m_InjectedPacketList[Queue];
    for (BOOLEAN drained = FALSE;; drained = TRUE) {
        PFilterPacket packet;
        {
            NfWriteLock lock(&g_pGlobal->m_InjectedPacketLock[Queue]);
            if (IsListEmpty(head))
                return drained;
            packet = CONTAINING_RECORD(RemoveHeadList(head), FilterPacket, m_InjectLink);
            InterlockedDecrement(&g_pGlobal->m_nInjectPacketCount);
        }
        ProcessInjectedPacket(packet);
    }
}

} // namespace

/*
 * InjectedPacketThread - serves injection queue `StartContext` (0 or 1). Wakes
 * on the queue's event or every 10 ms, so it also notices m_bStopShare
 * without being signalled; after draining it polls the queue briefly before
 * it sleeps again. IRQL = PASSIVE_LEVEL, priority 16.
 */
EXTERN_C VOID NTAPI InjectedPacketThread(PVOID StartContext)
{
    PNdisFilterDeviceExtension global = g_pGlobal;
    ULONG queue = (ULONG)(ULONG_PTR)StartContext;
    NF_TRACE(NF_DBG_PACKET, "Enter InjectedPacketThread\n");
    NdisFilter_WorkerThreadEnter();

    PLIST_ENTRY head = &global->m_InjectedPacketList[queue];
    while (!global->m_bStopShare) {
        NdisWaitEvent(&global->m_InjectPacketEvent[queue], NF_INJECT_WAIT_MS);
        /* After a run of packets, more are likely: poll before sleeping. */
        while (DrainQueue(queue) && !global->m_bStopShare &&
               NdisFilter_PollBriefly(
                   [&] { return *(PLIST_ENTRY volatile *)&head->Flink != head || global->m_bStopShare; }))
            ;
        /* The event may be reset only while the queue is seen empty under its lock. */
        NfReadLock lock(&global->m_InjectedPacketLock[queue]);
        if (IsListEmpty(&global->m_InjectedPacketList[queue]))
            NdisResetEvent(&global->m_InjectPacketEvent[queue]);
    }

    NF_TRACE(NF_DBG_PACKET, "Leave InjectedPacketThread\n");
    NdisFilter_WorkerThreadLeave();
}

VOID NdisFilter_PurgeQueuedPackets(PFilterAdapter Adapter, PPacketFilter Filter)
{
    LIST_ENTRY purged;
    InitializeListHead(&purged);
    for (ULONG queue = 0; queue < NF_INJECT_QUEUE_COUNT; queue++) {
        NfWriteLock lock(&g_pGlobal->m_InjectedPacketLock[queue]);
        PLIST_ENTRY head = &g_pGlobal->m_InjectedPacketList[queue];
        PLIST_ENTRY next;
        for (PLIST_ENTRY link = head->Flink; link != head; link = next) {
            next = link->Flink;
            PFilterPacket packet = CONTAINING_RECORD(link, FilterPacket, m_InjectLink);
            BOOLEAN fromFilter = (packet->m_InjectOrigin & NF_INJECT_FROM_FILTER) != 0;
            if ((Adapter != NULL && packet->m_hAdapter == Adapter) ||
                (Filter != NULL && fromFilter && packet->m_hInjectFilter == Filter)) {
                RemoveEntryList(link);
                InterlockedDecrement(&g_pGlobal->m_nInjectPacketCount);
                InsertTailList(&purged, link);
            }
        }
    }
    while (!IsListEmpty(&purged))
        Filter_ReleasePacket(CONTAINING_RECORD(RemoveHeadList(&purged), FilterPacket, m_InjectLink));
}

/* At unload: every packet still queued goes back to the hook driver. */
VOID NdisFilter_ReleaseQueuedPackets(VOID)
{
    for (ULONG queue = 0; queue < NF_INJECT_QUEUE_COUNT; queue++) {
        PLIST_ENTRY head = &g_pGlobal->m_InjectedPacketList[queue];
        while (!IsListEmpty(head)) {
            PLIST_ENTRY link = RemoveHeadList(head);
            InterlockedDecrement(&g_pGlobal->m_nInjectPacketCount);
            Filter_ReleasePacket(CONTAINING_RECORD(link, FilterPacket, m_InjectLink));
        }
    }
}

/* ---- the user program ---- */

/*
 * Filter_IndicatePacketToApplication - copies the packet, with a code and a
 * value, into the output ring; the caller keeps the packet. A full ring is
 * not reported.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_IndicatePacketToApplication(PFilterPacket Packet, ULONG Code, ULONG64 Value)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_PACKET, "Filter_IndicatePacketToApplication", status);
    if (Packet == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    Packet->m_nIndicateCode = Code;
    Packet->m_nIndicateValue = Value;
    Filter_DumpPacket("<< Indicate to Application", Packet);
    NdisFilter_WriteShareMemory(Packet);
    return status;
}

/*
 * Filter_IndicateSignalToApplication - copies a signal record into the output
 * ring (its word at offset 12 set to 0 first). FILTER_ERROR_OUT_OF_MEMORY when
 * the ring is full or sharing has stopped.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_IndicateSignalToApplication(PVOID Signal)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_PACKET, "Filter_IndicateSignalToApplication", status);
    if (Signal == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    ULONG zero = 0;
    RtlCopyMemory((PUCHAR)Signal + 12, &zero, sizeof(zero));
    if (!NdisFilter_WriteSignalPacket(Signal))
        status = FILTER_ERROR_OUT_OF_MEMORY;
    return status;
}
