/* Checksums recomputed in place, compared with what tshark read off the wire. */
#include "packets.h"

#include <cstdlib>

using nftest::CaseFrame;
using nftest::PacketOf;
using nftest::WireValue;

namespace {

/* Recomputes one checksum of frame `number` in a fresh copy; returns the value on the wire. */
long Recomputed(int number, ULONG selector)
{
    auto packet = PacketOf(CaseFrame(number));
    Filter_InitPacketHeader(packet.get(), nullptr);
    EXPECT_EQ(Filter_CalculatePacketCheckSum(packet->m_pIp, selector), FILTER_STATUS_SUCCESS);
    switch (selector) {
    case FILTER_CHECKSUM_IP: return WireValue(packet->m_pIp + 10);
    case FILTER_CHECKSUM_ICMP: return WireValue(packet->m_pIcmp + 2);
    case FILTER_CHECKSUM_TCP: return WireValue(packet->m_pTcp + 16);
    default: return WireValue(packet->m_pUdp + 6);
    }
}

} // namespace

TEST(Checksums, EveryChecksumTsharkFoundGoodIsRecomputedExactly)
{
    auto expected = nftest::ReadCsv(nftest::DataPath("packets/expected.csv"));
    int compared = 0;
    for (const auto &row : expected) {
        int number = (int)nftest::FieldNumber(row, "frame.number");
        if (nftest::FieldNumber(row, "eth.type") != 0x0800)
            continue; /* ARP, RARP, and the VLAN frame the parser does not look into */
        SCOPED_TRACE("frame " + std::to_string(number));
        struct {
            const char *field;
            const char *status;
            ULONG selector;
        } checks[] = {
            {"ip.checksum", "ip.checksum.status", FILTER_CHECKSUM_IP},
            {"icmp.checksum", "icmp.checksum.status", FILTER_CHECKSUM_ICMP},
            {"tcp.checksum", "tcp.checksum.status", FILTER_CHECKSUM_TCP},
            {"udp.checksum", "udp.checksum.status", FILTER_CHECKSUM_UDP},
        };
        for (const auto &check : checks) {
            if (nftest::FieldNumber(row, check.status) != 1) /* 1: tshark verified it good */
                continue;
            long wire = nftest::FieldNumber(row, check.field);
            if (wire == 0xFFFF && check.selector == FILTER_CHECKSUM_UDP)
                continue; /* the zero-sum case, below */
            EXPECT_EQ(Recomputed(number, check.selector), wire) << check.field;
            compared++;
        }
    }
    EXPECT_GE(compared, 30);
}

TEST(Checksums, AZeroSumUdpDatagramGetsZeroNotFFFF)
{
    /* tshark accepts 0xFFFF on the wire; the framework stores the folded value as it is. */
    EXPECT_EQ(Recomputed(19, FILTER_CHECKSUM_UDP), 0x0000);
}

TEST(Checksums, AnOddLengthSegmentCountsItsLastBytePaddedWithZero)
{
    auto expected = nftest::ReadCsv(nftest::DataPath("packets/expected.csv"));
    EXPECT_EQ(nftest::FieldNumber(expected[8], "tcp.len"), 37);
    EXPECT_EQ(Recomputed(9, FILTER_CHECKSUM_TCP), nftest::FieldNumber(expected[8], "tcp.checksum"));
}

TEST(Checksums, AnUnknownSelectorWritesNothing)
{
    auto packet = PacketOf(CaseFrame(8));
    Filter_InitPacketHeader(packet.get(), nullptr);
    nftest::Frame before(packet->m_Data, packet->m_Data + packet->m_nPacketSize);
    EXPECT_EQ(Filter_CalculatePacketCheckSum(packet->m_pIp, 2), FILTER_ERROR_UNSUPPORTED_PROTOCOL);
    EXPECT_EQ(nftest::Frame(packet->m_Data, packet->m_Data + packet->m_nPacketSize), before);
    EXPECT_EQ(Filter_CalculatePacketCheckSum(nullptr, 0), FILTER_ERROR_INVALID_ARGUMENT);
}

TEST(Checksums, VerificationReportsACorruptIpChecksumAndRepairsIt)
{
    auto expected = nftest::ReadCsv(nftest::DataPath("packets/expected.csv"));
    ASSERT_EQ(nftest::FieldNumber(expected[21], "ip.checksum.status"), 0); /* tshark: bad */
    auto packet = PacketOf(CaseFrame(22));
    Filter_InitPacketHeader(packet.get(), nullptr);
    EXPECT_EQ(WireValue(packet->m_pIp + 10), 0xBD63);

    GlobalDebugFlag = NF_DBG_PACKET;
    HkDebugClearCapture();
    EXPECT_FALSE(Filter_VerifyPacketCheckSum(packet.get()));
    GlobalDebugFlag = 0;
    EXPECT_EQ(WireValue(packet->m_pIp + 10), 0xE739);
    EXPECT_TRUE(Filter_VerifyPacketCheckSum(packet.get()));

    char line[64];
    std::snprintf(line, sizeof(line), "Invalid IP checksum, pPacket=0x%016llX", (unsigned long long)(ULONG_PTR)packet.get());
    EXPECT_GE(nftest::FindLine(nftest::TakeTrace(), line), 0);
}

TEST(Checksums, LengthsBeyondWhatThePacketHoldsAreRefusedAndNothingIsWritten)
{
    auto packet = PacketOf(CaseFrame(8));
    Filter_InitPacketHeader(packet.get(), nullptr);
    PUCHAR ip = packet->m_pIp;
    nftest::Frame before(packet->m_Data, packet->m_Data + FILTER_PACKET_DATA_SIZE);
    ip[2] = 0xFF, ip[3] = 0xFF; /* a total length of 64 KiB */
    EXPECT_EQ(Filter_CalculatePacketCheckSum(ip, FILTER_CHECKSUM_TCP), FILTER_ERROR_INVALID_ARGUMENT);
    ip[0] = 0x44; /* a header length of 16 */
    EXPECT_EQ(Filter_CalculatePacketCheckSum(ip, FILTER_CHECKSUM_IP), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_FALSE(Filter_VerifyPacketCheckSum(packet.get()));
    ip[0] = 0x45, ip[2] = before[16], ip[3] = before[17];
    EXPECT_EQ(nftest::Frame(packet->m_Data, packet->m_Data + FILTER_PACKET_DATA_SIZE), before);

    /* A header the packet holds only in part is not valid either. */
    packet->m_nBytesRead = 14 + 12;
    EXPECT_FALSE(Filter_VerifyPacketCheckSum(packet.get()));
}

TEST(Checksums, FramesWithoutIpv4PassVerification)
{
    auto arp = PacketOf(CaseFrame(1));
    Filter_InitPacketHeader(arp.get(), nullptr);
    EXPECT_TRUE(Filter_VerifyPacketCheckSum(arp.get()));
}

TEST(Checksums, TheFastSumAgreesWithThe16BitRoutineOnEveryLengthAndAlignment)
{
    auto reference = [](const UCHAR *data, ULONG length) {
        ULONG sum = 0, i = 0;
        for (; i + 1 < length; i += 2)
            sum += (ULONG)data[i] | (ULONG)data[i + 1] << 8;
        if (i < length)
            sum += data[i];
        ULONG t = (sum >> 16) + (sum & 0xFFFF);
        return (USHORT)~(t + (t >> 16));
    };
    std::vector<UCHAR> data(1600);
    std::srand(7);
    for (UCHAR &byte : data)
        byte = (UCHAR)std::rand();
    for (ULONG length = 0; length < 200; length++)
        for (ULONG offset = 0; offset < 8; offset++)
            ASSERT_EQ(NdisFilter_Checksum(data.data() + offset, length), reference(data.data() + offset, length))
                << length << "/" << offset;
    std::vector<UCHAR> zeros(1500, 0), ones(1500, 0xFF);
    EXPECT_EQ(NdisFilter_Checksum(zeros.data(), 1500), reference(zeros.data(), 1500));
    EXPECT_EQ(NdisFilter_Checksum(ones.data(), 1500), reference(ones.data(), 1500));
    EXPECT_EQ(NdisFilter_Checksum(data.data(), 1500), reference(data.data(), 1500));
}
