/*
 * Host kernel runtime: the Windows kernel's printf formatter (debug area).
 *
 * One engine serves _vsnprintf/_snprintf, their wide forms and DbgPrint. It
 * never allocates for integer and string conversions and never takes a lock,
 * so it can run inside a fault guard (a fault in a %s argument unwinds
 * cleanly) and in the bug check path of the signal handler.
 */
#pragma once
#include "hk/base.h"
#include <stddef.h>

namespace hk {

// Formats `format` with `args` by the Windows rules into
// buffer[0 .. capacity), writing no more than `capacity` characters and no
// terminator. Returns the length of the complete text (which may exceed
// capacity). `api` names the caller in diagnostics (verifier findings for
// Unicode conversions above PASSIVE_LEVEL and unknown directives). Any IRQL.
size_t FormatWindows(char *buffer, size_t capacity, const char *format, va_list args,
                     const char *api);
size_t FormatWindows(WCHAR *buffer, size_t capacity, const WCHAR *format, va_list args,
                     const char *api);

} // namespace hk
