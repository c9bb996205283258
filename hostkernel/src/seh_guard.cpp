/*
 * Host kernel runtime: the fault guard.
 *
 * Every thread keeps a stack of guard frames (a sigjmp_buf each). The
 * SIGSEGV, SIGBUS, SIGFPE and SIGILL handlers run on an alternate signal
 * stack; inside a guard they jump back to the innermost frame with the
 * Windows exception code of the fault, outside any guard they bug check.
 *
 * The handlers are installed at a thread's first guard, and checked again at
 * the first guard of every later thread, so they win over handlers that
 * sanitizers install at start-up. They use SA_NODEFER with an empty mask: the
 * signal mask at the jump is the one the guard was entered with, so the jump
 * need not restore it (sigsetjmp without a saved mask keeps a guard cheap).
 */
#include "debug_internal.h"

#include "hk/debug.h"
#include "hk/seh.h"

#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <execinfo.h>
#include <mutex>

namespace {

struct GuardFrame {
    sigjmp_buf jump;
    GuardFrame *previous;
    volatile LONG code;
};

// Per-thread state read by the signal handler: plain values only, so no
// thread_local initialisation runs inside a handler.
thread_local GuardFrame *t_innermost = nullptr;
thread_local bool t_prepared = false;
thread_local bool t_reporting = false;
thread_local uintptr_t t_stackLow = 0; // lowest usable address of the thread's stack; 0 unknown

constexpr size_t kAltStackSize = 64 * 1024;
constexpr uintptr_t kStackOverflowWindow = 1024 * 1024;
constexpr ULONG_PTR kDoubleFaultTrap = 8;

// An alternate signal stack this runtime installed for the thread; removed
// when the thread ends.
struct AltStack {
    void *mapping = nullptr;
    size_t mappingSize = 0;

    ~AltStack()
    {
        if (mapping == nullptr)
            return;
        stack_t disable;
        memset(&disable, 0, sizeof(disable));
        disable.ss_flags = SS_DISABLE;
        sigaltstack(&disable, nullptr);
        munmap(mapping, mappingSize);
    }
};

thread_local AltStack t_altStack;

// Makes `previous` the innermost guard frame again when a guard ends.
struct GuardScope {
    GuardFrame *previous;
    ~GuardScope() { t_innermost = previous; }
};

// Windows exception code of a synchronous signal.
NTSTATUS ExceptionCodeOf(int signalNumber, int signalCode)
{
    switch (signalNumber) {
    case SIGFPE:
        switch (signalCode) {
        case FPE_INTDIV:
            return STATUS_INTEGER_DIVIDE_BY_ZERO;
        case FPE_INTOVF:
            return STATUS_INTEGER_OVERFLOW;
        case FPE_FLTDIV:
            return STATUS_FLOAT_DIVIDE_BY_ZERO;
        case FPE_FLTOVF:
            return STATUS_FLOAT_OVERFLOW;
        case FPE_FLTUND:
            return STATUS_FLOAT_UNDERFLOW;
        case FPE_FLTRES:
            return STATUS_FLOAT_INEXACT_RESULT;
        default:
            return STATUS_FLOAT_INVALID_OPERATION;
        }
    case SIGILL:
        return signalCode == ILL_PRVOPC ? STATUS_PRIVILEGED_INSTRUCTION : STATUS_ILLEGAL_INSTRUCTION;
    case SIGBUS:
        return signalCode == BUS_ADRALN ? STATUS_DATATYPE_MISALIGNMENT : STATUS_ACCESS_VIOLATION;
    default:
        return STATUS_ACCESS_VIOLATION;
    }
}

// Whether a SIGSEGV is the thread running off the end of its stack: both the
// faulting address and the stack pointer lie just around the stack's low end.
bool IsStackOverflow(uintptr_t faultAddress, uintptr_t stackPointer)
{
    if (t_stackLow == 0)
        return false;
    const uintptr_t low = t_stackLow > kStackOverflowWindow ? t_stackLow - kStackOverflowWindow : 0;
    const uintptr_t high = t_stackLow + 64 * 1024;
    return faultAddress >= low && faultAddress < high && stackPointer >= low && stackPointer < high;
}

// Ends the innermost guard of the thread with `code`, or returns when the
// thread has none. Async-signal-safe.
void UnwindToInnermostGuard(NTSTATUS code)
{
    GuardFrame *frame = t_innermost;
    if (frame == nullptr)
        return;
    frame->code = code;
    t_innermost = frame->previous;
    siglongjmp(frame->jump, 1);
}

// The handler of SIGSEGV, SIGBUS, SIGFPE and SIGILL (alternate stack).
void OnFault(int signalNumber, siginfo_t *info, void *context)
{
    const ucontext_t *machine = static_cast<const ucontext_t *>(context);
    const uintptr_t pc = static_cast<uintptr_t>(machine->uc_mcontext.gregs[REG_RIP]);
    const uintptr_t sp = static_cast<uintptr_t>(machine->uc_mcontext.gregs[REG_RSP]);
    const uintptr_t address = reinterpret_cast<uintptr_t>(info->si_addr);

    if (t_reporting) {
        // A fault while reporting one: give up at once.
        signal(signalNumber, SIG_DFL);
        return;
    }
    if (signalNumber == SIGSEGV && IsStackOverflow(address, sp)) {
        t_reporting = true;
        hk::BugCheck(UNEXPECTED_KERNEL_MODE_TRAP, kDoubleFaultTrap, 0, 0, 0,
                     "kernel stack overflow (not recoverable, even inside a fault guard)");
    }

    const NTSTATUS code = ExceptionCodeOf(signalNumber, info->si_code);
    UnwindToInnermostGuard(code);

    t_reporting = true;
    ULONG_PTR accessKind = 0;
    ULONG_PTR accessAddress = 0;
    char detail[160];
    if (code == STATUS_ACCESS_VIOLATION) {
        // Page fault error code: bit 1 write, bit 4 instruction fetch.
        const unsigned long long error = static_cast<unsigned long long>(machine->uc_mcontext.gregs[REG_ERR]);
        accessKind = (error & 0x10) != 0 ? 8 : (error & 0x2) != 0 ? 1 : 0;
        accessAddress = address;
        const char *verb = accessKind == 8 ? "executing" : accessKind == 1 ? "writing" : "reading";
        _snprintf(detail, sizeof(detail) - 1, "access violation %s address %p at %p", verb,
                  reinterpret_cast<void *>(address), reinterpret_cast<void *>(pc));
    } else {
        _snprintf(detail, sizeof(detail) - 1, "exception 0x%08X at %p", static_cast<ULONG>(code),
                  reinterpret_cast<void *>(pc));
    }
    detail[sizeof(detail) - 1] = 0;
    hk::BugCheck(KMODE_EXCEPTION_NOT_HANDLED, static_cast<ULONG_PTR>(static_cast<LONG_PTR>(code)), pc,
                 accessKind, accessAddress, detail);
}

const int kGuardedSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};

// Whether OnFault handles every guarded signal right now.
bool HandlersInstalled()
{
    for (int signalNumber : kGuardedSignals) {
        struct sigaction current;
        if (sigaction(signalNumber, nullptr, &current) != 0)
            return false;
        if ((current.sa_flags & SA_SIGINFO) == 0 || current.sa_sigaction != OnFault)
            return false;
    }
    return true;
}

std::mutex g_installLock;

// Installs OnFault for the guarded signals unless it is already in place.
void InstallHandlers()
{
    std::lock_guard<std::mutex> guard(g_installLock);
    if (HandlersInstalled())
        return;
    // The first backtrace() loads the unwinder; do it here, not in a handler.
    void *frame[1];
    backtrace(frame, 1);

    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_sigaction = OnFault;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    sigemptyset(&action.sa_mask);
    for (int signalNumber : kGuardedSignals)
        sigaction(signalNumber, &action, nullptr);

    if (!HandlersInstalled()) {
        // A sanitizer that keeps SIGSEGV to itself would turn every guarded
        // fault into a crash report; say so instead of failing obscurely.
        static const char message[] =
            "hostkernel: the fault guard could not install its signal handlers "
            "(with AddressSanitizer, run with ASAN_OPTIONS=allow_user_segv_handler=1)\n";
        (void)!write(STDERR_FILENO, message, sizeof(message) - 1);
        abort();
    }
}

// Gives the thread an alternate signal stack unless it has one, so a stack
// overflow can still be reported.
void EnsureAltStack()
{
    stack_t current;
    if (sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0)
        return;
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t size = kAltStackSize + page; // one guard page below
    void *mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED)
        return;
    mprotect(mapping, page, PROT_NONE);
    stack_t stack;
    memset(&stack, 0, sizeof(stack));
    stack.ss_sp = static_cast<char *>(mapping) + page;
    stack.ss_size = kAltStackSize;
    if (sigaltstack(&stack, nullptr) != 0) {
        munmap(mapping, size);
        return;
    }
    t_altStack.mapping = mapping;
    t_altStack.mappingSize = size;
}

// Notes where the thread's stack ends, for telling stack overflows apart.
void RecordStackBounds()
{
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0)
        return;
    void *low = nullptr;
    size_t size = 0;
    if (pthread_attr_getstack(&attributes, &low, &size) == 0)
        t_stackLow = reinterpret_cast<uintptr_t>(low);
    pthread_attr_destroy(&attributes);
}

// First guard of a thread: alternate stack, stack bounds, handlers.
void PrepareThread()
{
    EnsureAltStack();
    RecordStackBounds();
    InstallHandlers();
    t_prepared = true;
}

} // namespace

// Runs Routine(Context) under a fault guard; 0 when it completed, else the
// exception code that ended it. Any IRQL.
extern "C" LONG SehGuardedCall(VOID (*Routine)(PVOID Context), PVOID Context)
{
    if (!t_prepared)
        PrepareThread();
    GuardFrame frame;
    frame.previous = t_innermost;
    frame.code = 0;
    // However the guard ends (completion, fault, or a C++ exception of host
    // code passing through), its frame is off the thread's stack afterwards.
    const GuardScope scope{frame.previous};
    if (sigsetjmp(frame.jump, 0) != 0)
        return frame.code;
    t_innermost = &frame;
    Routine(Context);
    return 0;
}

namespace hk {

[[noreturn]] void RaiseKernelException(NTSTATUS code, const void *address)
{
    UnwindToInnermostGuard(code);
    char detail[96];
    _snprintf(detail, sizeof(detail) - 1, "exception 0x%08X raised at %p", static_cast<ULONG>(code), address);
    detail[sizeof(detail) - 1] = 0;
    BugCheck(KMODE_EXCEPTION_NOT_HANDLED, static_cast<ULONG_PTR>(static_cast<LONG_PTR>(code)),
             reinterpret_cast<ULONG_PTR>(address), 0, 0, detail);
}

} // namespace hk

// Raises an exception with Status (see RaiseKernelException). Any IRQL.
extern "C" VOID NTAPI ExRaiseStatus(NTSTATUS Status)
{
    hk::RaiseKernelException(Status, __builtin_return_address(0));
}

// ExRaiseStatus(STATUS_ACCESS_VIOLATION).
extern "C" VOID NTAPI ExRaiseAccessViolation(VOID)
{
    hk::RaiseKernelException(STATUS_ACCESS_VIOLATION, __builtin_return_address(0));
}

// ExRaiseStatus(STATUS_DATATYPE_MISALIGNMENT).
extern "C" VOID NTAPI ExRaiseDatatypeMisalignment(VOID)
{
    hk::RaiseKernelException(STATUS_DATATYPE_MISALIGNMENT, __builtin_return_address(0));
}

// Sanitizer start-up options: let the runtime's fault handlers replace
// AddressSanitizer's own SIGSEGV handler. The sanitizer asks the executable
// first, so this default counts where the runtime is linked into the program;
// InstallHandlers checks the outcome either way.
extern "C" __attribute__((visibility("default"), used)) const char *__asan_default_options()
{
    return "allow_user_segv_handler=1";
}
