/*
 * Host kernel runtime: the NDIS library.
 *
 * Sections: status codes and basic types; memory; spin locks; read-write
 * locks; events; interlocked operations and time. Packets, buffers, timers
 * and requests join as further sections. Valid C11 and C++17.
 */
#ifndef HK_HK_NDIS_H
#define HK_HK_NDIS_H

#include "hk/base.h"
#include "hk/rtl.h"
#include "hk/pool.h"
#include "hk/sync.h"
#include "hk/thread.h"

/* ======================================================================
 * Status codes and basic types
 * ====================================================================== */

typedef int NDIS_STATUS, *PNDIS_STATUS;
typedef PVOID NDIS_HANDLE, *PNDIS_HANDLE;
typedef UNICODE_STRING NDIS_STRING, *PNDIS_STRING;
typedef PHYSICAL_ADDRESS NDIS_PHYSICAL_ADDRESS, *PNDIS_PHYSICAL_ADDRESS;

#define NDIS_STATUS_SUCCESS ((NDIS_STATUS)STATUS_SUCCESS)
#define NDIS_STATUS_PENDING ((NDIS_STATUS)STATUS_PENDING)
#define NDIS_STATUS_NOT_RECOGNIZED ((NDIS_STATUS)0x00010001L)
#define NDIS_STATUS_NOT_COPIED ((NDIS_STATUS)0x00010002L)
#define NDIS_STATUS_NOT_ACCEPTED ((NDIS_STATUS)0x00010003L)
#define NDIS_STATUS_CALL_ACTIVE ((NDIS_STATUS)0x00010007L)
#define NDIS_STATUS_ONLINE ((NDIS_STATUS)0x40010003L)
#define NDIS_STATUS_RESET_START ((NDIS_STATUS)0x40010004L)
#define NDIS_STATUS_RESET_END ((NDIS_STATUS)0x40010005L)
#define NDIS_STATUS_RING_STATUS ((NDIS_STATUS)0x40010006L)
#define NDIS_STATUS_CLOSED ((NDIS_STATUS)0x40010007L)
#define NDIS_STATUS_MEDIA_CONNECT ((NDIS_STATUS)0x4001000BL)
#define NDIS_STATUS_MEDIA_DISCONNECT ((NDIS_STATUS)0x4001000CL)
#define NDIS_STATUS_MEDIA_SPECIFIC_INDICATION ((NDIS_STATUS)0x40010012L)
#define NDIS_STATUS_LINK_SPEED_CHANGE ((NDIS_STATUS)0x40010013L)
#define NDIS_STATUS_NOT_RESETTABLE ((NDIS_STATUS)0x80010001L)
#define NDIS_STATUS_SOFT_ERRORS ((NDIS_STATUS)0x80010003L)
#define NDIS_STATUS_HARD_ERRORS ((NDIS_STATUS)0x80010004L)
#define NDIS_STATUS_BUFFER_OVERFLOW ((NDIS_STATUS)STATUS_BUFFER_OVERFLOW)
#define NDIS_STATUS_FAILURE ((NDIS_STATUS)STATUS_UNSUCCESSFUL)
#define NDIS_STATUS_RESOURCES ((NDIS_STATUS)STATUS_INSUFFICIENT_RESOURCES)
#define NDIS_STATUS_CLOSING ((NDIS_STATUS)0xC0010002L)
#define NDIS_STATUS_BAD_VERSION ((NDIS_STATUS)0xC0010004L)
#define NDIS_STATUS_BAD_CHARACTERISTICS ((NDIS_STATUS)0xC0010005L)
#define NDIS_STATUS_ADAPTER_NOT_FOUND ((NDIS_STATUS)0xC0010006L)
#define NDIS_STATUS_OPEN_FAILED ((NDIS_STATUS)0xC0010007L)
#define NDIS_STATUS_DEVICE_FAILED ((NDIS_STATUS)0xC0010008L)
#define NDIS_STATUS_MULTICAST_FULL ((NDIS_STATUS)0xC0010009L)
#define NDIS_STATUS_MULTICAST_EXISTS ((NDIS_STATUS)0xC001000AL)
#define NDIS_STATUS_MULTICAST_NOT_FOUND ((NDIS_STATUS)0xC001000BL)
#define NDIS_STATUS_REQUEST_ABORTED ((NDIS_STATUS)0xC001000CL)
#define NDIS_STATUS_RESET_IN_PROGRESS ((NDIS_STATUS)0xC001000DL)
#define NDIS_STATUS_CLOSING_INDICATING ((NDIS_STATUS)0xC001000EL)
#define NDIS_STATUS_NOT_SUPPORTED ((NDIS_STATUS)STATUS_NOT_SUPPORTED)
#define NDIS_STATUS_INVALID_PACKET ((NDIS_STATUS)0xC001000FL)
#define NDIS_STATUS_OPEN_LIST_FULL ((NDIS_STATUS)0xC0010010L)
#define NDIS_STATUS_ADAPTER_NOT_READY ((NDIS_STATUS)0xC0010011L)
#define NDIS_STATUS_ADAPTER_NOT_OPEN ((NDIS_STATUS)0xC0010012L)
#define NDIS_STATUS_NOT_INDICATING ((NDIS_STATUS)0xC0010013L)
#define NDIS_STATUS_INVALID_LENGTH ((NDIS_STATUS)0xC0010014L)
#define NDIS_STATUS_INVALID_DATA ((NDIS_STATUS)0xC0010015L)
#define NDIS_STATUS_BUFFER_TOO_SHORT ((NDIS_STATUS)0xC0010016L)
#define NDIS_STATUS_INVALID_OID ((NDIS_STATUS)0xC0010017L)
#define NDIS_STATUS_ADAPTER_REMOVED ((NDIS_STATUS)0xC0010018L)
#define NDIS_STATUS_UNSUPPORTED_MEDIA ((NDIS_STATUS)0xC0010019L)
#define NDIS_STATUS_GROUP_ADDRESS_IN_USE ((NDIS_STATUS)0xC001001AL)
#define NDIS_STATUS_FILE_NOT_FOUND ((NDIS_STATUS)0xC001001BL)
#define NDIS_STATUS_ERROR_READING_FILE ((NDIS_STATUS)0xC001001CL)
#define NDIS_STATUS_ALREADY_MAPPED ((NDIS_STATUS)0xC001001DL)
#define NDIS_STATUS_RESOURCE_CONFLICT ((NDIS_STATUS)0xC001001EL)
#define NDIS_STATUS_NO_CABLE ((NDIS_STATUS)0xC001001FL)
#define NDIS_STATUS_INVALID_DEVICE_REQUEST ((NDIS_STATUS)STATUS_INVALID_DEVICE_REQUEST)

typedef enum _NDIS_MEDIUM {
    NdisMedium802_3,
    NdisMedium802_5,
    NdisMediumFddi,
    NdisMediumWan,
    NdisMediumLocalTalk,
    NdisMediumDix,
    NdisMediumArcnetRaw,
    NdisMediumArcnet878_2,
    NdisMediumAtm,
    NdisMediumWirelessWan,
    NdisMediumIrda,
    NdisMediumBpc,
    NdisMediumCoWan,
    NdisMedium1394,
    NdisMediumInfiniBand,
    NdisMediumTunnel,
    NdisMediumNative802_11,
    NdisMediumLoopback,
    NdisMediumWiMAX,
    NdisMediumIP,
    NdisMediumMax
} NDIS_MEDIUM, *PNDIS_MEDIUM;

HK_EXTERN_C_BEGIN

/* ======================================================================
 * Memory
 * ====================================================================== */

#define NDIS_MEMORY_CONTIGUOUS 0x00000001
#define NDIS_MEMORY_NONCACHED 0x00000002

#define NdisZeroMemory(Destination, Length) RtlZeroMemory((Destination), (Length))
#define NdisMoveMemory(Destination, Source, Length) RtlCopyMemory((Destination), (Source), (Length))
#define NdisEqualMemory(Source1, Source2, Length) RtlEqualMemory((Source1), (Source2), (Length))
#define NdisFillMemory(Destination, Length, Fill) RtlFillMemory((Destination), (Length), (Fill))

/* Allocates Length bytes of non-paged pool into *VirtualAddress; NDIS_STATUS_FAILURE (and
 * NULL) when there is no memory. IRQL <= DISPATCH_LEVEL. */
NDISAPI NDIS_STATUS NTAPI NdisAllocateMemoryWithTag(PVOID *VirtualAddress, UINT Length, ULONG Tag);
/* Frees memory from NdisAllocateMemoryWithTag (Length and MemoryFlags as allocated). */
NDISAPI VOID NTAPI NdisFreeMemory(PVOID VirtualAddress, UINT Length, UINT MemoryFlags);

/* ======================================================================
 * Spin locks
 * ====================================================================== */

typedef struct _NDIS_SPIN_LOCK {
    KSPIN_LOCK SpinLock;
    KIRQL OldIrql;
} NDIS_SPIN_LOCK, *PNDIS_SPIN_LOCK;

/* Initializes / retires the lock (it must not be held when freed). */
NDISAPI VOID NTAPI NdisAllocateSpinLock(PNDIS_SPIN_LOCK SpinLock);
NDISAPI VOID NTAPI NdisFreeSpinLock(PNDIS_SPIN_LOCK SpinLock);
/* Raises to DISPATCH_LEVEL and takes the lock; Release restores the saved level. */
NDISAPI VOID NTAPI NdisAcquireSpinLock(PNDIS_SPIN_LOCK SpinLock);
NDISAPI VOID NTAPI NdisReleaseSpinLock(PNDIS_SPIN_LOCK SpinLock);
/* Take / free at DISPATCH_LEVEL without changing the IRQL. */
NDISAPI VOID NTAPI NdisDprAcquireSpinLock(PNDIS_SPIN_LOCK SpinLock);
NDISAPI VOID NTAPI NdisDprReleaseSpinLock(PNDIS_SPIN_LOCK SpinLock);

/* ======================================================================
 * Read-write locks
 * ====================================================================== */

#ifndef MAXIMUM_PROCESSORS
#define MAXIMUM_PROCESSORS 64
#endif

/* One reader count per processor slot, each on its own 16 bytes. */
typedef union _NDIS_RW_LOCK_REFCOUNT {
    UINT RefCount;
    UCHAR cacheLine[16];
} NDIS_RW_LOCK_REFCOUNT;

/* SpinLock is the writer's lock; readers count themselves in RefCount[] by slot. */
typedef struct _NDIS_RW_LOCK {
    union {
        struct {
            KSPIN_LOCK SpinLock;
            PVOID Context;
        };
        UCHAR Reserved[16];
    };
    union {
        NDIS_RW_LOCK_REFCOUNT RefCount[MAXIMUM_PROCESSORS];
        ULONG RefCountEx[sizeof(NDIS_RW_LOCK_REFCOUNT) / sizeof(ULONG) * MAXIMUM_PROCESSORS];
    };
} NDIS_RW_LOCK, *PNDIS_RW_LOCK;

/* Kept by the caller between acquire and release: how the lock was taken and the IRQL
 * to return to. Each acquisition needs its own LOCK_STATE. */
typedef struct _LOCK_STATE {
    USHORT LockState;
    KIRQL OldIrql;
} LOCK_STATE, *PLOCK_STATE;

/* Makes the lock free. */
NDISAPI VOID NTAPI NdisInitializeReadWriteLock(PNDIS_RW_LOCK Lock);
/* Raises to DISPATCH_LEVEL and takes the lock for writing (fWrite, exclusive) or reading
 * (shared with other readers; a reader may take it again for reading). A writer taking it
 * again is a verifier error. IRQL <= DISPATCH_LEVEL. */
NDISAPI VOID NTAPI NdisAcquireReadWriteLock(PNDIS_RW_LOCK Lock, BOOLEAN fWrite,
                                            PLOCK_STATE LockState);
/* Gives back what LockState records and returns to the saved IRQL. */
NDISAPI VOID NTAPI NdisReleaseReadWriteLock(PNDIS_RW_LOCK Lock, PLOCK_STATE LockState);

/* ======================================================================
 * Events (notification events)
 * ====================================================================== */

typedef struct _NDIS_EVENT {
    KEVENT Event;
} NDIS_EVENT, *PNDIS_EVENT;

/* Initializes the event, not signalled. */
NDISAPI VOID NTAPI NdisInitializeEvent(PNDIS_EVENT Event);
/* Signals it (waking every waiter) / resets it. IRQL <= DISPATCH_LEVEL. */
NDISAPI VOID NTAPI NdisSetEvent(PNDIS_EVENT Event);
NDISAPI VOID NTAPI NdisResetEvent(PNDIS_EVENT Event);
/* Waits up to MsToWait milliseconds (0 = forever); TRUE when the event was signalled.
 * IRQL == PASSIVE_LEVEL. */
NDISAPI BOOLEAN NTAPI NdisWaitEvent(PNDIS_EVENT Event, UINT MsToWait);

/* ======================================================================
 * Interlocked operations and time
 * ====================================================================== */

#define NdisInterlockedIncrement(Addend) InterlockedIncrement(Addend)
#define NdisInterlockedDecrement(Addend) InterlockedDecrement(Addend)

/* The system time (100 ns units since 1601-01-01 UTC). */
NDISAPI VOID NTAPI NdisGetCurrentSystemTime(PLARGE_INTEGER SystemTime);
/* Sleeps at least MicrosecondsToSleep. IRQL == PASSIVE_LEVEL. */
NDISAPI VOID NTAPI NdisMSleep(ULONG MicrosecondsToSleep);
/* Busy-waits MicrosecondsToStall. Any IRQL. */
NDISAPI VOID NTAPI NdisStallExecution(ULONG MicrosecondsToStall);

HK_EXTERN_C_END

#endif /* HK_HK_NDIS_H */
