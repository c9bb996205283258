// Host kernel runtime, I/O area: I/O work items on the system work queue.
//
// A queued work item holds a reference on its device object (so the device
// and its driver object outlive it) and counts against the driver, whose
// unload waits for its work items to finish.
#include "io_internal.h"

struct _IO_WORKITEM {
    PDEVICE_OBJECT device;
    PIO_WORKITEM_ROUTINE routine;
    PVOID context;
    std::atomic<bool> queued;
};

namespace hk {
namespace {

// Runs on a system worker thread at PASSIVE_LEVEL. The routine may free its
// own work item, so nothing of it is touched afterwards.
void RunWorkItem(void *parameter)
{
    PIO_WORKITEM item = static_cast<PIO_WORKITEM>(parameter);
    PDEVICE_OBJECT device = item->device;
    PIO_WORKITEM_ROUTINE routine = item->routine;
    PVOID context = item->context;
    item->queued.store(false);
    PDRIVER_OBJECT driver = device->DriverObject;
    if (DriverIsLoaded(driver))
        routine(device, context);
    if (KeGetCurrentIrql() != PASSIVE_LEVEL)
        VerifierError("an I/O work item routine returned at IRQL %u", KeGetCurrentIrql());
    DriverStateOf(driver)->pendingWorkItems.fetch_sub(1);
    ObDereferenceObject(device);
}

} // namespace
} // namespace hk

using namespace hk;

extern "C" {

// A work item for routines run on behalf of DeviceObject. IRQL <= DISPATCH_LEVEL.
PIO_WORKITEM IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoAllocateWorkItem");
    if (DeviceObject == nullptr || !ObjectIsOfType(DeviceObject, kDeviceTypeName)) {
        VerifierError("IoAllocateWorkItem(%p): not a device object",
                      static_cast<void *>(DeviceObject));
        return nullptr;
    }
    PIO_WORKITEM item = new (std::nothrow) _IO_WORKITEM();
    if (item == nullptr)
        return nullptr;
    item->device = DeviceObject;
    item->queued.store(false);
    return item;
}

// Queues WorkerRoutine(DeviceObject, Context) to run at PASSIVE_LEVEL on a
// system worker thread. The item must not be queued again before the routine
// has started. IRQL <= DISPATCH_LEVEL.
VOID IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine,
                     WORK_QUEUE_TYPE QueueType, PVOID Context)
{
    UNREFERENCED_PARAMETER(QueueType);
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoQueueWorkItem");
    if (IoWorkItem == nullptr || WorkerRoutine == nullptr) {
        VerifierError("IoQueueWorkItem: NULL work item or routine");
        return;
    }
    if (IoWorkItem->queued.exchange(true)) {
        VerifierError("IoQueueWorkItem(%p): the work item is already queued",
                      static_cast<void *>(IoWorkItem));
        return;
    }
    IoWorkItem->routine = WorkerRoutine;
    IoWorkItem->context = Context;
    ObReferenceObject(IoWorkItem->device);
    DriverStateOf(IoWorkItem->device->DriverObject)->pendingWorkItems.fetch_add(1);
    QueueSystemWork(RunWorkItem, IoWorkItem);
}

// Frees a work item that is not waiting to run. IRQL <= DISPATCH_LEVEL.
VOID IoFreeWorkItem(PIO_WORKITEM IoWorkItem)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoFreeWorkItem");
    if (IoWorkItem == nullptr)
        return;
    if (IoWorkItem->queued.load()) {
        VerifierError("IoFreeWorkItem(%p): the work item is queued and has not run yet",
                      static_cast<void *>(IoWorkItem));
        return;
    }
    delete IoWorkItem;
}

} // extern "C"
