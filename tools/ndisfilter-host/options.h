/* options.h - the command line of the host program. */
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace host {

/* A client driver image named on the command line, with its service-key settings. */
struct ClientImage {
    std::string Image;
    std::string Service; /* default: the image's file name without "lib" and extension */
    std::vector<std::pair<std::string, std::string>> Strings; /* REG_SZ values */
    std::vector<std::pair<std::string, unsigned>> Dwords;     /* REG_DWORD values */
};

struct Options {
    std::vector<std::string> Captures; /* one adapter each; the default capture when none is given */
    std::string OutputDir;
    std::string CaptureLogDir; /* drive C: of the framework, where its capture logs go; empty: OutputDir/drive-c */
    unsigned DebugMask = 0;
    bool Quiet = false;
    bool HaveRules = false; /* --rules given: the firewall gets exactly these (may be empty) */
    std::string Rules;
    std::string TapPorts;   /* empty: the tap's default */
    std::string CollectorAddress; /* empty: the collector client is not loaded */
    unsigned CollectorPort = 0;
    int InjectProtocol = -1; /* -1: the injector's default */
    unsigned AppSend = 4;      /* frames per adapter the application sends toward the protocols */
    unsigned AppLoopback = 2;  /* frames the application sends back to itself */
    bool Examples = true;      /* load the example clients */
    std::vector<ClientImage> Drivers; /* further client drivers, loaded after the examples */
    /* live adapters instead of captures: "<interface>:<tap>[@<netns>]" each */
    std::vector<std::string> Live;
    unsigned DurationSeconds = 0; /* live: 0 runs until SIGINT or SIGTERM */
    std::vector<std::string> LiveAppFrames; /* live: hex frames the application sends to the wire at the start */
    bool Daemon = false;    /* serve the control device to other processes instead of the run */
    std::string SocketPath; /* the daemon's socket; empty: the bridge's default */
};

/* Parses argv; FALSE (with `error` set, empty for --help) when the program should not run. */
bool ParseOptions(int argc, char **argv, Options *options, std::string *error);

void PrintUsage();

} // namespace host
