/*
 * ndisfilter-packetapi-checksum.cpp - IPv4, ICMP, TCP and UDP checksums
 * recomputed in place, the IP header check that repairs, and packet clones.
 *
 * The checksum is the one's-complement sum of RFC 1071 taken over 16-bit
 * words loaded in host (little-endian) order, so the folded, complemented
 * result is stored into the header without swapping. Filters that edit
 * packets call it on every packet, so the sum runs over 32-bit words into a
 * 64-bit accumulator and folds with end-around carries: since 2^16 = 1
 * modulo 0xFFFF this gives exactly the 16-bit routine's results, including
 * its two zero cases (all-zero data folds to 0, any other multiple of 0xFFFF
 * to 0xFFFF). No zero result is turned into 0xFFFF, for UDP neither.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-frame.h"

namespace {

/* Adds `Length` bytes to a one's-complement accumulator; an odd last byte counts as its word's low byte. */
ULONG64 AddBytes(ULONG64 Sum, const UCHAR *Data, ULONG Length)
{
    while (Length >= 16) {
        ULONG words[4];
        RtlCopyMemory(words, Data, sizeof(words));
        Sum += (ULONG64)words[0] + words[1] + words[2] + words[3];
        Data += 16;
        Length -= 16;
    }
    while (Length >= 4) {
        ULONG word;
        RtlCopyMemory(&word, Data, sizeof(word));
        Sum += word;
        Data += 4;
        Length -= 4;
    }
    if (Length >= 2) {
        Sum += (ULONG)Data[0] | (ULONG)Data[1] << 8;
        Data += 2;
        Length -= 2;
    }
    if (Length != 0)
        Sum += Data[0];
    return Sum;
}

/* Folds the accumulator to 16 bits with end-around carries and complements it. */
USHORT FoldChecksum(ULONG64 Sum)
{
    Sum = (Sum & 0xFFFFFFFFull) + (Sum >> 32);
    Sum = (Sum & 0xFFFFFFFFull) + (Sum >> 32);
    Sum = (Sum & 0xFFFF) + (Sum >> 16);
    Sum = (Sum & 0xFFFF) + (Sum >> 16);
    Sum = (Sum & 0xFFFF) + (Sum >> 16);
    return (USHORT)~Sum;
}

VOID StoreChecksum(PUCHAR Field, USHORT Checksum)
{
    RtlCopyMemory(Field, &Checksum, sizeof(Checksum));
}

} // namespace

/* The checksum of `Length` bytes, as stored into a header. Exposed for the benchmark. */
EXTERN_C USHORT NdisFilter_Checksum(const UCHAR *Data, ULONG Length)
{
    return FoldChecksum(AddBytes(0, Data, Length));
}

/*
 * Filter_CalculatePacketCheckSum - recomputes one checksum in place. Protocol
 * 0 is the IP header's own; 1, 6 and 17 the ICMP, TCP and UDP checksum of the
 * transport part, whose length comes from the IP total length. TCP and UDP
 * include the pseudo-header (addresses, length and protocol).
 */
EXTERN_C FILTER_STATUS NTAPI Filter_CalculatePacketCheckSum(PUCHAR IpHeader, ULONG Protocol)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_PACKET, "Filter_CalculatePacketCheckSum", status);
    if (IpHeader == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }

    ULONG headerLength = 4 * (IpHeader[0] & 0x0F);
    ULONG totalLength = NfReadBigEndian16(IpHeader + 2);
    PUCHAR transport = IpHeader + headerLength;
    /* A total length shorter than the header leaves no transport part to sum. */
    ULONG length = totalLength > headerLength ? totalLength - headerLength : 0;

    switch (Protocol) {
    case FILTER_CHECKSUM_IP:
        StoreChecksum(IpHeader + 10, 0);
        StoreChecksum(IpHeader + 10, NdisFilter_Checksum(IpHeader, headerLength));
        break;
    case FILTER_CHECKSUM_ICMP:
        StoreChecksum(transport + 2, 0);
        StoreChecksum(transport + 2, NdisFilter_Checksum(transport, length));
        break;
    case FILTER_CHECKSUM_TCP:
    case FILTER_CHECKSUM_UDP: {
        PUCHAR field = transport + (Protocol == FILTER_CHECKSUM_TCP ? 16 : 6);
        StoreChecksum(field, 0);
        ULONG64 sum = AddBytes(0, IpHeader + 12, 8);
        sum = AddBytes(sum, transport, length);
        sum += htons((USHORT)(length + Protocol));
        StoreChecksum(field, FoldChecksum(sum));
        break;
    }
    default:
        status = FILTER_ERROR_UNSUPPORTED_PROTOCOL;
        break;
    }
    return status;
}

/*
 * Filter_VerifyPacketCheckSum - TRUE when the packet's IP header checksum is
 * right (and for frames without an IPv4 header). The header is recomputed in
 * place, so the packet leaves with a valid checksum either way.
 */
EXTERN_C BOOLEAN NTAPI Filter_VerifyPacketCheckSum(PFilterPacket Packet)
{
    PUCHAR ip = Packet->m_pIp;
    if (ip == NULL)
        return TRUE;
    USHORT stored;
    RtlCopyMemory(&stored, ip + 10, sizeof(stored));
    Filter_CalculatePacketCheckSum(ip, FILTER_CHECKSUM_IP);
    USHORT computed;
    RtlCopyMemory(&computed, ip + 10, sizeof(computed));
    if (stored == computed)
        return TRUE;
    NF_TRACE(NF_DBG_PACKET, "Invalid IP checksum, pPacket=0x%p\n", (PVOID)Packet);
    return FALSE;
}

namespace {

/* The record from m_nProtocol to its end is what a clone copies. */
const ULONG CloneCopyOffset = FIELD_OFFSET(FilterPacket, m_nProtocol);
C_ASSERT(sizeof(FilterPacket) - FIELD_OFFSET(FilterPacket, m_nProtocol) == 2324);
/* From the injection bookkeeping up to the outgoing NDIS packet: queue state and release callback. */
const ULONG CloneClearOffset = FIELD_OFFSET(FilterPacket, m_InjectOrigin);
const ULONG CloneClearLength = FIELD_OFFSET(FilterPacket, m_pOutgoingNdisPacket) - CloneClearOffset;
C_ASSERT(FIELD_OFFSET(FilterPacket, m_pOutgoingNdisPacket) - FIELD_OFFSET(FilterPacket, m_InjectOrigin) == 384);

} // namespace

/*
 * Filter_ClonePacket - a new packet of the same adapter with a full copy of
 * the frame (the part the source had not read yet is pulled from the source's
 * NDIS packet), no NDIS packets, no queue state, no release callback, not
 * dirty, and header pointers into its own record.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_ClonePacket(PFilterPacket Packet, PFilterPacket *Clone)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_PACKET, "Filter_ClonePacket", status);
    if (Packet == NULL || Clone == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    PFilterPacket clone = Filter_AllocatePacket(Packet->m_hAdapter);
    if (clone == NULL) {
        status = FILTER_ERROR_OUT_OF_MEMORY;
        return status;
    }
    *Clone = clone;

    RtlCopyMemory((PUCHAR)clone + CloneCopyOffset, (const UCHAR *)Packet + CloneCopyOffset,
                  sizeof(FilterPacket) - CloneCopyOffset);
    RtlZeroMemory((PUCHAR)clone + CloneClearOffset, CloneClearLength);
    Filter_TransferPacketData(clone);

    clone->m_pOutgoingNdisPacket = NULL;
    RtlZeroMemory(clone->m_HookPrivate5, sizeof(clone->m_HookPrivate5));
    clone->m_pIncomingNdisPacket = NULL;
    clone->m_bDirty = FALSE;

    if (Packet->m_pEthernet == Packet->m_Data)
        Filter_InitPacketHeader(clone, NULL);
    else
        Filter_InitPacketHeader(clone, (PUCHAR)clone + (Packet->m_pEthernet - (PUCHAR)Packet));
    return status;
}
