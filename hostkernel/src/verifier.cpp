/*
 * Verifier findings and bugchecks.
 *
 * A finding is a rule a driver broke that the runtime survived (a double
 * free, a wait above the permitted IRQL). It is printed at once and kept
 * until host control takes it, so a test that caused it can fail. A bugcheck
 * is a rule Windows would stop the machine for; here it stops the process.
 */
#include "core_internal.h"

#include <stdarg.h>
#include <stdio.h>

#include <mutex>
#include <string>
#include <vector>

namespace {

struct FindingStore {
    std::mutex mutex;
    std::vector<std::string> findings;
};

// Never destroyed: findings may be recorded from threads still running at exit.
FindingStore &Store()
{
    static FindingStore *store = new FindingStore;
    return *store;
}

/* printf-style formatting into a string of any length. */
std::string FormatV(const char *fmt, va_list args)
{
    char small[256];
    va_list copy;
    va_copy(copy, args);
    int needed = vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    if (needed < 0)
        return fmt;
    if (static_cast<size_t>(needed) < sizeof small)
        return std::string(small, static_cast<size_t>(needed));
    std::string text(static_cast<size_t>(needed) + 1, '\0');
    vsnprintf(&text[0], text.size(), fmt, args);
    text.resize(static_cast<size_t>(needed));
    return text;
}

/* The symbolic name of a bugcheck code the core raises. */
const char *BugCheckName(ULONG code)
{
    switch (code) {
    case hk::core::kIrqlNotLessOrEqual: return "IRQL_NOT_LESS_OR_EQUAL";
    case hk::core::kSpinLockAlreadyOwned: return "SPIN_LOCK_ALREADY_OWNED";
    case hk::core::kSpinLockNotOwned: return "SPIN_LOCK_NOT_OWNED";
    case hk::core::kSystemThreadExceptionNotHandled: return "SYSTEM_THREAD_EXCEPTION_NOT_HANDLED";
    }
    return "UNKNOWN";
}

} // namespace

namespace hk {

/* Records a finding: prints "VERIFIER: <text>" to stderr and keeps the text. Any IRQL. */
void VerifierError(const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    std::string text = FormatV(fmt, args);
    va_end(args);
    fprintf(stderr, "VERIFIER: %s\n", text.c_str());
    FindingStore &store = Store();
    std::lock_guard<std::mutex> lock(store.mutex);
    store.findings.push_back(std::move(text));
}

namespace core {

/* Prints the reason as a bugcheck line, then stops through KeBugCheckEx (stop line,
 * backtrace, abort). Any IRQL; does not return. */
void BugCheck(ULONG code, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    std::string text = FormatV(fmt, args);
    va_end(args);
    fprintf(stderr, "*** BUGCHECK 0x%08X (%s): %s\n", code, BugCheckName(code), text.c_str());
    fflush(stderr);
    KeBugCheckEx(code, 0, 0, 0, 0);
}

} // namespace core
} // namespace hk

/* Number of findings not yet taken. */
ULONG HkVerifierFindingCount(void)
{
    FindingStore &store = Store();
    std::lock_guard<std::mutex> lock(store.mutex);
    return static_cast<ULONG>(store.findings.size());
}

/* Hands the findings to Sink (oldest first) outside the store's lock and forgets them;
 * returns their number. */
ULONG HkVerifierTakeFindings(HK_VERIFIER_FINDING_SINK Sink, void *Context)
{
    std::vector<std::string> taken;
    {
        FindingStore &store = Store();
        std::lock_guard<std::mutex> lock(store.mutex);
        taken.swap(store.findings);
    }
    if (Sink != nullptr) {
        for (const std::string &finding : taken)
            Sink(finding.c_str(), Context);
    }
    return static_cast<ULONG>(taken.size());
}

/* Forgets every finding. */
void HkVerifierClearFindings(void)
{
    HkVerifierTakeFindings(nullptr, nullptr);
}
