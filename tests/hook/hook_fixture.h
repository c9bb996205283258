/*
 * The framework and the simulated hook driver loaded together for one test:
 * the framework first (its service key filled as its own tests do), then the
 * hook driver; the hook driver is unloaded first at the end.
 */
#pragma once

#include "framework.h"
#include "hk_test_support.h"

#include <ndishook.h>
#include <ndisfilter-testkit.h>

#include <string>
#include <vector>

namespace hooktest {

/* A frame of `length` bytes whose byte i is (i * 7 + seed) & 0xFF. */
inline std::vector<UCHAR> Frame(ULONG length, UCHAR seed = 1)
{
    return nfkit::PatternFrame(length, seed);
}

/* Adapter `n` (1, 2, ...), as the client drivers' test kit opens it. */
using nfkit::AdapterSpec;

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
