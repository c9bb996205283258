/*
 * ctl-commands.cpp - the commands of ndisfilterctl: each opens the control
 * device, sends its requests and prints the replies or what went wrong.
 */
#include <windows.h>

#include "ctl.h"

#include <cstring>

namespace nfctl {

namespace {

using nfapp::ControlDevice;

const char *const ProgramName = "ndisfilterctl";

/* How long `events --follow` sleeps while the queue is empty, by default. */
const ULONG DefaultFollowIntervalMs = 200;
/* The most events the framework keeps queued at once. */
const ULONG MaxQueuedEvents = 1023;

struct Context {
    std::vector<std::string> Args; /* the command's words after its name */
    std::ostream &Out;
    std::ostream &Err;
    std::string Path;
    ControlDevice Device;
};

int Usage(Context &c, const std::string &message)
{
    c.Err << ProgramName << ": " << message << " (see " << ProgramName << " --help)\n";
    return ExitUsage;
}

int Failed(Context &c)
{
    c.Err << ProgramName << ": " << c.Device.LastFailure().Describe() << '\n';
    return ExitFailed;
}

/* Opens the control device once the command's arguments are known to be right. */
bool Ready(Context &c)
{
    if (c.Device.Open(c.Path.c_str()))
        return true;
    Failed(c);
    return false;
}

/* An adapter named by its id or by its MAC, as its id. */
bool ResolveId(Context &c, const std::string &text, ULONG *id)
{
    UCHAR mac[6];
    if (ParseMac(text, mac)) {
        if (c.Device.GetAdapterId(mac, id))
            return true;
        Failed(c);
        return false;
    }
    if (ParseNumber(text, id))
        return true;
    c.Err << ProgramName << ": \"" << text << "\" is neither an adapter id nor a MAC address\n";
    return false;
}

/* An adapter named by its id or by its MAC, as its current MAC. */
bool ResolveMac(Context &c, const std::string &text, UCHAR mac[6])
{
    if (ParseMac(text, mac))
        return true;
    ULONG id = 0;
    if (!ParseNumber(text, &id)) {
        c.Err << ProgramName << ": \"" << text << "\" is neither an adapter id nor a MAC address\n";
        return false;
    }
    std::vector<nfapp::AdapterEntry> adapters;
    if (!c.Device.GetTcpIpInterfaces(adapters)) {
        Failed(c);
        return false;
    }
    for (const nfapp::AdapterEntry &adapter : adapters) {
        if (adapter.Id == id) {
            std::memcpy(mac, adapter.CurrentAddress, 6);
            return true;
        }
    }
    c.Err << ProgramName << ": adapter " << id << ": adapter not found\n";
    return false;
}

int Version(Context &c)
{
    if (!c.Args.empty())
        return Usage(c, "version takes no arguments");
    if (!Ready(c))
        return ExitFailed;
    UCHAR major = 0, minor = 0;
    ULONG size = 0;
    if (!c.Device.GetVersion(&major, &minor) || !c.Device.GetSharedMemorySize(&size))
        return Failed(c);
    c.Out << "framework version " << (unsigned)major << '.' << (unsigned)minor << '\n';
    c.Out << "shared memory " << size << " bytes\n";
    return ExitOk;
}

int Adapters(Context &c)
{
    if (!c.Args.empty())
        return Usage(c, "adapters takes no arguments");
    if (!Ready(c))
        return ExitFailed;
    std::vector<nfapp::AdapterEntry> adapters;
    if (!c.Device.GetTcpIpInterfaces(adapters))
        return Failed(c);
    FormatAdapters(adapters, c.Out);
    return ExitOk;
}

int AdapterId(Context &c)
{
    UCHAR mac[6];
    if (c.Args.size() != 1 || !ParseMac(c.Args[0], mac))
        return Usage(c, "adapter-id takes one MAC address");
    if (!Ready(c))
        return ExitFailed;
    ULONG id = 0;
    if (!c.Device.GetAdapterId(mac, &id))
        return Failed(c);
    c.Out << "adapter " << id << '\n';
    return ExitOk;
}

/*
 * Events - prints and takes every queued event; with --follow keeps polling,
 * until --count events were printed when given. An event whose adapter the
 * framework could not name is lost: that is reported, and reading goes on.
 */
int Events(Context &c)
{
    bool follow = false;
    ULONG count = 0;
    ULONG interval = DefaultFollowIntervalMs;
    for (size_t i = 0; i < c.Args.size(); ++i) {
        const std::string &arg = c.Args[i];
        if (arg == "--follow" || arg == "-f")
            follow = true;
        else if ((arg == "--count" || arg == "--interval") && i + 1 < c.Args.size()) {
            ULONG value = 0;
            if (!ParseNumber(c.Args[++i], &value))
                return Usage(c, arg + " takes a number");
            (arg == "--count" ? count : interval) = value;
        } else
            return Usage(c, "events: unknown argument \"" + arg + "\"");
    }
    if (!Ready(c))
        return ExitFailed;
    ULONG printed = 0;
    ULONG dropped = 0; /* in a row: more than the queue can hold means the failure is not one record's */
    for (;;) {
        if (count != 0 && printed >= count)
            return ExitOk;
        nfapp::EventRecord event;
        bool got = false;
        if (!c.Device.GetEvent(event, &got)) {
            if (c.Device.LastFailure().Kind != nfapp::ControlFailure::InternalError || ++dropped > MaxQueuedEvents)
                return Failed(c);
            c.Err << ProgramName << ": an event was dropped: the framework could not name its adapter\n";
            continue;
        }
        dropped = 0;
        if (got) {
            FormatEvent(event, c.Out);
            ++printed;
            continue;
        }
        if (!follow) {
            if (printed == 0)
                c.Out << "no event\n";
            return ExitOk;
        }
        c.Out.flush();
        Sleep(interval);
    }
}

int ClearEvents(Context &c)
{
    if (!c.Args.empty())
        return Usage(c, "clear-events takes no arguments");
    if (!Ready(c))
        return ExitFailed;
    if (!c.Device.ClearEvents())
        return Failed(c);
    c.Out << "events cleared\n";
    return ExitOk;
}

/* Replaces the lists named on the command line in `config`; a usage message when a word is wrong. */
bool EditIpConfig(const std::vector<std::string> &words, nfapp::IpConfiguration &config, std::string &problem)
{
    bool replaced[5] = {false, false, false, false, false};
    static const char *const keys[5] = {"address", "gateway", "dhcp", "dns", "wins"};
    std::vector<ULONG> wins;
    for (size_t i = 0; i < words.size(); ++i) {
        if (words[i] == "clear") {
            ULONG carried = config.Carried;
            config = nfapp::IpConfiguration();
            config.Carried = carried;
            continue;
        }
        int key = -1;
        for (int k = 0; k < 5; ++k) {
            if (words[i] == keys[k])
                key = k;
        }
        if (key < 0 || i + 1 >= words.size()) {
            problem = key < 0 ? "ipconfig set: unknown word \"" + words[i] + "\""
                              : "ipconfig set: " + words[i] + " needs a value";
            return false;
        }
        const std::string &value = words[++i];
        std::vector<ULONG> *list[5] = {nullptr, &config.Gateways, &config.DhcpServers, &config.DnsServers, &wins};
        if (!replaced[key]) {
            replaced[key] = true;
            if (key == 0)
                config.Addresses.clear();
            else
                list[key]->clear();
        }
        if (key == 0) {
            nfapp::IpAddressTriple triple;
            if (!ParseAddressTriple(value, triple)) {
                problem = "ipconfig set: \"" + value + "\" is not ADDRESS/PREFIX, ADDRESS/MASK[/BROADCAST]";
                return false;
            }
            config.Addresses.push_back(triple);
        } else {
            ULONG address = 0;
            if (!ParseIpv4(value, &address)) {
                problem = "ipconfig set: \"" + value + "\" is not an IPv4 address";
                return false;
            }
            list[key]->push_back(address);
        }
        if (config.Addresses.size() > nfapp::IpConfigMaxEntries ||
            (list[key] != nullptr && list[key]->size() > nfapp::IpConfigMaxEntries)) {
            problem = std::string("ipconfig set: at most 8 of ") + keys[key];
            return false;
        }
    }
    if (replaced[4]) {
        if (wins.size() > 2) {
            problem = "ipconfig set: at most 2 wins servers";
            return false;
        }
        config.Wins1 = wins.size() > 0 ? wins[0] : 0;
        config.Wins2 = wins.size() > 1 ? wins[1] : 0;
    }
    return true;
}

/* IpConfig - "ipconfig ADAPTER" prints it; "ipconfig ADAPTER set ..." changes the lists it names. */
int IpConfig(Context &c)
{
    if (c.Args.empty() || (c.Args.size() > 1 && c.Args[1] != "set"))
        return Usage(c, "ipconfig takes an adapter, then optionally set and the new values");
    std::vector<std::string> words;
    if (c.Args.size() > 1) {
        words.assign(c.Args.begin() + 2, c.Args.end());
        nfapp::IpConfiguration trial;
        std::string problem;
        if (words.empty())
            return Usage(c, "ipconfig set needs at least one value");
        if (!EditIpConfig(words, trial, problem))
            return Usage(c, problem);
    }
    if (!Ready(c))
        return ExitFailed;
    ULONG id = 0;
    if (!ResolveId(c, c.Args[0], &id))
        return ExitFailed;
    nfapp::IpConfiguration config;
    if (!words.empty()) {
        if (!c.Device.GetIpConfig(id, config))
            return Failed(c);
        std::string problem;
        EditIpConfig(words, config, problem);
        if (!c.Device.SetIpConfig(id, config))
            return Failed(c);
    }
    if (!c.Device.GetIpConfig(id, config))
        return Failed(c);
    FormatIpConfig(id, config, c.Out);
    return ExitOk;
}

int Media(Context &c)
{
    if (c.Args.empty() || c.Args.size() > 2)
        return Usage(c, "media takes an adapter and optionally connected or disconnected");
    UCHAR state = 0;
    if (c.Args.size() == 2) {
        ULONG number = 0;
        if (c.Args[1] == "connected")
            state = nfapp::MediaStateConnected;
        else if (c.Args[1] == "disconnected")
            state = nfapp::MediaStateDisconnected;
        else if (ParseNumber(c.Args[1], &number) && number <= 0xFF)
            state = (UCHAR)number;
        else
            return Usage(c, "media state is connected, disconnected or a number up to 255");
    }
    UCHAR mac[6];
    if (!Ready(c) || !ResolveMac(c, c.Args[0], mac))
        return ExitFailed;
    if (c.Args.size() == 2 && !c.Device.SetMediaState(mac, state))
        return Failed(c);
    if (!c.Device.GetMediaState(mac, &state))
        return Failed(c);
    c.Out << FormatMac(mac) << " media " << MediaStateName(state) << " (" << (unsigned)state << ")\n";
    return ExitOk;
}

int PacketDump(Context &c)
{
    if (c.Args.empty() || c.Args.size() > 2 || (c.Args.size() == 2 && c.Args[1] != "on" && c.Args[1] != "off"))
        return Usage(c, "packet-dump takes an adapter and optionally on or off");
    UCHAR mac[6];
    if (!Ready(c) || !ResolveMac(c, c.Args[0], mac))
        return ExitFailed;
    if (c.Args.size() == 2 && !c.Device.SetPacketDump(mac, c.Args[1] == "on"))
        return Failed(c);
    bool on = false;
    if (!c.Device.GetPacketDump(mac, &on))
        return Failed(c);
    c.Out << FormatMac(mac) << " packet dump " << (on ? "on" : "off") << '\n';
    return ExitOk;
}

int Capture(Context &c)
{
    if (c.Args.size() != 1 || (c.Args[0] != "start" && c.Args[0] != "stop"))
        return Usage(c, "capture takes start or stop");
    if (!Ready(c))
        return ExitFailed;
    bool start = c.Args[0] == "start";
    if (!(start ? c.Device.StartCaptureLogs() : c.Device.StopCaptureLogs()))
        return Failed(c);
    c.Out << (start ? "capture logs started\n" : "capture logs stopped\n");
    return ExitOk;
}

int ReloadDebugMask(Context &c)
{
    if (!c.Args.empty())
        return Usage(c, "reload-debug-mask takes no arguments");
    if (!Ready(c))
        return ExitFailed;
    if (!c.Device.ReloadDebugMask())
        return Failed(c);
    c.Out << "debug mask reloaded from the registry\n";
    return ExitOk;
}

int Congestion(Context &c)
{
    ULONG value = 0;
    if (c.Args.size() != 1 || !ParseNumber(c.Args[0], &value))
        return Usage(c, "congestion takes one number");
    if (!Ready(c))
        return ExitFailed;
    if (!c.Device.SetCongestionControl(value))
        return Failed(c);
    c.Out << "inject packet maximum set to " << value << '\n';
    return ExitOk;
}

/* Diag - the words make one command line; the reply text is printed as it came. */
int Diag(Context &c)
{
    if (c.Args.empty())
        return Usage(c, "diag takes a command, such as: diag filter show driver");
    std::string command;
    for (const std::string &word : c.Args) {
        if (!command.empty())
            command += ' ';
        command += word;
    }
    if (command.size() > nfapp::DiagCommandMax)
        return Usage(c, "a diagnostic command has at most 1023 bytes");
    if (!Ready(c))
        return ExitFailed;
    std::string reply;
    if (!c.Device.Diagnose(command, reply))
        return Failed(c);
    if (reply.empty()) {
        c.Err << ProgramName << ": no driver answered \"" << command << "\"\n";
        return ExitFailed;
    }
    c.Out << reply;
    if (reply[reply.size() - 1] != '\n')
        c.Out << '\n';
    return ExitOk;
}

int DumpExtension(Context &c)
{
    if (!c.Args.empty())
        return Usage(c, "dump-extension takes no arguments");
    if (!Ready(c))
        return ExitFailed;
    if (!c.Device.DumpDeviceExtension())
        return Failed(c);
    c.Out << "device extension dumped to the kernel debugger\n";
    return ExitOk;
}

struct Command {
    const char *Name;
    int (*Handler)(Context &c);
};

const Command Commands[] = {
    {"version", Version},
    {"adapters", Adapters},
    {"adapter-id", AdapterId},
    {"events", Events},
    {"clear-events", ClearEvents},
    {"ipconfig", IpConfig},
    {"media", Media},
    {"packet-dump", PacketDump},
    {"capture", Capture},
    {"reload-debug-mask", ReloadDebugMask},
    {"congestion", Congestion},
    {"diag", Diag},
    {"dump-extension", DumpExtension},
};

} // namespace

void PrintUsage(std::ostream &out)
{
    out << "usage: ndisfilterctl [--device PATH] COMMAND [ARGUMENTS]\n"
           "\n"
           "Sends control requests to the packet filter framework through its control\n"
           "device (\\\\.\\NdisFilter unless --device names another). ADAPTER is an adapter\n"
           "id (as `adapters` lists them) or a MAC address such as 02:00:00:00:0a:01.\n"
           "\n"
           "  version                      framework version and shared memory size\n"
           "  adapters                     adapters bound to TCP/IP: id, MAC, MTU, medium, state, name\n"
           "  adapter-id MAC               the adapter id of a MAC address\n"
           "  events [--follow] [--count N] [--interval MS]\n"
           "                               print and take the queued events; --follow keeps\n"
           "                               polling (every MS milliseconds, default 200) until\n"
           "                               N events were printed (N 0: forever)\n"
           "  clear-events                 discard every queued event\n"
           "  ipconfig ADAPTER             print the adapter's IP configuration\n"
           "  ipconfig ADAPTER set [clear] [address IP/PREFIX|IP/MASK[/BROADCAST]]...\n"
           "                        [gateway IP]... [dhcp IP]... [dns IP]... [wins IP [wins IP]]\n"
           "                               replace the lists named (up to 8 entries each);\n"
           "                               clear starts from an empty configuration\n"
           "  media ADAPTER [connected|disconnected|N]\n"
           "                               print (or first set) the media state\n"
           "  packet-dump ADAPTER [on|off] print (or first switch) the adapter's packet dump\n"
           "  capture start|stop           start or stop the capture logs of every adapter\n"
           "  reload-debug-mask            reload the debug mask from the registry\n"
           "  congestion N                 set the maximum of queued injected packets\n"
           "  diag WORD...                 a diagnostic command, printing its reply, e.g.\n"
           "                               diag filter help, diag filter show driver,\n"
           "                               diag filter show adapter, diag driver,\n"
           "                               diag <client> show\n"
           "  dump-extension               dump the framework's state to the kernel debugger\n"
           "  help, --help, -h             this text\n"
           "\n"
           "Exit status: 0 done, 1 a request failed or the framework is missing, 2 usage error.\n";
}

int Run(int argc, const char *const *argv, std::ostream &out, std::ostream &err)
{
    std::string device = NDISFILTER_USER_DEVICE;
    int i = 1;
    while (i < argc && argv[i][0] == '-') {
        std::string option = argv[i];
        if (option == "--help" || option == "-h") {
            PrintUsage(out);
            return ExitOk;
        }
        if (option == "--device" && i + 1 < argc) {
            device = argv[i + 1];
            i += 2;
            continue;
        }
        err << ProgramName << ": unknown option \"" << option << "\" (see " << ProgramName << " --help)\n";
        return ExitUsage;
    }
    if (i >= argc) {
        PrintUsage(err);
        return ExitUsage;
    }
    std::string name = argv[i];
    if (name == "help") {
        PrintUsage(out);
        return ExitOk;
    }
    for (const Command &command : Commands) {
        if (name != command.Name)
            continue;
        Context c{std::vector<std::string>(argv + i + 1, argv + argc), out, err, device, ControlDevice()};
        return command.Handler(c);
    }
    err << ProgramName << ": unknown command \"" << name << "\" (see " << ProgramName << " --help)\n";
    return ExitUsage;
}

} // namespace nfctl
