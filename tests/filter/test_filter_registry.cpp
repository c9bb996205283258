/* Placing, querying, enumerating, dumping and removing packet filters. */
#include "registry.h"

#include <cstdio>

using nftest::Counted;

namespace {

class FilterRegistry : public nftest::Registries {
protected:
    void SetUp() override
    {
        Registries::SetUp();
        m_driver = RegisterDriver("owner", &m_driverContext);
    }
    void TearDown() override
    {
        if (m_driver != nullptr)
            Filter_DeregisterDriver(m_driver);
        Registries::TearDown();
    }
    int m_driverContext = 0;
    PFilterDriver m_driver = nullptr;
};

BOOLEAN NTAPI CollectFilter(PVOID context, PPacketFilter filter)
{
    static_cast<std::vector<PPacketFilter> *>(context)->push_back(filter);
    return FALSE; /* the result is ignored */
}

} // namespace

TEST_F(FilterRegistry, FirstFiltersStackInFrontAndLastFiltersStackBehind)
{
    RegisterFilter(m_driver, "A", FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_FIRST);
    RegisterFilter(m_driver, "B", FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_FIRST);
    RegisterFilter(m_driver, "C", FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_LAST);
    RegisterFilter(m_driver, "D", FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_LAST);
    EXPECT_EQ(Chain(FILTER_TYPE_INCOMING_PACKET), (std::vector<std::string>{"B", "A", "D", "C"}));
}

TEST_F(FilterRegistry, FixedPositionsSortAscendingWithTheNewestFirstAndNextBeforeLast)
{
    RegisterFilter(m_driver, "last", FILTER_TYPE_OUTGOING_PACKET, FILTER_ORDER_LAST);
    RegisterFilter(m_driver, "5", FILTER_TYPE_OUTGOING_PACKET, 5);
    RegisterFilter(m_driver, "3a", FILTER_TYPE_OUTGOING_PACKET, 3);
    RegisterFilter(m_driver, "next", FILTER_TYPE_OUTGOING_PACKET, FILTER_ORDER_NEXT);
    RegisterFilter(m_driver, "3b", FILTER_TYPE_OUTGOING_PACKET, 3);
    RegisterFilter(m_driver, "first", FILTER_TYPE_OUTGOING_PACKET, FILTER_ORDER_FIRST);
    RegisterFilter(m_driver, "next2", FILTER_TYPE_OUTGOING_PACKET, FILTER_ORDER_NEXT);
    EXPECT_EQ(Chain(FILTER_TYPE_OUTGOING_PACKET),
              (std::vector<std::string>{"first", "3b", "3a", "5", "next2", "next", "last"}));
}

TEST_F(FilterRegistry, NamesAreUniquePerChainOnly)
{
    PPacketFilter incoming = RegisterFilter(m_driver, "same", FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_FIRST);
    PPacketFilter outgoing = RegisterFilter(m_driver, "same", FILTER_TYPE_OUTGOING_PACKET, FILTER_ORDER_FIRST);
    EXPECT_NE(incoming, outgoing);

    STRING name = Counted("same");
    PPacketFilter duplicate = nullptr;
    EXPECT_EQ(Filter_RegisterFilter(m_driver, &name, nftest::BypassEverything, nullptr, FILTER_TYPE_INCOMING_PACKET,
                                    FILTER_ORDER_LAST, &duplicate),
              FILTER_ERROR_FILTER_ALREADY_REGISTERED);
    EXPECT_EQ(duplicate, nullptr);
    EXPECT_EQ(Chain(FILTER_TYPE_INCOMING_PACKET).size(), 1u);
}

TEST_F(FilterRegistry, RegistrationChecksArgumentsDriverAndTypeInThatOrder)
{
    STRING name = Counted("f");
    PPacketFilter filter = nullptr;
    EXPECT_EQ(Filter_RegisterFilter(m_driver, &name, nullptr, nullptr, 9, 0, &filter), FILTER_ERROR_INVALID_ARGUMENT);
    ULONG bogus[8] = {0};
    EXPECT_EQ(Filter_RegisterFilter((PFilterDriver)bogus, &name, nftest::BypassEverything, nullptr, 9, 0, &filter),
              FILTER_ERROR_INVALID_DRIVER_HANDLE);
    EXPECT_EQ(Filter_RegisterFilter(m_driver, &name, nftest::BypassEverything, nullptr, 4, 0, &filter),
              FILTER_ERROR_INVALID_FILTER_TYPE);
    EXPECT_EQ(Filter_RegisterFilter(m_driver, &name, nftest::BypassEverything, nullptr, -1, 0, &filter),
              FILTER_ERROR_INVALID_FILTER_TYPE);
    EXPECT_EQ(filter, nullptr);
}

TEST_F(FilterRegistry, GettersAnswerWhatWasRegistered)
{
    int filterContext = 0;
    STRING name = Counted("getter");
    PPacketFilter filter = nullptr;
    ASSERT_EQ(Filter_RegisterFilter(m_driver, &name, nftest::BypassEverything, &filterContext,
                                    FILTER_TYPE_INJECT_TO_ADAPTER, 42, &filter),
              FILTER_STATUS_SUCCESS);
    EXPECT_EQ(filter->m_pDriverContext, &m_driverContext);

    PVOID context = nullptr;
    FILTER_TYPE type = -1;
    FILTER_ORDER order = 0;
    PSTRING copy = nullptr;
    EXPECT_EQ(Filter_GetFilterContext(filter, &context), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(context, &filterContext);
    EXPECT_EQ(Filter_GetFilterType(filter, &type), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(type, FILTER_TYPE_INJECT_TO_ADAPTER);
    EXPECT_EQ(Filter_GetFilterOrder(filter, &order), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(order, 42);
    ASSERT_EQ(Filter_GetFilterName(filter, &copy), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(std::string(copy->Buffer, copy->Length), "getter");
    Filter_FreeMemory(copy);

    EXPECT_EQ(Filter_GetFilterType(filter, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    ULONG bogus[16] = {0};
    EXPECT_EQ(Filter_GetFilterType((PPacketFilter)bogus, &type), FILTER_ERROR_INVALID_PACKET_FILTER);
}

TEST_F(FilterRegistry, OnlyTheOwnerRemovesAFilterAndAGoneFilterIsNotFound)
{
    PFilterDriver stranger = RegisterDriver("stranger");
    PPacketFilter filter = RegisterFilter(m_driver, "owned", FILTER_TYPE_OUTGOING_PACKET, FILTER_ORDER_FIRST);

    EXPECT_EQ(Filter_DeregisterFilter(stranger, filter), FILTER_ERROR_INVALID_FILTER_OWNER);
    EXPECT_EQ(Chain(FILTER_TYPE_OUTGOING_PACKET), (std::vector<std::string>{"owned"}));

    EXPECT_EQ(Filter_DeregisterFilter(m_driver, filter), FILTER_STATUS_SUCCESS);
    EXPECT_TRUE(Chain(FILTER_TYPE_OUTGOING_PACKET).empty());
    EXPECT_EQ(Filter_DeregisterFilter(m_driver, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    Filter_DeregisterDriver(stranger);
}

TEST_F(FilterRegistry, EnumerationMatchesTypesBitwiseSoIncomingNeverMatches)
{
    PFilterDriver other = RegisterDriver("other");
    RegisterFilter(m_driver, "in", FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_FIRST);
    PPacketFilter out1 = RegisterFilter(m_driver, "out1", FILTER_TYPE_OUTGOING_PACKET, FILTER_ORDER_FIRST);
    PPacketFilter out2 = RegisterFilter(m_driver, "out2", FILTER_TYPE_OUTGOING_PACKET, FILTER_ORDER_LAST);
    RegisterFilter(other, "theirs", FILTER_TYPE_OUTGOING_PACKET, 5);
    PPacketFilter toProtocol = RegisterFilter(m_driver, "up", FILTER_TYPE_INJECT_TO_PROTOCOL, FILTER_ORDER_FIRST);

    std::vector<PPacketFilter> seen;
    EXPECT_EQ(Filter_EnumFilter(m_driver, CollectFilter, &seen, FILTER_TYPE_INCOMING_PACKET), FILTER_STATUS_SUCCESS);
    EXPECT_TRUE(seen.empty());

    EXPECT_EQ(Filter_EnumFilter(m_driver, CollectFilter, &seen, FILTER_TYPE_OUTGOING_PACKET), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(seen, (std::vector<PPacketFilter>{out1, out2}));

    seen.clear();
    EXPECT_EQ(Filter_EnumFilter(m_driver, CollectFilter, &seen, FILTER_TYPE_INJECT_TO_PROTOCOL), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(seen, (std::vector<PPacketFilter>{toProtocol}));

    EXPECT_EQ(Filter_EnumFilter(m_driver, CollectFilter, &seen, 4), FILTER_ERROR_INVALID_FILTER_TYPE);
    EXPECT_EQ(Filter_EnumFilter(m_driver, nullptr, &seen, 1), FILTER_ERROR_INVALID_ARGUMENT);
    Filter_DeregisterDriver(other);
}

TEST_F(FilterRegistry, TheDumpPrintsTheChainHeadAndEveryFieldOfEveryFilter)
{
    PPacketFilter filter = RegisterFilter(m_driver, "dumped", FILTER_TYPE_INJECT_TO_ADAPTER, FILTER_ORDER_NEXT);
    HkDebugClearCapture();
    ASSERT_EQ(Filter_DumpFilter(FILTER_TYPE_INJECT_TO_ADAPTER), FILTER_STATUS_SUCCESS);

    auto hex = [](const void *p) {
        char text[32];
        std::snprintf(text, sizeof(text), "0x%016llX", (unsigned long long)(ULONG_PTR)p);
        return std::string(text);
    };
    PLIST_ENTRY head = &g_pGlobal->m_PacketFilterList[FILTER_TYPE_INJECT_TO_ADAPTER];
    std::vector<std::string> expected = {
        "Dumping Packet Filter(Type = 2 - FILTER_TYPE_INJECT_TO_ADAPTER)",
        "- PacketFilterList  = " + hex(head),
        "-          +- Blink = " + hex(head->Blink),
        "-          +- Flink = " + hex(head->Flink),
        "Filter[0] ----------- " + hex(filter),
        "- &m_ListEntry      = " + hex(&filter->m_ListEntry),
        "-      +-Blink      = " + hex(head),
        "-      +-Flink      = " + hex(head),
        "- m_Tag             = 0x54414733",
        "- m_FilterName      = dumped",
        "- m_hFilterDriver   = " + hex(m_driver),
        "- m_pDriverContext  = " + hex(&m_driverContext),
        "- m_pfFilterProc    = " + hex((void *)nftest::BypassEverything),
        "- m_pFilterContext  = " + hex(nullptr),
        "- m_FilterType      = 2 - FILTER_TYPE_INJECT_TO_ADAPTER",
        "- m_FilterOrder     = 4294967294 - FILTER_ORDER_NEXT",
        "- m_PacketProcess   = 0",
        "- m_PacketBypass    = 0",
        "- m_PacketDiscard   = 0",
        "- m_PacketConsume   = 0",
        "- m_PacketCapture   = 0",
    };
    EXPECT_EQ(nftest::TakeTrace(), expected);
    EXPECT_EQ(Filter_DumpFilter(4), FILTER_ERROR_INVALID_FILTER_TYPE);
}

TEST_F(FilterRegistry, ForgedFilterHandlesArePrintedAsInvalidAndRecordsCannotBeFreedByClients)
{
    PPacketFilter filter = RegisterFilter(m_driver, "real", FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_FIRST);
    HkDebugClearCapture();
    filter->m_FilterType = (FILTER_TYPE)4;
    EXPECT_FALSE(Filter_IsValidFilter(filter));
    filter->m_FilterType = FILTER_TYPE_INCOMING_PACKET;
    char line[96];
    std::snprintf(line, sizeof(line), "Filter_IsValidFilter: Invalid Handle 0x%016llX, bad tag 0x54414733",
                  (unsigned long long)(ULONG_PTR)filter);
    EXPECT_GE(nftest::FindLine(nftest::TakeTrace(), line), 0);

    EXPECT_EQ(Filter_ShowFilter((PPacketFilter)(ULONG_PTR)0x10, 0), FILTER_ERROR_INVALID_PACKET_FILTER);
    EXPECT_GE(nftest::FindLine(nftest::TakeTrace(), "Filter_ShowFilter: exception, code = -1073741819"), 0);
    /* A record of another kind is refused at its tag; nothing behind it is read. */
    EXPECT_EQ(Filter_ShowFilter((PPacketFilter)m_driver, 0), FILTER_ERROR_INVALID_PACKET_FILTER);

    /* The framework's records are not the client's to free. */
    EXPECT_EQ(Filter_FreeMemory(m_driver), FILTER_ERROR_INVALID_MEMORY_POINTER);
    EXPECT_EQ(Filter_FreeMemory(filter), FILTER_ERROR_INVALID_MEMORY_POINTER);
    EXPECT_TRUE(Filter_IsValidDriver(m_driver));
}
