/*
 * Host kernel runtime: the fault guard (structured exception handling).
 *
 * SehGuardedCall runs a routine under a guard: a processor fault (access
 * violation, division by zero, illegal instruction) or a raised exception
 * inside it resumes execution after the guard, which returns the exception
 * code. Guards nest and every thread has its own. What the routine changed
 * before the fault stays changed: the thread's IRQL and the locks it holds
 * are left as they were at the fault, as on Windows.
 *
 * A fault outside any guard is a bug check (KMODE_EXCEPTION_NOT_HANDLED):
 * the stop line is printed to stderr and the process aborts. A kernel stack
 * overflow is a bug check even inside a guard.
 * Valid C11 and C++17.
 */
#ifndef HK_SEH_H
#define HK_SEH_H

#include "hk/base.h"

HK_EXTERN_C_BEGIN

#ifndef STATUS_GUARD_PAGE_VIOLATION
#define STATUS_GUARD_PAGE_VIOLATION    ((NTSTATUS)0x80000001)
#endif
#ifndef STATUS_IN_PAGE_ERROR
#define STATUS_IN_PAGE_ERROR           ((NTSTATUS)0xC0000006)
#endif
#ifndef STATUS_PRIVILEGED_INSTRUCTION
#define STATUS_PRIVILEGED_INSTRUCTION  ((NTSTATUS)0xC0000096)
#endif
#ifndef STATUS_INTEGER_OVERFLOW
#define STATUS_INTEGER_OVERFLOW        ((NTSTATUS)0xC0000095)
#endif
#ifndef STATUS_FLOAT_DIVIDE_BY_ZERO
#define STATUS_FLOAT_DIVIDE_BY_ZERO    ((NTSTATUS)0xC000008E)
#endif
#ifndef STATUS_FLOAT_INEXACT_RESULT
#define STATUS_FLOAT_INEXACT_RESULT    ((NTSTATUS)0xC000008F)
#endif
#ifndef STATUS_FLOAT_INVALID_OPERATION
#define STATUS_FLOAT_INVALID_OPERATION ((NTSTATUS)0xC0000090)
#endif
#ifndef STATUS_FLOAT_OVERFLOW
#define STATUS_FLOAT_OVERFLOW          ((NTSTATUS)0xC0000091)
#endif
#ifndef STATUS_FLOAT_UNDERFLOW
#define STATUS_FLOAT_UNDERFLOW         ((NTSTATUS)0xC0000093)
#endif
#ifndef STATUS_STACK_OVERFLOW
#define STATUS_STACK_OVERFLOW          ((NTSTATUS)0xC00000FD)
#endif

/* Runs Routine(Context) under a fault guard. Returns 0 when the routine
 * completed, or the code of the exception that ended it. Any IRQL. */
EXTERN_C LONG SehGuardedCall(VOID (*Routine)(PVOID Context), PVOID Context);

/* Raise an exception with the given code: the innermost guard of the calling
 * thread returns it; without a guard it is a bug check. Never return. */
#ifndef HK_NORETURN
#if defined(__cplusplus)
#define HK_NORETURN [[noreturn]]
#else
#define HK_NORETURN _Noreturn
#endif
#endif
HK_NORETURN NTKERNELAPI VOID NTAPI ExRaiseStatus(NTSTATUS Status);
HK_NORETURN NTKERNELAPI VOID NTAPI ExRaiseAccessViolation(VOID);
HK_NORETURN NTKERNELAPI VOID NTAPI ExRaiseDatatypeMisalignment(VOID);

HK_EXTERN_C_END

#endif /* HK_SEH_H */
