/*
 * drivers.h - the drivers of a run: the framework, the simulated hook driver
 * (bound) and the five example clients (and the collector with --collector) loaded from their images, with the
 * service keys filled from the options first, then the client driver images
 * named with --driver (or only those, with --no-examples).
 */
#pragma once

#include <windows.h>
#include <ntddk.h>
#include <ndis.h>

#include "example-collector.h"
#include "example-firewall.h"
#include "example-flow-tracker.h"
#include "example-injector.h"
#include "example-monitor.h"
#include "example-tap.h"
#include "options.h"

#include <string>
#include <vector>

namespace host {

struct ClientCounters {
    EXAMPLE_FIREWALL_COUNTERS Firewall;
    EXAMPLE_INJECTOR_COUNTERS Injector;
    EXAMPLE_TAP_COUNTERS Tap;
    EXAMPLE_MONITOR_COUNTERS Monitor;
    bool HaveCollector;
    EXAMPLE_COLLECTOR_COUNTERS Collector;
    EXAMPLE_FLOW_TRACKER_COUNTERS FlowTracker;
};

class DriverStack {
public:
    DriverStack() = default;
    ~DriverStack() { Unload(); }
    DriverStack(const DriverStack &) = delete;
    DriverStack &operator=(const DriverStack &) = delete;

    /* Loads everything in order; FALSE with `error` set at the first failure (what loaded stays). */
    bool Load(const Options &options, std::string *error);
    /* The clients' counters, through the functions their images export. */
    bool ReadCounters(ClientCounters *counters, std::string *error) const;
    /* Unloads in reverse order: clients, hook driver, framework. */
    void Unload();
    /* Only the clients (their counters are gone afterwards). */
    void UnloadClients();

private:
    bool LoadNamed(const Options &options, std::string *error);

    struct Client {
        const char *Image;
        const char *Service;
        PDRIVER_OBJECT Driver;
    };

    /* The drivers named with --driver, in loading order. */
    std::vector<PDRIVER_OBJECT> m_named;
    PDRIVER_OBJECT m_framework = nullptr;
    PDRIVER_OBJECT m_hook = nullptr;
    PDRIVER_OBJECT m_collector = nullptr; /* loaded only with --collector */
    /* The firewall first: it hears of the flow tracker's interface when the tracker publishes it. */
    Client m_clients[5] = {
        {NF_HOST_FIREWALL_IMAGE, EXAMPLE_FIREWALL_SERVICE_NAME, nullptr},
        {NF_HOST_INJECTOR_IMAGE, EXAMPLE_INJECTOR_SERVICE_NAME, nullptr},
        {NF_HOST_TAP_IMAGE, EXAMPLE_TAP_SERVICE_NAME, nullptr},
        {NF_HOST_MONITOR_IMAGE, EXAMPLE_MONITOR_SERVICE_NAME, nullptr},
        {NF_HOST_FLOW_TRACKER_IMAGE, EXAMPLE_FLOW_TRACKER_SERVICE_NAME, nullptr},
    };
};

} // namespace host
