/*
 * Live adapters on real devices: two namespaces joined through the framework
 * (scripts/live-netns), no client driver, so every frame passes. Skipped where
 * namespaces, veth pairs or TAP devices cannot be made.
 */
#include <ndisfilter-testkit.h>
#include <ndishook-live.h>

#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

class LiveAdapterTest : public nfkit::ClientDriverTest {
protected:
    /* The hook packet callbacks' trace shows the status changes the framework heard. */
    ULONG FrameworkDebugMask() override { return 0x2; }

    void SetUp() override
    {
        ClientDriverTest::SetUp();
        if (Shell(Script() + " check") != 0)
            GTEST_SKIP() << "network namespaces, veth pairs or TAP devices cannot be made here (not root?)";
        m_tag = "g" + std::to_string(getpid());
        ASSERT_EQ(Shell(Script() + " up " + m_tag + " >/dev/null"), 0);
        m_up = true;
    }

    void TearDown() override
    {
        m_live.reset(); /* before the hook driver unloads */
        ClientDriverTest::TearDown();
        if (m_up)
            Shell(Script() + " down " + m_tag);
    }

    static std::string Script() { return NF_SOURCE_DIR "/scripts/live-netns"; }
    static int Shell(const std::string &command) { return std::system(command.c_str()); }
    int InA(const std::string &command) { return Shell("ip netns exec nf-a-" + m_tag + " " + command); }
    int InB(const std::string &command) { return Shell("ip netns exec nf-b-" + m_tag + " " + command); }

    void OpenLive()
    {
        ndishook::LiveSetup setup;
        setup.Wire = "nfw0";
        setup.Tap = "nftap0";
        setup.Netns = "nf-a-" + m_tag;
        std::string error;
        m_live = ndishook::LiveAdapter::Open(setup, &error);
        ASSERT_NE(m_live, nullptr) << error;
    }

    /* Entries of a /proc/self directory: descriptors or threads. */
    /* Entries of a /proc directory; descriptors of live pool blocks (the pool keeps the memfd of
     * large ones, and the hook driver keeps its packet blocks until unload) are not counted. */
    static int Entries(const char *path)
    {
        int count = 0;
        if (DIR *dir = opendir(path)) {
            while (struct dirent *entry = readdir(dir)) {
                char link[64] = {};
                std::string name = std::string(path) + "/" + entry->d_name;
                if (readlink(name.c_str(), link, sizeof(link) - 1) > 0 && std::strncmp(link, "/memfd:hk-pool", 14) == 0)
                    continue;
                count++;
            }
            closedir(dir);
        }
        return count;
    }

    template <typename Condition>
    static bool Eventually(Condition condition)
    {
        for (int i = 0; i < 300 && !condition(); i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return condition();
    }

    std::string m_tag;
    bool m_up = false;
    std::unique_ptr<ndishook::LiveAdapter> m_live;
};

TEST_F(LiveAdapterTest, FramesCrossOnceAndTheAdapterFollowsTheDevices)
{
    OpenLive();
    PFilterAdapter adapter = m_live->Handle();
    const UCHAR tapMac[6] = {0x02, 0x4e, 0x46, 0x00, 0x00, 0x01};
    EXPECT_EQ(std::memcmp(adapter->m_CurrentAddress, tapMac, 6), 0);
    EXPECT_EQ(adapter->m_usMTU, 1500);
    ASSERT_EQ(adapter->m_IPConfig.m_nIP, 1u);
    const UCHAR address[4] = {10, 77, 0, 1}, mask[4] = {255, 255, 255, 0};
    EXPECT_EQ(std::memcmp(&adapter->m_IPConfig.m_IP[0].IpAddress, address, 4), 0);
    EXPECT_EQ(std::memcmp(&adapter->m_IPConfig.m_IP[0].Netmask, mask, 4), 0);

    ASSERT_EQ(InA("ping -q -c 3 -i 0.2 -W 2 10.77.0.2 >/dev/null"), 0);
    ASSERT_TRUE(WaitForQuiet());
    ndishook::LiveCounters c = m_live->Counters();
    EXPECT_GE(c.FromStack, 4u); /* ARP and three echo requests */
    EXPECT_GE(c.FromWire, 4u);
    EXPECT_EQ(c.ToWire, c.FromStack); /* each exactly once */
    EXPECT_EQ(c.ToStack, c.FromWire);
    NDIS_HOOK_STATISTICS hook = HookStatistics();
    EXPECT_EQ(hook.SendsIndicated, c.FromStack);
    EXPECT_EQ(hook.ReceivesIndicated, c.FromWire);

    TakeDebugOutput();
    ASSERT_EQ(InB("ip link set nfp0 down"), 0);
    EXPECT_TRUE(Eventually([&] { return adapter->m_nAdapterMediaState == (ULONG)NdisMediaStateDisconnected; }));
    ASSERT_EQ(InB("ip link set nfp0 up"), 0);
    EXPECT_TRUE(Eventually([&] { return adapter->m_nAdapterMediaState == (ULONG)NdisMediaStateConnected; }));
    EXPECT_EQ(m_live->Counters().LinkChanges, 2u);
    int heard = 0;
    for (const std::string &line : TakeDebugOutput())
        heard += line.find("Enter NdisFilter_AdapterStatusChanged") != std::string::npos;
    EXPECT_EQ(heard, 2);
    EXPECT_FALSE(m_live->Gone());
}

TEST_F(LiveAdapterTest, AnInterfaceDeletedUnderLoadClosesTheAdapterAndLeavesNothingOut)
{
    const int descriptors = Entries("/proc/self/fd"), threads = Entries("/proc/self/task");
    OpenLive();
    ASSERT_EQ(InA("sh -c 'ping -q -f -w 5 10.77.0.2 >/dev/null 2>&1 &'"), 0);
    EXPECT_TRUE(Eventually([&] { return m_live->Counters().FromWire > 200; }));
    ASSERT_EQ(InB("ip link del nfp0"), 0);
    ASSERT_TRUE(Eventually([&] { return m_live->Gone(); }));
    EXPECT_EQ(m_live->GoneReason(), "nfw0 was deleted");
    EXPECT_EQ(NdisHookCloseAdapter(m_live->Handle()), STATUS_NOT_FOUND); /* closed already */
    m_live->Close();
    EXPECT_EQ(Entries("/proc/self/fd"), descriptors);
    EXPECT_EQ(Entries("/proc/self/task"), threads);
    EXPECT_TRUE(WaitForQuiet()); /* and TearDown fails on any packet still out or verifier finding */
}

} // namespace
