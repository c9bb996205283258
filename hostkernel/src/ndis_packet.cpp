// Host kernel runtime: NDIS packet pools, packets, buffer pools and buffer
// descriptors.
//
// Pools, packets and buffer descriptors are pool blocks of their own tags
// (hk/ndis_packet.h), so anything never freed appears in the pool leak
// report. Every packet and descriptor has a hidden header in front of it (a
// state word and its pool); a handle or a pointer is checked against the
// runtime's pool before anything in it is read, so a double free or a foreign
// pointer is a verifier finding, never a crash, and the packet path takes no
// lock. A pool lives until its owner freed it and its last packet or
// descriptor came back.
#include "internal.h"

#include <stdint.h>

namespace hk {
namespace {

constexpr ULONG kPacketPoolSignature = 0x6C6F6F50;  // "Pool"
constexpr ULONG kBufferPoolSignature = 0x6C6F6F42;  // "Bool"
constexpr ULONG kLivePacket = 0x74656B50;           // "Pket"
constexpr ULONG kLiveBuffer = 0x66667542;           // "Buff"
constexpr UINT kPacketHeaderBytes = FIELD_OFFSET(NDIS_PACKET, ProtocolReserved);
constexpr UINT kOobAlignment = 8;

// A packet pool handle points at one of these (a pool block tagged 'NDpp').
struct PacketPool {
    ULONG signature;  // 0 once its owner freed it
    UINT capacity;    // descriptors plus overflow descriptors
    UINT oobOffset;   // where each packet's out-of-band data starts
    UINT packetBytes; // whole allocation of one packet
    UINT inUse;       // atomic
    UINT refs;        // atomic: the owner's and one per packet out
};

// A buffer pool handle points at one of these (a pool block tagged 'NDbp').
struct BufferPool {
    ULONG signature; // 0 once its owner freed it
    UINT descriptors; // advisory, as on Windows
    UINT inUse;       // atomic
    UINT refs;        // atomic: the owner's and one per descriptor out
};

// In front of each packet and descriptor; 16 bytes keep what follows aligned.
struct alignas(16) Hidden {
    ULONG state; // kLivePacket / kLiveBuffer while out, 0 once freed
    void *pool;  // PacketPool / BufferPool, or nullptr
};
static_assert(sizeof(Hidden) == 16, "hidden header");

Hidden *HiddenOf(const void *item)
{
    return reinterpret_cast<Hidden *>(reinterpret_cast<uintptr_t>(item) - sizeof(Hidden));
}

// Whether `handle` is a pool its owner has not freed.
template <typename Pool>
bool LivePool(Pool *pool, ULONG tag, ULONG signature)
{
    return pool != nullptr && IsLivePoolBlock(pool, tag) &&
           __atomic_load_n(&pool->signature, __ATOMIC_ACQUIRE) == signature;
}

// Drops one reference of a pool; the last one frees it.
template <typename Pool>
void DropPool(Pool *pool, ULONG tag)
{
    if (pool != nullptr && __atomic_sub_fetch(&pool->refs, 1, __ATOMIC_ACQ_REL) == 0)
        ExFreePoolWithTag(pool, tag);
}

// Takes an item (packet or descriptor) back: false when it is not one that is out.
bool TakeItem(const void *item, ULONG tag, ULONG live, void **pool)
{
    if (item == nullptr)
        return false;
    Hidden *hidden = HiddenOf(item);
    if (!IsLivePoolBlock(hidden, tag) || __atomic_exchange_n(&hidden->state, 0u, __ATOMIC_ACQ_REL) != live)
        return false;
    *pool = hidden->pool;
    return true;
}

// Offset of the out-of-band data behind ProtocolReservedLength reserved bytes.
UINT OobOffsetFor(UINT protocolReservedLength)
{
    UINT end = kPacketHeaderBytes + protocolReservedLength;
    return (end + kOobAlignment - 1) & ~(kOobAlignment - 1);
}

// Reports a NULL output pointer of `api`; true when all are present.
bool RequireOutputs(const void *first, const void *second, const char *api)
{
    if (first != nullptr && second != nullptr)
        return true;
    VerifierError("%s: NULL output pointer", api);
    return false;
}

// Creates a packet pool for NdisAllocatePacketPool(Ex).
void CreatePacketPool(PNDIS_STATUS status, PNDIS_HANDLE poolHandle, UINT descriptors,
                      UINT overflow, UINT protocolReservedLength, const char *api)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, api);
    if (!RequireOutputs(status, poolHandle, api))
        return;
    *poolHandle = nullptr;
    *status = NDIS_STATUS_RESOURCES;
    UINT oobOffset = OobOffsetFor(protocolReservedLength);
    if (protocolReservedLength > 0xFFFF || oobOffset > 0xFFFF)
        return; // the offset must fit NdisPacketOobOffset
    auto *pool = static_cast<PacketPool *>(
        ExAllocatePoolWithTag(NonPagedPool, sizeof(PacketPool), HK_NDIS_PACKET_POOL_TAG));
    if (pool == nullptr)
        return;
    pool->signature = kPacketPoolSignature;
    pool->capacity = descriptors + overflow < descriptors ? ~0u : descriptors + overflow;
    pool->oobOffset = oobOffset;
    pool->packetBytes = NdisPacketSize(protocolReservedLength);
    pool->inUse = 0;
    pool->refs = 1;
    *poolHandle = pool;
    *status = NDIS_STATUS_SUCCESS;
}

// Takes a packet from a pool for NdisAllocatePacket / NdisDprAllocatePacket.
void AllocatePacketFrom(PNDIS_STATUS status, PNDIS_PACKET *packet, NDIS_HANDLE poolHandle,
                        const char *api)
{
    if (!RequireOutputs(status, packet, api))
        return;
    *packet = nullptr;
    *status = NDIS_STATUS_RESOURCES;
    auto *pool = static_cast<PacketPool *>(poolHandle);
    if (!LivePool(pool, HK_NDIS_PACKET_POOL_TAG, kPacketPoolSignature)) {
        VerifierError("%s(%p): not a packet pool handle (freed already?)", api, poolHandle);
        return;
    }
    if (__atomic_add_fetch(&pool->inUse, 1, __ATOMIC_RELAXED) > pool->capacity) {
        __atomic_sub_fetch(&pool->inUse, 1, __ATOMIC_RELAXED);
        return;
    }
    auto *hidden = static_cast<Hidden *>(
        ExAllocatePoolWithTag(NonPagedPool, sizeof(Hidden) + pool->packetBytes, HK_NDIS_PACKET_TAG));
    if (hidden == nullptr) {
        __atomic_sub_fetch(&pool->inUse, 1, __ATOMIC_RELAXED);
        return;
    }
    __atomic_add_fetch(&pool->refs, 1, __ATOMIC_RELAXED);
    hidden->pool = pool;
    auto *allocated = reinterpret_cast<PNDIS_PACKET>(hidden + 1);
    RtlZeroMemory(allocated, pool->packetBytes);
    allocated->Private.Pool = pool;
    allocated->Private.NdisPacketFlags = fPACKET_ALLOCATED_BY_NDIS;
    allocated->Private.NdisPacketOobOffset = static_cast<USHORT>(pool->oobOffset);
    NDIS_SET_PACKET_STATUS(allocated, NDIS_STATUS_SUCCESS);
    __atomic_store_n(&hidden->state, kLivePacket, __ATOMIC_RELEASE);
    *packet = allocated;
    *status = NDIS_STATUS_SUCCESS;
}

// Returns a packet to its pool for NdisFreePacket / NdisDprFreePacket.
void FreePacket(PNDIS_PACKET packet, const char *api)
{
    void *owner = nullptr;
    if (!TakeItem(packet, HK_NDIS_PACKET_TAG, kLivePacket, &owner)) {
        VerifierError("%s(%p): not a packet from NdisAllocatePacket (freed twice?)", api,
                      static_cast<void *>(packet));
        return;
    }
    auto *pool = static_cast<PacketPool *>(owner);
    __atomic_sub_fetch(&pool->inUse, 1, __ATOMIC_RELAXED);
    ExFreePoolWithTag(HiddenOf(packet), HK_NDIS_PACKET_TAG);
    DropPool(pool, HK_NDIS_PACKET_POOL_TAG);
}

// Reports a routine that must run at exactly DISPATCH_LEVEL called elsewhere.
void RequireDispatchLevel(const char *api)
{
    KIRQL irql = KeGetCurrentIrql();
    if (irql != DISPATCH_LEVEL)
        VerifierError("%s called at IRQL %u; it runs at DISPATCH_LEVEL only", api,
                      static_cast<unsigned>(irql));
}

} // namespace
} // namespace hk

using namespace hk;

extern "C" {

// ---- packet pools ----

// A pool of NumberOfDescriptors packets. IRQL == PASSIVE_LEVEL.
VOID NTAPI NdisAllocatePacketPool(PNDIS_STATUS Status, PNDIS_HANDLE PoolHandle,
                                  UINT NumberOfDescriptors, UINT ProtocolReservedLength)
{
    CreatePacketPool(Status, PoolHandle, NumberOfDescriptors, 0, ProtocolReservedLength,
                     "NdisAllocatePacketPool");
}

// A pool that may lend NumberOfOverflowDescriptors more packets. IRQL == PASSIVE_LEVEL.
VOID NTAPI NdisAllocatePacketPoolEx(PNDIS_STATUS Status, PNDIS_HANDLE PoolHandle,
                                    UINT NumberOfDescriptors, UINT NumberOfOverflowDescriptors,
                                    UINT ProtocolReservedLength)
{
    CreatePacketPool(Status, PoolHandle, NumberOfDescriptors, NumberOfOverflowDescriptors,
                     ProtocolReservedLength, "NdisAllocatePacketPoolEx");
}

// Frees a packet pool; packets still out are reported and stay valid until
// freed. IRQL == PASSIVE_LEVEL.
VOID NTAPI NdisFreePacketPool(NDIS_HANDLE PoolHandle)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NdisFreePacketPool");
    auto *pool = static_cast<PacketPool *>(PoolHandle);
    if (pool == nullptr || !IsLivePoolBlock(pool, HK_NDIS_PACKET_POOL_TAG) ||
        __atomic_exchange_n(&pool->signature, 0u, __ATOMIC_ACQ_REL) != kPacketPoolSignature) {
        VerifierError("NdisFreePacketPool(%p): not a packet pool handle (freed twice?)", PoolHandle);
        return;
    }
    UINT inUse = __atomic_load_n(&pool->inUse, __ATOMIC_RELAXED);
    if (inUse > 0)
        VerifierError("NdisFreePacketPool(%p): %u packet(s) of the pool were not freed", PoolHandle, inUse);
    DropPool(pool, HK_NDIS_PACKET_POOL_TAG);
}

// Packets of the pool currently allocated (0 for an unknown handle, which is
// reported). IRQL <= DISPATCH_LEVEL.
UINT NTAPI NdisPacketPoolUsage(NDIS_HANDLE PoolHandle)
{
    auto *pool = static_cast<PacketPool *>(PoolHandle);
    if (!LivePool(pool, HK_NDIS_PACKET_POOL_TAG, kPacketPoolSignature)) {
        VerifierError("NdisPacketPoolUsage(%p): not a packet pool handle", PoolHandle);
        return 0;
    }
    return __atomic_load_n(&pool->inUse, __ATOMIC_RELAXED);
}

// Bytes of one descriptor: header, reserved bytes, out-of-band data and
// per-packet information. Any IRQL.
UINT NTAPI NdisPacketSize(UINT ProtocolReservedSize)
{
    return OobOffsetFor(ProtocolReservedSize) + sizeof(NDIS_PACKET_OOB_DATA) +
           sizeof(NDIS_PACKET_EXTENSION);
}

// The pool recorded in the packet. Any IRQL.
NDIS_HANDLE NTAPI NdisGetPoolFromPacket(PNDIS_PACKET Packet)
{
    return Packet->Private.Pool;
}

// ---- packets ----

// A zeroed packet from the pool, or NDIS_STATUS_RESOURCES. IRQL <= DISPATCH_LEVEL.
VOID NTAPI NdisAllocatePacket(PNDIS_STATUS Status, PNDIS_PACKET *Packet, NDIS_HANDLE PoolHandle)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "NdisAllocatePacket");
    AllocatePacketFrom(Status, Packet, PoolHandle, "NdisAllocatePacket");
}

// As NdisAllocatePacket. IRQL == DISPATCH_LEVEL.
VOID NTAPI NdisDprAllocatePacket(PNDIS_STATUS Status, PNDIS_PACKET *Packet, NDIS_HANDLE PoolHandle)
{
    RequireDispatchLevel("NdisDprAllocatePacket");
    AllocatePacketFrom(Status, Packet, PoolHandle, "NdisDprAllocatePacket");
}

// Returns the packet to its pool (its buffers are the caller's). IRQL <= DISPATCH_LEVEL.
VOID NTAPI NdisFreePacket(PNDIS_PACKET Packet)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "NdisFreePacket");
    FreePacket(Packet, "NdisFreePacket");
}

// As NdisFreePacket. IRQL == DISPATCH_LEVEL.
VOID NTAPI NdisDprFreePacket(PNDIS_PACKET Packet)
{
    RequireDispatchLevel("NdisDprFreePacket");
    FreePacket(Packet, "NdisDprFreePacket");
}

// ---- buffer pools and buffers ----

// A buffer pool whose count is advisory. IRQL == PASSIVE_LEVEL.
VOID NTAPI NdisAllocateBufferPool(PNDIS_STATUS Status, PNDIS_HANDLE PoolHandle,
                                  UINT NumberOfDescriptors)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NdisAllocateBufferPool");
    if (!RequireOutputs(Status, PoolHandle, "NdisAllocateBufferPool"))
        return;
    *PoolHandle = nullptr;
    auto *pool = static_cast<BufferPool *>(
        ExAllocatePoolWithTag(NonPagedPool, sizeof(BufferPool), HK_NDIS_BUFFER_POOL_TAG));
    if (pool == nullptr) {
        *Status = NDIS_STATUS_RESOURCES;
        return;
    }
    pool->signature = kBufferPoolSignature;
    pool->descriptors = NumberOfDescriptors;
    pool->inUse = 0;
    pool->refs = 1;
    *PoolHandle = pool;
    *Status = NDIS_STATUS_SUCCESS;
}

// Frees a buffer pool; buffers still out are reported and stay valid until
// freed. IRQL == PASSIVE_LEVEL.
VOID NTAPI NdisFreeBufferPool(NDIS_HANDLE PoolHandle)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NdisFreeBufferPool");
    auto *pool = static_cast<BufferPool *>(PoolHandle);
    if (pool == nullptr || !IsLivePoolBlock(pool, HK_NDIS_BUFFER_POOL_TAG) ||
        __atomic_exchange_n(&pool->signature, 0u, __ATOMIC_ACQ_REL) != kBufferPoolSignature) {
        VerifierError("NdisFreeBufferPool(%p): not a buffer pool handle (freed twice?)", PoolHandle);
        return;
    }
    UINT inUse = __atomic_load_n(&pool->inUse, __ATOMIC_RELAXED);
    if (inUse > 0)
        VerifierError("NdisFreeBufferPool(%p): %u buffer(s) of the pool were not freed", PoolHandle, inUse);
    DropPool(pool, HK_NDIS_BUFFER_POOL_TAG);
}

// An MDL built for non-paged memory over [VirtualAddress, +Length).
// IRQL <= DISPATCH_LEVEL.
VOID NTAPI NdisAllocateBuffer(PNDIS_STATUS Status, PNDIS_BUFFER *Buffer, NDIS_HANDLE PoolHandle,
                              PVOID VirtualAddress, UINT Length)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "NdisAllocateBuffer");
    if (!RequireOutputs(Status, Buffer, "NdisAllocateBuffer"))
        return;
    *Buffer = nullptr;
    *Status = NDIS_STATUS_FAILURE;
    auto *pool = static_cast<BufferPool *>(PoolHandle);
    SIZE_T size = MmSizeOfMdl(VirtualAddress, Length);
    if (size > 0x7FFF)
        return; // an MDL's Size is a CSHORT, as on Windows
    if (pool != nullptr && !LivePool(pool, HK_NDIS_BUFFER_POOL_TAG, kBufferPoolSignature)) {
        VerifierError("NdisAllocateBuffer: %p is not a buffer pool handle (freed already?)",
                      PoolHandle);
        return;
    }
    auto *hidden = static_cast<Hidden *>(ExAllocatePoolWithTag(NonPagedPool, sizeof(Hidden) + size, HK_NDIS_BUFFER_TAG));
    if (hidden == nullptr)
        return;
    auto *mdl = reinterpret_cast<PNDIS_BUFFER>(hidden + 1);
    MmInitializeMdl(mdl, VirtualAddress, Length);
    MmBuildMdlForNonPagedPool(mdl);
    hidden->pool = pool;
    if (pool != nullptr) {
        __atomic_add_fetch(&pool->inUse, 1, __ATOMIC_RELAXED);
        __atomic_add_fetch(&pool->refs, 1, __ATOMIC_RELAXED);
    }
    __atomic_store_n(&hidden->state, kLiveBuffer, __ATOMIC_RELEASE);
    *Buffer = mdl;
    *Status = NDIS_STATUS_SUCCESS;
}

// Frees a descriptor from NdisAllocateBuffer. IRQL <= DISPATCH_LEVEL.
VOID NTAPI NdisFreeBuffer(PNDIS_BUFFER Buffer)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "NdisFreeBuffer");
    void *owner = nullptr;
    if (!TakeItem(Buffer, HK_NDIS_BUFFER_TAG, kLiveBuffer, &owner)) {
        VerifierError("NdisFreeBuffer(%p): not a buffer from NdisAllocateBuffer (freed "
                      "twice?)", static_cast<void *>(Buffer));
        return;
    }
    auto *pool = static_cast<BufferPool *>(owner);
    if (pool != nullptr)
        __atomic_sub_fetch(&pool->inUse, 1, __ATOMIC_RELAXED);
    ExFreePoolWithTag(HiddenOf(Buffer), HK_NDIS_BUFFER_TAG);
    DropPool(pool, HK_NDIS_BUFFER_POOL_TAG);
}

// ---- buffer chains ----

// Takes the first buffer off the chain (NULL when empty). IRQL <= DISPATCH_LEVEL.
VOID NTAPI NdisUnchainBufferAtFront(PNDIS_PACKET Packet, PNDIS_BUFFER *Buffer)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "NdisUnchainBufferAtFront");
    PNDIS_BUFFER first = Packet->Private.Head;
    *Buffer = first;
    if (first == nullptr)
        return;
    Packet->Private.Head = first->Next;
    if (Packet->Private.Head == nullptr)
        Packet->Private.Tail = nullptr;
    first->Next = nullptr;
    Packet->Private.ValidCounts = FALSE;
}

// Takes the last buffer off the chain (NULL when empty). IRQL <= DISPATCH_LEVEL.
VOID NTAPI NdisUnchainBufferAtBack(PNDIS_PACKET Packet, PNDIS_BUFFER *Buffer)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "NdisUnchainBufferAtBack");
    PNDIS_BUFFER first = Packet->Private.Head;
    if (first == nullptr) {
        *Buffer = nullptr;
        return;
    }
    if (first->Next == nullptr) {
        Packet->Private.Head = nullptr;
        Packet->Private.Tail = nullptr;
        *Buffer = first;
    } else {
        PNDIS_BUFFER beforeLast = first;
        while (beforeLast->Next->Next != nullptr)
            beforeLast = beforeLast->Next;
        *Buffer = beforeLast->Next;
        beforeLast->Next = nullptr;
        Packet->Private.Tail = beforeLast;
    }
    (*Buffer)->Next = nullptr;
    Packet->Private.ValidCounts = FALSE;
}

} // extern "C"
