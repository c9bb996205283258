/* flows.cpp - listing and printing the flow tracker's table (see flows.h). */
#include "flows.h"

#include "ndisfilter-shared.h"

#include <algorithm>
#include <cstdio>

namespace host {

namespace {

std::string AddressText(ULONG address) /* network order */
{
    const UCHAR *b = (const UCHAR *)&address;
    char text[16];
    std::snprintf(text, sizeof(text), "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
    return text;
}

const char *ProtocolName(UCHAR protocol)
{
    switch (protocol) {
    case 1:
        return "icmp";
    case 6:
        return "tcp";
    case 17:
        return "udp";
    default:
        return "ip";
    }
}

} // namespace

bool ListFlows(FlowTable *table, std::string *error)
{
    HANDLE device = CreateFileA(NDISFILTER_USER_DEVICE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0,
                                nullptr);
    if (device == INVALID_HANDLE_VALUE) {
        *error = "flow listing: cannot open " NDISFILTER_USER_DEVICE;
        return false;
    }
    std::vector<UCHAR> reply(EXAMPLE_FLOW_LIST_HEADER + EXAMPLE_FLOW_TRACKER_MAX_FLOWS * sizeof(EXAMPLE_FLOW));
    DWORD bytes = 0;
    BOOL ok = DeviceIoControl(device, IOCTL_EXAMPLE_FLOW_TRACKER_LIST_FLOWS, nullptr, 0, reply.data(),
                              (DWORD)reply.size(), &bytes, nullptr);
    DWORD lastError = GetLastError();
    CloseHandle(device);
    if (!ok || bytes < EXAMPLE_FLOW_LIST_HEADER) {
        char text[96];
        std::snprintf(text, sizeof(text), "flow listing: the control request failed (error %u, %u bytes)",
                      (unsigned)lastError, (unsigned)bytes);
        *error = text;
        return false;
    }
    const EXAMPLE_FLOW_LIST *list = (const EXAMPLE_FLOW_LIST *)reply.data();
    ULONG listed = std::min<ULONG>(list->Listed, (bytes - EXAMPLE_FLOW_LIST_HEADER) / sizeof(EXAMPLE_FLOW));
    table->FlowCount = list->FlowCount;
    table->Flows.assign(list->Flows, list->Flows + listed);
    return true;
}

void PrintFlows(const FlowTable &table)
{
    std::vector<EXAMPLE_FLOW> flows = table.Flows;
    std::sort(flows.begin(), flows.end(), [](const EXAMPLE_FLOW &a, const EXAMPLE_FLOW &b) {
        return a.Bytes[0] + a.Bytes[1] > b.Bytes[0] + b.Bytes[1];
    });
    std::printf("flows: %u in the table, %zu listed by IOCTL_EXAMPLE_FLOW_TRACKER_LIST_FLOWS\n",
                (unsigned)table.FlowCount, flows.size());
    for (const EXAMPLE_FLOW &f : flows) {
        std::string host = AddressText(f.HostAddress) + ":" + std::to_string(f.HostPort);
        std::string peer = AddressText(f.PeerAddress) + ":" + std::to_string(f.PeerPort);
        std::printf("  %-4s %-21s %s %-21s in %llu pkts %llu B, out %llu pkts %llu B\n", ProtocolName(f.Protocol),
                    host.c_str(), f.OpenedByHost ? "->" : "<-", peer.c_str(),
                    (unsigned long long)f.Packets[EXAMPLE_FLOW_IN], (unsigned long long)f.Bytes[EXAMPLE_FLOW_IN],
                    (unsigned long long)f.Packets[EXAMPLE_FLOW_OUT], (unsigned long long)f.Bytes[EXAMPLE_FLOW_OUT]);
    }
}

} // namespace host
