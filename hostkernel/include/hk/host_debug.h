/*
 * Host kernel runtime: control of the debug channel (host programs and tests).
 *
 * Every DbgPrint text is echoed to stderr (unless echo is off) and added to a
 * line capture. The capture splits texts at '\n': a text without a final
 * '\n' continues the calling thread's current line, and a completed line is
 * stored without its '\n'. Each thread builds its own current line, so
 * threads printing at once never mix pieces of their lines. A thread that
 * ends with an unfinished line has that line stored as it is.
 *
 * Echo is on by default; the environment variable HK_DEBUG_ECHO=0 turns it
 * off. The capture keeps the most recent lines up to a limit (default
 * 100000); older lines are dropped.
 * Valid C11 and C++17; drivers never include it.
 */
#ifndef HK_HOST_DEBUG_H
#define HK_HOST_DEBUG_H

#include "hk/base.h"

HK_EXTERN_C_BEGIN

/* Called with each completed line (no '\n'; Line is zero-terminated and also
 * Length bytes long). Runs on the printing thread, outside the capture lock. */
typedef VOID (*HK_DEBUG_LINE_HOOK)(PVOID Context, PCSTR Line, SIZE_T Length);

/* Echo of debug output to stderr. */
VOID HkDebugSetEcho(BOOLEAN Enabled);
BOOLEAN HkDebugGetEcho(VOID);

/* Forgets every captured line and every thread's unfinished line. */
VOID HkDebugClearCapture(VOID);

/* Number of completed lines in the capture. */
SIZE_T HkDebugCapturedLineCount(VOID);

/* Copies captured line Index (0 = oldest) into Buffer, zero-terminated and
 * truncated to BufferSize - 1 characters. Returns the line's full length, or
 * (SIZE_T)-1 when there is no such line. Buffer may be NULL when BufferSize
 * is 0 (to ask for the length). */
SIZE_T HkDebugGetCapturedLine(SIZE_T Index, PCHAR Buffer, SIZE_T BufferSize);

/* Most lines the capture keeps (at least 1). */
VOID HkDebugSetCaptureLimit(SIZE_T MaxLines);

/* Installs (or with NULL removes) the per-line hook. */
VOID HkDebugSetLineHook(HK_DEBUG_LINE_HOOK Hook, PVOID Context);

HK_EXTERN_C_END

#if defined(__cplusplus)
#include <string>
#include <vector>

namespace hk {

// A copy of the captured lines, oldest first.
std::vector<std::string> CapturedDebugLines();

// The captured lines, oldest first; the capture is left empty (unfinished
// lines of threads are kept).
std::vector<std::string> TakeCapturedDebugLines();

} // namespace hk
#endif

#endif /* HK_HOST_DEBUG_H */
