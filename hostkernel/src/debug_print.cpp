/*
 * Host kernel runtime: DbgPrint and the debug channel's line capture.
 *
 * A print is formatted on the caller's stack first (at most 512 characters,
 * the most one DbgPrint call transmits on Windows) and only then is the
 * channel locked, so a fault in an argument inside a fault guard never leaves
 * the lock held. The channel echoes the text to stderr and splits it into
 * lines; every thread keeps its own unfinished line.
 */
#include "debug_format.h"
#include "hk/host_debug.h"

#include "internal.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <deque>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr size_t kMaxTransmit = 512;
constexpr size_t kDefaultCaptureLimit = 100000;

struct Channel {
    std::mutex lock;
    bool echo = true;
    std::deque<std::string> lines;
    size_t limit = kDefaultCaptureLimit;
    uint64_t generation = 1; // a clear starts a new one; older unfinished lines are dropped
    HK_DEBUG_LINE_HOOK hook = nullptr;
    PVOID hookContext = nullptr;
};

// The process's channel. Never destroyed, so prints from static destructors
// and from threads ending late still work. Any IRQL.
Channel &TheChannel()
{
    static Channel *channel = [] {
        Channel *c = new Channel();
        const char *echo = getenv("HK_DEBUG_ECHO");
        c->echo = !(echo != nullptr && strcmp(echo, "0") == 0);
        return c;
    }();
    return *channel;
}

// Appends a completed line, dropping the oldest beyond the limit. Channel locked.
void StoreLine(Channel &channel, std::string line)
{
    channel.lines.push_back(std::move(line));
    while (channel.lines.size() > channel.limit)
        channel.lines.pop_front();
}

// The calling thread's unfinished line; stored as a line when the thread ends.
struct UnfinishedLine {
    std::string text;
    uint64_t generation = 0;

    ~UnfinishedLine()
    {
        if (text.empty())
            return;
        Channel &channel = TheChannel();
        std::lock_guard<std::mutex> guard(channel.lock);
        if (generation == channel.generation)
            StoreLine(channel, std::move(text));
    }
};

thread_local UnfinishedLine t_unfinished;

// Writes all of text to stderr, retrying short writes.
void Echo(const char *text, size_t length)
{
    while (length > 0) {
        const ssize_t written = write(STDERR_FILENO, text, length);
        if (written <= 0)
            return;
        text += written;
        length -= static_cast<size_t>(written);
    }
}

// Sends one formatted text through the channel: echo, capture, hook.
void Publish(const char *text, size_t length)
{
    Channel &channel = TheChannel();
    std::vector<std::string> forHook;
    HK_DEBUG_LINE_HOOK hook;
    PVOID hookContext;
    {
        std::lock_guard<std::mutex> guard(channel.lock);
        if (channel.echo)
            Echo(text, length);
        UnfinishedLine &line = t_unfinished;
        if (line.generation != channel.generation) {
            line.text.clear();
            line.generation = channel.generation;
        }
        hook = channel.hook;
        hookContext = channel.hookContext;
        size_t start = 0;
        for (size_t i = 0; i < length; ++i) {
            if (text[i] != '\n')
                continue;
            line.text.append(text + start, i - start);
            if (hook != nullptr)
                forHook.push_back(line.text);
            StoreLine(channel, std::move(line.text));
            line.text.clear();
            start = i + 1;
        }
        line.text.append(text + start, length - start);
    }
    for (const std::string &completed : forHook)
        hook(hookContext, completed.c_str(), completed.size());
}

// Formats and publishes; `api` names the caller in diagnostics. Any IRQL.
ULONG PrintFormatted(const char *api, PCCH format, va_list args)
{
    if (format == nullptr) {
        hk::VerifierError("%s: NULL format string", api);
        return static_cast<ULONG>(STATUS_INVALID_PARAMETER);
    }
    char text[kMaxTransmit];
    size_t length = hk::FormatWindows(text, sizeof(text), format, args, api);
    if (length > sizeof(text))
        length = sizeof(text);
    Publish(text, length);
    return static_cast<ULONG>(STATUS_SUCCESS);
}

} // namespace

// ---- kernel interface ----------------------------------------------------------

// Prints a formatted message to the debug channel. Returns STATUS_SUCCESS.
// Any IRQL; Unicode directives only at PASSIVE_LEVEL.
extern "C" ULONG __cdecl DbgPrint(PCSTR Format, ...)
{
    va_list args;
    va_start(args, Format);
    const ULONG status = PrintFormatted("DbgPrint", Format, args);
    va_end(args);
    return status;
}

// As DbgPrint; the component and level are accepted and not filtered.
extern "C" ULONG __cdecl DbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, ...)
{
    UNREFERENCED_PARAMETER(ComponentId);
    UNREFERENCED_PARAMETER(Level);
    va_list args;
    va_start(args, Format);
    const ULONG status = PrintFormatted("DbgPrintEx", Format, args);
    va_end(args);
    return status;
}

// As DbgPrintEx with the arguments in a va_list.
extern "C" ULONG NTAPI vDbgPrintEx(ULONG ComponentId, ULONG Level, PCCH Format, va_list arglist)
{
    UNREFERENCED_PARAMETER(ComponentId);
    UNREFERENCED_PARAMETER(Level);
    return PrintFormatted("vDbgPrintEx", Format, arglist);
}

// ---- host control ------------------------------------------------------------

// Turns the stderr echo on or off.
extern "C" VOID HkDebugSetEcho(BOOLEAN Enabled)
{
    Channel &channel = TheChannel();
    std::lock_guard<std::mutex> guard(channel.lock);
    channel.echo = Enabled != FALSE;
}

// Whether debug output is echoed to stderr.
extern "C" BOOLEAN HkDebugGetEcho(VOID)
{
    Channel &channel = TheChannel();
    std::lock_guard<std::mutex> guard(channel.lock);
    return channel.echo ? TRUE : FALSE;
}

// Forgets captured lines and all threads' unfinished lines.
extern "C" VOID HkDebugClearCapture(VOID)
{
    Channel &channel = TheChannel();
    std::lock_guard<std::mutex> guard(channel.lock);
    channel.lines.clear();
    ++channel.generation;
}

// Number of completed lines captured.
extern "C" SIZE_T HkDebugCapturedLineCount(VOID)
{
    Channel &channel = TheChannel();
    std::lock_guard<std::mutex> guard(channel.lock);
    return channel.lines.size();
}

// Copies line Index into Buffer (terminated, truncated); returns its full
// length or (SIZE_T)-1 when there is no such line.
extern "C" SIZE_T HkDebugGetCapturedLine(SIZE_T Index, PCHAR Buffer, SIZE_T BufferSize)
{
    Channel &channel = TheChannel();
    std::lock_guard<std::mutex> guard(channel.lock);
    if (Index >= channel.lines.size())
        return static_cast<SIZE_T>(-1);
    const std::string &line = channel.lines[Index];
    if (Buffer != nullptr && BufferSize > 0) {
        const size_t copied = line.size() < BufferSize - 1 ? line.size() : BufferSize - 1;
        memcpy(Buffer, line.data(), copied);
        Buffer[copied] = 0;
    }
    return line.size();
}

// Sets the most lines kept (at least one).
extern "C" VOID HkDebugSetCaptureLimit(SIZE_T MaxLines)
{
    Channel &channel = TheChannel();
    std::lock_guard<std::mutex> guard(channel.lock);
    channel.limit = MaxLines > 0 ? MaxLines : 1;
    while (channel.lines.size() > channel.limit)
        channel.lines.pop_front();
}

// Installs or removes the per-line hook.
extern "C" VOID HkDebugSetLineHook(HK_DEBUG_LINE_HOOK Hook, PVOID Context)
{
    Channel &channel = TheChannel();
    std::lock_guard<std::mutex> guard(channel.lock);
    channel.hook = Hook;
    channel.hookContext = Context;
}

namespace hk {

// A copy of the captured lines, oldest first.
std::vector<std::string> CapturedDebugLines()
{
    Channel &channel = TheChannel();
    std::lock_guard<std::mutex> guard(channel.lock);
    return std::vector<std::string>(channel.lines.begin(), channel.lines.end());
}

// The captured lines, oldest first, leaving the capture empty.
std::vector<std::string> TakeCapturedDebugLines()
{
    Channel &channel = TheChannel();
    std::lock_guard<std::mutex> guard(channel.lock);
    std::vector<std::string> lines(std::make_move_iterator(channel.lines.begin()),
                                   std::make_move_iterator(channel.lines.end()));
    channel.lines.clear();
    return lines;
}

} // namespace hk
