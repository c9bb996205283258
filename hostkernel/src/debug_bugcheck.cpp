/*
 * Host kernel runtime: bug checks, assertions and breakpoints (debug area).
 *
 * A bug check ends the process the way a stop ends the machine: the stop line
 * goes straight to stderr (whatever the echo setting), followed by a
 * backtrace, then the process aborts. Everything on that path is
 * async-signal-safe because the fault handler bug checks from a signal.
 */
#include "debug_internal.h"

#include "debug_format.h"
#include "hk/debug.h"
#include "internal.h"

#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

namespace {

struct BugCheckName {
    ULONG code;
    const char *name;
};

const BugCheckName kBugCheckNames[] = {
    {IRQL_NOT_LESS_OR_EQUAL, "IRQL_NOT_LESS_OR_EQUAL"},
    {KMODE_EXCEPTION_NOT_HANDLED, "KMODE_EXCEPTION_NOT_HANDLED"},
    {PAGE_FAULT_IN_NONPAGED_AREA, "PAGE_FAULT_IN_NONPAGED_AREA"},
    {SYSTEM_THREAD_EXCEPTION_NOT_HANDLED, "SYSTEM_THREAD_EXCEPTION_NOT_HANDLED"},
    {UNEXPECTED_KERNEL_MODE_TRAP, "UNEXPECTED_KERNEL_MODE_TRAP"},
    {BAD_POOL_CALLER, "BAD_POOL_CALLER"},
    {DRIVER_VERIFIER_DETECTED_VIOLATION, "DRIVER_VERIFIER_DETECTED_VIOLATION"},
    {DRIVER_IRQL_NOT_LESS_OR_EQUAL, "DRIVER_IRQL_NOT_LESS_OR_EQUAL"},
    {MANUALLY_INITIATED_CRASH, "MANUALLY_INITIATED_CRASH"},
};

// The symbolic name of a bug check code, or "" when unknown.
const char *NameOf(ULONG code)
{
    for (const BugCheckName &entry : kBugCheckNames) {
        if (entry.code == code)
            return entry.name;
    }
    return "";
}

// Formats with the Windows rules into a stack buffer and writes it to stderr.
// Async-signal-safe (no allocation, no locks).
void WriteStderr(const char *format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    size_t length = hk::FormatWindows(text, sizeof(text), format, args, "bug check");
    va_end(args);
    if (length > sizeof(text))
        length = sizeof(text);
    const char *p = text;
    while (length > 0) {
        const ssize_t written = write(STDERR_FILENO, p, length);
        if (written <= 0)
            return;
        p += written;
        length -= static_cast<size_t>(written);
    }
}

std::atomic<bool> g_bugCheckInProgress{false};

// Whether a debugger is tracing this process (TracerPid in /proc/self/status).
bool DebuggerAttached()
{
    const int fd = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char status[4096];
    const ssize_t length = read(fd, status, sizeof(status) - 1);
    close(fd);
    if (length <= 0)
        return false;
    status[length] = 0;
    const char *tracer = strstr(status, "TracerPid:");
    if (tracer == nullptr)
        return false;
    tracer += strlen("TracerPid:");
    while (*tracer == ' ' || *tracer == '\t')
        ++tracer;
    return *tracer != '0' && *tracer != '\n' && *tracer != 0;
}

} // namespace

namespace hk {

[[noreturn]] void BugCheck(ULONG code, ULONG_PTR p1, ULONG_PTR p2, ULONG_PTR p3, ULONG_PTR p4,
                           const char *detail)
{
    if (g_bugCheckInProgress.exchange(true)) {
        // Another thread is already reporting; it ends the process.
        for (;;)
            pause();
    }
    const char *name = NameOf(code);
    WriteStderr("\n*** STOP: 0x%08X%s%s (0x%016I64X, 0x%016I64X, 0x%016I64X, 0x%016I64X)\n", code,
                name[0] != 0 ? " " : "", name, p1, p2, p3, p4);
    if (detail != nullptr && detail[0] != 0)
        WriteStderr("*** %s\n", detail);
    void *frames[64];
    const int count = backtrace(frames, 64);
    backtrace_symbols_fd(frames, count, STDERR_FILENO);

    // abort() with SIGABRT at its default action, whoever handled it before.
    struct sigaction defaultAction;
    memset(&defaultAction, 0, sizeof(defaultAction));
    defaultAction.sa_handler = SIG_DFL;
    sigaction(SIGABRT, &defaultAction, nullptr);
    abort();
}

} // namespace hk

// Stops the system: prints the stop line with the code and parameters and
// aborts the process. Any IRQL; never returns.
extern "C" VOID NTAPI KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR BugCheckParameter1,
                                   ULONG_PTR BugCheckParameter2, ULONG_PTR BugCheckParameter3,
                                   ULONG_PTR BugCheckParameter4)
{
    hk::BugCheck(BugCheckCode, BugCheckParameter1, BugCheckParameter2, BugCheckParameter3,
                 BugCheckParameter4, "KeBugCheckEx called");
}

// KeBugCheckEx with zero parameters.
extern "C" VOID NTAPI KeBugCheck(ULONG BugCheckCode)
{
    hk::BugCheck(BugCheckCode, 0, 0, 0, 0, "KeBugCheck called");
}

// A failed ASSERT: a verifier error naming the expression, file and line;
// execution continues after it. Any IRQL.
extern "C" VOID NTAPI RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PSTR Message)
{
    const char *expression = FailedAssertion != nullptr ? static_cast<const char *>(FailedAssertion) : "?";
    const char *file = FileName != nullptr ? static_cast<const char *>(FileName) : "?";
    if (Message != nullptr)
        hk::VerifierError("assertion failed: %s (%s), file %s, line %u", Message, expression, file, LineNumber);
    else
        hk::VerifierError("assertion failed: %s, file %s, line %u", expression, file, LineNumber);
}

// Breaks into an attached debugger; without one raises STATUS_BREAKPOINT
// (a fault guard returns it, otherwise a bug check). Any IRQL.
extern "C" VOID NTAPI DbgBreakPoint(VOID)
{
    if (DebuggerAttached()) {
        __asm__ volatile("int3");
        return;
    }
    hk::RaiseKernelException(STATUS_BREAKPOINT, __builtin_return_address(0));
}

// DbgBreakPoint; the status is only shown to a debugger.
extern "C" VOID NTAPI DbgBreakPointWithStatus(ULONG Status)
{
    UNREFERENCED_PARAMETER(Status);
    if (DebuggerAttached()) {
        __asm__ volatile("int3");
        return;
    }
    hk::RaiseKernelException(STATUS_BREAKPOINT, __builtin_return_address(0));
}
