/*
 * Host kernel runtime: what the debug area's files offer each other
 * (bug checks and raised exceptions). Not seen by drivers or tests.
 */
#pragma once
#include "hk/base.h"

namespace hk {

// Prints the stop line of a bug check (code, name, four parameters), an
// optional detail line and a backtrace to stderr, then aborts the process.
// Async-signal-safe; a second thread bug checking at the same time waits
// for the first to end the process. Any IRQL.
[[noreturn]] void BugCheck(ULONG code, ULONG_PTR p1, ULONG_PTR p2, ULONG_PTR p3, ULONG_PTR p4,
                           const char *detail);

// Raises an exception with `code` at `address` on the calling thread: the
// innermost fault guard returns `code`; without one it is a bug check
// (KMODE_EXCEPTION_NOT_HANDLED). Any IRQL. (seh_guard.cpp)
[[noreturn]] void RaiseKernelException(NTSTATUS code, const void *address);

} // namespace hk
