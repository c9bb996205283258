/* Helpers for tests of the filter-driver and packet-filter registries. */
#pragma once

#include "framework.h"
#include "ndisfilter-records.h"

#include <cstring>
#include <string>
#include <vector>

namespace nftest {

/* A counted string over a text that outlives it. */
inline STRING Counted(const char *text)
{
    STRING s;
    s.Buffer = (PCHAR)text;
    s.Length = (USHORT)std::strlen(text);
    s.MaximumLength = (USHORT)(s.Length + 1);
    return s;
}

inline FILTER_RESULT NTAPI BypassEverything(PFilterDriver, PVOID, PPacketFilter, PVOID, PFilterPacket)
{
    return FILTER_RESULT_BYPASS;
}

class Registries : public Framework {
protected:
    void SetUp() override { ASSERT_EQ(Load(), STATUS_SUCCESS); }

    PFilterDriver RegisterDriver(const char *name, PVOID context = nullptr)
    {
        STRING counted = Counted(name);
        PFilterDriver driver = nullptr;
        EXPECT_EQ(Filter_RegisterDriver(&counted, context, 1, 0, &driver), FILTER_STATUS_SUCCESS) << name;
        return driver;
    }

    PPacketFilter RegisterFilter(PFilterDriver driver, const char *name, FILTER_TYPE type, FILTER_ORDER order)
    {
        STRING counted = Counted(name);
        PPacketFilter filter = nullptr;
        EXPECT_EQ(Filter_RegisterFilter(driver, &counted, BypassEverything, nullptr, type, order, &filter),
                  FILTER_STATUS_SUCCESS)
            << name;
        return filter;
    }

    /* The names of a chain's filters, head first. */
    static std::vector<std::string> Chain(FILTER_TYPE type)
    {
        std::vector<std::string> names;
        PLIST_ENTRY head = &g_pGlobal->m_PacketFilterList[type];
        for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
            PPacketFilter filter = CONTAINING_RECORD(link, PacketFilter, m_ListEntry);
            names.emplace_back(filter->m_FilterName.Buffer, filter->m_FilterName.Length);
        }
        return names;
    }

    static std::vector<std::string> Drivers()
    {
        std::vector<std::string> names;
        PLIST_ENTRY head = &g_pGlobal->m_FilterDriverList;
        for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
            PFilterDriver driver = CONTAINING_RECORD(link, FilterDriver, m_ListEntry);
            names.emplace_back(driver->m_DriverName.Buffer, driver->m_DriverName.Length);
        }
        return names;
    }
};

} // namespace nftest
