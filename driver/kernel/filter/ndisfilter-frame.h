/*
 * ndisfilter-frame.h - reading header fields out of a frame. Fields are read
 * byte by byte, so any alignment is fine.
 */
#pragma once

/* The Ethernet header in front of ARP and IPv4. */
#define NF_ETHERNET_HEADER_SIZE 14

/* A 16-bit field in network (big-endian) order. */
inline USHORT NfReadBigEndian16(const UCHAR *Field)
{
    return (USHORT)((Field[0] << 8) | Field[1]);
}

/* A 32-bit field (an IPv4 address) as it lies in the frame. */
inline ULONG NfReadWireWord(const UCHAR *Field)
{
    ULONG word;
    RtlCopyMemory(&word, Field, sizeof(word));
    return word;
}
