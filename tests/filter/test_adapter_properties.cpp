/* Adapter properties and settings, media state by MAC, the TCP/IP list and IP configurations. */
#include "hook_fixture.h"
#include "registry.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

using nftest::FindLine;

ULONG g_events[8];

VOID NTAPI Count(PFilterDriver, PVOID, ULONG event, PVOID, PFilterAdapter)
{
    if (event < 8)
        g_events[event]++;
}

/* a.b.c.d as it lies in a packet. */
constexpr ULONG Ip(UCHAR a, UCHAR b, UCHAR c, UCHAR d)
{
    return (ULONG)a | (ULONG)b << 8 | (ULONG)c << 16 | (ULONG)d << 24;
}

class AdapterProperties : public hooktest::HookTest {
protected:
    void SetUp() override
    {
        std::memset(g_events, 0, sizeof g_events);
        LoadBoth(true, NF_DBG_ADAPTER);
        adapter = OpenAdapter(1);
        STRING name = nftest::Counted("watcher");
        ASSERT_EQ(Filter_RegisterDriver(&name, nullptr, 1, 0, &driver), FILTER_STATUS_SUCCESS);
        PEventHandler handler = nullptr;
        ASSERT_EQ(Filter_RegisterEventHandler(driver, Count, nullptr, &handler), FILTER_STATUS_SUCCESS);
        HkDebugClearCapture();
    }

    /* A record whose tag reads as an adapter's and whose other fields lie on a page that faults. */
    static PFilterAdapter HalfMappedAdapter()
    {
        static PUCHAR pages = (PUCHAR)mmap(nullptr, 2 * sysconf(_SC_PAGESIZE), PROT_READ | PROT_WRITE,
                                           MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        mprotect(pages + sysconf(_SC_PAGESIZE), sysconf(_SC_PAGESIZE), PROT_NONE);
        PFilterAdapter forged = (PFilterAdapter)(pages + sysconf(_SC_PAGESIZE) - sizeof(ULONG64));
        forged->m_Tag = FILTER_ADAPTER_TAG;
        return forged;
    }

    PFilterAdapter adapter = nullptr;
    PFilterDriver driver = nullptr;
};

TEST_F(AdapterProperties, GettersAnswerTheRecordAndRefuseNullAndForgedHandles)
{
    UCHAR mac[6] = {};
    ULONG value = 0;
    BOOLEAN flag = TRUE;
    EXPECT_EQ(Filter_GetAdapterCurrentAddress(adapter, mac), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(std::memcmp(mac, adapter->m_CurrentAddress, 6), 0);
    EXPECT_EQ(Filter_GetAdapterPermentAddress(adapter, mac), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(mac[0], 0x02);
    EXPECT_EQ(Filter_GetAdapterMediumType(adapter, &value), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(value, (ULONG)NdisMedium802_3);
    EXPECT_EQ(Filter_IsNdisWanAdapter(adapter, &flag), FILTER_STATUS_SUCCESS);
    EXPECT_FALSE(flag);
    HkDebugClearCapture();
    EXPECT_EQ(Filter_GetAdapterMediaState(adapter, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    std::vector<std::string> expected = {"Enter Filter_GetAdapterState", "  Error: -1 - FILTER_ERROR_INVALID_ARGUMENT",
                                         "Leave Filter_GetAdapterMediaState, -1-FILTER_ERROR_INVALID_ARGUMENT"};
    EXPECT_EQ(nftest::TakeTrace(), expected);
    /* The MTU getter checks the handle before its output. */
    USHORT mtu = 0;
    EXPECT_EQ(Filter_GetAdapterMtu(nullptr, nullptr), FILTER_ERROR_INVALID_ADAPTER_HANDLE);
    EXPECT_EQ(Filter_GetAdapterMtu(adapter, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_GetAdapterMtu(adapter, &mtu), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(mtu, 1500);
    auto lines = nftest::TakeTrace();
    EXPECT_GE(FindLine(lines, "Leave Filter_GetAdapterMtu, Invalid adapter"), 0);
    EXPECT_GE(FindLine(lines, "Leave Filter_GetAdapterMtu, Invalid argument"), 0);
    EXPECT_GE(FindLine(lines, "Leave Filter_GetAdapterMtu, 1500"), 0);

    EXPECT_EQ(Filter_GetAdapterCurrentAddress(nullptr, mac), FILTER_ERROR_INVALID_ARGUMENT);

    /* A handle whose tag reads right but whose fields fault: every access is guarded. */
    PFilterAdapter forged = HalfMappedAdapter();
    HkDebugClearCapture();
    EXPECT_EQ(Filter_GetAdapterCurrentAddress(forged, mac), FILTER_ERROR_EXCEPTION);
    EXPECT_EQ(Filter_GetAdapterMediaState(forged, &value), FILTER_ERROR_EXCEPTION);
    EXPECT_EQ(Filter_GetAdapterMtu(forged, &mtu), FILTER_ERROR_EXCEPTION);
    EXPECT_EQ(Filter_SetAdapterCongestionControl(forged, TRUE), FILTER_ERROR_EXCEPTION);
    PUNICODE_STRING name = nullptr;
    EXPECT_EQ(Filter_GetAdapterName(forged, &name), FILTER_ERROR_EXCEPTION);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(Filter_GetIPConfig(forged, nullptr), nullptr);
    lines = nftest::TakeTrace();
    EXPECT_GE(FindLine(lines, "Filter_GetAdapterCurrentAddress: exception, code = -1073741819"), 0);
    EXPECT_GE(FindLine(lines, "Filter_GetAdapterName: exception, code = -1073741819"), 0);
}

TEST_F(AdapterProperties, SettersPPPAddressesNameAndPacketDump)
{
    UCHAR out[6] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(Filter_GetAdapterPPPSrcMacAddress(adapter, out), FILTER_ERROR_ADAPTER_NOT_OPEN);
    EXPECT_EQ(std::memcmp(out, "\0\0\0\0\0\0", 6), 0);
    const UCHAR src[6] = {0x00, 0x53, 0x45, 0x00, 0x00, 0x0A};
    const UCHAR dst[6] = {0x00, 0x53, 0x45, 0x00, 0x00, 0x0B};
    GlobalDebugFlag = 0; /* the setters print whatever the mask */
    HkDebugClearCapture();
    EXPECT_EQ(Filter_SetAdapterPPPSrcMacAddress(adapter, src), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_SetAdapterPPPDstMacAddress(adapter, dst), FILTER_STATUS_SUCCESS);
    std::vector<std::string> expected = {"Set PPPSrcMacAddress = 00-53-45-00-00-0a",
                                         "Set PPPDstMacAddress = 00-53-45-00-00-0b"};
    EXPECT_EQ(nftest::TakeTrace(), expected);
    EXPECT_EQ(Filter_GetAdapterPPPDstMacAddress(adapter, out), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(std::memcmp(out, dst, 6), 0);
    EXPECT_EQ(Filter_SetAdapterPPPDstMacAddress(adapter, nullptr), FILTER_ERROR_INVALID_ARGUMENT);

    EXPECT_EQ(Filter_SetAdapterCongestionControl(adapter, 7), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(adapter->m_bCongestionControl, 7);
    EXPECT_EQ(Filter_SetAdapterCongestionControl(nullptr, TRUE), FILTER_ERROR_INVALID_ARGUMENT);

    PUNICODE_STRING name = nullptr;
    ASSERT_EQ(Filter_GetAdapterName(adapter, &name), FILTER_STATUS_SUCCESS);
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(name->Length, adapter->m_AdapterName.Length);
    EXPECT_EQ(name->MaximumLength, name->Length + 2);
    EXPECT_EQ((PUCHAR)name->Buffer, (PUCHAR)(name + 1));
    EXPECT_EQ(std::memcmp(name->Buffer, adapter->m_AdapterName.Buffer, name->Length), 0);
    EXPECT_EQ(name->Buffer[name->Length / 2], 0);
    EXPECT_EQ(((PFilterMemory)name - 1)->m_Size, name->Length + 18u + FILTER_MEMORY_OVERHEAD);
    EXPECT_EQ(Filter_FreeMemory(name), FILTER_STATUS_SUCCESS);

    /* Packet dump by the current address only. */
    BOOLEAN dump = TRUE;
    EXPECT_EQ(Filter_GetAdapterPacketDump(adapter->m_CurrentAddress, &dump), FILTER_STATUS_SUCCESS);
    EXPECT_FALSE(dump);
    EXPECT_EQ(Filter_SetAdapterPacketDump(adapter->m_CurrentAddress, TRUE), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_GetAdapterPacketDump(adapter->m_CurrentAddress, &dump), FILTER_STATUS_SUCCESS);
    EXPECT_TRUE(dump);
    EXPECT_EQ(Filter_SetAdapterPacketDump(adapter->m_PermanentAddress, TRUE), FILTER_ERROR_ADAPTER_NOT_FOUND);
    EXPECT_EQ(Filter_GetAdapterPacketDump(adapter->m_PermanentAddress, &dump), FILTER_ERROR_ADAPTER_NOT_FOUND);
    EXPECT_EQ(Filter_SetAdapterPacketDump(nullptr, TRUE), FILTER_ERROR_INVALID_ARGUMENT);
}

TEST_F(AdapterProperties, IPConfigurationChangesAreAnnouncedOnceWithRecomputedBroadcasts)
{
    IPConfig config = {};
    config.hAdapter = adapter;
    config.m_dwReserved = 0x55;
    config.m_nIP = 2;
    config.m_IP[0] = {Ip(192, 168, 1, 10), Ip(255, 255, 255, 0), Ip(1, 2, 3, 4)};
    config.m_IP[1] = {Ip(10, 1, 2, 3), Ip(255, 0, 0, 0), 0};
    config.m_nGW = 1;
    config.RouterAddr[0] = Ip(192, 168, 1, 1);
    config.m_nDNS = 1;
    config.DnsServer[0] = Ip(9, 9, 9, 9);
    config.WinsServer1 = Ip(192, 168, 1, 2);
    config.WinsServer2 = Ip(192, 168, 1, 3);
    ASSERT_EQ(Filter_SetIPConfig(&config), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(g_events[FILTER_EVENT_IPCONFIG_CHANGED], 1u);
    EXPECT_EQ(config.m_IP[0].Broadcast, Ip(192, 168, 1, 255)); /* written back to the caller */
    EXPECT_EQ(config.m_IP[1].Broadcast, Ip(10, 255, 255, 255));
    EXPECT_EQ(std::memcmp(&adapter->m_IPConfig, &config, sizeof config), 0);
    /* The dump, as the adapter now holds it (the second WINS line shows the first server). */
    auto lines = nftest::TakeTrace();
    int at = FindLine(lines, "- m_nIP    = 2");
    ASSERT_GE(at, 1);
    EXPECT_EQ(lines[at - 1].rfind("- hAdapter = 0x", 0), 0u);
    std::vector<std::string> dump(lines.begin() + at, lines.begin() + std::min<size_t>(lines.size(), at + 15));
    std::vector<std::string> expected = {
        "- m_nIP    = 2", "- IpAddress[0] = 192.168.1.10", "- Netmask[0]   = 255.255.255.0",
        "- Broadcast[0] = 192.168.1.255", "- IpAddress[1] = 10.1.2.3", "- Netmask[1]   = 255.0.0.0",
        "- Broadcast[1] = 10.255.255.255", "- m_nGW    = 1", "- RouterAddr[0] = 192.168.1.1",
        "- m_nDHCP  = 0", "- m_nDNS   = 1", "- DnsServer[0]  = 9.9.9.9", "- WinsServer1 = 192.168.1.2",
        "- WinsServer2 = 192.168.1.2", "Leave Filter_SetIPConfig, 0-FILTER_STATUS_SUCCESS"};
    EXPECT_EQ(dump, expected);

    /* The same record, and one differing only in a broadcast, change nothing. */
    ASSERT_EQ(Filter_SetIPConfig(&config), FILTER_STATUS_SUCCESS);
    config.m_IP[1].Broadcast = Ip(10, 0, 0, 0);
    ASSERT_EQ(Filter_SetIPConfig(&config), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(g_events[FILTER_EVENT_IPCONFIG_CHANGED], 1u);
    lines = nftest::TakeTrace();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "No IP Address change, ignore"), 2);

    IPConfig copy = {};
    EXPECT_EQ(Filter_GetIPConfig(adapter, &copy), &adapter->m_IPConfig);
    EXPECT_EQ(std::memcmp(&copy, &config, sizeof copy), 0);
    EXPECT_EQ(Filter_GetIPConfig(adapter, nullptr), &adapter->m_IPConfig);
    HkDebugClearCapture();
    EXPECT_EQ(Filter_GetIPConfig(nullptr, &copy), nullptr);
    EXPECT_GE(FindLine(nftest::TakeTrace(), "Leave Filter_GetIPConfig, Invalid adapter"), 0);

    /* Counts beyond the lists and foreign handles are refused; nothing is stored. */
    config.m_nDNS = 9;
    EXPECT_EQ(Filter_SetIPConfig(&config), FILTER_ERROR_INVALID_ARGUMENT);
    config.m_nDNS = 1;
    config.hAdapter = (PFilterAdapter)&config;
    EXPECT_EQ(Filter_SetIPConfig(&config), FILTER_ERROR_INVALID_ADAPTER_HANDLE);
    EXPECT_EQ(Filter_SetIPConfig(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(g_events[FILTER_EVENT_IPCONFIG_CHANGED], 1u);
    EXPECT_EQ(adapter->m_IPConfig.m_nDNS, 1u);
}

TEST_F(AdapterProperties, HookServicesMediaStateByMacAndTheTcpIpList)
{
    PFilterAdapter second = OpenAdapter(2);
    std::vector<UCHAR> buffer(FILTER_ADAPTER_LIST_SIZE + 16, 0xEE);
    ASSERT_EQ(Filter_GetTcpIpBoundAdapters(buffer.data()), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(*(PULONG)buffer.data(), 2u);
    PAdapterInfo entries = (PAdapterInfo)(buffer.data() + 4);
    EXPECT_EQ((PFilterAdapter)entries[0].m_hAdapter, adapter); /* packed entries: read by value */
    EXPECT_EQ((PFilterAdapter)entries[1].m_hAdapter, second);
    EXPECT_EQ(buffer[4 + 2 * sizeof(AdapterInfo)], 0xEE); /* nothing written behind the entries */
    EXPECT_EQ(Filter_GetTcpIpBoundAdapters(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    HkDebugClearCapture();
    EXPECT_EQ(Filter_GetTcpIpBoundAdapters(HalfMappedAdapter()), FILTER_ERROR_EXCEPTION);
    EXPECT_GE(FindLine(nftest::TakeTrace(), "Filter_GetTcpIpBoundAdapters: exception, code = -1073741819"), 0);

    ULONG state = 99;
    EXPECT_EQ(Filter_GetAdapterMediaStateByMac(second->m_CurrentAddress, &state), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(state, (ULONG)NdisMediaStateConnected);
    EXPECT_EQ(Filter_SetAdapterMediaStateByMac(second->m_CurrentAddress, NdisMediaStateDisconnected),
              FILTER_STATUS_SUCCESS);
    EXPECT_EQ(g_events[FILTER_EVENT_MEDIA_DISCONNECT], 1u); /* the indication followed the change */
    EXPECT_EQ(Filter_GetAdapterMediaStateByMac(second->m_CurrentAddress, &state), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(state, (ULONG)NdisMediaStateDisconnected);
    EXPECT_EQ(Filter_SetAdapterMediaStateByMac(second->m_CurrentAddress, NdisMediaStateDisconnected),
              FILTER_STATUS_SUCCESS);
    EXPECT_EQ(g_events[FILTER_EVENT_MEDIA_DISCONNECT], 1u);
    EXPECT_EQ(Filter_GetAdapterMediaStateByMac(second->m_PermanentAddress, &state), FILTER_ERROR_ADAPTER_NOT_FOUND);
    EXPECT_EQ(Filter_SetAdapterMediaStateByMac(second->m_PermanentAddress, 0), FILTER_ERROR_ADAPTER_NOT_FOUND);
    EXPECT_EQ(Filter_SetAdapterMediaStateByMac(nullptr, 0), FILTER_ERROR_INVALID_ARGUMENT);

    HkDebugClearCapture();
    ASSERT_EQ(NdisHookUnbind(), STATUS_SUCCESS);
    EXPECT_EQ(Filter_GetTcpIpBoundAdapters(buffer.data()), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
    EXPECT_EQ(Filter_GetAdapterMediaStateByMac(second->m_CurrentAddress, &state), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
    EXPECT_EQ(Filter_SetAdapterMediaStateByMac(second->m_CurrentAddress, 0), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
    auto lines = nftest::TakeTrace();
    EXPECT_GE(FindLine(lines, "Enter Filter_GetAdapterMediaStateByMac"), 0);
    EXPECT_GE(FindLine(lines, "Leave Filter_SetAdapterMediaStateByMac, -19-FILTER_ERROR_INTERFACE_NOT_ACTIVE"), 0);
}

} // namespace
