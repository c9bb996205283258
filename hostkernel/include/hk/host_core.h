/*
 * Host kernel runtime: host control of the core (verifier findings, pool
 * accounting and failure injection, system threads and work queue, registry
 * contents).
 *
 * For host programs and tests only; drivers never call these. Paths and names
 * are narrow UTF-8 strings. Valid C11 and C++17 (C++ conveniences at the end).
 */
#ifndef HK_HOST_CORE_H
#define HK_HOST_CORE_H

#include "hk/base.h"

/* A pool tag from its four characters in memory order: HK_POOL_TAG('F','i','l','t')
 * is the tag leak reports print as "Filt". */
#define HK_POOL_TAG(a, b, c, d) \
    ((ULONG)(UCHAR)(a) | ((ULONG)(UCHAR)(b) << 8) | ((ULONG)(UCHAR)(c) << 16) | ((ULONG)(UCHAR)(d) << 24))

HK_EXTERN_C_BEGIN

/* ======================================================================
 * Verifier findings
 * ====================================================================== */

/* Number of findings recorded and not yet taken. */
ULONG HkVerifierFindingCount(void);
/* Hands each recorded finding (oldest first) to Sink, forgets them, and returns how many
 * there were. Sink may be NULL to just discard them. */
typedef void (*HK_VERIFIER_FINDING_SINK)(const char *Finding, void *Context);
ULONG HkVerifierTakeFindings(HK_VERIFIER_FINDING_SINK Sink, void *Context);
/* Forgets every recorded finding. */
void HkVerifierClearFindings(void);

/* ======================================================================
 * Pool
 * ====================================================================== */

/* Live (allocated, not freed) pool blocks and their bytes: all, or of one tag. */
ULONG HkPoolLiveAllocationCount(void);
SIZE_T HkPoolLiveByteCount(void);
ULONG HkPoolLiveAllocationCountWithTag(ULONG Tag);
SIZE_T HkPoolLiveByteCountWithTag(ULONG Tag);

/* Prints the live blocks by tag to stderr ("POOL LEAK: tag 'Filt': 3 blocks, 96 bytes")
 * and returns the number of live blocks. With AsVerifierFindings each tag's line is also
 * recorded as a verifier finding. */
ULONG HkPoolReportLeaks(BOOLEAN AsVerifierFindings);

/* Failure injection: the next Count allocations with Tag (or, for the Any form, with any
 * tag) return NULL. Clear cancels whatever is still pending. */
void HkPoolFailAllocations(ULONG Tag, ULONG Count);
void HkPoolFailAnyAllocations(ULONG Count);
void HkPoolClearFailures(void);

/* ======================================================================
 * System threads and the system work queue
 * ====================================================================== */

/* System threads (PsCreateSystemThread) that have not ended yet. */
ULONG HkSystemThreadCount(void);
/* Waits until every system thread has ended; FALSE when TimeoutMs passed first. */
BOOLEAN HkWaitForSystemThreads(ULONG TimeoutMs);

typedef struct _HK_SYSTEM_THREAD_INFO {
    HANDLE ThreadId;
    KPRIORITY Priority;
    PVOID StartRoutine;
    PVOID StartContext;
} HK_SYSTEM_THREAD_INFO;
/* Fills up to MaxCount records about running system threads (oldest first) and returns
 * how many are running. */
ULONG HkQuerySystemThreads(HK_SYSTEM_THREAD_INFO *Threads, ULONG MaxCount);

/* Waits until the system work queue is empty and no work routine runs; FALSE when
 * TimeoutMs passed first. */
BOOLEAN HkWaitForWorkQueueIdle(ULONG TimeoutMs);

/* ======================================================================
 * Registry contents
 * ====================================================================== */

/* Key paths are full paths such as
 * "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\NdisFilter". Setting a
 * value creates its key (and the keys above it) when needed. */
NTSTATUS HkRegistryCreateKey(const char *KeyPath);
/* Deletes the key with everything below it; STATUS_OBJECT_NAME_NOT_FOUND when missing. */
NTSTATUS HkRegistryDeleteKey(const char *KeyPath);
NTSTATUS HkRegistrySetDword(const char *KeyPath, const char *ValueName, ULONG Value);
/* A REG_SZ value (stored as UTF-16 with its terminator). */
NTSTATUS HkRegistrySetString(const char *KeyPath, const char *ValueName, const char *Value);
/* A REG_MULTI_SZ value from Count strings. */
NTSTATUS HkRegistrySetMultiString(const char *KeyPath, const char *ValueName,
                                  const char *const *Values, ULONG Count);
NTSTATUS HkRegistrySetBinary(const char *KeyPath, const char *ValueName, const void *Data,
                             ULONG Length);
/* Any type, raw bytes. */
NTSTATUS HkRegistrySetValue(const char *KeyPath, const char *ValueName, ULONG Type,
                            const void *Data, ULONG Length);
NTSTATUS HkRegistryDeleteValue(const char *KeyPath, const char *ValueName);
/* Reads a value: its type and up to *Length bytes; *Length receives the full size.
 * STATUS_BUFFER_OVERFLOW when Data was too small (or NULL). */
NTSTATUS HkRegistryGetValue(const char *KeyPath, const char *ValueName, ULONG *Type,
                            void *Data, ULONG *Length);
/* Empties the registry. */
void HkRegistryReset(void);

HK_EXTERN_C_END

#ifdef __cplusplus
#include <string>
#include <vector>

namespace hk {
/* The recorded verifier findings (oldest first), which are forgotten. */
inline std::vector<std::string> TakeVerifierFindings()
{
    std::vector<std::string> findings;
    HkVerifierTakeFindings(
        [](const char *finding, void *context) {
            static_cast<std::vector<std::string> *>(context)->emplace_back(finding);
        },
        &findings);
    return findings;
}
} // namespace hk
#endif

#endif /* HK_HOST_CORE_H */
