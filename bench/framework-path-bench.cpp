/*
 * framework-path-bench - the framework's own receive path, with a minimal
 * hook: a tiny hook implementation inside this program binds to the framework
 * through the internal bind request, reports one open adapter and hands the
 * framework packets taken from a preallocated per-thread pool. Its delivery
 * function counts each packet and puts it back in its pool, as does its
 * release function. No simulated hook driver, no allocation per packet.
 *
 * Measured: a frame from the hook's receive callback through parsing, 0, 1, 4
 * or 16 bypass filters and delivery to the protocols, on one thread and two.
 * Frames arrive in bursts at DISPATCH_LEVEL, as a NIC's receive DPC indicates
 * them.
 */
#include <ntddk.h>
#include <ndis.h>
#include <windows.h>
#include <hostkernel.h>
#include <ndisfilter.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <vector>

EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace {

constexpr int kPoolSize = 64;
constexpr int kBurst = 32;

const UCHAR Frame[60] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x01, 0x02, 0x00, 0x00, 0x00, 0x00, 0x0A, 0x08, 0x00,
                         0x45, 0x00, 0x00, 0x2E, 0x00, 0x01, 0x00, 0x00, 0x40, 0x11, 0x00, 0x00, 10, 0, 0, 1,
                         10, 0, 0, 2, 0x30, 0x39, 0x00, 0x35, 0x00, 0x1A, 0x00, 0x00};

/* One thread's packets: its free list and what came back to it. */
struct alignas(64) PacketPool {
    PFilterPacket free[kPoolSize];
    int count = 0;
    long delivered = 0;
    long released = 0;
    std::vector<FilterPacket> storage;

    PacketPool() : storage(kPoolSize)
    {
        for (FilterPacket &packet : storage) {
            std::memset(&packet, 0, sizeof(packet));
            PacketPool *self = this;
            std::memcpy(packet.m_HookPrivate1, &self, sizeof(self)); /* the hook's own field: the owner */
            free[count++] = &packet;
        }
    }
};

PacketPool *OwnerOf(PFilterPacket packet)
{
    PacketPool *pool;
    std::memcpy(&pool, packet->m_HookPrivate1, sizeof(pool));
    return pool;
}

FilterAdapter TheAdapter;
NdisHookAPI Api; /* the record as the framework left it: its callbacks */
PDRIVER_OBJECT Framework;
PFilterDriver Bench;
std::vector<PPacketFilter> Filters;

/* ---- the minimal hook ---- */

NTSTATUS NTAPI HookGetOsVersion(PULONG Major, PULONG Minor, PULONG Build, PULONG ServicePack)
{
    *Major = 5;
    *Minor = 1;
    *Build = 2600;
    *ServicePack = 2;
    return STATUS_SUCCESS;
}

PFilterPacket NTAPI HookAllocatePacket(PFilterAdapter, PCSTR, ULONG)
{
    return nullptr; /* clients of this benchmark allocate nothing */
}

VOID NTAPI HookFreePacket(PFilterPacket Packet, PCSTR, ULONG)
{
    PacketPool *pool = OwnerOf(Packet);
    pool->released++;
    pool->free[pool->count++] = Packet;
}

NDIS_STATUS NTAPI HookDeliver(PFilterAdapter, PFilterPacket Packet)
{
    PacketPool *pool = OwnerOf(Packet);
    pool->delivered++;
    pool->free[pool->count++] = Packet;
    return NDIS_STATUS_SUCCESS;
}

VOID NTAPI HookGetAdapters(PVOID List)
{
    ULONG count = 1;
    AdapterInfo info;
    std::memset(&info, 0, sizeof(info));
    info.m_hAdapter = &TheAdapter;
    info.m_nAdapterMedium = NdisMedium802_3;
    info.m_usMTU = 1500;
    std::memcpy(info.m_CurrentAddress, TheAdapter.m_CurrentAddress, 6);
    std::memcpy(info.m_PermanentAddress, TheAdapter.m_PermanentAddress, 6);
    std::snprintf(info.m_szAdapterName, sizeof(info.m_szAdapterName), "{BENCH} minimal hook");
    std::memcpy(List, &count, sizeof(count));
    std::memcpy((PUCHAR)List + sizeof(count), &info, sizeof(info));
}

/* Sends the internal bind or unbind request with `Record`, as a hook driver does. */
NTSTATUS SendBindingRequest(ULONG Code, PNdisHookAPI Record)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, NDISFILTER_DEVICE_NAME);
    PFILE_OBJECT file = nullptr;
    PDEVICE_OBJECT device = nullptr;
    NTSTATUS status = IoGetDeviceObjectPointer(&name, FILE_READ_DATA | FILE_WRITE_DATA, &file, &device);
    if (!NT_SUCCESS(status))
        return status;
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IO_STATUS_BLOCK ioStatus = {};
    PIRP irp = IoBuildDeviceIoControlRequest(Code, device, Record, sizeof(*Record), Record, sizeof(*Record), TRUE,
                                             &done, &ioStatus);
    if (irp == nullptr) {
        ObDereferenceObject(file);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    IoGetNextIrpStackLocation(irp)->FileObject = file;
    status = IoCallDriver(device, irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
        status = ioStatus.Status;
    }
    ObDereferenceObject(file);
    return status;
}

bool Bind()
{
    std::memset(&Api, 0, sizeof(Api));
    Api.m_Size = sizeof(NdisHookAPI);
    Api.m_MajorVersion = NDIS_HOOK_MAJOR_VERSION;
    Api.m_MinorVersion = NDIS_HOOK_MINOR_VERSION;
    Api.Hook_GetOsVersion = HookGetOsVersion;
    Api.Hook_AllocatePacket = HookAllocatePacket;
    Api.Hook_FreePacket = HookFreePacket;
    Api.Hook_InjectPacketToAdapter = HookDeliver;
    Api.Hook_InjectPacketToProtocol = HookDeliver;
    Api.Hook_GetTcpIpBoundAdapters = HookGetAdapters;
    const UCHAR mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x01};
    std::memcpy(TheAdapter.m_CurrentAddress, mac, 6);
    std::memcpy(TheAdapter.m_PermanentAddress, mac, 6);
    TheAdapter.m_usMTU = 1500;
    TheAdapter.m_nAdapterMedium = NdisMedium802_3;
    return NT_SUCCESS(SendBindingRequest(IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, &Api)) &&
           Api.Filter_FilterReceivedPacket != nullptr;
}

/* ---- the benchmark ---- */

FILTER_RESULT NTAPI Bypass(PFilterDriver, PVOID, PPacketFilter, PVOID, PFilterPacket)
{
    return FILTER_RESULT_BYPASS;
}

void SetFilterCount(size_t count)
{
    while (Filters.size() > count) {
        Filter_DeregisterFilter(Bench, Filters.back());
        Filters.pop_back();
    }
    while (Filters.size() < count) {
        char name[16];
        std::snprintf(name, sizeof(name), "bypass%u", (unsigned)(Filters.size() & 0xFF));
        STRING counted;
        RtlInitAnsiString(&counted, name);
        PPacketFilter filter = nullptr;
        Filter_RegisterFilter(Bench, &counted, Bypass, nullptr, FILTER_TYPE_INCOMING_PACKET,
                              (FILTER_ORDER)(10 + Filters.size()), &filter);
        Filters.push_back(filter);
    }
}

void BM_FrameworkReceivePath(benchmark::State &state)
{
    if (state.thread_index() == 0)
        SetFilterCount((size_t)state.range(0));
    PacketPool pool;
    PFILTER_PACKET_CALLBACK received = Api.Filter_FilterReceivedPacket;
    while (state.KeepRunningBatch(kBurst)) {
        KIRQL irql;
        KeRaiseIrql(DISPATCH_LEVEL, &irql);
        for (int i = 0; i < kBurst; i++) {
            PFilterPacket packet = pool.free[--pool.count];
            std::memcpy(packet->m_Data, Frame, sizeof(Frame));
            packet->m_hAdapter = &TheAdapter;
            packet->m_nPacketSize = packet->m_nBytesRead = sizeof(Frame);
            received(packet);
        }
        KeLowerIrql(irql);
        if (pool.count != kPoolSize) {
            state.SkipWithError("a packet did not come back");
            break;
        }
    }
    if (pool.delivered != (long)state.iterations())
        state.SkipWithError("not every frame was delivered");
    /* summed over the threads, divided by the run's real time */
    state.counters["frames_per_second"] = benchmark::Counter((double)pool.delivered, benchmark::Counter::kIsRate);
}

BENCHMARK(BM_FrameworkReceivePath)->Arg(0)->Arg(1)->Arg(4)->Arg(16)->Threads(1)->Threads(2)->UseRealTime();

bool Load()
{
    const char *key = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\NdisFilter";
    HkDebugSetEcho(FALSE);
    HkDebugSetCaptureLimit(1000);
    HkRegistryCreateKey(key);
    HkRegistrySetDword(key, "GlobalDebugFlag", 0);
    if (!NT_SUCCESS(HkLoadDriver(DriverEntry, "NdisFilter", &Framework)) || !Bind())
        return false;
    STRING name;
    RtlInitAnsiString(&name, "bench");
    return Filter_RegisterDriver(&name, nullptr, 1, 0, &Bench) == FILTER_STATUS_SUCCESS && Bench != nullptr;
}

void Unload()
{
    SetFilterCount(0);
    Filter_DeregisterDriver(Bench);
    Api.Filter_AdapterClosed(&TheAdapter);
    SendBindingRequest(IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK, &Api);
    HkUnloadDriver(Framework);
}

} // namespace

int main(int argc, char **argv)
{
    if (!Load()) {
        std::fprintf(stderr, "framework-path-bench: the framework did not load or bind\n");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    Unload();
    return HkVerifierFindingCount() == 0 ? 0 : 1;
}
