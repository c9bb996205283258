/* adapters.cpp - the simulated adapters and the replay (see adapters.h). */
#include "adapters.h"

#include <ndishook.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>

namespace host {

namespace {

const size_t EthernetHeader = 14;
const size_t LongestFrame = 1518;

/* "host-a" for ".../host-a.pcap". */
std::string FileStem(const std::string &path)
{
    size_t slash = path.find_last_of('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    size_t dot = name.find_last_of('.');
    return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

/* The most frequent source MAC; the earliest of equally frequent ones. FALSE when no frame has one. */
bool MostFrequentSource(const std::vector<CapturedFrame> &frames, UCHAR *mac)
{
    std::map<std::string, std::pair<size_t, size_t>> seen; /* address -> (count, first index) */
    for (size_t i = 0; i < frames.size(); i++) {
        if (frames[i].Bytes.size() < EthernetHeader)
            continue;
        std::string source((const char *)frames[i].Bytes.data() + 6, 6);
        auto inserted = seen.emplace(source, std::make_pair((size_t)0, i));
        inserted.first->second.first++;
    }
    const std::string *best = nullptr;
    std::pair<size_t, size_t> bestRank;
    for (const auto &entry : seen) {
        if (best == nullptr || entry.second.first > bestRank.first ||
            (entry.second.first == bestRank.first && entry.second.second < bestRank.second)) {
            best = &entry.first;
            bestRank = entry.second;
        }
    }
    if (best == nullptr)
        return false;
    std::memcpy(mac, best->data(), 6);
    return true;
}

/*
 * The IP configuration of an adapter whose own frames carry IPv4: the most
 * frequent source address, mask 255.255.255.0 and the network's .1 (.254
 * when that is the adapter's own) as its router. Left zero when no own frame is IPv4.
 */
void GuessIpConfig(ReplayAdapter *adapter)
{
    const size_t SourceOffset = EthernetHeader + 12;
    std::map<ULONG, size_t> seen;
    for (const CapturedFrame &frame : adapter->Frames) {
        const std::vector<UCHAR> &b = frame.Bytes;
        if (!adapter->IsOwnFrame(frame) || b.size() < SourceOffset + 4 || b[12] != 0x08 || b[13] != 0x00)
            continue;
        ULONG address;
        std::memcpy(&address, b.data() + SourceOffset, 4); /* as it lies in the packet */
        seen[address]++;
    }
    ULONG best = 0;
    size_t bestCount = 0;
    for (const auto &entry : seen) {
        if (entry.second > bestCount) {
            best = entry.first;
            bestCount = entry.second;
        }
    }
    if (bestCount == 0)
        return;
    const UCHAR mask[4] = {255, 255, 255, 0};
    UCHAR router[4];
    std::memcpy(router, &best, 4);
    router[3] = router[3] == 1 ? 254 : 1;
    IPConfig &config = adapter->IpConfig;
    config.m_nIP = 1;
    config.m_IP[0].IpAddress = best;
    std::memcpy(&config.m_IP[0].Netmask, mask, 4);
    config.m_IP[0].Broadcast = SubnetBroadcastAddress(best, config.m_IP[0].Netmask);
    config.m_nGW = 1;
    std::memcpy(&config.RouterAddr[0], router, 4);
}

} // namespace

bool ReplayAdapter::IsOwnFrame(const CapturedFrame &frame) const
{
    return frame.Bytes.size() >= EthernetHeader && std::memcmp(frame.Bytes.data() + 6, Mac, 6) == 0;
}

std::string MacText(const UCHAR *mac)
{
    char text[18];
    std::snprintf(text, sizeof(text), "%02X-%02X-%02X-%02X-%02X-%02X", mac[0], mac[1], mac[2], mac[3], mac[4],
                  mac[5]);
    return text;
}

bool ReadCaptures(const std::vector<std::string> &paths, Adapters *adapters, std::string *error)
{
    for (const std::string &path : paths) {
        auto adapter = std::make_unique<ReplayAdapter>();
        adapter->CapturePath = path;
        adapter->Name = FileStem(path);
        std::string why;
        if (!ReadCapture(path, &adapter->Frames, &why)) {
            *error = "cannot read " + path + ": " + why;
            return false;
        }
        if (!MostFrequentSource(adapter->Frames, adapter->Mac)) {
            *error = path + " holds no Ethernet frame";
            return false;
        }
        adapters->push_back(std::move(adapter));
    }
    return true;
}

/*
 * OpenAdapters - adapter n gets the instance id {4E460000-0000-0000-0000-00000000000n}
 * and its capture's MAC as current and permanent address. The framework's
 * identifier is asked for at once, so the ids follow the order of the captures.
 */
bool OpenAdapters(Adapters &adapters, std::string *error)
{
    for (size_t n = 0; n < adapters.size(); n++) {
        ReplayAdapter &adapter = *adapters[n];
        char id[64];
        std::snprintf(id, sizeof(id), "{4E460000-0000-0000-0000-%012zX}", n + 1);
        adapter.InstanceId = id;
        adapter.DeviceName = "\\DEVICE\\" + adapter.InstanceId;
        adapter.Description = " - replay of " + adapter.Name;

        NDIS_HOOK_ADAPTER_SETUP setup = {};
        setup.DeviceName = adapter.DeviceName.c_str();
        setup.InstanceId = adapter.InstanceId.c_str();
        setup.Description = adapter.Description.c_str();
        std::memcpy(setup.CurrentAddress, adapter.Mac, 6);
        std::memcpy(setup.PermanentAddress, adapter.Mac, 6);
        setup.Mtu = 1500;
        setup.Medium = NdisMedium802_3;
        GuessIpConfig(&adapter);
        setup.IpConfig = adapter.IpConfig.m_nIP != 0 ? &adapter.IpConfig : nullptr;
        adapter.Handle = NdisHookOpenAdapter(&setup);
        if (adapter.Handle == nullptr) {
            *error = "the hook driver did not open an adapter for " + adapter.CapturePath;
            return false;
        }
        if (Filter_AdapterToId(adapter.Handle, &adapter.Id) != FILTER_STATUS_SUCCESS) {
            *error = "the framework gave no identifier to the adapter of " + adapter.CapturePath;
            return false;
        }
    }
    return true;
}

double Replay(Adapters &adapters, bool *ok, std::string *error)
{
    struct Step {
        int64_t Time;
        size_t Adapter;
        size_t Frame;
    };
    std::vector<Step> steps;
    for (size_t a = 0; a < adapters.size(); a++) {
        const std::vector<CapturedFrame> &frames = adapters[a]->Frames;
        for (size_t f = 0; f < frames.size(); f++)
            steps.push_back({frames[f].Seconds * 1000000 + frames[f].Microseconds, a, f});
    }
    std::stable_sort(steps.begin(), steps.end(), [](const Step &x, const Step &y) { return x.Time < y.Time; });

    *ok = true;
    auto start = std::chrono::steady_clock::now();
    for (const Step &step : steps) {
        ReplayAdapter &adapter = *adapters[step.Adapter];
        const CapturedFrame &frame = adapter.Frames[step.Frame];
        if (frame.Bytes.size() < EthernetHeader || frame.Bytes.size() > LongestFrame) {
            adapter.Skipped++;
            continue;
        }
        bool own = adapter.IsOwnFrame(frame);
        NTSTATUS status = own ? NdisHookSendFrame(adapter.Handle, frame.Bytes.data(), (ULONG)frame.Bytes.size(), nullptr)
                              : NdisHookReceiveFrame(adapter.Handle, frame.Bytes.data(), (ULONG)frame.Bytes.size(),
                                                     nullptr);
        if (!NT_SUCCESS(status)) {
            char text[96];
            std::snprintf(text, sizeof(text), "frame %zu of %s refused by the hook driver, status 0x%08X",
                          step.Frame + 1, adapter.Name.c_str(), (unsigned)status);
            *error = text;
            *ok = false;
            break;
        }
        (own ? adapter.Sent : adapter.Received)++;
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void CollectDelivered(Adapters &adapters, int64_t startSeconds)
{
    for (auto &adapter : adapters) {
        for (ULONG direction : {(ULONG)FILTER_DIRECTION_TO_ADAPTER, (ULONG)FILTER_DIRECTION_TO_PROTOCOL}) {
            std::vector<CapturedFrame> &out =
                direction == FILTER_DIRECTION_TO_ADAPTER ? adapter->ToWire : adapter->ToProtocols;
            out.clear();
            for (std::vector<UCHAR> &bytes : ndishook::DeliveredFrames(adapter->Handle, direction)) {
                CapturedFrame frame;
                frame.Bytes = std::move(bytes);
                out.push_back(std::move(frame));
            }
            StampFrames(&out, startSeconds);
        }
    }
}

void CloseAdapters(Adapters &adapters)
{
    for (auto &adapter : adapters) {
        if (adapter->Handle != nullptr) {
            NdisHookCloseAdapter(adapter->Handle);
            adapter->Handle = nullptr;
        }
    }
}

} // namespace host
