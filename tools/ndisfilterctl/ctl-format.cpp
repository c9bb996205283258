/*
 * ctl-format.cpp - the arguments ndisfilterctl reads (MAC and IPv4
 * addresses, numbers) and the text it prints for the framework's replies.
 */
#include <windows.h>

#include "ctl.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace nfctl {

namespace {

int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

/* An address in host order (first octet highest) as the framework stores it, and back. */
ULONG StoredFromHostOrder(ULONG host)
{
    return ((host >> 24) & 0xFF) | ((host >> 8) & 0xFF00) | ((host << 8) & 0xFF0000) | ((host << 24) & 0xFF000000);
}

ULONG HostOrderFromStored(ULONG stored)
{
    return StoredFromHostOrder(stored);
}

bool Printable(const std::vector<UCHAR> &data, size_t *length)
{
    /* Text up to its first zero byte; the rest must be zero padding. */
    size_t end = 0;
    while (end < data.size() && data[end] != 0)
        ++end;
    for (size_t i = 0; i < end; ++i) {
        if (data[i] < 0x20 && data[i] != '\t' && data[i] != '\n' && data[i] != '\r')
            return false;
        if (data[i] >= 0x7F)
            return false;
    }
    for (size_t i = end; i < data.size(); ++i) {
        if (data[i] != 0)
            return false;
    }
    *length = end;
    return end > 0;
}

void HexDump(const std::vector<UCHAR> &data, std::ostream &out)
{
    char line[96];
    for (size_t offset = 0; offset < data.size(); offset += 16) {
        int used = std::snprintf(line, sizeof(line), "  %04x ", (unsigned)offset);
        for (size_t i = 0; i < 16; ++i) {
            if (offset + i < data.size())
                used += std::snprintf(line + used, sizeof(line) - used, " %02x", data[offset + i]);
            else
                used += std::snprintf(line + used, sizeof(line) - used, "   ");
        }
        used += std::snprintf(line + used, sizeof(line) - used, "  ");
        for (size_t i = 0; i < 16 && offset + i < data.size(); ++i) {
            UCHAR c = data[offset + i];
            line[used++] = c >= 0x20 && c < 0x7F ? (char)c : '.';
        }
        line[used] = '\0';
        out << line << '\n';
    }
}

} // namespace

bool ParseMac(const std::string &text, UCHAR mac[6])
{
    if (text.size() != 17)
        return false;
    char separator = text[2];
    if (separator != ':' && separator != '-')
        return false;
    for (int i = 0; i < 6; ++i) {
        int high = HexDigit(text[3 * i]);
        int low = HexDigit(text[3 * i + 1]);
        if (high < 0 || low < 0 || (i < 5 && text[3 * i + 2] != separator))
            return false;
        mac[i] = (UCHAR)(high * 16 + low);
    }
    return true;
}

bool ParseIpv4(const std::string &text, ULONG *address)
{
    ULONG host = 0;
    size_t position = 0;
    for (int octet = 0; octet < 4; ++octet) {
        if (octet > 0) {
            if (position >= text.size() || text[position] != '.')
                return false;
            ++position;
        }
        size_t digits = 0;
        ULONG value = 0;
        while (position < text.size() && text[position] >= '0' && text[position] <= '9' && digits < 3) {
            value = value * 10 + (ULONG)(text[position] - '0');
            ++position;
            ++digits;
        }
        if (digits == 0 || value > 255)
            return false;
        host = (host << 8) | value;
    }
    if (position != text.size())
        return false;
    *address = StoredFromHostOrder(host);
    return true;
}

bool ParseNumber(const std::string &text, ULONG *value)
{
    if (text.empty() || text[0] == '-' || text[0] == '+')
        return false;
    bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char *digits = text.c_str() + (hex ? 2 : 0);
    for (const char *c = digits; *c != '\0'; ++c) {
        if (hex ? HexDigit(*c) < 0 : (*c < '0' || *c > '9'))
            return false;
    }
    char *end = nullptr;
    unsigned long long parsed = std::strtoull(digits, &end, hex ? 16 : 10);
    if (end == nullptr || *end != '\0' || end == digits || parsed > 0xFFFFFFFFull)
        return false;
    *value = (ULONG)parsed;
    return true;
}

bool ParseAddressTriple(const std::string &text, nfapp::IpAddressTriple &triple)
{
    size_t slash = text.find('/');
    if (slash == std::string::npos)
        return false;
    size_t second = text.find('/', slash + 1);
    std::string mask = text.substr(slash + 1, second == std::string::npos ? std::string::npos : second - slash - 1);
    if (!ParseIpv4(text.substr(0, slash), &triple.Address))
        return false;
    ULONG prefix = 0;
    if (mask.find('.') == std::string::npos) {
        if (mask.empty() || mask.size() > 2 || !ParseNumber(mask, &prefix) || prefix > 32)
            return false;
        ULONG host = prefix == 0 ? 0 : 0xFFFFFFFFul << (32 - prefix);
        triple.Netmask = StoredFromHostOrder(host & 0xFFFFFFFFul);
    } else if (!ParseIpv4(mask, &triple.Netmask)) {
        return false;
    }
    if (second != std::string::npos)
        return ParseIpv4(text.substr(second + 1), &triple.Broadcast);
    ULONG host = HostOrderFromStored(triple.Address) | ~HostOrderFromStored(triple.Netmask);
    triple.Broadcast = StoredFromHostOrder(host & 0xFFFFFFFFul);
    return true;
}

std::string FormatMac(const UCHAR mac[6])
{
    char text[18];
    std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                  mac[5]);
    return text;
}

std::string FormatIpv4(ULONG address)
{
    char text[16];
    std::snprintf(text, sizeof(text), "%lu.%lu.%lu.%lu", (unsigned long)(address & 0xFF),
                  (unsigned long)((address >> 8) & 0xFF), (unsigned long)((address >> 16) & 0xFF),
                  (unsigned long)((address >> 24) & 0xFF));
    return text;
}

/* FormatAdapters - one line per adapter under a header; the permanent MAC only when it differs. */
void FormatAdapters(const std::vector<nfapp::AdapterEntry> &adapters, std::ostream &out)
{
    if (adapters.empty()) {
        out << "no adapter is bound to TCP/IP\n";
        return;
    }
    out << "ID    MAC                  MTU  MEDIUM  STATE  NAME\n";
    char line[128];
    for (const nfapp::AdapterEntry &adapter : adapters) {
        std::snprintf(line, sizeof(line), "%-5lu %s %5u %7lu %6lu  ", (unsigned long)adapter.Id,
                      FormatMac(adapter.CurrentAddress).c_str(), (unsigned)adapter.Mtu,
                      (unsigned long)adapter.Medium, (unsigned long)adapter.State);
        out << line << adapter.Name;
        if (std::memcmp(adapter.PermanentAddress, adapter.CurrentAddress, 6) != 0)
            out << " (permanent " << FormatMac(adapter.PermanentAddress) << ")";
        out << '\n';
    }
}

/*
 * FormatEvent - the values, the adapter and the data: as text when it is
 * printable text followed by zeros, else as a hex dump.
 */
void FormatEvent(const nfapp::EventRecord &event, std::ostream &out)
{
    char line[96];
    std::snprintf(line, sizeof(line), "event 0x%08lx 0x%08lx", (unsigned long)event.Value1,
                  (unsigned long)event.Value2);
    out << line;
    if (event.AdapterId != 0)
        out << " adapter " << event.AdapterId;
    else
        out << " no adapter";
    if (event.TextLength < 0)
        out << " length " << event.Data.size() << " (cut)";
    else
        out << " length " << event.TextLength;
    size_t textLength = 0;
    if (event.Data.empty()) {
        out << '\n';
    } else if (Printable(event.Data, &textLength)) {
        out << " text \"" << std::string((const char *)event.Data.data(), textLength) << "\"\n";
    } else {
        out << '\n';
        HexDump(event.Data, out);
    }
}

void FormatIpConfig(ULONG adapterId, const nfapp::IpConfiguration &config, std::ostream &out)
{
    out << "adapter " << adapterId << '\n';
    if (config.Addresses.empty())
        out << "  no address\n";
    for (const nfapp::IpAddressTriple &triple : config.Addresses)
        out << "  address " << FormatIpv4(triple.Address) << " netmask " << FormatIpv4(triple.Netmask)
            << " broadcast " << FormatIpv4(triple.Broadcast) << '\n';
    for (ULONG gateway : config.Gateways)
        out << "  gateway " << FormatIpv4(gateway) << '\n';
    for (ULONG server : config.DhcpServers)
        out << "  dhcp " << FormatIpv4(server) << '\n';
    for (ULONG server : config.DnsServers)
        out << "  dns " << FormatIpv4(server) << '\n';
    out << "  wins " << FormatIpv4(config.Wins1) << ' ' << FormatIpv4(config.Wins2) << '\n';
    if (config.Clipped)
        out << "  (the framework reported more than 8 entries in a list; the first 8 are shown)\n";
}

const char *MediaStateName(UCHAR state)
{
    switch (state) {
    case nfapp::MediaStateConnected:
        return "connected";
    case nfapp::MediaStateDisconnected:
        return "disconnected";
    default:
        return "unknown";
    }
}

} // namespace nfctl
