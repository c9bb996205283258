/* live.cpp - the host program on live traffic (see live.h). */
#include <windows.h>
#include <ntddk.h>
#include <ndis.h>
#include <hostkernel.h>
#include <ndisfilter.h>
#include <ndishook-live.h>

#include "live.h"
#include "application.h"
#include "capture-files.h"
#include "capture-logs.h"
#include "control-plane.h"
#include "daemon.h"
#include "ctl.h"
#include "drivers.h"

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace host {

namespace {

using LiveAdapters = std::vector<std::unique_ptr<ndishook::LiveAdapter>>;

/* "<iface>:<tap>[@<netns>]" as the options checked it. */
ndishook::LiveSetup ParseLive(const std::string &spec)
{
    ndishook::LiveSetup setup;
    size_t colon = spec.find(':');
    size_t at = spec.find('@', colon);
    setup.Wire = spec.substr(0, colon);
    setup.Tap = spec.substr(colon + 1, at == std::string::npos ? std::string::npos : at - colon - 1);
    if (at != std::string::npos)
        setup.Netns = spec.substr(at + 1);
    return setup;
}

/* Hex digits (spaces and ':' ignored) to bytes; empty when the text is not an even run of them. */
std::vector<unsigned char> ParseHex(const std::string &text)
{
    std::vector<unsigned char> bytes;
    int high = -1;
    for (char c : text) {
        if (c == ' ' || c == ':')
            continue;
        int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
        if (digit < 0)
            return {};
        if (high < 0) {
            high = digit;
        } else {
            bytes.push_back((unsigned char)(high * 16 + digit));
            high = -1;
        }
    }
    return high < 0 ? bytes : std::vector<unsigned char>();
}

std::string Address(ULONG networkOrder)
{
    const UCHAR *b = reinterpret_cast<const UCHAR *>(&networkOrder);
    char text[16];
    std::snprintf(text, sizeof(text), "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
    return text;
}

/* Waits for SIGINT or SIGTERM (blocked in every thread), or for the duration when one is given. */
const char *WaitForStop(const sigset_t &stop, unsigned seconds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        siginfo_t info;
        timespec slice = {1, 0};
        int signal = sigtimedwait(&stop, &info, &slice);
        if (signal == SIGINT)
            return "SIGINT";
        if (signal == SIGTERM)
            return "SIGTERM";
        if (seconds != 0 && std::chrono::steady_clock::now() >= deadline)
            return "the end of --duration";
    }
}

/* Whether nothing is in flight: injected-packet queues, packets out of the hook driver, both rings. */
bool Drained(const ApplicationSide *application)
{
    for (int quietLooks = 0, tries = 0; tries < 10000; tries++) {
        bool quiet = Filter_GetInjectPacketCount() == 0 && NdisHookPacketsOutstanding() == 0 &&
                     (application == nullptr || application->Idle());
        quietLooks = quiet ? quietLooks + 1 : 0;
        if (quietLooks == 2)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

/* Every capture log the framework left in `directory`, with the frames tshark will find in it. */
void ListCaptureLogs(const std::string &directory, std::vector<std::string> *problems)
{
    std::vector<std::string> names;
    if (DIR *dir = opendir(directory.c_str())) {
        while (struct dirent *entry = readdir(dir)) {
            std::string name = entry->d_name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".eth") == 0)
                names.push_back(name);
        }
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) {
        size_t frames = 0;
        std::string error;
        if (!CountFrames(directory + "/" + name, &frames, &error))
            problems->push_back("capture log " + name + ": " + error);
        else
            std::printf("capture log: %s/%s: %zu frames\n", directory.c_str(), name.c_str(), frames);
    }
}

ULONG Sum(const ULONG *values, size_t count)
{
    ULONG total = 0;
    for (size_t i = 0; i < count; i++)
        total += values[i];
    return total;
}

/* Everything between loading the drivers and unloading them. */
void RunAdapters(const Options &options, const sigset_t &stop, DriverStack &drivers, LiveAdapters &adapters,
                 std::vector<std::string> *problems)
{
    std::string error;
    for (const std::string &spec : options.Live) {
        std::unique_ptr<ndishook::LiveAdapter> adapter = ndishook::LiveAdapter::Open(ParseLive(spec), &error);
        if (adapter == nullptr) {
            problems->push_back(error);
            return;
        }
        ULONG id = 0;
        Filter_AdapterToId(adapter->Handle(), &id);
        const FilterAdapter *record = adapter->Handle();
        const UCHAR *mac = adapter->Mac();
        std::printf("live adapter %u: %s, MAC %02X-%02X-%02X-%02X-%02X-%02X, MTU %u, media %s", (unsigned)id,
                    adapter->Name().c_str(), mac[0], mac[1], mac[2], mac[3], mac[4], mac[5], adapter->Mtu(),
                    record->m_nAdapterMediaState == NdisMediaStateConnected ? "connected" : "disconnected");
        for (ULONG i = 0; i < record->m_IPConfig.m_nIP; i++)
            std::printf(", IP %s/%s", Address(record->m_IPConfig.m_IP[i].IpAddress).c_str(),
                        Address(record->m_IPConfig.m_IP[i].Netmask).c_str());
        for (ULONG i = 0; i < record->m_IPConfig.m_nGW; i++)
            std::printf(", gateway %s", Address(record->m_IPConfig.RouterAddr[i]).c_str());
        std::printf("\n");
        adapters.push_back(std::move(adapter));
    }

    if (options.Examples) {
        std::vector<const char *> command = {"ndisfilterctl", "adapters"};
        std::ostringstream out;
        int status = nfctl::Run((int)command.size(), command.data(), out, out);
        std::printf("$ ndisfilterctl adapters\n%s", out.str().c_str());
        if (status != 0)
            problems->push_back("ndisfilterctl adapters failed");
    }

    /* As a daemon, user programs in other processes take the share and start the capture logs. */
    CaptureLogs logs;
    bool logging = false;
    if (!logs.Prepare(options.CaptureLogDir, &error))
        problems->push_back(error);
    else if (!options.Daemon && !(logging = logs.Start(&error)))
        problems->push_back(error);
    ApplicationSide application;
    bool applicationStarted = !options.Daemon && application.Start(&error);
    if (!options.Daemon && !applicationStarted)
        problems->push_back("application side: " + error);
    ULONG firstId = 0;
    Filter_AdapterToId(adapters.front()->Handle(), &firstId);
    for (const std::string &hex : options.LiveAppFrames) {
        std::vector<unsigned char> frame = ParseHex(hex);
        if (frame.size() < 14 || frame.size() > SHARED_BLOCK_FRAME_SIZE)
            problems->push_back("--app-frame is not a frame in hex: " + hex);
        else if (applicationStarted && !application.Send(firstId, FILTER_DIRECTION_TO_ADAPTER, frame, &error))
            problems->push_back(error);
    }

    const auto started = std::chrono::steady_clock::now();
    const char *why = "SIGINT or SIGTERM";
    if (options.Daemon) {
        DaemonReport daemon;
        Adapters none;
        ServeDaemon(options, none, &daemon);
        problems->insert(problems->end(), daemon.Problems.begin(), daemon.Problems.end());
    } else {
        std::printf("running on %zu live adapter(s) until SIGINT or SIGTERM", adapters.size());
        if (options.DurationSeconds != 0)
            std::printf(" or %u s", options.DurationSeconds);
        std::printf("\n");
        why = WaitForStop(stop, options.DurationSeconds);
    }
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::printf("stopping on %s after %.1f s\n", why, seconds);

    /* No new frames; what is in flight still reaches the devices, then the adapters close. */
    for (auto &adapter : adapters)
        adapter->StopReading();
    if (!Drained(options.Daemon ? nullptr : &application))
        problems->push_back("not drained: " + std::to_string(Filter_GetInjectPacketCount()) +
                            " injected packets queued, " + std::to_string(NdisHookPacketsOutstanding()) +
                            " packets out of the hook driver");
    if (logging && !logs.Stop(&error)) {
        problems->push_back(error);
        logging = false;
    }
    application.Finish();

    ndishook::LiveCounters total;
    bool anyGone = false;
    for (auto &adapter : adapters) {
        adapter->Close();
        ndishook::LiveCounters c = adapter->Counters();
        std::printf("%s: from wire %llu, from stack %llu, to wire %llu, to stack %llu, dropped oversize %llu, "
                    "write errors %llu, refused %llu, for other addresses %llu, link changes %llu%s%s\n",
                    adapter->Name().c_str(), (unsigned long long)c.FromWire, (unsigned long long)c.FromStack,
                    (unsigned long long)c.ToWire, (unsigned long long)c.ToStack, (unsigned long long)c.Oversize,
                    (unsigned long long)c.WriteErrors, (unsigned long long)c.Refused,
                    (unsigned long long)c.Foreign, (unsigned long long)c.LinkChanges, adapter->Gone() ? ", gone: " : "",
                    adapter->Gone() ? adapter->GoneReason().c_str() : "");
        anyGone |= adapter->Gone();
        total.FromWire += c.FromWire;
        total.FromStack += c.FromStack;
        total.ToWire += c.ToWire;
        total.ToStack += c.ToStack;
        total.WriteErrors += c.WriteErrors;
    }

    ApplicationSide::Statistics app = application.Stats();
    if (applicationStarted) {
        std::printf("application: received %llu frames (%llu read completions), sent %llu to the wire\n",
                    (unsigned long long)app.Received, (unsigned long long)app.ReadsCompleted,
                    (unsigned long long)app.SentToAdapter);
        if (app.ReceiverFailed)
            problems->push_back("application receiver: " + app.ReceiverError);
    }

    ClientCounters counters = {};
    if (options.Examples) {
        if (!drivers.ReadCounters(&counters, &error)) {
            problems->push_back(error);
        } else {
            const size_t chains = EXAMPLE_CHAIN_COUNT;
            std::printf("firewall: inspected %u, discarded %u; injector: consumed %u, reinjected %u; tap: copied %u\n",
                        (unsigned)Sum(counters.Firewall.Inspected, chains),
                        (unsigned)Sum(counters.Firewall.Discarded, chains),
                        (unsigned)Sum(counters.Injector.Consumed, chains),
                        (unsigned)Sum(counters.Injector.Reinjected, chains),
                        (unsigned)Sum(counters.Tap.Indicated, chains));
            for (ULONG r = 0; r < counters.Firewall.RuleCount && r < EXAMPLE_FIREWALL_MAX_RULES; r++)
                std::printf("firewall rule \"%s\": discarded %u\n", counters.Firewall.Rules[r].Text,
                            (unsigned)Sum(counters.Firewall.Rules[r].Matches, chains));
            /* Every frame that came in left once: delivered, refused by a device or discarded. An adapter that
             * went away drops what was in flight for it, so the balance holds only for a run without one. */
            unsigned long long in = total.FromWire + total.FromStack + app.SentToAdapter;
            unsigned long long out = total.ToWire + total.ToStack + total.WriteErrors +
                                     Sum(counters.Firewall.Discarded, chains) +
                                     Sum(counters.Injector.InjectFailed, chains);
            /* As a daemon, what user programs sent through the rings is not known here. */
            const char *unchecked = anyGone          ? "; not checked: an adapter went away"
                                    : options.Daemon ? "; not checked: user programs sent what they sent"
                                                     : "";
            std::printf("balance: %llu frames in, %llu out (delivered, refused by a device or discarded)%s\n", in,
                        out, unchecked);
            if (*unchecked == 0 && in != out)
                problems->push_back("balance: " + std::to_string(in) + " frames in, " + std::to_string(out) + " out");
        }
        for (const ControlAnswer &answer : options.Daemon ? std::vector<ControlAnswer>() : AskControlPlane()) {
            std::printf("$ ndisfilterctl %s\n%s", answer.Command.c_str(), answer.Output.c_str());
            if (answer.Status != 0)
                problems->push_back("ndisfilterctl " + answer.Command + " failed");
        }
    }
    if (logging || options.Daemon)
        ListCaptureLogs(options.CaptureLogDir, problems);

    NDIS_HOOK_STATISTICS hook;
    NdisHookGetStatistics(&hook);
    std::printf("hook driver: %u packets handed out, %u freed, %u injected, %d outstanding\n",
                (unsigned)hook.PacketsHandedOut, (unsigned)hook.PacketsFreed, (unsigned)hook.PacketsInjected,
                (int)hook.PacketsOutstanding);
    if (hook.PacketsOutstanding != 0 || hook.PacketsHandedOut != hook.PacketsFreed + hook.PacketsInjected)
        problems->push_back("packets not back with the hook driver");
}

} // namespace

int RunLive(const Options &options)
{
    /* Every thread started from here on inherits the mask: only the wait below takes the signals. */
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    if (!options.Daemon) /* the daemon takes them through handlers of its own */
        pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    std::vector<std::string> problems;
    {
        DriverStack drivers;
        LiveAdapters adapters;
        std::string error;
        if (drivers.Load(options, &error)) {
            std::printf("framework, hook driver and %s loaded\n",
                        options.Examples ? "example clients" : "named client drivers");
            RunAdapters(options, stop, drivers, adapters, &problems);
        } else {
            problems.push_back(error);
        }
        drivers.UnloadClients();
        adapters.clear();
        drivers.Unload();
    }
    std::vector<std::string> findings = hk::TakeVerifierFindings();
    for (const std::string &finding : findings)
        std::printf("verifier: %s\n", finding.c_str());
    std::printf("%zu verifier findings\n", findings.size());
    for (const std::string &problem : problems)
        std::printf("problem: %s\n", problem.c_str());
    bool clean = problems.empty() && findings.empty();
    std::printf("result: %s\n", clean ? "clean" : "NOT clean");
    return clean ? 0 : 1;
}

} // namespace host
