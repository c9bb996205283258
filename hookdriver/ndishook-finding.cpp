/*
 * ndishook-finding.cpp - the hook driver's broken rules (packets handed back
 * twice, packets still out at unload) become verifier findings of the host
 * runtime, so the test that caused one fails.
 */
#include "ndishook-internal.h"

#include <hk/host_report.h>

/* NhReportFinding - formats one finding (printf style) and records it. Any IRQL. */
VOID NhReportFinding(PCSTR Format, ...)
{
    CHAR text[512];
    va_list args;
    va_start(args, Format);
    _vsnprintf(text, sizeof(text) - 1, Format, args);
    va_end(args);
    text[sizeof(text) - 1] = 0;
    HkReportVerifierFinding(text);
}
