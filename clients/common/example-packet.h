/*
 * example-packet.h - small helpers the example client drivers share: the
 * IPv4 fields a filter decides on, read with bounds checks from the packet's
 * frame, and the parsing of settings text from the driver's service key.
 *
 * Kernel code: include <ntddk.h>, <ndis.h> and <ndisfilter.h> first. No C
 * library; every function may run at DISPATCH_LEVEL unless it says otherwise.
 */
#ifndef EXAMPLE_PACKET_H
#define EXAMPLE_PACKET_H

#include "example-export.h"

#define EXAMPLE_ETHERNET_HEADER 14

/* What a filter of the examples looks at. Addresses as they lie in the packet (network order). */
typedef struct _EXAMPLE_IP_FIELDS {
    UCHAR Protocol;
    BOOLEAN HasPorts;      /* TCP or UDP header present (first or only fragment) */
    ULONG Source;
    ULONG Destination;
    USHORT SourcePort;      /* host order */
    USHORT DestinationPort; /* host order */
} EXAMPLE_IP_FIELDS, *PEXAMPLE_IP_FIELDS;

#ifdef __cplusplus
namespace example {

inline USHORT ReadBig16(const UCHAR *p)
{
    return (USHORT)((p[0] << 8) | p[1]);
}

inline ULONG ReadRaw32(const UCHAR *p)
{
    ULONG value;
    RtlCopyMemory(&value, p, sizeof(value));
    return value;
}

/*
 * Makes the first `Needed` bytes of the frame present in m_Data, pulling the
 * rest of the frame in when the hook driver handed over less. FALSE when the
 * frame is shorter than that.
 */
inline BOOLEAN EnsureBytes(PFilterPacket Packet, ULONG Needed)
{
    if (Packet->m_nBytesRead >= Needed)
        return TRUE;
    if (Packet->m_nPacketSize < Needed)
        return FALSE;
    Filter_TransferPacketData(Packet);
    return Packet->m_nBytesRead >= Needed ? TRUE : FALSE;
}

/*
 * ReadIpFields - the IPv4 fields of an untagged Ethernet frame, and the ports
 * of a TCP or UDP header in a first or only fragment. FALSE when the frame is
 * not IPv4 or too short for its own header.
 */
inline BOOLEAN ReadIpFields(PFilterPacket Packet, PEXAMPLE_IP_FIELDS Fields)
{
    RtlZeroMemory(Fields, sizeof(*Fields));
    if (!EnsureBytes(Packet, EXAMPLE_ETHERNET_HEADER + 20))
        return FALSE;
    const UCHAR *frame = Packet->m_Data;
    if (ReadBig16(frame + 12) != 0x0800)
        return FALSE;
    const UCHAR *ip = frame + EXAMPLE_ETHERNET_HEADER;
    ULONG headerLength = 4u * (ip[0] & 0x0F);
    if ((ip[0] >> 4) != 4 || headerLength < 20)
        return FALSE;
    Fields->Protocol = ip[9];
    Fields->Source = ReadRaw32(ip + 12);
    Fields->Destination = ReadRaw32(ip + 16);

    BOOLEAN firstFragment = (ReadBig16(ip + 6) & 0x1FFF) == 0 ? TRUE : FALSE;
    BOOLEAN portsFollow = Fields->Protocol == 6 || Fields->Protocol == 17;
    if (firstFragment && portsFollow && EnsureBytes(Packet, EXAMPLE_ETHERNET_HEADER + headerLength + 4)) {
        const UCHAR *transport = Packet->m_Data + EXAMPLE_ETHERNET_HEADER + headerLength;
        Fields->HasPorts = TRUE;
        Fields->SourcePort = ReadBig16(transport);
        Fields->DestinationPort = ReadBig16(transport + 2);
    }
    return TRUE;
}

/* ---- settings text: UTF-16, scanned by hand ---- */

/* A cursor over counted UTF-16 text. */
struct TextCursor {
    const WCHAR *Next;
    const WCHAR *End;

    BOOLEAN AtEnd() const { return Next >= End ? TRUE : FALSE; }
    WCHAR Peek() const { return AtEnd() ? (WCHAR)0 : *Next; }
};

inline BOOLEAN IsSpace(WCHAR c)
{
    return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n' || c == L',';
}

inline WCHAR Lower(WCHAR c)
{
    return (c >= L'A' && c <= L'Z') ? (WCHAR)(c - L'A' + L'a') : c;
}

inline VOID SkipSpaces(TextCursor *Cursor)
{
    while (!Cursor->AtEnd() && IsSpace(*Cursor->Next))
        Cursor->Next++;
}

/* The next word: up to a space, a ';' or the end. Empty at a ';' or the end. */
inline TextCursor NextWord(TextCursor *Cursor)
{
    SkipSpaces(Cursor);
    TextCursor word = {Cursor->Next, Cursor->Next};
    while (!Cursor->AtEnd() && !IsSpace(*Cursor->Next) && *Cursor->Next != L';')
        Cursor->Next++;
    word.End = Cursor->Next;
    return word;
}

/* Whether `Word` is `Ascii`, ignoring case. */
inline BOOLEAN WordIs(const TextCursor &Word, const char *Ascii)
{
    const WCHAR *p = Word.Next;
    for (; *Ascii != '\0'; Ascii++, p++) {
        if (p >= Word.End || Lower(*p) != (WCHAR)(UCHAR)*Ascii)
            return FALSE;
    }
    return p == Word.End ? TRUE : FALSE;
}

/* A decimal number up to `Maximum`. */
inline BOOLEAN ParseNumber(const TextCursor &Word, ULONG Maximum, PULONG Value)
{
    if (Word.Next == Word.End)
        return FALSE;
    ULONG value = 0;
    for (const WCHAR *p = Word.Next; p < Word.End; p++) {
        if (*p < L'0' || *p > L'9')
            return FALSE;
        value = value * 10 + (ULONG)(*p - L'0');
        if (value > Maximum)
            return FALSE;
    }
    *Value = value;
    return TRUE;
}

/* A dotted IPv4 address into network order, as it lies in a packet. */
inline BOOLEAN ParseAddress(const TextCursor &Word, PULONG Address)
{
    UCHAR bytes[4];
    TextCursor part = {Word.Next, Word.Next};
    for (int i = 0; i < 4; i++) {
        while (part.End < Word.End && *part.End != L'.')
            part.End++;
        ULONG value;
        if (!ParseNumber(part, 255, &value))
            return FALSE;
        bytes[i] = (UCHAR)value;
        if (i < 3) {
            if (part.End >= Word.End)
                return FALSE;
            part.Next = part.End = part.End + 1;
        }
    }
    if (part.End != Word.End)
        return FALSE;
    RtlCopyMemory(Address, bytes, sizeof(bytes));
    return TRUE;
}

/*
 * ReadSetting - the REG_SZ value `Name` of the driver's service key into
 * `Value`, whose buffer the registry allocates (free it with
 * RtlFreeUnicodeString). STATUS_OBJECT_NAME_NOT_FOUND when the value is
 * missing, STATUS_OBJECT_TYPE_MISMATCH when it is not a REG_SZ; on failure
 * nothing is left to free. IRQL = PASSIVE_LEVEL (DriverEntry).
 */
inline NTSTATUS ReadSetting(PUNICODE_STRING RegistryPath, PCWSTR Name, PUNICODE_STRING Value)
{
    Value->Buffer = NULL;
    Value->Length = Value->MaximumLength = 0;
    RTL_QUERY_REGISTRY_TABLE table[2];
    RtlZeroMemory(table, sizeof(table));
    /* The type check keeps a value of another type from being written over the string. */
    table[0].Flags = RTL_QUERY_REGISTRY_DIRECT | RTL_QUERY_REGISTRY_REQUIRED | RTL_QUERY_REGISTRY_TYPECHECK;
    table[0].Name = (PWSTR)Name;
    table[0].EntryContext = Value;
    table[0].DefaultType = (ULONG)REG_SZ << RTL_QUERY_REGISTRY_TYPECHECK_SHIFT;
    NTSTATUS status = RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, RegistryPath->Buffer, table, NULL, NULL);
    if (!NT_SUCCESS(status) && Value->Buffer != NULL)
        RtlFreeUnicodeString(Value);
    return status;
}

/*
 * SettingText - the setting `Name` as a cursor: the registry's text in
 * `Value` (free it with RtlFreeUnicodeString when *FromRegistry), or
 * `Default` copied into `Buffer` when the value is missing. FALSE when the
 * value exists but cannot be read as text. IRQL = PASSIVE_LEVEL.
 */
inline BOOLEAN SettingText(PUNICODE_STRING RegistryPath, PCWSTR Name, const char *Default, WCHAR *Buffer,
                           ULONG BufferCount, PUNICODE_STRING Value, BOOLEAN *FromRegistry, TextCursor *Text)
{
    NTSTATUS status = ReadSetting(RegistryPath, Name, Value);
    *FromRegistry = NT_SUCCESS(status) ? TRUE : FALSE;
    if (NT_SUCCESS(status)) {
        Text->Next = Value->Buffer;
        Text->End = Value->Buffer + Value->Length / sizeof(WCHAR);
        return TRUE;
    }
    if (status != STATUS_OBJECT_NAME_NOT_FOUND)
        return FALSE;
    ULONG n = 0;
    for (; Default[n] != '\0' && n < BufferCount; n++)
        Buffer[n] = (WCHAR)(UCHAR)Default[n];
    Text->Next = Buffer;
    Text->End = Buffer + n;
    return TRUE;
}

} // namespace example
#endif /* __cplusplus */

#endif /* EXAMPLE_PACKET_H */
