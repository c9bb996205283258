/* Header parsing over real frames, checked against the offsets tshark found. */
#include "packets.h"

using nftest::CaseFrame;
using nftest::FrameOffset;
using nftest::PacketOf;

TEST(PacketParsing, EveryFrameGetsTheHeaderPointersTsharkLocates)
{
    auto offsets = nftest::ReadCsv(nftest::DataPath("packets/offsets.csv"));
    auto expected = nftest::ReadCsv(nftest::DataPath("packets/expected.csv"));
    ASSERT_EQ(offsets.size(), nftest::CaseFrames().size());
    for (size_t i = 0; i < offsets.size(); i++) {
        const auto &row = offsets[i];
        int number = (int)nftest::FieldNumber(row, "frame");
        SCOPED_TRACE("frame " + std::to_string(number));
        auto packet = PacketOf(CaseFrame(number));
        ASSERT_EQ(Filter_InitPacketHeader(packet.get(), nullptr), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(packet->m_pEthernet, packet->m_Data);

        long etherType = nftest::FieldNumber(expected[i], "eth.type");
        bool vlan = etherType == 0x8100; /* no tag is looked through */
        std::string network = row.at("network");
        EXPECT_EQ(FrameOffset(*packet, packet->m_pArp), etherType == 0x0806 ? nftest::FieldNumber(row, "network_offset") : -1);
        EXPECT_EQ(FrameOffset(*packet, packet->m_pIp), network == "ip" && !vlan ? nftest::FieldNumber(row, "network_offset") : -1);
        if (vlan || network != "ip")
            continue;

        EXPECT_EQ(packet->m_nProtocol, nftest::FieldNumber(expected[i], "ip.proto"));
        std::string transport = row.at("transport");
        long transportOffset = nftest::FieldNumber(row, "transport_offset");
        EXPECT_EQ(FrameOffset(*packet, packet->m_pTcp), transport == "tcp" ? transportOffset : -1);
        EXPECT_EQ(FrameOffset(*packet, packet->m_pUdp), transport == "udp" ? transportOffset : -1);
        EXPECT_EQ(FrameOffset(*packet, packet->m_pIcmp), transport == "icmp" ? transportOffset : -1);

        long source = nftest::FieldNumber(expected[i], "udp.srcport");
        long destination = nftest::FieldNumber(expected[i], "udp.dstport");
        bool dhcp = destination == 67 || destination == 68;
        bool dns = !dhcp && (destination == 53 || source == 53);
        long payload = nftest::FieldNumber(row, "payload_offset");
        EXPECT_EQ(FrameOffset(*packet, packet->m_pDhcp), dhcp ? payload : -1);
        EXPECT_EQ(FrameOffset(*packet, packet->m_pDns), dns ? payload : -1);
    }
}

TEST(PacketParsing, ANonFirstFragmentHasItsIpHeaderAndProtocolButNoTransport)
{
    auto packet = PacketOf(CaseFrame(16));
    ASSERT_EQ(Filter_InitPacketHeader(packet.get(), nullptr), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(FrameOffset(*packet, packet->m_pIp), 14);
    EXPECT_EQ(packet->m_nProtocol, 17);
    EXPECT_EQ(packet->m_pUdp, nullptr);

    auto first = PacketOf(CaseFrame(15)); /* offset 0 with more-fragments set */
    ASSERT_EQ(Filter_InitPacketHeader(first.get(), nullptr), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(FrameOffset(*first, first->m_pUdp), 34);
}

TEST(PacketParsing, AnArpFrameParsedAfterAnIpFrameKeepsTheOldProtocolByte)
{
    auto packet = PacketOf(CaseFrame(8)); /* TCP */
    ASSERT_EQ(Filter_InitPacketHeader(packet.get(), nullptr), FILTER_STATUS_SUCCESS);
    ASSERT_EQ(packet->m_nProtocol, 6);
    std::vector<unsigned char> arp = CaseFrame(1);
    ASSERT_EQ(Filter_InitPacketHeader(packet.get(), arp.data()), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(packet->m_pEthernet, arp.data());
    EXPECT_EQ(packet->m_pArp, arp.data() + 14);
    EXPECT_EQ(packet->m_pTcp, nullptr);
    EXPECT_EQ(packet->m_nProtocol, 6);
}

TEST(PacketParsing, DhcpGoesByDestinationPortAndDnsByEitherPort)
{
    nftest::Frame frame = CaseFrame(11); /* DNS query 53000 -> 53 */
    auto setPorts = [&frame](USHORT source, USHORT destination) {
        frame[34] = (UCHAR)(source >> 8), frame[35] = (UCHAR)source;
        frame[36] = (UCHAR)(destination >> 8), frame[37] = (UCHAR)destination;
        auto packet = PacketOf(frame);
        Filter_InitPacketHeader(packet.get(), nullptr);
        return std::make_pair(packet->m_pDhcp != nullptr, packet->m_pDns != nullptr);
    };
    EXPECT_EQ(setPorts(53, 67), std::make_pair(true, false));
    EXPECT_EQ(setPorts(67, 5353), std::make_pair(false, false));
    EXPECT_EQ(setPorts(53, 9999), std::make_pair(false, true));
    EXPECT_EQ(setPorts(68, 53), std::make_pair(false, true));
}

TEST(PacketParsing, ANullPacketIsRefused)
{
    EXPECT_EQ(Filter_InitPacketHeader(nullptr, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}
