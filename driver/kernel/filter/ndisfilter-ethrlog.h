/*
 * ndisfilter-ethrlog.h - the Ethernet capture logs: libpcap files on drive C:
 * of the frames that pass an adapter's protocol edge (upper), its adapter
 * edge (lower), the packets the application injects (inject), and the two
 * directions of the shared-memory channel.
 *
 * A log is a file, a queue of capture records and a writer thread of its own.
 * The packet paths only clone the packet and queue it; the file is written by
 * the log's thread, and opened and closed by delayed work items. A slot (an
 * adapter's three log pointers, the two of the global state) points at a log
 * from its start to its stop; every read of a slot that goes on to use the log
 * holds the slot lock of this file for reading, every change holds it for
 * writing, so a log is never freed under a packet path.
 */
#pragma once

#define NF_ETHRLOG_POOL_TAG 0x6C45664E /* "NfEl" */

/* libpcap file format 2.4, link type Ethernet. */
#define NF_PCAP_MAGIC 0xA1B2C3D4u
#define NF_PCAP_SNAPLEN 65535
#define NF_PCAP_LINKTYPE_ETHERNET 1
#define NF_ETHERNET_HEADER_LENGTH 14
/* 100-ns units from 1 January 1601 to 1 January 1970. */
#define NF_UNIX_EPOCH_AS_SYSTEM_TIME 116444736000000000LL

#pragma pack(push, 1)
typedef struct _NfPcapFileHeader {
    ULONG m_Magic;
    USHORT m_MajorVersion;
    USHORT m_MinorVersion;
    LONG m_ThisZone;
    ULONG m_SigFigs;
    ULONG m_SnapLength;
    ULONG m_LinkType;
} NfPcapFileHeader;

typedef struct _NfPcapRecordHeader {
    ULONG m_Seconds;
    ULONG m_Microseconds;
    ULONG m_CapturedLength;
    ULONG m_WireLength;
} NfPcapRecordHeader;
#pragma pack(pop)

C_ASSERT(sizeof(NfPcapFileHeader) == 24);
C_ASSERT(sizeof(NfPcapRecordHeader) == 16);

/* Called around each queued unit of work (a queued open, close or frame); the framework's do nothing. */
typedef VOID (*PNF_ETHRLOG_HOOK)(PVOID Unit);

struct _NfEthrLog;

/* A queued open or close of one log; both live in the log itself, so queueing them cannot fail. */
typedef struct _NfEthrLogWork {
    WORK_QUEUE_ITEM m_Item;
    struct _NfEthrLog *m_pLog;
} NfEthrLogWork;

/* One capture log (one file). */
typedef struct _NfEthrLog {
    UCHAR m_Signature[4];      /* "ETHR" */
    UNICODE_STRING m_FileName; /* its own buffer, pool tag "NfEl" */
    ULONG m_nMaxSize;          /* bytes; 0 = no limit */
    ULONG m_nCurrentSize;      /* bytes written so far */
    HANDLE volatile m_hFile;   /* NULL until open, and again once the size limit closed it */
    KSPIN_LOCK m_QueueLock;    /* guards m_RecordQueue, and m_hFile and m_bStop when they change */
    KIRQL m_QueueIrql;
    LIST_ENTRY m_RecordQueue;
    KEVENT m_WorkEvent;        /* synchronisation: a record was queued, or the thread must stop */
    KEVENT m_ThreadEndedEvent; /* notification */
    HANDLE m_hThread;
    volatile UCHAR m_bStop;
    UCHAR m_bThreadStarted;
    PNF_ETHRLOG_HOOK m_pfAcquire;
    PNF_ETHRLOG_HOOK m_pfRelease;

    /* the framework's bookkeeping */
    LIST_ENTRY m_LiveLink;   /* in the list of every log whose close is not queued yet */
    KEVENT m_OpenDoneEvent;  /* notification: the open routine has run */
    NfEthrLogWork m_OpenWork;
    NfEthrLogWork m_CloseWork;
} NfEthrLog, *PNfEthrLog;

/* One queued frame. */
typedef struct _NfEthrRecord {
    LIST_ENTRY m_Link;
    WORK_QUEUE_ITEM m_WorkItem; /* routine: the record writer; parameter: the record */
    PNfEthrLog m_pLog;
    LARGE_INTEGER m_CaptureTime; /* system time */
    PUCHAR m_pHeader;
    ULONG m_nHeaderLength; /* always 14 */
    PUCHAR m_pData;
    ULONG m_nDataLength;   /* frame length - 14 */
    PFilterPacket m_pClone;
} NfEthrRecord, *PNfEthrRecord;

/* Which of an adapter's three logs a frame goes to. */
enum NfEthrLogPoint {
    NF_ETHRLOG_UPPER,  /* protocol edge: sent by a protocol, indicated to the protocols */
    NF_ETHRLOG_LOWER,  /* adapter edge: received from the adapter, injected to it */
    NF_ETHRLOG_INJECT, /* injected by the application, taken up by an injection worker */
};

/* At start-up: empty slots, nothing live. */
VOID NdisFilter_InitializeEthrLogs(VOID);
/* At teardown: no more frames are recorded, every log is closed, and the adapters in the table forget theirs. */
VOID NdisFilter_CloseAllEthrLogs(VOID);
/*
 * At unbind: no more frames are recorded, and the call returns once every
 * clone already queued has gone back to the hook driver. At bind: frames are
 * recorded again. IRQL = PASSIVE_LEVEL.
 */
VOID NdisFilter_SuspendEthrLogs(VOID);
VOID NdisFilter_ResumeEthrLogs(VOID);

/* START_ETHRLOG: the logs of every adapter of the table. IRQL = PASSIVE_LEVEL. */
VOID NdisFilter_StartEthrLog(VOID);
/* The three logs of one adapter entry and the two global logs if absent; FALSE when it has logs already. */
BOOLEAN NdisFilter_StartAdapterEthrLog(const AdapterInfo *Entry);
/* STOP_ETHRLOG: closes the logs of every adapter of the table and the global ones; FALSE without adapters. */
BOOLEAN NdisFilter_StopEthrLog(VOID);
/* An adapter closed: its three logs are closed (upper, lower, inject) and its slots cleared. */
VOID NdisFilter_CloseAdapterEthrLogs(PFilterAdapter Adapter);

/* The recording entry behind the inline tests below. IRQL <= DISPATCH_LEVEL. */
VOID NdisFilter_RecordEthrFrame(PVOID volatile *Slot, PFilterPacket Packet);

/*
 * Records a frame into one of the adapter's logs when that log is running.
 * `Adapter` is the hook driver's record of an open adapter (or NULL). With no
 * log running this costs one read.
 */
FORCEINLINE VOID NdisFilter_RecordAdapterFrame(PFilterAdapter Adapter, enum NfEthrLogPoint Point, PFilterPacket Packet)
{
    if (Adapter == NULL)
        return;
    PVOID volatile *slot = Point == NF_ETHRLOG_UPPER   ? (PVOID volatile *)&Adapter->m_pUpperEthrLog
                           : Point == NF_ETHRLOG_LOWER ? (PVOID volatile *)&Adapter->m_pLowerEthrLog
                                                       : (PVOID volatile *)&Adapter->m_pInjectEthrLog;
    if (*slot != NULL)
        NdisFilter_RecordEthrFrame(slot, Packet);
}

/* Records a frame of the shared-memory channel: to the driver (FALSE) or to the application (TRUE). */
FORCEINLINE VOID NdisFilter_RecordChannelFrame(BOOLEAN ToApplication, PFilterPacket Packet)
{
    PVOID volatile *slot = ToApplication ? (PVOID volatile *)&g_pGlobal->m_pDriverToAppEthrLog
                                         : (PVOID volatile *)&g_pGlobal->m_pAppToDriverEthrLog;
    if (*slot != NULL)
        NdisFilter_RecordEthrFrame(slot, Packet);
}
