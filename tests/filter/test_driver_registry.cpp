/* Registering, checking, querying and deregistering client drivers. */
#include "registry.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <thread>

using nftest::Counted;

namespace {
class DriverRegistry : public nftest::Registries {};
} // namespace

TEST_F(DriverRegistry, DriversAreListedInRegistrationOrderWithNameAndContext)
{
    int context = 0;
    PFilterDriver first = RegisterDriver("first", &context);
    PFilterDriver second = RegisterDriver("second");
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(Drivers(), (std::vector<std::string>{"first", "second"}));

    PVOID got = nullptr;
    EXPECT_EQ(Filter_GetDriverContext(first, &got), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(got, &context);

    PSTRING name = nullptr;
    ASSERT_EQ(Filter_GetDriverName(second, &name), FILTER_STATUS_SUCCESS);
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(std::string(name->Buffer, name->Length), "second");
    EXPECT_EQ(name->MaximumLength, name->Length + 2);
    EXPECT_EQ(name->Buffer[name->Length], '\0');
    EXPECT_NE(name->Buffer, second->m_DriverName.Buffer);
    EXPECT_EQ(Filter_FreeMemory(name), FILTER_STATUS_SUCCESS);

    ULONG major = 0, minor = 7;
    EXPECT_EQ(Filter_GetAPIVersion(&major, &minor), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(major, 1u);
    EXPECT_EQ(minor, 0u);
    EXPECT_EQ(Filter_GetAPIVersion(&major, nullptr), FILTER_ERROR_INVALID_ARGUMENT);

    EXPECT_EQ(Filter_DeregisterDriver(first), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_DeregisterDriver(second), FILTER_STATUS_SUCCESS);
}

TEST_F(DriverRegistry, NamesAreUniqueAndCaseSensitive)
{
    PFilterDriver lower = RegisterDriver("tap");
    PFilterDriver upper = RegisterDriver("TAP");
    EXPECT_NE(upper, nullptr);
    STRING again = Counted("tap");
    PFilterDriver duplicate = nullptr;
    EXPECT_EQ(Filter_RegisterDriver(&again, nullptr, 1, 0, &duplicate), FILTER_ERROR_DRIVER_ALREADY_REGISTERED);
    EXPECT_EQ(duplicate, nullptr);
    Filter_DeregisterDriver(lower);
    Filter_DeregisterDriver(upper);
}

TEST_F(DriverRegistry, ArgumentsAreCheckedBeforeTheVersion)
{
    STRING name = Counted("versioned");
    PFilterDriver driver = nullptr;
    EXPECT_EQ(Filter_RegisterDriver(&name, nullptr, 1, 1, &driver), FILTER_ERROR_UNSUPPORTED_API_VERSION);
    EXPECT_EQ(Filter_RegisterDriver(&name, nullptr, 2, 0, &driver), FILTER_ERROR_UNSUPPORTED_API_VERSION);
    EXPECT_EQ(Filter_RegisterDriver(nullptr, nullptr, 2, 0, &driver), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_RegisterDriver(&name, nullptr, 1, 0, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(driver, nullptr);
}

TEST_F(DriverRegistry, AFailedAllocationSucceedsWithoutAHandle)
{
    STRING name = Counted("starved");
    PFilterDriver driver = nullptr;
    HkPoolFailAllocations(0x4144664E /* "NfDA" */, 1);
    EXPECT_EQ(Filter_RegisterDriver(&name, nullptr, 1, 0, &driver), FILTER_STATUS_SUCCESS);
    HkPoolClearFailures();
    EXPECT_EQ(driver, nullptr);
    EXPECT_TRUE(Drivers().empty());
}

TEST_F(DriverRegistry, OfTwoThreadsRegisteringOneNameExactlyOneSucceeds)
{
    for (int round = 0; round < 50; round++) {
        std::atomic<int> ready{0};
        PFilterDriver handles[2] = {nullptr, nullptr};
        FILTER_STATUS results[2];
        auto contender = [&](int i) {
            STRING name = Counted("contested");
            ready++;
            while (ready.load() < 2) {
            }
            results[i] = Filter_RegisterDriver(&name, nullptr, 1, 0, &handles[i]);
        };
        std::thread a(contender, 0), b(contender, 1);
        a.join();
        b.join();
        int winners = (results[0] == FILTER_STATUS_SUCCESS) + (results[1] == FILTER_STATUS_SUCCESS);
        ASSERT_EQ(winners, 1) << "round " << round;
        ASSERT_EQ(Drivers().size(), 1u);
        EXPECT_EQ(Filter_DeregisterDriver(handles[0] != nullptr ? handles[0] : handles[1]), FILTER_STATUS_SUCCESS);
    }
}

TEST_F(DriverRegistry, DeregisteringRemovesTheDriversFiltersFromEveryChainAndNothingElse)
{
    PFilterDriver mine = RegisterDriver("mine");
    PFilterDriver other = RegisterDriver("other");
    for (LONG type = 0; type < FILTER_TYPE_COUNT; type++) {
        RegisterFilter(mine, "m1", type, FILTER_ORDER_FIRST);
        RegisterFilter(other, "o1", type, FILTER_ORDER_LAST);
        RegisterFilter(mine, "m2", type, 7);
    }
    EXPECT_EQ(Filter_DeregisterDriver(mine), FILTER_STATUS_SUCCESS);
    for (LONG type = 0; type < FILTER_TYPE_COUNT; type++)
        EXPECT_EQ(Chain(type), (std::vector<std::string>{"o1"})) << type;
    EXPECT_EQ(Drivers(), (std::vector<std::string>{"other"}));
    EXPECT_EQ(HkPoolLiveAllocationCountWithTag(0x4146664E /* "NfFA" */), 4u);
    Filter_DeregisterDriver(other);
    EXPECT_EQ(HkPoolLiveAllocationCountWithTag(0x4146664E), 0u);
}

TEST_F(DriverRegistry, ADeregisteredHandleFailsEveryCheckAndOwnsNothingNew)
{
    PFilterDriver driver = RegisterDriver("gone");
    ASSERT_EQ(Filter_DeregisterDriver(driver), FILTER_STATUS_SUCCESS);
    EXPECT_FALSE(Filter_IsValidDriver(driver));
    EXPECT_EQ(Filter_DeregisterDriver(driver), FILTER_ERROR_INVALID_DRIVER_HANDLE);
    STRING name = Counted("orphan");
    PPacketFilter orphan = nullptr;
    EXPECT_EQ(Filter_RegisterFilter(driver, &name, nftest::BypassEverything, nullptr, FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_FIRST,
                                    &orphan),
              FILTER_ERROR_INVALID_DRIVER_HANDLE);
    EXPECT_EQ(orphan, nullptr);
    EXPECT_EQ(Filter_DeregisterDriver(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

TEST_F(DriverRegistry, HandleChecksPrintTheInvalidHandleLineAndSurviveUnreadableMemory)
{
    HkDebugClearCapture();
    EXPECT_FALSE(Filter_IsValidDriver(nullptr));
    ULONG notADriver[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    notADriver[4] = 0x12345678; /* where the tag would be */
    EXPECT_FALSE(Filter_IsValidDriver((PFilterDriver)notADriver));
    EXPECT_EQ(Filter_DeregisterDriver((PFilterDriver)notADriver), FILTER_ERROR_INVALID_DRIVER_HANDLE);

    long pageSize = sysconf(_SC_PAGESIZE);
    void *page = mmap(nullptr, pageSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    EXPECT_FALSE(Filter_IsValidDriver((PFilterDriver)page));
    EXPECT_FALSE(Filter_IsValidFilter((PPacketFilter)page));
    munmap(page, pageSize);

    auto lines = nftest::TakeTrace();
    char expected[128];
    std::snprintf(expected, sizeof(expected), "Filter_IsValidDriver: Invalid Handle 0x%016llX, bad tag 0x12345678",
                  (unsigned long long)(ULONG_PTR)notADriver);
    EXPECT_GE(nftest::FindLine(lines, "Filter_IsValidDriver: Invalid Handle 0x0000000000000000, bad tag 0xffffffff"), 0);
    EXPECT_GE(nftest::FindLine(lines, expected), 0);
    EXPECT_GE(nftest::FindLine(lines, "Filter_IsValidDriver: exception, code = -1073741819"), 0);
    EXPECT_GE(nftest::FindLine(lines, "Filter_IsValidFilter: exception, code = -1073741819"), 0);
}
