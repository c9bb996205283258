/*
 * ndisfilter-host - runs the framework driver on the host.
 *
 * Fills the service key, loads the driver by its DriverEntry, opens the
 * control device as the user program does, asks for the version, closes the
 * device and unloads the driver. The driver's trace goes to stderr; a summary
 * and the runtime's verifier findings (leaks, IRQL misuse, double frees) go
 * to stdout. Exit status 0 only when the run was clean.
 *
 *   ndisfilter-host [--debug-mask <value>] [--quiet]
 */
#include <windows.h>
#include <ntddk.h>
#include <ndis.h>
#include <hostkernel.h>
#include <ndisfilter.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

EXTERN_C NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace {

const char ServiceName[] = "NdisFilter";
const char ServiceKey[] = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\NdisFilter";

struct Options {
    ULONG DebugMask = 0x100;
    bool Quiet = false;
};

void Usage()
{
    std::fprintf(stderr, "usage: ndisfilter-host [--debug-mask <value>] [--quiet]\n"
                         "  --debug-mask  GlobalDebugFlag written to the service key (default 0x100)\n"
                         "  --quiet       do not echo the driver's trace to stderr\n");
}

bool ParseOptions(int argc, char **argv, Options *options)
{
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        if (arg == "--debug-mask" && i + 1 < argc) {
            char *end = nullptr;
            unsigned long value = std::strtoul(argv[++i], &end, 0);
            if (end == argv[i] || *end != '\0' || value > 0xFFFFFFFFul)
                return false;
            options->DebugMask = (ULONG)value;
        } else if (arg == "--quiet") {
            options->Quiet = true;
        } else {
            return false;
        }
    }
    return true;
}

/*
 * Opens the control device as the user program does and sends GET_VERSION.
 * The framework writes 1.0 into the request's buffer but reports no bytes,
 * so nothing is copied back; success of the request is what counts.
 */
bool QueryVersion()
{
    HANDLE device = CreateFileA(NDISFILTER_USER_DEVICE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
    if (device == INVALID_HANDLE_VALUE) {
        std::printf("open %s failed, error %u\n", NDISFILTER_USER_DEVICE, (unsigned)GetLastError());
        return false;
    }
    UCHAR version[2] = {0, 0};
    DWORD returned = 0;
    BOOL ok = DeviceIoControl(device, IOCTL_NDIS_FILTER_GET_VERSION, nullptr, 0, version, sizeof(version),
                              &returned, nullptr);
    DWORD error = ok ? 0 : GetLastError();
    CloseHandle(device);
    if (!ok) {
        std::printf("GET_VERSION failed, error %u\n", (unsigned)error);
        return false;
    }
    std::printf("GET_VERSION succeeded, %u bytes reported\n", (unsigned)returned);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    if (!ParseOptions(argc, argv, &options)) {
        Usage();
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IONBF, 0); /* keep the summary in step with the trace on stderr */
    HkDebugSetEcho(options.Quiet ? FALSE : TRUE);

    HkRegistryCreateKey(ServiceKey);
    HkRegistrySetDword(ServiceKey, "GlobalDebugFlag", options.DebugMask);

    PDRIVER_OBJECT driver = nullptr;
    NTSTATUS status = HkLoadDriver(DriverEntry, ServiceName, &driver);
    if (!NT_SUCCESS(status)) {
        std::printf("DriverEntry failed, status 0x%08X\n", (unsigned)status);
        return 1;
    }
    std::printf("framework loaded\n");
    bool versionOk = QueryVersion();
    HkUnloadDriver(driver);
    std::printf("framework unloaded\n");

    std::vector<std::string> findings = hk::TakeVerifierFindings();
    for (const std::string &finding : findings)
        std::printf("verifier: %s\n", finding.c_str());
    std::printf("%zu debug lines, %zu verifier findings\n", (size_t)HkDebugCapturedLineCount(), findings.size());
    return versionOk && findings.empty() ? 0 : 1;
}
