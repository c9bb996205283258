// Host kernel runtime, I/O area: memory descriptor lists.
//
// The host has one address space, so an MDL's system address is the buffer's
// own address. A user-mode mapping, though, is a real second mapping of the
// same pages (pool area), as a process would see it: writes through either
// address are visible through the other. The runtime tracks the MDLs it
// allocated and the user mappings of every MDL, so freeing a mapped MDL,
// unmapping twice and double frees are verifier errors.
#include "bridge_internal.h"

#include <algorithm>
#include <cstdlib>
#include <unordered_map>
#include <unordered_set>

namespace hk {
namespace {

// A user mapping: in this process, or (owner set) in a user program's process on the bridge.
struct UserView {
    void *address;
    BridgeProcess *owner;
};

struct MdlTracker {
    std::mutex lock;
    std::unordered_set<PMDL> allocated;                         // from IoAllocateMdl
    std::unordered_map<PMDL, std::vector<UserView>> userViews; // user mappings per MDL
};

void UnmapView(const UserView &view, ULONG length)
{
    if (view.owner != nullptr)
        BridgeUnmapView(view.owner, view.address);
    else
        UnmapSecondView(view.address, length);
}

MdlTracker &Tracker()
{
    static MdlTracker *tracker = new MdlTracker();
    return *tracker;
}

PVOID VirtualAddressOf(PMDL mdl)
{
    return MmGetMdlVirtualAddress(mdl);
}

// Fills the page frame array after the MDL with stand-in frame numbers.
void FillFrames(PMDL mdl)
{
    PPFN_NUMBER frames = reinterpret_cast<PPFN_NUMBER>(mdl + 1);
    ULONG pages = ADDRESS_AND_SIZE_TO_SPAN_PAGES(VirtualAddressOf(mdl), mdl->ByteCount);
    ULONG_PTR first = reinterpret_cast<ULONG_PTR>(mdl->StartVa) >> PAGE_SHIFT;
    for (ULONG i = 0; i < pages; ++i)
        frames[i] = first + i;
}

bool RequireDescribedPages(PMDL mdl, const char *api)
{
    if (mdl == nullptr) {
        VerifierError("%s: NULL MDL", api);
        return false;
    }
    if ((mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL | MDL_PARTIAL)) == 0) {
        VerifierError("%s(%p): the MDL's pages are not locked (MmProbeAndLockPages or "
                      "MmBuildMdlForNonPagedPool first)", api, static_cast<void *>(mdl));
        return false;
    }
    return true;
}

// Maps the MDL's pages a second time for "user mode". IRQL <= APC_LEVEL.
PVOID MapForUser(PMDL mdl, PVOID requestedAddress, ULONG bugCheckOnFailure)
{
    RequireIrqlAtMost(APC_LEVEL, "MmMapLockedPagesSpecifyCache(UserMode)");
    if (requestedAddress != nullptr) {
        VerifierError("MmMapLockedPagesSpecifyCache: a requested user address is not "
                      "supported by the host runtime");
        return nullptr;
    }
    // A thread serving a user program's process maps into that process.
    BridgeProcess *owner = BridgeActingFor();
    void *view = nullptr;
    if (mdl->ByteCount != 0)
        view = owner != nullptr ? BridgeMapView(owner, VirtualAddressOf(mdl), mdl->ByteCount)
                                : MapSecondView(VirtualAddressOf(mdl), mdl->ByteCount);
    if (view == nullptr) {
        if (bugCheckOnFailure)
            VerifierError("MmMapLockedPagesSpecifyCache(%p, UserMode): the pages cannot be "
                          "mapped (not pool memory?)", static_cast<void *>(mdl));
        return nullptr;
    }
    MdlTracker &t = Tracker();
    std::lock_guard<std::mutex> guard(t.lock);
    t.userViews[mdl].push_back(UserView{view, owner});
    return view;
}

} // namespace

long MdlLiveCount()
{
    MdlTracker &t = Tracker();
    std::lock_guard<std::mutex> guard(t.lock);
    return static_cast<long>(t.allocated.size());
}

} // namespace hk

using namespace hk;

extern "C" {

// An MDL describing [VirtualAddress, +Length); with Irp it becomes the IRP's
// MdlAddress, or is appended to its chain when SecondaryBuffer. The pages are
// not locked yet. IRQL <= DISPATCH_LEVEL.
PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer,
                   BOOLEAN ChargeQuota, PIRP Irp)
{
    UNREFERENCED_PARAMETER(ChargeQuota);
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoAllocateMdl");
    SIZE_T size = MmSizeOfMdl(VirtualAddress, Length);
    if (size > 0x7FFF)
        return nullptr; // Size is a CSHORT, as on Windows
    PMDL mdl = static_cast<PMDL>(std::calloc(1, size));
    if (mdl == nullptr)
        return nullptr;
    mdl->Size = static_cast<CSHORT>(size);
    mdl->MdlFlags = MDL_ALLOCATED_FIXED_SIZE;
    mdl->StartVa = PAGE_ALIGN(VirtualAddress);
    mdl->ByteOffset = BYTE_OFFSET(VirtualAddress);
    mdl->ByteCount = Length;
    {
        MdlTracker &t = Tracker();
        std::lock_guard<std::mutex> guard(t.lock);
        t.allocated.insert(mdl);
    }
    if (Irp != nullptr) {
        if (SecondaryBuffer && Irp->MdlAddress != nullptr) {
            PMDL last = Irp->MdlAddress;
            while (last->Next != nullptr)
                last = last->Next;
            last->Next = mdl;
        } else {
            Irp->MdlAddress = mdl;
        }
    }
    return mdl;
}

// Frees one MDL from IoAllocateMdl (not the rest of its chain). Its user
// mappings must be gone. IRQL <= DISPATCH_LEVEL.
VOID IoFreeMdl(PMDL Mdl)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoFreeMdl");
    std::vector<UserView> views;
    {
        MdlTracker &t = Tracker();
        std::lock_guard<std::mutex> guard(t.lock);
        if (t.allocated.erase(Mdl) == 0) {
            VerifierError("IoFreeMdl(%p): not an MDL from IoAllocateMdl (freed twice?)",
                          static_cast<void *>(Mdl));
            return;
        }
        auto it = t.userViews.find(Mdl);
        if (it != t.userViews.end()) {
            views = it->second;
            t.userViews.erase(it);
        }
    }
    if (!views.empty()) {
        VerifierError("IoFreeMdl(%p): the MDL is still mapped into user mode %zu time(s) "
                      "(MmUnmapLockedPages first)", static_cast<void *>(Mdl), views.size());
        for (const UserView &view : views)
            UnmapView(view, Mdl->ByteCount);
    }
    if ((Mdl->MdlFlags & MDL_PAGES_LOCKED) != 0)
        VerifierError("IoFreeMdl(%p): the MDL's pages are still locked (MmUnlockPages first)",
                      static_cast<void *>(Mdl));
    std::free(Mdl);
}

// Describes a buffer in non-paged pool: its system address is its own address.
// IRQL <= DISPATCH_LEVEL.
VOID MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "MmBuildMdlForNonPagedPool");
    PMDL mdl = MemoryDescriptorList;
    if (mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_PAGES_LOCKED |
                         MDL_SOURCE_IS_NONPAGED_POOL | MDL_PARTIAL)) {
        VerifierError("MmBuildMdlForNonPagedPool(%p): the MDL already describes locked or "
                      "mapped pages", static_cast<void *>(mdl));
        return;
    }
    mdl->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
    mdl->MappedSystemVa = VirtualAddressOf(mdl);
    mdl->Process = nullptr;
    FillFrames(mdl);
}

// Locks the described pages (host memory is always resident). IRQL <= APC_LEVEL
// for user buffers, <= DISPATCH_LEVEL otherwise.
VOID MmProbeAndLockPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                         LOCK_OPERATION Operation)
{
    RequireIrqlAtMost(AccessMode == UserMode ? APC_LEVEL : DISPATCH_LEVEL,
                      "MmProbeAndLockPages");
    PMDL mdl = MemoryDescriptorList;
    if (mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL | MDL_PARTIAL)) {
        VerifierError("MmProbeAndLockPages(%p): the pages are already locked",
                      static_cast<void *>(mdl));
        return;
    }
    mdl->MdlFlags |= MDL_PAGES_LOCKED;
    if (Operation != IoReadAccess)
        mdl->MdlFlags |= MDL_WRITE_OPERATION;
    FillFrames(mdl);
}

// Unlocks pages locked by MmProbeAndLockPages, dropping their system mapping.
// IRQL <= DISPATCH_LEVEL.
VOID MmUnlockPages(PMDL MemoryDescriptorList)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "MmUnlockPages");
    PMDL mdl = MemoryDescriptorList;
    if ((mdl->MdlFlags & MDL_PAGES_LOCKED) == 0) {
        VerifierError("MmUnlockPages(%p): the pages are not locked", static_cast<void *>(mdl));
        return;
    }
    mdl->MdlFlags &= ~(MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA | MDL_WRITE_OPERATION);
}

PVOID MmMapLockedPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode)
{
    return MmMapLockedPagesSpecifyCache(MemoryDescriptorList, AccessMode, MmCached, nullptr,
                                        TRUE, NormalPagePriority);
}

// Maps locked pages: KernelMode gives the system address; UserMode a second
// mapping of the same pages at another address (undo with MmUnmapLockedPages).
// IRQL <= DISPATCH_LEVEL (KernelMode), <= APC_LEVEL (UserMode).
PVOID MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                   MEMORY_CACHING_TYPE CacheType, PVOID RequestedAddress,
                                   ULONG BugCheckOnFailure, ULONG Priority)
{
    UNREFERENCED_PARAMETER(CacheType);
    UNREFERENCED_PARAMETER(Priority);
    PMDL mdl = MemoryDescriptorList;
    if (!RequireDescribedPages(mdl, "MmMapLockedPagesSpecifyCache"))
        return nullptr;
    if (AccessMode == UserMode)
        return MapForUser(mdl, RequestedAddress, BugCheckOnFailure);

    RequireIrqlAtMost(DISPATCH_LEVEL, "MmMapLockedPagesSpecifyCache");
    if (mdl->MdlFlags & MDL_SOURCE_IS_NONPAGED_POOL)
        return mdl->MappedSystemVa;
    if (mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) {
        VerifierError("MmMapLockedPagesSpecifyCache(%p): the MDL is already mapped to a "
                      "system address", static_cast<void *>(mdl));
        return mdl->MappedSystemVa;
    }
    mdl->MappedSystemVa = VirtualAddressOf(mdl);
    mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    return mdl->MappedSystemVa;
}

// Undoes a mapping made by MmMapLockedPages(SpecifyCache). Unmapping an
// address that is not a current mapping of the MDL is a verifier error.
VOID MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList)
{
    PMDL mdl = MemoryDescriptorList;
    {
        MdlTracker &t = Tracker();
        std::unique_lock<std::mutex> lock(t.lock);
        auto it = t.userViews.find(mdl);
        if (it != t.userViews.end()) {
            auto view = std::find_if(it->second.begin(), it->second.end(),
                                     [BaseAddress](const UserView &v) { return v.address == BaseAddress; });
            if (view != it->second.end()) {
                UserView found = *view;
                it->second.erase(view);
                if (it->second.empty())
                    t.userViews.erase(it);
                lock.unlock();
                RequireIrqlAtMost(APC_LEVEL, "MmUnmapLockedPages(user mapping)");
                UnmapView(found, mdl->ByteCount);
                return;
            }
        }
    }
    RequireIrqlAtMost(DISPATCH_LEVEL, "MmUnmapLockedPages");
    if ((mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) && BaseAddress == mdl->MappedSystemVa) {
        mdl->MdlFlags &= ~MDL_MAPPED_TO_SYSTEM_VA;
        return;
    }
    if ((mdl->MdlFlags & MDL_SOURCE_IS_NONPAGED_POOL) && BaseAddress == mdl->MappedSystemVa)
        return; // the pool address itself: nothing was mapped
    VerifierError("MmUnmapLockedPages(%p, %p): not a current mapping of the MDL (unmapped "
                  "twice?)", BaseAddress, static_cast<void *>(mdl));
}

// Makes TargetMdl describe [VirtualAddress, +Length) inside SourceMdl's buffer
// (Length 0: to the end of the source). IRQL <= DISPATCH_LEVEL.
VOID IoBuildPartialMdl(PMDL SourceMdl, PMDL TargetMdl, PVOID VirtualAddress, ULONG Length)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoBuildPartialMdl");
    PCHAR sourceStart = static_cast<PCHAR>(VirtualAddressOf(SourceMdl));
    PCHAR start = static_cast<PCHAR>(VirtualAddress);
    if (start < sourceStart || start > sourceStart + SourceMdl->ByteCount) {
        VerifierError("IoBuildPartialMdl: the address lies outside the source MDL's buffer");
        return;
    }
    ULONG available = static_cast<ULONG>(sourceStart + SourceMdl->ByteCount - start);
    if (Length == 0)
        Length = available;
    if (Length > available) {
        VerifierError("IoBuildPartialMdl: the range runs past the end of the source MDL");
        return;
    }
    TargetMdl->StartVa = PAGE_ALIGN(VirtualAddress);
    TargetMdl->ByteOffset = BYTE_OFFSET(VirtualAddress);
    TargetMdl->ByteCount = Length;
    TargetMdl->Process = SourceMdl->Process;
    TargetMdl->MdlFlags = static_cast<CSHORT>(
        (TargetMdl->MdlFlags & (MDL_ALLOCATED_FIXED_SIZE | MDL_ALLOCATED_MUST_SUCCEED)) |
        MDL_PARTIAL | (SourceMdl->MdlFlags & MDL_SOURCE_IS_NONPAGED_POOL));
    if (SourceMdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) {
        TargetMdl->MappedSystemVa = VirtualAddress;
        TargetMdl->MdlFlags |= MDL_PARENT_MAPPED_SYSTEM_VA;
    }
    FillFrames(TargetMdl);
}

} // extern "C"
