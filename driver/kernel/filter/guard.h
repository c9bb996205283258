/*
 * guard.h - the fault guard of the framework driver.
 *
 * Handle checks and calls into client drivers run under a guard so that a
 * fault in them (an access violation through a stale pointer, a division by
 * zero, an exception a client raised) becomes a status code instead of a
 * crash. One construct serves both platforms:
 *
 *   LONG code = FilterGuard([&] { status = Client->Handler(Context); });
 *   if (code != 0) ... the handler faulted with exception `code` ...
 *
 * SehGuardedCall is implemented by the host kernel runtime on Linux and by
 * platform/seh-guard-win64.S/.cpp (x64 structured exception handling) in the
 * Windows image. When a fault ends the body, the body's frames are abandoned:
 * destructors in them do not run, and locks it took and IRQL changes it made
 * stay as they were. Keep bodies small and free of resource ownership.
 *
 * Include after the platform headers (precomp.h does). Kernel-safe C++: no
 * standard headers, no exceptions, no std::function.
 */
#ifndef NDISFILTER_GUARD_H
#define NDISFILTER_GUARD_H

/* Runs Routine(Context) under a structured-exception guard. Returns 0 when
 * the routine completed, or the exception code (STATUS_ACCESS_VIOLATION, ...)
 * of the fault that ended it; execution resumes after the guard. Any IRQL. */
EXTERN_C LONG SehGuardedCall(VOID (*Routine)(PVOID Context), PVOID Context);

#ifdef __cplusplus

namespace filter_guard_detail {

template <typename T> struct RemoveReference { typedef T Type; };
template <typename T> struct RemoveReference<T &> { typedef T Type; };
template <typename T> struct RemoveReference<T &&> { typedef T Type; };

// Calls the body SehGuardedCall was given as its context.
template <typename Body>
VOID Invoke(PVOID Context)
{
    (*static_cast<Body *>(Context))();
}

} // namespace filter_guard_detail

/* Runs body() (any callable taking no arguments, typically a lambda) under a
 * fault guard. Returns 0 when it completed, else the exception code. What the
 * body returns is ignored; pass results out through captured references. */
template <typename Body>
LONG FilterGuard(Body &&body)
{
    typedef typename filter_guard_detail::RemoveReference<Body>::Type BodyType;
    return SehGuardedCall(&filter_guard_detail::Invoke<BodyType>,
                          const_cast<PVOID>(static_cast<const volatile void *>(&body)));
}

#endif /* __cplusplus */

#endif /* NDISFILTER_GUARD_H */
