// The in-memory registry and RtlQueryRegistryValues of the host runtime.
#include "hk_test_support.h"

#include <gmock/gmock.h>
#include <ntddk.h>

#include <string>
#include <vector>

namespace {

const char kService[] = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\CoreTest";

// Narrow copies of the UTF-16 text the tests compare (ASCII only).
std::string Narrow(const WCHAR *text, size_t chars)
{
    std::string narrow;
    for (size_t i = 0; i < chars; ++i)
        narrow.push_back(static_cast<char>(text[i]));
    return narrow;
}

std::string Narrow(const UNICODE_STRING &s)
{
    return Narrow(s.Buffer, s.Length / sizeof(WCHAR));
}

class RegistryTest : public testing::Test {
protected:
    void SetUp() override
    {
        HkRegistryDeleteKey(kService);
        ASSERT_EQ(STATUS_SUCCESS, HkRegistrySetDword(kService, "Limit", 2048));
        ASSERT_EQ(STATUS_SUCCESS, HkRegistrySetString(kService, "Name", "filter"));
        const char *const devices[] = {"eth0", "eth1"};
        ASSERT_EQ(STATUS_SUCCESS, HkRegistrySetMultiString(kService, "Devices", devices, 2));
        const unsigned char blob[6] = {1, 2, 3, 4, 5, 6};
        ASSERT_EQ(STATUS_SUCCESS, HkRegistrySetBinary(kService, "Blob", blob, sizeof blob));
        ASSERT_EQ(STATUS_SUCCESS,
                  HkRegistrySetDword((std::string(kService) + "\\Parameters").c_str(), "Debug", 7));
    }
    void TearDown() override { HkRegistryDeleteKey(kService); }

    // Queries the service key relative to the services root.
    NTSTATUS Query(RTL_QUERY_REGISTRY_TABLE *table, PVOID context = nullptr,
                   ULONG extraFlags = 0)
    {
        return RtlQueryRegistryValues(RTL_REGISTRY_SERVICES | extraFlags, L"CoreTest", table,
                                      context, nullptr);
    }
};

TEST_F(RegistryTest, DirectDwordIsStoredAndKeyNamesIgnoreCase)
{
    ULONG limit = 0;
    RTL_QUERY_REGISTRY_TABLE table[2] = {};
    table[0].Flags = RTL_QUERY_REGISTRY_DIRECT;
    table[0].Name = const_cast<PWSTR>(L"LIMIT");
    table[0].EntryContext = &limit;
    EXPECT_EQ(STATUS_SUCCESS,
              RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE,
                                     L"\\REGISTRY\\machine\\System\\CurrentControlSet\\Services\\coretest",
                                     table, nullptr, nullptr));
    EXPECT_EQ(2048u, limit);
}

TEST_F(RegistryTest, MissingValueTakesTheDefaultUnlessRequired)
{
    ULONG value = 0;
    ULONG fallback = 99;
    RTL_QUERY_REGISTRY_TABLE table[2] = {};
    table[0].Flags = RTL_QUERY_REGISTRY_DIRECT;
    table[0].Name = const_cast<PWSTR>(L"Missing");
    table[0].EntryContext = &value;
    table[0].DefaultType = REG_DWORD;
    table[0].DefaultData = &fallback;
    table[0].DefaultLength = sizeof fallback;
    EXPECT_EQ(STATUS_SUCCESS, Query(table));
    EXPECT_EQ(99u, value);

    value = 0;
    table[0].Flags |= RTL_QUERY_REGISTRY_REQUIRED;
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Query(table));
    EXPECT_EQ(0u, value);

    table[0].Flags = RTL_QUERY_REGISTRY_DIRECT;
    table[0].DefaultType = REG_NONE; // no default: the value is skipped
    EXPECT_EQ(STATUS_SUCCESS, Query(table));
    EXPECT_EQ(0u, value);
}

TEST_F(RegistryTest, MissingKeyFailsUnlessOptional)
{
    ULONG value = 5;
    ULONG fallback = 1;
    RTL_QUERY_REGISTRY_TABLE table[2] = {};
    table[0].Flags = RTL_QUERY_REGISTRY_DIRECT;
    table[0].Name = const_cast<PWSTR>(L"Limit");
    table[0].EntryContext = &value;
    table[0].DefaultType = REG_DWORD;
    table[0].DefaultData = &fallback;
    table[0].DefaultLength = sizeof fallback;
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND,
              RtlQueryRegistryValues(RTL_REGISTRY_SERVICES, L"NoSuchService", table, nullptr,
                                     nullptr));
    EXPECT_EQ(5u, value);
    EXPECT_EQ(STATUS_SUCCESS,
              RtlQueryRegistryValues(RTL_REGISTRY_SERVICES | RTL_REGISTRY_OPTIONAL,
                                     L"NoSuchService", table, nullptr, nullptr));
    EXPECT_EQ(1u, value);
}

TEST_F(RegistryTest, DirectStringIsAllocatedFromPagedPoolWhenTheBufferIsNull)
{
    UNICODE_STRING name = {};
    RTL_QUERY_REGISTRY_TABLE table[2] = {};
    table[0].Flags = RTL_QUERY_REGISTRY_DIRECT;
    table[0].Name = const_cast<PWSTR>(L"Name");
    table[0].EntryContext = &name;
    const ULONG before = HkPoolLiveAllocationCount();
    ASSERT_EQ(STATUS_SUCCESS, Query(table));
    ASSERT_NE(nullptr, name.Buffer);
    EXPECT_EQ("filter", Narrow(name));
    EXPECT_EQ(0, name.Buffer[name.Length / sizeof(WCHAR)]);
    EXPECT_EQ(before + 1, HkPoolLiveAllocationCount());
    RtlFreeUnicodeString(&name);
    EXPECT_EQ(before, HkPoolLiveAllocationCount());
}

TEST_F(RegistryTest, DirectStringIsCopiedWhenItFitsTheCallersBuffer)
{
    WCHAR buffer[7];
    UNICODE_STRING name = {0, sizeof buffer, buffer};
    RTL_QUERY_REGISTRY_TABLE table[2] = {};
    table[0].Flags = RTL_QUERY_REGISTRY_DIRECT;
    table[0].Name = const_cast<PWSTR>(L"Name");
    table[0].EntryContext = &name;
    ASSERT_EQ(STATUS_SUCCESS, Query(table)); // "filter" and its terminator: exactly 14 bytes
    EXPECT_EQ("filter", Narrow(name));

    WCHAR small[4];
    UNICODE_STRING tooSmall = {0, sizeof small, small};
    table[0].EntryContext = &tooSmall;
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, Query(table));
}

TEST_F(RegistryTest, DirectStringDefaultIsUsedForAMissingValue)
{
    UNICODE_STRING name = {};
    RTL_QUERY_REGISTRY_TABLE table[2] = {};
    table[0].Flags = RTL_QUERY_REGISTRY_DIRECT;
    table[0].Name = const_cast<PWSTR>(L"Alias");
    table[0].EntryContext = &name;
    table[0].DefaultType = REG_SZ;
    table[0].DefaultData = const_cast<PWSTR>(L"fallback");
    ASSERT_EQ(STATUS_SUCCESS, Query(table));
    EXPECT_EQ("fallback", Narrow(name));
    RtlFreeUnicodeString(&name);
}

TEST_F(RegistryTest, DirectBinaryHonoursTheSizeConventionOfItsBuffer)
{
    RTL_QUERY_REGISTRY_TABLE table[2] = {};
    table[0].Flags = RTL_QUERY_REGISTRY_DIRECT;
    table[0].Name = const_cast<PWSTR>(L"Blob");

    LONG dataOnly[4] = {-16, 0, 0, 0}; // negative: data only
    table[0].EntryContext = dataOnly;
    ASSERT_EQ(STATUS_SUCCESS, Query(table));
    EXPECT_EQ(0, memcmp(dataOnly, "\x01\x02\x03\x04\x05\x06", 6));

    ULONG withHeader[5] = {20, 0, 0, 0, 0}; // positive: length, type, then data
    table[0].EntryContext = withHeader;
    ASSERT_EQ(STATUS_SUCCESS, Query(table));
    EXPECT_EQ(6u, withHeader[0]);
    EXPECT_EQ(static_cast<ULONG>(REG_BINARY), withHeader[1]);
    EXPECT_EQ(0, memcmp(&withHeader[2], "\x01\x02\x03\x04\x05\x06", 6));

    LONG tooSmall[2] = {-4, 0};
    table[0].EntryContext = tooSmall;
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, Query(table));
}

TEST_F(RegistryTest, TypeCheckRejectsAValueOfAnotherType)
{
    ULONG value = 0;
    RTL_QUERY_REGISTRY_TABLE table[2] = {};
    table[0].Flags = RTL_QUERY_REGISTRY_DIRECT | RTL_QUERY_REGISTRY_TYPECHECK;
    table[0].Name = const_cast<PWSTR>(L"Name"); // a REG_SZ
    table[0].EntryContext = &value;
    table[0].DefaultType = REG_DWORD << RTL_QUERY_REGISTRY_TYPECHECK_SHIFT;
    EXPECT_EQ(STATUS_OBJECT_TYPE_MISMATCH, Query(table));
}

// Records what a query routine is called with.
struct Calls {
    std::vector<std::string> names;
    std::vector<ULONG> types;
    std::vector<std::string> strings;
    NTSTATUS result = STATUS_SUCCESS;
};

NTSTATUS NTAPI Record(PWSTR valueName, ULONG valueType, PVOID valueData, ULONG valueLength,
                      PVOID context, PVOID entryContext)
{
    auto *calls = static_cast<Calls *>(context);
    EXPECT_EQ(calls, entryContext);
    calls->names.push_back(valueName == nullptr ? "<none>" : Narrow(valueName, [&] {
        size_t n = 0;
        while (valueName[n] != 0)
            ++n;
        return n;
    }()));
    calls->types.push_back(valueType);
    if (valueType == REG_SZ)
        calls->strings.push_back(Narrow(static_cast<WCHAR *>(valueData),
                                        valueLength / sizeof(WCHAR) - 1));
    return calls->result;
}

TEST_F(RegistryTest, QueryRoutineGetsMultiStringsOneByOneUnlessNoExpand)
{
    Calls calls;
    RTL_QUERY_REGISTRY_TABLE table[2] = {};
    table[0].QueryRoutine = Record;
    table[0].Name = const_cast<PWSTR>(L"Devices");
    table[0].EntryContext = &calls;
    ASSERT_EQ(STATUS_SUCCESS, Query(table, &calls));
    EXPECT_THAT(calls.strings, testing::ElementsAre("eth0", "eth1"));

    Calls whole;
    table[0].Flags = RTL_QUERY_REGISTRY_NOEXPAND;
    table[0].EntryContext = &whole;
    ASSERT_EQ(STATUS_SUCCESS, Query(table, &whole));
    EXPECT_THAT(whole.types, testing::ElementsAre(static_cast<ULONG>(REG_MULTI_SZ)));
}

TEST_F(RegistryTest, EntryWithoutANameEnumeratesEveryValueInCreationOrder)
{
    Calls all;
    RTL_QUERY_REGISTRY_TABLE table[2] = {};
    table[0].QueryRoutine = Record;
    table[0].Flags = RTL_QUERY_REGISTRY_NOEXPAND;
    table[0].EntryContext = &all;
    ASSERT_EQ(STATUS_SUCCESS, Query(table, &all));
    EXPECT_THAT(all.names, testing::ElementsAre("Limit", "Name", "Devices", "Blob"));
}

TEST_F(RegistryTest, SubkeyEntrySwitchesKeysUntilATopkeyEntry)
{
    Calls sub;
    ULONG limit = 0;
    RTL_QUERY_REGISTRY_TABLE table[3] = {};
    table[0].QueryRoutine = Record; // enumerates the subkey
    table[0].Flags = RTL_QUERY_REGISTRY_SUBKEY;
    table[0].Name = const_cast<PWSTR>(L"Parameters");
    table[0].EntryContext = &sub;
    table[1].Flags = RTL_QUERY_REGISTRY_TOPKEY | RTL_QUERY_REGISTRY_DIRECT;
    table[1].Name = const_cast<PWSTR>(L"Limit");
    table[1].EntryContext = &limit;
    ASSERT_EQ(STATUS_SUCCESS, Query(table, &sub));
    EXPECT_THAT(sub.names, testing::ElementsAre("Debug"));
    EXPECT_EQ(2048u, limit);

    table[0].Name = const_cast<PWSTR>(L"NoSuchSubkey");
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, Query(table, &sub));
}

TEST_F(RegistryTest, QueryRoutineFailureStopsTheQuery)
{
    Calls calls;
    calls.result = STATUS_INSUFFICIENT_RESOURCES;
    RTL_QUERY_REGISTRY_TABLE table[3] = {};
    table[0].QueryRoutine = Record;
    table[0].Name = const_cast<PWSTR>(L"Limit");
    table[0].EntryContext = &calls;
    table[1].QueryRoutine = Record;
    table[1].Name = const_cast<PWSTR>(L"Name");
    table[1].EntryContext = &calls;
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Query(table, &calls));
    EXPECT_EQ(1u, calls.names.size());
}

TEST_F(RegistryTest, QueryAbovePassiveLevelIsReported)
{
    ULONG value = 0;
    RTL_QUERY_REGISTRY_TABLE table[2] = {};
    table[0].Flags = RTL_QUERY_REGISTRY_DIRECT;
    table[0].Name = const_cast<PWSTR>(L"Limit");
    table[0].EntryContext = &value;
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    {
        hktest::ExpectVerifierFinding finding("RtlQueryRegistryValues called at IRQL 1");
        Query(table);
    }
    KeLowerIrql(old);
}

TEST_F(RegistryTest, WrittenValuesAndDeletedKeysAreSeenByHostControl)
{
    ULONG data = 42;
    EXPECT_EQ(STATUS_SUCCESS, RtlWriteRegistryValue(RTL_REGISTRY_SERVICES, L"CoreTest",
                                                    L"Written", REG_DWORD, &data, sizeof data));
    ULONG type = 0, read = 0, length = sizeof read;
    EXPECT_EQ(STATUS_SUCCESS, HkRegistryGetValue(kService, "written", &type, &read, &length));
    EXPECT_EQ(static_cast<ULONG>(REG_DWORD), type);
    EXPECT_EQ(42u, read);

    EXPECT_EQ(STATUS_SUCCESS, RtlCheckRegistryKey(RTL_REGISTRY_SERVICES,
                                                  const_cast<PWSTR>(L"CoreTest\\Parameters")));
    EXPECT_EQ(STATUS_SUCCESS, HkRegistryDeleteKey(kService));
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND,
              RtlCheckRegistryKey(RTL_REGISTRY_SERVICES, const_cast<PWSTR>(L"CoreTest\\Parameters")));
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND,
              RtlWriteRegistryValue(RTL_REGISTRY_SERVICES, L"CoreTest\\Parameters", L"X",
                                    REG_DWORD, &data, sizeof data));
}

} // namespace
