/*
 * ndisfilter-packetapi-dump.cpp - packets printed to the kernel debugger: a
 * hex dump of the frame and one decoded line per header.
 *
 * Dumps are switched per adapter (m_bPacketDump); when the switch is on they
 * print whatever GlobalDebugFlag says, and when it is off they cost one test.
 * Text is built in small fixed buffers on the stack; nothing is allocated.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-frame.h"

namespace {

const char HexDigits[] = "0123456789ABCDEF";

/*
 * "<title>, Size = <n> - 0x<n>" and then one line per 16 bytes: the offset in
 * four hex digits, the bytes in hex from column 6, the printable bytes from
 * column 56.
 */
VOID HexDump(PCSTR Title, const UCHAR *Data, ULONG Size)
{
    NF_PRINT("%s, Size = %d - 0x%x\n", Title, (int)Size, (unsigned)Size);
    USHORT offset = 0; /* 16 bits wide, as the offsets print */
    for (ULONG start = 0; start < Size; start += 16, offset = (USHORT)(offset + 16)) {
        CHAR line[80];
        RtlFillMemory(line, sizeof(line), ' ');
        line[0] = HexDigits[(offset >> 12) & 0xF];
        line[1] = HexDigits[(offset >> 8) & 0xF];
        line[2] = HexDigits[(offset >> 4) & 0xF];
        line[3] = HexDigits[offset & 0xF];
        ULONG count = Size - start < 16 ? Size - start : 16;
        for (ULONG i = 0; i < count; i++) {
            UCHAR byte = Data[start + i];
            line[6 + 3 * i] = HexDigits[byte >> 4];
            line[7 + 3 * i] = HexDigits[byte & 0xF];
            line[56 + i] = (byte >= 0x20 && byte < 0x7F) ? (CHAR)byte : '.';
        }
        line[56 + count] = '\0';
        NF_PRINT("  \t%s\n", line);
    }
}

VOID DumpArp(const UCHAR *Frame)
{
    CHAR mac[18];
    CHAR address[16];
    NF_PRINT(" - arp_hrd = %d\n", (int)NfReadBigEndian16(Frame + 14));
    NF_PRINT(" - arp_pro = %d\n", (int)NfReadBigEndian16(Frame + 16));
    NF_PRINT(" - arp_hln = %d\n", (int)Frame[18]);
    NF_PRINT(" - arp_pln = %d\n", (int)Frame[19]);
    NF_PRINT(" - arp_op  = %s\n", NfReadBigEndian16(Frame + 20) == 1 ? "ARPOP_REQUEST" : "ARPOP_REPLY");
    NF_PRINT(" - arp_sha = %s\n", inet_mtoa(Frame + 22, mac, sizeof(mac)));
    NF_PRINT(" - arp_spa = %s\n", inet_ntoa(NfReadWireWord(Frame + 28), address, sizeof(address)));
    NF_PRINT(" - arp_tha = %s\n", inet_mtoa(Frame + 32, mac, sizeof(mac)));
    NF_PRINT(" - arp_tpa = %s\n", inet_ntoa(NfReadWireWord(Frame + 38), address, sizeof(address)));
}

PCSTR ProtocolName(UCHAR Protocol)
{
    switch (Protocol) {
    case 6: return "TCP";
    case 17: return "UDP";
    case 1: return "ICMP";
    default: return "Other";
    }
}

VOID DumpIp(PFilterPacket Packet)
{
    Filter_InitPacketHeader(Packet, Packet->m_pEthernet);
    const UCHAR *ip = Packet->m_pIp;
    CHAR source[16];
    CHAR destination[16];
    USHORT flags = NfReadBigEndian16(ip + 6);
    ULONG fragmentOffset = (flags & 0x1FFF) * 8u;
    NF_PRINT(" - SrcIP %s, DstIP %s, PacketId 0x%x, Proto: %s DF:%c MF:%c FO:%d %s\n",
             inet_ntoa(NfReadWireWord(ip + 12), source, sizeof(source)),
             inet_ntoa(NfReadWireWord(ip + 16), destination, sizeof(destination)), (unsigned)NfReadBigEndian16(ip + 4),
             ProtocolName(ip[9]), (flags & 0x4000) ? 'T' : 'F', (flags & 0x2000) ? 'T' : 'F', (int)fragmentOffset,
             fragmentOffset > 0 ? "IP Fragment" : "");
    if (fragmentOffset > 0)
        return;
    const UCHAR *transport = ip + 4 * (ip[0] & 0x0F);
    switch (ip[9]) {
    case 1:
        NF_PRINT(" - ICMP ID %d, Sequence %d\n", (int)NfReadBigEndian16(transport + 4),
                 (int)NfReadBigEndian16(transport + 6));
        break;
    case 6:
        NF_PRINT(" - TCP SrcPort %d, DstPort %d\n", (int)NfReadBigEndian16(Packet->m_pTcp),
                 (int)NfReadBigEndian16(Packet->m_pTcp + 2));
        break;
    case 17:
        NF_PRINT(" - UDP SrcPort %d, DstPort %d\n", (int)NfReadBigEndian16(Packet->m_pUdp),
                 (int)NfReadBigEndian16(Packet->m_pUdp + 2));
        break;
    default:
        NF_PRINT(" - Other protocl %d\n", (int)ip[9]);
        break;
    }
}

} // namespace

/*
 * Filter_DumpPacket - prints a packet under `Title` when its adapter's dump
 * flag is on: the hex dump, the packet line, the Ethernet line and the
 * decoded ARP or IPv4 and transport headers. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C VOID NTAPI Filter_DumpPacket(PCSTR Title, PFilterPacket Packet)
{
    if (Title == NULL || Packet == NULL || Packet->m_hAdapter == NULL || !Packet->m_hAdapter->m_bPacketDump)
        return;

    /* The size comes with the frame; the dump stays inside the packet's buffer. */
    ULONG size = Packet->m_nPacketSize < FILTER_PACKET_DATA_SIZE ? Packet->m_nPacketSize : FILTER_PACKET_DATA_SIZE;
    HexDump(Title, Packet->m_Data, size);
    NF_PRINT(" - pPacket 0x%p, hAdapter 0x%p, Size %d\n", (PVOID)Packet, (PVOID)Packet->m_hAdapter,
             (int)Packet->m_nPacketSize);
    if (Packet->m_nPacketSize == 0)
        return;

    const UCHAR *frame = Packet->m_pEthernet != NULL ? Packet->m_pEthernet : Packet->m_Data;
    USHORT etherType = NfReadBigEndian16(frame + 12);
    PCSTR suffix = etherType == 0x0800 ? "/IP" : etherType == 0x0806 ? "/ARP" : etherType == 0x8035 ? "/RARP" : "";
    CHAR source[18];
    CHAR destination[18];
    NF_PRINT(" - SrcMac %s, DstMAC %s, Proto 0x%x%s\n", inet_mtoa(frame + 6, source, sizeof(source)),
             inet_mtoa(frame, destination, sizeof(destination)), (unsigned)etherType, suffix);

    if (etherType == 0x0806)
        DumpArp(Packet->m_Data);
    else if (etherType == 0x0800)
        DumpIp(Packet);
}
