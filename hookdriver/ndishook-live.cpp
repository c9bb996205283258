// ndishook-live.cpp - live adapters: an adapter of the hook driver between a
// real interface (the wire) and a TAP device (the protocols).
//
// Frames come in on two threads of the adapter, each polling one device and
// the adapter's wake-up descriptor: the wire thread reads the packet socket
// (received frames) and the link messages, the stack thread reads the TAP
// device (sent frames). Both indicate through NdisHookReceiveFrame /
// NdisHookSendFrame, the hook driver's indication path, at PASSIVE_LEVEL.
// Deliveries reach the devices through the adapter's delivery sink, on
// whichever thread delivers.
//
// A device that goes away retires the adapter once: the sink is cleared
// (waiting for sink calls in progress), the hook driver's adapter closes
// (packets in flight for it are then freed by the hook driver), and both
// threads leave. Close() retires too, joins the threads and closes the
// descriptors last, so no sink call can see a descriptor closed or reused.
#include "include/ndishook-live.h"
#include "ndishook-live-device.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

namespace ndishook {

namespace {

constexpr size_t kEthernetHeader = 14;
// A frame read longer than a packet record's data is dropped: the read buffer is one byte longer,
// so a longer frame shows as one that filled it.
constexpr size_t kReadBuffer = FILTER_PACKET_DATA_SIZE + 1;
constexpr unsigned kLargestMtu = FILTER_PACKET_DATA_SIZE - kEthernetHeader;

} // namespace

struct LiveAdapter::State {
    LiveSetup Setup;
    std::string Name;
    std::string DeviceName;
    std::string InstanceId;
    std::string Description;
    live::InterfaceInfo Wire;
    live::InterfaceInfo Tap;
    USHORT Mtu = 0;
    PFilterAdapter Handle = nullptr;

    int WireFd = -1;
    int TapFd = -1;
    int LinkFd = -1;
    int WakeFd = -1;
    std::thread WireThread;
    std::thread StackThread;

    std::once_flag Retired;
    std::atomic<bool> Stopping{false};
    std::atomic<bool> Gone{false};
    mutable std::mutex ReasonLock;
    std::string GoneReason;
    bool LastRunning = true;

    std::atomic<uint64_t> FromWire{0}, FromStack{0}, ToWire{0}, ToStack{0}, Oversize{0}, WriteErrors{0},
        Refused{0}, LinkChanges{0}, Foreign{0};

    // Takes the adapter off the hook driver, once: the sink first, so that nothing is written to
    // the devices after this returns.
    void Retire(const std::string &reason)
    {
        std::call_once(Retired, [&] {
            if (!reason.empty()) {
                std::lock_guard<std::mutex> lock(ReasonLock);
                GoneReason = reason;
                Gone = true;
            }
            Stopping = true;
            live::Signal(WakeFd);
            if (Handle != nullptr) {
                NdisHookSetDeliverySink(Handle, nullptr, nullptr);
                NdisHookCloseAdapter(Handle);
            }
        });
    }

    // Indicates what one device holds now; false when the device failed.
    bool Drain(int fd, bool fromWire, UCHAR *buffer)
    {
        for (int burst = 0; burst < 64 && !Stopping; burst++) {
            ssize_t got = fromWire ? recv(fd, buffer, kReadBuffer, MSG_TRUNC) : read(fd, buffer, kReadBuffer);
            /* The interface going down (or away) reports ENETDOWN once; the link messages tell which. */
            if (got < 0)
                return errno == EAGAIN || errno == EINTR || (fromWire && errno == ENETDOWN);
            if (got == 0 && !fromWire)
                return false;
            if ((size_t)got >= kReadBuffer || (size_t)got < kEthernetHeader) {
                Oversize++;
                continue;
            }
            /* As the adapter's filter would: its own address, broadcast and multicast (group bit set). */
            if (fromWire && (buffer[0] & 1) == 0 && std::memcmp(buffer, Tap.Mac, 6) != 0) {
                Foreign++;
                continue;
            }
            NTSTATUS status = fromWire ? NdisHookReceiveFrame(Handle, buffer, (ULONG)got, nullptr)
                                       : NdisHookSendFrame(Handle, buffer, (ULONG)got, nullptr);
            if (!NT_SUCCESS(status))
                Refused++;
            else
                (fromWire ? FromWire : FromStack)++;
        }
        return true;
    }

    void FollowLink()
    {
        std::vector<live::LinkEvent> events;
        if (!live::ReadLinkEvents(LinkFd, &events)) {
            Retire("the link monitor failed");
            return;
        }
        for (const live::LinkEvent &event : events) {
            if (event.Index != Wire.Index && event.Index != Tap.Index)
                continue;
            const std::string &device = event.Index == Wire.Index ? Setup.Wire : Setup.Tap;
            if (event.Deleted) {
                Retire(device + " was deleted");
                return;
            }
            if (event.Index == Wire.Index && event.Running != LastRunning) {
                LastRunning = event.Running;
                if (NT_SUCCESS(NdisHookSetMediaConnected(Handle, event.Running ? TRUE : FALSE)))
                    LinkChanges++;
            }
        }
    }

    void RunWire()
    {
        std::vector<UCHAR> buffer(kReadBuffer);
        pollfd fds[3] = {{WakeFd, POLLIN, 0}, {WireFd, POLLIN, 0}, {LinkFd, POLLIN, 0}};
        while (!Stopping) {
            if (poll(fds, 3, -1) < 0) {
                if (errno == EINTR)
                    continue;
                Retire("poll failed on " + Setup.Wire);
                return;
            }
            if (fds[2].revents != 0)
                FollowLink();
            if (Stopping)
                return;
            if (fds[1].revents & (POLLERR | POLLHUP | POLLNVAL)) {
                int error = 0;
                socklen_t length = sizeof(error);
                getsockopt(WireFd, SOL_SOCKET, SO_ERROR, &error, &length);
                if (error == ENETDOWN && (fds[1].revents & POLLHUP) == 0)
                    continue;
                Retire(Setup.Wire + " went away (" + std::strerror(error != 0 ? error : ENODEV) + ")");
                return;
            }
            if ((fds[1].revents & POLLIN) && !Drain(WireFd, true, buffer.data())) {
                Retire(Setup.Wire + " failed (" + std::strerror(errno) + ")");
                return;
            }
        }
    }

    void RunStack()
    {
        std::vector<UCHAR> buffer(kReadBuffer);
        pollfd fds[2] = {{WakeFd, POLLIN, 0}, {TapFd, POLLIN, 0}};
        while (!Stopping) {
            if (poll(fds, 2, -1) < 0) {
                if (errno == EINTR)
                    continue;
                Retire("poll failed on " + Setup.Tap);
                return;
            }
            if (Stopping)
                return;
            if ((fds[1].revents & (POLLERR | POLLHUP | POLLNVAL)) ||
                ((fds[1].revents & POLLIN) && !Drain(TapFd, false, buffer.data()))) {
                Retire(Setup.Tap + " went away");
                return;
            }
        }
    }

    void CloseDescriptors()
    {
        for (int *fd : {&WireFd, &TapFd, &LinkFd, &WakeFd}) {
            if (*fd >= 0)
                close(*fd);
            *fd = -1;
        }
    }
};

namespace {

// Where the hook driver's deliveries go: to the protocols through the TAP device, to the wire
// through the packet socket. Never blocks: a full queue drops the frame, as a busy device would.
VOID LiveSink(PFilterAdapter, ULONG direction, const UCHAR *frame, ULONG length, PVOID context)
{
    auto *state = static_cast<LiveAdapter::State *>(context);
    bool toStack = direction == FILTER_DIRECTION_TO_PROTOCOL;
    ssize_t put = toStack ? write(state->TapFd, frame, length) : send(state->WireFd, frame, length, MSG_DONTWAIT);
    if (put == (ssize_t)length)
        (toStack ? state->ToStack : state->ToWire)++;
    else
        state->WriteErrors++;
}

// The adapter's IP configuration from the TAP device's addresses and default routes.
IPConfig MakeIpConfig(const live::Ipv4Config &found)
{
    IPConfig config = {};
    for (const live::Ipv4Config::Entry &entry : found.Addresses) {
        if (config.m_nIP == FILTER_MAX_IPCONFIG_ENTRIES)
            break;
        config.m_IP[config.m_nIP].IpAddress = entry.Address;
        config.m_IP[config.m_nIP].Netmask = entry.Netmask;
        config.m_IP[config.m_nIP].Broadcast = entry.Broadcast;
        config.m_nIP++;
    }
    for (uint32_t gateway : found.Gateways) {
        if (config.m_nGW == FILTER_MAX_IPCONFIG_ENTRIES)
            break;
        config.RouterAddr[config.m_nGW++] = gateway;
    }
    return config;
}

// Opens the devices inside the namespace; the descriptors keep working after the thread leaves it.
bool OpenDevices(LiveAdapter::State *state, IPConfig *config, std::string *error)
{
    live::NetnsScope scope(state->Setup.Netns);
    if (!scope.Ok(error))
        return false;
    state->TapFd = live::OpenTap(state->Setup.Tap, error);
    if (state->TapFd < 0 || !live::QueryInterface(state->Setup.Wire, &state->Wire, error) ||
        !live::QueryInterface(state->Setup.Tap, &state->Tap, error))
        return false;
    unsigned mtu = state->Wire.Mtu < kLargestMtu ? state->Wire.Mtu : kLargestMtu;
    if (state->Tap.Mtu != mtu && !live::SetMtu(state->Setup.Tap, mtu, error))
        return false;
    state->Mtu = (USHORT)mtu;
    state->WireFd = live::OpenWire(state->Wire.Index, error);
    if (state->WireFd < 0)
        return false;
    state->LinkFd = live::OpenLinkMonitor(error);
    if (state->LinkFd < 0)
        return false;
    // Read once more after the monitor listens, so no change falls between the two.
    if (!live::QueryInterface(state->Setup.Wire, &state->Wire, error))
        return false;
    *config = MakeIpConfig(live::ReadIpv4Config(state->Setup.Tap));
    return true;
}

} // namespace

std::unique_ptr<LiveAdapter> LiveAdapter::Open(const LiveSetup &setup, std::string *error)
{
    auto state = std::make_unique<State>();
    state->Setup = setup;
    state->Name = setup.Wire + ":" + setup.Tap;
    state->WakeFd = live::OpenWakeup(error);
    IPConfig config = {};
    if (state->WakeFd < 0 || !OpenDevices(state.get(), &config, error)) {
        *error = state->Name + ": " + *error;
        state->CloseDescriptors();
        return nullptr;
    }
    const UCHAR *mac = state->Tap.Mac;
    char id[64];
    std::snprintf(id, sizeof(id), "{4E464C49-5645-0000-0000-%02X%02X%02X%02X%02X%02X}", mac[0], mac[1], mac[2], mac[3],
                  mac[4], mac[5]);
    state->InstanceId = setup.InstanceId.empty() ? id : setup.InstanceId;
    state->DeviceName = "\\DEVICE\\" + state->InstanceId;
    state->Description = " - live " + state->Name;

    NDIS_HOOK_ADAPTER_SETUP hook = {};
    hook.DeviceName = state->DeviceName.c_str();
    hook.InstanceId = state->InstanceId.c_str();
    hook.Description = state->Description.c_str();
    std::memcpy(hook.CurrentAddress, mac, 6);
    std::memcpy(hook.PermanentAddress, mac, 6);
    hook.Mtu = state->Mtu;
    hook.Medium = NdisMedium802_3;
    hook.Disconnected = state->Wire.Running ? FALSE : TRUE;
    hook.IpConfig = &config;
    state->LastRunning = state->Wire.Running;
    state->Handle = NdisHookOpenAdapter(&hook);
    if (state->Handle == nullptr) {
        *error = state->Name + ": the hook driver did not open the adapter (not loaded, or " + state->DeviceName +
                 " open already)";
        state->CloseDescriptors();
        return nullptr;
    }
    if (!NT_SUCCESS(NdisHookSetDeliverySink(state->Handle, LiveSink, state.get()))) {
        *error = state->Name + ": the hook driver took no delivery sink";
        NdisHookCloseAdapter(state->Handle);
        state->CloseDescriptors();
        return nullptr;
    }
    State *raw = state.get();
    state->WireThread = std::thread([raw] { raw->RunWire(); });
    state->StackThread = std::thread([raw] { raw->RunStack(); });
    return std::unique_ptr<LiveAdapter>(new LiveAdapter(std::move(state)));
}

LiveAdapter::LiveAdapter(std::unique_ptr<State> state) : m_State(std::move(state)) {}

LiveAdapter::~LiveAdapter()
{
    Close();
}

void LiveAdapter::StopReading()
{
    State &state = *m_State;
    state.Stopping = true;
    if (state.WakeFd >= 0)
        live::Signal(state.WakeFd);
    if (state.WireThread.joinable())
        state.WireThread.join();
    if (state.StackThread.joinable())
        state.StackThread.join();
}

void LiveAdapter::Close()
{
    m_State->Retire("");
    StopReading();
    m_State->CloseDescriptors();
}

PFilterAdapter LiveAdapter::Handle() const
{
    return m_State->Handle;
}

const UCHAR *LiveAdapter::Mac() const
{
    return m_State->Tap.Mac;
}

USHORT LiveAdapter::Mtu() const
{
    return m_State->Mtu;
}

const std::string &LiveAdapter::Name() const
{
    return m_State->Name;
}

bool LiveAdapter::Gone() const
{
    return m_State->Gone;
}

std::string LiveAdapter::GoneReason() const
{
    std::lock_guard<std::mutex> lock(m_State->ReasonLock);
    return m_State->GoneReason;
}

LiveCounters LiveAdapter::Counters() const
{
    const State &s = *m_State;
    LiveCounters c;
    c.FromWire = s.FromWire;
    c.FromStack = s.FromStack;
    c.ToWire = s.ToWire;
    c.ToStack = s.ToStack;
    c.Oversize = s.Oversize;
    c.WriteErrors = s.WriteErrors;
    c.Refused = s.Refused;
    c.LinkChanges = s.LinkChanges;
    c.Foreign = s.Foreign;
    return c;
}

} // namespace ndishook
