/*
 * ndisfilter-address.cpp - byte order, address text and name comparison.
 *
 * No locks, no allocation, no traces: callable at any IRQL.
 */
#include "precomp.h"

/* The two bytes of a 16-bit value swapped. Also exported as ntohs. */
EXTERN_C USHORT NTAPI htons(USHORT Value)
{
    return (USHORT)((Value << 8) | (Value >> 8));
}

/* The four bytes of a 32-bit value reversed. Also exported as ntohl. */
EXTERN_C ULONG NTAPI htonl(ULONG Value)
{
    return (Value << 24) | ((Value & 0xFF00u) << 8) | ((Value >> 8) & 0xFF00u) | (Value >> 24);
}

/* One routine under two names each: network and host order differ the same way both ways. */
EXTERN_C USHORT NTAPI ntohs(USHORT Value) NF_SAME_ROUTINE_AS(htons);
EXTERN_C ULONG NTAPI ntohl(ULONG Value) NF_SAME_ROUTINE_AS(htonl);

namespace {

/* Writes `value` in decimal without leading zeros; returns the position behind it. */
PCHAR WriteDecimal(PCHAR out, UCHAR value)
{
    if (value >= 100)
        *out++ = (CHAR)('0' + value / 100);
    if (value >= 10)
        *out++ = (CHAR)('0' + value / 10 % 10);
    *out++ = (CHAR)('0' + value % 10);
    return out;
}

const CHAR HexDigits[] = "0123456789ABCDEF";
const CHAR EmptyText[] = "";

} // namespace

/*
 * inet_ntoa - the dotted text of an IPv4 address as it lies in a packet (first
 * octet first in memory) in the caller's buffer of at least 16 bytes. A
 * smaller or missing buffer is left alone and an empty text is returned.
 */
EXTERN_C PCHAR NTAPI inet_ntoa(ULONG Address, PCHAR Buffer, ULONG BufferSize)
{
    if (Buffer == NULL || BufferSize < 16)
        return (PCHAR)EmptyText;
    const UCHAR *octets = (const UCHAR *)&Address;
    PCHAR out = Buffer;
    for (int i = 0; i < 4; i++) {
        if (i != 0)
            *out++ = '.';
        out = WriteDecimal(out, octets[i]);
    }
    *out = '\0';
    return Buffer;
}

/*
 * inet_mtoa - a MAC address as 00-1A-2B-3C-4D-5E in the caller's buffer of 18
 * bytes. The size is not looked at.
 */
EXTERN_C PCHAR NTAPI inet_mtoa(const UCHAR *MacAddress, PCHAR Buffer, ULONG BufferSize)
{
    UNREFERENCED_PARAMETER(BufferSize);
    PCHAR out = Buffer;
    for (int i = 0; i < 6; i++) {
        if (i != 0)
            *out++ = '-';
        *out++ = HexDigits[MacAddress[i] >> 4];
        *out++ = HexDigits[MacAddress[i] & 0xF];
    }
    *out = '\0';
    return Buffer;
}

/* The broadcast address of the subnet of `Address` under `Mask`. */
EXTERN_C ULONG NTAPI SubnetBroadcastAddress(ULONG Address, ULONG Mask)
{
    return (Address & Mask) | ~Mask;
}

/* TRUE when the last octet of an address in network order is 255; the mask is not known. */
EXTERN_C BOOLEAN NTAPI IsBroadcastAddress(ULONG Address)
{
    return ((const UCHAR *)&Address)[3] == 0xFF;
}

/*
 * Filter_CompareString - an equality test of two counted strings, byte for
 * byte: 0 when equal; otherwise 1 when A is longer or differs, -1 when A is
 * shorter or either is missing. It does not order strings.
 */
EXTERN_C LONG NTAPI Filter_CompareString(const STRING *A, const STRING *B)
{
    if (A == NULL || B == NULL)
        return -1;
    if (A->Length > B->Length)
        return 1;
    if (A->Length < B->Length)
        return -1;
    for (USHORT i = 0; i < A->Length; i++)
        if (A->Buffer[i] != B->Buffer[i])
            return 1;
    return 0;
}
