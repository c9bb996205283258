/*
 * seh-guard-win64.S - SehGuardedCall for the x64 Windows image.
 *
 *   LONG SehGuardedCall(VOID (*Routine)(PVOID), PVOID Context)
 *
 * The compiler offers no __try here, so the guard is built from the x64
 * exception model directly: the function's unwind info names
 * SehGuardLanguageHandler (platform/seh-guard-win64.cpp) as its exception
 * handler. An exception raised anywhere below this frame reaches that
 * handler, which unwinds the stack back to this frame with RtlUnwindEx and
 * resumes at SehGuardedCallLanding with RAX = the exception code; the normal
 * epilogue then returns it.
 *
 * Frame: 32 bytes of home space for the callee plus 8 bytes that realign
 * RSP to 16. No register is saved, so the unwind info only records the
 * stack allocation. The instruction after the call keeps the return address
 * out of the epilogue (an unwinder would otherwise take the frame for one
 * that is already returning).
 */
    .text
    .p2align 4
    .globl SehGuardedCall
    .def SehGuardedCall; .scl 2; .type 32; .endef
    .seh_proc SehGuardedCall
SehGuardedCall:
    subq $40, %rsp
    .seh_stackalloc 40
    .seh_endprologue
    movq %rcx, %rax             /* Routine */
    movq %rdx, %rcx             /* Routine's only argument: Context */
    call *%rax
    xorl %eax, %eax             /* completed: 0 */
    .globl SehGuardedCallLanding
SehGuardedCallLanding:          /* after an exception: RAX holds its code */
    addq $40, %rsp
    ret
    .seh_handler SehGuardLanguageHandler, @except
    .seh_endproc
