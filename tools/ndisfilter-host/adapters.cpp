/* adapters.cpp - the simulated adapters and the replay (see adapters.h). */
#include "adapters.h"

#include <ndishook.h>

#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <thread>

namespace host {

namespace {

const size_t EthernetHeader = 14;
const size_t LongestFrame = 1518;
/* Distinct addresses counted per capture when picking its MAC and IP address; later new ones are ignored. */
const size_t MaxAddressesCounted = 65536;
/* How long the replay waits for the hook driver's packets to come back. */
const auto PoolPatience = std::chrono::seconds(10);
/* Packets out of the hook driver beyond which the replay waits before the next frame, as a
 * protocol with a bounded window would: the framework's capture logs hold a clone of every
 * frame until their writer threads wrote it, and clone no more past its pending-packet limit. */
const LONG MostOutstanding = 1024;

/* "host-a" for ".../host-a.pcap". */
std::string FileStem(const std::string &path)
{
    size_t slash = path.find_last_of('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    size_t dot = name.find_last_of('.');
    return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

/* The most frequent source MAC of a capture, the earliest of equally frequent ones, and
 * the capture's frame count. FALSE when it cannot be read or no frame has a source. */
bool ReadSourceMac(ReplayAdapter *adapter, std::string *error)
{
    CaptureReader reader;
    if (!reader.Open(adapter->CapturePath, error))
        return false;
    std::map<std::string, std::pair<size_t, size_t>> seen; /* address -> (count, first index) */
    FrameView frame;
    size_t frames = 0;
    for (; reader.Next(&frame); frames++) {
        if (frame.Length < EthernetHeader)
            continue;
        std::string source((const char *)frame.Bytes + 6, 6);
        auto found = seen.find(source);
        if (found == seen.end() && seen.size() < MaxAddressesCounted)
            found = seen.emplace(source, std::make_pair((size_t)0, frames)).first;
        if (found != seen.end())
            found->second.first++;
    }
    if (!reader.Error().empty()) {
        *error = reader.Error();
        return false;
    }
    adapter->FrameCount = frames;
    const std::string *best = nullptr;
    std::pair<size_t, size_t> bestRank;
    for (const auto &entry : seen) {
        if (best == nullptr || entry.second.first > bestRank.first ||
            (entry.second.first == bestRank.first && entry.second.second < bestRank.second)) {
            best = &entry.first;
            bestRank = entry.second;
        }
    }
    if (best == nullptr) {
        *error = "no Ethernet frame";
        return false;
    }
    std::memcpy(adapter->Mac, best->data(), 6);
    return true;
}

/*
 * The IP configuration of an adapter whose own frames carry IPv4: the most
 * frequent source address, mask 255.255.255.0 and the network's .1 (.254
 * when that is the adapter's own) as its router. Left zero when no own frame is IPv4.
 */
bool GuessIpConfig(ReplayAdapter *adapter, std::string *error)
{
    const size_t SourceOffset = EthernetHeader + 12;
    CaptureReader reader;
    if (!reader.Open(adapter->CapturePath, error))
        return false;
    std::map<ULONG, size_t> seen;
    FrameView frame;
    while (reader.Next(&frame)) {
        const unsigned char *b = frame.Bytes;
        if (!adapter->IsOwnFrame(b, frame.Length) || frame.Length < SourceOffset + 4 || b[12] != 0x08 || b[13] != 0x00)
            continue;
        ULONG address;
        std::memcpy(&address, b + SourceOffset, 4); /* as it lies in the packet */
        if (seen.size() < MaxAddressesCounted || seen.count(address) != 0)
            seen[address]++;
    }
    if (!reader.Error().empty()) {
        *error = reader.Error();
        return false;
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
        return true;
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
    return true;
}

/* The hook driver's delivery sink: Context is the adapter. */
VOID WriteDelivered(PFilterAdapter, ULONG Direction, const UCHAR *Frame, ULONG Length, PVOID Context)
{
    ReplayAdapter *adapter = static_cast<ReplayAdapter *>(Context);
    (Direction == FILTER_DIRECTION_TO_ADAPTER ? adapter->ToWire : adapter->ToProtocols).Add(Frame, Length);
}

} // namespace

bool ReplayAdapter::IsOwnFrame(const unsigned char *bytes, size_t length) const
{
    return length >= EthernetHeader && std::memcmp(bytes + 6, Mac, 6) == 0;
}

bool DeliveryOutput::Open(const std::string &path, int64_t startSeconds, std::string *error)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_path = path;
    m_start = startSeconds;
    m_frames = 0;
    return m_writer.Open(path, error);
}

void DeliveryOutput::Add(const unsigned char *bytes, size_t length)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_writer.Write(bytes, length, m_start + (int64_t)(m_frames / 1000000), (int64_t)(m_frames % 1000000));
    m_frames++;
}

bool DeliveryOutput::Close(std::string *error)
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_writer.Close(error);
}

size_t DeliveryOutput::Frames() const
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_frames;
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
        if (!ReadSourceMac(adapter.get(), &why) || !GuessIpConfig(adapter.get(), &why)) {
            *error = why == "no Ethernet frame" ? path + " holds no Ethernet frame" : "cannot read " + path + ": " + why;
            return false;
        }
        adapters->push_back(std::move(adapter));
    }
    return true;
}

std::vector<std::vector<unsigned char>> FirstFrames(const ReplayAdapter &adapter, size_t count, size_t longest,
                                                    bool receivedOnly)
{
    std::vector<std::vector<unsigned char>> frames;
    CaptureReader reader;
    std::string error;
    if (count == 0 || !reader.Open(adapter.CapturePath, &error))
        return frames;
    FrameView frame;
    while (frames.size() < count && reader.Next(&frame)) {
        if (frame.Length == 0 || frame.Length > longest || (receivedOnly && adapter.IsOwnFrame(frame.Bytes, frame.Length)))
            continue;
        frames.emplace_back(frame.Bytes, frame.Bytes + frame.Length);
    }
    return frames;
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

bool StartOutputs(Adapters &adapters, const std::string &dir, int64_t startSeconds, std::string *error)
{
    mkdir(dir.c_str(), 0755);
    for (auto &adapter : adapters) {
        std::string stem = dir + "/" + (adapters.size() > 1 ? std::to_string(adapter->Id) + "-" : "") + adapter->Name;
        std::string why;
        if (!adapter->ToWire.Open(stem + "-to-wire.pcap", startSeconds, &why) ||
            !adapter->ToProtocols.Open(stem + "-to-protocols.pcap", startSeconds, &why)) {
            *error = "cannot write " + stem + "-to-*.pcap: " + why;
            return false;
        }
        if (!NT_SUCCESS(NdisHookSetDeliverySink(adapter->Handle, WriteDelivered, adapter.get()))) {
            *error = "the hook driver does not take the frames of " + adapter->Name + " as they come";
            return false;
        }
    }
    return true;
}

void StopOutputs(Adapters &adapters, std::vector<std::pair<std::string, size_t>> *written,
                 std::vector<std::string> *problems)
{
    for (auto &adapter : adapters) {
        if (adapter->Handle != nullptr)
            NdisHookSetDeliverySink(adapter->Handle, nullptr, nullptr);
        for (DeliveryOutput *output : {&adapter->ToWire, &adapter->ToProtocols}) {
            if (output->Path().empty())
                continue;
            std::string error;
            if (output->Close(&error))
                written->emplace_back(output->Path(), output->Frames());
            else
                problems->push_back("cannot write " + output->Path() + ": " + error);
        }
    }
}

namespace {

/* One capture being replayed: its reader and the frame it would hand out next. */
struct ReplaySource {
    CaptureReader Reader;
    FrameView Head;
    bool HaveHead = false;
    size_t Index = 0; /* of Head in the capture, from 0 */
};

/* Waits until fewer than `limit` packets are out of the hook driver; FALSE after PoolPatience
 * without one coming back. */
bool WaitForPackets(LONG limit)
{
    auto lastProgress = std::chrono::steady_clock::now();
    LONG out = NdisHookPacketsOutstanding();
    unsigned spins = 0;
    while (out >= limit) {
        if (std::chrono::steady_clock::now() - lastProgress > PoolPatience)
            return false;
        if (++spins < 64)
            std::this_thread::yield();
        else
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        LONG now = NdisHookPacketsOutstanding();
        if (now < out)
            lastProgress = std::chrono::steady_clock::now();
        out = now;
    }
    return true;
}

/* Hands one frame to the hook driver, waiting while its packet pool is empty or too many of
 * its packets are out; counts the frames that waited. */
NTSTATUS Indicate(ReplayAdapter &adapter, const FrameView &frame, bool own, ReplayResult *result)
{
    bool waited = false;
    if ((result->Frames & 15) == 0 && NdisHookPacketsOutstanding() >= MostOutstanding) {
        result->Waits++;
        waited = true;
        if (!WaitForPackets(MostOutstanding / 2))
            return STATUS_INSUFFICIENT_RESOURCES;
    }
    for (;;) {
        NTSTATUS status = own ? NdisHookSendFrame(adapter.Handle, frame.Bytes, (ULONG)frame.Length, nullptr)
                              : NdisHookReceiveFrame(adapter.Handle, frame.Bytes, (ULONG)frame.Length, nullptr);
        if (status != STATUS_INSUFFICIENT_RESOURCES)
            return status;
        if (!waited) {
            result->Waits++;
            waited = true;
        }
        /* As a protocol whose packets are all out: wait until one comes back. */
        if (!WaitForPackets(NdisHookPacketsOutstanding()))
            return status;
    }
}

} // namespace

ReplayResult Replay(Adapters &adapters, bool progress)
{
    ReplayResult result;
    std::vector<ReplaySource> sources(adapters.size());
    unsigned long long total = 0;
    for (size_t a = 0; a < adapters.size(); a++) {
        std::string error;
        if (!sources[a].Reader.Open(adapters[a]->CapturePath, &error)) {
            result.Ok = false;
            result.Error = "cannot read " + adapters[a]->CapturePath + ": " + error;
            return result;
        }
        sources[a].HaveHead = sources[a].Reader.Next(&sources[a].Head);
        total += adapters[a]->FrameCount;
    }

    auto start = std::chrono::steady_clock::now();
    auto lastLine = start;
    unsigned long long done = 0;
    for (;; done++) {
        size_t next = sources.size();
        for (size_t a = 0; a < sources.size(); a++)
            if (sources[a].HaveHead && (next == sources.size() || sources[a].Head.Time() < sources[next].Head.Time()))
                next = a;
        if (next == sources.size())
            break;
        ReplaySource &source = sources[next];
        ReplayAdapter &adapter = *adapters[next];
        const FrameView &frame = source.Head;
        if (frame.Length < EthernetHeader || frame.Length > LongestFrame) {
            adapter.Skipped++;
        } else {
            bool own = adapter.IsOwnFrame(frame.Bytes, frame.Length);
            NTSTATUS status = Indicate(adapter, frame, own, &result);
            if (!NT_SUCCESS(status)) {
                char text[96];
                std::snprintf(text, sizeof(text), "frame %zu of %s refused by the hook driver, status 0x%08X",
                              source.Index + 1, adapter.Name.c_str(), (unsigned)status);
                result.Error = text;
                result.Ok = false;
                break;
            }
            (own ? adapter.Sent : adapter.Received)++;
            result.Frames++;
        }
        source.Index++;
        source.HaveHead = source.Reader.Next(&source.Head);
        if (!source.HaveHead && !source.Reader.Error().empty()) {
            result.Error = "cannot read " + adapter.CapturePath + ": " + source.Reader.Error();
            result.Ok = false;
            break;
        }
        if (progress && (done & 1023) == 1023) {
            auto now = std::chrono::steady_clock::now();
            if (now - lastLine >= std::chrono::seconds(1)) {
                double seconds = std::chrono::duration<double>(now - start).count();
                std::fprintf(stderr, "replay: %llu of %llu frames, %.0f frames/s, %llu waits for packets\n", done + 1,
                             total, (double)(done + 1) / seconds, result.Waits);
                lastLine = now;
            }
        }
    }
    result.Seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return result;
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
