/* options.cpp - the command line of the host program. */
#include "options.h"

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
                 "  --quiet                 do not echo the drivers' trace to stderr\n");
}

bool ParseOptions(int argc, char **argv, Options *options, std::string *error)
{
    options->OutputDir = NF_HOST_DEFAULT_OUTPUT;
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        unsigned long number = 0;
        if (arg == "--help" || arg == "-h") {
            error->clear();
            return false;
        } else if (arg == "--quiet") {
            options->Quiet = true;
        } else if (!hasValue) {
            *error = "unknown option or missing value: " + arg;
            return false;
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
        options->Captures.push_back(NF_HOST_DEFAULT_CAPTURE);
    return true;
}

} // namespace host
