/*
 * The IRQL of each thread.
 *
 * Host threads are never interrupted by the runtime, so the IRQL is a
 * per-thread number that the runtime checks: raising or lowering it the
 * wrong way, or calling a routine above its permitted level, is reported.
 */
#include "core_internal.h"

namespace hk {
namespace core {

thread_local ThreadState tThread;

/* Reports a verifier error naming `api` unless the IRQL is exactly `irql`. Any IRQL. */
void RequireIrqlExactly(KIRQL irql, const char *api)
{
    if (tThread.irql != irql)
        VerifierError("%s called at IRQL %u; it requires IRQL %u", api, tThread.irql, irql);
}

} // namespace core

/* Reports a verifier error naming `api` when the IRQL is above maxIrql. Any IRQL. */
void RequireIrqlAtMost(KIRQL maxIrql, const char *api)
{
    if (core::tThread.irql > maxIrql)
        VerifierError("%s called at IRQL %u; it requires IRQL <= %u", api, core::tThread.irql,
                      maxIrql);
}

} // namespace hk

using hk::core::tThread;

/* The calling thread's IRQL. Any IRQL. */
KIRQL NTAPI KeGetCurrentIrql(VOID)
{
    return tThread.irql;
}

/* Raises to NewIrql, storing the old level; a lower NewIrql is reported and still set
 * (as the caller asked). */
VOID NTAPI KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql)
{
    KIRQL current = tThread.irql;
    if (NewIrql < current)
        hk::VerifierError("KeRaiseIrql to IRQL %u from the higher IRQL %u", NewIrql, current);
    if (NewIrql > HIGH_LEVEL)
        hk::VerifierError("KeRaiseIrql to IRQL %u, above HIGH_LEVEL", NewIrql);
    *OldIrql = current;
    tThread.irql = NewIrql;
}

/* Lowers to NewIrql; a higher NewIrql is reported and ignored. */
VOID NTAPI KeLowerIrql(KIRQL NewIrql)
{
    KIRQL current = tThread.irql;
    if (NewIrql > current) {
        hk::VerifierError("KeLowerIrql to IRQL %u from the lower IRQL %u", NewIrql, current);
        return;
    }
    tThread.irql = NewIrql;
}

/* Raises to DISPATCH_LEVEL and returns the previous level. */
KIRQL NTAPI KeRaiseIrqlToDpcLevel(VOID)
{
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    return old;
}
