/*
 * ndisfilter-host - the framework at work on real traffic, on the host.
 *
 * Loads the framework, the simulated hook driver (bound) and the example
 * clients (firewall, injector, tap); opens one adapter per capture file;
 * runs the user program's side on the shared rings in a thread of its own
 * (it receives what the tap copies, sends a few frames toward the protocols
 * and a few back to itself); replays the captures (frames from the
 * adapter's own MAC are sent by its protocols, the others arrive from the
 * wire); waits until every queue and ring is drained; prints a summary and
 * writes what reached the wire, the protocols and the application as pcap
 * files. Exit status 0 only when the run was clean: no verifier finding,
 * every packet back with the hook driver, and the accounting balanced.
 *
 * With --daemon it runs no traffic of its own: it opens the adapters and
 * serves the control device to user programs in other processes (daemon.h)
 * until it is told to stop, then unloads and reports.
 *
 * The drivers' trace goes to stderr (--quiet turns it off), the summary to stdout.
 */
#include <windows.h>
#include <ntddk.h>
#include <ndis.h>
#include <hostkernel.h>
#include <ndisfilter.h>
#include <ndishook.h>

#include "adapters.h"
#include "application.h"
#include "capture-logs.h"
#include "daemon.h"
#include "drivers.h"
#include "flows.h"
#include "live.h"
#include "options.h"
#include "report.h"

#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>
#include <thread>

namespace {

using host::Adapters;
using host::RunReport;

/* Longest wait for the queues and rings to drain after the replay. */
const auto DrainPatience = std::chrono::seconds(10);

/* Whether nothing is left in flight: injected-packet queues, packets out of the hook driver, both rings. */
bool Quiet(const host::ApplicationSide &application)
{
    return Filter_GetInjectPacketCount() == 0 && NdisHookPacketsOutstanding() == 0 && application.Idle();
}

/* Waits for two quiet looks in a row (a worker may be between them); FALSE after DrainPatience. */
bool WaitUntilDrained(const host::ApplicationSide &application)
{
    const auto deadline = std::chrono::steady_clock::now() + DrainPatience;
    int quietLooks = 0;
    while (quietLooks < 2) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        quietLooks = Quiet(application) ? quietLooks + 1 : 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(quietLooks == 0 ? 1 : 5));
    }
    return true;
}

/*
 * SendFromApplication - per adapter, the first `perAdapter` frames of its
 * capture that arrived from the wire go to the protocols; then the first
 * `loopback` frames of the first capture go back to the application.
 * Returns the number sent toward the protocols.
 */
ULONG64 SendFromApplication(const host::Options &options, Adapters &adapters, host::ApplicationSide &application,
                            RunReport *report)
{
    ULONG64 toProtocols = 0;
    std::string error;
    for (auto &adapter : adapters) {
        for (const std::vector<UCHAR> &frame : host::FirstFrames(*adapter, options.AppSend, SHARED_BLOCK_FRAME_SIZE, true)) {
            if (!application.Send(adapter->Id, FILTER_DIRECTION_TO_PROTOCOL, frame, &error)) {
                report->Problems.push_back(error);
                return toProtocols;
            }
            toProtocols++;
        }
    }
    const host::ReplayAdapter &first = *adapters.front();
    for (const std::vector<UCHAR> &frame : host::FirstFrames(first, options.AppLoopback, SHARED_BLOCK_FRAME_SIZE, false)) {
        if (!application.Send(first.Id, FILTER_DIRECTION_TO_APPLICATION, frame, &error)) {
            report->Problems.push_back(error);
            break;
        }
    }
    return toProtocols;
}

/* Writes one capture into the output directory and records it in the report. */
void WriteOutput(const std::string &dir, const std::string &name, const std::vector<host::CapturedFrame> &frames,
                 RunReport *report)
{
    std::string path = dir + "/" + name + ".pcap";
    std::string error;
    if (!host::WriteCapture(path, frames, &error)) {
        report->Problems.push_back("cannot write " + path + ": " + error);
        return;
    }
    report->Captures.emplace_back(path, frames.size());
}

/* Runs everything between loading the drivers and unloading them; problems go to the report. */
void RunTraffic(const host::Options &options, host::DriverStack &drivers, Adapters &adapters, RunReport *report)
{
    std::string error;
    if (!host::OpenAdapters(adapters, &error)) {
        report->Problems.push_back(error);
        return;
    }

    /* What the adapters deliver is written as it comes, from now on. */
    const int64_t outputStart = (int64_t)std::time(nullptr);
    bool outputs = host::StartOutputs(adapters, options.OutputDir, outputStart, &error);
    if (!outputs)
        report->Problems.push_back(error);

    /* The framework's capture logs record the whole run, the application's frames included. */
    host::CaptureLogs logs;
    bool logging = logs.Prepare(options.CaptureLogDir, &error) && logs.Start(&error);
    if (!logging)
        report->Problems.push_back(error);

    host::ApplicationSide application;
    report->ApplicationStarted = application.Start(&error);
    if (!report->ApplicationStarted)
        report->Problems.push_back("application side: " + error);
    else
        report->ApplicationFramesToProtocols = SendFromApplication(options, adapters, application, report);

    host::ReplayResult replay = host::Replay(adapters, !options.Quiet);
    report->ReplaySeconds = replay.Seconds;
    report->ReplayWaits = replay.Waits;
    if (!replay.Ok)
        report->Problems.push_back(replay.Error);

    auto drainStart = std::chrono::steady_clock::now();
    report->Drained = WaitUntilDrained(application);
    report->DrainSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - drainStart).count();
    if (!report->Drained) {
        char text[128];
        std::snprintf(text, sizeof(text), "not drained: %d injected packets queued, %d packets out of the hook driver",
                      (int)Filter_GetInjectPacketCount(), (int)NdisHookPacketsOutstanding());
        report->Problems.push_back(text);
    }

    if (logging && !logs.Stop(&error)) {
        report->Problems.push_back(error);
        logging = false;
    }

    application.Finish();
    if (report->ApplicationStarted) {
        report->Application = application.Stats();
        if (report->Application.ReceiverFailed)
            report->Problems.push_back("application receiver: " + report->Application.ReceiverError);
    }

    /* Each medium goes down and up once: the adapter monitor reports both and asks the counters anew. */
    for (auto &adapter : adapters) {
        NdisHookSetMediaConnected(adapter->Handle, FALSE);
        NdisHookSetMediaConnected(adapter->Handle, TRUE);
    }
    auto requestsStart = std::chrono::steady_clock::now();
    while (NdisHookPendingRequests() != 0 &&
           std::chrono::steady_clock::now() - requestsStart < std::chrono::seconds(10))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (NdisHookPendingRequests() != 0)
        report->Problems.push_back("NDIS requests still pending on the hook driver");

    report->HaveCounters = options.Examples && drivers.ReadCounters(&report->Counters, &error);
    if (options.Examples && !report->HaveCounters)
        report->Problems.push_back(error);
    report->HaveFlows = options.Examples && host::ListFlows(&report->Flows, &error);
    if (options.Examples && !report->HaveFlows)
        report->Problems.push_back(error);
    if (options.Examples) {
        report->ControlPlane = host::AskControlPlane();
        for (const host::ControlAnswer &answer : report->ControlPlane)
            if (answer.Status != 0)
                report->Problems.push_back("ndisfilterctl " + answer.Command + " failed: " + answer.Output);
    }

    host::StopOutputs(adapters, &report->Captures, &report->Problems);
    mkdir(options.OutputDir.c_str(), 0755);
    if (report->ApplicationStarted) {
        std::vector<host::CapturedFrame> frames = application.Frames();
        host::StampFrames(&frames, outputStart);
        WriteOutput(options.OutputDir, "to-application", frames, report);
    }
    if (logging) {
        report->CaptureLogs = logs.Files(adapters, report->Application, &report->Problems);
        report->CaptureLogsStarted = logs.StartedAt();
        report->CaptureLogsStopped = logs.StoppedAt();
    }
    host::CheckAccounting(report);
}

} // namespace

int main(int argc, char **argv)
{
    host::Options options;
    std::string error;
    if (!host::ParseOptions(argc, argv, &options, &error)) {
        if (!error.empty())
            std::fprintf(stderr, "ndisfilter-host: %s\n", error.c_str());
        host::PrintUsage();
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IONBF, 0); /* keep the summary in step with the trace on stderr */
    HkDebugSetEcho(options.Quiet ? FALSE : TRUE);
    if (!options.Live.empty())
        return host::RunLive(options);

    Adapters adapters;
    if (!host::ReadCaptures(options.Captures, &adapters, &error)) {
        std::fprintf(stderr, "ndisfilter-host: %s\n", error.c_str());
        return 2;
    }

    if (options.Daemon) {
        host::DaemonReport daemon;
        {
            host::DriverStack drivers;
            if (drivers.Load(options, &error))
                host::ServeDaemon(options, adapters, &daemon);
            else
                daemon.Problems.push_back(error);
            drivers.UnloadClients();
            host::CloseAdapters(adapters);
            drivers.Unload();
        }
        std::vector<std::string> findings = hk::TakeVerifierFindings();
        host::PrintDaemonReport(adapters, daemon, findings);
        return daemon.Problems.empty() && findings.empty() ? 0 : 1;
    }

    RunReport report;
    report.ReplayAdapters = &adapters;
    report.Examples = options.Examples;
    {
        host::DriverStack drivers;
        if (drivers.Load(options, &error)) {
            std::printf("framework, hook driver and %s loaded\n",
                        options.Examples ? "example clients" : "named client drivers");
            report.Ran = true;
            RunTraffic(options, drivers, adapters, &report);
        } else {
            report.Problems.push_back(error);
        }
        drivers.UnloadClients();
        host::CloseAdapters(adapters);
        drivers.Unload();
    }
    report.Findings = hk::TakeVerifierFindings();
    host::PrintReport(report);
    return report.Problems.empty() && report.Findings.empty() ? 0 : 1;
}
