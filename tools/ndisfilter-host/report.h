/*
 * report.h - what a run found, the checks that make it clean, and the
 * summary printed on stdout.
 */
#pragma once

#include "adapters.h"
#include "control-plane.h"
#include "application.h"
#include "drivers.h"
#include "flows.h"

#include <string>
#include <utility>
#include <vector>

namespace host {

struct RunReport {
    const Adapters *ReplayAdapters = nullptr;
    bool Ran = false; /* the drivers loaded and the traffic part ran */
    bool Examples = true; /* the example clients ran, so their counters can be balanced */
    bool HaveCounters = false;
    ClientCounters Counters = {};
    bool ApplicationStarted = false;
    ApplicationSide::Statistics Application;
    ULONG64 ApplicationFramesToProtocols = 0; /* of Application.SentToProtocols, per the run's plan */
    double ReplaySeconds = 0;
    unsigned long long ReplayWaits = 0; /* frames that waited for the hook driver's packets to come back */
    double DrainSeconds = 0;
    bool Drained = false;
    std::vector<std::string> Accounting;                  /* the balance lines */
    std::vector<std::pair<std::string, size_t>> Captures; /* written path, frames */
    std::vector<std::pair<std::string, size_t>> CaptureLogs; /* the framework's capture files, frames they hold */
    int64_t CaptureLogsStarted = 0; /* microseconds since 1970 */
    int64_t CaptureLogsStopped = 0;
    std::vector<std::string> Problems;                    /* anything that makes the run unclean */
    std::vector<std::string> Findings;                    /* the runtime's verifier findings */
    bool HaveFlows = false;
    FlowTable Flows; /* the flow tracker's table, through its control request */
    std::vector<ControlAnswer> ControlPlane; /* events and diagnostics, as ndisfilterctl shows them */
};

/*
 * The balance of the run: every frame that went in came out where the
 * filters' counters say (discarded by the firewall, delivered otherwise),
 * and the application received the tap's copies and its own loop-backs.
 * The lines go to the report's accounting, mismatches to its problems.
 */
void CheckAccounting(RunReport *report);

/* The summary; the last line says whether the run was clean. */
void PrintReport(const RunReport &report);

} // namespace host
