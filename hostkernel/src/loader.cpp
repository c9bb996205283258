// Host kernel runtime, I/O area: loading and unloading drivers.
//
// Loading creates the driver object and runs DriverEntry at PASSIVE_LEVEL.
// Unloading runs DriverUnload, then checks that the driver left nothing
// behind: devices, symbolic links to them, queued work items, open file
// objects and running system threads are verifier errors. After the last
// driver, IRPs, MDLs and pool blocks still allocated are reported as leaks.
#include "io_internal.h"

#include <hostkernel.h>

#include <chrono>
#include <cstdio>
#include <dlfcn.h>
#include <thread>

namespace hk {
namespace {

constexpr ULONG kTeardownWaitMs = 5000;

std::atomic<long> g_driverObjects{0}; // loaded and not yet unloaded or discarded

bool WaitUntil(bool (*condition)(PDRIVER_OBJECT), PDRIVER_OBJECT driver, ULONG timeoutMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition(driver)) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

bool NoPendingWorkItems(PDRIVER_OBJECT driver)
{
    return DriverStateOf(driver)->pendingWorkItems.load() == 0;
}

// The number of running system threads whose start routine lies in the
// driver's image: the threads that must be gone before its code is unmapped.
ULONG ThreadsInImage(PDRIVER_OBJECT driver)
{
    Dl_info image;
    if (driver->DriverInit == nullptr || dladdr(reinterpret_cast<void *>(driver->DriverInit), &image) == 0)
        return HkSystemThreadCount();
    HK_SYSTEM_THREAD_INFO threads[256];
    ULONG running = HkQuerySystemThreads(threads, 256);
    ULONG inImage = 0;
    for (ULONG i = 0; i < running && i < 256; i++) {
        Dl_info routine;
        if (dladdr(threads[i].StartRoutine, &routine) != 0 && routine.dli_fbase == image.dli_fbase)
            inImage++;
    }
    return inImage;
}

bool NoThreadsInImage(PDRIVER_OBJECT driver)
{
    return ThreadsInImage(driver) == 0;
}

// Reports and removes what a driver left behind, then frees its object.
void Teardown(PDRIVER_OBJECT driver, const char *when)
{
    DriverState *state = DriverStateOf(driver);
    const char *service = state->serviceName.c_str();

    if (!WaitUntil(NoPendingWorkItems, driver, kTeardownWaitMs))
        VerifierError("driver %s %s: %ld work item(s) still queued or running", service, when,
                      state->pendingWorkItems.load());
    if (!WaitUntil(NoThreadsInImage, driver, kTeardownWaitMs)) {
        VerifierError("driver %s %s: %u system thread(s) of its image still running after %u ms",
                      service, when, ThreadsInImage(driver), kTeardownWaitMs);
        state->keepImage = true; // their code must stay mapped
    }

    // Links that still name one of the driver's devices.
    std::vector<Name> deviceNames;
    {
        std::lock_guard<std::mutex> guard(IoLock());
        deviceNames = state->deviceNames;
    }
    for (const auto &link : NameListLinks()) {
        Name target = UpcaseName(link.second);
        for (const Name &device : deviceNames) {
            if (target == device) {
                VerifierError("driver %s %s: symbolic link %s -> %s was not deleted", service,
                              when, Narrow(link.first).c_str(), Narrow(link.second).c_str());
                NameRemoveLink(link.first);
                break;
            }
        }
    }
    for (;;) {
        PDEVICE_OBJECT device;
        {
            std::lock_guard<std::mutex> guard(IoLock());
            device = driver->DeviceObject;
        }
        if (device == nullptr)
            break;
        VerifierError("driver %s %s: device %s was not deleted", service, when,
                      DeviceDisplayName(device).c_str());
        IoDeleteDevice(device);
    }
    HkWaitForWorkQueueIdle(kTeardownWaitMs); // deferred object deletions
    long openFiles = state->openFiles.load();
    if (openFiles > 0)
        VerifierError("driver %s %s: %ld file object(s) on its devices are still open (their "
                      "close requests will not reach it)", service, when, openFiles);

    DriverRetire(driver);
    if (g_driverObjects.fetch_sub(1) == 1)
        ReportLeaks();
}

} // namespace

// Leak reports that run when no driver is loaded any more.
void ReportLeaks()
{
    HkWaitForWorkQueueIdle(kTeardownWaitMs);
    long irps = IrpLiveDriverAllocated();
    if (irps > 0)
        VerifierError("leak: %ld IRP(s) from IoAllocateIrp were never freed", irps);
    long mdls = MdlLiveCount();
    if (mdls > 0)
        VerifierError("leak: %ld MDL(s) from IoAllocateMdl were never freed", mdls);
    ULONG files = HkOpenDriveFileCount();
    if (files > 0)
        VerifierError("leak: %lu file(s) opened on a drive were never closed", (unsigned long)files);
    ULONG sockets = HkTransportSocketCount();
    if (sockets > 0)
        VerifierError("leak: %u socket(s) of the TCP/IP transport were never closed", sockets);
    HkPoolReportLeaks(TRUE);
}

} // namespace hk

using namespace hk;

extern "C" {

// Creates "\Driver\<serviceName>" and runs entry(driver, registry path) at
// PASSIVE_LEVEL. IRQL == PASSIVE_LEVEL.
NTSTATUS HkLoadDriver(PDRIVER_INITIALIZE entry, const char *serviceName, PDRIVER_OBJECT *driver)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "HkLoadDriver");
    if (entry == nullptr || serviceName == nullptr || driver == nullptr)
        return STATUS_INVALID_PARAMETER;
    *driver = nullptr;
    NTSTATUS status;
    PDRIVER_OBJECT created = DriverCreate(serviceName, &status);
    if (created == nullptr)
        return status;
    g_driverObjects.fetch_add(1);
    created->DriverInit = entry;
    *driver = created;

    // The registry path is valid during DriverEntry only, as on Windows.
    OwnedUnicodeString *registryPath = new OwnedUnicodeString(
        ToName("\\Registry\\Machine\\System\\CurrentControlSet\\Services\\") +
        ToName(serviceName));
    status = entry(created, registryPath->Get());
    delete registryPath;
    if (KeGetCurrentIrql() != PASSIVE_LEVEL)
        VerifierError("DriverEntry of %s returned at IRQL %u", serviceName, KeGetCurrentIrql());

    DriverState *state = DriverStateOf(created);
    if (NT_SUCCESS(status)) {
        DriverFinishDeviceInitialization(created);
        state->phase = DriverState::Phase::Running;
    } else {
        state->phase = DriverState::Phase::EntryFailed;
    }
    return status;
}

// Loads a shared object with its own symbol scope and runs its DriverEntry.
NTSTATUS HkLoadDriverImage(const char *sharedObjectPath, const char *serviceName,
                           PDRIVER_OBJECT *driver)
{
    if (sharedObjectPath == nullptr || driver == nullptr)
        return STATUS_INVALID_PARAMETER;
    *driver = nullptr;
    void *image = dlopen(sharedObjectPath, RTLD_LOCAL | RTLD_NOW);
    if (image == nullptr) {
        std::fprintf(stderr, "HkLoadDriverImage: %s\n", dlerror());
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    auto entry = reinterpret_cast<PDRIVER_INITIALIZE>(dlsym(image, "DriverEntry"));
    if (entry == nullptr) {
        std::fprintf(stderr, "HkLoadDriverImage: %s has no DriverEntry\n", sharedObjectPath);
        dlclose(image);
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    NTSTATUS status = HkLoadDriver(entry, serviceName, driver);
    if (*driver == nullptr)
        dlclose(image);
    else
        DriverStateOf(*driver)->image = image;
    return status;
}

// Runs DriverUnload and tears the driver down. IRQL == PASSIVE_LEVEL.
void HkUnloadDriver(PDRIVER_OBJECT driver)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "HkUnloadDriver");
    DriverState *state = DriverStateOf(driver);
    if (state == nullptr || state->phase != DriverState::Phase::Running) {
        VerifierError("HkUnloadDriver(%p): not a loaded driver%s", static_cast<void *>(driver),
                      state != nullptr && state->phase == DriverState::Phase::EntryFailed
                          ? " (its DriverEntry failed: use HkDiscardDriver)"
                          : "");
        return;
    }
    if (driver->DriverUnload == nullptr) {
        VerifierError("driver %s has no DriverUnload routine, so Windows would never unload it",
                      state->serviceName.c_str());
    } else {
        driver->DriverUnload(driver);
        if (KeGetCurrentIrql() != PASSIVE_LEVEL)
            VerifierError("DriverUnload of %s returned at IRQL %u", state->serviceName.c_str(),
                          KeGetCurrentIrql());
    }
    Teardown(driver, "after unload");
}

// Tears down a driver whose DriverEntry failed. IRQL == PASSIVE_LEVEL.
void HkDiscardDriver(PDRIVER_OBJECT driver)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "HkDiscardDriver");
    DriverState *state = DriverStateOf(driver);
    if (state == nullptr || state->phase != DriverState::Phase::EntryFailed) {
        VerifierError("HkDiscardDriver(%p): not a driver whose DriverEntry failed",
                      static_cast<void *>(driver));
        return;
    }
    Teardown(driver, "after its DriverEntry failed");
}

ULONG HkLoadedDriverCount(void)
{
    return static_cast<ULONG>(g_driverObjects.load());
}

PDEVICE_OBJECT HkFindDevice(const char *name)
{
    void *body = NameLookupObject(ToName(name));
    return ObjectIsOfType(body, kDeviceTypeName) ? static_cast<PDEVICE_OBJECT>(body) : nullptr;
}

BOOLEAN HkSymbolicLinkExists(const char *name)
{
    return NameLinkExists(ToName(name)) ? TRUE : FALSE;
}

ULONG HkLiveIrpCount(void)
{
    return static_cast<ULONG>(IrpLiveCount());
}

ULONG HkLiveMdlCount(void)
{
    return static_cast<ULONG>(MdlLiveCount());
}

} // extern "C"
