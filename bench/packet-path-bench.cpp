/*
 * packet-path-bench - the framework's packet path on the host runtime:
 *   - frames through NdisFilter_FilterReceivedPacket to delivery with 0, 1, 4
 *     and 16 bypass filters, on one thread and on two;
 *   - deferred injection: packets per second through the injected-packet
 *     queues, and the latency from queueing to delivery (median and 99th
 *     percentile, in microseconds);
 *   - the shared rings: frames from the user program through the input ring
 *     to delivery, and from Filter_IndicatePacketToApplication to the program.
 * The framework and the simulated hook driver are loaded once for the run.
 */
#include <ntddk.h>
#include <ndis.h>
#include <windows.h>
#include <hostkernel.h>
#include <ndisfilter.h>
#include <ndishook.h>

#include <benchmark/benchmark.h>

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
EXTERN_C VOID NTAPI NdisFilter_FilterReceivedPacket(PFilterPacket Packet);

namespace {

using Clock = std::chrono::steady_clock;

PDRIVER_OBJECT Framework;
PDRIVER_OBJECT Hook;
PFilterAdapter Adapter;
PFilterDriver Bench;
std::vector<PPacketFilter> Filters;
const UCHAR Frame[60] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x01, 0x02, 0x00, 0x00, 0x00, 0x00, 0x0A, 0x08, 0x00,
                         0x45, 0x00, 0x00, 0x2E, 0x00, 0x01, 0x00, 0x00, 0x40, 0x11, 0x00, 0x00, 10, 0, 0, 1,
                         10, 0, 0, 2, 0x30, 0x39, 0x00, 0x35, 0x00, 0x1A, 0x00, 0x00};

FILTER_RESULT NTAPI Bypass(PFilterDriver, PVOID, PPacketFilter, PVOID, PFilterPacket)
{
    return FILTER_RESULT_BYPASS;
}

/* Ends a walk by keeping the packet, so a benchmark can run it again. */
FILTER_RESULT NTAPI Keep(PFilterDriver, PVOID, PPacketFilter, PVOID, PFilterPacket)
{
    return FILTER_RESULT_CONSUME;
}

/* Latency samples of the deferred path: the queueing time travels in the packet. */
std::mutex SamplesLock;
std::vector<double> Samples;
std::atomic<long> Arrived{0};

FILTER_RESULT NTAPI Stopwatch(PFilterDriver, PVOID, PPacketFilter, PVOID, PFilterPacket packet)
{
    Clock::rep queued;
    std::memcpy(&queued, packet->m_ApplicationData, sizeof(queued));
    if (queued != 0) {
        double micros = std::chrono::duration<double, std::micro>(Clock::now() - Clock::time_point(Clock::duration(queued))).count();
        std::lock_guard<std::mutex> guard(SamplesLock);
        Samples.push_back(micros);
    }
    Arrived++;
    return FILTER_RESULT_BYPASS;
}

void SetFilterCount(size_t count)
{
    while (Filters.size() > count) {
        Filter_DeregisterFilter(Bench, Filters.back());
        Filters.pop_back();
    }
    while (Filters.size() < count) {
        static char names[32][16];
        char *name = names[Filters.size()];
        std::snprintf(name, sizeof(names[0]), "bypass%u", (unsigned)(Filters.size() & 0xFF));
        STRING counted;
        RtlInitAnsiString(&counted, name);
        PPacketFilter filter = nullptr;
        Filter_RegisterFilter(Bench, &counted, Bypass, nullptr, FILTER_TYPE_INCOMING_PACKET,
                              (FILTER_ORDER)(10 + Filters.size()), &filter);
        Filters.push_back(filter);
    }
}

PFilterPacket NewPacket()
{
    PFilterPacket packet = Filter_AllocatePacket(Adapter);
    std::memcpy(packet->m_Data, Frame, sizeof(Frame));
    packet->m_nPacketSize = packet->m_nBytesRead = sizeof(Frame);
    return packet;
}

/* The protocols take delivered frames as they come (each thread counts its own). */
thread_local long Delivered;
VOID CountDelivery(PFilterAdapter, ULONG, const UCHAR *, ULONG, PVOID)
{
    Delivered++;
}

void BM_ReceivedFrameToDelivery(benchmark::State &state)
{
    if (state.thread_index() == 0) {
        SetFilterCount((size_t)state.range(0));
        NdisHookSetDeliverySink(Adapter, CountDelivery, nullptr);
    }
    Delivered = 0;
    for (auto _ : state) {
        PFilterPacket packet = NewPacket();
        KIRQL irql;
        KeRaiseIrql(DISPATCH_LEVEL, &irql); /* as the receive path of a NIC */
        NdisFilter_FilterReceivedPacket(packet);
        KeLowerIrql(irql);
    }
    if (Delivered != (long)state.iterations())
        state.SkipWithError("a frame was not delivered");
    if (state.thread_index() == 0)
        NdisHookSetDeliverySink(Adapter, nullptr, nullptr);
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0)
        state.counters["frames_per_second"] =
            benchmark::Counter((double)state.iterations() * state.threads(), benchmark::Counter::kIsRate);
}

/*
 * The chain walk alone, under its read lock: N bypass filters and a last one
 * that keeps the packet, each thread reusing its own packet. Threads share
 * only the chain's read lock and the filters' counters.
 */
void BM_ChainWalk(benchmark::State &state)
{
    static PPacketFilter keeper;
    if (state.thread_index() == 0) {
        SetFilterCount((size_t)state.range(0));
        STRING name;
        RtlInitAnsiString(&name, "keeper");
        Filter_RegisterFilter(Bench, &name, Keep, nullptr, FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_LAST, &keeper);
    }
    PFilterPacket packet = nullptr;
    for (auto _ : state) {
        if (packet == nullptr) {
            state.PauseTiming();
            packet = NewPacket();
            state.ResumeTiming();
        }
        KIRQL irql;
        KeRaiseIrql(DISPATCH_LEVEL, &irql);
        Filter_InvokeFilters(FILTER_TYPE_INCOMING_PACKET, packet);
        KeLowerIrql(irql);
    }
    Filter_ReleasePacket(packet);
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0)
        Filter_DeregisterFilter(Bench, keeper);
}

/*
 * Deferred injection. With `Range(0)` packets allowed in flight: 1 measures the
 * latency of an unloaded queue (send, wait for delivery); more measure the
 * throughput of a busy one, whose latency then includes the backlog.
 */
void BM_DeferredInjection(benchmark::State &state)
{
    const long inFlight = (long)state.range(0);
    SetFilterCount(0);
    STRING name;
    RtlInitAnsiString(&name, "stopwatch");
    PPacketFilter stopwatch = nullptr;
    Filter_RegisterFilter(Bench, &name, Stopwatch, nullptr, FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_LAST, &stopwatch);
    Samples.clear();
    Arrived = 0;
    long sent = 0;
    for (auto _ : state) {
        PFilterPacket packet = NewPacket();
        Filter_InitPacketHeader(packet, nullptr);
        Clock::rep now = Clock::now().time_since_epoch().count();
        std::memcpy(packet->m_ApplicationData, &now, sizeof(now));
        Filter_IndicatePacketFromAdapter(Adapter, packet);
        sent++;
        while (Arrived.load() <= sent - inFlight) /* keep at most inFlight packets queued */
            sched_yield();
        if ((sent & 4095) == 0) {
            state.PauseTiming();
            NdisHookClearDelivered(Adapter);
            state.ResumeTiming();
        }
    }
    while (Arrived.load() < sent)
        YieldProcessor();
    Filter_DeregisterFilter(Bench, stopwatch);
    NdisHookClearDelivered(Adapter);
    std::vector<double> samples;
    {
        std::lock_guard<std::mutex> guard(SamplesLock);
        samples = Samples;
    }
    std::sort(samples.begin(), samples.end());
    if (!samples.empty()) {
        state.counters["latency_median_us"] = samples[samples.size() / 2];
        state.counters["latency_p99_us"] = samples[std::min(samples.size() - 1, samples.size() * 99 / 100)];
    }
    state.counters["packets_per_second"] = benchmark::Counter((double)sent, benchmark::Counter::kIsRate);
}

/* The user program's side of the rings. */
struct Program {
    HANDLE device = INVALID_HANDLE_VALUE;
    SharedMemory *shared = nullptr;
    ULONG adapterId = 0;

    bool Start()
    {
        device = CreateFileA(NDISFILTER_USER_DEVICE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                             FILE_ATTRIBUTE_NORMAL, nullptr);
        ULONG64 buffer = 1;
        DWORD returned = 0;
        if (!DeviceIoControl(device, IOCTL_NDIS_FILTER_START_SHARE, &buffer, 4, &buffer, 8, &returned, nullptr) ||
            buffer == 20)
            return false;
        shared = (SharedMemory *)(ULONG_PTR)buffer;
        return Filter_AdapterToId(Adapter, &adapterId) == FILTER_STATUS_SUCCESS;
    }
    void Stop()
    {
        CloseHandle(device);
    }
    PSharedBlock Block(SharedBlockRing &ring, LONG index)
    {
        return (PSharedBlock)((PUCHAR)shared + 80 + ring.m_iBaseOffset + (ULONG_PTR)index * ring.m_iBlockSize);
    }
};

/* Counts the frames of the inject-to-protocol chain, the last step before their delivery. */
std::atomic<long> RingFrames{0};

FILTER_RESULT NTAPI RingCounter(PFilterDriver, PVOID, PPacketFilter, PVOID, PFilterPacket)
{
    RingFrames.fetch_add(1, std::memory_order_relaxed);
    return FILTER_RESULT_BYPASS;
}

void BM_InputRingToDelivery(benchmark::State &state)
{
    SetFilterCount(0);
    Program program;
    if (!program.Start()) {
        state.SkipWithError("START_SHARE refused");
        return;
    }
    STRING name;
    RtlInitAnsiString(&name, "ringcounter");
    PPacketFilter counter = nullptr;
    Filter_RegisterFilter(Bench, &name, RingCounter, nullptr, FILTER_TYPE_INJECT_TO_PROTOCOL, FILTER_ORDER_LAST,
                          &counter);
    SharedBlockRing &input = program.shared->KernelModeInput;
    long delivered = RingFrames.load();
    for (auto _ : state) {
        /* a burst of 64 blocks, announced once */
        for (int i = 0; i < 64; i++) {
            while ((input.m_iWrite + 1) % input.m_iBlockCount == input.m_iRead)
                YieldProcessor();
            PSharedBlock block = program.Block(input, input.m_iWrite);
            block->m_nAdapterId = program.adapterId;
            block->m_nDirection = FILTER_DIRECTION_TO_PROTOCOL;
            block->m_nPacketSize = sizeof(Frame);
            std::memcpy(block->m_Frame, Frame, sizeof(Frame));
            input.m_iWrite = (input.m_iWrite + 1) % input.m_iBlockCount;
        }
        DWORD returned;
        DeviceIoControl(program.device, IOCTL_NDIS_FILTER_WRITE_SHARE, nullptr, 0, nullptr, 0, &returned, nullptr);
        delivered += 64;
        /* the counter, not the hook driver's lock, tells when they are through */
        while (RingFrames.load(std::memory_order_relaxed) < delivered)
            YieldProcessor();
        state.PauseTiming(); /* the hook driver's pool holds 256 packets */
        NdisHookClearDelivered(Adapter);
        state.ResumeTiming();
    }
    Filter_DeregisterFilter(Bench, counter);
    std::this_thread::sleep_for(std::chrono::milliseconds(2)); /* the last delivery returns */
    NdisHookClearDelivered(Adapter);
    program.Stop();
    state.counters["frames_per_second"] = benchmark::Counter((double)state.iterations() * 64, benchmark::Counter::kIsRate);
}

void BM_IndicationToProgram(benchmark::State &state)
{
    Program program;
    if (!program.Start()) {
        state.SkipWithError("START_SHARE refused");
        return;
    }
    SharedBlockRing &output = program.shared->KernelModeOutput;
    PFilterPacket packet = NewPacket();
    long received = 0;
    for (auto _ : state) {
        Filter_IndicatePacketToApplication(packet, 1, 2);
        /* the program drains what is there */
        while (output.m_iRead != output.m_iWrite) {
            benchmark::DoNotOptimize(program.Block(output, output.m_iRead)->m_Frame[0]);
            output.m_iRead = (output.m_iRead + 1) % output.m_iBlockCount;
            received++;
        }
    }
    Filter_ReleasePacket(packet);
    program.Stop();
    state.counters["frames_per_second"] = benchmark::Counter((double)received, benchmark::Counter::kIsRate);
}

BENCHMARK(BM_ReceivedFrameToDelivery)->Arg(0)->Arg(1)->Arg(4)->Arg(16)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_ChainWalk)->Arg(0)->Arg(1)->Arg(4)->Arg(16)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_DeferredInjection)->Arg(1)->Arg(64)->UseRealTime();
BENCHMARK(BM_InputRingToDelivery)->UseRealTime();
BENCHMARK(BM_IndicationToProgram)->UseRealTime();

bool Load()
{
    const char *key = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\NdisFilter";
    HkDebugSetEcho(FALSE);
    HkDebugSetCaptureLimit(1000);
    HkRegistryCreateKey(key);
    HkRegistrySetDword(key, "GlobalDebugFlag", 0);
    if (!NT_SUCCESS(HkLoadDriver(DriverEntry, "NdisFilter", &Framework)) || !NT_SUCCESS(NdisHookLoad(TRUE, &Hook)))
        return false;
    NDIS_HOOK_ADAPTER_SETUP setup = {};
    setup.DeviceName = "\\DEVICE\\{BENCH}";
    setup.InstanceId = "{BENCH}";
    const UCHAR mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x01};
    std::memcpy(setup.CurrentAddress, mac, 6);
    std::memcpy(setup.PermanentAddress, mac, 6);
    setup.Medium = NdisMedium802_3;
    Adapter = NdisHookOpenAdapter(&setup);
    STRING name;
    RtlInitAnsiString(&name, "bench");
    return Adapter != nullptr && Filter_RegisterDriver(&name, nullptr, 1, 0, &Bench) == FILTER_STATUS_SUCCESS &&
           Bench != nullptr;
}

void Unload()
{
    SetFilterCount(0);
    Filter_DeregisterDriver(Bench);
    NdisHookCloseAdapter(Adapter);
    NdisHookUnload(Hook);
    HkUnloadDriver(Framework);
}

} // namespace

int main(int argc, char **argv)
{
    if (!Load()) {
        std::fprintf(stderr, "packet-path-bench: the drivers did not load\n");
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
