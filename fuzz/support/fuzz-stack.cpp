/* fuzz-stack.cpp - loading the drivers once and checking after each input (see fuzz-stack.h). */
#include "fuzz-stack.h"

#include <hostkernel.h>
#include <ndishook.h>

#include "example-firewall.h"
#include "example-flow-tracker.h"
#include "example-injector.h"
#include "example-tap.h"

#include <sched.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace nffuzz {

namespace {

const char ServicesKey[] = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\";
/* Debug lines kept for a failure report. */
const SIZE_T KeptDebugLines = 40;
/* How long queues may take to drain after an input. */
const auto SettleTimeout = std::chrono::seconds(10);

struct Client {
    const char *Image;
    const char *Service;
    PDRIVER_OBJECT Driver;
};

struct Stack {
    PDRIVER_OBJECT Framework = nullptr;
    PDRIVER_OBJECT Hook = nullptr;
    std::vector<NDIS_HOOK_ADAPTER_SETUP> Setups;
    std::vector<std::string> Names;
    std::vector<PFilterAdapter> Adapters;
    std::vector<ULONG> Ids;
    Client Clients[5] = {
        {NF_FUZZ_FIREWALL_IMAGE, EXAMPLE_FIREWALL_SERVICE_NAME, nullptr},
        {NF_FUZZ_INJECTOR_IMAGE, EXAMPLE_INJECTOR_SERVICE_NAME, nullptr},
        {NF_FUZZ_TAP_IMAGE, EXAMPLE_TAP_SERVICE_NAME, nullptr},
        {NF_FUZZ_EXAMPLE_FILTER_IMAGE, "ExampleFilter", nullptr},
        {NF_FUZZ_FLOW_TRACKER_IMAGE, EXAMPLE_FLOW_TRACKER_SERVICE_NAME, nullptr},
    };
};

Stack g_stack;

std::string Key(const char *service)
{
    return std::string(ServicesKey) + service;
}

void PrintFindingsAndTrace()
{
    for (const std::string &finding : hk::TakeVerifierFindings())
        fprintf(stderr, "verifier finding: %s\n", finding.c_str());
    std::vector<std::string> lines = hk::TakeCapturedDebugLines();
    if (!lines.empty())
        fprintf(stderr, "last debug lines:\n");
    for (const std::string &line : lines)
        fprintf(stderr, "  | %s\n", line.c_str());
}

/* At exit: unload in reverse order; the unload's own findings (leaks) fail the run. */
void UnloadStack()
{
    for (int i = (int)(sizeof(g_stack.Clients) / sizeof(g_stack.Clients[0])) - 1; i >= 0; i--)
        if (g_stack.Clients[i].Driver != nullptr)
            HkUnloadDriver(g_stack.Clients[i].Driver);
    if (g_stack.Hook != nullptr)
        NdisHookUnload(g_stack.Hook);
    if (g_stack.Framework != nullptr)
        HkUnloadDriver(g_stack.Framework);
    if (HkVerifierFindingCount() != 0) {
        fprintf(stderr, "==fuzz== verifier findings at unload\n");
        PrintFindingsAndTrace();
        fflush(stderr);
        _exit(1);
    }
}

} // namespace

void Fail(const char *format, ...)
{
    fprintf(stderr, "==fuzz== ");
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    fprintf(stderr, "\n");
    PrintFindingsAndTrace();
    fflush(stderr);
    abort();
}

void LoadStack(const StackOptions &options)
{
    /* Quiet unless HK_DEBUG_ECHO=1; the capture keeps only the lines a failure report shows. */
    const char *echo = getenv("HK_DEBUG_ECHO");
    HkDebugSetEcho(echo != nullptr && echo[0] == '1');
    HkDebugSetCaptureLimit(KeptDebugLines);

    HkRegistryReset();
    HkRegistrySetDword(Key("NdisFilter").c_str(), "GlobalDebugFlag", 0);
    NTSTATUS status = HkLoadDriver(DriverEntry, "NdisFilter", &g_stack.Framework);
    if (!NT_SUCCESS(status))
        Fail("the framework did not load: 0x%08X", (unsigned)status);
    status = NdisHookLoad(TRUE, &g_stack.Hook);
    if (!NT_SUCCESS(status) || !NdisHookIsBound())
        Fail("the hook driver did not load and bind: 0x%08X", (unsigned)status);

    g_stack.Setups.resize(options.Adapters);
    g_stack.Names.resize(options.Adapters * 2);
    for (int n = 1; n <= options.Adapters; n++) {
        NDIS_HOOK_ADAPTER_SETUP &setup = g_stack.Setups[n - 1];
        std::string &instance = g_stack.Names[2 * (n - 1)];
        std::string &device = g_stack.Names[2 * (n - 1) + 1];
        instance = "{0000000" + std::to_string(n) + "-1111-2222-3333-444455556666}";
        device = "\\DEVICE\\" + instance;
        setup = NDIS_HOOK_ADAPTER_SETUP();
        setup.DeviceName = device.c_str();
        setup.InstanceId = instance.c_str();
        setup.Description = " - Simulated Ethernet";
        const UCHAR mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, (UCHAR)n};
        for (int i = 0; i < 6; i++)
            setup.CurrentAddress[i] = setup.PermanentAddress[i] = mac[i];
        setup.Medium = NdisMedium802_3;
        PFilterAdapter adapter = NdisHookOpenAdapter(&setup);
        ULONG id = 0;
        if (adapter == nullptr || Filter_AdapterToId(adapter, &id) != FILTER_STATUS_SUCCESS)
            Fail("adapter %d did not open", n);
        g_stack.Adapters.push_back(adapter);
        g_stack.Ids.push_back(id);
    }

    if (options.Clients) {
        /* Rules and ports that the seed frames meet: discards, consumed ICMP, DNS and HTTP (8080) copies. */
        HkRegistrySetString(Key(EXAMPLE_FIREWALL_SERVICE_NAME).c_str(), EXAMPLE_FIREWALL_RULES_VALUE,
                            "udp dst port 9999; in tcp src port 6667; out proto 47; src host 10.0.0.66");
        HkRegistrySetDword(Key(EXAMPLE_INJECTOR_SERVICE_NAME).c_str(), EXAMPLE_INJECTOR_PROTOCOL_VALUE, 1);
        HkRegistrySetString(Key(EXAMPLE_TAP_SERVICE_NAME).c_str(), EXAMPLE_TAP_PORTS_VALUE, "53,8080");
        HkRegistryCreateKey(Key("ExampleFilter").c_str());
        /* Flows age out every 10 ms once idle, so the table keeps changing under the frames. */
        HkRegistrySetDword(Key(EXAMPLE_FLOW_TRACKER_SERVICE_NAME).c_str(), EXAMPLE_FLOW_TRACKER_IDLE_VALUE, 0);
        HkRegistrySetDword(Key(EXAMPLE_FLOW_TRACKER_SERVICE_NAME).c_str(), EXAMPLE_FLOW_TRACKER_PERIOD_VALUE, 10);
        for (Client &client : g_stack.Clients) {
            status = HkLoadDriverImage(client.Image, client.Service, &client.Driver);
            if (!NT_SUCCESS(status))
                Fail("%s did not load from %s: 0x%08X", client.Service, client.Image, (unsigned)status);
        }
    }
    CheckAfterInput();
    atexit(UnloadStack);
}

PFilterAdapter Adapter(int index)
{
    return g_stack.Adapters.at(index);
}

ULONG AdapterId(int index)
{
    return g_stack.Ids.at(index);
}

int AdapterCount()
{
    return (int)g_stack.Adapters.size();
}

void Settle()
{
    auto quiet = [] { return Filter_GetInjectPacketCount() == 0 && NdisHookPacketsOutstanding() == 0; };
    if (quiet())
        return;
    const auto deadline = std::chrono::steady_clock::now() + SettleTimeout;
    for (int round = 0; !quiet(); round++) {
        if (std::chrono::steady_clock::now() >= deadline)
            Fail("packets not back after %lld s: %ld injected packets queued, %ld packets outstanding",
                 (long long)std::chrono::duration_cast<std::chrono::seconds>(SettleTimeout).count(),
                 (long)Filter_GetInjectPacketCount(), (long)NdisHookPacketsOutstanding());
        if (round < 100)
            sched_yield();
        else
            std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

void CheckAfterInput()
{
    Settle();
    if (HkVerifierFindingCount() != 0)
        Fail("verifier findings after the input");
    for (PFilterAdapter adapter : g_stack.Adapters)
        NdisHookClearDelivered(adapter);
}

std::vector<UCHAR> MakeFrame(const std::vector<UCHAR> &bytes, size_t length)
{
    std::vector<UCHAR> frame(length);
    for (size_t i = 0; i < length; i++)
        frame[i] = i < bytes.size() ? bytes[i] : (UCHAR)(i * 7 + 1);
    return frame;
}

} // namespace nffuzz

/* UndefinedBehaviorSanitizer reports with their stacks, like AddressSanitizer's. */
extern "C" __attribute__((visibility("default"), used)) const char *__ubsan_default_options()
{
    return "print_stacktrace=1";
}
