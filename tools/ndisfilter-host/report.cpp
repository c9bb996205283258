/* report.cpp - the checks and the summary of a run (see report.h). */
#include "report.h"

#include <cstdio>
#include <string>

namespace host {

namespace {

const ULONG In = EXAMPLE_CHAIN_INCOMING;
const ULONG Out = EXAMPLE_CHAIN_OUTGOING;

/* An IPv4 address as it lies in a packet, in dotted form. */
std::string IpText(ULONG address)
{
    const UCHAR *b = (const UCHAR *)&address;
    char text[16];
    std::snprintf(text, sizeof(text), "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
    return text;
}

/* Records one balance line, and a problem when it does not balance. */
void Balance(RunReport *report, const char *what, unsigned long long expected, unsigned long long actual)
{
    bool equal = expected == actual;
    char line[160];
    std::snprintf(line, sizeof(line), "%-40s expected %llu, found %llu: %s", what, expected, actual,
                  equal ? "ok" : "MISMATCH");
    report->Accounting.push_back(line);
    if (!equal)
        report->Problems.push_back(std::string("accounting: ") + what);
}

/* The count kept under `key`, 0 when there is none. */
ULONG64 Count(const std::map<ULONG, ULONG64> &map, ULONG key)
{
    auto it = map.find(key);
    return it == map.end() ? 0 : it->second;
}

} // namespace

void CheckAccounting(RunReport *report)
{
    unsigned long long received = 0, sent = 0, toProtocols = 0, toWire = 0;
    for (const auto &adapter : *report->ReplayAdapters) {
        received += adapter->Received;
        sent += adapter->Sent;
        toProtocols += adapter->ToProtocols.Frames();
        toWire += adapter->ToWire.Frames();
    }
    if (!report->Examples) {
        /* Only named drivers: what they do to frames is theirs to say; the loop-backs still hold. */
        if (report->ApplicationStarted)
            Balance(report, "looped back to the application", report->Application.SentLoopback,
                    Count(report->Application.ReceivedByDirection, FILTER_DIRECTION_TO_APPLICATION));
        return;
    }
    if (!report->HaveCounters) {
        report->Problems.push_back("accounting: no client counters");
        return;
    }
    const ClientCounters &c = report->Counters;
    Balance(report, "frames through the firewall, incoming", received, c.Firewall.Inspected[In]);
    Balance(report, "frames through the firewall, outgoing", sent, c.Firewall.Inspected[Out]);
    Balance(report, "delivered to the protocols",
            received - c.Firewall.Discarded[In] + report->ApplicationFramesToProtocols, toProtocols);
    Balance(report, "delivered to the wire", sent - c.Firewall.Discarded[Out], toWire);
    Balance(report, "injector: handed back into the queue",
            (unsigned long long)c.Injector.Consumed[In] + c.Injector.Consumed[Out],
            (unsigned long long)c.Injector.Reinjected[In] + c.Injector.Reinjected[Out]);
    /* The adapter monitor's last answers to the frame counters match what came out of each adapter. */
    for (const auto &adapter : *report->ReplayAdapters) {
        const EXAMPLE_MONITOR_ADAPTER *seen = nullptr;
        for (ULONG i = 0; i < c.Monitor.AdapterCount && i < EXAMPLE_MONITOR_MAX_ADAPTERS; i++)
            if (c.Monitor.Adapters[i].Id == adapter->Id)
                seen = &c.Monitor.Adapters[i];
        if (seen == nullptr) {
            report->Problems.push_back("monitor: adapter " + std::to_string(adapter->Id) + " not seen");
            continue;
        }
        std::string name = "monitor: adapter " + std::to_string(adapter->Id);
        Balance(report, (name + ", frames sent on the wire").c_str(), adapter->ToWire.Frames(),
                seen->Answers[EXAMPLE_MONITOR_XMIT_OK]);
        Balance(report, (name + ", frames received").c_str(), adapter->ToProtocols.Frames(),
                seen->Answers[EXAMPLE_MONITOR_RCV_OK]);
        if (seen->Failed != 0)
            report->Problems.push_back(name + ": NDIS requests failed");
    }
    if (report->ApplicationStarted) {
        const ApplicationSide::Statistics &a = report->Application;
        Balance(report, "received by the application",
                (unsigned long long)c.Tap.Indicated[In] + c.Tap.Indicated[Out] + a.SentLoopback, a.Received);
        Balance(report, "looped back to the application", a.SentLoopback,
                Count(a.ReceivedByDirection, FILTER_DIRECTION_TO_APPLICATION));
    }
}

namespace {

/* The traffic part of the summary: adapters, replay, clients, rings, balance and captures. */
void PrintTraffic(const RunReport &report)
{
    unsigned long long frames = 0;
    for (const auto &adapter : *report.ReplayAdapters) {
        const ReplayAdapter &a = *adapter;
        frames += a.Sent + a.Received;
        std::printf("adapter %u %s (%s): %zu frames, %u sent by its protocols, %u received, %u skipped\n",
                    (unsigned)a.Id, MacText(a.Mac).c_str(), a.CapturePath.c_str(), a.FrameCount, (unsigned)a.Sent,
                    (unsigned)a.Received, (unsigned)a.Skipped);
        std::printf("  out of the framework: %zu to the wire, %zu to the protocols\n", a.ToWire.Frames(),
                    a.ToProtocols.Frames());
        if (a.IpConfig.m_nIP != 0)
            std::printf("  IP configuration: %s mask %s, router %s\n", IpText(a.IpConfig.m_IP[0].IpAddress).c_str(),
                        IpText(a.IpConfig.m_IP[0].Netmask).c_str(), IpText(a.IpConfig.RouterAddr[0]).c_str());
    }
    double rate = report.ReplaySeconds > 0 ? (double)frames / report.ReplaySeconds : 0.0;
    std::printf("replay: %llu frames in %.1f ms (%.0f frames/s); queues and rings %s after %.1f ms more\n", frames,
                report.ReplaySeconds * 1000.0, rate, report.Drained ? "drained" : "NOT drained",
                report.DrainSeconds * 1000.0);
    std::printf("replay: waited %llu times for the hook driver's packets to come back\n", report.ReplayWaits);

    if (report.HaveCounters) {
        const ClientCounters &c = report.Counters;
        std::printf("firewall: %u rules; inspected in %u / out %u; discarded in %u / out %u\n",
                    (unsigned)c.Firewall.RuleCount, (unsigned)c.Firewall.Inspected[In],
                    (unsigned)c.Firewall.Inspected[Out], (unsigned)c.Firewall.Discarded[In],
                    (unsigned)c.Firewall.Discarded[Out]);
        for (ULONG i = 0; i < c.Firewall.RuleCount && i < EXAMPLE_FIREWALL_MAX_RULES; i++)
            std::printf("  rule %u \"%s\": in %u, out %u\n", (unsigned)(i + 1), c.Firewall.Rules[i].Text,
                        (unsigned)c.Firewall.Rules[i].Matches[In], (unsigned)c.Firewall.Rules[i].Matches[Out]);
        std::printf("injector: protocol %u; inspected in %u / out %u; consumed in %u / out %u; "
                    "handed back %u, refused %u\n",
                    (unsigned)c.Injector.Protocol, (unsigned)c.Injector.Inspected[In],
                    (unsigned)c.Injector.Inspected[Out], (unsigned)c.Injector.Consumed[In],
                    (unsigned)c.Injector.Consumed[Out], (unsigned)(c.Injector.Reinjected[In] + c.Injector.Reinjected[Out]),
                    (unsigned)(c.Injector.InjectFailed[In] + c.Injector.InjectFailed[Out]));
        std::printf("tap: ports");
        for (ULONG i = 0; i < c.Tap.PortCount && i < EXAMPLE_TAP_MAX_PORTS; i++)
            std::printf(" %u", (unsigned)c.Tap.Ports[i]);
        std::printf("; inspected in %u / out %u; copied to the application in %u / out %u; incomplete %u\n",
                    (unsigned)c.Tap.Inspected[In], (unsigned)c.Tap.Inspected[Out], (unsigned)c.Tap.Indicated[In],
                    (unsigned)c.Tap.Indicated[Out], (unsigned)(c.Tap.Incomplete[In] + c.Tap.Incomplete[Out]));
        if (c.HaveCollector)
            std::printf("collector: captured %u; sent udp %u / tcp %u; dropped %u, failed %u; "
                        "answered %u on port %u; connection %s\n",
                        (unsigned)c.Collector.Captured, (unsigned)c.Collector.SentUdp,
                        (unsigned)c.Collector.SentTcp, (unsigned)c.Collector.Dropped,
                        (unsigned)c.Collector.Failed, (unsigned)c.Collector.Answered,
                        (unsigned)c.Collector.AnswerPort, c.Collector.TcpConnected ? "up" : "down");
    }

    if (report.HaveCounters) {
        const EXAMPLE_MONITOR_COUNTERS &m = report.Counters.Monitor;
        std::printf("monitor: context slot %u; %u adapter events reported to the event queue\n", (unsigned)m.Slot,
                    (unsigned)m.Reported);
        for (ULONG i = 0; i < m.AdapterCount && i < EXAMPLE_MONITOR_MAX_ADAPTERS; i++) {
            const EXAMPLE_MONITOR_ADAPTER &a = m.Adapters[i];
            std::printf("  adapter %u %s: opened %u, media disconnected %u / connected %u, IP configuration %u, "
                        "closed %u\n",
                        (unsigned)a.Id, MacText(a.Mac).c_str(), (unsigned)a.Events[FILTER_EVENT_ADAPTER_OPENED],
                        (unsigned)a.Events[FILTER_EVENT_MEDIA_DISCONNECT],
                        (unsigned)a.Events[FILTER_EVENT_MEDIA_CONNECT],
                        (unsigned)a.Events[FILTER_EVENT_IPCONFIG_CHANGED],
                        (unsigned)a.Events[FILTER_EVENT_ADAPTER_CLOSED]);
            std::printf("    NDIS requests: link %llu Mbit/s, MTU %llu, %llu frames sent, %llu received; "
                        "%u answered (%u later), %u failed\n",
                        (unsigned long long)(a.Answers[EXAMPLE_MONITOR_LINK_SPEED] / 10000),
                        (unsigned long long)a.Answers[EXAMPLE_MONITOR_MTU],
                        (unsigned long long)a.Answers[EXAMPLE_MONITOR_XMIT_OK],
                        (unsigned long long)a.Answers[EXAMPLE_MONITOR_RCV_OK], (unsigned)a.Answered,
                        (unsigned)a.Pended, (unsigned)a.Failed);
        }
    }

    if (report.HaveCounters) {
        const EXAMPLE_FLOW_TRACKER_COUNTERS &f = report.Counters.FlowTracker;
        std::printf("flow tracker: inspected in %u / out %u; %u flows (%u created, %u aged, %u packets untracked); "
                    "firewall %s its interface, %u replies\n",
                    (unsigned)f.Inspected[In], (unsigned)f.Inspected[Out], (unsigned)f.Flows, (unsigned)f.Created,
                    (unsigned)f.Aged, (unsigned)f.Untracked,
                    report.Counters.Firewall.FlowInterface ? "holds" : "does not hold",
                    (unsigned)report.Counters.Firewall.Replies);
    }
    if (report.HaveFlows)
        PrintFlows(report.Flows);
    for (const ControlAnswer &answer : report.ControlPlane) {
        std::printf("$ ndisfilterctl %s\n", answer.Command.c_str());
        std::fputs(answer.Output.c_str(), stdout);
    }

    if (report.ApplicationStarted) {
        const ApplicationSide::Statistics &a = report.Application;
        std::printf("application ring: sent %llu blocks (%llu to the protocols, %llu to the wire, %llu looped back) "
                    "with %llu announcements\n",
                    (unsigned long long)(a.SentToProtocols + a.SentToAdapter + a.SentLoopback),
                    (unsigned long long)a.SentToProtocols, (unsigned long long)a.SentToAdapter,
                    (unsigned long long)a.SentLoopback, (unsigned long long)a.Announcements);
        std::printf("application ring: received %llu blocks in %llu read completions;",
                    (unsigned long long)a.Received, (unsigned long long)a.ReadsCompleted);
        for (const auto &entry : a.ReceivedByCode)
            std::printf(" code %u: %llu", (unsigned)entry.first, (unsigned long long)entry.second);
        std::printf("\n");
    }

    std::printf("accounting:\n");
    for (const std::string &line : report.Accounting)
        std::printf("  %s\n", line.c_str());
    for (const auto &capture : report.Captures)
        std::printf("pcap %s: %zu frames\n", capture.first.c_str(), capture.second);
    if (!report.CaptureLogs.empty())
        std::printf("capture logs: from %lld.%06lld to %lld.%06lld\n", (long long)(report.CaptureLogsStarted / 1000000),
                    (long long)(report.CaptureLogsStarted % 1000000), (long long)(report.CaptureLogsStopped / 1000000),
                    (long long)(report.CaptureLogsStopped % 1000000));
    for (const auto &log : report.CaptureLogs)
        std::printf("capture log %s: %zu frames\n", log.first.c_str(), log.second);
}

} // namespace

void PrintReport(const RunReport &report)
{
    if (report.Ran)
        PrintTraffic(report);
    for (const std::string &finding : report.Findings)
        std::printf("verifier: %s\n", finding.c_str());
    std::printf("%zu verifier findings\n", report.Findings.size());
    for (const std::string &problem : report.Problems)
        std::printf("problem: %s\n", problem.c_str());
    bool clean = report.Problems.empty() && report.Findings.empty();
    std::printf("result: %s\n", clean ? "clean" : "NOT clean");
}

} // namespace host
