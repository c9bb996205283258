/* Binding: the record exchanged through the framework's internal request, unbinding and binding again. */
#include "hook_fixture.h"

#include <windows.h>

namespace {

using hooktest::HookTest;

/* The framework's five callbacks are in the hook's record and flagged bound. */
void ExpectCallbacksOf(const NdisHookAPI &api)
{
    EXPECT_TRUE(api.m_Flags & NDIS_HOOK_FLAG_BOUND);
    EXPECT_EQ(api.Filter_AdapterOpened, NdisFilter_AdapterOpened);
    EXPECT_EQ(api.Filter_AdapterStatusChanged, NdisFilter_AdapterStatusChanged);
    EXPECT_EQ(api.Filter_AdapterClosed, NdisFilter_AdapterClosed);
    EXPECT_EQ(api.Filter_FilterReceivedPacket, NdisFilter_FilterReceivedPacket);
    EXPECT_EQ(api.Filter_FilterSendPacket, NdisFilter_FilterSendPacket);
}

TEST_F(HookTest, BindingAtLoadExchangesCallbacksAndFunctionsThroughTheInternalRequest)
{
    LoadBoth(true, 0x100);
    ASSERT_TRUE(NdisHookIsBound());
    auto trace = nftest::TakeTrace();
    EXPECT_GE(nftest::FindLine(trace, "  IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK"), 0);

    NdisHookAPI hook;
    NdisHookQueryApi(&hook);
    EXPECT_EQ(hook.m_Size, 168u);
    EXPECT_EQ(hook.m_MajorVersion, 1);
    EXPECT_EQ(hook.m_MinorVersion, 0);
    ExpectCallbacksOf(hook);

    const NdisHookAPI &framework = FrameworkApi();
    EXPECT_TRUE(framework.m_Flags & NDIS_HOOK_FLAG_BOUND);
    /* Every one of the fourteen functions reached the framework. */
    const PVOID *own = (const PVOID *)&hook.Hook_GetOsVersion;
    const PVOID *kept = (const PVOID *)&framework.Hook_GetOsVersion;
    for (int i = 0; i < 14; i++) {
        EXPECT_NE(own[i], nullptr) << "hook function " << i;
        EXPECT_EQ(own[i], kept[i]) << "hook function " << i;
    }
}

TEST_F(HookTest, UnbindingClearsBothSidesAndBindingAgainRestoresThem)
{
    LoadBoth();
    ASSERT_EQ(NdisHookUnbind(), STATUS_SUCCESS);
    EXPECT_FALSE(NdisHookIsBound());
    NdisHookAPI hook;
    NdisHookQueryApi(&hook);
    EXPECT_FALSE(hook.m_Flags & NDIS_HOOK_FLAG_BOUND);
    EXPECT_EQ(hook.Filter_FilterReceivedPacket, nullptr);
    EXPECT_FALSE(FrameworkApi().m_Flags & NDIS_HOOK_FLAG_BOUND);
    EXPECT_EQ(FrameworkApi().Hook_FreePacket, nullptr);
    EXPECT_EQ(NdisHookUnbind(), STATUS_SUCCESS); /* nothing to undo */

    ASSERT_EQ(NdisHookBind(), STATUS_SUCCESS);
    EXPECT_TRUE(NdisHookIsBound());
    NdisHookQueryApi(&hook);
    ExpectCallbacksOf(hook);
    EXPECT_EQ(FrameworkApi().Hook_FreePacket, hook.Hook_FreePacket);
}

TEST_F(HookTest, WithoutTheFrameworkBindingFailsAndFramesPassStraightThrough)
{
    HkRegistryReset();
    LoadHook(true);
    EXPECT_FALSE(NdisHookIsBound());
    EXPECT_EQ(NdisHookBind(), STATUS_OBJECT_NAME_NOT_FOUND);

    PFilterAdapter adapter = OpenAdapter(1);
    auto received = hooktest::Frame(60, 1), sent = hooktest::Frame(70, 2);
    ASSERT_EQ(NdisHookReceiveFrame(adapter, received.data(), 60, nullptr), STATUS_SUCCESS);
    ASSERT_EQ(NdisHookSendFrame(adapter, sent.data(), 70, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(ndishook::DeliveredFrames(adapter, FILTER_DIRECTION_TO_PROTOCOL),
              std::vector<std::vector<UCHAR>>{received});
    EXPECT_EQ(ndishook::DeliveredFrames(adapter, FILTER_DIRECTION_TO_ADAPTER),
              std::vector<std::vector<UCHAR>>{sent});
    EXPECT_EQ(NdisHookPacketsOutstanding(), 0);
}

TEST_F(HookTest, TheFrameworkReportsTheHooksOsVersion)
{
    LoadBoth();
    ULONG v1 = 0, v2 = 0, v3 = 0, v4 = 0;
    EXPECT_EQ(Filter_GetOsVersion(&v1, &v2, &v3, &v4), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(v1, 5u);
    EXPECT_EQ(v2, 1u);
    EXPECT_EQ(v3, 2600u);
    EXPECT_EQ(v4, 2u);
}

TEST_F(HookTest, AControlCodeTheHookClaimsIsAnsweredThroughTheFrameworksDevice)
{
    LoadBoth();
    const ULONG code = 0x80002FFC;
    HANDLE device = CreateFileA("\\\\.\\NdisFilter", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(device, INVALID_HANDLE_VALUE);
    UCHAR out[8] = {};
    DWORD returned = 99;
    EXPECT_FALSE(DeviceIoControl(device, code, nullptr, 0, out, sizeof out, &returned, nullptr));
    EXPECT_EQ(GetLastError(), (DWORD)ERROR_NOT_SUPPORTED);

    const UCHAR answer[3] = {0xA1, 0xB2, 0xC3};
    ASSERT_EQ(NdisHookClaimIoControl(code, STATUS_SUCCESS, answer, sizeof answer), STATUS_SUCCESS);
    EXPECT_TRUE(DeviceIoControl(device, code, nullptr, 0, out, sizeof out, &returned, nullptr));
    EXPECT_EQ(returned, 3u);
    EXPECT_EQ(out[0], 0xA1);
    EXPECT_EQ(out[2], 0xC3);

    /* The claimed bytes must fit the caller's buffer. */
    EXPECT_FALSE(DeviceIoControl(device, code, nullptr, 0, out, 2, &returned, nullptr));
    EXPECT_EQ(GetLastError(), (DWORD)ERROR_INSUFFICIENT_BUFFER);

    NdisHookReleaseIoControls();
    EXPECT_FALSE(DeviceIoControl(device, code, nullptr, 0, out, sizeof out, &returned, nullptr));
    EXPECT_EQ(GetLastError(), (DWORD)ERROR_NOT_SUPPORTED);
    EXPECT_TRUE(CloseHandle(device));
}

} // namespace
