// Host kernel runtime: verifier findings handed in from outside the runtime.
#include "internal.h"

#include <hk/host_report.h>

// Records the text as a verifier finding. Any IRQL.
extern "C" void HkReportVerifierFinding(const char *Finding)
{
    hk::VerifierError("%s", Finding != nullptr ? Finding : "(a finding without text)");
}
