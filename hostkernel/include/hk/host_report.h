/*
 * Host kernel runtime: verifier findings reported from outside the runtime.
 *
 * Host-side parts of driver libraries (such as a simulated driver's checks
 * of its own bookkeeping) record findings here, so a test that caused one
 * fails as it does for the runtime's own findings. Valid C11 and C++17.
 */
#ifndef HK_HOST_REPORT_H
#define HK_HOST_REPORT_H

#include "hk/base.h"

HK_EXTERN_C_BEGIN

/* Records Finding (a line of text, without "VERIFIER: ") as a verifier finding: printed to
 * stderr and kept for HkVerifierTakeFindings. Any IRQL. */
void HkReportVerifierFinding(const char *Finding);

HK_EXTERN_C_END

#endif /* HK_HOST_REPORT_H */
