/*
 * The framework and the hook driver loaded with one adapter, for the tests
 * of the application library and the example clients: clients are loaded
 * from their images with their service keys filled, the real traffic of
 * host A is replayed, and tshark's values for it say what to expect.
 */
#pragma once

#include "data_files.h"
#include "hook_fixture.h"

#include <ndisfilter-app.h>

#include <dlfcn.h>

#include <map>
#include <string>
#include <vector>

namespace apptest {

/* Host A's MAC in the traffic capture: its frames are sent, the others received. */
const UCHAR HostA[6] = {0x02, 0x00, 0x00, 0x00, 0x0a, 0x01};

inline std::string ClientKey(const char *service)
{
    return std::string("\\Registry\\Machine\\System\\CurrentControlSet\\Services\\") + service;
}

inline bool SentByHostA(const nftest::Frame &frame)
{
    return frame.size() >= 14 && memcmp(frame.data() + 6, HostA, 6) == 0;
}

/* The traffic capture and tshark's row for each of its frames. */
struct Traffic {
    std::vector<nftest::Frame> Frames = nftest::ReadPcap(nftest::DataPath("traffic/host-a.pcap"));
    std::vector<std::map<std::string, std::string>> Rows = nftest::ReadCsv(nftest::DataPath("traffic/expected.csv"));

    std::string Field(size_t i, const char *column) const { return Rows.at(i).at(column); }
    long Number(size_t i, const char *column) const { return nftest::FieldNumber(Rows.at(i), column); }
    bool FromHostA(size_t i) const { return Field(i, "eth.src") == "02:00:00:00:0a:01"; }
};

class AppTest : public hooktest::HookTest {
protected:
    void SetUp() override
    {
        LoadBoth(true);
        m_adapter = OpenAdapter(1);
        ASSERT_EQ(Filter_AdapterToId(m_adapter, &m_adapterId), FILTER_STATUS_SUCCESS);
    }

    void TearDown() override
    {
        for (auto it = m_clients.rbegin(); it != m_clients.rend(); ++it)
            HkUnloadDriver(*it);
        m_clients.clear();
        hooktest::HookTest::TearDown();
    }

    /* Loads a client image under `service`; the driver is unloaded at the end of the test. */
    NTSTATUS LoadClient(const char *image, const char *service)
    {
        HkRegistryCreateKey(ClientKey(service).c_str());
        PDRIVER_OBJECT driver = nullptr;
        NTSTATUS status = HkLoadDriverImage(image, service, &driver);
        if (NT_SUCCESS(status))
            m_clients.push_back(driver);
        else if (driver != nullptr)
            HkDiscardDriver(driver);
        return status;
    }

    /* The exported function `name` of a loaded client image. */
    template <typename Function>
    Function ClientExport(const char *image, const char *name)
    {
        void *handle = dlopen(image, RTLD_NOW | RTLD_NOLOAD);
        EXPECT_NE(handle, nullptr) << image << " is not loaded";
        if (handle == nullptr)
            return nullptr;
        void *address = dlsym(handle, name);
        dlclose(handle);
        EXPECT_NE(address, nullptr) << name;
        return (Function)address;
    }

    /* Replays the capture on the adapter: host A's frames sent, the others received. */
    void Replay(const std::vector<nftest::Frame> &frames)
    {
        for (const nftest::Frame &frame : frames) {
            NTSTATUS status = SentByHostA(frame)
                                  ? NdisHookSendFrame(m_adapter, frame.data(), (ULONG)frame.size(), nullptr)
                                  : NdisHookReceiveFrame(m_adapter, frame.data(), (ULONG)frame.size(), nullptr);
            ASSERT_EQ(status, STATUS_SUCCESS);
        }
    }

    /* Waits until no injected packet is queued and every packet is back with the hook driver. */
    void WaitForQuiet()
    {
        EXPECT_TRUE(hktest::WaitUntil(
            [] { return Filter_GetInjectPacketCount() == 0 && NdisHookPacketsOutstanding() == 0; }));
    }

    std::vector<std::vector<UCHAR>> Delivered(ULONG direction) { return ndishook::DeliveredFrames(m_adapter, direction); }

    PFilterAdapter m_adapter = nullptr;
    ULONG m_adapterId = 0;
    std::vector<PDRIVER_OBJECT> m_clients;
};

} // namespace apptest
