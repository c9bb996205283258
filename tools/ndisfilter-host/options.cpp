/* options.cpp - the command line of the host program. */
#include "options.h"
#include "locate.h"

#include <cstdio>
#include <cstdlib>

namespace host {

namespace {

bool ParseUnsigned(const char *text, unsigned long maximum, unsigned long *value)
{
    char *end = nullptr;
    unsigned long parsed = std::strtoul(text, &end, 0);
    if (end == text || *end != '\0' || text[0] == '-' || parsed > maximum)
        return false;
    *value = parsed;
    return true;
}

/* The service name of an image: its file name without a "lib" prefix and without extension. */
std::string ServiceOf(const std::string &image)
{
    std::string name = image.substr(image.rfind('/') + 1);
    if (name.compare(0, 3, "lib") == 0 && name.size() > 3)
        name = name.substr(3);
    return name.substr(0, name.find('.'));
}

/* NAME=VALUE, both parts non-empty except the value of a string. */
bool SplitSetting(const std::string &text, std::string *name, std::string *value)
{
    size_t equals = text.find('=');
    if (equals == 0 || equals == std::string::npos)
        return false;
    *name = text.substr(0, equals);
    *value = text.substr(equals + 1);
    return true;
}

/* The options that name client drivers and their settings; TRUE when `arg` was one of them
 * and was taken, FALSE with `error` set when it was one and is wrong, FALSE otherwise. */
bool ParseDriverOption(const std::string &arg, const char *value, Options *options, std::string *error)
{
    if (arg == "--driver") {
        ClientImage client;
        client.Image = value;
        client.Service = ServiceOf(client.Image);
        options->Drivers.push_back(client);
        return true;
    }
    if (arg != "--service" && arg != "--set" && arg != "--set-dword")
        return false;
    if (options->Drivers.empty()) {
        *error = arg + " belongs to a --driver given before it";
        return false;
    }
    ClientImage &client = options->Drivers.back();
    std::string name, text;
    unsigned long number = 0;
    if (arg == "--service") {
        client.Service = value;
    } else if (!SplitSetting(value, &name, &text)) {
        *error = arg + " takes NAME=VALUE";
        return false;
    } else if (arg == "--set") {
        client.Strings.emplace_back(name, text);
    } else if (!ParseUnsigned(text.c_str(), 0xFFFFFFFFul, &number)) {
        *error = "--set-dword takes a 32-bit value";
        return false;
    } else {
        client.Dwords.emplace_back(name, (unsigned)number);
    }
    return true;
}

} // namespace

void PrintUsage()
{
    std::fprintf(stderr,
                 "usage: ndisfilter-host [options]\n"
                 "Loads the framework, the simulated hook driver and the example clients (firewall,\n"
                 "injector, tap, adapter monitor), opens one adapter per capture, runs the user program side on the\n"
                 "shared rings, replays the captures and writes what came out as pcap files.\n"
                 "  --pcap FILE             capture to replay on an adapter of its own (repeatable;\n"
                 "                          default " NF_HOST_DEFAULT_CAPTURE ")\n"
                 "  --out DIR               where the output captures go (default " NF_HOST_DEFAULT_OUTPUT ")\n"
                 "  --capture-logs DIR      drive C: of the framework, where its capture logs go\n"
                 "                          (default the output directory's drive-c)\n"
                 "  --rules TEXT            firewall rules, e.g. \"udp dst port 9999; in icmp\" (\"\" for none)\n"
                 "  --tap-ports LIST        ports the tap copies to the application (default 53)\n"
                 "  --inject-protocol N     IP protocol the injector sends through the queues (default 1)\n"
                 "  --app-send N            frames per adapter the application sends to the protocols (default 4)\n"
                 "  --app-loopback N        frames the application sends back to itself (default 2)\n"
                 "  --collector ADDR:PORT   also load the collector client, which sends the start of\n"
                 "                          every frame to ADDR over UDP and TCP (both on PORT)\n"
                 "  --debug-mask VALUE      GlobalDebugFlag of the framework (default 0)\n"
                 "  --quiet                 do not echo the drivers' trace to stderr\n"
                 "  --driver IMAGE          also load this client driver image (repeatable; in order)\n"
                 "  --service NAME          service name of the last --driver (default: its file name\n"
                 "                          without \"lib\" and extension)\n"
                 "  --set NAME=TEXT         REG_SZ value in the last --driver's service key\n"
                 "  --set-dword NAME=N      REG_DWORD value in the last --driver's service key\n"
                 "  --no-examples           load only the --driver images, not the example clients\n"
                 "  --live IFACE:TAP[@NETNS][,...]\n"
                 "                          instead of captures, live adapters: the wire is interface IFACE\n"
                 "                          (e.g. a veth end), the protocols the network stack on TAP device\n"
                 "                          TAP, both in network namespace NETNS (default ours); repeatable\n"
                 "  --duration SECONDS      live: stop after this long (default: at SIGINT or SIGTERM; not\n"
                 "                          with --daemon, which serves the live adapters until a signal)\n"
                 "  --app-frame HEX         live: a frame the application sends to the first adapter's wire\n"
                 "                          once running (repeatable)\n"
                 "  --daemon                instead of the run: open the adapters and serve \\\\.\\NdisFilter to\n"
                 "                          user programs in other processes until SIGINT or SIGTERM\n"
                 "                          (SIGUSR1 replays the captures)\n"
                 "  --socket PATH           the daemon's socket (default $NDISFILTER_SOCKET, else\n"
                 "                          $XDG_RUNTIME_DIR/ndisfilter/ndisfilter.sock, else\n"
                 "                          /tmp/ndisfilter-<uid>/ndisfilter.sock)\n");
}

bool ParseOptions(int argc, char **argv, Options *options, std::string *error)
{
    options->OutputDir = OutputDirectory(NF_HOST_DEFAULT_OUTPUT);
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        unsigned long number = 0;
        if (arg == "--help" || arg == "-h") {
            error->clear();
            return false;
        } else if (arg == "--quiet") {
            options->Quiet = true;
        } else if (arg == "--no-examples") {
            options->Examples = false;
        } else if (arg == "--daemon") {
            options->Daemon = true;
        } else if (hasValue && ParseDriverOption(arg, argv[i + 1], options, error)) {
            i++;
        } else if (!error->empty()) {
            return false;
        } else if (!hasValue) {
            *error = "unknown option or missing value: " + arg;
            return false;
        } else if (arg == "--live") {
            std::string list = argv[++i];
            for (size_t start = 0; start <= list.size();) {
                size_t comma = list.find(',', start);
                std::string item = list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
                size_t colon = item.find(':');
                if (colon == 0 || colon == std::string::npos || colon + 1 == item.size() || item[colon + 1] == '@') {
                    *error = "--live takes IFACE:TAP[@NETNS], e.g. nfw0:nftap0";
                    return false;
                }
                options->Live.push_back(item);
                if (comma == std::string::npos)
                    break;
                start = comma + 1;
            }
        } else if (arg == "--duration") {
            if (!ParseUnsigned(argv[++i], 86400, &number)) {
                *error = "--duration takes seconds";
                return false;
            }
            options->DurationSeconds = (unsigned)number;
        } else if (arg == "--app-frame") {
            options->LiveAppFrames.push_back(argv[++i]);
        } else if (arg == "--socket") {
            options->SocketPath = argv[++i];
        } else if (arg == "--pcap") {
            options->Captures.push_back(argv[++i]);
        } else if (arg == "--out") {
            options->OutputDir = argv[++i];
        } else if (arg == "--capture-logs") {
            options->CaptureLogDir = argv[++i];
        } else if (arg == "--rules") {
            options->HaveRules = true;
            options->Rules = argv[++i];
        } else if (arg == "--collector") {
            std::string value = argv[++i];
            size_t colon = value.rfind(':');
            if (colon == std::string::npos || colon == 0 ||
                !ParseUnsigned(value.c_str() + colon + 1, 65535, &number) || number == 0) {
                *error = "--collector takes ADDRESS:PORT, e.g. 127.0.0.1:5140";
                return false;
            }
            options->CollectorAddress = value.substr(0, colon);
            options->CollectorPort = (unsigned)number;
        } else if (arg == "--tap-ports") {
            options->TapPorts = argv[++i];
        } else if (arg == "--inject-protocol") {
            if (!ParseUnsigned(argv[++i], 255, &number)) {
                *error = "--inject-protocol takes 0..255";
                return false;
            }
            options->InjectProtocol = (int)number;
        } else if (arg == "--app-send" || arg == "--app-loopback") {
            if (!ParseUnsigned(argv[++i], 100000, &number)) {
                *error = arg + " takes a count";
                return false;
            }
            (arg == "--app-send" ? options->AppSend : options->AppLoopback) = (unsigned)number;
        } else if (arg == "--debug-mask") {
            if (!ParseUnsigned(argv[++i], 0xFFFFFFFFul, &number)) {
                *error = "--debug-mask takes a 32-bit value";
                return false;
            }
            options->DebugMask = (unsigned)number;
        } else {
            *error = "unknown option: " + arg;
            return false;
        }
    }
    if (options->CaptureLogDir.empty())
        options->CaptureLogDir = options->OutputDir + "/drive-c";
    if (options->Captures.empty())
        options->Captures.push_back(Locate(NF_HOST_DEFAULT_CAPTURE, "share/ndisfilter/captures"));
    if (!options->Examples && options->Drivers.empty()) {
        *error = "--no-examples leaves no client driver: name one with --driver";
        return false;
    }
    return true;
}

} // namespace host
