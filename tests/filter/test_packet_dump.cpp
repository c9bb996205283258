/* Packet dumps: gated by the adapter's switch, exact lines for each kind of frame. */
#include "packets.h"

using nftest::CaseFrame;
using nftest::PacketOf;

namespace {

class PacketDump : public ::testing::Test {
protected:
    void SetUp() override
    {
        memset(&m_adapter, 0, sizeof(m_adapter));
        m_adapter.m_bPacketDump = TRUE;
        HkDebugClearCapture();
    }

    std::vector<std::string> Dump(const char *title, FilterPacket *packet)
    {
        HkDebugClearCapture();
        Filter_DumpPacket(title, packet);
        return nftest::TakeTrace();
    }

    std::string PacketLine(const FilterPacket *packet)
    {
        char line[128];
        std::snprintf(line, sizeof(line), " - pPacket 0x%016llX, hAdapter 0x%016llX, Size %u",
                      (unsigned long long)(ULONG_PTR)packet, (unsigned long long)(ULONG_PTR)&m_adapter,
                      (unsigned)packet->m_nPacketSize);
        return line;
    }

    FilterAdapter m_adapter;
};

} // namespace

TEST_F(PacketDump, NothingPrintsWhenTheAdaptersSwitchIsOffWhateverTheMask)
{
    auto packet = PacketOf(CaseFrame(8), &m_adapter);
    m_adapter.m_bPacketDump = FALSE;
    GlobalDebugFlag = 0xFFFFFFFF;
    EXPECT_TRUE(Dump("/\\ Incoming Packet", packet.get()).empty());
    GlobalDebugFlag = 0;
    auto orphan = PacketOf(CaseFrame(8), nullptr);
    EXPECT_TRUE(Dump("/\\ Incoming Packet", orphan.get()).empty());
}

TEST_F(PacketDump, AnArpFrameDecodesEveryArpField)
{
    auto packet = PacketOf(CaseFrame(1), &m_adapter);
    Filter_InitPacketHeader(packet.get(), nullptr);
    std::vector<std::string> expected = {
        "/\\ Incoming Packet, Size = 60 - 0x3c",
        "  \t0000  FF FF FF FF FF FF 02 00 00 00 00 0A 08 06 00 01   ................",
        "  \t0010  08 00 06 04 00 01 02 00 00 00 00 0A C0 A8 01 0A   ................",
        "  \t0020  00 00 00 00 00 00 C0 A8 01 01 00 00 00 00 00 00   ................",
        "  \t0030  00 00 00 00 00 00 00 00 00 00 00 00               ............",
        PacketLine(packet.get()),
        " - SrcMac 02-00-00-00-00-0A, DstMAC FF-FF-FF-FF-FF-FF, Proto 0x806/ARP",
        " - arp_hrd = 1",
        " - arp_pro = 2048",
        " - arp_hln = 6",
        " - arp_pln = 4",
        " - arp_op  = ARPOP_REQUEST",
        " - arp_sha = 02-00-00-00-00-0A",
        " - arp_spa = 192.168.1.10",
        " - arp_tha = 00-00-00-00-00-00",
        " - arp_tpa = 192.168.1.1",
    };
    EXPECT_EQ(Dump("/\\ Incoming Packet", packet.get()), expected);
}

TEST_F(PacketDump, ATcpSegmentPrintsItsIpAndPortLines)
{
    auto packet = PacketOf(CaseFrame(6), &m_adapter);
    Filter_InitPacketHeader(packet.get(), nullptr);
    auto lines = Dump("\\/ Outgoing Packet", packet.get());
    ASSERT_EQ(lines.size(), 1u + 5u + 4u);
    EXPECT_EQ(lines[0], "\\/ Outgoing Packet, Size = 74 - 0x4a");
    EXPECT_EQ(lines[6], PacketLine(packet.get()));
    auto expected = nftest::ReadCsv(nftest::DataPath("packets/expected.csv"))[5];
    char ipLine[160];
    std::snprintf(ipLine, sizeof(ipLine),
                  " - SrcIP %s, DstIP %s, PacketId 0x%lx, Proto: TCP DF:%c MF:F FO:0 ", expected["ip.src"].c_str(),
                  expected["ip.dst"].c_str(), nftest::FieldNumber(expected, "ip.id"),
                  nftest::FieldNumber(expected, "ip.flags.df") == 1 ? 'T' : 'F');
    EXPECT_EQ(lines[8], ipLine);
    EXPECT_EQ(lines[9], " - TCP SrcPort " + expected["tcp.srcport"] + ", DstPort " + expected["tcp.dstport"]);
}

TEST_F(PacketDump, ANonFirstFragmentIsMarkedAndHasNoTransportLine)
{
    auto packet = PacketOf(CaseFrame(16), &m_adapter);
    Filter_InitPacketHeader(packet.get(), nullptr);
    auto lines = Dump("DD Filter Discard", packet.get());
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines.back().find(" MF:T FO:1480 IP Fragment"), std::string::npos) << lines.back();
    EXPECT_EQ(lines.back().rfind(" - SrcIP ", 0), 0u);
}

TEST_F(PacketDump, AnEmptyPacketPrintsOnlyTheTitleAndPacketLines)
{
    auto packet = PacketOf(nftest::Frame(), &m_adapter);
    auto lines = Dump(">> Injected Packet", packet.get());
    EXPECT_EQ(lines, (std::vector<std::string>{">> Injected Packet, Size = 0 - 0x0", PacketLine(packet.get())}));
}

TEST_F(PacketDump, ARarpFrameStopsAfterTheMacLine)
{
    auto packet = PacketOf(CaseFrame(3), &m_adapter);
    auto lines = Dump("<< Indicate to Application", packet.get());
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines.back().find("Proto 0x8035/RARP"), std::string::npos) << lines.back();
}

TEST_F(PacketDump, TheLastHexLineHoldsTheRemainingBytes)
{
    nftest::Frame frame(20);
    for (size_t i = 0; i < frame.size(); i++)
        frame[i] = (unsigned char)('a' + i);
    auto packet = PacketOf(frame, &m_adapter);
    auto lines = Dump("VV Inject To Adapter", packet.get());
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[1], "  \t0000  61 62 63 64 65 66 67 68 69 6A 6B 6C 6D 6E 6F 70   abcdefghijklmnop");
    EXPECT_EQ(lines[2], "  \t0010  71 72 73 74                                       qrst");
}
