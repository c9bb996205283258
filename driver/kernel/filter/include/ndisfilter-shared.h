/*
 * ndisfilter-shared.h - what the framework shares with its user program: the
 * control device, the control codes and the layout of the shared rings.
 *
 * Valid C11 and C++, in kernel mode (after <ntddk.h>) and in user mode (after
 * <windows.h>). ndisfilter.h includes it for client drivers.
 */
#ifndef NDISFILTER_SHARED_H
#define NDISFILTER_SHARED_H

#if defined(__cplusplus)
#define NDISFILTER_SHARED_LAYOUT(e) static_assert(e, #e)
#else
#define NDISFILTER_SHARED_LAYOUT(e) _Static_assert(e, #e)
#endif

/* ------------------------------------------------------------------------
 * The memory shared with the user program: two rings of packet blocks.
 *
 *   MappedMemory                     (1724520 bytes, one non-paged allocation)
 *   +0   m_pUserModeVirtualAddress   user address of the mapping, 0 when unmapped
 *   +8   m_pMdl                      the MDL describing the whole allocation
 *   +16  m_nSize                     sizeof(SharedMemory)
 *   +20  m_SharedMemory              what START_SHARE hands to the program:
 *          +0       KernelModeOutput   ring header: framework writes, program reads
 *          +40      KernelModeInput    ring header: program writes, framework reads
 *          +80      512 output blocks
 *          +862288  512 input blocks
 *
 * Ring indexes: the framework writes m_iRead of the input ring and m_iWrite
 * and m_nCount of the output ring; the program writes the other index of
 * each. Empty when m_iRead == m_iWrite; full when (m_iWrite + 1) % count ==
 * m_iRead, so at most 511 blocks are in flight.
 * ------------------------------------------------------------------------ */

/* Where a packet is heading. */
#define FILTER_DIRECTION_TO_PROTOCOL    1
#define FILTER_DIRECTION_TO_ADAPTER     2
#define FILTER_DIRECTION_TO_APPLICATION 3

/* A signal record written to the output ring spills 132 bytes into the next block. */
#define FILTER_SIGNAL_SIZE 1816

#define SHARED_BLOCK_SIZE        1684
#define SHARED_BLOCK_COUNT       512
#define SHARED_BLOCK_FRAME_SIZE  1520
#define SHARED_MEMORY_SIZE       1724496
#define MAPPED_MEMORY_SIZE       1724520
#define SHARED_MEMORY_OFFSET     20

#pragma pack(push, 4)
typedef struct _SharedBlock {
    ULONG m_nAdapterId;
    ULONG m_Unused;          /* not written by the framework */
    ULONG m_nDirection;
    ULONG m_nPacketSize;     /* frame bytes in m_Frame */
    ULONG m_dwCarried[2];    /* carried unchanged to and from the packet */
    ULONG m_nIndicateCode;
    ULONG64 m_nIndicateValue;
    UCHAR m_ApplicationData[128];
    UCHAR m_Frame[SHARED_BLOCK_FRAME_SIZE];
} SharedBlock, *PSharedBlock;

typedef struct _SharedBlockRing {
    LONG m_iBlockSize;     /* 1684 */
    LONG m_iBlockCount;    /* 512 */
    LONG m_iBaseOffset;    /* first block's offset from the start of the block area */
    ULONG64 m_puBlockBase; /* left to the program */
    ULONG64 m_pkBlockBase; /* kernel address of the first block */
    volatile LONG m_iRead;
    volatile LONG m_iWrite;
    volatile LONG m_nCount; /* starts at 512, +1 per block the framework writes */
} SharedBlockRing, *PSharedBlockRing;

typedef struct _SharedMemory {
    SharedBlockRing KernelModeOutput;
    SharedBlockRing KernelModeInput;
    SharedBlock m_OutputBlocks[SHARED_BLOCK_COUNT];
    SharedBlock m_InputBlocks[SHARED_BLOCK_COUNT];
} SharedMemory, *PSharedMemory;

#pragma pack(pop)

NDISFILTER_SHARED_LAYOUT(sizeof(SharedBlock) == SHARED_BLOCK_SIZE);
NDISFILTER_SHARED_LAYOUT(sizeof(SharedBlockRing) == 40);
NDISFILTER_SHARED_LAYOUT(sizeof(SharedMemory) == SHARED_MEMORY_SIZE);
NDISFILTER_SHARED_LAYOUT(FIELD_OFFSET(SharedMemory, m_InputBlocks) == 862288);
NDISFILTER_SHARED_LAYOUT(FIELD_OFFSET(SharedBlock, m_nIndicateValue) == 28);
NDISFILTER_SHARED_LAYOUT(FIELD_OFFSET(SharedBlock, m_Frame) == 164);

/* ------------------------------------------------------------------------
 * Control device and control codes.
 * ------------------------------------------------------------------------ */

#define NDISFILTER_DEVICE_NAME  L"\\Device\\NdisFilter"
#define NDISFILTER_SYMBOLIC_LINK L"\\DosDevices\\NdisFilter"
#define NDISFILTER_USER_DEVICE  "\\\\.\\NdisFilter"

#define NDISFILTER_DEVICE_TYPE 0x8000
/* CTL_CODE(0x8000, function, METHOD_BUFFERED, FILE_ANY_ACCESS), as an unsigned 32-bit value. */
#define NDISFILTER_CTL_CODE(function)                                                            \
    ((ULONG)(((ULONG)NDISFILTER_DEVICE_TYPE << 16) | ((ULONG)FILE_ANY_ACCESS << 14) |            \
             ((ULONG)(function) << 2) | (ULONG)METHOD_BUFFERED))

#define IOCTL_NDIS_FILTER_DIAG                    NDISFILTER_CTL_CODE(0x802) /* 0x80002008 */
#define IOCTL_NDIS_FILTER_GET_VERSION             NDISFILTER_CTL_CODE(0x8C8) /* 0x80002320 */
#define IOCTL_NDIS_FILTER_START_SHARE             NDISFILTER_CTL_CODE(0x8C9)
#define IOCTL_NDIS_FILTER_STOP_SHARE              NDISFILTER_CTL_CODE(0x8CA)
#define IOCTL_NDIS_FILTER_READ_SHARE              NDISFILTER_CTL_CODE(0x8CB)
#define IOCTL_NDIS_FILTER_WRITE_SHARE             NDISFILTER_CTL_CODE(0x8CC)
#define IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES    NDISFILTER_CTL_CODE(0x8CD)
#define IOCTL_NDIS_FILTER_GET_EVENT               NDISFILTER_CTL_CODE(0x8CE)
#define IOCTL_NDIS_FILTER_CLEAR_EVENT             NDISFILTER_CTL_CODE(0x8CF)
#define IOCTL_NDIS_FILTER_START_ETHRLOG           NDISFILTER_CTL_CODE(0x8D0)
#define IOCTL_NDIS_FILTER_STOP_ETHRLOG            NDISFILTER_CTL_CODE(0x8D1)
#define IOCTL_NDIS_FILTER_SET_IPCONFIG            NDISFILTER_CTL_CODE(0x8D2)
#define IOCTL_NDIS_FILTER_GET_IPCONFIG            NDISFILTER_CTL_CODE(0x8D3)
#define IOCTL_NDIS_FILTER_SET_MEDIA_STATUS        NDISFILTER_CTL_CODE(0x8D4)
#define IOCTL_NDIS_FILTER_GET_MEDIA_STATUS        NDISFILTER_CTL_CODE(0x8D5)
#define IOCTL_NDIS_FILTER_GET_DBGFLAG             NDISFILTER_CTL_CODE(0x8D6)
#define IOCTL_NDIS_FILTER_SET_PACKET_DUMP         NDISFILTER_CTL_CODE(0x8D7)
#define IOCTL_NDIS_FILTER_GET_PACKET_DUMP         NDISFILTER_CTL_CODE(0x8D8)
#define IOCTL_NDIS_FILTER_GET_ADAPTER             NDISFILTER_CTL_CODE(0x8D9)
#define IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE    NDISFILTER_CTL_CODE(0x8DA)
#define IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION   NDISFILTER_CTL_CODE(0x8DE)
#define IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL  NDISFILTER_CTL_CODE(0x8DF) /* 0x8000237C */

/* ------------------------------------------------------------------------
 * The diagnostic channel. IOCTL_NDIS_FILTER_DIAG carries one line of words
 * separated by blanks ("filter show driver"); the first names the driver that
 * answers. The reply record lies at the start of the output buffer, the text
 * from offset 33; the request returns 40 + m_BufferUsed bytes.
 * ------------------------------------------------------------------------ */

#define FILTER_DIAG_COMMAND_SIZE 1024 /* an input of this length or more is refused */
#define FILTER_DIAG_MAX_ARGS     16
#define FILTER_DIAG_HEADER_SIZE  40   /* the shortest output a diagnostic accepts */
#define FILTER_DIAG_TEXT_OFFSET  33

typedef struct _Diag {
    PCHAR m_pDriverName;  /* kernel address of the first word */
    LONG m_nArgc;         /* words after the first, 0 to 16 */
    PCHAR *m_pArgv;       /* kernel array of 16 pointers to them */
    ULONG m_BufferSize;   /* the output buffer's length */
    ULONG m_BufferUsed;   /* text bytes written so far */
    UCHAR m_bInitialized; /* 1 once prepared */
    CHAR m_Text[7];       /* the reply runs on from here */
} Diag, *PDiag;

NDISFILTER_SHARED_LAYOUT(sizeof(Diag) == FILTER_DIAG_HEADER_SIZE);
NDISFILTER_SHARED_LAYOUT(FIELD_OFFSET(Diag, m_BufferSize) == 24);
NDISFILTER_SHARED_LAYOUT(FIELD_OFFSET(Diag, m_Text) == FILTER_DIAG_TEXT_OFFSET);

#define IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK   NDISFILTER_CTL_CODE(0x900) /* 0x80002400 */
#define IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK NDISFILTER_CTL_CODE(0x901) /* 0x80002404 */


#endif /* NDISFILTER_SHARED_H */
