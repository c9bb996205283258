/*
 * The framework and the simulated hook driver loaded together for one test:
 * the framework first (its service key filled as its own tests do), then the
 * hook driver; the hook driver is unloaded first at the end.
 */
#pragma once

#include "framework.h"
#include "hk_test_support.h"

#include <ndishook.h>

#include <string>
#include <vector>

namespace hooktest {

/* A frame of `length` bytes whose byte i is (i * 7 + seed) & 0xFF. */
inline std::vector<UCHAR> Frame(ULONG length, UCHAR seed = 1)
{
    std::vector<UCHAR> frame(length);
    for (ULONG i = 0; i < length; i++)
        frame[i] = (UCHAR)(i * 7 + seed);
    return frame;
}

/* Adapter `n` (1, 2, ...): MAC 00-11-22-33-44-0n, instance id "{0000000n-...}". */
struct AdapterSpec {
    explicit AdapterSpec(int n, bool connected = true)
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
    AdapterSpec(const AdapterSpec &) = delete;
    AdapterSpec &operator=(const AdapterSpec &) = delete;

    std::string instanceId;
    std::string deviceName;
    NDIS_HOOK_ADAPTER_SETUP setup = {};
};

class HookTest : public nftest::Framework {
protected:
    /* The framework (debug mask `debugFlag`), then the hook driver. */
    void LoadBoth(bool bindAtLoad = true, ULONG debugFlag = 0)
    {
        ASSERT_EQ(Load(debugFlag), STATUS_SUCCESS);
        LoadHook(bindAtLoad);
    }

    void LoadHook(bool bindAtLoad = true)
    {
        ASSERT_EQ(NdisHookLoad(bindAtLoad ? TRUE : FALSE, &m_hook), STATUS_SUCCESS);
        m_hookLoaded = true;
    }

    void UnloadHook()
    {
        if (m_hookLoaded) {
            NdisHookUnload(m_hook);
            m_hookLoaded = false;
        }
    }

    /* Opens adapter `n` (its setup lives as long as the test). */
    PFilterAdapter OpenAdapter(int n, bool connected = true)
    {
        m_specs.emplace_back(new AdapterSpec(n, connected));
        PFilterAdapter adapter = NdisHookOpenAdapter(&m_specs.back()->setup);
        EXPECT_NE(adapter, nullptr);
        return adapter;
    }

    /* The hook functions as the framework holds them. */
    const NdisHookAPI &FrameworkApi() { return g_pGlobal->m_NdisHookAPI; }

    void TearDown() override
    {
        UnloadHook();
        nftest::Framework::TearDown();
        for (AdapterSpec *spec : m_specs)
            delete spec;
        m_specs.clear();
    }

    PDRIVER_OBJECT m_hook = nullptr;
    bool m_hookLoaded = false;
    std::vector<AdapterSpec *> m_specs;
};

} // namespace hooktest
