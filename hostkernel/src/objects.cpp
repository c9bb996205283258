// Host kernel runtime, I/O area: the object manager.
//
// Every kernel object is a body behind a hidden header that carries its type
// name, reference count, handle count and delete procedure. Live bodies are
// registered, so a reference or dereference of something that is not (or no
// longer) an object is a verifier finding rather than memory corruption.
// Two handle tables: kernel handles (high bit set, as on Windows) and the
// user-mode handles of the Win32 side.
#include "io_internal.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unordered_map>
#include <unordered_set>

struct _OBJECT_TYPE {
    const char *Name;
};

namespace hk {

const char kDriverTypeName[] = "Driver";
const char kDeviceTypeName[] = "Device";
const char kFileTypeName[] = "File";
const char kEventTypeName[] = "Event";

namespace {

constexpr uint64_t kLiveMagic = 0x4a424f4b4c4956ull;  // "VILKOBJ"
constexpr uint64_t kDeadMagic = 0x4a424f44414544ull;  // "DEADOBJ"

struct alignas(16) ObjectHeader {
    uint64_t magic;
    std::atomic<long> references;
    std::atomic<long> handles;
    char typeName[24];
    ObjectDeleteProcedure onDelete;
    ObjectDeleteProcedure onLastHandle;
};

struct HandleEntry {
    void *body;
    ACCESS_MASK access;
};

constexpr uintptr_t kKernelHandleBase = 0xFFFFFFFF80000000ull;

struct ObjectManager {
    std::mutex lock;
    std::unordered_set<const void *> live;
    std::unordered_map<uintptr_t, HandleEntry> kernelHandles;
    std::unordered_map<uintptr_t, HandleEntry> userHandles;
    uintptr_t nextKernelIndex = 1;
    uintptr_t nextUserValue = 0x100;
};

// The process-wide object manager state; never destroyed, so objects released
// by late static destructors elsewhere still find it.
ObjectManager &Manager()
{
    static ObjectManager *manager = new ObjectManager();
    return *manager;
}

ObjectHeader *HeaderOf(const void *body)
{
    return reinterpret_cast<ObjectHeader *>(const_cast<char *>(static_cast<const char *>(body))) - 1;
}

void *BodyOf(ObjectHeader *header)
{
    return header + 1;
}

bool SameTypeName(const char *a, const char *b)
{
    for (; *a != 0 && *b != 0; ++a, ++b) {
        char ca = (*a >= 'a' && *a <= 'z') ? static_cast<char>(*a - 'a' + 'A') : *a;
        char cb = (*b >= 'a' && *b <= 'z') ? static_cast<char>(*b - 'a' + 'A') : *b;
        if (ca != cb)
            return false;
    }
    return *a == *b;
}

// Runs the delete procedure and frees the memory. PASSIVE_LEVEL.
void DeleteObjectNow(void *context)
{
    ObjectHeader *header = static_cast<ObjectHeader *>(context);
    if (header->onDelete != nullptr)
        header->onDelete(BodyOf(header));
    header->magic = kDeadMagic;
    header->~ObjectHeader();
    std::free(header);
}

bool IsKernelHandle(HANDLE handle)
{
    uintptr_t value = reinterpret_cast<uintptr_t>(handle);
    return (value & kKernelHandleBase) == kKernelHandleBase && value != UINTPTR_MAX &&
           value != UINTPTR_MAX - 1;
}

// Looks a handle up and references its object. Caller holds no lock.
NTSTATUS ReferenceHandle(HANDLE handle, bool user, const char *typeName, void **body,
                         ACCESS_MASK *access)
{
    ObjectManager &m = Manager();
    std::lock_guard<std::mutex> guard(m.lock);
    auto &table = user ? m.userHandles : m.kernelHandles;
    auto it = table.find(reinterpret_cast<uintptr_t>(handle));
    if (it == table.end())
        return STATUS_INVALID_HANDLE;
    ObjectHeader *header = HeaderOf(it->second.body);
    if (typeName != nullptr && !SameTypeName(header->typeName, typeName))
        return STATUS_OBJECT_TYPE_MISMATCH;
    header->references.fetch_add(1);
    *body = it->second.body;
    if (access != nullptr)
        *access = it->second.access;
    return STATUS_SUCCESS;
}

// Removes a handle and releases what it held: the last handle runs the
// object's last-handle procedure, then the handle's reference is dropped.
NTSTATUS CloseHandleEntry(HANDLE handle, bool user)
{
    ObjectManager &m = Manager();
    void *body = nullptr;
    {
        std::lock_guard<std::mutex> guard(m.lock);
        auto &table = user ? m.userHandles : m.kernelHandles;
        auto it = table.find(reinterpret_cast<uintptr_t>(handle));
        if (it == table.end())
            return STATUS_INVALID_HANDLE;
        body = it->second.body;
        table.erase(it);
    }
    ObjectHeader *header = HeaderOf(body);
    if (header->handles.fetch_sub(1) == 1 && header->onLastHandle != nullptr)
        header->onLastHandle(body);
    ObfDereferenceObject(body);
    return STATUS_SUCCESS;
}

HANDLE InsertHandle(void *body, bool user, ACCESS_MASK access)
{
    ObjectManager &m = Manager();
    ObjectHeader *header = HeaderOf(body);
    std::lock_guard<std::mutex> guard(m.lock);
    if (m.live.count(body) == 0) {
        VerifierError("a handle was requested for %p, which is not a live object", body);
        return nullptr;
    }
    header->references.fetch_add(1);
    header->handles.fetch_add(1);
    uintptr_t value;
    if (user) {
        value = m.nextUserValue;
        m.nextUserValue += 4;
        m.userHandles[value] = HandleEntry{body, access};
    } else {
        value = kKernelHandleBase | (m.nextKernelIndex << 2);
        m.nextKernelIndex++;
        m.kernelHandles[value] = HandleEntry{body, access};
    }
    return reinterpret_cast<HANDLE>(value);
}

_OBJECT_TYPE g_fileType{kFileTypeName};
_OBJECT_TYPE g_deviceType{kDeviceTypeName};
_OBJECT_TYPE g_driverType{kDriverTypeName};
_OBJECT_TYPE g_eventType{kEventTypeName};
_OBJECT_TYPE g_threadType{"Thread"};
POBJECT_TYPE g_fileTypePointer = &g_fileType;
POBJECT_TYPE g_deviceTypePointer = &g_deviceType;
POBJECT_TYPE g_driverTypePointer = &g_driverType;
POBJECT_TYPE g_eventTypePointer = &g_eventType;
POBJECT_TYPE g_threadTypePointer = &g_threadType;

} // namespace

// ---- internal.h ----

// A new object: header plus a zeroed body, one reference held by the caller. Any IRQL.
void *ObjectCreate(size_t bodySize, const char *typeName, ObjectDeleteProcedure onDelete)
{
    void *memory = std::calloc(1, sizeof(ObjectHeader) + (bodySize == 0 ? 1 : bodySize));
    if (memory == nullptr)
        return nullptr;
    ObjectHeader *header = new (memory) ObjectHeader();
    header->magic = kLiveMagic;
    header->references.store(1);
    header->handles.store(0);
    std::strncpy(header->typeName, typeName != nullptr ? typeName : "Object",
                 sizeof(header->typeName) - 1);
    header->onDelete = onDelete;
    header->onLastHandle = nullptr;
    void *body = BodyOf(header);
    ObjectManager &m = Manager();
    std::lock_guard<std::mutex> guard(m.lock);
    m.live.insert(body);
    return body;
}

// A new kernel handle holding its own reference. Any IRQL.
HANDLE ObjectInsertHandle(void *body)
{
    return InsertHandle(body, false, GENERIC_ALL);
}

// The creation type name of a live object, or nullptr. Any IRQL.
const char *ObjectTypeName(const void *body)
{
    ObjectManager &m = Manager();
    std::lock_guard<std::mutex> guard(m.lock);
    if (body == nullptr || m.live.count(body) == 0)
        return nullptr;
    return HeaderOf(body)->typeName;
}

// ---- io_internal.h ----

// Registers the routine the last handle close runs. Any IRQL.
void ObjectSetLastHandleProcedure(void *body, ObjectDeleteProcedure onLastHandle)
{
    HeaderOf(body)->onLastHandle = onLastHandle;
}

// A new Win32 handle holding its own reference. Any IRQL.
HANDLE ObjectInsertUserHandle(void *body, ACCESS_MASK grantedAccess)
{
    return InsertHandle(body, true, grantedAccess);
}

// References the object of a Win32 handle (typeName nullable). Any IRQL.
NTSTATUS ObjectReferenceUserHandle(HANDLE handle, const char *typeName, void **body)
{
    return ReferenceHandle(handle, true, typeName, body, nullptr);
}

// Closes a Win32 handle. PASSIVE_LEVEL (the last close may send requests).
NTSTATUS ObjectCloseUserHandle(HANDLE handle)
{
    return CloseHandleEntry(handle, true);
}

// Whether body is a live object with this type name. Any IRQL.
bool ObjectIsOfType(const void *body, const char *typeName)
{
    const char *name = ObjectTypeName(body);
    return name != nullptr && SameTypeName(name, typeName);
}

} // namespace hk

using namespace hk;

extern "C" {

POBJECT_TYPE *IoFileObjectType = &g_fileTypePointer;
POBJECT_TYPE *IoDeviceObjectType = &g_deviceTypePointer;
POBJECT_TYPE *IoDriverObjectType = &g_driverTypePointer;
POBJECT_TYPE *ExEventObjectType = &g_eventTypePointer;
POBJECT_TYPE *PsThreadType = &g_threadTypePointer;

// Adds a reference; returns the new count. IRQL <= DISPATCH_LEVEL.
LONG_PTR ObfReferenceObject(PVOID Object)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "ObReferenceObject");
    ObjectManager &m = Manager();
    std::lock_guard<std::mutex> guard(m.lock);
    if (Object == nullptr || m.live.count(Object) == 0) {
        VerifierError("ObReferenceObject(%p): not a live object (referenced after its last "
                      "dereference?)", Object);
        return 0;
    }
    return HeaderOf(Object)->references.fetch_add(1) + 1;
}

// Drops a reference; at zero the object is deleted (by a system worker when the
// caller is above PASSIVE_LEVEL). Returns the new count. IRQL <= DISPATCH_LEVEL.
LONG_PTR ObfDereferenceObject(PVOID Object)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "ObDereferenceObject");
    ObjectManager &m = Manager();
    ObjectHeader *header = nullptr;
    {
        std::lock_guard<std::mutex> guard(m.lock);
        if (Object == nullptr || m.live.count(Object) == 0) {
            VerifierError("ObDereferenceObject(%p): not a live object (one dereference too "
                          "many?)", Object);
            return 0;
        }
        header = HeaderOf(Object);
        long remaining = header->references.fetch_sub(1) - 1;
        if (remaining > 0)
            return remaining;
        m.live.erase(Object);
    }
    if (KeGetCurrentIrql() > PASSIVE_LEVEL)
        QueueSystemWork(DeleteObjectNow, header);
    else
        DeleteObjectNow(header);
    return 0;
}

// References the object behind a kernel handle or a handle of the process's
// (user) table; the type is checked when ObjectType is given. IRQL <= APC_LEVEL.
NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess,
                                   POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode,
                                   PVOID *Object, POBJECT_HANDLE_INFORMATION HandleInformation)
{
    UNREFERENCED_PARAMETER(DesiredAccess);
    RequireIrqlAtMost(APC_LEVEL, "ObReferenceObjectByHandle");
    if (Object == nullptr)
        return STATUS_INVALID_PARAMETER;
    *Object = nullptr;
    uintptr_t value = reinterpret_cast<uintptr_t>(Handle);
    if (value == UINTPTR_MAX || value == UINTPTR_MAX - 1) {
        VerifierError("ObReferenceObjectByHandle: the current process/thread pseudo handles "
                      "are not supported by the host runtime");
        return STATUS_NOT_IMPLEMENTED;
    }
    bool kernel = IsKernelHandle(Handle);
    if (kernel && AccessMode == UserMode)
        return STATUS_INVALID_HANDLE;
    ACCESS_MASK granted = 0;
    NTSTATUS status = ReferenceHandle(Handle, !kernel,
                                      ObjectType != nullptr ? ObjectType->Name : nullptr,
                                      Object, &granted);
    if (NT_SUCCESS(status) && HandleInformation != nullptr) {
        HandleInformation->HandleAttributes = kernel ? OBJ_KERNEL_HANDLE : 0;
        HandleInformation->GrantedAccess = granted;
    }
    return status;
}

// References an object by pointer after checking its type. IRQL <= DISPATCH_LEVEL.
NTSTATUS ObReferenceObjectByPointer(PVOID Object, ACCESS_MASK DesiredAccess,
                                    POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode)
{
    UNREFERENCED_PARAMETER(DesiredAccess);
    UNREFERENCED_PARAMETER(AccessMode);
    RequireIrqlAtMost(DISPATCH_LEVEL, "ObReferenceObjectByPointer");
    ObjectManager &m = Manager();
    std::lock_guard<std::mutex> guard(m.lock);
    if (Object == nullptr || m.live.count(Object) == 0) {
        VerifierError("ObReferenceObjectByPointer(%p): not a live object", Object);
        return STATUS_INVALID_PARAMETER;
    }
    ObjectHeader *header = HeaderOf(Object);
    if (ObjectType != nullptr && !SameTypeName(header->typeName, ObjectType->Name))
        return STATUS_OBJECT_TYPE_MISMATCH;
    header->references.fetch_add(1);
    return STATUS_SUCCESS;
}

// Closes a kernel handle (or a handle of the process table). Closing a kernel
// handle that does not exist is a verifier error. IRQL == PASSIVE_LEVEL.
NTSTATUS ZwClose(HANDLE Handle)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwClose");
    bool kernel = IsKernelHandle(Handle);
    NTSTATUS status = CloseHandleEntry(Handle, !kernel);
    if (!NT_SUCCESS(status) && kernel)
        VerifierError("ZwClose(%p): not an open kernel handle (closed twice?)", Handle);
    return status;
}

NTSTATUS NtClose(HANDLE Handle)
{
    return ZwClose(Handle);
}

} // extern "C"
