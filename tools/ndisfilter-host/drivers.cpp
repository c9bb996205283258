/* drivers.cpp - loading and unloading the drivers of a run (see drivers.h). */
#include "drivers.h"
#include "locate.h"

#include <hostkernel.h>
#include <ndisfilter.h>
#include <ndishook.h>

#include <dlfcn.h>

#include <cstdio>

EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace host {

namespace {

const char FrameworkService[] = "NdisFilter";

std::string ServiceKey(const char *service)
{
    return std::string("\\Registry\\Machine\\System\\CurrentControlSet\\Services\\") + service;
}

std::string StatusText(NTSTATUS status)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", (unsigned)status);
    return text;
}

/* Fills the clients' service keys: a setting the options leave open is removed, so the default applies. */
void WriteClientSettings(const Options &options)
{
    std::string firewall = ServiceKey(EXAMPLE_FIREWALL_SERVICE_NAME);
    HkRegistryCreateKey(firewall.c_str());
    if (options.HaveRules)
        HkRegistrySetString(firewall.c_str(), EXAMPLE_FIREWALL_RULES_VALUE, options.Rules.c_str());
    else
        HkRegistryDeleteValue(firewall.c_str(), EXAMPLE_FIREWALL_RULES_VALUE);

    std::string injector = ServiceKey(EXAMPLE_INJECTOR_SERVICE_NAME);
    HkRegistryCreateKey(injector.c_str());
    if (options.InjectProtocol >= 0)
        HkRegistrySetDword(injector.c_str(), EXAMPLE_INJECTOR_PROTOCOL_VALUE, (ULONG)options.InjectProtocol);
    else
        HkRegistryDeleteValue(injector.c_str(), EXAMPLE_INJECTOR_PROTOCOL_VALUE);

    if (!options.CollectorAddress.empty()) {
        std::string collector = ServiceKey(EXAMPLE_COLLECTOR_SERVICE_NAME);
        HkRegistryCreateKey(collector.c_str());
        HkRegistrySetString(collector.c_str(), EXAMPLE_COLLECTOR_ADDRESS_VALUE, options.CollectorAddress.c_str());
        HkRegistrySetDword(collector.c_str(), EXAMPLE_COLLECTOR_PORT_VALUE, options.CollectorPort);
    }
    HkRegistryCreateKey(ServiceKey(EXAMPLE_FLOW_TRACKER_SERVICE_NAME).c_str());

    std::string tap = ServiceKey(EXAMPLE_TAP_SERVICE_NAME);
    HkRegistryCreateKey(tap.c_str());
    if (!options.TapPorts.empty())
        HkRegistrySetString(tap.c_str(), EXAMPLE_TAP_PORTS_VALUE, options.TapPorts.c_str());
    else
        HkRegistryDeleteValue(tap.c_str(), EXAMPLE_TAP_PORTS_VALUE);
}

/* The address of `symbol` in the loaded image `path`, or nullptr. The image stays loaded by its driver. */
void *FindExport(const char *path, const char *symbol)
{
    void *image = dlopen(ExampleImage(path).c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (image == nullptr)
        return nullptr;
    void *address = dlsym(image, symbol);
    dlclose(image);
    return address;
}

} // namespace

/*
 * Load - the framework (GlobalDebugFlag from the options) by its
 * DriverEntry, the hook driver bound at load, then the clients from their
 * images. A client whose DriverEntry fails is discarded and named.
 */
bool DriverStack::Load(const Options &options, std::string *error)
{
    std::string frameworkKey = ServiceKey(FrameworkService);
    HkRegistryCreateKey(frameworkKey.c_str());
    HkRegistrySetDword(frameworkKey.c_str(), "GlobalDebugFlag", options.DebugMask);
    NTSTATUS status = HkLoadDriver(DriverEntry, FrameworkService, &m_framework);
    if (!NT_SUCCESS(status)) {
        if (m_framework != nullptr)
            HkDiscardDriver(m_framework);
        m_framework = nullptr;
        *error = "the framework's DriverEntry failed, status " + StatusText(status);
        return false;
    }

    status = NdisHookLoad(TRUE, &m_hook);
    if (!NT_SUCCESS(status) || !NdisHookIsBound()) {
        if (NT_SUCCESS(status))
            NdisHookUnload(m_hook);
        m_hook = nullptr;
        *error = "the hook driver did not load and bind, status " + StatusText(status);
        return false;
    }

    WriteClientSettings(options);
    for (Client &client : m_clients) {
        if (!options.Examples)
            break;
        PDRIVER_OBJECT driver = nullptr;
        status = HkLoadDriverImage(ExampleImage(client.Image).c_str(), client.Service, &driver);
        if (!NT_SUCCESS(status)) {
            if (driver != nullptr)
                HkDiscardDriver(driver);
            *error = std::string(client.Service) + " did not load (" + client.Image + "), status " +
                     StatusText(status);
            return false;
        }
        client.Driver = driver;
    }
    if (!options.CollectorAddress.empty()) {
        status = HkLoadDriverImage(ExampleImage(NF_HOST_COLLECTOR_IMAGE).c_str(), EXAMPLE_COLLECTOR_SERVICE_NAME, &m_collector);
        if (!NT_SUCCESS(status)) {
            if (m_collector != nullptr)
                HkDiscardDriver(m_collector);
            m_collector = nullptr;
            *error = std::string(EXAMPLE_COLLECTOR_SERVICE_NAME) + " did not reach the collector at " +
                     options.CollectorAddress + ":" + std::to_string(options.CollectorPort) + ", status " +
                     StatusText(status);
            return false;
        }
    }
    return LoadNamed(options, error);
}

/* LoadNamed - the --driver images, each after its service key got the settings given for it. */
bool DriverStack::LoadNamed(const Options &options, std::string *error)
{
    for (const ClientImage &client : options.Drivers) {
        std::string key = ServiceKey(client.Service.c_str());
        HkRegistryCreateKey(key.c_str());
        for (const auto &setting : client.Strings)
            HkRegistrySetString(key.c_str(), setting.first.c_str(), setting.second.c_str());
        for (const auto &setting : client.Dwords)
            HkRegistrySetDword(key.c_str(), setting.first.c_str(), setting.second);
        PDRIVER_OBJECT driver = nullptr;
        NTSTATUS status = HkLoadDriverImage(client.Image.c_str(), client.Service.c_str(), &driver);
        if (!NT_SUCCESS(status)) {
            if (driver != nullptr)
                HkDiscardDriver(driver);
            *error = client.Service + " did not load (" + client.Image + "), status " + StatusText(status);
            return false;
        }
        m_named.push_back(driver);
    }
    return true;
}

bool DriverStack::ReadCounters(ClientCounters *counters, std::string *error) const
{
    auto firewall = (PEXAMPLE_FIREWALL_GET_COUNTERS)FindExport(NF_HOST_FIREWALL_IMAGE, EXAMPLE_FIREWALL_GET_COUNTERS);
    auto injector = (PEXAMPLE_INJECTOR_GET_COUNTERS)FindExport(NF_HOST_INJECTOR_IMAGE, EXAMPLE_INJECTOR_GET_COUNTERS);
    auto tap = (PEXAMPLE_TAP_GET_COUNTERS)FindExport(NF_HOST_TAP_IMAGE, EXAMPLE_TAP_GET_COUNTERS);
    auto flows = (PEXAMPLE_FLOW_TRACKER_GET_COUNTERS)FindExport(NF_HOST_FLOW_TRACKER_IMAGE,
                                                                EXAMPLE_FLOW_TRACKER_GET_COUNTERS);
    auto monitor = (PEXAMPLE_MONITOR_GET_COUNTERS)FindExport(NF_HOST_MONITOR_IMAGE, EXAMPLE_MONITOR_GET_COUNTERS);
    if (firewall == nullptr || injector == nullptr || tap == nullptr || monitor == nullptr ||
        flows == nullptr) {
        *error = "a client's counter function is missing";
        return false;
    }
    firewall(&counters->Firewall);
    injector(&counters->Injector);
    tap(&counters->Tap);
    flows(&counters->FlowTracker);
    monitor(&counters->Monitor);
    counters->HaveCollector = false;
    if (m_collector != nullptr) {
        auto collector = (PEXAMPLE_COLLECTOR_GET_COUNTERS)FindExport(NF_HOST_COLLECTOR_IMAGE,
                                                                     EXAMPLE_COLLECTOR_GET_COUNTERS);
        if (collector == nullptr) {
            *error = "the collector's counter function is missing";
            return false;
        }
        collector(&counters->Collector);
        counters->HaveCollector = true;
    }
    return true;
}

void DriverStack::UnloadClients()
{
    while (!m_named.empty()) {
        HkUnloadDriver(m_named.back());
        m_named.pop_back();
    }
    if (m_collector != nullptr) {
        HkUnloadDriver(m_collector);
        m_collector = nullptr;
    }
    for (int i = (int)(sizeof(m_clients) / sizeof(m_clients[0])) - 1; i >= 0; i--) {
        if (m_clients[i].Driver != nullptr) {
            HkUnloadDriver(m_clients[i].Driver);
            m_clients[i].Driver = nullptr;
        }
    }
}

void DriverStack::Unload()
{
    UnloadClients();
    if (m_hook != nullptr) {
        NdisHookUnload(m_hook);
        m_hook = nullptr;
    }
    if (m_framework != nullptr) {
        HkUnloadDriver(m_framework);
        m_framework = nullptr;
    }
}

} // namespace host
