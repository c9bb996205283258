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

namespace {

/* Bytes a transport header needs to hold its checksum field, by selector. */
ULONG ChecksumFieldEnd(ULONG Protocol)
{
    switch (Protocol) {
    case FILTER_CHECKSUM_ICMP:
        return 4;
    case FILTER_CHECKSUM_TCP:
        return 18;
    case FILTER_CHECKSUM_UDP:
        return 8;
    default:
        return 0;
    }
}

/*
 * Recomputes one checksum of the IPv4 header at `IpHeader`, of which
 * `Available` bytes may be read and written. A header length below 20, or a
 * header, total length or checksum field reaching past `Available`, is
 * refused with FILTER_ERROR_INVALID_ARGUMENT and nothing is written.
 */
FILTER_STATUS CalculateChecksum(PUCHAR IpHeader, ULONG Protocol, ULONG Available)
{
    if (Protocol != FILTER_CHECKSUM_IP && ChecksumFieldEnd(Protocol) == 0)
        return FILTER_ERROR_UNSUPPORTED_PROTOCOL;
    if (Available < 20)
        return FILTER_ERROR_INVALID_ARGUMENT;
    ULONG headerLength = 4 * (IpHeader[0] & 0x0F);
    ULONG totalLength = NfReadBigEndian16(IpHeader + 2);
    if (headerLength < 20 || headerLength > Available)
        return FILTER_ERROR_INVALID_ARGUMENT;
    if (Protocol == FILTER_CHECKSUM_IP) {
        StoreChecksum(IpHeader + 10, 0);
        StoreChecksum(IpHeader + 10, NdisFilter_Checksum(IpHeader, headerLength));
        return FILTER_STATUS_SUCCESS;
    }

    /* A total length shorter than the header leaves no transport part to sum. */
    ULONG length = totalLength > headerLength ? totalLength - headerLength : 0;
    if (length > Available - headerLength || ChecksumFieldEnd(Protocol) > Available - headerLength)
        return FILTER_ERROR_INVALID_ARGUMENT;
    PUCHAR transport = IpHeader + headerLength;
    if (Protocol == FILTER_CHECKSUM_ICMP) {
        StoreChecksum(transport + 2, 0);
        StoreChecksum(transport + 2, NdisFilter_Checksum(transport, length));
    } else {
        PUCHAR field = transport + (Protocol == FILTER_CHECKSUM_TCP ? 16 : 6);
        StoreChecksum(field, 0);
        ULONG64 sum = AddBytes(0, IpHeader + 12, 8);
        sum = AddBytes(sum, transport, length);
        sum += htons((USHORT)(length + Protocol));
        StoreChecksum(field, FoldChecksum(sum));
    }
    return FILTER_STATUS_SUCCESS;
}

/* The frame bytes a packet holds from `At` on: in its own m_Data up to what was read, else up to its frame size. */
ULONG HeldFrom(const FilterPacket *Packet, const UCHAR *At)
{
    const UCHAR *data = Packet->m_Data;
    if (At >= data && At < data + FILTER_PACKET_DATA_SIZE) {
        ULONG held = Packet->m_nBytesRead < FILTER_PACKET_DATA_SIZE ? Packet->m_nBytesRead : FILTER_PACKET_DATA_SIZE;
        return (ULONG)(At - data) < held ? held - (ULONG)(At - data) : 0;
    }
    const UCHAR *frame = Packet->m_pEthernet;
    if (frame == NULL || At < frame || (ULONG)(At - frame) >= Packet->m_nPacketSize)
        return 0;
    return Packet->m_nPacketSize - (ULONG)(At - frame);
}

} // namespace

/*
 * Filter_CalculatePacketCheckSum - recomputes one checksum in place. Protocol
 * 0 is the IP header's own; 1, 6 and 17 the ICMP, TCP and UDP checksum of the
 * transport part, whose length comes from the IP total length. TCP and UDP
 * include the pseudo-header (addresses, length and protocol). Only a pointer
 * is given, so what is summed is bounded by the largest IPv4 packet a frame
 * of a packet can hold.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_CalculatePacketCheckSum(PUCHAR IpHeader, ULONG Protocol)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_PACKET, "Filter_CalculatePacketCheckSum", status);
    if (IpHeader == NULL)
        status = FILTER_ERROR_INVALID_ARGUMENT;
    else
        status = CalculateChecksum(IpHeader, Protocol, FILTER_PACKET_DATA_SIZE - NF_ETHERNET_HEADER_SIZE);
    return status;
}

/*
 * Filter_VerifyPacketCheckSum - TRUE when the packet's IP header checksum is
 * right (and for frames without an IPv4 header). The header is recomputed in
 * place, so the packet leaves with a valid checksum either way. A header the
 * packet does not wholly hold, or shorter than 20 bytes, is not valid.
 */
EXTERN_C BOOLEAN NTAPI Filter_VerifyPacketCheckSum(PFilterPacket Packet)
{
    PUCHAR ip = Packet->m_pIp;
    if (ip == NULL)
        return TRUE;
    ULONG held = HeldFrom(Packet, ip);
    USHORT stored = 0;
    if (held >= 12)
        RtlCopyMemory(&stored, ip + 10, sizeof(stored));
    BOOLEAN valid = held >= 12 && CalculateChecksum(ip, FILTER_CHECKSUM_IP, held) == FILTER_STATUS_SUCCESS;
    if (valid) {
        USHORT computed;
        RtlCopyMemory(&computed, ip + 10, sizeof(computed));
        valid = stored == computed;
    }
    if (!valid)
        NF_TRACE(NF_DBG_PACKET, "Invalid IP checksum, pPacket=0x%p\n", (PVOID)Packet);
    return valid;
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

    /*
     * The clone's headers point into the clone: at the same place in its
     * record as the source's, or, for a frame the source was given from
     * outside its record, into a copy of that frame in the clone's m_Data.
     */
    const UCHAR *frame = Packet->m_pEthernet;
    const UCHAR *record = (const UCHAR *)Packet;
    if (frame == NULL || frame == Packet->m_Data) {
        Filter_InitPacketHeader(clone, NULL);
    } else if (frame > record && frame < record + sizeof(FilterPacket)) {
        Filter_InitPacketHeader(clone, (PUCHAR)clone + (frame - record));
    } else {
        ULONG size = Packet->m_nPacketSize < FILTER_PACKET_DATA_SIZE ? Packet->m_nPacketSize : FILTER_PACKET_DATA_SIZE;
        RtlCopyMemory(clone->m_Data, frame, size);
        clone->m_nBytesRead = size;
        Filter_InitPacketHeader(clone, NULL);
    }
    return status;
}
