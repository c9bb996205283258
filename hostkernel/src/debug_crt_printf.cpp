/*
 * Host kernel runtime: the C runtime formatters the kernel exports (debug area).
 *
 * _vsnprintf(buffer, count, ...) and the others keep the Microsoft contract:
 *   text shorter than count  -> written with its terminator, length returned
 *   text exactly count long  -> count characters, no terminator, count returned
 *   text longer than count   -> count characters, no terminator, -1 returned
 * Nothing beyond buffer[count - 1] is ever written. A NULL buffer with a zero
 * count asks for the length the text needs.
 */
#include "debug_format.h"

#include "internal.h"

#include <limits.h>

namespace {

// The shared contract of the four formatters; `api` names the caller in
// diagnostics. Any IRQL (Unicode directives at PASSIVE_LEVEL only).
template <typename Char>
int FormatToBuffer(Char *buffer, size_t count, const Char *format, va_list args, const char *api)
{
    if (format == nullptr || (buffer == nullptr && count != 0)) {
        hk::VerifierError("%s: invalid parameter (buffer %p, count %zu, format %p)", api,
                          static_cast<void *>(buffer), count, static_cast<const void *>(format));
        return -1;
    }
    const size_t length = hk::FormatWindows(buffer, count, format, args, api);
    if (buffer == nullptr)
        return length <= INT_MAX ? static_cast<int>(length) : -1;
    if (length < count) {
        buffer[length] = 0;
        return static_cast<int>(length);
    }
    if (length == count && length <= INT_MAX)
        return static_cast<int>(length);
    return -1;
}

} // namespace

// Formats into buffer[0 .. count) by the rules above. Any IRQL.
extern "C" int __cdecl _vsnprintf(char *buffer, size_t count, const char *format, va_list argptr)
{
    return FormatToBuffer(buffer, count, format, argptr, "_vsnprintf");
}

// As _vsnprintf, with the arguments in place. Any IRQL.
extern "C" int __cdecl _snprintf(char *buffer, size_t count, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int result = FormatToBuffer(buffer, count, format, args, "_snprintf");
    va_end(args);
    return result;
}

// UTF-16 output; count is in WCHARs. Any IRQL.
extern "C" int __cdecl _vsnwprintf(wchar_t *buffer, size_t count, const wchar_t *format, va_list argptr)
{
    return FormatToBuffer<WCHAR>(buffer, count, format, argptr, "_vsnwprintf");
}

// As _vsnwprintf, with the arguments in place. Any IRQL.
extern "C" int __cdecl _snwprintf(wchar_t *buffer, size_t count, const wchar_t *format, ...)
{
    va_list args;
    va_start(args, format);
    const int result = FormatToBuffer<WCHAR>(buffer, count, format, args, "_snwprintf");
    va_end(args);
    return result;
}
