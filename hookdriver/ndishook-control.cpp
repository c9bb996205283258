// ndishook-control.cpp - the host control interface of the hook driver
// (ndishook.h): host tooling in plain C++, which drives the driver part
// through its Nh* routines.
#include "ndishook-internal.h"
#include "include/ndishook.h"

#include <hostkernel.h>

#include <string>
#include <vector>

namespace {

constexpr USHORT kDefaultMtu = 1500;

// A NUL-terminated UTF-16 copy of an ASCII name (other bytes are kept as
// their Latin-1 code points).
std::vector<WCHAR> Widen(PCSTR text)
{
    std::vector<WCHAR> wide;
    for (; text != nullptr && *text != 0; ++text)
        wide.push_back(static_cast<WCHAR>(static_cast<UCHAR>(*text)));
    wide.push_back(0);
    return wide;
}

// FILTER_DIRECTION_* to the driver's delivery index; false for other values.
bool DeliveryIndex(ULONG direction, ULONG *index)
{
    if (direction == FILTER_DIRECTION_TO_PROTOCOL)
        *index = NH_TO_PROTOCOL;
    else if (direction == FILTER_DIRECTION_TO_ADAPTER)
        *index = NH_TO_ADAPTER;
    else
        return false;
    return true;
}

NTSTATUS Indicate(PFilterAdapter adapter, ULONG index, const VOID *frame, ULONG length,
                  const NDIS_HOOK_FRAME_LAYOUT *layout)
{
    if (!g_Hook.m_bLoaded)
        return STATUS_DEVICE_NOT_READY;
    NDIS_HOOK_FRAME_LAYOUT defaults = {};
    if (layout == nullptr)
        layout = &defaults;
    return NhIndicateFrame(adapter, index, static_cast<const UCHAR *>(frame), length, layout->HeaderSplit,
                           layout->ChunkSize, layout->Lookahead);
}

} // namespace

extern "C" {

// ---- the driver ----

// Writes BindAtLoad to the service key and loads the driver. IRQL == PASSIVE_LEVEL.
NTSTATUS NdisHookLoad(BOOLEAN BindAtLoad, PDRIVER_OBJECT *Driver)
{
    NTSTATUS status = HkRegistrySetDword(NDIS_HOOK_SERVICE_KEY, NDIS_HOOK_BIND_AT_LOAD_VALUE,
                                         BindAtLoad ? 1 : 0);
    if (!NT_SUCCESS(status))
        return status;
    return HkLoadDriver(NdisHookDriverEntry, NDIS_HOOK_SERVICE_NAME, Driver);
}

// Unloads the driver through the runtime (its unload routine reclaims everything).
VOID NdisHookUnload(PDRIVER_OBJECT Driver)
{
    HkUnloadDriver(Driver);
}

NTSTATUS NdisHookBind(VOID)
{
    return NhBind();
}

NTSTATUS NdisHookUnbind(VOID)
{
    return g_Hook.m_bLoaded ? NhUnbind() : STATUS_DEVICE_NOT_READY;
}

BOOLEAN NdisHookIsBound(VOID)
{
    return g_Hook.m_bLoaded && g_Hook.m_bBound;
}

VOID NdisHookQueryApi(PNdisHookAPI Copy)
{
    NhQueryApi(Copy);
}

// ---- adapters ----

// Converts the setup to the driver's form; the name AdapterInfo reports is the
// instance id followed by the description.
PFilterAdapter NdisHookOpenAdapter(const NDIS_HOOK_ADAPTER_SETUP *Setup)
{
    if (!g_Hook.m_bLoaded || Setup == nullptr)
        return nullptr;
    std::vector<WCHAR> deviceName = Widen(Setup->DeviceName);
    std::string name = Setup->InstanceId != nullptr ? Setup->InstanceId : "";
    if (Setup->Description != nullptr)
        name += Setup->Description;

    NhAdapterSetup setup = {};
    setup.m_pszDeviceName = deviceName.data();
    setup.m_pszName = name.c_str();
    RtlCopyMemory(setup.m_CurrentAddress, Setup->CurrentAddress, 6);
    RtlCopyMemory(setup.m_PermanentAddress, Setup->PermanentAddress, 6);
    setup.m_usMTU = Setup->Mtu != 0 ? Setup->Mtu : kDefaultMtu;
    setup.m_nMedium = Setup->Medium;
    setup.m_bNdisWan = Setup->NdisWan;
    setup.m_bConnected = !Setup->Disconnected;
    setup.m_nLinkSpeed = Setup->LinkSpeed;
    setup.m_pIPConfig = Setup->IpConfig;
    PNhAdapter adapter = NhOpenAdapter(&setup);
    return adapter != nullptr ? &adapter->m_Filter : nullptr;
}

NTSTATUS NdisHookCloseAdapter(PFilterAdapter Adapter)
{
    return g_Hook.m_bLoaded ? NhCloseAdapter(Adapter) : STATUS_DEVICE_NOT_READY;
}

NTSTATUS NdisHookSetMediaConnected(PFilterAdapter Adapter, BOOLEAN Connected)
{
    if (!g_Hook.m_bLoaded)
        return STATUS_DEVICE_NOT_READY;
    return NhSetMediaState(Adapter, Connected ? NdisMediaStateConnected : NdisMediaStateDisconnected);
}

// ---- frames ----

NTSTATUS NdisHookReceiveFrame(PFilterAdapter Adapter, const VOID *Frame, ULONG Length,
                              const NDIS_HOOK_FRAME_LAYOUT *Layout)
{
    return Indicate(Adapter, NH_TO_PROTOCOL, Frame, Length, Layout);
}

NTSTATUS NdisHookSendFrame(PFilterAdapter Adapter, const VOID *Frame, ULONG Length,
                           const NDIS_HOOK_FRAME_LAYOUT *Layout)
{
    return Indicate(Adapter, NH_TO_ADAPTER, Frame, Length, Layout);
}

VOID NdisHookSetPacketObserver(PNDIS_HOOK_PACKET_OBSERVER Observer, PVOID Context)
{
    if (g_Hook.m_bLoaded)
        NhSetPacketObserver(Observer, Context);
}

ULONG NdisHookDeliveredCount(PFilterAdapter Adapter, ULONG Direction)
{
    ULONG index;
    if (!g_Hook.m_bLoaded || !DeliveryIndex(Direction, &index))
        return 0;
    return NhDeliveredCount(Adapter, index);
}

NTSTATUS NdisHookGetDelivered(PFilterAdapter Adapter, ULONG Direction, ULONG Index, PVOID Buffer,
                              ULONG BufferSize, PULONG Length)
{
    if (!g_Hook.m_bLoaded)
        return STATUS_DEVICE_NOT_READY;
    ULONG index;
    if (!DeliveryIndex(Direction, &index) || Length == nullptr)
        return STATUS_INVALID_PARAMETER;
    return NhGetDelivered(Adapter, index, Index, Buffer, BufferSize, Length, FALSE);
}

NTSTATUS NdisHookTakeDelivered(PFilterAdapter Adapter, ULONG Direction, PVOID Buffer, ULONG BufferSize,
                               PULONG Length)
{
    if (!g_Hook.m_bLoaded)
        return STATUS_DEVICE_NOT_READY;
    ULONG index;
    if (!DeliveryIndex(Direction, &index) || Length == nullptr)
        return STATUS_INVALID_PARAMETER;
    return NhGetDelivered(Adapter, index, 0, Buffer, BufferSize, Length, TRUE);
}

VOID NdisHookClearDelivered(PFilterAdapter Adapter)
{
    if (g_Hook.m_bLoaded)
        NhClearDelivered(Adapter);
}

NTSTATUS NdisHookSetDeliverySink(PFilterAdapter Adapter, PNDIS_HOOK_DELIVERY_SINK Sink, PVOID Context)
{
    return g_Hook.m_bLoaded ? NhSetDeliverySink(Adapter, Sink, Context) : STATUS_DEVICE_NOT_READY;
}

// ---- accounting and control codes ----

LONG NdisHookPacketsOutstanding(VOID)
{
    return g_Hook.m_bLoaded ? NhPacketsOutstanding() : 0;
}

ULONG NdisHookPendingRequests(VOID)
{
    return g_Hook.m_bLoaded ? NhPendingRequestCount() : 0;
}

VOID NdisHookHoldPendingRequests(BOOLEAN Hold)
{
    if (g_Hook.m_bLoaded)
        NhHoldPendingRequests(Hold);
}

VOID NdisHookGetStatistics(PNDIS_HOOK_STATISTICS Statistics)
{
    NhCounters counters = {};
    if (g_Hook.m_bLoaded)
        NhQueryCounters(&counters);
    Statistics->PacketsOutstanding = NdisHookPacketsOutstanding();
    Statistics->PacketsHandedOut = counters.m_nHandedOut;
    Statistics->PacketsFreed = counters.m_nFreed;
    Statistics->PacketsInjected = counters.m_nInjected;
    Statistics->ReleaseCallbacks = counters.m_nReleaseCallbacks;
    Statistics->ReceivesIndicated = counters.m_nReceivesIndicated;
    Statistics->SendsIndicated = counters.m_nSendsIndicated;
}

NTSTATUS NdisHookClaimIoControl(ULONG Code, NTSTATUS Status, const VOID *Output, ULONG Length)
{
    if (!g_Hook.m_bLoaded)
        return STATUS_DEVICE_NOT_READY;
    if (Length != 0 && Output == nullptr)
        return STATUS_INVALID_PARAMETER;
    return NhClaimIoControl(Code, Status, Output, Length);
}

VOID NdisHookReleaseIoControls(VOID)
{
    if (g_Hook.m_bLoaded)
        NhReleaseIoControls();
}

} // extern "C"

namespace ndishook {

std::vector<std::vector<UCHAR>> DeliveredFrames(PFilterAdapter Adapter, ULONG Direction)
{
    std::vector<std::vector<UCHAR>> frames;
    for (ULONG i = 0;; ++i) {
        ULONG length = 0;
        NTSTATUS status = NdisHookGetDelivered(Adapter, Direction, i, nullptr, 0, &length);
        if (status != STATUS_BUFFER_TOO_SMALL && status != STATUS_SUCCESS)
            break;
        std::vector<UCHAR> frame(length);
        if (length != 0 &&
            NdisHookGetDelivered(Adapter, Direction, i, frame.data(), length, &length) != STATUS_SUCCESS)
            break;
        frames.push_back(std::move(frame));
    }
    return frames;
}

std::vector<std::vector<UCHAR>> TakeDeliveredFrames(PFilterAdapter Adapter, ULONG Direction)
{
    std::vector<std::vector<UCHAR>> frames;
    std::vector<UCHAR> buffer(2048);
    for (;;) {
        ULONG length = 0;
        NTSTATUS status = NdisHookTakeDelivered(Adapter, Direction, buffer.data(), (ULONG)buffer.size(), &length);
        if (status == STATUS_BUFFER_TOO_SMALL) {
            buffer.resize(length);
            continue;
        }
        if (status != STATUS_SUCCESS)
            break;
        frames.emplace_back(buffer.begin(), buffer.begin() + length);
    }
    return frames;
}

} // namespace ndishook
