// The library's helpers: transport addresses, extended attributes, checksum,
// byte order, symbolic links, MDLs, packets and the process name.
#include "ks_fixture.h"

using namespace kstest;

namespace {

class KsHelpers : public KsTest {};

TEST_F(KsHelpers, TransportAddressLengthWalksEveryEntry)
{
    EXPECT_EQ(0u, KS_TransportAddressLength(nullptr));
    TA_IP_ADDRESS one = IpAddress(Loopback(), 80);
    EXPECT_EQ(22u, KS_TransportAddressLength(reinterpret_cast<PTRANSPORT_ADDRESS>(&one)));
    // The record is byte-packed: its fields are read into locals before comparing.
    const LONG count1 = one.TAAddressCount;
    const USHORT length = one.Address[0].AddressLength, type = one.Address[0].AddressType;
    const USHORT port = one.Address[0].Address[0].sin_port;
    const ULONG ip = one.Address[0].Address[0].in_addr;
    EXPECT_EQ(1, count1);
    EXPECT_EQ(14, length);
    EXPECT_EQ(TDI_ADDRESS_TYPE_IP, type);
    EXPECT_EQ(htons(80), port); // stored as given
    EXPECT_EQ(Loopback(), ip);

    // Two entries of different lengths: 4 + (4 + 14) + (4 + 2).
    UCHAR two[32] = {};
    LONG count = 2;
    std::memcpy(two, &count, 4);
    USHORT first[2] = {14, TDI_ADDRESS_TYPE_IP}, second[2] = {2, TDI_ADDRESS_TYPE_UNIX};
    std::memcpy(two + 4, first, 4);
    std::memcpy(two + 22, second, 4);
    EXPECT_EQ(28u, KS_TransportAddressLength(reinterpret_cast<PTRANSPORT_ADDRESS>(two)));
}

TEST_F(KsHelpers, EaBufferHoldsNameZeroAndValue)
{
    PFILE_FULL_EA_INFORMATION ea = nullptr;
    ULONG length = 0;
    ULONG value = 0x11223344;
    ASSERT_EQ(STATUS_SUCCESS, KS_BuildEaBuffer(TDI_TRANSPORT_ADDRESS_LENGTH,
                                               const_cast<char *>(TdiTransportAddress), 4, &value,
                                               &ea, &length));
    EXPECT_EQ(16u + 4u + 9u, length);
    EXPECT_EQ(0u, ea->NextEntryOffset);
    EXPECT_EQ(0, ea->Flags);
    EXPECT_EQ(16, ea->EaNameLength);
    EXPECT_EQ(4, ea->EaValueLength);
    EXPECT_EQ(0, std::memcmp(ea->EaName, "TransportAddress", 17)); // with its zero
    EXPECT_EQ(0, std::memcmp(ea->EaName + 17, &value, 4));
    ExFreePoolWithTag(ea, kEaTag);

    // Lengths the record cannot carry are refused.
    std::vector<UCHAR> big(300);
    EXPECT_EQ(STATUS_INVALID_PARAMETER, KS_BuildEaBuffer(256, big.data(), 0, nullptr, &ea, &length));
    EXPECT_EQ(nullptr, ea);
    HkPoolFailAllocations(kEaTag, 1);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES,
              KS_BuildEaBuffer(4, big.data(), 4, big.data(), &ea, &length));
}

TEST_F(KsHelpers, ChecksumAddsAnOddLastByteAsTheHighByte)
{
    UCHAR one = 0x01;
    EXPECT_EQ(static_cast<USHORT>(~0x0100 & 0xFFFF), KS_in_cksum(&one, 1));
    // Words are summed in host order and the carries folded: 0xFFFF + 0x0002 -> 0x0002.
    UCHAR words[] = {0xFF, 0xFF, 0x02, 0x00};
    EXPECT_EQ(static_cast<USHORT>(~0x0002 & 0xFFFF), KS_in_cksum(words, 4));
    // A header with its checksum in place sums to zero.
    UCHAR ip[20] = {0x45, 0, 0, 0x54, 0x12, 0x34, 0x40, 0, 64, 1, 0, 0, 10, 0, 0, 1, 10, 0, 0, 2};
    USHORT sum = KS_in_cksum(ip, 20);
    std::memcpy(ip + 10, &sum, 2);
    EXPECT_EQ(0, KS_in_cksum(ip, 20));
    EXPECT_EQ(0xFFFF, KS_in_cksum(ip, 0));
}

TEST_F(KsHelpers, ByteOrderRoutinesSwapUnderBothNames)
{
    EXPECT_EQ(0x44332211u, KS_htonl(0x11223344));
    EXPECT_EQ(0x44332211u, KS_ntohl(0x11223344));
    EXPECT_EQ(0x2211, KS_htons(0x1122));
    EXPECT_EQ(0x2211, KS_ntohs(0x1122));
}

TEST_F(KsHelpers, SymbolicLinkFollowsTheDeviceDirectoryAndRefusesShortNames)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Device\\KsLink");
    ASSERT_EQ(STATUS_SUCCESS, KS_CreateSymbolicLink(&name, TRUE));
    EXPECT_TRUE(HkSymbolicLinkExists("\\DosDevices\\KsLink"));
    EXPECT_EQ(STATUS_SUCCESS, KS_CreateSymbolicLink(&name, FALSE));
    EXPECT_FALSE(HkSymbolicLinkExists("\\DosDevices\\KsLink"));

    // 18 bytes is the shortest: "\Device\" and one character.
    RtlInitUnicodeString(&name, L"\\Device\\X");
    EXPECT_EQ(18, name.Length);
    EXPECT_EQ(STATUS_SUCCESS, KS_CreateSymbolicLink(&name, TRUE));
    EXPECT_TRUE(HkSymbolicLinkExists("\\DosDevices\\X"));
    EXPECT_EQ(STATUS_SUCCESS, KS_CreateSymbolicLink(&name, FALSE));
    name.Length = 17;
    EXPECT_EQ(STATUS_UNSUCCESSFUL, KS_CreateSymbolicLink(&name, TRUE));
    EXPECT_EQ(STATUS_UNSUCCESSFUL, KS_CreateSymbolicLink(nullptr, TRUE));
}

TEST_F(KsHelpers, MdlsAreLockedAndPacketsGoWithTheirBuffers)
{
    UCHAR data[100];
    PMDL mdl = KS_AllocateAndProbeMdl(data, sizeof(data), FALSE, FALSE, nullptr);
    ASSERT_NE(nullptr, mdl);
    EXPECT_NE(0, mdl->MdlFlags & MDL_PAGES_LOCKED);
    EXPECT_EQ(nullptr, mdl->Next);
    EXPECT_EQ(sizeof(data), MmGetMdlByteCount(mdl));
    KS_UnlockAndFreeMdl(mdl);

    NDIS_STATUS status;
    NDIS_HANDLE packets, buffers;
    NdisAllocatePacketPool(&status, &packets, 4, 16);
    ASSERT_EQ(NDIS_STATUS_SUCCESS, status);
    NdisAllocateBufferPool(&status, &buffers, 4);
    ASSERT_EQ(NDIS_STATUS_SUCCESS, status);
    PNDIS_PACKET packet;
    NdisAllocatePacket(&status, &packet, packets);
    ASSERT_EQ(NDIS_STATUS_SUCCESS, status);
    for (int i = 0; i < 3; ++i) {
        PNDIS_BUFFER buffer;
        NdisAllocateBuffer(&status, &buffer, buffers, data + 10 * i, 10);
        ASSERT_EQ(NDIS_STATUS_SUCCESS, status);
        NdisChainBufferAtBack(packet, buffer);
    }
    KS_FreePacketAndBuffers(packet);
    KS_FreePacketAndBuffers(nullptr);
    // Freeing the pools with a descriptor still out would be a verifier finding.
    NdisFreeBufferPool(buffers);
    NdisFreePacketPool(packets);
}

// The offset is kept for the whole process: this is the one test that finds it.
TEST_F(KsHelpers, ProcessNameIsUnknownUntilTheOffsetIsFound)
{
    char name[17];
    std::memset(name, 'x', sizeof(name));
    EXPECT_FALSE(KS_GetCurrentProcessName(name));
    EXPECT_STREQ("???", name);

    KS_InitProcessNameOffset(); // every thread of the runtime runs in the system process
    std::memset(name, 'x', sizeof(name));
    EXPECT_TRUE(KS_GetCurrentProcessName(name));
    EXPECT_STREQ("System", name);
    EXPECT_EQ(0, name[16]);
}

} // namespace
