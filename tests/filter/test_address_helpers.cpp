/* Byte order, address text and the name comparison used by the registries. */
#include "framework.h"

namespace {

ULONG AddressFromOctets(UCHAR a, UCHAR b, UCHAR c, UCHAR d)
{
    UCHAR octets[4] = {a, b, c, d};
    ULONG address;
    memcpy(&address, octets, 4);
    return address;
}

STRING Counted(const char *text)
{
    STRING s;
    s.Buffer = (PCHAR)text;
    s.Length = (USHORT)strlen(text);
    s.MaximumLength = (USHORT)(s.Length + 1);
    return s;
}

} // namespace

TEST(ByteOrder, SwapsAndTheNetworkToHostNamesAreTheSameRoutines)
{
    EXPECT_EQ(htons(0x1234), 0x3412);
    EXPECT_EQ(htonl(0x12345678u), 0x78563412u);
    EXPECT_EQ(ntohs(htons(0xBEEF)), 0xBEEF);
    /* Read back at run time: clang folds a comparison of two functions' addresses to "different". */
    void *volatile ntohsAddress = (void *)&ntohs;
    void *volatile ntohlAddress = (void *)&ntohl;
    EXPECT_EQ(ntohsAddress, (void *)&htons);
    EXPECT_EQ(ntohlAddress, (void *)&htonl);
}

TEST(AddressText, DottedTextTakesTheOctetsInMemoryOrder)
{
    char buffer[16];
    EXPECT_STREQ(inet_ntoa(AddressFromOctets(192, 168, 0, 1), buffer, sizeof(buffer)), "192.168.0.1");
    EXPECT_STREQ(inet_ntoa(AddressFromOctets(10, 0, 100, 5), buffer, sizeof(buffer)), "10.0.100.5");
    EXPECT_STREQ(inet_ntoa(AddressFromOctets(255, 255, 255, 255), buffer, sizeof(buffer)), "255.255.255.255");
}

TEST(AddressText, ABufferBelowSixteenBytesIsLeftAlone)
{
    char buffer[16];
    memset(buffer, 'z', sizeof(buffer));
    PCHAR text = inet_ntoa(AddressFromOctets(1, 2, 3, 4), buffer, 15);
    EXPECT_STREQ(text, "");
    EXPECT_NE(text, buffer);
    EXPECT_EQ(buffer[0], 'z');
    EXPECT_STREQ(inet_ntoa(AddressFromOctets(1, 2, 3, 4), nullptr, 16), "");
}

TEST(AddressText, MacAddressesAreUpperCaseHexJoinedByDashes)
{
    const UCHAR mac[6] = {0x00, 0x0C, 0x29, 0xAB, 0xCD, 0xEF};
    char buffer[18];
    EXPECT_STREQ(inet_mtoa(mac, buffer, 0), "00-0C-29-AB-CD-EF");
}

TEST(Broadcast, SubnetBroadcastAndTheLastOctetTest)
{
    ULONG address = AddressFromOctets(192, 168, 1, 20);
    ULONG mask = AddressFromOctets(255, 255, 255, 0);
    EXPECT_EQ(SubnetBroadcastAddress(address, mask), AddressFromOctets(192, 168, 1, 255));
    EXPECT_TRUE(IsBroadcastAddress(AddressFromOctets(192, 168, 1, 255)));
    EXPECT_TRUE(IsBroadcastAddress(AddressFromOctets(255, 255, 255, 255)));
    EXPECT_FALSE(IsBroadcastAddress(AddressFromOctets(192, 168, 1, 254)));
}

TEST(CompareString, IsAnEqualityTestWithALengthTieBreak)
{
    STRING abc = Counted("abc"), abd = Counted("abd"), ab = Counted("ab"), ABC = Counted("ABC");
    STRING abc2 = Counted("abc");
    EXPECT_EQ(Filter_CompareString(&abc, &abc2), 0);
    EXPECT_EQ(Filter_CompareString(&abc, &abd), 1);
    EXPECT_EQ(Filter_CompareString(&abd, &abc), 1);
    EXPECT_EQ(Filter_CompareString(&ab, &abc), -1);
    EXPECT_EQ(Filter_CompareString(&abc, &ab), 1);
    EXPECT_EQ(Filter_CompareString(&abc, &ABC), 1);
    EXPECT_EQ(Filter_CompareString(nullptr, &abc), -1);
    EXPECT_EQ(Filter_CompareString(&abc, nullptr), -1);
}
