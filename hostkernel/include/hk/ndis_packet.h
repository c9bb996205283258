/*
 * Host kernel runtime: NDIS packets and buffers (the NDIS 5.1 packet model).
 *
 * A packet is an NDIS_PACKET descriptor from a packet pool with a chain of
 * buffer descriptors; a buffer descriptor (NDIS_BUFFER) is an MDL over
 * caller memory, from a buffer pool. The records, flags and inline helpers
 * are the Windows ones, so driver code that walks a packet by hand works here
 * unchanged.
 *
 * The runtime tracks every pool, packet and buffer it hands out: freeing one
 * twice or freeing something it never handed out is a verifier finding (the
 * memory is not touched), and freeing a pool that still has packets or
 * buffers out is one too. Each pool, packet and buffer is a pool block of its
 * own tag, so whatever is never freed shows up in the pool leak report:
 *   'NDpp' packet pools     'NDpk' packets
 *   'NDbp' buffer pools     'NDbf' buffer descriptors
 *
 * Requests (NDIS_REQUEST, OIDs) and timers (NDIS_TIMER) come with this header.
 * Valid C11 and C++17.
 */
#ifndef HK_NDIS_PACKET_H
#define HK_NDIS_PACKET_H

#include "hk/base.h"
#include "hk/io.h"
#include "hk/ndis.h"

#ifndef ARGUMENT_PRESENT
#define ARGUMENT_PRESENT(ArgumentPointer) ((CHAR *)((ULONG_PTR)(ArgumentPointer)) != (CHAR *)NULL)
#endif

/* Pool tags of the runtime's packet and buffer records (see above). */
#define HK_NDIS_PACKET_POOL_TAG 0x70704E44u /* "NDpp" */
#define HK_NDIS_PACKET_TAG 0x6B704E44u      /* "NDpk" */
#define HK_NDIS_BUFFER_POOL_TAG 0x70624E44u /* "NDbp" */
#define HK_NDIS_BUFFER_TAG 0x66624E44u      /* "NDbf" */

/* ======================================================================
 * Records
 * ====================================================================== */

/* A buffer descriptor is an MDL; buffers of a packet chain through Next. */
typedef MDL NDIS_BUFFER, *PNDIS_BUFFER;
typedef NDIS_HANDLE PNDIS_PACKET_POOL;

/* NDIS_PACKET_PRIVATE.NdisPacketFlags */
#define fPACKET_WRAPPER_RESERVED 0x3f
#define fPACKET_CONTAINS_MEDIA_SPECIFIC_INFO 0x40
#define fPACKET_ALLOCATED_BY_NDIS 0x80

/* NDIS_PACKET_PRIVATE.Flags */
#define NDIS_FLAGS_PROTOCOL_ID_MASK 0x0000000f
#define NDIS_FLAGS_MULTICAST_PACKET 0x00000010
#define NDIS_FLAGS_RESERVED2 0x00000020
#define NDIS_FLAGS_RESERVED3 0x00000040
#define NDIS_FLAGS_DONT_LOOPBACK 0x00000080
#define NDIS_FLAGS_IS_LOOPBACK_PACKET 0x00000100
#define NDIS_FLAGS_LOOPBACK_ONLY 0x00000200
#define NDIS_FLAGS_RESERVED4 0x00000400
#define NDIS_FLAGS_DOUBLE_BUFFERED 0x00000800
#define NDIS_FLAGS_SENT_AT_DPC 0x00001000
#define NDIS_FLAGS_USES_SG_BUFFER_LIST 0x00002000
#define NDIS_FLAGS_USES_ORIGINAL_PACKET 0x00004000
#define NDIS_FLAGS_PADDED 0x00010000
#define NDIS_FLAGS_XLATE_AT_TOP 0x00020000
#define NDIS_PROTOCOL_ID_MASK NDIS_FLAGS_PROTOCOL_ID_MASK

/*
 * The packet's own bookkeeping. PhysicalCount, TotalLength and Count are a
 * cache that NdisQueryPacket fills and marks with ValidCounts; every change
 * of the buffer chain clears ValidCounts.
 */
typedef struct _NDIS_PACKET_PRIVATE {
    UINT PhysicalCount; /* pages spanned by all buffers */
    UINT TotalLength;   /* bytes in all buffers */
    PNDIS_BUFFER Head;
    PNDIS_BUFFER Tail;
    PNDIS_PACKET_POOL Pool;
    UINT Count; /* buffers in the chain */
    ULONG Flags;
    BOOLEAN ValidCounts;
    UCHAR NdisPacketFlags;
    USHORT NdisPacketOobOffset; /* from the packet's start to its NDIS_PACKET_OOB_DATA */
} NDIS_PACKET_PRIVATE, *PNDIS_PACKET_PRIVATE;

typedef struct _NDIS_PACKET {
    NDIS_PACKET_PRIVATE Private;
    union {
        struct {
            UCHAR MiniportReserved[2 * sizeof(PVOID)];
            UCHAR WrapperReserved[2 * sizeof(PVOID)];
        };
        struct {
            UCHAR MiniportReservedEx[3 * sizeof(PVOID)];
            UCHAR WrapperReservedEx[sizeof(PVOID)];
        };
        struct {
            UCHAR MacReserved[4 * sizeof(PVOID)];
        };
    };
    ULONG_PTR Reserved[2];
    UCHAR ProtocolReserved[1]; /* ProtocolReservedLength bytes, as the pool was created */
} NDIS_PACKET, *PNDIS_PACKET, **PPNDIS_PACKET;

C_ASSERT(sizeof(NDIS_PACKET_PRIVATE) == 48);
C_ASSERT(FIELD_OFFSET(NDIS_PACKET, ProtocolReserved) == 96);

/* Out-of-band data: behind the protocol-reserved area, at Private.NdisPacketOobOffset. */
typedef struct _NDIS_PACKET_OOB_DATA {
    union {
        ULONGLONG TimeToSend;
        ULONGLONG TimeSent;
    };
    ULONGLONG TimeReceived;
    UINT HeaderSize;
    UINT SizeMediaSpecificInfo;
    PVOID MediaSpecificInformation;
    NDIS_STATUS Status;
} NDIS_PACKET_OOB_DATA, *PNDIS_PACKET_OOB_DATA;

typedef enum _NDIS_PER_PACKET_INFO {
    TcpIpChecksumPacketInfo,
    IpSecPacketInfo,
    TcpLargeSendPacketInfo,
    ClassificationHandlePacketInfo,
    NdisReserved,
    ScatterGatherListPacketInfo,
    Ieee8021QInfo,
    OriginalPacketInfo,
    PacketCancelId,
    OriginalNetBufferList,
    CachedNetBufferList,
    ShortPacketPaddingInfo,
    MaxPerPacketInfo
} NDIS_PER_PACKET_INFO, *PNDIS_PER_PACKET_INFO;

/* Per-packet information: right behind the out-of-band data. */
typedef struct _NDIS_PACKET_EXTENSION {
    PVOID NdisPacketInfo[MaxPerPacketInfo];
} NDIS_PACKET_EXTENSION, *PNDIS_PACKET_EXTENSION;

/* ======================================================================
 * Field access (macros as in the DDK)
 * ====================================================================== */

#define NDIS_BUFFER_LINKAGE(Buffer) ((Buffer)->Next)
#define NDIS_PACKET_FIRST_NDIS_BUFFER(_Packet) ((_Packet)->Private.Head)
#define NDIS_PACKET_LAST_NDIS_BUFFER(_Packet) ((_Packet)->Private.Tail)
#define NDIS_PACKET_VALID_COUNTS(_Packet) ((_Packet)->Private.ValidCounts)

#define NdisGetPacketFlags(Packet) ((Packet)->Private.Flags)
#define NdisSetPacketFlags(Packet, _Flags) ((Packet)->Private.Flags |= (_Flags))
#define NdisClearPacketFlags(Packet, _Flags) ((Packet)->Private.Flags &= ~(_Flags))
#define NDIS_GET_PACKET_PROTOCOL_TYPE(_Packet) ((_Packet)->Private.Flags & NDIS_PROTOCOL_ID_MASK)

#define NDIS_OOB_DATA_FROM_PACKET(_Packet) \
    ((PNDIS_PACKET_OOB_DATA)((PUCHAR)(_Packet) + (_Packet)->Private.NdisPacketOobOffset))
#define NDIS_PACKET_EXTENSION_FROM_PACKET(_Packet) \
    ((PNDIS_PACKET_EXTENSION)((PUCHAR)NDIS_OOB_DATA_FROM_PACKET(_Packet) + sizeof(NDIS_PACKET_OOB_DATA)))
#define NDIS_PER_PACKET_INFO_FROM_PACKET(_Packet, _InfoType) \
    (NDIS_PACKET_EXTENSION_FROM_PACKET(_Packet)->NdisPacketInfo[(_InfoType)])

#define NDIS_GET_PACKET_STATUS(_Packet) (NDIS_OOB_DATA_FROM_PACKET(_Packet)->Status)
#define NDIS_SET_PACKET_STATUS(_Packet, _Status) (NDIS_OOB_DATA_FROM_PACKET(_Packet)->Status = (_Status))
#define NDIS_GET_PACKET_HEADER_SIZE(_Packet) (NDIS_OOB_DATA_FROM_PACKET(_Packet)->HeaderSize)
#define NDIS_SET_PACKET_HEADER_SIZE(_Packet, _HdrSize) \
    (NDIS_OOB_DATA_FROM_PACKET(_Packet)->HeaderSize = (_HdrSize))
#define NDIS_GET_PACKET_TIME_RECEIVED(_Packet) (NDIS_OOB_DATA_FROM_PACKET(_Packet)->TimeReceived)
#define NDIS_SET_PACKET_TIME_RECEIVED(_Packet, _Time) \
    (NDIS_OOB_DATA_FROM_PACKET(_Packet)->TimeReceived = (_Time))

/* Forgets the buffer chain (the buffers themselves are left alone). */
#define NdisReinitializePacket(Packet)                 \
    do {                                               \
        (Packet)->Private.Head = (PNDIS_BUFFER)NULL;   \
        (Packet)->Private.ValidCounts = FALSE;         \
    } while (0)

HK_EXTERN_C_BEGIN

/* ======================================================================
 * Packet pools and packets
 * ====================================================================== */

/* A pool of NumberOfDescriptors packets, each with ProtocolReservedLength bytes of
 * ProtocolReserved. *Status is NDIS_STATUS_SUCCESS or NDIS_STATUS_RESOURCES (then
 * *PoolHandle is NULL). IRQL == PASSIVE_LEVEL. */
NDISAPI VOID NTAPI NdisAllocatePacketPool(PNDIS_STATUS Status, PNDIS_HANDLE PoolHandle,
                                          UINT NumberOfDescriptors, UINT ProtocolReservedLength);
/* Same, and the pool may lend NumberOfOverflowDescriptors more packets when the first
 * NumberOfDescriptors are out. IRQL == PASSIVE_LEVEL. */
NDISAPI VOID NTAPI NdisAllocatePacketPoolEx(PNDIS_STATUS Status, PNDIS_HANDLE PoolHandle,
                                            UINT NumberOfDescriptors,
                                            UINT NumberOfOverflowDescriptors,
                                            UINT ProtocolReservedLength);
/* Frees the pool; every packet must have been freed first (a verifier finding otherwise;
 * the packets still out stay valid until freed). IRQL == PASSIVE_LEVEL. */
NDISAPI VOID NTAPI NdisFreePacketPool(NDIS_HANDLE PoolHandle);
/* Packets of the pool currently allocated. IRQL <= DISPATCH_LEVEL. */
NDISAPI UINT NTAPI NdisPacketPoolUsage(NDIS_HANDLE PoolHandle);
/* Bytes of one packet descriptor with ProtocolReservedSize reserved bytes. Any IRQL. */
NDISAPI UINT NTAPI NdisPacketSize(UINT ProtocolReservedSize);
/* The pool a packet came from. Any IRQL. */
NDISAPI NDIS_HANDLE NTAPI NdisGetPoolFromPacket(PNDIS_PACKET Packet);

/* A zeroed packet (no buffers, status NDIS_STATUS_SUCCESS) from the pool:
 * NDIS_STATUS_SUCCESS, or NDIS_STATUS_RESOURCES (and *Packet NULL) when every descriptor
 * of the pool is out. IRQL <= DISPATCH_LEVEL; the Dpr form at DISPATCH_LEVEL. */
NDISAPI VOID NTAPI NdisAllocatePacket(PNDIS_STATUS Status, PNDIS_PACKET *Packet,
                                      NDIS_HANDLE PoolHandle);
NDISAPI VOID NTAPI NdisDprAllocatePacket(PNDIS_STATUS Status, PNDIS_PACKET *Packet,
                                         NDIS_HANDLE PoolHandle);
/* Returns a packet to its pool. Its buffers are not freed: the caller unchains and frees
 * them. IRQL <= DISPATCH_LEVEL; the Dpr form at DISPATCH_LEVEL. */
NDISAPI VOID NTAPI NdisFreePacket(PNDIS_PACKET Packet);
NDISAPI VOID NTAPI NdisDprFreePacket(PNDIS_PACKET Packet);

/* ======================================================================
 * Buffer pools and buffer descriptors
 * ====================================================================== */

/* A buffer pool. As on NT-based Windows the descriptor count is advisory: allocations
 * are not limited by it. *Status is NDIS_STATUS_SUCCESS or NDIS_STATUS_RESOURCES.
 * IRQL == PASSIVE_LEVEL. */
NDISAPI VOID NTAPI NdisAllocateBufferPool(PNDIS_STATUS Status, PNDIS_HANDLE PoolHandle,
                                          UINT NumberOfDescriptors);
/* Frees the pool; its buffers must have been freed first (a verifier finding otherwise).
 * IRQL == PASSIVE_LEVEL. */
NDISAPI VOID NTAPI NdisFreeBufferPool(NDIS_HANDLE PoolHandle);
/* A buffer descriptor (an MDL built for non-paged memory) for Length bytes at
 * VirtualAddress, which the caller keeps valid until the descriptor is freed.
 * *Status is NDIS_STATUS_SUCCESS or NDIS_STATUS_FAILURE (and *Buffer NULL).
 * PoolHandle may be NULL. IRQL <= DISPATCH_LEVEL. */
NDISAPI VOID NTAPI NdisAllocateBuffer(PNDIS_STATUS Status, PNDIS_BUFFER *Buffer,
                                      NDIS_HANDLE PoolHandle, PVOID VirtualAddress, UINT Length);
/* Frees a descriptor from NdisAllocateBuffer (not the memory it describes).
 * IRQL <= DISPATCH_LEVEL. */
NDISAPI VOID NTAPI NdisFreeBuffer(PNDIS_BUFFER Buffer);

/* ======================================================================
 * Buffer chains
 * ====================================================================== */

/* Pages the buffer's memory spans (1 for an empty buffer). Any IRQL. */
FORCEINLINE ULONG NDIS_BUFFER_TO_SPAN_PAGES(PNDIS_BUFFER Buffer)
{
    return MmGetMdlByteCount(Buffer) == 0
               ? 1
               : ADDRESS_AND_SIZE_TO_SPAN_PAGES(MmGetMdlVirtualAddress(Buffer), MmGetMdlByteCount(Buffer));
}

/* Puts Buffer (and any buffers already chained behind it) in front of the packet's chain.
 * IRQL <= DISPATCH_LEVEL. */
FORCEINLINE VOID NdisChainBufferAtFront(PNDIS_PACKET Packet, PNDIS_BUFFER Buffer)
{
    PNDIS_BUFFER last = Buffer;
    while (last->Next != NULL)
        last = last->Next;
    if (Packet->Private.Head == NULL)
        Packet->Private.Tail = last;
    last->Next = Packet->Private.Head;
    Packet->Private.Head = Buffer;
    Packet->Private.ValidCounts = FALSE;
}

/* Appends Buffer (and any buffers already chained behind it) to the packet's chain.
 * IRQL <= DISPATCH_LEVEL. */
FORCEINLINE VOID NdisChainBufferAtBack(PNDIS_PACKET Packet, PNDIS_BUFFER Buffer)
{
    PNDIS_BUFFER last = Buffer;
    while (last->Next != NULL)
        last = last->Next;
    if (Packet->Private.Head != NULL)
        Packet->Private.Tail->Next = Buffer;
    else
        Packet->Private.Head = Buffer;
    Packet->Private.Tail = last;
    Packet->Private.ValidCounts = FALSE;
}

/* Takes the first / last buffer off the chain into *Buffer (NULL when the chain is
 * empty); the buffer's Next is cleared. IRQL <= DISPATCH_LEVEL. */
NDISAPI VOID NTAPI NdisUnchainBufferAtFront(PNDIS_PACKET Packet, PNDIS_BUFFER *Buffer);
NDISAPI VOID NTAPI NdisUnchainBufferAtBack(PNDIS_PACKET Packet, PNDIS_BUFFER *Buffer);

/* Makes Tail point at the last buffer again and drops the cached counts (after a driver
 * edited the chain by hand). IRQL <= DISPATCH_LEVEL. */
FORCEINLINE VOID NdisRecalculatePacketCounts(PNDIS_PACKET Packet)
{
    PNDIS_BUFFER buffer = Packet->Private.Head;
    if (buffer != NULL) {
        while (buffer->Next != NULL)
            buffer = buffer->Next;
        Packet->Private.Tail = buffer;
    }
    Packet->Private.ValidCounts = FALSE;
}

/*
 * Any of the counts and the first buffer of a packet (each output optional).
 * The counts are computed once and cached in the packet (ValidCounts) until
 * the chain changes through the chain routines. IRQL <= DISPATCH_LEVEL.
 */
FORCEINLINE VOID NdisQueryPacket(PNDIS_PACKET Packet, PUINT PhysicalBufferCount, PUINT BufferCount,
                                 PNDIS_BUFFER *FirstBuffer, PUINT TotalPacketLength)
{
    if (FirstBuffer != NULL)
        *FirstBuffer = Packet->Private.Head;
    if (TotalPacketLength == NULL && BufferCount == NULL && PhysicalBufferCount == NULL)
        return;
    if (!Packet->Private.ValidCounts) {
        UINT pages = 0, length = 0, count = 0;
        PNDIS_BUFFER buffer;
        for (buffer = Packet->Private.Head; buffer != NULL; buffer = buffer->Next) {
            pages += NDIS_BUFFER_TO_SPAN_PAGES(buffer);
            length += MmGetMdlByteCount(buffer);
            count++;
        }
        Packet->Private.PhysicalCount = pages;
        Packet->Private.TotalLength = length;
        Packet->Private.Count = count;
        Packet->Private.ValidCounts = TRUE;
    }
    if (PhysicalBufferCount != NULL)
        *PhysicalBufferCount = Packet->Private.PhysicalCount;
    if (BufferCount != NULL)
        *BufferCount = Packet->Private.Count;
    if (TotalPacketLength != NULL)
        *TotalPacketLength = Packet->Private.TotalLength;
}

/* The packet's total length, from the cache when it is valid. IRQL <= DISPATCH_LEVEL. */
#define NdisQueryPacketLength(_Packet, _TotalPacketLength)                      \
    do {                                                                        \
        if (!(_Packet)->Private.ValidCounts)                                    \
            NdisQueryPacket((_Packet), NULL, NULL, NULL, (_TotalPacketLength)); \
        else                                                                    \
            *(_TotalPacketLength) = (_Packet)->Private.TotalLength;             \
    } while (0)

/* ======================================================================
 * Buffers
 * ====================================================================== */

#define NdisBufferLength(Buffer) MmGetMdlByteCount(Buffer)
#define NdisBufferVirtualAddress(Buffer) MmGetSystemAddressForMdlSafe((Buffer), HighPagePriority)
#define NdisBufferVirtualAddressSafe(Buffer, Priority) MmGetSystemAddressForMdlSafe((Buffer), (Priority))
#define NdisGetNextBuffer(CurrentBuffer, NextBuffer) (*(NextBuffer) = (CurrentBuffer)->Next)

/* The system address (optional) and length of a buffer. IRQL <= DISPATCH_LEVEL. */
#define NdisQueryBufferSafe(_Buffer, _VirtualAddress, _Length, _Priority)                    \
    do {                                                                                     \
        if (ARGUMENT_PRESENT(_VirtualAddress))                                               \
            *(PVOID *)(_VirtualAddress) = MmGetSystemAddressForMdlSafe((_Buffer), (_Priority)); \
        *(_Length) = MmGetMdlByteCount(_Buffer);                                             \
    } while (0)
#define NdisQueryBuffer(_Buffer, _VirtualAddress, _Length) \
    NdisQueryBufferSafe((_Buffer), (_VirtualAddress), (_Length), HighPagePriority)

/* The offset of the buffer's data in its first page, and its length. */
#define NdisQueryBufferOffset(_Buffer, _Offset, _Length) \
    do {                                                 \
        *(_Offset) = MmGetMdlByteOffset(_Buffer);        \
        *(_Length) = MmGetMdlByteCount(_Buffer);         \
    } while (0)

/* The first buffer with its address and length, and the packet's total length (zeros
 * and NULLs for a packet without buffers). IRQL <= DISPATCH_LEVEL. */
FORCEINLINE VOID NdisGetFirstBufferFromPacketSafe(PNDIS_PACKET Packet, PNDIS_BUFFER *FirstBuffer,
                                                  PVOID *FirstBufferVA, PUINT FirstBufferLength,
                                                  PUINT TotalBufferLength, ULONG Priority)
{
    PNDIS_BUFFER buffer = Packet->Private.Head;
    *FirstBuffer = buffer;
    if (buffer == NULL) {
        *FirstBufferVA = NULL;
        *FirstBufferLength = 0;
        *TotalBufferLength = 0;
        return;
    }
    *FirstBufferVA = MmGetSystemAddressForMdlSafe(buffer, Priority);
    *FirstBufferLength = MmGetMdlByteCount(buffer);
    *TotalBufferLength = *FirstBufferLength;
    for (buffer = buffer->Next; buffer != NULL; buffer = buffer->Next)
        *TotalBufferLength += MmGetMdlByteCount(buffer);
}

FORCEINLINE VOID NdisGetFirstBufferFromPacket(PNDIS_PACKET Packet, PNDIS_BUFFER *FirstBuffer,
                                              PVOID *FirstBufferVA, PUINT FirstBufferLength,
                                              PUINT TotalBufferLength)
{
    NdisGetFirstBufferFromPacketSafe(Packet, FirstBuffer, FirstBufferVA, FirstBufferLength,
                                     TotalBufferLength, HighPagePriority);
}

HK_EXTERN_C_END

#include "hk/ndis_request.h"
#include "hk/ndis_timer.h"

#endif /* HK_NDIS_PACKET_H */
