/*
 * Filters on the packet path: verdicts, counters, the partial walks of
 * Filter_InvokeFiltersEx and the injected-packet queues. Frames come from the
 * simulated hook driver, whose accounting checks that every packet comes
 * back exactly once.
 */
#include "hook_fixture.h"
#include "ndisfilter-records.h"
#include "packets.h"

#include <windows.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

namespace {

/* What a test filter does with a packet. */
struct Behaviour {
    std::string name;
    FILTER_RESULT verdict = FILTER_RESULT_BYPASS;
    bool fault = false;
    std::vector<std::string> *log = nullptr;
    std::vector<PFilterPacket> *kept = nullptr;
    std::mutex *lock = nullptr;
    std::atomic<bool> *hold = nullptr; /* spun on (DISPATCH_LEVEL: no waiting) before answering, once */
    int handOn = 0; /* before a fault: 1 releases the packet, 2 queues it back through the adapter */
    std::vector<ULONG_PTR> *origins = nullptr;
};

const UCHAR *UnreadablePage()
{
    static void *page = mmap(nullptr, sysconf(_SC_PAGESIZE), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return (const UCHAR *)page;
}

FILTER_RESULT NTAPI Behave(PFilterDriver, PVOID, PPacketFilter, PVOID context, PFilterPacket packet)
{
    Behaviour *behaviour = static_cast<Behaviour *>(context);
    if (behaviour->lock != nullptr) {
        std::lock_guard<std::mutex> guard(*behaviour->lock);
        if (behaviour->log != nullptr)
            behaviour->log->push_back(behaviour->name);
        if (behaviour->origins != nullptr)
            behaviour->origins->push_back(packet->m_InjectOrigin);
    }
    if (behaviour->hold != nullptr) {
        std::atomic<bool> *hold = behaviour->hold;
        behaviour->hold = nullptr;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!hold->load() && std::chrono::steady_clock::now() < deadline)
            YieldProcessor();
    }
    if (behaviour->handOn == 1)
        Filter_ReleasePacket(packet);
    else if (behaviour->handOn == 2)
        Filter_IndicatePacketFromAdapter(packet->m_hAdapter, packet);
    if (behaviour->fault)
        return (FILTER_RESULT)*(volatile const UCHAR *)UnreadablePage();
    if (behaviour->verdict == FILTER_RESULT_CONSUME && behaviour->kept != nullptr) {
        std::lock_guard<std::mutex> guard(*behaviour->lock);
        behaviour->kept->push_back(packet);
    }
    return behaviour->verdict;
}

class FilterInvocation : public hooktest::HookTest {
protected:
    void SetUp() override
    {
        LoadBoth(true);
        m_adapter = OpenAdapter(1);
        STRING name;
        RtlInitAnsiString(&name, "invocation-test");
        ASSERT_EQ(Filter_RegisterDriver(&name, nullptr, 1, 0, &m_driver), FILTER_STATUS_SUCCESS);
    }
    void TearDown() override
    {
        for (PFilterPacket packet : m_kept)
            Filter_ReleasePacket(packet);
        if (m_driver != nullptr)
            Filter_DeregisterDriver(m_driver);
        hooktest::HookTest::TearDown();
    }

    PPacketFilter AddFilter(const std::string &name, FILTER_TYPE type, FILTER_ORDER order,
                            FILTER_RESULT verdict = FILTER_RESULT_BYPASS, bool fault = false)
    {
        m_behaviours.emplace_back(new Behaviour());
        Behaviour *behaviour = m_behaviours.back().get();
        behaviour->name = name;
        behaviour->verdict = verdict;
        behaviour->fault = fault;
        behaviour->log = &m_log;
        behaviour->kept = &m_kept;
        behaviour->lock = &m_lock;
        behaviour->origins = &m_origins;
        STRING counted;
        RtlInitAnsiString(&counted, m_behaviours.back()->name.c_str());
        PPacketFilter filter = nullptr;
        EXPECT_EQ(Filter_RegisterFilter(m_driver, &counted, Behave, behaviour, type, order, &filter),
                  FILTER_STATUS_SUCCESS);
        return filter;
    }

    void Receive(const nftest::Frame &frame)
    {
        ASSERT_EQ(NdisHookReceiveFrame(m_adapter, frame.data(), (ULONG)frame.size(), nullptr), STATUS_SUCCESS);
    }

    ULONG Delivered(ULONG direction) { return NdisHookDeliveredCount(m_adapter, direction); }

    std::vector<std::string> Log()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_log;
    }

    /* Waits until the hook driver has every packet back (queued packets take a worker's turn). */
    void WaitForQuiet()
    {
        for (int i = 0; i < 500 && (Filter_GetInjectPacketCount() != 0 || NdisHookPacketsOutstanding() != (LONG)m_kept.size()); i++)
            Sleep(2);
    }

    PFilterAdapter m_adapter = nullptr;
    PFilterDriver m_driver = nullptr;
    std::vector<std::unique_ptr<Behaviour>> m_behaviours;
    std::vector<std::string> m_log;
    std::vector<PFilterPacket> m_kept;
    std::vector<ULONG_PTR> m_origins;
    std::mutex m_lock;
};

/* A packet of `adapter` holding an ARP frame: no IPv4 header, so it is queued on queue 0. */
PFilterPacket ArpPacket(PFilterAdapter adapter)
{
    PFilterPacket packet = Filter_AllocatePacket(adapter);
    nftest::Frame frame = nftest::CaseFrame(8);
    frame[12] = 0x08, frame[13] = 0x06;
    memcpy(packet->m_Data, frame.data(), frame.size());
    packet->m_nPacketSize = packet->m_nBytesRead = (ULONG)frame.size();
    Filter_InitPacketHeader(packet, nullptr);
    return packet;
}

/* An IPv4/UDP frame from `source` to `destination` (first octets only differ). */
nftest::Frame UdpFrame(UCHAR sourceOctet, UCHAR destinationOctet)
{
    nftest::Frame frame = nftest::CaseFrame(11); /* DNS query */
    frame[26] = sourceOctet, frame[27] = 0, frame[28] = 0, frame[29] = 1;
    frame[30] = destinationOctet, frame[31] = 0, frame[32] = 0, frame[33] = 2;
    return frame;
}

} // namespace

TEST_F(FilterInvocation, AnEmptyChainDeliversReceivedAndSentFramesUnchanged)
{
    nftest::Frame frame = nftest::CaseFrame(8);
    Receive(frame);
    ASSERT_EQ(NdisHookSendFrame(m_adapter, frame.data(), (ULONG)frame.size(), nullptr), STATUS_SUCCESS);
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), 1u);
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_ADAPTER), 1u);
    EXPECT_EQ(ndishook::DeliveredFrames(m_adapter, FILTER_DIRECTION_TO_PROTOCOL).at(0), frame);
}

/* A filter's counts as every reader sees them: summed over the walk slots. */
static NfFilterCounts Counts(PPacketFilter filter)
{
    NfFilterCounts totals;
    NdisFilter_SumFilterCounts(filter, &totals);
    return totals;
}

TEST_F(FilterInvocation, EachVerdictDecidesThePacketsFateAndIsCounted)
{
    PPacketFilter bypass = AddFilter("bypass", FILTER_TYPE_INCOMING_PACKET, 1);
    PPacketFilter judge = AddFilter("judge", FILTER_TYPE_INCOMING_PACKET, 2, FILTER_RESULT_DISCARD);
    Behaviour *judgement = m_behaviours.back().get();
    PPacketFilter after = AddFilter("after", FILTER_TYPE_INCOMING_PACKET, 3);

    m_adapter->m_bPacketDump = TRUE;
    HkDebugClearCapture();
    Receive(nftest::CaseFrame(8));
    m_adapter->m_bPacketDump = FALSE;
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), 0u);
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0);
    auto lines = nftest::TakeTrace();
    bool dumped = false;
    for (const auto &line : lines)
        dumped |= line.rfind("DD Filter Discard, Size = ", 0) == 0;
    EXPECT_TRUE(dumped);

    judgement->verdict = FILTER_RESULT_CAPTURE;
    HkDebugClearCapture();
    Receive(nftest::CaseFrame(8));
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), 0u);
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0);

    judgement->verdict = FILTER_RESULT_CONSUME;
    Receive(nftest::CaseFrame(8));
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), 0u);
    EXPECT_EQ(NdisHookPacketsOutstanding(), 1); /* kept by the filter */

    judgement->verdict = FILTER_RESULT_BYPASS;
    Receive(nftest::CaseFrame(8));
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), 1u);

    EXPECT_EQ(Log(), (std::vector<std::string>{"bypass", "judge", "bypass", "judge", "bypass", "judge", "bypass",
                                               "judge", "after"}));
    EXPECT_EQ(Counts(bypass).m_PacketProcess, 4);
    EXPECT_EQ(Counts(bypass).m_PacketBypass, 4);
    EXPECT_EQ(Counts(judge).m_PacketProcess, 4);
    EXPECT_EQ(Counts(judge).m_PacketDiscard, 1);
    EXPECT_EQ(Counts(judge).m_PacketCapture, 1);
    EXPECT_EQ(Counts(judge).m_PacketConsume, 1);
    EXPECT_EQ(Counts(judge).m_PacketBypass, 1);
    EXPECT_EQ(Counts(after).m_PacketProcess, 1);
}

TEST_F(FilterInvocation, CountsKeptApartByConcurrentWalksAddUpExactlyForEveryReader)
{
    PPacketFilter first = AddFilter("first", FILTER_TYPE_INCOMING_PACKET, 1);
    PPacketFilter judge = AddFilter("judge", FILTER_TYPE_INCOMING_PACKET, 2, FILTER_RESULT_DISCARD);
    const int threads = 4, frames = 300;
    std::vector<std::thread> receivers;
    for (int t = 0; t < threads; t++)
        receivers.emplace_back([&] {
            for (int i = 0; i < frames; i++)
                NdisHookReceiveFrame(m_adapter, nftest::CaseFrame(8).data(), (ULONG)nftest::CaseFrame(8).size(), nullptr);
        });
    for (std::thread &receiver : receivers)
        receiver.join();
    EXPECT_EQ(Counts(first).m_PacketProcess, threads * frames);
    EXPECT_EQ(Counts(first).m_PacketBypass, threads * frames);
    EXPECT_EQ(Counts(judge).m_PacketDiscard, threads * frames);
    HkDebugClearCapture();
    EXPECT_EQ(Filter_ShowFilter(judge, 1), FILTER_STATUS_SUCCESS);
    auto lines = nftest::TakeTrace();
    EXPECT_NE(std::find(lines.begin(), lines.end(), "- m_PacketProcess   = 1200"), lines.end());
    EXPECT_NE(std::find(lines.begin(), lines.end(), "- m_PacketDiscard   = 1200"), lines.end());
}

TEST_F(FilterInvocation, ARemovalWaitsForTheWalksInFlightAndItsFilterIsNeverCalledAfterwards)
{
    std::atomic<bool> release{false};
    AddFilter("slow", FILTER_TYPE_INCOMING_PACKET, 1);
    m_behaviours.back()->hold = &release;
    PPacketFilter victim = AddFilter("victim", FILTER_TYPE_INCOMING_PACKET, 2);
    std::thread walker([&] { Receive(nftest::CaseFrame(8)); });
    while (Log().empty()) /* the walk is inside "slow" */
        std::this_thread::yield();
    std::atomic<bool> removed{false};
    std::thread remover([&] {
        EXPECT_EQ(Filter_DeregisterFilter(m_driver, victim), FILTER_STATUS_SUCCESS);
        removed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(removed.load());
    release = true;
    walker.join();
    remover.join();
    Receive(nftest::CaseFrame(8));
    std::vector<std::string> log = Log();
    ASSERT_GE(log.size(), 2u);
    EXPECT_EQ(log.back(), "slow");
    EXPECT_EQ(log[log.size() - 2], log.size() == 2 ? "slow" : "victim"); /* only the walk in flight met it */
}

TEST_F(FilterInvocation, AnUnknownVerdictAndAFaultingFilterBothMoveOnToTheNextFilter)
{
    PPacketFilter odd = AddFilter("odd", FILTER_TYPE_OUTGOING_PACKET, 1, (FILTER_RESULT)7);
    PPacketFilter faulty = AddFilter("faulty", FILTER_TYPE_OUTGOING_PACKET, 2, FILTER_RESULT_BYPASS, true);
    AddFilter("last", FILTER_TYPE_OUTGOING_PACKET, 3);
    HkDebugClearCapture();
    nftest::Frame frame = nftest::CaseFrame(9);
    ASSERT_EQ(NdisHookSendFrame(m_adapter, frame.data(), (ULONG)frame.size(), nullptr), STATUS_SUCCESS);

    EXPECT_EQ(Log(), (std::vector<std::string>{"odd", "faulty", "last"}));
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_ADAPTER), 1u);
    EXPECT_EQ(Counts(odd).m_PacketProcess, 1);
    NfFilterCounts oddCounts = Counts(odd);
    EXPECT_EQ(oddCounts.m_PacketBypass + oddCounts.m_PacketDiscard + oddCounts.m_PacketConsume + oddCounts.m_PacketCapture, 0);
    EXPECT_EQ(Counts(faulty).m_PacketProcess, 1);
    EXPECT_EQ(Counts(faulty).m_PacketBypass, 0);
    bool reported = false;
    for (const auto &line : nftest::TakeTrace())
        reported |= line.rfind("  Filter_InvokeFilters: exception, code = -1073741819, pPacket=0x", 0) == 0;
    EXPECT_TRUE(reported);
}

TEST_F(FilterInvocation, EveryMethodRunsExactlyItsPartOfTheChain)
{
    PPacketFilter a = AddFilter("A", FILTER_TYPE_INCOMING_PACKET, 1);
    PPacketFilter b = AddFilter("B", FILTER_TYPE_INCOMING_PACKET, 2);
    PPacketFilter c = AddFilter("C", FILTER_TYPE_INCOMING_PACKET, 3);
    PPacketFilter elsewhere = AddFilter("X", FILTER_TYPE_OUTGOING_PACKET, 1);
    /* A filter of the same type that is no longer in the chain. */
    PPacketFilter gone = AddFilter("gone", FILTER_TYPE_INCOMING_PACKET, 9);
    RemoveEntryList(&gone->m_ListEntry);
    InitializeListHead(&gone->m_ListEntry);

    struct Case {
        FILTER_METHOD method;
        PPacketFilter given;
        std::vector<std::string> runs;
    } cases[] = {
        {FILTER_METHOD_START_FROM_FIRST_FILTER, b, {"A", "B", "C"}},
        {FILTER_METHOD_START_UNTIL_THIS_FILTER, a, {"A"}},
        {FILTER_METHOD_START_UNTIL_THIS_FILTER, b, {"A", "B"}},
        {FILTER_METHOD_START_UNTIL_THIS_FILTER, c, {"A", "B", "C"}},
        {FILTER_METHOD_STOP_AT_THIS_FILTER, a, {}},
        {FILTER_METHOD_STOP_AT_THIS_FILTER, b, {"A"}},
        {FILTER_METHOD_STOP_AT_THIS_FILTER, c, {"A", "B"}},
        {FILTER_METHOD_START_FROM_THIS_FILTER, a, {"A", "B", "C"}},
        {FILTER_METHOD_START_FROM_THIS_FILTER, c, {"C"}},
        {FILTER_METHOD_START_AFTER_THIS_FILTER, a, {"B", "C"}},
        {FILTER_METHOD_START_AFTER_THIS_FILTER, c, {}},
        {(FILTER_METHOD)9, b, {"B", "C"}},
    };
    ULONG delivered = 0;
    for (const Case &test : cases) {
        SCOPED_TRACE(std::string(Filter_MethodString(test.method)) + " at " + test.given->m_FilterName.Buffer);
        m_log.clear();
        PFilterPacket packet = Filter_AllocatePacket(m_adapter);
        ASSERT_NE(packet, nullptr);
        Filter_InvokeFiltersEx(test.method, test.given, packet);
        EXPECT_EQ(Log(), test.runs);
        EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), ++delivered);
    }

    /* A filter no longer in its chain is no place to start or stop: nothing runs, the packet is released. */
    for (FILTER_METHOD method : {FILTER_METHOD_START_UNTIL_THIS_FILTER, FILTER_METHOD_START_AFTER_THIS_FILTER}) {
        m_log.clear();
        Filter_InvokeFiltersEx(method, gone, Filter_AllocatePacket(m_adapter));
        EXPECT_TRUE(Log().empty());
        EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), delivered);
        EXPECT_EQ(NdisHookPacketsOutstanding(), 0);
    }

    /* The walk follows the given filter's own chain. */
    m_log.clear();
    Filter_InvokeFiltersEx(FILTER_METHOD_START_FROM_FIRST_FILTER, elsewhere, Filter_AllocatePacket(m_adapter));
    EXPECT_EQ(Log(), (std::vector<std::string>{"X"}));
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_ADAPTER), 1u);

    /* An invalid filter handle releases the packet. */
    ULONG bogus[16] = {0};
    Filter_InvokeFiltersEx(FILTER_METHOD_START_FROM_FIRST_FILTER, (PPacketFilter)bogus, Filter_AllocatePacket(m_adapter));
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0);
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), delivered);

    InsertTailList(&g_pGlobal->m_PacketFilterList[FILTER_TYPE_INCOMING_PACKET], &gone->m_ListEntry);
}

TEST_F(FilterInvocation, QueuesAreChosenByAddressParityAndKeepTheirOrder)
{
    /* The first packet of queue 0 holds its worker; the packets behind it wait, the other queue does not. */
    std::atomic<bool> hold{false};
    AddFilter("gate", FILTER_TYPE_INCOMING_PACKET, 1);
    m_behaviours.back()->hold = &hold;

    auto queued = [&](UCHAR source, UCHAR destination) {
        PFilterPacket packet = Filter_AllocatePacket(m_adapter);
        nftest::Frame frame = UdpFrame(source, destination);
        memcpy(packet->m_Data, frame.data(), frame.size());
        packet->m_nPacketSize = packet->m_nBytesRead = (ULONG)frame.size();
        Filter_InitPacketHeader(packet, nullptr);
        EXPECT_EQ(Filter_IndicatePacketFromAdapter(m_adapter, packet), FILTER_STATUS_SUCCESS);
    };
    queued(10, 10); /* queue 0: held at the gate */
    for (int i = 0; i < 200 && Log().empty(); i++)
        Sleep(2);
    ASSERT_EQ(Log().size(), 1u);
    queued(10, 10); /* the reply direction of the same pair: queue 0 as well */
    queued(11, 10); /* queue 1 */
    for (int i = 0; i < 500 && Delivered(FILTER_DIRECTION_TO_PROTOCOL) < 1; i++)
        Sleep(2);
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), 1u); /* only the queue-1 packet got through */
    EXPECT_EQ(Filter_GetInjectPacketCount(), 1);

    hold = true;
    WaitForQuiet();
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), 3u);
    auto frames = ndishook::DeliveredFrames(m_adapter, FILTER_DIRECTION_TO_PROTOCOL);
    EXPECT_EQ(frames[0][26], 11);
    EXPECT_EQ(frames[1][26], 10);
    EXPECT_EQ(Filter_GetInjectPacketCount(), 0);
}

TEST_F(FilterInvocation, AConsumedPacketHandedBackRunsFromTheFiltersSuccessor)
{
    PPacketFilter consumer = AddFilter("consumer", FILTER_TYPE_INCOMING_PACKET, 1, FILTER_RESULT_CONSUME);
    AddFilter("successor", FILTER_TYPE_INCOMING_PACKET, 2);
    Receive(nftest::CaseFrame(4));
    ASSERT_EQ(m_kept.size(), 1u);
    PFilterPacket packet = m_kept.back();
    m_kept.clear();

    ASSERT_EQ(Filter_InjectPacketFromFilter(FILTER_METHOD_START_AFTER_THIS_FILTER, consumer, packet),
              FILTER_STATUS_SUCCESS);
    WaitForQuiet();
    EXPECT_EQ(Log(), (std::vector<std::string>{"consumer", "successor"}));
    EXPECT_EQ(m_origins.back(), (ULONG_PTR)0x80000004u);
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), 1u);
    EXPECT_EQ(Filter_InjectPacketFromFilter(FILTER_METHOD_START_AFTER_THIS_FILTER, nullptr, nullptr),
              FILTER_ERROR_INVALID_ARGUMENT);
}

TEST_F(FilterInvocation, DeliveryWithTheHookUnboundReleasesThePacket)
{
    PFilterPacket packet = Filter_AllocatePacket(m_adapter);
    ASSERT_EQ(NdisHookUnbind(), STATUS_SUCCESS);
    EXPECT_EQ(Filter_InjectPacketToAdapterEx(m_adapter, packet), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
    ASSERT_EQ(NdisHookBind(), STATUS_SUCCESS);
    /* Released while unbound, nothing reached the hook driver's free: it is still out. */
    EXPECT_EQ(NdisHookPacketsOutstanding(), 1);
    Filter_ReleasePacket(packet);
    EXPECT_EQ(Filter_InjectPacketToAdapterEx(m_adapter, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

TEST_F(FilterInvocation, AFilterThatHandsItsPacketOnAndThenFaultsLeavesItWhereItWent)
{
    AddFilter("releases", FILTER_TYPE_INCOMING_PACKET, 1, FILTER_RESULT_BYPASS, true);
    Behaviour *faulty = m_behaviours.back().get();
    AddFilter("after", FILTER_TYPE_INCOMING_PACKET, 2);
    faulty->handOn = 1;
    Receive(nftest::CaseFrame(8));
    EXPECT_EQ(Log(), (std::vector<std::string>{"releases"}));
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), 0u);
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0);

    /* Queued back before the fault: the walk stops, the worker delivers it once. */
    faulty->handOn = 2;
    faulty->fault = true;
    m_log.clear();
    Receive(nftest::CaseFrame(8));
    faulty->handOn = 0;
    faulty->fault = false; /* the queued packet's own walk passes */
    WaitForQuiet();
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), 1u);
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0);
}

TEST_F(FilterInvocation, ForgedOrClosedAdaptersAreRefusedByEveryEntryAndNothingReachesThem)
{
    PFilterAdapter closed = OpenAdapter(2);
    ASSERT_EQ(NdisHookCloseAdapter(closed), STATUS_SUCCESS);
    static ULONG forged[512];
    for (PFilterAdapter bad : {closed, (PFilterAdapter)forged}) {
        typedef FILTER_STATUS (*Entry)(PFilterAdapter, PFilterPacket);
        Entry entries[] = {
            Filter_IndicatePacketFromAdapter,
            Filter_InjectPacketFromProtocol,
            [](PFilterAdapter a, PFilterPacket p) { return Filter_InjectPacketFromApplication(a, p, 1); },
            Filter_InjectPacketToAdapter,
            Filter_IndicatePacketToProtocol,
            Filter_InjectPacketToAdapterEx,
            Filter_IndicatePacketToProtocolEx,
        };
        for (Entry entry : entries)
            EXPECT_EQ(entry(bad, Filter_AllocatePacket(m_adapter)), FILTER_ERROR_INVALID_ARGUMENT);
        /* A packet handed back by a filter keeps its own adapter: the worker releases it. */
        PPacketFilter filter = AddFilter(bad == closed ? "f1" : "f2", FILTER_TYPE_INCOMING_PACKET, 1);
        PFilterPacket packet = Filter_AllocatePacket(m_adapter);
        packet->m_hAdapter = bad;
        EXPECT_EQ(Filter_InjectPacketFromFilter(FILTER_METHOD_START_FROM_FIRST_FILTER, filter, packet),
                  FILTER_STATUS_SUCCESS);
        WaitForQuiet();
        EXPECT_EQ(NdisHookPacketsOutstanding(), 0);
        EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL) + Delivered(FILTER_DIRECTION_TO_ADAPTER), 0u);
    }
}

TEST_F(FilterInvocation, PacketsWaitingForAClosedAdapterOrARemovedFilterAreReleasedNotDelivered)
{
    /* The first packet of queue 0 holds its worker at the gate; the others wait behind it. */
    std::atomic<bool> hold{false};
    AddFilter("gate", FILTER_TYPE_INJECT_TO_PROTOCOL, 1);
    m_behaviours.back()->hold = &hold;
    PPacketFilter consumer = AddFilter("leaving", FILTER_TYPE_INCOMING_PACKET, 1, FILTER_RESULT_CONSUME);
    PFilterAdapter other = OpenAdapter(2);

    ASSERT_EQ(Filter_InjectPacketFromApplication(m_adapter, ArpPacket(m_adapter), FILTER_DIRECTION_TO_PROTOCOL),
              FILTER_STATUS_SUCCESS);
    for (int i = 0; i < 200 && Log().empty(); i++)
        Sleep(2);
    ASSERT_EQ(Log(), (std::vector<std::string>{"gate"}));

    PFilterPacket consumed = ArpPacket(m_adapter);
    ASSERT_EQ(Filter_InjectPacketFromFilter(FILTER_METHOD_START_AFTER_THIS_FILTER, consumer, consumed),
              FILTER_STATUS_SUCCESS);
    ASSERT_EQ(Filter_IndicatePacketFromAdapter(other, ArpPacket(other)), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_GetInjectPacketCount(), 2);

    ASSERT_EQ(Filter_DeregisterFilter(m_driver, consumer), FILTER_STATUS_SUCCESS);
    ASSERT_EQ(NdisHookCloseAdapter(other), STATUS_SUCCESS);
    EXPECT_EQ(Filter_GetInjectPacketCount(), 0);
    EXPECT_EQ(NdisHookPacketsOutstanding(), 1); /* only the one held at the gate */

    hold = true;
    WaitForQuiet();
    EXPECT_EQ(Delivered(FILTER_DIRECTION_TO_PROTOCOL), 1u); /* the gate's own packet */
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0);
}
