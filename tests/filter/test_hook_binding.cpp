/* The framework's side of binding: the internal requests and their checks. */
#include "framework.h"

namespace {

class HookBinding : public nftest::Framework {
protected:
    void SetUp() override { ASSERT_EQ(Load(), STATUS_SUCCESS); }

    /* A binding record as a hook driver fills it. */
    static NdisHookAPI Record()
    {
        NdisHookAPI api;
        memset(&api, 0, sizeof(api));
        api.m_Size = sizeof(NdisHookAPI);
        api.m_MajorVersion = 1;
        api.m_MinorVersion = 0;
        api.Hook_GetOsVersion = GetOsVersion;
        return api;
    }

    static NTSTATUS NTAPI GetOsVersion(PULONG a, PULONG b, PULONG c, PULONG d)
    {
        *a = 6, *b = 1, *c = 7601, *d = 2;
        return 0;
    }

    NTSTATUS Send(ULONG code, NdisHookAPI *api, ULONG inputLength = sizeof(NdisHookAPI),
                  ULONG outputLength = sizeof(NdisHookAPI), ULONG_PTR *information = nullptr)
    {
        std::vector<UCHAR> buffer(sizeof(NdisHookAPI));
        memcpy(buffer.data(), api, sizeof(NdisHookAPI));
        ULONG_PTR returned = 0;
        NTSTATUS status = nftest::SendToDevice(IRP_MJ_INTERNAL_DEVICE_CONTROL, code, buffer, inputLength,
                                               outputLength, &returned);
        memcpy(api, buffer.data(), sizeof(NdisHookAPI));
        if (information != nullptr)
            *information = returned;
        return status;
    }

    static bool Bound() { return (g_pGlobal->m_NdisHookAPI.m_Flags & NDIS_HOOK_FLAG_BOUND) != 0; }
};

} // namespace

TEST_F(HookBinding, BindingHandsOverTheCallbacksAndTakesTheHookFunctions)
{
    ULONG a = 0, b = 0, c = 0, d = 0;
    EXPECT_EQ(Filter_GetOsVersion(&a, &b, &c, &d), FILTER_ERROR_INTERFACE_NOT_ACTIVE);

    NdisHookAPI api = Record();
    ULONG_PTR returned = 0;
    ASSERT_EQ(Send(IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, &api, sizeof(api), sizeof(api), &returned),
              STATUS_SUCCESS);
    EXPECT_EQ(returned, 168u);
    EXPECT_TRUE(Bound());
    EXPECT_EQ(api.m_Flags, 1u);
    EXPECT_EQ((PVOID)api.Filter_AdapterOpened, (PVOID)NdisFilter_AdapterOpened);
    EXPECT_EQ((PVOID)api.Filter_FilterSendPacket, (PVOID)NdisFilter_FilterSendPacket);
    EXPECT_EQ(Filter_GetOsVersion(&a, &b, &c, &d), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(c, 7601u);

    ASSERT_EQ(Send(IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK, &api), STATUS_SUCCESS);
    EXPECT_FALSE(Bound());
    EXPECT_EQ(api.m_Flags, 0u);
    EXPECT_EQ(api.Filter_AdapterOpened, nullptr);
    EXPECT_EQ(g_pGlobal->m_NdisHookAPI.Hook_GetOsVersion, nullptr);
    EXPECT_EQ(Filter_GetOsVersion(&a, &b, &c, &d), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
}

TEST_F(HookBinding, SizeAndVersionAreCheckedAndAFailureBindsNothing)
{
    NdisHookAPI api = Record();
    api.m_MinorVersion = 1;
    GlobalDebugFlag = NF_DBG_CORE;
    HkDebugClearCapture();
    EXPECT_EQ(Send(IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, &api), STATUS_INVALID_PARAMETER);
    EXPECT_GE(nftest::FindLine(nftest::TakeTrace(), "  pNdisHookAPI->m_MinorVersion (1) != NDIS_HOOK_MINOR_VERSION"), 0);
    EXPECT_FALSE(Bound());
    EXPECT_EQ(api.Filter_AdapterOpened, nullptr);

    api = Record();
    api.m_Size = 160;
    EXPECT_EQ(Send(IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, &api), STATUS_INVALID_PARAMETER);
    api = Record();
    api.m_MajorVersion = 2;
    EXPECT_EQ(Send(IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, &api), STATUS_INVALID_PARAMETER);

    api = Record();
    EXPECT_EQ(Send(IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, &api, 168, 167), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(Send(IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, &api, 100, 168), STATUS_BUFFER_TOO_SMALL);
    GlobalDebugFlag = 0;
    EXPECT_FALSE(Bound());
}

TEST_F(HookBinding, UnbindingWithoutABindSucceedsAndClearsTheCallersCallbacks)
{
    NdisHookAPI api = Record();
    api.Filter_AdapterOpened = NdisFilter_AdapterOpened; /* stale values from an earlier bind */
    EXPECT_EQ(Send(IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK, &api), STATUS_SUCCESS);
    EXPECT_EQ(api.Filter_AdapterOpened, nullptr);
}

TEST_F(HookBinding, AnUnknownInternalCodeIsRefusedAndPrintedWhateverTheMask)
{
    NdisHookAPI api = Record();
    HkDebugClearCapture();
    EXPECT_EQ(Send(0x80002408, &api), STATUS_INVALID_PARAMETER);
    EXPECT_GE(nftest::FindLine(nftest::TakeTrace(), "  Unknown IOCTL = 0x80002408"), 0);
}

TEST_F(HookBinding, BindingPrintsTheFrameworksCopyFieldByField)
{
    NdisHookAPI api = Record();
    HkDebugClearCapture();
    ASSERT_EQ(Send(IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, &api), STATUS_SUCCESS);
    auto lines = nftest::TakeTrace();
    ASSERT_EQ(lines.size(), 23u);
    EXPECT_EQ(lines[0], "  m_NdisHookAPI.m_Size = 0x00000000000000A8");
    EXPECT_EQ(lines[1], "  m_NdisHookAPI.m_Flags = 0x0000000000000001");
    EXPECT_EQ(lines[4].rfind("  m_NdisHookAPI.Filter_AdapterOpened = 0x", 0), 0u);
    EXPECT_EQ(lines[22], "  m_NdisHookAPI.Hook_MmUnmapLockedPages = 0x0000000000000000");
    Send(IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK, &api);
}
