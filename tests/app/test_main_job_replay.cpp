// The main job's replay on captures far larger than the hook driver's packet pool:
// it waits for packets to come back instead of failing, accounts for every frame,
// and its memory does not grow with the capture's length.
#include "hook_fixture.h"

#include "adapters.h"
#include "capture-files.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

namespace {

const UCHAR Host[6] = {0x02, 0x00, 0x00, 0x00, 0x0a, 0x01};
const UCHAR Peer[6] = {0x02, 0x00, 0x00, 0x00, 0x0a, 0x02};

/* A capture of `frames` UDP frames of 1000 bytes that Host sent. */
std::string MakeCapture(const char *name, size_t frames)
{
    std::string path = std::string("/tmp/") + name + "-" + std::to_string(getpid()) + ".pcap";
    host::CaptureWriter writer;
    std::string error;
    EXPECT_TRUE(writer.Open(path, &error)) << error;
    std::vector<unsigned char> frame(1000, 0);
    std::memcpy(frame.data(), Peer, 6);
    std::memcpy(frame.data() + 6, Host, 6);
    frame[12] = 0x08;
    frame[14] = 0x45;
    frame[23] = 17;
    for (size_t n = 0; n < frames; n++) {
        frame[18] = (unsigned char)(n >> 8);
        frame[19] = (unsigned char)n;
        writer.Write(frame.data(), frame.size(), 1700000000 + (int64_t)(n / 1000000), (int64_t)(n % 1000000));
    }
    EXPECT_TRUE(writer.Close(&error)) << error;
    return path;
}

/* A client that takes every frame sent and gives the packets back only now and then,
 * from a thread of its own, as a slow consumer would. */
class Hoarder {
public:
    Hoarder()
    {
        STRING name;
        RtlInitAnsiString(&name, "hoarder");
        EXPECT_EQ(Filter_RegisterDriver(&name, this, 1, 0, &m_driver), FILTER_STATUS_SUCCESS);
        STRING filter;
        RtlInitAnsiString(&filter, "hold");
        EXPECT_EQ(Filter_RegisterFilter(m_driver, &filter, Hold, this, FILTER_TYPE_OUTGOING_PACKET, FILTER_ORDER_FIRST,
                                        &m_filter),
                  FILTER_STATUS_SUCCESS);
        m_releaser = std::thread([this] {
            while (!m_stop) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
                ReleaseAll();
            }
            ReleaseAll();
        });
    }
    ~Hoarder()
    {
        m_stop = true;
        m_releaser.join();
        Filter_DeregisterDriver(m_driver);
    }
    size_t MostHeld() const { return m_mostHeld; }

private:
    static FILTER_RESULT NTAPI Hold(PFilterDriver, PVOID context, PPacketFilter, PVOID, PFilterPacket packet)
    {
        Hoarder *self = static_cast<Hoarder *>(context);
        std::lock_guard<std::mutex> guard(self->m_lock);
        self->m_held.push_back(packet);
        self->m_mostHeld = std::max(self->m_mostHeld, self->m_held.size());
        return FILTER_RESULT_CONSUME;
    }
    void ReleaseAll()
    {
        std::vector<PFilterPacket> held;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            held.swap(m_held);
        }
        for (PFilterPacket packet : held)
            Filter_ReleasePacket(packet);
    }

    PFilterDriver m_driver = nullptr;
    PPacketFilter m_filter = nullptr;
    std::mutex m_lock;
    std::vector<PFilterPacket> m_held;
    size_t m_mostHeld = 0;
    std::atomic<bool> m_stop{false};
    std::thread m_releaser;
};

/* The process's peak resident set, in kB. */
long PeakResidentKb()
{
    FILE *status = std::fopen("/proc/self/status", "r");
    long peak = 0;
    char line[256];
    while (status != nullptr && std::fgets(line, sizeof(line), status) != nullptr)
        std::sscanf(line, "VmHWM: %ld kB", &peak);
    if (status != nullptr)
        std::fclose(status);
    return peak;
}

class MainJobReplay : public hooktest::HookTest {
protected:
    void SetUp() override { LoadBoth(true); }

    /* Replays a capture on an adapter of its own; every frame must come back to the hook driver. */
    host::ReplayResult ReplayCapture(const std::string &path, host::ReplayAdapter **replayed)
    {
        std::string error;
        EXPECT_TRUE(host::ReadCaptures({path}, &m_adapters, &error)) << error;
        EXPECT_TRUE(host::OpenAdapters(m_adapters, &error)) << error;
        host::ReplayResult result;
        {
            Hoarder hoarder;
            result = host::Replay(m_adapters, false);
            EXPECT_GT(hoarder.MostHeld(), 0u);
        }
        *replayed = m_adapters.back().get();
        host::CloseAdapters(m_adapters);
        std::remove(path.c_str());
        return result;
    }

    host::Adapters m_adapters;
};

TEST_F(MainJobReplay, ACaptureManyTimesThePacketPoolWaitsForPacketsAndAccountsForEveryFrame)
{
    const size_t frames = 20 * 256; /* the hook driver's packet pool holds 256 */
    NDIS_HOOK_STATISTICS before;
    NdisHookGetStatistics(&before);
    host::ReplayAdapter *adapter = nullptr;
    host::ReplayResult result = ReplayCapture(MakeCapture("replay-pool", frames), &adapter);

    ASSERT_TRUE(result.Ok) << result.Error;
    EXPECT_GT(result.Waits, 0u);
    EXPECT_EQ(result.Frames, frames);
    EXPECT_EQ(adapter->FrameCount, frames);
    EXPECT_EQ(adapter->Sent, frames);
    NDIS_HOOK_STATISTICS after;
    NdisHookGetStatistics(&after);
    EXPECT_EQ(after.SendsIndicated - before.SendsIndicated, frames);
    EXPECT_EQ(after.PacketsHandedOut - before.PacketsHandedOut,
              (after.PacketsFreed - before.PacketsFreed) + (after.PacketsInjected - before.PacketsInjected));
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0);
}

TEST_F(MainJobReplay, MemoryDoesNotGrowWithTheCapturesLength)
{
    host::ReplayAdapter *adapter = nullptr;
    ASSERT_TRUE(ReplayCapture(MakeCapture("replay-short", 5000), &adapter).Ok);
    const long afterShort = PeakResidentKb();
    m_adapters.clear();
    host::ReplayResult longer = ReplayCapture(MakeCapture("replay-long", 50000), &adapter);
    ASSERT_TRUE(longer.Ok) << longer.Error;
    EXPECT_EQ(adapter->Sent, 50000u);
    /* Holding the capture would take 50 MB more; what is left must not depend on its length. */
    EXPECT_LT(PeakResidentKb() - afterShort, 8 * 1024);
}

} // namespace
