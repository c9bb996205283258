/*
 * control-records.cpp - the byte layouts of the control replies: adapters,
 * events, IP configuration and diagnostic replies. Every count and length
 * read from a reply is bounded by the reply's size before it is used.
 */
#include <windows.h>

#include "ndisfilter-control.h"

#include <cstring>

namespace nfapp {

namespace {

ULONG ReadU32(const UCHAR *bytes)
{
    return (ULONG)bytes[0] | ((ULONG)bytes[1] << 8) | ((ULONG)bytes[2] << 16) | ((ULONG)bytes[3] << 24);
}

USHORT ReadU16(const UCHAR *bytes)
{
    return (USHORT)(bytes[0] | (bytes[1] << 8));
}

void WriteU32(UCHAR *bytes, ULONG value)
{
    for (int i = 0; i < 4; ++i)
        bytes[i] = (UCHAR)(value >> (8 * i));
}

/* Offsets in the 220 bytes of configuration that follow the adapter id. */
const DWORD IpCarried = 0;
const DWORD IpCount = 4;
const DWORD IpTriples = 8;
const DWORD IpGatewayCount = 104;
const DWORD IpGateways = 108;
const DWORD IpDhcpCount = 140;
const DWORD IpDhcpServers = 144;
const DWORD IpDnsCount = 176;
const DWORD IpDnsServers = 180;
const DWORD IpWins1 = 212;
const DWORD IpWins2 = 216;

/* A list of at most 8 u32 addresses behind its count. */
void ReadAddressList(const UCHAR *bytes, DWORD countOffset, DWORD listOffset, std::vector<ULONG> &list,
                     bool &clipped)
{
    ULONG count = ReadU32(bytes + countOffset);
    if (count > IpConfigMaxEntries) {
        clipped = true;
        count = IpConfigMaxEntries;
    }
    list.clear();
    for (ULONG i = 0; i < count; ++i)
        list.push_back(ReadU32(bytes + listOffset + 4 * i));
}

bool WriteAddressList(UCHAR *bytes, DWORD countOffset, DWORD listOffset, const std::vector<ULONG> &list)
{
    if (list.size() > IpConfigMaxEntries)
        return false;
    WriteU32(bytes + countOffset, (ULONG)list.size());
    for (size_t i = 0; i < list.size(); ++i)
        WriteU32(bytes + listOffset + 4 * i, list[i]);
    return true;
}

} // namespace

/*
 * ParseTcpIpInterfaces - u32 count (taken as at most 32 and as many as the
 * reply holds), then entries of 282 bytes: u32 id, u32 medium, u16 MTU, u32
 * state, permanent and current MAC, 256 bytes of zero-terminated name.
 */
bool ParseTcpIpInterfaces(const UCHAR *reply, DWORD length, std::vector<AdapterEntry> &adapters)
{
    adapters.clear();
    if (reply == nullptr || length < 4)
        return false;
    ULONG count = ReadU32(reply);
    if (count > TcpIpMaxAdapters)
        count = TcpIpMaxAdapters;
    if (count > (length - 4) / TcpIpEntrySize)
        count = (length - 4) / TcpIpEntrySize;
    for (ULONG i = 0; i < count; ++i) {
        const UCHAR *entry = reply + 4 + i * TcpIpEntrySize;
        AdapterEntry adapter;
        adapter.Id = ReadU32(entry);
        adapter.Medium = ReadU32(entry + 4);
        adapter.Mtu = ReadU16(entry + 8);
        adapter.State = ReadU32(entry + 10);
        std::memcpy(adapter.PermanentAddress, entry + 14, MacAddressSize);
        std::memcpy(adapter.CurrentAddress, entry + 20, MacAddressSize);
        const char *name = (const char *)(entry + 26);
        size_t nameLength = 0;
        while (nameLength < AdapterNameSize && name[nameLength] != '\0')
            ++nameLength;
        adapter.Name.assign(name, nameLength);
        adapters.push_back(adapter);
    }
    return true;
}

/*
 * ParseEventRecord - the two values, the stored text length and the text
 * area, whose u32 at offset 4 is the adapter id the framework wrote in place
 * of the reporter's adapter handle. A length of -1 (text cut) or above 1024
 * stands for the whole area.
 */
bool ParseEventRecord(const UCHAR *reply, DWORD length, EventRecord &event)
{
    event = EventRecord();
    if (reply == nullptr || length < EventRecordSize)
        return false;
    event.Value1 = ReadU32(reply);
    event.Value2 = ReadU32(reply + 4);
    event.TextLength = (LONG)ReadU32(reply + 8);
    event.AdapterId = ReadU32(reply + 16);
    DWORD used = event.TextLength < 0 || (ULONG)event.TextLength > EventTextSize ? EventTextSize
                                                                                : (DWORD)event.TextLength;
    event.Data.assign(reply + 12, reply + 12 + used);
    return true;
}

void ParseIpConfig(const UCHAR *bytes, IpConfiguration &config)
{
    config = IpConfiguration();
    config.Carried = ReadU32(bytes + IpCarried);
    ULONG count = ReadU32(bytes + IpCount);
    if (count > IpConfigMaxEntries) {
        config.Clipped = true;
        count = IpConfigMaxEntries;
    }
    for (ULONG i = 0; i < count; ++i) {
        const UCHAR *triple = bytes + IpTriples + 12 * i;
        IpAddressTriple entry;
        entry.Address = ReadU32(triple);
        entry.Netmask = ReadU32(triple + 4);
        entry.Broadcast = ReadU32(triple + 8);
        config.Addresses.push_back(entry);
    }
    ReadAddressList(bytes, IpGatewayCount, IpGateways, config.Gateways, config.Clipped);
    ReadAddressList(bytes, IpDhcpCount, IpDhcpServers, config.DhcpServers, config.Clipped);
    ReadAddressList(bytes, IpDnsCount, IpDnsServers, config.DnsServers, config.Clipped);
    config.Wins1 = ReadU32(bytes + IpWins1);
    config.Wins2 = ReadU32(bytes + IpWins2);
}

bool BuildIpConfig(const IpConfiguration &config, UCHAR *bytes)
{
    if (config.Addresses.size() > IpConfigMaxEntries)
        return false;
    std::memset(bytes, 0, IpConfigRequestSize - 4);
    WriteU32(bytes + IpCarried, config.Carried);
    WriteU32(bytes + IpCount, (ULONG)config.Addresses.size());
    for (size_t i = 0; i < config.Addresses.size(); ++i) {
        UCHAR *triple = bytes + IpTriples + 12 * i;
        WriteU32(triple, config.Addresses[i].Address);
        WriteU32(triple + 4, config.Addresses[i].Netmask);
        WriteU32(triple + 8, config.Addresses[i].Broadcast);
    }
    if (!WriteAddressList(bytes, IpGatewayCount, IpGateways, config.Gateways) ||
        !WriteAddressList(bytes, IpDhcpCount, IpDhcpServers, config.DhcpServers) ||
        !WriteAddressList(bytes, IpDnsCount, IpDnsServers, config.DnsServers))
        return false;
    WriteU32(bytes + IpWins1, config.Wins1);
    WriteU32(bytes + IpWins2, config.Wins2);
    return true;
}

/*
 * ParseDiagReply - the text begins at offset 33 and is m_BufferUsed (u32 at
 * 28) bytes long; it is cut to what the buffer and the reported bytes hold.
 * Zero bytes between prints are dropped.
 */
bool ParseDiagReply(const UCHAR *reply, DWORD bufferLength, DWORD returned, std::string &text)
{
    text.clear();
    DWORD available = returned < bufferLength ? returned : bufferLength;
    if (reply == nullptr || available < DiagHeaderSize)
        return false;
    DWORD used = ReadU32(reply + 28);
    if (used > available - DiagTextOffset)
        used = available - DiagTextOffset;
    for (DWORD i = 0; i < used; ++i) {
        char c = (char)reply[DiagTextOffset + i];
        if (c != '\0')
            text.push_back(c);
    }
    return true;
}

} // namespace nfapp
