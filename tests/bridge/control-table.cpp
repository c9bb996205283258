/* control-table.cpp - see control-table.h. */
#include "control-table.h"

#include <ndisfilter-app.h>
#include <ndisfilter-control.h>

#include <cstdio>
#include <cstring>

namespace bridgetest {
namespace {

struct Outcome {
    BOOL Ok = FALSE;
    DWORD Error = 0;
    DWORD Bytes = 0;
    LONG Status = 0;
    std::vector<UCHAR> Output;
};

/* One request on an overlapped handle, waited for; a read parked by the framework is cancelled. */
Outcome Ask(HANDLE device, UCHAR major, DWORD code, const std::vector<UCHAR> &input, DWORD outputLength,
            bool cancelIfPending = false)
{
    Outcome outcome;
    outcome.Output.assign(outputLength, 0xEE);
    OVERLAPPED overlapped;
    std::memset(&overlapped, 0, sizeof(overlapped));
    overlapped.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    std::vector<UCHAR> in(input);
    BOOL ok;
    if (major == 'R')
        ok = ReadFile(device, outcome.Output.data(), outputLength, nullptr, &overlapped);
    else if (major == 'W')
        ok = WriteFile(device, in.data(), (DWORD)in.size(), nullptr, &overlapped);
    else
        ok = DeviceIoControl(device, code, in.empty() ? nullptr : in.data(), (DWORD)in.size(),
                             outputLength == 0 ? nullptr : outcome.Output.data(), outputLength, nullptr, &overlapped);
    if (!ok && GetLastError() == ERROR_IO_PENDING && cancelIfPending)
        CancelIoEx(device, &overlapped);
    outcome.Ok = GetOverlappedResult(device, &overlapped, &outcome.Bytes, TRUE);
    outcome.Error = outcome.Ok ? 0 : GetLastError();
    outcome.Status = (LONG)overlapped.Internal;
    CloseHandle(overlapped.hEvent);
    return outcome;
}

std::string Hex(const std::vector<UCHAR> &bytes, size_t from, size_t count)
{
    std::string text;
    char two[3];
    for (size_t i = from; i < from + count && i < bytes.size(); i++) {
        std::snprintf(two, sizeof(two), "%02x", bytes[i]);
        text += two;
    }
    return text;
}

std::vector<UCHAR> Dword(ULONG value)
{
    std::vector<UCHAR> bytes(4);
    std::memcpy(bytes.data(), &value, 4);
    return bytes;
}

std::vector<UCHAR> MacAnd(const UCHAR mac[6], UCHAR last)
{
    std::vector<UCHAR> bytes(mac, mac + 6);
    bytes.push_back(last);
    return bytes;
}

} // namespace

std::vector<std::string> RunControlTable(const UCHAR mac[6], ULONG adapterId)
{
    std::vector<std::string> lines;
    HANDLE device = CreateFileA(NDISFILTER_USER_DEVICE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                FILE_FLAG_OVERLAPPED, nullptr);
    if (device == INVALID_HANDLE_VALUE) {
        lines.push_back("open failed " + std::to_string(GetLastError()));
        return lines;
    }
    const UCHAR unknownMac[6] = {0x02, 0xde, 0xad, 0xbe, 0xef, 0x00};
    std::vector<UCHAR> ipConfig(224, 0);
    std::memcpy(ipConfig.data(), &adapterId, 4);
    std::vector<UCHAR> unknownIpConfig(224, 0);
    unknownIpConfig[0] = 99;

    /* name, major ('D' control, 'R' read, 'W' write), code, input, output length, output bytes compared (from, count) */
    struct Case {
        const char *Name;
        UCHAR Major;
        DWORD Code;
        std::vector<UCHAR> Input;
        DWORD OutputLength;
        size_t From, Count;
        bool CancelIfPending;
    };
    const Case cases[] = {
        {"version", 'D', IOCTL_NDIS_FILTER_GET_VERSION, {}, 2, 0, 2, false},
        {"version short", 'D', IOCTL_NDIS_FILTER_GET_VERSION, {}, 1, 0, 0, false},
        {"size", 'D', IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, {}, 4, 0, 4, false},
        {"start share 0", 'D', IOCTL_NDIS_FILTER_START_SHARE, Dword(0), 8, 0, 0, false},
        {"read share unowned", 'D', IOCTL_NDIS_FILTER_READ_SHARE, {}, 0, 0, 0, false},
        {"write share unowned", 'D', IOCTL_NDIS_FILTER_WRITE_SHARE, {}, 0, 0, 0, false},
        {"stop share unowned", 'D', IOCTL_NDIS_FILTER_STOP_SHARE, {}, 0, 0, 0, false},
        {"interfaces", 'D', IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, {}, 9028, 0, 8, false},
        {"clear events", 'D', IOCTL_NDIS_FILTER_CLEAR_EVENT, {}, 0, 0, 0, false},
        {"event none", 'D', IOCTL_NDIS_FILTER_GET_EVENT, {}, 1036, 0, 16, false},
        {"set ipconfig unknown", 'D', IOCTL_NDIS_FILTER_SET_IPCONFIG, unknownIpConfig, 0, 0, 0, false},
        {"get ipconfig", 'D', IOCTL_NDIS_FILTER_GET_IPCONFIG, Dword(adapterId), 224, 0, 0, false},
        {"set media unknown", 'D', IOCTL_NDIS_FILTER_SET_MEDIA_STATUS, MacAnd(unknownMac, 1), 0, 0, 0, false},
        {"get media", 'D', IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, MacAnd(mac, 0), 7, 6, 1, false},
        {"set dump on", 'D', IOCTL_NDIS_FILTER_SET_PACKET_DUMP, MacAnd(mac, 1), 0, 0, 0, false},
        {"get dump", 'D', IOCTL_NDIS_FILTER_GET_PACKET_DUMP, MacAnd(mac, 0), 7, 6, 1, false},
        {"set dump off", 'D', IOCTL_NDIS_FILTER_SET_PACKET_DUMP, MacAnd(mac, 0), 0, 0, 0, false},
        {"adapter", 'D', IOCTL_NDIS_FILTER_GET_ADAPTER, std::vector<UCHAR>(mac, mac + 6), 10, 6, 4, false},
        {"debug mask", 'D', IOCTL_NDIS_FILTER_GET_DBGFLAG, {}, 0, 0, 0, false},
        {"dump extension", 'D', IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION, {}, 0, 0, 0, false},
        {"congestion", 'D', IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL, Dword(2048), 0, 0, 0, false},
        {"unknown code", 'D', NDISFILTER_CTL_CODE(0x8DB), {}, 16, 0, 0, false},
        {"read", 'R', 0, {}, 64, 0, 0, false},
        {"write", 'W', 0, Dword(1), 0, 0, 0, false},
        {"start share", 'D', IOCTL_NDIS_FILTER_START_SHARE, Dword(1), 8, 0, 0, false},
        {"start share again", 'D', IOCTL_NDIS_FILTER_START_SHARE, Dword(1), 8, 0, 8, false},
        {"write share", 'D', IOCTL_NDIS_FILTER_WRITE_SHARE, {}, 0, 0, 0, false},
        {"read share", 'D', IOCTL_NDIS_FILTER_READ_SHARE, {}, 0, 0, 0, true},
        {"stop share", 'D', IOCTL_NDIS_FILTER_STOP_SHARE, {}, 0, 0, 0, false},
    };
    for (const Case &c : cases) {
        Outcome outcome = Ask(device, c.Major, c.Code, c.Input, c.OutputLength, c.CancelIfPending);
        char line[256];
        std::snprintf(line, sizeof(line), "%s: ok %d error %lu status 0x%08lx bytes %lu out %s", c.Name, (int)outcome.Ok,
                      (unsigned long)outcome.Error, (unsigned long)(ULONG)outcome.Status,
                      (unsigned long)outcome.Bytes, Hex(outcome.Output, c.From, c.Count).c_str());
        lines.push_back(line);
        if (std::strcmp(c.Name, "start share") == 0) {
            /* The address differs between processes; what matters is that it is one and its rings read. */
            ULONG64 address = 0;
            std::memcpy(&address, outcome.Output.data(), 8);
            const volatile SharedMemory *memory = (const volatile SharedMemory *)(ULONG_PTR)address;
            bool mapped = outcome.Ok && address != 20 && address != 0;
            lines.push_back(std::string("share mapped: ") + (mapped ? "yes" : "no") + " rings " +
                            (mapped ? std::to_string(memory->KernelModeInput.m_iBlockCount) + "/" +
                                          std::to_string(memory->KernelModeOutput.m_iBlockCount)
                                    : "-"));
        }
    }
    nfapp::ControlDevice control;
    std::string reply;
    bool diag = control.Open() && control.Diagnose("filter help", reply);
    std::string text = diag ? reply.substr(0, 80) : control.LastFailure().Describe();
    for (char &c : text)
        c = c == '\n' ? '|' : c;
    lines.push_back("diag filter help: " + text);
    CloseHandle(device);
    return lines;
}

} // namespace bridgetest
