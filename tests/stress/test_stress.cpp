/*
 * Concurrency stress: real frames pushed through the receive and send paths
 * of two adapters while client drivers and packet filters (bypass, discard,
 * consume and reinject, indicate to the application) come and go, and the
 * user program sends through the input ring and drains the output ring.
 *
 * The run is cut into rounds. A round ends when every thread has stopped and
 * every queue and ring has drained; then its accounting is checked: every
 * packet the hook driver handed out came back exactly once, no frame reached
 * the protocols, the wire or the application twice or somewhere it did not
 * belong, and every frame that did not arrive was taken by a filter. Each
 * frame carries its source, round and number in its source MAC address.
 *
 * NF_STRESS_SECONDS sets the length of the run (default 3).
 */
#include "data_files.h"
#include "hook_fixture.h"

#include <ndisfilter-app.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using Frames = std::vector<std::vector<UCHAR>>;

/* Who sent a frame: the wire (received), the protocols (sent) or the application (input ring). */
enum Source : ULONG { FromWire, FromProtocols, FromApplication, SourceCount };
const ULONG kPerRound = 1u << 14; /* frames one source sends in a round at most */
const size_t kAdapters = 2;

/* What happened to one frame of the round. */
struct Tally {
    std::atomic<ULONG> released{0}, discarded{0}, consumed{0}, indicated{0}, received{0};
    ULONG delivered = 0; /* counted once the round is quiet */
};

struct Tag {
    ULONG source, seq;
};

/* Where a frame goes: its template, adapter and the direction it travels. */
struct Route {
    size_t frame;
    size_t adapter;
    ULONG direction;
};

enum class Kind { Bypass, Discard, Reinject, Indicate };

class StressTest;

struct StressFilter {
    Kind kind;
    ULONG id;
    StressTest *test;
};

/* A registered client driver and its filters still in their chains. */
struct LiveDriver {
    PFilterDriver handle = nullptr;
    std::vector<std::pair<PPacketFilter, StressFilter *>> filters;
};

double StressSeconds()
{
    const char *text = getenv("NF_STRESS_SECONDS");
    double seconds = text != nullptr ? atof(text) : 0;
    return seconds > 0 ? seconds : 3;
}

std::atomic<ULONG> ReleasesInRound{0};

class StressTest : public hooktest::HookTest {
protected:
    void SetUp() override
    {
        m_echo = HkDebugGetEcho();
        HkDebugSetEcho(FALSE); /* every registration dumps its chain */
        LoadBoth(true);
        m_frames = nftest::ReadPcap(nftest::DataPath("traffic/host-a.pcap"));
        ASSERT_FALSE(m_frames.empty());
        for (size_t a = 0; a < kAdapters; a++) {
            m_adapters[a] = OpenAdapter((int)a + 1);
            ASSERT_EQ(Filter_AdapterToId(m_adapters[a], &m_ids[a]), FILTER_STATUS_SUCCESS);
        }
        NdisHookSetPacketObserver(Observe, this);
        ASSERT_TRUE(m_channel.Open() && m_channel.Start()) << m_channel.ControlError().Describe();
        m_receiver = std::thread([this] {
            m_channel.RunReceiver([this](const nfapp::ReceivedBlock &block) { OnBlock(block); }, 20);
        });
    }

    void TearDown() override
    {
        if (m_receiver.joinable()) {
            m_channel.RequestStop();
            m_receiver.join();
        }
        m_channel.Close();
        DeregisterAll();
        NdisHookSetPacketObserver(nullptr, nullptr);
        hooktest::HookTest::TearDown();
        HkDebugSetEcho(m_echo);
    }

    /* ---- frames and their tags ---- */

    Route RouteOf(Tag tag) const
    {
        const size_t n = m_frames.size();
        const ULONG seq = tag.seq;
        if (tag.source == FromWire)
            return {seq % n, seq % kAdapters, FILTER_DIRECTION_TO_PROTOCOL};
        if (tag.source == FromProtocols)
            return {(seq + n / 2) % n, (seq + 1) % kAdapters, FILTER_DIRECTION_TO_ADAPTER};
        static const ULONG directions[3] = {FILTER_DIRECTION_TO_APPLICATION, FILTER_DIRECTION_TO_PROTOCOL,
                                            FILTER_DIRECTION_TO_ADAPTER};
        return {(seq + n / 3) % n, (seq / 3) % kAdapters, directions[seq % 3]};
    }

    /* The frame as sent: its template with the tag in the source address. */
    std::vector<UCHAR> Build(Tag tag) const
    {
        std::vector<UCHAR> frame = m_frames[RouteOf(tag).frame];
        const UCHAR stamp[6] = {0x02, (UCHAR)(0x40 | tag.source), (UCHAR)m_round.load(), (UCHAR)(tag.seq >> 16),
                                (UCHAR)(tag.seq >> 8), (UCHAR)tag.seq};
        std::copy(stamp, stamp + 6, frame.begin() + 6);
        return frame;
    }

    /* FALSE for a frame without a tag of this round. */
    bool Decode(const UCHAR *frame, ULONG length, Tag *tag) const
    {
        if (length < 12 || frame[6] != 0x02 || (frame[7] & 0xF0) != 0x40 || (frame[7] & 0x0F) >= SourceCount ||
            frame[8] != (UCHAR)m_round.load())
            return false;
        tag->source = frame[7] & 0x0F;
        tag->seq = (ULONG)frame[9] << 16 | (ULONG)frame[10] << 8 | frame[11];
        return tag->seq < kPerRound;
    }

    Tally &At(Tag tag) { return m_tallies[tag.source * kPerRound + tag.seq]; }

    /* A broken rule; the first few are kept for the report. */
    void Note(const std::string &problem)
    {
        std::lock_guard<std::mutex> guard(m_problemLock);
        if (m_problems.size() < 12)
            m_problems.push_back(problem);
        m_problemCount++;
    }

    static std::string Describe(Tag tag)
    {
        static const char *const names[] = {"wire", "protocols", "application"};
        return std::string("frame ") + std::to_string(tag.seq) + " from the " + names[tag.source];
    }

    /* ---- the hook driver's and the framework's callbacks ---- */

    /* Every indicated packet gets a release callback that counts its return. */
    static VOID Observe(PFilterPacket packet, PVOID context)
    {
        StressTest *self = static_cast<StressTest *>(context);
        Tag tag;
        if (!self->Decode(packet->m_Data, packet->m_nBytesRead, &tag)) {
            self->Note("the hook driver indicated a frame without a tag");
            return;
        }
        packet->m_pfReleaseCallback = Released;
        packet->m_pReleaseContext = &self->At(tag);
    }

    static VOID NTAPI Released(PFilterPacket, PVOID context)
    {
        static_cast<Tally *>(context)->released++;
        ReleasesInRound++;
    }

    /* Each kind of filter acts on a share of the frames, chosen by number, and counts what it did. */
    static FILTER_RESULT NTAPI Judge(PFilterDriver, PVOID, PPacketFilter filter, PVOID context, PFilterPacket packet)
    {
        StressFilter *self = static_cast<StressFilter *>(context);
        Tag tag;
        if (!self->test->Decode(packet->m_Data, packet->m_nBytesRead, &tag)) {
            self->test->Note("a filter saw a frame without this round's tag");
            return FILTER_RESULT_BYPASS;
        }
        Tally &tally = self->test->At(tag);
        const ULONG pick = tag.seq + self->id;
        switch (self->kind) {
        case Kind::Discard:
            if (pick % 8 != 0)
                break;
            tally.discarded++;
            return FILTER_RESULT_DISCARD;
        case Kind::Reinject:
            if (pick % 3 != 0)
                break;
            tally.consumed++;
            Filter_InjectPacketFromFilter(FILTER_METHOD_START_AFTER_THIS_FILTER, filter, packet);
            return FILTER_RESULT_CONSUME;
        case Kind::Indicate:
            if (pick % 2 != 0)
                break;
            if (Filter_TransferPacketData(packet) != FILTER_STATUS_SUCCESS) {
                self->test->Note(Describe(tag) + ": Filter_TransferPacketData failed");
                break;
            }
            tally.indicated++;
            Filter_IndicatePacketToApplication(packet, self->id, tag.seq);
            break;
        case Kind::Bypass:
            break;
        }
        return FILTER_RESULT_BYPASS;
    }

    /* A block from the output ring: an indicated frame or one the application sent itself. */
    void OnBlock(const nfapp::ReceivedBlock &block)
    {
        Tag tag;
        if (!Decode(block.Frame, block.Length, &tag)) {
            Note("the output ring held a block without this round's tag");
            return;
        }
        At(tag).received++;
        Route route = RouteOf(tag);
        if (block.AdapterId != m_ids[route.adapter] || block.Direction != route.direction)
            Note(Describe(tag) + " reached the application with the wrong adapter or direction");
        else if (std::vector<UCHAR>(block.Frame, block.Frame + block.Length) != Build(tag))
            Note(Describe(tag) + " reached the application changed");
    }

    /* ---- the threads of a round ---- */

    void Push(ULONG source, const std::atomic<bool> &stop)
    {
        ULONG seq = 0;
        for (; seq < kPerRound && !stop.load(); seq++) {
            Tag tag = {source, seq};
            std::vector<UCHAR> frame = Build(tag);
            PFilterAdapter adapter = m_adapters[RouteOf(tag).adapter];
            NTSTATUS status;
            /* Out of packet descriptors, as NDIS can be while the injected-packet queues are long:
             * the frame was not handed out, so it is offered again once some came back. */
            while ((status = source == FromWire
                                 ? NdisHookReceiveFrame(adapter, frame.data(), (ULONG)frame.size(), nullptr)
                                 : NdisHookSendFrame(adapter, frame.data(), (ULONG)frame.size(), nullptr)) ==
                   STATUS_INSUFFICIENT_RESOURCES) {
                m_refusals++;
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
            if (status != STATUS_SUCCESS) {
                char text[48];
                snprintf(text, sizeof text, ": the hook driver refused it, 0x%08X", (unsigned)status);
                Note(Describe(tag) + text);
                break;
            }
        }
        m_sent[source] = seq;
    }

    void SendFromApplication(const std::atomic<bool> &stop)
    {
        ULONG seq = 0;
        for (; seq < kPerRound && !stop.load(); seq++) {
            Tag tag = {FromApplication, seq};
            std::vector<UCHAR> frame = Build(tag);
            Route route = RouteOf(tag);
            nfapp::SendResult result;
            while ((result = m_channel.Send(m_ids[route.adapter], route.direction, frame.data(), (ULONG)frame.size())) ==
                       nfapp::SendResult::RingFull &&
                   !stop.load())
                std::this_thread::yield();
            if (result != nfapp::SendResult::Sent) {
                if (result != nfapp::SendResult::RingFull)
                    Note(Describe(tag) + ": " + nfapp::SendResultName(result) + ", " + m_channel.SendError().Describe());
                break;
            }
        }
        m_sent[FromApplication] = seq;
    }

    /* Registers drivers with one to four filters of any kind, chain and order, removes single
     * filters, and deregisters the oldest driver (with what it has left) beyond three. */
    void Churn(const std::atomic<bool> &stop, std::mt19937 &random)
    {
        static const FILTER_ORDER orders[] = {FILTER_ORDER_FIRST, FILTER_ORDER_NEXT, FILTER_ORDER_LAST};
        while (!stop.load()) {
            LiveDriver driver;
            std::string name = "stress-driver-" + std::to_string(m_nextId++);
            STRING counted;
            RtlInitAnsiString(&counted, name.c_str());
            if (Filter_RegisterDriver(&counted, this, FILTER_API_MAJOR_VERSION, FILTER_API_MINOR_VERSION,
                                      &driver.handle) != FILTER_STATUS_SUCCESS ||
                driver.handle == nullptr) {
                Note("Filter_RegisterDriver failed for " + name);
                return;
            }
            for (ULONG count = 1 + random() % 4; count != 0; count--) {
                m_contexts.emplace_back(new StressFilter{(Kind)(random() % 4), m_nextId++, this});
                StressFilter *context = m_contexts.back().get();
                std::string filterName = "stress-filter-" + std::to_string(context->id);
                RtlInitAnsiString(&counted, filterName.c_str());
                FILTER_ORDER order = random() % 2 ? (FILTER_ORDER)(1 + random() % 100) : orders[random() % 3];
                PPacketFilter filter = nullptr;
                if (Filter_RegisterFilter(driver.handle, &counted, Judge, context, (FILTER_TYPE)(random() % 4), order,
                                          &filter) != FILTER_STATUS_SUCCESS ||
                    filter == nullptr)
                    Note("Filter_RegisterFilter failed for " + filterName);
                else
                    driver.filters.emplace_back(filter, context);
            }
            m_drivers.push_back(std::move(driver));
            m_registered++;
            std::this_thread::sleep_for(std::chrono::microseconds(200));

            LiveDriver &some = m_drivers[random() % m_drivers.size()];
            if (random() % 2 && !some.filters.empty()) {
                if (Filter_DeregisterFilter(some.handle, some.filters.back().first) != FILTER_STATUS_SUCCESS)
                    Note("Filter_DeregisterFilter failed");
                some.filters.pop_back();
            }
            if (m_drivers.size() > 3) {
                if (Filter_DeregisterDriver(m_drivers.front().handle) != FILTER_STATUS_SUCCESS)
                    Note("Filter_DeregisterDriver failed");
                m_drivers.pop_front();
            }
        }
    }

    void DeregisterAll()
    {
        for (LiveDriver &driver : m_drivers)
            EXPECT_EQ(Filter_DeregisterDriver(driver.handle), FILTER_STATUS_SUCCESS);
        m_drivers.clear();
    }

    /* Nothing in flight: the input ring taken, every packet back with the hook driver and its
     * release callback run, no packet queued, the output ring drained. */
    bool WaitForQuiet()
    {
        const ULONG hookFrames = m_sent[FromWire] + m_sent[FromProtocols];
        return hktest::WaitUntil(
            [&] {
                NDIS_HOOK_STATISTICS stats;
                NdisHookGetStatistics(&stats);
                return m_channel.InputInFlight() == 0 && stats.PacketsOutstanding == 0 &&
                       stats.PacketsHandedOut == stats.PacketsFreed + stats.PacketsInjected &&
                       Filter_GetInjectPacketCount() == 0 && ReleasesInRound.load() == hookFrames &&
                       m_channel.OutputWaiting() == 0;
            },
            std::chrono::seconds(60));
    }

    /* ---- a round ---- */

    void RunRound(ULONG round, Clock::time_point end)
    {
        m_round = round;
        m_tallies.reset(new Tally[SourceCount * kPerRound]);
        ReleasesInRound = 0;
        NDIS_HOOK_STATISTICS before;
        NdisHookGetStatistics(&before);

        std::atomic<bool> stop{false};
        std::mt19937 random(round);
        std::thread wire([&] { Push(FromWire, stop); });
        std::thread protocols([&] { Push(FromProtocols, stop); });
        std::thread application([&] { SendFromApplication(stop); });
        std::thread registrar([&] { Churn(stop, random); });
        while (Clock::now() < end && m_problemCount.load() == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        stop = true;
        wire.join();
        protocols.join();
        application.join();
        registrar.join();

        if (!WaitForQuiet()) {
            NDIS_HOOK_STATISTICS stats;
            NdisHookGetStatistics(&stats);
            ADD_FAILURE() << "round " << round << " never drained: " << stats.PacketsOutstanding
                          << " packets out, " << Filter_GetInjectPacketCount() << " queued, "
                          << m_channel.InputInFlight() << " input blocks, " << m_channel.OutputWaiting()
                          << " output blocks, " << ReleasesInRound.load() << " of "
                          << m_sent[FromWire] + m_sent[FromProtocols] << " hook packets released";
            return;
        }
        CountDeliveries();
        CheckRound(before);
        ForgetRemovedFilters();
        m_rounds++;
    }

    /* Takes the frames delivered on each adapter out of the hook driver's record and counts them. */
    void CountDeliveries()
    {
        for (size_t a = 0; a < kAdapters; a++) {
            for (ULONG direction : {(ULONG)FILTER_DIRECTION_TO_PROTOCOL, (ULONG)FILTER_DIRECTION_TO_ADAPTER}) {
                for (const std::vector<UCHAR> &frame : ndishook::TakeDeliveredFrames(m_adapters[a], direction)) {
                    Tag tag;
                    if (!Decode(frame.data(), (ULONG)frame.size(), &tag) || tag.seq >= m_sent[tag.source]) {
                        Note("a frame without this round's tag was delivered");
                        continue;
                    }
                    Route route = RouteOf(tag);
                    if (route.adapter != a || route.direction != direction)
                        Note(Describe(tag) + " was delivered on adapter " + std::to_string(a) + " in direction " +
                             std::to_string(direction) + ", not on " + std::to_string(route.adapter) + " in " +
                             std::to_string(route.direction));
                    else if (frame != Build(tag))
                        Note(Describe(tag) + " was delivered changed");
                    At(tag).delivered++;
                    m_delivered++;
                }
            }
        }
    }

    void CheckRound(const NDIS_HOOK_STATISTICS &before)
    {
        for (ULONG source = 0; source < SourceCount; source++) {
            for (ULONG seq = 0; seq < m_sent[source]; seq++) {
                Tag tag = {source, seq};
                const Tally &t = At(tag);
                const std::string what = Describe(tag);
                const bool echo = RouteOf(tag).direction == FILTER_DIRECTION_TO_APPLICATION;
                if (source != FromApplication && t.released != 1)
                    Note(what + " came back to the hook driver " + std::to_string(t.released) + " times");
                if (t.delivered > 1 || t.discarded > 1)
                    Note(what + " was delivered " + std::to_string(t.delivered) + " times and discarded " +
                         std::to_string(t.discarded) + " times");
                else if (t.delivered == 1 && t.discarded == 1)
                    Note(what + " was delivered although a filter discarded it");
                else if (!echo && t.delivered == 0 && t.discarded == 0 && t.consumed == 0)
                    Note(what + " was lost: neither delivered nor taken by a filter");
                if (echo && t.delivered != 0)
                    Note(what + " for the application was delivered to an adapter");
                if (t.received > t.indicated + (echo ? 1 : 0))
                    Note(what + " reached the application " + std::to_string(t.received) + " times, indicated " +
                         std::to_string(t.indicated) + " times");
                m_received += t.received;
                m_consumed += t.consumed;
            }
        }
        NDIS_HOOK_STATISTICS after;
        NdisHookGetStatistics(&after);
        EXPECT_EQ(after.ReceivesIndicated - before.ReceivesIndicated, m_sent[FromWire]);
        EXPECT_EQ(after.SendsIndicated - before.SendsIndicated, m_sent[FromProtocols]);
        std::lock_guard<std::mutex> guard(m_problemLock);
        if (m_problemCount != 0) {
            std::string report;
            for (const std::string &problem : m_problems)
                report += "\n  " + problem;
            ADD_FAILURE() << "round " << m_round << ": " << m_problemCount << " broken rules, the first:" << report;
        }
    }

    /* Contexts of filters no longer registered; no packet can reach them once the round is quiet. */
    void ForgetRemovedFilters()
    {
        std::vector<StressFilter *> live;
        for (const LiveDriver &driver : m_drivers)
            for (const auto &filter : driver.filters)
                live.push_back(filter.second);
        m_contexts.erase(std::remove_if(m_contexts.begin(), m_contexts.end(),
                                        [&](const std::unique_ptr<StressFilter> &context) {
                                            return std::find(live.begin(), live.end(), context.get()) == live.end();
                                        }),
                         m_contexts.end());
    }

    Frames m_frames;
    PFilterAdapter m_adapters[kAdapters] = {};
    ULONG m_ids[kAdapters] = {};
    nfapp::SharedChannel m_channel;
    std::thread m_receiver;
    BOOLEAN m_echo = TRUE;

    std::atomic<ULONG> m_round{0};
    std::unique_ptr<Tally[]> m_tallies;
    std::atomic<ULONG> m_sent[SourceCount] = {};

    std::deque<LiveDriver> m_drivers;
    std::vector<std::unique_ptr<StressFilter>> m_contexts;
    ULONG m_nextId = 1;

    std::mutex m_problemLock;
    std::vector<std::string> m_problems;
    std::atomic<ULONG> m_problemCount{0};

    ULONG m_rounds = 0, m_registered = 0;
    std::atomic<ULONG64> m_refusals{0};
    ULONG64 m_delivered = 0, m_received = 0, m_consumed = 0;
};

TEST_F(StressTest, PacketsSurviveDriversFiltersAndRingsChangingUnderThem)
{
    const auto end = Clock::now() + std::chrono::milliseconds((long)(StressSeconds() * 1000));
    ULONG round = 0;
    do {
        RunRound(++round, std::min(end, Clock::now() + std::chrono::seconds(1)));
    } while (Clock::now() < end && !HasFailure());

    DeregisterAll();
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0);
    /* The run exercised every path. */
    EXPECT_GT(m_delivered, 0u);
    EXPECT_GT(m_received, 0u);
    EXPECT_GT(m_consumed, 0u);
    EXPECT_GT(m_registered, 0u);
    printf("stress: %u rounds, %u drivers registered, %llu frames delivered, %llu blocks received, "
           "%llu reinjections, %llu frames offered again for want of packet descriptors\n",
           (unsigned)m_rounds, (unsigned)m_registered, (unsigned long long)m_delivered,
           (unsigned long long)m_received, (unsigned long long)m_consumed, (unsigned long long)m_refusals.load());
}

} // namespace
