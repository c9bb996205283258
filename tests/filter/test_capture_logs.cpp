/*
 * The capture logs: started and stopped by the control requests, one libpcap
 * file per point of the packet paths, written by a thread per file; the size
 * limit; closing with the adapter and at unload.
 */
#include "hook_fixture.h"
#include "ndisfilter-ethrlog.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>

namespace {

using hooktest::Frame;

/* One record of a capture file, as the file holds it. */
struct Record {
    ULONG Seconds, Microseconds, Captured, Wire;
    std::vector<UCHAR> Bytes;
    int64_t Micros() const { return (int64_t)Seconds * 1000000 + Microseconds; }
};

/* The global header every capture file starts with. */
const UCHAR PcapHeader[24] = {0xD4, 0xC3, 0xB2, 0xA1, 2, 0, 4, 0, 0, 0, 0, 0,
                              0,    0,    0,    0,    0xFF, 0xFF, 0, 0, 1, 0, 0, 0};

int64_t NowMicros()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

class CaptureLogs : public hooktest::HookTest {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/nf-ethrlog-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_dir = pattern;
        HkGetDriveDirectory('C', m_saved, sizeof(m_saved));
        ASSERT_EQ(HkSetDriveDirectory('C', m_dir.c_str()), STATUS_SUCCESS);
        m_threads = HkSystemThreadCount();
    }

    void TearDown() override
    {
        hooktest::HookTest::TearDown();
        EXPECT_EQ(HkOpenDriveFileCount(), 0u);
        EXPECT_EQ(HkSystemThreadCount(), m_threads);
        EXPECT_EQ(HkPoolLiveAllocationCountWithTag(NF_ETHRLOG_POOL_TAG), 0u);
        HkSetDriveDirectory('C', m_saved[0] != '\0' ? m_saved : nullptr);
        std::string command = "rm -rf '" + m_dir + "'";
        EXPECT_EQ(system(command.c_str()), 0);
    }

    /* Loads both drivers, opens adapter 1 and starts the logs; they are live when it returns. */
    void LoadAndStart(ULONG debugFlag = 0)
    {
        LoadBoth(true, debugFlag);
        m_adapter = OpenAdapter(1);
        m_before = NowMicros();
        EXPECT_EQ(Control(IOCTL_NDIS_FILTER_START_ETHRLOG), STATUS_SUCCESS);
    }

    /* Sends a framework control request without buffers and waits for the opens and closes it queued. */
    NTSTATUS Control(ULONG code)
    {
        std::vector<UCHAR> none;
        ULONG_PTR information = 99;
        NTSTATUS status = nftest::SendToDevice(IRP_MJ_DEVICE_CONTROL, code, none, 0, 0, &information);
        EXPECT_EQ(information, 0u);
        EXPECT_TRUE(HkWaitForWorkQueueIdle(10000));
        return status;
    }

    void WaitForQuiet()
    {
        EXPECT_TRUE(hktest::WaitUntil(
            [] { return Filter_GetInjectPacketCount() == 0 && NdisHookPacketsOutstanding() == 0; }));
    }

    std::string Path(const char *file) { return m_dir + "/" + file; }
    std::string AdapterFile(const char *edge) { return Path((std::string("Adapter(00-11-22-33-44-01)") + edge).c_str()); }

    /* The records of a capture file after its exact global header. */
    std::vector<Record> Read(const std::string &path)
    {
        std::ifstream in(path, std::ios::binary);
        std::vector<UCHAR> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::vector<Record> records;
        EXPECT_GE(bytes.size(), sizeof(PcapHeader)) << path;
        if (bytes.size() < sizeof(PcapHeader))
            return records;
        EXPECT_EQ(0, memcmp(bytes.data(), PcapHeader, sizeof(PcapHeader))) << path;
        size_t at = sizeof(PcapHeader);
        while (at + 16 <= bytes.size()) {
            Record record;
            memcpy(&record.Seconds, &bytes[at], 4);
            memcpy(&record.Microseconds, &bytes[at + 4], 4);
            memcpy(&record.Captured, &bytes[at + 8], 4);
            memcpy(&record.Wire, &bytes[at + 12], 4);
            at += 16;
            if (at + record.Captured > bytes.size())
                break;
            record.Bytes.assign(bytes.begin() + at, bytes.begin() + at + record.Captured);
            at += record.Captured;
            records.push_back(record);
        }
        EXPECT_EQ(at, bytes.size()) << path << ": a record is cut";
        return records;
    }

    /* The file holds exactly `frames`, in order, stamped between the start and now, in time order. */
    void ExpectFrames(const std::string &path, const std::vector<std::vector<UCHAR>> &frames)
    {
        std::vector<Record> records = Read(path);
        ASSERT_EQ(records.size(), frames.size()) << path;
        int64_t last = m_before, now = NowMicros();
        for (size_t i = 0; i < records.size(); i++) {
            EXPECT_EQ(records[i].Bytes, frames[i]) << path << " frame " << i;
            EXPECT_EQ(records[i].Captured, frames[i].size());
            EXPECT_EQ(records[i].Wire, frames[i].size());
            EXPECT_LT(records[i].Microseconds, 1000000u);
            EXPECT_GE(records[i].Micros(), last) << path << " frame " << i;
            EXPECT_LE(records[i].Micros(), now);
            last = records[i].Micros();
        }
    }

    PNfEthrLog Log(PVOID slot) { return (PNfEthrLog)slot; }

    std::string m_dir;
    char m_saved[4096] = "";
    ULONG m_threads = 0;
    int64_t m_before = 0;
    PFilterAdapter m_adapter = nullptr;
};

} // namespace

TEST_F(CaptureLogs, EachPointOfTheAdapterPathsWritesItsFile)
{
    LoadAndStart();
    ASSERT_NE(m_adapter->m_pUpperEthrLog, nullptr);
    EXPECT_NE(Log(m_adapter->m_pLowerEthrLog)->m_hFile, nullptr);
    EXPECT_EQ(HkOpenDriveFileCount(), 5u);

    /* Longer than the hook driver's lookahead: the copy holds the whole frame. */
    std::vector<UCHAR> received = Frame(300, 1), sent = Frame(60, 2), injected = Frame(64, 3);
    ASSERT_EQ(NdisHookReceiveFrame(m_adapter, received.data(), (ULONG)received.size(), nullptr), STATUS_SUCCESS);
    ASSERT_EQ(NdisHookSendFrame(m_adapter, sent.data(), (ULONG)sent.size(), nullptr), STATUS_SUCCESS);
    PFilterPacket packet = Filter_AllocatePacket(m_adapter);
    ASSERT_NE(packet, nullptr);
    memcpy(packet->m_Data, injected.data(), injected.size());
    packet->m_nPacketSize = packet->m_nBytesRead = (ULONG)injected.size();
    ASSERT_EQ(Filter_InjectPacketFromApplication(m_adapter, packet, FILTER_DIRECTION_TO_ADAPTER), FILTER_STATUS_SUCCESS);
    WaitForQuiet();
    EXPECT_EQ(Control(IOCTL_NDIS_FILTER_STOP_ETHRLOG), STATUS_SUCCESS);

    /* Stopped: every file complete and closed, the slots empty. */
    EXPECT_EQ(HkOpenDriveFileCount(), 0u);
    EXPECT_EQ(m_adapter->m_pUpperEthrLog, nullptr);
    EXPECT_EQ(g_pGlobal->m_pAppToDriverEthrLog, nullptr);
    ExpectFrames(AdapterFile("NdisLower.eth"), {received, sent, injected});
    ExpectFrames(AdapterFile("NdisUpper.eth"), {received, sent});
    ExpectFrames(AdapterFile("NdisInject.eth"), {injected});
    ExpectFrames(Path("Application-to-Driver-Io.eth"), {});
    ExpectFrames(Path("Driver-to-Application-Io.eth"), {});

    /* Frames after the stop go nowhere. */
    ASSERT_EQ(NdisHookReceiveFrame(m_adapter, received.data(), (ULONG)received.size(), nullptr), STATUS_SUCCESS);
    WaitForQuiet();
    EXPECT_EQ(Read(AdapterFile("NdisLower.eth")).size(), 3u);
}

TEST_F(CaptureLogs, StartAndStopTraceEachAdapterAndASecondStartKeepsTheFiles)
{
    LoadAndStart(NF_DBG_HOOK_PACKET);
    std::vector<std::string> trace = nftest::TakeTrace();
    int enter = nftest::FindLine(trace, "Enter NdisFilter_StartEthrLog");
    ASSERT_GE(enter, 0);
    std::vector<std::string> expected = {
        "Enter NdisFilter_StartEthrLog", "Enter NdisFilter_StartAdapterEthrLog",
        "AdapterName={00000001-1111-2222-3333-444455556666} - Simulated Ethernet",
        "Leave NdisFilter_StartAdapterEthrLog, TRUE", "Leave NdisFilter_StartEthrLog"};
    EXPECT_EQ(std::vector<std::string>(trace.begin() + enter, trace.begin() + enter + 5), expected);
    PVOID upper = m_adapter->m_pUpperEthrLog;

    std::vector<UCHAR> frame = Frame(60);
    ASSERT_EQ(NdisHookReceiveFrame(m_adapter, frame.data(), (ULONG)frame.size(), nullptr), STATUS_SUCCESS);
    WaitForQuiet();
    nftest::TakeTrace();
    EXPECT_EQ(Control(IOCTL_NDIS_FILTER_START_ETHRLOG), STATUS_SUCCESS);
    trace = nftest::TakeTrace();
    EXPECT_GE(nftest::FindLine(trace, "Ethrlog is opened already!Leave NdisFilter_StartAdapterEthrLog, FALSE"), 0);
    EXPECT_EQ(m_adapter->m_pUpperEthrLog, upper);

    EXPECT_EQ(Control(IOCTL_NDIS_FILTER_STOP_ETHRLOG), STATUS_SUCCESS);
    trace = nftest::TakeTrace();
    enter = nftest::FindLine(trace, "Enter NdisFilter_StopEthrLog");
    ASSERT_GE(enter, 0);
    expected = {"Enter NdisFilter_StopEthrLog", "Enter NdisFilter_StopAdapterEthrLog",
                "AdapterName={00000001-1111-2222-3333-444455556666} - Simulated Ethernet",
                "Leave NdisFilter_StopAdapterEthrLog, TRUE", "Leave NdisFilter_StopEthrLog"};
    EXPECT_EQ(std::vector<std::string>(trace.begin() + enter, trace.begin() + enter + 5), expected);
    ExpectFrames(AdapterFile("NdisLower.eth"), {frame});
    ExpectFrames(AdapterFile("NdisUpper.eth"), {frame});
}

TEST_F(CaptureLogs, AClosedAdapterClosesItsLogsAndUnloadClosesTheRest)
{
    LoadAndStart();
    std::vector<UCHAR> frame = Frame(90);
    for (int i = 0; i < 20; i++)
        ASSERT_EQ(NdisHookSendFrame(m_adapter, frame.data(), (ULONG)frame.size(), nullptr), STATUS_SUCCESS);
    ASSERT_EQ(NdisHookCloseAdapter(m_adapter), STATUS_SUCCESS);
    EXPECT_TRUE(HkWaitForWorkQueueIdle(10000));
    EXPECT_EQ(m_adapter->m_pUpperEthrLog, nullptr);
    EXPECT_EQ(m_adapter->m_pInjectEthrLog, nullptr);
    EXPECT_EQ(HkOpenDriveFileCount(), 2u); /* the shared rings' logs outlive the adapter */
    EXPECT_EQ(Read(AdapterFile("NdisUpper.eth")).size(), 20u);
    EXPECT_EQ(Read(AdapterFile("NdisLower.eth")).size(), 20u);

    /* With no adapter in the table a stop closes nothing. */
    EXPECT_FALSE(NdisFilter_StopEthrLog());
    EXPECT_TRUE(HkWaitForWorkQueueIdle(10000));
    EXPECT_EQ(HkOpenDriveFileCount(), 2u);
    EXPECT_NE(g_pGlobal->m_pDriverToAppEthrLog, nullptr);
    /* TearDown: the unload closes them, and no writer thread, file or record is left. */
}

TEST_F(CaptureLogs, TheSizeLimitClosesAFileAtTheRecordThatReachesIt)
{
    LoadAndStart();
    PNfEthrLog lower = Log(m_adapter->m_pLowerEthrLog);
    ASSERT_NE(lower->m_hFile, nullptr);
    lower->m_nMaxSize = 24 + 2 * (16 + 60); /* reached exactly by the second frame */
    std::vector<UCHAR> frame = Frame(60);
    for (int i = 0; i < 4; i++)
        ASSERT_EQ(NdisHookReceiveFrame(m_adapter, frame.data(), (ULONG)frame.size(), nullptr), STATUS_SUCCESS);
    WaitForQuiet();
    EXPECT_TRUE(hktest::WaitUntil([&] { return lower->m_hFile == nullptr; }));
    EXPECT_EQ(m_adapter->m_pLowerEthrLog, (PVOID)lower); /* kept until the stop */
    EXPECT_EQ(HkOpenDriveFileCount(), 4u);
    ExpectFrames(AdapterFile("NdisLower.eth"), {frame, frame});
    EXPECT_EQ(Read(AdapterFile("NdisUpper.eth")).size(), 4u);
    EXPECT_EQ(Control(IOCTL_NDIS_FILTER_STOP_ETHRLOG), STATUS_SUCCESS);
    EXPECT_EQ(HkOpenDriveFileCount(), 0u);
}
