/* The client drivers' test fixture (see ndisfilter-testkit.h). */
#include "ndisfilter-testkit.h"

#include <ndisfilter-app.h>

#include <dlfcn.h>

#include <cstring>
#include <mutex>
#include <thread>

/* The framework's entry point, from its host library. */
EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace nfkit {

namespace {

const char FrameworkService[] = "NdisFilter";

/* The event record the user program reads: two values, the length, then the data. */
const ULONG EventRecordSize = 12 + FILTER_EVENT_TEXT_SIZE;

std::string StatusText(NTSTATUS status)
{
    char text[16];
    snprintf(text, sizeof(text), "0x%08X", (unsigned)status);
    return text;
}

} // namespace

std::string ServiceKey(const std::string &service)
{
    return "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + service;
}

Frame PatternFrame(ULONG length, UCHAR seed)
{
    Frame frame(length);
    for (ULONG i = 0; i < length; i++)
        frame[i] = (UCHAR)(i * 7 + seed);
    return frame;
}

AdapterSpec::AdapterSpec(int n, bool connected)
{
    instanceId = "{0000000" + std::to_string(n) + "-1111-2222-3333-444455556666}";
    deviceName = "\\DEVICE\\" + instanceId;
    setup.DeviceName = deviceName.c_str();
    setup.InstanceId = instanceId.c_str();
    setup.Description = " - Simulated Ethernet";
    const UCHAR current[6] = {0x00, 0x11, 0x22, 0x33, 0x44, (UCHAR)n};
    const UCHAR permanent[6] = {0x02, 0x11, 0x22, 0x33, 0x44, (UCHAR)n};
    for (int i = 0; i < 6; i++) {
        setup.CurrentAddress[i] = current[i];
        setup.PermanentAddress[i] = permanent[i];
    }
    setup.Mtu = 1500;
    setup.Medium = NdisMedium802_3;
    setup.Disconnected = connected ? FALSE : TRUE;
}

/* The user program's side: the shared rings, with a receiver thread keeping what arrives. */
class ApplicationSide {
public:
    bool Start()
    {
        if (!m_channel.Open() || !m_channel.Start()) {
            ADD_FAILURE() << "the application cannot take the share: " << m_channel.ControlError().Describe();
            m_channel.Close();
            return false;
        }
        m_receiver = std::thread([this] {
            m_channel.RunReceiver([this](const nfapp::ReceivedBlock &block) {
                ApplicationFrame frame;
                frame.AdapterId = block.AdapterId;
                frame.Direction = block.Direction;
                frame.Code = block.IndicateCode;
                frame.Value = block.IndicateValue;
                frame.Bytes.assign(block.Frame, block.Frame + block.Length);
                std::lock_guard<std::mutex> guard(m_lock);
                m_frames.push_back(std::move(frame));
            });
        });
        return true;
    }

    ~ApplicationSide()
    {
        m_channel.RequestStop();
        if (m_receiver.joinable())
            m_receiver.join();
        m_channel.Close();
    }

    bool Idle() const { return m_channel.InputInFlight() == 0 && m_channel.OutputWaiting() == 0; }

    std::vector<ApplicationFrame> Take()
    {
        std::lock_guard<std::mutex> guard(m_lock);
        std::vector<ApplicationFrame> frames;
        frames.swap(m_frames);
        return frames;
    }

    bool Send(ULONG adapterId, ULONG direction, const Frame &frame)
    {
        nfapp::SendResult result = m_channel.Send(adapterId, direction, frame.data(), (ULONG)frame.size());
        EXPECT_EQ(result, nfapp::SendResult::Sent) << nfapp::SendResultName(result);
        return result == nfapp::SendResult::Sent;
    }

private:
    nfapp::SharedChannel m_channel;
    std::thread m_receiver;
    std::mutex m_lock;
    std::vector<ApplicationFrame> m_frames;
};

ClientDriverTest::ClientDriverTest() = default;
ClientDriverTest::~ClientDriverTest() = default;

void ClientDriverTest::SetUp()
{
    HkRegistryReset();
    std::string key = ServiceKey(FrameworkService);
    HkRegistryCreateKey(key.c_str());
    HkRegistrySetDword(key.c_str(), "GlobalDebugFlag", FrameworkDebugMask());
    HkDebugClearCapture();
    NTSTATUS status = HkLoadDriver(DriverEntry, FrameworkService, &m_framework);
    if (!NT_SUCCESS(status)) {
        if (m_framework != nullptr)
            HkDiscardDriver(m_framework);
        m_framework = nullptr;
        FAIL() << "the framework did not load: " << StatusText(status);
    }
    m_frameworkLoaded = true;
    status = NdisHookLoad(TRUE, &m_hook);
    if (!NT_SUCCESS(status)) {
        m_hook = nullptr;
        FAIL() << "the hook driver did not load: " << StatusText(status);
    }
    ASSERT_TRUE(NdisHookIsBound()) << "the hook driver did not bind with the framework";
}

void ClientDriverTest::TearDown()
{
    if (m_frameworkLoaded && m_hook != nullptr) {
        WaitForQuiet();
        NDIS_HOOK_STATISTICS stats = HookStatistics();
        EXPECT_EQ(stats.PacketsOutstanding, 0) << "packets not back with the hook driver";
        EXPECT_EQ((ULONG64)stats.PacketsHandedOut, (ULONG64)stats.PacketsFreed + stats.PacketsInjected)
            << "packet accounting: handed out " << stats.PacketsHandedOut << ", freed " << stats.PacketsFreed
            << ", injected " << stats.PacketsInjected;
    }
    m_application.reset();
    UnloadDrivers();
    if (m_hook != nullptr) {
        for (PFilterAdapter adapter : m_adapters)
            NdisHookCloseAdapter(adapter);
        NdisHookUnload(m_hook);
        m_hook = nullptr;
    }
    m_adapters.clear();
    m_specs.clear();
    if (m_frameworkLoaded) {
        HkUnloadDriver(m_framework);
        m_frameworkLoaded = false;
        m_framework = nullptr;
    }
    HkRegistryReset();
    for (const std::string &finding : hk::TakeVerifierFindings())
        ADD_FAILURE() << "verifier finding: " << finding;
}

void ClientDriverTest::SetDword(const std::string &service, const std::string &name, ULONG value)
{
    std::string key = ServiceKey(service);
    HkRegistryCreateKey(key.c_str());
    ASSERT_EQ(HkRegistrySetDword(key.c_str(), name.c_str(), value), STATUS_SUCCESS);
}

void ClientDriverTest::SetString(const std::string &service, const std::string &name, const std::string &value)
{
    std::string key = ServiceKey(service);
    HkRegistryCreateKey(key.c_str());
    ASSERT_EQ(HkRegistrySetString(key.c_str(), name.c_str(), value.c_str()), STATUS_SUCCESS);
}

void ClientDriverTest::SetMultiString(const std::string &service, const std::string &name,
                                      const std::vector<std::string> &values)
{
    /* REG_MULTI_SZ: each string with its terminator, then an empty one. */
    std::string joined;
    for (const std::string &value : values)
        joined += value + '\0';
    std::string key = ServiceKey(service);
    HkRegistryCreateKey(key.c_str());
    std::vector<WCHAR> wide(joined.begin(), joined.end());
    wide.push_back(0);
    ASSERT_EQ(HkRegistrySetValue(key.c_str(), name.c_str(), REG_MULTI_SZ, wide.data(),
                                 (ULONG)(wide.size() * sizeof(WCHAR))),
              STATUS_SUCCESS);
}

NTSTATUS ClientDriverTest::LoadDriver(const std::string &image, const std::string &service)
{
    HkRegistryCreateKey(ServiceKey(service).c_str());
    PDRIVER_OBJECT driver = nullptr;
    NTSTATUS status = HkLoadDriverImage(image.c_str(), service.c_str(), &driver);
    if (NT_SUCCESS(status))
        m_drivers.push_back({image, driver});
    else if (driver != nullptr)
        HkDiscardDriver(driver);
    return status;
}

void ClientDriverTest::UnloadDrivers()
{
    while (!m_drivers.empty()) {
        HkUnloadDriver(m_drivers.back().Driver);
        m_drivers.pop_back();
    }
}

void *ClientDriverTest::DriverExport(const std::string &image, const std::string &name)
{
    void *handle = dlopen(image.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr) {
        ADD_FAILURE() << image << " is not loaded";
        return nullptr;
    }
    void *address = dlsym(handle, name.c_str());
    dlclose(handle);
    EXPECT_NE(address, nullptr) << image << " exports no " << name;
    return address;
}

PFilterAdapter ClientDriverTest::OpenAdapter(int n, bool connected)
{
    m_specs.emplace_back(new AdapterSpec(n, connected));
    PFilterAdapter adapter = NdisHookOpenAdapter(&m_specs.back()->setup);
    EXPECT_NE(adapter, nullptr) << "adapter " << n << " did not open";
    if (adapter != nullptr)
        m_adapters.push_back(adapter);
    return adapter;
}

const AdapterSpec &ClientDriverTest::Spec(PFilterAdapter adapter) const
{
    for (size_t i = 0; i < m_adapters.size(); i++)
        if (m_adapters[i] == adapter)
            return *m_specs[i];
    static const AdapterSpec none(0);
    ADD_FAILURE() << "not an adapter this test opened";
    return none;
}

ULONG ClientDriverTest::AdapterId(PFilterAdapter adapter)
{
    ULONG id = 0;
    EXPECT_EQ(Filter_AdapterToId(adapter, &id), FILTER_STATUS_SUCCESS);
    return id;
}

void ClientDriverTest::Receive(PFilterAdapter adapter, const Frame &frame, const NDIS_HOOK_FRAME_LAYOUT *layout)
{
    EXPECT_EQ(NdisHookReceiveFrame(adapter, frame.data(), (ULONG)frame.size(), layout), STATUS_SUCCESS);
}

void ClientDriverTest::Send(PFilterAdapter adapter, const Frame &frame, const NDIS_HOOK_FRAME_LAYOUT *layout)
{
    EXPECT_EQ(NdisHookSendFrame(adapter, frame.data(), (ULONG)frame.size(), layout), STATUS_SUCCESS);
}

void ClientDriverTest::Replay(PFilterAdapter adapter, const std::vector<Frame> &frames, const UCHAR own[6])
{
    for (const Frame &frame : frames) {
        if (frame.size() >= 12 && memcmp(frame.data() + 6, own, 6) == 0)
            Send(adapter, frame);
        else
            Receive(adapter, frame);
    }
}

std::vector<Frame> ClientDriverTest::ReplayCapture(PFilterAdapter adapter, const std::string &path, const UCHAR own[6])
{
    std::vector<Frame> frames = ReadPcap(path);
    Replay(adapter, frames, own);
    return frames;
}

bool ClientDriverTest::WaitForQuiet(std::chrono::milliseconds patience)
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    int quietLooks = 0;
    /* Two quiet looks in a row: a worker may be between its queue and the hook driver. */
    while (quietLooks < 2) {
        bool quiet = Filter_GetInjectPacketCount() == 0 && NdisHookPacketsOutstanding() == 0 &&
                     (m_application == nullptr || m_application->Idle());
        quietLooks = quiet ? quietLooks + 1 : 0;
        if (quietLooks < 2 && std::chrono::steady_clock::now() >= deadline) {
            ADD_FAILURE() << "not quiet: " << Filter_GetInjectPacketCount() << " injected packets queued, "
                          << NdisHookPacketsOutstanding() << " packets out of the hook driver";
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(quietLooks == 0 ? 1 : 5));
    }
    return true;
}

std::vector<Frame> ClientDriverTest::ToWire(PFilterAdapter adapter)
{
    return ndishook::TakeDeliveredFrames(adapter, FILTER_DIRECTION_TO_ADAPTER);
}

std::vector<Frame> ClientDriverTest::ToProtocols(PFilterAdapter adapter)
{
    return ndishook::TakeDeliveredFrames(adapter, FILTER_DIRECTION_TO_PROTOCOL);
}

bool ClientDriverTest::StartApplication()
{
    if (m_application != nullptr)
        return true;
    std::unique_ptr<ApplicationSide> application(new ApplicationSide);
    if (!application->Start())
        return false;
    m_application = std::move(application);
    return true;
}

std::vector<ApplicationFrame> ClientDriverTest::TakeApplicationFrames()
{
    if (m_application == nullptr) {
        ADD_FAILURE() << "StartApplication first";
        return {};
    }
    return m_application->Take();
}

bool ClientDriverTest::SendFromApplication(PFilterAdapter adapter, ULONG direction, const Frame &frame)
{
    if (!StartApplication())
        return false;
    return m_application->Send(AdapterId(adapter), direction, frame);
}

std::vector<std::string> ClientDriverTest::TakeDebugOutput()
{
    return hk::TakeCapturedDebugLines();
}

std::vector<Event> ClientDriverTest::TakeEvents()
{
    std::vector<Event> events;
    HANDLE device = CreateFileA("\\\\.\\NdisFilter", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0,
                                nullptr);
    if (device == INVALID_HANDLE_VALUE) {
        ADD_FAILURE() << "cannot open the control device";
        return events;
    }
    std::vector<UCHAR> record(EventRecordSize);
    /* Each answered request takes one record off the queue, which holds at most FILTER_MAX_EVENT_RECORDS. */
    for (ULONG taken = 0; taken <= FILTER_MAX_EVENT_RECORDS; taken++) {
        DWORD returned = 0;
        if (!DeviceIoControl(device, IOCTL_NDIS_FILTER_GET_EVENT, nullptr, 0, record.data(), EventRecordSize,
                             &returned, nullptr)) {
            DWORD error = GetLastError();
            /* The record was taken, but the framework could not hand it out: no adapter handle at
             * the start of its data, or no memory for the rewrite. */
            if (error == ERROR_INTERNAL_ERROR || error == ERROR_NO_SYSTEM_RESOURCES) {
                Event event;
                event.Unreadable = true;
                events.push_back(std::move(event));
                continue;
            }
            ADD_FAILURE() << "GET_EVENT failed, error " << error;
            break;
        }
        if (returned < EventRecordSize)
            break;
        Event event;
        memcpy(&event.Value1, &record[0], 4);
        memcpy(&event.Value2, &record[4], 4);
        memcpy(&event.Length, &record[8], 4);
        ULONG bytes = event.Length < 0 || event.Length > (LONG)FILTER_EVENT_TEXT_SIZE ? FILTER_EVENT_TEXT_SIZE
                                                                                        : (ULONG)event.Length;
        event.Data.assign(record.begin() + 12, record.begin() + 12 + bytes);
        events.push_back(std::move(event));
    }
    CloseHandle(device);
    return events;
}

NDIS_HOOK_STATISTICS ClientDriverTest::HookStatistics()
{
    NDIS_HOOK_STATISTICS stats = {};
    NdisHookGetStatistics(&stats);
    return stats;
}

} // namespace nfkit
