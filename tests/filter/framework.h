/*
 * The framework driver loaded on the host runtime for one test: the service
 * key is filled first, DriverEntry runs, and the fixture unloads the driver
 * and checks that nothing was left behind (memory, threads, devices).
 */
#pragma once

#include "precomp.h"
#include "ndisfilter-global.h"

#include <hostkernel.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace nftest {

/* A pool tag from its four characters in memory order. */
constexpr ULONG PoolTag(const char (&text)[5])
{
    return (ULONG)(UCHAR)text[0] | (ULONG)(UCHAR)text[1] << 8 | (ULONG)(UCHAR)text[2] << 16 |
           (ULONG)(UCHAR)text[3] << 24;
}

inline const char *ServiceKey()
{
    return "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\NdisFilter";
}

/* Debug lines captured since the last call, oldest first. */
inline std::vector<std::string> TakeTrace()
{
    return hk::TakeCapturedDebugLines();
}

/* Index of the first line equal to `line`, or -1. */
inline int FindLine(const std::vector<std::string> &lines, const std::string &line)
{
    for (size_t i = 0; i < lines.size(); i++)
        if (lines[i] == line)
            return (int)i;
    return -1;
}

class Framework : public ::testing::Test {
protected:
    /* Loads the driver; GlobalDebugFlag is written to the service key unless `noDebugFlag`. */
    NTSTATUS Load(ULONG debugFlag = 0, bool writeDebugFlag = true)
    {
        HkRegistryReset();
        HkRegistryCreateKey(ServiceKey());
        if (writeDebugFlag)
            HkRegistrySetDword(ServiceKey(), "GlobalDebugFlag", debugFlag);
        HkDebugClearCapture();
        NTSTATUS status = HkLoadDriver(DriverEntry, "NdisFilter", &m_driver);
        m_loaded = NT_SUCCESS(status);
        return status;
    }

    void Unload()
    {
        if (m_loaded) {
            HkUnloadDriver(m_driver);
            m_loaded = false;
        }
    }

    void TearDown() override
    {
        Unload();
        HkRegistryReset();
    }

    PDRIVER_OBJECT m_driver = nullptr;
    bool m_loaded = false;
};

} // namespace nftest
