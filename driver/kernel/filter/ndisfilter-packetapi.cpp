/*
 * ndisfilter-packetapi.cpp - packets on their way through the framework: the
 * receive and send callbacks of the hook driver and the two injected-packet
 * queues with their worker threads.
 */
#include "precomp.h"
#include "ndisfilter-global.h"

#define NF_INJECT_WAIT_MS 10 /* bounds the delay of a packet queued between drain and reset */

namespace {

/* TRUE when injection queue `queue` holds no packet. */
BOOLEAN QueueIsEmpty(ULONG queue)
{
    NfReadLock lock(&g_pGlobal->m_InjectedPacketLock[queue]);
    return IsListEmpty(&g_pGlobal->m_InjectedPacketList[queue]);
}

} // namespace

/*
 * NdisFilter_FilterReceivedPacket / NdisFilter_FilterSendPacket - the hook
 * driver's receive and send paths. Until the filter chains run here, every
 * frame goes straight back to the hook driver. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C VOID NTAPI NdisFilter_FilterReceivedPacket(PFilterPacket Packet)
{
    NF_TRACE(NF_DBG_HOOK_PACKET, "Enter NdisFilter_FilterReceivedPacket\n");
    Filter_ReleasePacket(Packet);
    NF_TRACE(NF_DBG_HOOK_PACKET, "Leave NdisFilter_FilterReceivedPacket\n");
}

EXTERN_C VOID NTAPI NdisFilter_FilterSendPacket(PFilterPacket Packet)
{
    NF_TRACE(NF_DBG_HOOK_PACKET, "Enter NdisFilter_FilterSendPacket\n");
    Filter_ReleasePacket(Packet);
    NF_TRACE(NF_DBG_HOOK_PACKET, "Leave NdisFilter_FilterSendPacket\n");
}

/*
 * InjectedPacketThread - serves injection queue `StartContext` (0 or 1). Wakes
 * on the queue's event or every 10 ms, so it notices m_bStopShare without
 * being signalled. IRQL = PASSIVE_LEVEL, priority 16.
 */
EXTERN_C VOID NTAPI InjectedPacketThread(PVOID StartContext)
{
    PNdisFilterDeviceExtension global = g_pGlobal;
    ULONG queue = (ULONG)(ULONG_PTR)StartContext;
    NF_TRACE(NF_DBG_PACKET, "Enter InjectedPacketThread\n");
    NdisFilter_WorkerThreadEnter();

    while (!global->m_bStopShare) {
        NdisWaitEvent(&global->m_InjectPacketEvent[queue], NF_INJECT_WAIT_MS);
        if (QueueIsEmpty(queue))
            NdisResetEvent(&global->m_InjectPacketEvent[queue]);
    }

    NF_TRACE(NF_DBG_PACKET, "Leave InjectedPacketThread\n");
    NdisFilter_WorkerThreadLeave();
}

/* At unload: every packet still queued goes back to the hook driver. */
VOID NdisFilter_ReleaseQueuedPackets(VOID)
{
    for (ULONG queue = 0; queue < NF_INJECT_QUEUE_COUNT; queue++) {
        PLIST_ENTRY head = &g_pGlobal->m_InjectedPacketList[queue];
        while (!IsListEmpty(head)) {
            PLIST_ENTRY link = RemoveHeadList(head);
            InterlockedDecrement(&g_pGlobal->m_nInjectPacketCount);
            Filter_ReleasePacket(CONTAINING_RECORD(link, FilterPacket, m_InjectLink));
        }
    }
}
