/*
 * ndisfilter-packetapi-packet.cpp - the packet object handed to filters.
 *
 * The hook driver allocates every FilterPacket and gives filters at first
 * only the leading part of a frame (m_nBytesRead bytes of m_Data); the rest
 * stays in the NDIS packet's buffer chain until a filter asks for it. Headers
 * are located by pointer into the frame, never copied.
 *
 * Ownership: a packet belongs to one thread at a time (the hook driver's
 * indication, a filter invocation or an injection worker); none of these
 * functions takes a lock. All may run at DISPATCH_LEVEL.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-frame.h"

/*
 * Filter_AllocatePacketp - a new packet for `Adapter` from the hook driver, or
 * NULL when the hook driver is not bound. The adapter is not validated.
 */
EXTERN_C PFilterPacket NTAPI Filter_AllocatePacketp(PFilterAdapter Adapter, PCSTR File, ULONG Line)
{
    NF_TRACE(NF_DBG_PACKET, "Enter Filter_AllocatePacket\n");
    PFilterPacket packet = NULL;
    NfHookReference hook;
    PHOOK_ALLOCATE_PACKET allocate = hook.Get(&NdisHookAPI::Hook_AllocatePacket);
    if (allocate != NULL) {
        LONG code = FilterGuard([&] { packet = allocate(Adapter, File, Line); });
        if (code != 0) {
            NF_PRINT_EXCEPTION("Filter_AllocatePacket", code);
            packet = NULL;
        }
    }
    NF_TRACE(NF_DBG_PACKET, "Leave Filter_AllocatePacket, pPacket = 0x%p\n", (PVOID)packet);
    return packet;
}

/*
 * Filter_ReleasePacketp - gives a packet back to the hook driver, which runs
 * its release callback. With the hook driver unbound nothing is freed and
 * the answer is still success.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_ReleasePacketp(PFilterPacket Packet, PCSTR File, ULONG Line)
{
    return NdisFilter_ReleasePacket(Packet, File, Line, TRUE);
}

FILTER_STATUS NdisFilter_ReleasePacket(PFilterPacket Packet, PCSTR File, ULONG Line, BOOLEAN HandOn)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NF_TRACE(NF_DBG_PACKET, "Enter Filter_ReleasePacket, pPacket=0x%p\n", (PVOID)Packet);
    if (Packet == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        NF_TRACE_ERROR(NF_DBG_PACKET, status);
    } else {
        if (HandOn)
            NdisFilter_PacketHandedOn(Packet);
        NfHookReference hook;
        PHOOK_FREE_PACKET release = hook.Get(&NdisHookAPI::Hook_FreePacket);
        LONG code = release == NULL ? 0 : FilterGuard([&] { release(Packet, File, Line); });
        if (code != 0) {
            NF_PRINT_EXCEPTION("Filter_ReleasePacket", code);
            status = FILTER_ERROR_EXCEPTION;
        }
    }
    NF_LEAVE_STATUS(NF_DBG_PACKET, "Filter_ReleasePacket", status);
    return status;
}

namespace {

/* The system address of one buffer of an NDIS buffer chain, mapping it if it is not mapped yet. */
PUCHAR BufferAddress(PNDIS_BUFFER Buffer)
{
    if (Buffer->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL))
        return (PUCHAR)Buffer->MappedSystemVa;
    return (PUCHAR)MmMapLockedPages(Buffer, KernelMode);
}

/*
 * Copies the frame of `Source` into `Packet->m_Data` from its first byte.
 * Frames longer than m_Data are cut there and reported as not complete.
 */
FILTER_STATUS ReadFrame(PFilterPacket Packet, PNDIS_PACKET Source)
{
    PNDIS_BUFFER buffer = NULL;
    UINT total = 0;
    NdisQueryPacket(Source, NULL, NULL, &buffer, &total);
    Packet->m_nPacketSize = total;
    if (Packet->m_nBytesRead == total) {
        NF_TRACE(NF_DBG_PACKET, "Full packet, no data to read\n");
        return FILTER_STATUS_SUCCESS;
    }

    ULONG room = total < FILTER_PACKET_DATA_SIZE ? total : FILTER_PACKET_DATA_SIZE;
    ULONG copied = 0;
    while (buffer != NULL && copied < room) {
        ULONG length = MmGetMdlByteCount(buffer);
        if (length != 0) {
            PUCHAR data = BufferAddress(buffer);
            ULONG chunk = room - copied < length ? room - copied : length;
            RtlCopyMemory(Packet->m_Data + copied, data, chunk);
            copied += chunk;
        }
        NdisGetNextBuffer(buffer, &buffer);
    }
    if (copied < total)
        return FILTER_STATUS_SUCCESS; /* the chain ended early (or the frame does not fit) */

    Packet->m_nBytesRead = Packet->m_nPacketSize;
    NF_TRACE(NF_DBG_PACKET, "Filter_TransferPacketData, lazy read %d, total %d\n", (int)copied, (int)total);
    return FILTER_STATUS_SUCCESS;
}

} // namespace

/*
 * Filter_TransferPacketData - the lazy read: copies the whole frame from the
 * packet's NDIS packet (outgoing first, else incoming) into m_Data.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_TransferPacketData(PFilterPacket Packet)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NF_ENTER(NF_DBG_PACKET, "Filter_TransferPacketData");
    if (Packet == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        NF_TRACE_ERROR(NF_DBG_PACKET, status);
    } else {
        PNDIS_PACKET source = Packet->m_pOutgoingNdisPacket;
        if (source != NULL) {
            NF_TRACE(NF_DBG_PACKET, "Read packet data from outgoing packet\n");
        } else {
            source = Packet->m_pIncomingNdisPacket;
            if (source != NULL)
                NF_TRACE(NF_DBG_PACKET, "Read packet data from incoming packet\n");
        }
        if (source == NULL) {
            NF_TRACE(NF_DBG_PACKET, "Empty packet, no data to read\n");
        } else {
            LONG code = FilterGuard([&] { status = ReadFrame(Packet, source); });
            if (code != 0) {
                NF_PRINT_EXCEPTION("Filter_TransferPacketData", code);
                status = FILTER_ERROR_EXCEPTION;
            }
        }
    }
    NF_LEAVE_STATUS(NF_DBG_PACKET, "Filter_TransferPacketData", status);
    return status;
}

/*
 * Filter_ModifyPacket - makes m_Data the authoritative copy of the frame: the
 * first call reads the whole frame in and marks the packet dirty; later calls
 * read nothing, so edits are never overwritten.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_ModifyPacket(PFilterPacket Packet)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NF_TRACE(NF_DBG_PACKET, "Enter Filter_ModifyPacket, pPacket=0x%p\n", (PVOID)Packet);
    if (Packet == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        NF_TRACE_ERROR(NF_DBG_PACKET, status);
    } else if (!Packet->m_bDirty) {
        Packet->m_bDirty = TRUE;
        status = Filter_TransferPacketData(Packet);
    } else {
        NF_TRACE(NF_DBG_PACKET, "Dirty packet, no data to read\n");
    }
    NF_LEAVE_STATUS(NF_DBG_PACKET, "Filter_ModifyPacket", status);
    return status;
}

EXTERN_C VOID NTAPI Filter_SetPacketReleaseCallback(PFilterPacket Packet, PFILTER_PACKET_RELEASE Callback,
                                                    PVOID Context)
{
    if (Packet == NULL)
        return;
    Packet->m_pfReleaseCallback = Callback;
    Packet->m_pReleaseContext = Context;
}

EXTERN_C VOID NTAPI Filter_ClearPacketReleaseCallback(PFilterPacket Packet)
{
    Filter_SetPacketReleaseCallback(Packet, NULL, NULL);
}

namespace {

} // namespace

/*
 * Filter_InitPacketHeader - locates the headers of the frame at `Frame` (the
 * packet's m_Data when NULL): ARP or IPv4 behind a 14-byte Ethernet header
 * (no VLAN tag is looked through), then TCP, UDP or ICMP in a first or only
 * fragment, DHCP by UDP destination port 67/68, DNS by port 53 either way.
 * The frame's length is not checked: pointers may lie beyond m_nBytesRead.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_InitPacketHeader(PFilterPacket Packet, PUCHAR Frame)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NF_TRACE(NF_DBG_PACKET, "Enter Filter_InitPacketHeader,pPacket=0x%p\n", (PVOID)Packet);
    if (Packet == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        NF_TRACE_ERROR(NF_DBG_PACKET, status);
        NF_LEAVE_STATUS(NF_DBG_PACKET, "Filter_InitPacketHeader", status);
        return status;
    }

    PUCHAR frame = Frame != NULL ? Frame : Packet->m_Data;
    Packet->m_pEthernet = frame;
    Packet->m_pArp = Packet->m_pIp = Packet->m_pTcp = Packet->m_pUdp = NULL;
    Packet->m_pIcmp = Packet->m_pDhcp = Packet->m_pDns = NULL;

    LONG code = FilterGuard([&] {
        USHORT etherType = NfReadBigEndian16(frame + 12);
        if (etherType == 0x0806) {
            Packet->m_pArp = frame + 14;
            NF_TRACE(NF_DBG_PACKET, "pPacket->m_pArp = 0x%p\n", (PVOID)Packet->m_pArp);
            return;
        }
        if (etherType != 0x0800)
            return;

        PUCHAR ip = frame + 14;
        Packet->m_pIp = ip;
        NF_TRACE(NF_DBG_PACKET, "pPacket->m_pIp = 0x%p\n", (PVOID)ip);
        Packet->m_nProtocol = ip[9];
        if ((NfReadBigEndian16(ip + 6) & 0x1FFF) * 8 > 0) {
            NF_TRACE(NF_DBG_PACKET, " - IP Fragment\n");
            return;
        }

        PUCHAR transport = ip + 4 * (ip[0] & 0x0F);
        switch (Packet->m_nProtocol) {
        case 17: {
            Packet->m_pUdp = transport;
            NF_TRACE(NF_DBG_PACKET, "pPacket->m_pUdp = 0x%p\n", (PVOID)transport);
            USHORT destination = NfReadBigEndian16(transport + 2);
            if (destination == 68 || destination == 67) {
                Packet->m_pDhcp = transport + 8;
                NF_TRACE(NF_DBG_PACKET, "pPacket->m_pDhcp = 0x%p\n", (PVOID)Packet->m_pDhcp);
            } else if (destination == 53 || NfReadBigEndian16(transport) == 53) {
                Packet->m_pDns = transport + 8;
                NF_TRACE(NF_DBG_PACKET, "pPacket->m_pDns = 0x%p\n", (PVOID)Packet->m_pDns);
            }
            break;
        }
        case 6:
            Packet->m_pTcp = transport;
            NF_TRACE(NF_DBG_PACKET, "pPacket->m_pTcp = 0x%p\n", (PVOID)transport);
            break;
        case 1:
            Packet->m_pIcmp = transport;
            NF_TRACE(NF_DBG_PACKET, "pPacket->m_pIcmp = 0x%p\n", (PVOID)transport);
            break;
        default:
            break;
        }
    });
    if (code != 0) {
        NF_PRINT_EXCEPTION("Filter_InitPacketHeader", code);
        status = FILTER_ERROR_EXCEPTION;
    }
    NF_LEAVE_STATUS(NF_DBG_PACKET, "Filter_InitPacketHeader", status);
    return status;
}
