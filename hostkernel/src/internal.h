/*
 * Host kernel runtime: what one area of the runtime offers the others.
 * Not seen by drivers or tests.
 */
#pragma once
#include <ntddk.h>
#include <ndis.h>
#include <stddef.h>

namespace hk {

// Records a verifier finding: printed to stderr as "VERIFIER: <text>" and kept
// for the host_core.h queries, so a test that caused it fails. (verifier.cpp)
void VerifierError(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Reports a verifier error naming `api` when the calling thread's IRQL is
// above `maxIrql`. (irql/sync area)
void RequireIrqlAtMost(KIRQL maxIrql, const char *api);

// A second, independent virtual mapping of the pages behind [address, address+length)
// of a pool allocation (what MmMapLockedPages into user mode gives): writes through
// either mapping are seen through the other. Returns the address in the second mapping
// that corresponds to `address`, or nullptr. (pool area)
void *MapSecondView(const void *address, size_t length);
void UnmapSecondView(void *viewAddress, size_t length);
// The pages of [address, address+length) of a pool allocation as a file another process
// can map: a new descriptor (the caller closes it), the offset of the first page in it
// and the mapped length; -1 when the range is not inside one page-backed block of 64 KiB
// or more (smaller blocks do not keep their file).
int PoolPagesFile(const void *address, size_t length, size_t *fileOffset, size_t *mappedLength);

} // namespace hk

namespace hk {

// ---- object manager (io area: objects.cpp) ----
// Kernel objects live behind a hidden header with a reference count and a
// delete procedure; a body pointer is what PVOID object pointers are.
typedef void (*ObjectDeleteProcedure)(void *body);
// A new object with a zeroed body of `bodySize` bytes and one reference.
void *ObjectCreate(size_t bodySize, const char *typeName, ObjectDeleteProcedure onDelete);
// A new kernel handle that holds one reference of its own (ZwClose drops it).
HANDLE ObjectInsertHandle(void *body);
// The type name given at creation, or nullptr when `body` is not an object.
const char *ObjectTypeName(const void *body);

// ---- system work queue (thread area) ----
// Runs routine(context) at PASSIVE_LEVEL on a system worker thread.
void QueueSystemWork(void (*routine)(void *), void *context);

} // namespace hk
