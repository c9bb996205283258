/*
 * ndisfilter-testkit.h - GoogleTest fixtures for client filter drivers on
 * the host kernel runtime.
 *
 * A test derives from nfkit::ClientDriverTest. SetUp loads the framework and
 * the simulated NDIS hook driver (bound); the test writes its driver's
 * service-key settings, loads the driver from its image, opens adapters,
 * feeds frames or captures, and reads what reached the wire, the protocols
 * and the application, the debug output and the events. TearDown unloads
 * everything and fails the test on any verifier finding (leaks by pool tag,
 * IRQL misuse, double frees) and on any packet the hook driver handed out
 * and did not get back.
 *
 *   class MyDriver : public nfkit::ClientDriverTest {};
 *   TEST_F(MyDriver, DropsTelnet) {
 *       SetDword("MyDriver", "Port", 23);
 *       ASSERT_EQ(LoadDriver(MY_DRIVER_IMAGE, "MyDriver"), STATUS_SUCCESS);
 *       PFilterAdapter adapter = OpenAdapter(1);
 *       Receive(adapter, frame);
 *       ASSERT_TRUE(WaitForQuiet());
 *       EXPECT_TRUE(ToProtocols(adapter).empty());
 *   }
 *
 * Link NdisFilter::testkit (and NdisFilter::test_main for a main that also
 * fails any test leaving findings behind outside this fixture).
 */
#ifndef NDISFILTER_TESTKIT_H
#define NDISFILTER_TESTKIT_H

#include <windows.h>
#include <ntddk.h>
#include <ndis.h>
#include <hostkernel.h>
#include <ndisfilter.h>
#include <ndishook.h>

#include <gtest/gtest.h>

#include "ndisfilter-testkit-captures.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace nfkit {

/* The registry path of a driver's service key. */
std::string ServiceKey(const std::string &service);

/* A frame of `length` bytes whose byte i is (i * 7 + seed) & 0xFF. */
Frame PatternFrame(ULONG length, UCHAR seed = 1);

/* Adapter `n` (1, 2, ...): MAC 00-11-22-33-44-0n, permanent 02-11-22-33-44-0n,
 * instance id "{0000000n-1111-2222-3333-444455556666}", MTU 1500, Ethernet. */
struct AdapterSpec {
    explicit AdapterSpec(int n, bool connected = true);
    AdapterSpec(const AdapterSpec &) = delete;
    AdapterSpec &operator=(const AdapterSpec &) = delete;

    std::string instanceId;
    std::string deviceName;
    NDIS_HOOK_ADAPTER_SETUP setup = {};
};

/* One record of the framework's event queue, as the user program reads it. */
struct Event {
    ULONG Value1 = 0;
    ULONG Value2 = 0;
    LONG Length = 0;          /* bytes of Data; -1 when a formatted text did not fit */
    std::vector<UCHAR> Data;  /* the text or binary data reported */
    /* The framework took the record but could not hand it to the user program: GET_EVENT
     * translates an adapter handle at data offset 4 into its identifier and fails the record
     * when those bytes are not one (text events hit this unless they start with a handle). */
    bool Unreadable = false;
    std::string Text() const { return std::string(Data.begin(), Data.end()); }
};

/* One block that reached the application through the output ring. */
struct ApplicationFrame {
    ULONG AdapterId = 0;
    ULONG Direction = 0;
    ULONG Code = 0;     /* the indicate code the client gave */
    ULONG64 Value = 0;  /* and its value */
    Frame Bytes;
};

class ApplicationSide;

class ClientDriverTest : public ::testing::Test {
protected:
    ClientDriverTest();
    ~ClientDriverTest() override;

    /* The framework (GlobalDebugFlag FrameworkDebugMask()), then the hook driver, bound. */
    void SetUp() override;
    /* Drains, unloads drivers under test, adapters, hook driver and framework, then fails the test
     * on verifier findings and on packets not back with the hook driver. */
    void TearDown() override;

    /* The framework's GlobalDebugFlag; override to see its traces in TakeDebugOutput. */
    virtual ULONG FrameworkDebugMask() { return 0; }

    /* Service-key settings of a driver, written before it loads. */
    void SetDword(const std::string &service, const std::string &name, ULONG value);
    void SetString(const std::string &service, const std::string &name, const std::string &value);
    void SetMultiString(const std::string &service, const std::string &name,
                        const std::vector<std::string> &values);

    /* Loads a client driver image under `service` (its key is created); it is unloaded at
     * TearDown, in reverse order of loading. A driver whose DriverEntry failed is discarded. */
    NTSTATUS LoadDriver(const std::string &image, const std::string &service);
    /* Unloads the drivers under test now (most recent first). */
    void UnloadDrivers();
    /* A function the loaded image `image` exports, or nullptr (failing the test). */
    void *DriverExport(const std::string &image, const std::string &name);
    template <typename Function>
    Function DriverFunction(const std::string &image, const std::string &name)
    {
        return reinterpret_cast<Function>(DriverExport(image, name));
    }

    /* Opens adapter `n` (see AdapterSpec); closed at TearDown. */
    PFilterAdapter OpenAdapter(int n, bool connected = true);
    const AdapterSpec &Spec(PFilterAdapter adapter) const;
    /* The framework's identifier of the adapter (the application's name for it). */
    ULONG AdapterId(PFilterAdapter adapter);

    /* A frame arriving from the wire / handed down by the protocols. */
    void Receive(PFilterAdapter adapter, const Frame &frame, const NDIS_HOOK_FRAME_LAYOUT *layout = nullptr);
    void Send(PFilterAdapter adapter, const Frame &frame, const NDIS_HOOK_FRAME_LAYOUT *layout = nullptr);
    /* Replays frames: those whose source MAC is `own` are sent, the others received. */
    void Replay(PFilterAdapter adapter, const std::vector<Frame> &frames, const UCHAR own[6]);
    /* Replays a pcap file the same way; returns its frames. */
    std::vector<Frame> ReplayCapture(PFilterAdapter adapter, const std::string &path, const UCHAR own[6]);

    /* Waits until no injected packet is queued, every packet is back with the hook driver and
     * the application's ring is read; FALSE (and a failure) after `patience`. */
    bool WaitForQuiet(std::chrono::milliseconds patience = std::chrono::seconds(10));

    /* Frames that left the hook driver on the adapter, taken out of its record, oldest first. */
    std::vector<Frame> ToWire(PFilterAdapter adapter);
    std::vector<Frame> ToProtocols(PFilterAdapter adapter);

    /* The application: maps the shared rings (call before traffic that indicates to it). */
    bool StartApplication();
    /* Frames the application received since the last call. */
    std::vector<ApplicationFrame> TakeApplicationFrames();
    /* Sends a frame from the application toward the protocols, the wire or itself. */
    bool SendFromApplication(PFilterAdapter adapter, ULONG direction, const Frame &frame);

    /* Debug output (DbgPrint and the framework's traces) since the last call, line by line. */
    std::vector<std::string> TakeDebugOutput();
    /* Events the drivers reported since the last call, oldest first, read the way the user
     * program reads them (IOCTL_NDIS_FILTER_GET_EVENT on the control device). */
    std::vector<Event> TakeEvents();
    /* The hook driver's packet accounting now. */
    NDIS_HOOK_STATISTICS HookStatistics();

private:
    struct LoadedDriver {
        std::string Image;
        PDRIVER_OBJECT Driver;
    };

    bool m_frameworkLoaded = false;
    PDRIVER_OBJECT m_framework = nullptr;
    PDRIVER_OBJECT m_hook = nullptr;
    std::vector<LoadedDriver> m_drivers;
    std::vector<std::unique_ptr<AdapterSpec>> m_specs;
    std::vector<PFilterAdapter> m_adapters;
    std::unique_ptr<ApplicationSide> m_application;
};

} // namespace nfkit

#endif /* NDISFILTER_TESTKIT_H */
