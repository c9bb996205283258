// Host kernel runtime, I/O area: I/O request packets.
//
// An IRP is allocated with a hidden header (what to do once it is completed
// through every stack location) and its stack locations after it. Completion
// walks the stack upwards calling completion routines as Windows does; misuse
// that Windows answers with a bug check (completing twice, completing with
// STATUS_PENDING or with a cancel routine still set, running out of stack
// locations) is a verifier error. Freed IRPs are kept in a small quarantine
// so a late second completion is recognised instead of touching reused memory.
#include "io_internal.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace hk {
namespace {

constexpr uint64_t kIrpLiveMagic = 0x5052494556494cull; // "LIVEIRP"
constexpr uint64_t kIrpFreeMagic = 0x50524945455246ull; // "FREEIRP"

struct alignas(16) IrpHeader {
    uint64_t magic;
    IrpFinishRoutine finish; // nullptr: allocated by a driver (IoAllocateIrp)
    void *owner;
    bool topPendingReturned;
};

std::atomic<long> g_liveIrps{0};
std::atomic<long> g_liveDriverIrps{0};

IrpHeader *HeaderOf(PIRP irp)
{
    return reinterpret_cast<IrpHeader *>(irp) - 1;
}

PIO_STACK_LOCATION StackBase(PIRP irp)
{
    return reinterpret_cast<PIO_STACK_LOCATION>(irp + 1);
}

// Freed IRPs wait here before their memory goes back to the host allocator.
struct Quarantine {
    static constexpr size_t kSlots = 128;
    std::mutex lock;
    IrpHeader *slots[kSlots] = {};
    size_t next = 0;
};

Quarantine &FreedIrps()
{
    static Quarantine *quarantine = new Quarantine();
    return *quarantine;
}

void QuarantineIrp(IrpHeader *header)
{
    header->magic = kIrpFreeMagic;
    Quarantine &q = FreedIrps();
    IrpHeader *oldest;
    {
        std::lock_guard<std::mutex> guard(q.lock);
        oldest = q.slots[q.next];
        q.slots[q.next] = header;
        q.next = (q.next + 1) % Quarantine::kSlots;
    }
    std::free(oldest);
}

// Sets the packet up as Windows IoInitializeIrp does.
void InitializeIrp(PIRP irp, USHORT size, CCHAR stackSize)
{
    std::memset(irp, 0, size);
    irp->Type = IO_TYPE_IRP;
    irp->Size = size;
    irp->StackCount = stackSize;
    irp->CurrentLocation = static_cast<CHAR>(stackSize + 1);
    irp->ApcEnvironment = 0;
    InitializeListHead(&irp->ThreadListEntry);
    irp->Tail.Overlay.CurrentStackLocation = StackBase(irp) + stackSize;
}

// Checks that `irp` is a live packet; reports `api` misuse otherwise.
bool RequireLiveIrp(PIRP irp, const char *api)
{
    if (irp == nullptr) {
        VerifierError("%s: NULL IRP", api);
        return false;
    }
    uint64_t magic = HeaderOf(irp)->magic;
    if (magic == kIrpFreeMagic) {
        VerifierError("%s(%p): the IRP was already completed and freed", api, irp);
        return false;
    }
    if (magic != kIrpLiveMagic) {
        VerifierError("%s(%p): not an IRP allocated by the I/O manager", api, irp);
        return false;
    }
    return true;
}

// Clears a stack location the completion has passed, as Windows does.
void ClearStackLocation(PIO_STACK_LOCATION stack)
{
    stack->MinorFunction = 0;
    stack->Flags = 0;
    stack->Control &= SL_ERROR_RETURNED;
    stack->Parameters.Others.Argument1 = nullptr;
    stack->Parameters.Others.Argument2 = nullptr;
    stack->Parameters.Others.Argument3 = nullptr;
    stack->Parameters.Others.Argument4 = nullptr;
    stack->FileObject = nullptr;
}

// The cancel spin lock and which thread holds it.
KSPIN_LOCK g_cancelLock = 0;
thread_local bool t_holdsCancelLock = false;

// ---- synchronous internal requests ----
struct SyncState {
    std::mutex lock;
    std::condition_variable done;
    bool completed = false;
    NTSTATUS status = STATUS_SUCCESS;
    ULONG_PTR information = 0;
    bool pendingReturned = false;
};

void FinishSynchronous(PIRP irp, void *owner)
{
    SyncState *state = static_cast<SyncState *>(owner);
    NTSTATUS status = irp->IoStatus.Status;
    ULONG_PTR information = irp->IoStatus.Information;
    bool pending = IrpTopPendingReturned(irp);
    IrpFree(irp);
    std::lock_guard<std::mutex> guard(state->lock);
    state->status = status;
    state->information = information;
    state->pendingReturned = pending;
    state->completed = true;
    state->done.notify_all();
}

// ---- IoBuildDeviceIoControlRequest ----
struct BuiltIoctl {
    PKEVENT event;
    PIO_STATUS_BLOCK ioStatus;
    PVOID outputBuffer;
    ULONG outputLength;
    ULONG method;
};

constexpr ULONG kSystemBufferTag = 0x62536f49; // "IoSb"

void FinishBuiltIoctl(PIRP irp, void *owner)
{
    BuiltIoctl *request = static_cast<BuiltIoctl *>(owner);
    ULONG_PTR count = 0;
    if (request->method == METHOD_BUFFERED && !NT_ERROR(irp->IoStatus.Status)) {
        count = irp->IoStatus.Information;
        if (count > request->outputLength)
            count = request->outputLength;
    }
    IrpReleaseSystemBuffer(irp, request->outputBuffer, count);
    IrpReleaseMdls(irp);
    if (request->ioStatus != nullptr)
        *request->ioStatus = irp->IoStatus;
    if (request->event != nullptr)
        KeSetEvent(request->event, IO_NO_INCREMENT, FALSE);
    delete request;
    IrpFree(irp);
}

} // namespace

const char *MajorFunctionName(UCHAR major)
{
    static const char *const names[] = {
        "IRP_MJ_CREATE", "IRP_MJ_CREATE_NAMED_PIPE", "IRP_MJ_CLOSE", "IRP_MJ_READ",
        "IRP_MJ_WRITE", "IRP_MJ_QUERY_INFORMATION", "IRP_MJ_SET_INFORMATION",
        "IRP_MJ_QUERY_EA", "IRP_MJ_SET_EA", "IRP_MJ_FLUSH_BUFFERS",
        "IRP_MJ_QUERY_VOLUME_INFORMATION", "IRP_MJ_SET_VOLUME_INFORMATION",
        "IRP_MJ_DIRECTORY_CONTROL", "IRP_MJ_FILE_SYSTEM_CONTROL", "IRP_MJ_DEVICE_CONTROL",
        "IRP_MJ_INTERNAL_DEVICE_CONTROL", "IRP_MJ_SHUTDOWN", "IRP_MJ_LOCK_CONTROL",
        "IRP_MJ_CLEANUP", "IRP_MJ_CREATE_MAILSLOT", "IRP_MJ_QUERY_SECURITY",
        "IRP_MJ_SET_SECURITY", "IRP_MJ_POWER", "IRP_MJ_SYSTEM_CONTROL", "IRP_MJ_DEVICE_CHANGE",
        "IRP_MJ_QUERY_QUOTA", "IRP_MJ_SET_QUOTA", "IRP_MJ_PNP"};
    return major < RTL_NUMBER_OF(names) ? names[major] : "IRP_MJ_(invalid)";
}

// A packet with `stackSize` locations and a finish routine. IRQL <= DISPATCH_LEVEL.
PIRP IrpAllocate(CCHAR stackSize, IrpFinishRoutine finish, void *owner)
{
    if (stackSize < 1)
        return nullptr;
    USHORT size = IoSizeOfIrp(stackSize);
    void *memory = std::calloc(1, sizeof(IrpHeader) + size);
    if (memory == nullptr)
        return nullptr;
    IrpHeader *header = static_cast<IrpHeader *>(memory);
    header->magic = kIrpLiveMagic;
    header->finish = finish;
    header->owner = owner;
    PIRP irp = reinterpret_cast<PIRP>(header + 1);
    InitializeIrp(irp, size, stackSize);
    g_liveIrps.fetch_add(1);
    return irp;
}

// Returns a packet's memory (through the quarantine). IRQL <= DISPATCH_LEVEL.
void IrpFree(PIRP irp)
{
    IrpHeader *header = HeaderOf(irp);
    if (header->finish == nullptr)
        g_liveDriverIrps.fetch_sub(1);
    g_liveIrps.fetch_sub(1);
    QuarantineIrp(header);
}

bool IrpTopPendingReturned(PIRP irp)
{
    return HeaderOf(irp)->topPendingReturned;
}

// Frees the MDL chain of an I/O-manager request (pages unlocked first).
void IrpReleaseMdls(PIRP irp)
{
    PMDL mdl = irp->MdlAddress;
    irp->MdlAddress = nullptr;
    while (mdl != nullptr) {
        PMDL next = mdl->Next;
        if (mdl->MdlFlags & MDL_PAGES_LOCKED)
            MmUnlockPages(mdl);
        IoFreeMdl(mdl);
        mdl = next;
    }
}

PIRP IrpAllocateSynchronous(CCHAR stackSize)
{
    return IrpAllocate(stackSize, FinishSynchronous, new SyncState());
}

// Sends a synchronous packet and waits for its completion. IRQL == PASSIVE_LEVEL.
NTSTATUS IrpSendSynchronous(PDEVICE_OBJECT device, PIRP irp, ULONG_PTR *information)
{
    SyncState *state = static_cast<SyncState *>(HeaderOf(irp)->owner);
    UCHAR major = IoGetNextIrpStackLocation(irp)->MajorFunction;
    NTSTATUS returned = IofCallDriver(device, irp);
    std::unique_lock<std::mutex> lock(state->lock);
    if (returned != STATUS_PENDING && !state->completed)
        VerifierError("%s: the dispatch routine returned 0x%08x without completing the IRP "
                      "(or returning STATUS_PENDING)", MajorFunctionName(major),
                      static_cast<unsigned>(returned));
    state->done.wait(lock, [state] { return state->completed; });
    IrpCheckPendingProtocol(major, returned, state->pendingReturned);
    NTSTATUS status = returned == STATUS_PENDING ? state->status : returned;
    if (information != nullptr)
        *information = state->information;
    lock.unlock();
    delete state;
    return status;
}

// A dispatch routine that returns STATUS_PENDING must have marked the IRP
// pending, and one that marked it pending must return STATUS_PENDING.
void IrpCheckPendingProtocol(UCHAR major, NTSTATUS dispatchStatus, bool pendingReturned)
{
    if (dispatchStatus == STATUS_PENDING && !pendingReturned)
        VerifierError("%s: the dispatch routine returned STATUS_PENDING without calling "
                      "IoMarkIrpPending", MajorFunctionName(major));
    else if (dispatchStatus != STATUS_PENDING && pendingReturned)
        VerifierError("%s: the IRP was marked pending but the dispatch routine returned "
                      "0x%08x instead of STATUS_PENDING", MajorFunctionName(major),
                      static_cast<unsigned>(dispatchStatus));
}

long IrpLiveDriverAllocated()
{
    return g_liveDriverIrps.load();
}

long IrpLiveCount()
{
    return g_liveIrps.load();
}

} // namespace hk

using namespace hk;

extern "C" {

// An IRP for a driver to send; it must free it (IoFreeIrp) from a completion
// routine that returns STATUS_MORE_PROCESSING_REQUIRED. IRQL <= DISPATCH_LEVEL.
PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota)
{
    UNREFERENCED_PARAMETER(ChargeQuota);
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoAllocateIrp");
    PIRP irp = IrpAllocate(StackSize, nullptr, nullptr);
    if (irp != nullptr)
        g_liveDriverIrps.fetch_add(1);
    return irp;
}

// Frees an IRP from IoAllocateIrp. IRQL <= DISPATCH_LEVEL.
VOID IoFreeIrp(PIRP Irp)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoFreeIrp");
    if (!RequireLiveIrp(Irp, "IoFreeIrp"))
        return;
    if (HeaderOf(Irp)->finish != nullptr) {
        VerifierError("IoFreeIrp(%p): the IRP belongs to the I/O manager (it was not allocated "
                      "with IoAllocateIrp)", Irp);
        return;
    }
    if (Irp->CancelRoutine != nullptr)
        VerifierError("IoFreeIrp(%p): the IRP still has a cancel routine", Irp);
    IrpFree(Irp);
}

// Makes a completed IoAllocateIrp packet ready to be sent again. IRQL <= DISPATCH_LEVEL.
VOID IoReuseIrp(PIRP Irp, NTSTATUS Iostatus)
{
    if (!RequireLiveIrp(Irp, "IoReuseIrp"))
        return;
    UCHAR allocationFlags = Irp->AllocationFlags;
    InitializeIrp(Irp, Irp->Size, Irp->StackCount);
    Irp->AllocationFlags = allocationFlags;
    Irp->IoStatus.Status = Iostatus;
}

// Passes the IRP to the driver of DeviceObject: the next stack location becomes
// current and the driver's dispatch routine for its major function runs in the
// calling thread. Returns what the dispatch routine returned. IRQL <= DISPATCH_LEVEL.
NTSTATUS IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoCallDriver");
    if (!RequireLiveIrp(Irp, "IoCallDriver"))
        return STATUS_INVALID_PARAMETER;
    if (DeviceObject == nullptr || !ObjectIsOfType(DeviceObject, kDeviceTypeName)) {
        VerifierError("IoCallDriver(%p): not a device object", DeviceObject);
        return STATUS_INVALID_PARAMETER;
    }
    if (Irp->CurrentLocation <= 1) {
        VerifierError("IoCallDriver: no more IRP stack locations (StackCount %d); the IRP was "
                      "allocated with too small a stack for the device", Irp->StackCount);
        return STATUS_INTERNAL_ERROR;
    }
    Irp->CurrentLocation--;
    PIO_STACK_LOCATION stack = --Irp->Tail.Overlay.CurrentStackLocation;
    stack->DeviceObject = DeviceObject;
    UCHAR major = stack->MajorFunction;
    PDRIVER_OBJECT driver = DeviceObject->DriverObject;
    if (major > IRP_MJ_MAXIMUM_FUNCTION) {
        VerifierError("IoCallDriver: invalid major function 0x%x", major);
        Irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
        Irp->IoStatus.Information = 0;
        IofCompleteRequest(Irp, IO_NO_INCREMENT);
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (!DriverIsLoaded(driver)) {
        VerifierError("IoCallDriver: %s sent to a device of an unloaded driver",
                      MajorFunctionName(major));
        Irp->IoStatus.Status = STATUS_DEVICE_DOES_NOT_EXIST;
        Irp->IoStatus.Information = 0;
        IofCompleteRequest(Irp, IO_NO_INCREMENT);
        return STATUS_DEVICE_DOES_NOT_EXIST;
    }
    KIRQL before = KeGetCurrentIrql();
    NTSTATUS status = driver->MajorFunction[major](DeviceObject, Irp);
    KIRQL after = KeGetCurrentIrql();
    if (after != before)
        VerifierError("%s: the dispatch routine returned at IRQL %u, called at IRQL %u",
                      MajorFunctionName(major), after, before);
    return status;
}

// Completes the IRP: walks up the stack calling completion routines (one that
// returns STATUS_MORE_PROCESSING_REQUIRED stops the walk), then hands the
// packet to whoever issued it. IRQL <= DISPATCH_LEVEL.
VOID IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost)
{
    UNREFERENCED_PARAMETER(PriorityBoost);
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoCompleteRequest");
    if (!RequireLiveIrp(Irp, "IoCompleteRequest"))
        return;
    if (Irp->CurrentLocation > Irp->StackCount) {
        VerifierError("IoCompleteRequest(%p): the IRP is completed twice (no driver owns it)",
                      Irp);
        return;
    }
    if (Irp->IoStatus.Status == STATUS_PENDING)
        VerifierError("IoCompleteRequest(%p): completed with STATUS_PENDING", Irp);
    if (Irp->CancelRoutine != nullptr)
        VerifierError("IoCompleteRequest(%p): completed with its cancel routine still set", Irp);

    while (Irp->CurrentLocation <= Irp->StackCount) {
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
        Irp->PendingReturned = (stack->Control & SL_PENDING_RETURNED) != 0;
        NTSTATUS status = Irp->IoStatus.Status;
        PIO_COMPLETION_ROUTINE routine = stack->CompletionRoutine;
        PVOID context = stack->Context;
        UCHAR control = stack->Control;
        if (!NT_SUCCESS(status))
            stack->Control |= SL_ERROR_RETURNED;
        ClearStackLocation(stack);
        stack->CompletionRoutine = nullptr;
        stack->Context = nullptr;
        Irp->CurrentLocation++;
        Irp->Tail.Overlay.CurrentStackLocation++;

        bool invoke = routine != nullptr &&
                      ((NT_SUCCESS(status) && (control & SL_INVOKE_ON_SUCCESS)) ||
                       (!NT_SUCCESS(status) && (control & SL_INVOKE_ON_ERROR)) ||
                       (Irp->Cancel && (control & SL_INVOKE_ON_CANCEL)));
        if (invoke) {
            // The routine belongs to the driver one level up: it gets that driver's
            // device, or NULL when the issuer set it on the first location.
            PDEVICE_OBJECT device = Irp->CurrentLocation <= Irp->StackCount
                                        ? IoGetCurrentIrpStackLocation(Irp)->DeviceObject
                                        : nullptr;
            KIRQL before = KeGetCurrentIrql();
            NTSTATUS result = routine(device, Irp, context);
            KIRQL after = KeGetCurrentIrql();
            if (after != before)
                VerifierError("a completion routine returned at IRQL %u, called at IRQL %u",
                              after, before);
            if (result == STATUS_MORE_PROCESSING_REQUIRED)
                return;
        } else if (Irp->PendingReturned && Irp->CurrentLocation <= Irp->StackCount) {
            IoMarkIrpPending(Irp);
        }
    }

    IrpHeader *header = HeaderOf(Irp);
    header->topPendingReturned = Irp->PendingReturned != FALSE;
    if (header->finish == nullptr) {
        VerifierError("IoCompleteRequest(%p): an IRP from IoAllocateIrp was completed past its "
                      "first stack location; its completion routine must return "
                      "STATUS_MORE_PROCESSING_REQUIRED and free or reuse it", Irp);
        return;
    }
    header->finish(Irp, header->owner);
}

// Takes the system cancel spin lock, raising to DISPATCH_LEVEL. IRQL <= DISPATCH_LEVEL.
VOID IoAcquireCancelSpinLock(PKIRQL Irql)
{
    KeAcquireSpinLock(&g_cancelLock, Irql);
    t_holdsCancelLock = true;
}

// Releases the cancel spin lock and returns to Irql. IRQL == DISPATCH_LEVEL.
VOID IoReleaseCancelSpinLock(KIRQL Irql)
{
    if (!t_holdsCancelLock) {
        VerifierError("IoReleaseCancelSpinLock: the calling thread does not hold the cancel "
                      "spin lock");
        return;
    }
    t_holdsCancelLock = false;
    KeReleaseSpinLock(&g_cancelLock, Irql);
}

// Marks the IRP cancelled and calls its cancel routine, if any, holding the
// cancel spin lock at DISPATCH_LEVEL (the routine releases it). Returns whether
// a cancel routine was called. IRQL <= DISPATCH_LEVEL.
BOOLEAN IoCancelIrp(PIRP Irp)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoCancelIrp");
    if (!RequireLiveIrp(Irp, "IoCancelIrp"))
        return FALSE;
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    Irp->Cancel = TRUE;
    PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, nullptr);
    if (routine == nullptr) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    if (Irp->CurrentLocation > Irp->StackCount) {
        VerifierError("IoCancelIrp(%p): a cancel routine is set on an IRP no driver owns", Irp);
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    Irp->CancelIrql = irql;
    routine(IoGetCurrentIrpStackLocation(Irp)->DeviceObject, Irp);
    if (t_holdsCancelLock) {
        VerifierError("a cancel routine returned without releasing the cancel spin lock");
        IoReleaseCancelSpinLock(irql);
    } else if (KeGetCurrentIrql() != irql) {
        VerifierError("a cancel routine returned at IRQL %u; IoCancelIrp was called at %u",
                      KeGetCurrentIrql(), irql);
    }
    return TRUE;
}

// A device control request for another driver, with METHOD_* buffer handling;
// on completion the output is copied back, *IoStatusBlock set, Event signalled
// and the IRP freed. Send it with IoCallDriver. IRQL == PASSIVE_LEVEL.
PIRP IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject,
                                   PVOID InputBuffer, ULONG InputBufferLength,
                                   PVOID OutputBuffer, ULONG OutputBufferLength,
                                   BOOLEAN InternalDeviceIoControl, PKEVENT Event,
                                   PIO_STATUS_BLOCK IoStatusBlock)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "IoBuildDeviceIoControlRequest");
    if (DeviceObject == nullptr)
        return nullptr;
    BuiltIoctl *request = new BuiltIoctl{Event, IoStatusBlock, OutputBuffer, OutputBufferLength,
                                         IoControlCode & 3};
    PIRP irp = IrpAllocate(DeviceObject->StackSize, FinishBuiltIoctl, request);
    if (irp == nullptr) {
        delete request;
        return nullptr;
    }
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = InternalDeviceIoControl ? IRP_MJ_INTERNAL_DEVICE_CONTROL
                                                   : IRP_MJ_DEVICE_CONTROL;
    stack->Parameters.DeviceIoControl.IoControlCode = IoControlCode;
    stack->Parameters.DeviceIoControl.InputBufferLength = InputBufferLength;
    stack->Parameters.DeviceIoControl.OutputBufferLength = OutputBufferLength;
    irp->RequestorMode = KernelMode;
    irp->UserIosb = IoStatusBlock;
    irp->UserEvent = Event;
    irp->UserBuffer = OutputBuffer;

    NTSTATUS status = IrpSetUpBuffers(irp, IoControlCode & 3, InputBuffer, InputBufferLength,
                                      OutputBuffer, OutputBufferLength);
    if (!NT_SUCCESS(status)) {
        IrpReleaseMdls(irp);
        delete request;
        IrpFree(irp);
        return nullptr;
    }
    return irp;
}

} // extern "C"

namespace hk {

// Gives a device-control style IRP its buffers for the transfer method:
// BUFFERED one zeroed system buffer of the larger length holding the input;
// IN/OUT_DIRECT the input in a system buffer and the output described by an
// MDL; NEITHER the caller's buffers as they are. IRQL <= DISPATCH_LEVEL.
NTSTATUS IrpSetUpBuffers(PIRP irp, ULONG method, PVOID input, ULONG inputLength, PVOID output,
                         ULONG outputLength)
{
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    if (method == METHOD_NEITHER) {
        stack->Parameters.DeviceIoControl.Type3InputBuffer = input;
        irp->UserBuffer = output;
        return STATUS_SUCCESS;
    }
    ULONG systemLength = method == METHOD_BUFFERED
                             ? (inputLength > outputLength ? inputLength : outputLength)
                             : inputLength;
    if (systemLength > 0) {
        void *buffer = ExAllocatePoolWithTag(NonPagedPoolNx, systemLength, kSystemBufferTag);
        if (buffer == nullptr)
            return STATUS_INSUFFICIENT_RESOURCES;
        std::memset(buffer, 0, systemLength);
        if (input != nullptr && inputLength > 0)
            std::memcpy(buffer, input, inputLength);
        irp->AssociatedIrp.SystemBuffer = buffer;
        irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
        if (method == METHOD_BUFFERED && outputLength > 0)
            irp->Flags |= IRP_INPUT_OPERATION;
    }
    if (method != METHOD_BUFFERED && output != nullptr && outputLength > 0) {
        PMDL mdl = IoAllocateMdl(output, outputLength, FALSE, FALSE, irp);
        if (mdl == nullptr)
            return STATUS_INSUFFICIENT_RESOURCES;
        MmProbeAndLockPages(mdl, irp->RequestorMode,
                            method == METHOD_IN_DIRECT ? IoReadAccess : IoWriteAccess);
    }
    return STATUS_SUCCESS;
}

// Frees the system buffer of a finished request, first copying `count` bytes
// of it to `output` (BUFFERED transfers that did not fail).
void IrpReleaseSystemBuffer(PIRP irp, PVOID output, ULONG_PTR count)
{
    void *buffer = irp->AssociatedIrp.SystemBuffer;
    if (buffer == nullptr)
        return;
    if (output != nullptr && count > 0)
        std::memcpy(output, buffer, count);
    ExFreePoolWithTag(buffer, kSystemBufferTag);
    irp->AssociatedIrp.SystemBuffer = nullptr;
}

} // namespace hk
