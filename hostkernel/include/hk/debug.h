/*
 * Host kernel runtime: debug output, assertions and bug checks.
 *
 * DbgPrint and friends format with the Windows kernel formatter's rules
 * (LLP64 widths: %ld is 32-bit; %I64d, %Id, %p 64-bit; %ws, %S, %wZ take
 * UTF-16 text) and send the text to the host's debug channel: stderr and a
 * line capture that host programs read through hk/host_debug.h.
 *
 * _vsnprintf and _snprintf follow the Microsoft C runtime: output that does
 * not fit leaves the buffer unterminated and returns -1.
 *
 * No printf format attribute is given to these declarations on purpose: the
 * compiler would check them against glibc's rules, which differ.
 * Valid C11 and C++17.
 */
#ifndef HK_DEBUG_H
#define HK_DEBUG_H

#include "hk/base.h"

HK_EXTERN_C_BEGIN

typedef const CHAR *PCCH, *LPCCH;

/* ---- message filtering identifiers (accepted, not filtered on the host) ---- */
#define DPFLTR_ERROR_LEVEL   0
#define DPFLTR_WARNING_LEVEL 1
#define DPFLTR_TRACE_LEVEL   2
#define DPFLTR_INFO_LEVEL    3
#define DPFLTR_MASK          0x80000000

typedef enum _DPFLTR_TYPE {
    DPFLTR_SYSTEM_ID = 0,
    DPFLTR_IHVDRIVER_ID = 77,
    DPFLTR_IHVVIDEO_ID = 78,
    DPFLTR_IHVAUDIO_ID = 79,
    DPFLTR_IHVNETWORK_ID = 80,
    DPFLTR_IHVSTREAMING_ID = 81,
    DPFLTR_IHVBUS_ID = 82,
    DPFLTR_DEFAULT_ID = 101
} DPFLTR_TYPE;

/* ---- debug output (any IRQL; Unicode conversions only at PASSIVE_LEVEL) ---- */
NTSYSAPI ULONG __cdecl DbgPrint(PCSTR Format, ...);
NTSYSAPI ULONG __cdecl DbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, ...);
NTSYSAPI ULONG NTAPI vDbgPrintEx(ULONG ComponentId, ULONG Level, PCCH Format, va_list arglist);

#define KdPrint(_x_) DbgPrint _x_
#define KdPrintEx(_x_) DbgPrintEx _x_
#define vKdPrintEx(_x_) vDbgPrintEx _x_

/* ---- C runtime formatters exported by the kernel ---- */
int __cdecl _vsnprintf(char *buffer, size_t count, const char *format, va_list argptr);
int __cdecl _snprintf(char *buffer, size_t count, const char *format, ...);
int __cdecl _vsnwprintf(wchar_t *buffer, size_t count, const wchar_t *format, va_list argptr);
int __cdecl _snwprintf(wchar_t *buffer, size_t count, const wchar_t *format, ...);

/* ---- breakpoints ---- */
/* With a debugger attached to the host process it stops there; otherwise a
 * STATUS_BREAKPOINT exception is raised, as on a machine without a kernel
 * debugger (caught by a fault guard, else a bug check). */
NTSYSAPI VOID NTAPI DbgBreakPoint(VOID);
NTSYSAPI VOID NTAPI DbgBreakPointWithStatus(ULONG Status);
#define KdBreakPoint() DbgBreakPoint()
#define KdBreakPointWithStatus(s) DbgBreakPointWithStatus(s)

/* ---- assertions: always checked on the host, a failure is a verifier error ---- */
NTSYSAPI VOID NTAPI RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PSTR Message);

#define ASSERT(exp) \
    ((VOID)((exp) ? 0 : (RtlAssert((PVOID)#exp, (PVOID)__FILE__, __LINE__, NULL), 0)))
#define ASSERTMSG(msg, exp) \
    ((VOID)((exp) ? 0 : (RtlAssert((PVOID)#exp, (PVOID)__FILE__, __LINE__, (PSTR)(msg)), 0)))
#define NT_ASSERT(exp) ASSERT(exp)
#define NT_ASSERTMSG(msg, exp) ASSERTMSG(msg, exp)
#define NT_VERIFY(exp) \
    ((exp) ? TRUE : (RtlAssert((PVOID)#exp, (PVOID)__FILE__, __LINE__, NULL), FALSE))

/* ---- bug checks: print the stop line and end the process ---- */
#define IRQL_NOT_LESS_OR_EQUAL             0x0000000A
#define KMODE_EXCEPTION_NOT_HANDLED        0x0000001E
#define PAGE_FAULT_IN_NONPAGED_AREA        0x00000050
#define UNEXPECTED_KERNEL_MODE_TRAP        0x0000007F
#define SYSTEM_THREAD_EXCEPTION_NOT_HANDLED 0x0000007E
#define BAD_POOL_CALLER                    0x000000C2
#define DRIVER_VERIFIER_DETECTED_VIOLATION 0x000000C4
#define DRIVER_IRQL_NOT_LESS_OR_EQUAL      0x000000D1
#define MANUALLY_INITIATED_CRASH           0x000000E2

#ifndef HK_NORETURN
#if defined(__cplusplus)
#define HK_NORETURN [[noreturn]]
#else
#define HK_NORETURN _Noreturn
#endif
#endif

HK_NORETURN NTKERNELAPI VOID NTAPI KeBugCheckEx(ULONG BugCheckCode,
    ULONG_PTR BugCheckParameter1, ULONG_PTR BugCheckParameter2,
    ULONG_PTR BugCheckParameter3, ULONG_PTR BugCheckParameter4);
HK_NORETURN NTKERNELAPI VOID NTAPI KeBugCheck(ULONG BugCheckCode);

HK_EXTERN_C_END

#endif /* HK_DEBUG_H */
