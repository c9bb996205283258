/*
 * seh-guard-win64.cpp - the exception handler behind SehGuardedCall (x64
 * Windows image only; see seh-guard-win64.S).
 *
 * The dispatcher calls SehGuardLanguageHandler for every exception that
 * passes SehGuardedCall's frame. The handler accepts all of them, as
 * __except (EXCEPTION_EXECUTE_HANDLER) would: it unwinds every frame below
 * SehGuardedCall's (running their termination handlers) and continues at
 * SehGuardedCallLanding with the exception code as the return value. During
 * that unwind the dispatcher calls the handler again with an unwinding flag;
 * it then has nothing to do.
 */
#include "platform/ddk-mingw.h"

/* The exception record's flags while frames are being unwound (unwinding,
 * exit unwind, target unwind, collided unwind). */
#define SEH_GUARD_UNWIND_FLAGS 0x66

/* What the x64 dispatcher passes a language handler as DispatcherContext
 * (the DDK headers leave the structure out). */
struct SEH_GUARD_DISPATCHER_CONTEXT {
    ULONG64 ControlPc;
    ULONG64 ImageBase;
    PVOID FunctionEntry;
    ULONG64 EstablisherFrame;
    ULONG64 TargetIp;
    PCONTEXT ContextRecord;
    PVOID LanguageHandler;
    PVOID HandlerData;
    PVOID HistoryTable;
    ULONG ScopeIndex;
    ULONG Fill0;
};

extern "C" {

/* Exported by ntoskrnl.exe; not declared by the DDK headers. */
NTSYSAPI VOID NTAPI RtlUnwindEx(PVOID TargetFrame, PVOID TargetIp, PEXCEPTION_RECORD ExceptionRecord,
                                PVOID ReturnValue, PCONTEXT ContextRecord, PVOID HistoryTable);

/* The resume point inside SehGuardedCall (seh-guard-win64.S); a code label,
 * never called. */
VOID SehGuardedCallLanding(VOID);

/* Language-specific handler of SehGuardedCall: unwinds to its frame and
 * resumes it at the landing with the exception code. Returns
 * ExceptionContinueSearch only for unwind calls; otherwise it does not
 * return. Runs at the IRQL of the fault. */
EXCEPTION_DISPOSITION SehGuardLanguageHandler(PEXCEPTION_RECORD ExceptionRecord, PVOID EstablisherFrame,
                                              PCONTEXT ContextRecord, PVOID DispatcherContext)
{
    if ((ExceptionRecord->ExceptionFlags & SEH_GUARD_UNWIND_FLAGS) != 0)
        return ExceptionContinueSearch;

    SEH_GUARD_DISPATCHER_CONTEXT *dispatcher = static_cast<SEH_GUARD_DISPATCHER_CONTEXT *>(DispatcherContext);
    RtlUnwindEx(EstablisherFrame, reinterpret_cast<PVOID>(&SehGuardedCallLanding), ExceptionRecord,
                reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(ExceptionRecord->ExceptionCode)), ContextRecord,
                dispatcher->HistoryTable);
    return ExceptionContinueSearch; /* not reached: RtlUnwindEx resumes at the landing */
}

} /* extern "C" */
