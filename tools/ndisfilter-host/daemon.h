/* daemon.h - the host program serving the control device to other processes. */
#pragma once

#include "adapters.h"
#include "options.h"

#include <string>
#include <vector>

namespace host {

struct DaemonReport {
    unsigned Connections = 0;
    std::vector<ULONG64> ToWire;      /* per adapter, frames the hook driver put on the wire */
    std::vector<ULONG64> ToProtocols; /* and handed to the protocols */
    std::vector<std::string> Problems;
};

/*
 * Opens the adapters and serves the loaded drivers' devices at the bridge's
 * socket (options.SocketPath, else the default) until SIGINT or SIGTERM;
 * SIGUSR1 replays the captures. Returns once every connection is closed.
 */
void ServeDaemon(const Options &options, Adapters &adapters, DaemonReport *report);

/* The daemon's summary; its last line says whether the service was clean. */
void PrintDaemonReport(const Adapters &adapters, const DaemonReport &report, const std::vector<std::string> &findings);

} // namespace host
