/*
 * Run-time library: memory comparison and counted strings.
 *
 * Strings are UTF-16 code units (WCHAR is 16-bit here), handled with the
 * small helpers below, never with the C library's wide-character functions.
 * Case-insensitive comparisons fold ASCII and Latin-1 letters; the ANSI code
 * page is Latin-1.
 */
#include "core_internal.h"

namespace {

// Longest counted string: lengths are USHORT byte counts of whole WCHARs.
constexpr size_t kMaxUnicodeBytes = 0xFFFE;
constexpr ULONG kStringTag = HK_POOL_TAG('U', 's', 't', 'r');

/* Length of a counted string in WCHARs. */
size_t Chars(PCUNICODE_STRING s)
{
    return s->Length / sizeof(WCHAR);
}

/* Compares the common prefix and then the lengths, optionally ignoring case. */
LONG Compare(PCUNICODE_STRING a, PCUNICODE_STRING b, bool caseInsensitive)
{
    const size_t n = Chars(a) < Chars(b) ? Chars(a) : Chars(b);
    for (size_t i = 0; i < n; ++i) {
        WCHAR x = a->Buffer[i];
        WCHAR y = b->Buffer[i];
        if (caseInsensitive) {
            x = hk::core::UpcaseChar(x);
            y = hk::core::UpcaseChar(y);
        }
        if (x != y)
            return static_cast<LONG>(x) - static_cast<LONG>(y);
    }
    return static_cast<LONG>(Chars(a)) - static_cast<LONG>(Chars(b));
}

/* Appends `bytes` bytes of `source` to `destination`, terminating it when there is room. */
NTSTATUS Append(PUNICODE_STRING destination, const WCHAR *source, size_t bytes)
{
    if (bytes == 0)
        return STATUS_SUCCESS;
    if (destination->Length + bytes > destination->MaximumLength)
        return STATUS_BUFFER_TOO_SMALL;
    memmove(reinterpret_cast<char *>(destination->Buffer) + destination->Length, source, bytes);
    destination->Length = static_cast<USHORT>(destination->Length + bytes);
    if (destination->Length + sizeof(WCHAR) <= destination->MaximumLength)
        destination->Buffer[Chars(destination)] = 0;
    return STATUS_SUCCESS;
}

} // namespace

namespace hk {
namespace core {

/* Length in WCHARs of a NUL-terminated UTF-16 string. */
size_t WideLength(PCWSTR s)
{
    size_t n = 0;
    while (s[n] != 0)
        ++n;
    return n;
}

/* Upper case of ASCII and Latin-1 letters (ÿ has no Latin-1 upper case and stays). */
WCHAR UpcaseChar(WCHAR c)
{
    if (c >= u'a' && c <= u'z')
        return static_cast<WCHAR>(c - 0x20);
    if (c >= 0xE0 && c <= 0xFE && c != 0xF7)
        return static_cast<WCHAR>(c - 0x20);
    return c;
}

} // namespace core
} // namespace hk

/* Number of leading bytes that match. Any IRQL. */
SIZE_T NTAPI RtlCompareMemory(const VOID *Source1, const VOID *Source2, SIZE_T Length)
{
    const auto *a = static_cast<const UCHAR *>(Source1);
    const auto *b = static_cast<const UCHAR *>(Source2);
    SIZE_T i = 0;
    while (i < Length && a[i] == b[i])
        ++i;
    return i;
}

/* Points the string at SourceString (NULL gives an empty string). Any IRQL. */
VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString)
{
    DestinationString->Buffer = const_cast<PWSTR>(SourceString);
    if (SourceString == nullptr) {
        DestinationString->Length = DestinationString->MaximumLength = 0;
        return;
    }
    size_t bytes = hk::core::WideLength(SourceString) * sizeof(WCHAR);
    if (bytes > kMaxUnicodeBytes - sizeof(WCHAR))
        bytes = kMaxUnicodeBytes - sizeof(WCHAR);
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
}

/* Points the string at SourceString (NULL gives an empty string). Any IRQL. */
VOID NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString)
{
    DestinationString->Buffer = const_cast<PCHAR>(SourceString);
    if (SourceString == nullptr) {
        DestinationString->Length = DestinationString->MaximumLength = 0;
        return;
    }
    size_t bytes = strlen(SourceString);
    if (bytes > 0xFFFE)
        bytes = 0xFFFE;
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength = static_cast<USHORT>(bytes + 1);
}

/* Same as RtlInitAnsiString. */
VOID NTAPI RtlInitString(PSTRING DestinationString, PCSZ SourceString)
{
    RtlInitAnsiString(DestinationString, SourceString);
}

/* Copies what fits, terminating when there is room; NULL source empties. */
VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString)
{
    if (SourceString == nullptr) {
        DestinationString->Length = 0;
        return;
    }
    USHORT bytes = SourceString->Length < DestinationString->MaximumLength
                       ? SourceString->Length
                       : static_cast<USHORT>(DestinationString->MaximumLength & ~1u);
    memmove(DestinationString->Buffer, SourceString->Buffer, bytes);
    DestinationString->Length = bytes;
    if (bytes + sizeof(WCHAR) <= DestinationString->MaximumLength)
        DestinationString->Buffer[bytes / sizeof(WCHAR)] = 0;
}

/* Whether both strings are equal (optionally ignoring case). */
BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                    BOOLEAN CaseInSensitive)
{
    if (String1->Length != String2->Length)
        return FALSE;
    return Compare(String1, String2, CaseInSensitive != FALSE) == 0;
}

/* <0, 0 or >0 as String1 sorts before, with or after String2. */
LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                   BOOLEAN CaseInSensitive)
{
    return Compare(String1, String2, CaseInSensitive != FALSE);
}

/* Whether String1 is a prefix of String2. */
BOOLEAN NTAPI RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                     BOOLEAN CaseInSensitive)
{
    if (String1->Length > String2->Length)
        return FALSE;
    UNICODE_STRING head = *String2;
    head.Length = String1->Length;
    return Compare(String1, &head, CaseInSensitive != FALSE) == 0;
}

/* Upper case of an ASCII or Latin-1 letter; other characters unchanged. */
WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter)
{
    return hk::core::UpcaseChar(SourceCharacter);
}

/* Appends Source; STATUS_BUFFER_TOO_SMALL when it does not fit. */
NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination,
                                              PCUNICODE_STRING Source)
{
    return Append(Destination, Source->Buffer, Source->Length);
}

/* Appends a NUL-terminated string; STATUS_BUFFER_TOO_SMALL when it does not fit. */
NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source)
{
    if (Source == nullptr)
        return STATUS_SUCCESS;
    return Append(Destination, Source, hk::core::WideLength(Source) * sizeof(WCHAR));
}

/* Parses leading blanks, a sign, an optional base prefix (Base 0) and digits. */
NTSTATUS NTAPI RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value)
{
    size_t i = 0;
    const size_t n = Chars(String);
    while (i < n && (String->Buffer[i] == u' ' || String->Buffer[i] == u'\t'))
        ++i;
    bool negative = false;
    if (i < n && (String->Buffer[i] == u'-' || String->Buffer[i] == u'+'))
        negative = String->Buffer[i++] == u'-';
    if (Base == 0) {
        Base = 10;
        if (i + 1 < n && String->Buffer[i] == u'0') {
            WCHAR prefix = hk::core::UpcaseChar(String->Buffer[i + 1]);
            Base = prefix == u'X' ? 16 : prefix == u'O' ? 8 : prefix == u'B' ? 2 : 10;
            if (Base != 10)
                i += 2;
        }
    } else if (Base != 2 && Base != 8 && Base != 10 && Base != 16) {
        return STATUS_INVALID_PARAMETER;
    }
    ULONG result = 0;
    for (; i < n; ++i) {
        WCHAR c = hk::core::UpcaseChar(String->Buffer[i]);
        ULONG digit = c >= u'0' && c <= u'9' ? c - u'0' : c >= u'A' && c <= u'F' ? c - u'A' + 10 : 99;
        if (digit >= Base)
            break;
        result = result * Base + digit;
    }
    *Value = negative ? 0u - result : result;
    return STATUS_SUCCESS;
}

/* Latin-1 to UTF-16, into an allocated (paged pool) or the given buffer. */
NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString,
                                            PCANSI_STRING SourceString,
                                            BOOLEAN AllocateDestinationString)
{
    const size_t bytes = static_cast<size_t>(SourceString->Length) * sizeof(WCHAR);
    if (bytes > kMaxUnicodeBytes)
        return STATUS_INVALID_PARAMETER_2;
    if (AllocateDestinationString) {
        auto *buffer = static_cast<PWSTR>(
            ExAllocatePoolWithTag(PagedPool, bytes + sizeof(WCHAR), kStringTag));
        if (buffer == nullptr)
            return STATUS_NO_MEMORY;
        DestinationString->Buffer = buffer;
        DestinationString->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
    } else if (bytes > DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (USHORT i = 0; i < SourceString->Length; ++i)
        DestinationString->Buffer[i] = static_cast<UCHAR>(SourceString->Buffer[i]);
    DestinationString->Length = static_cast<USHORT>(bytes);
    if (bytes + sizeof(WCHAR) <= DestinationString->MaximumLength)
        DestinationString->Buffer[SourceString->Length] = 0;
    return STATUS_SUCCESS;
}

/* UTF-16 to Latin-1 ('?' above U+00FF), into an allocated or the given buffer. */
NTSTATUS NTAPI RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString,
                                            PCUNICODE_STRING SourceString,
                                            BOOLEAN AllocateDestinationString)
{
    const size_t chars = Chars(SourceString);
    size_t converted = chars;
    NTSTATUS status = STATUS_SUCCESS;
    if (AllocateDestinationString) {
        auto *buffer = static_cast<PCHAR>(ExAllocatePoolWithTag(PagedPool, chars + 1, kStringTag));
        if (buffer == nullptr)
            return STATUS_NO_MEMORY;
        DestinationString->Buffer = buffer;
        DestinationString->MaximumLength = static_cast<USHORT>(chars + 1);
    } else if (chars >= DestinationString->MaximumLength) {
        // Windows converts what fits (keeping room for the terminator) and reports overflow.
        status = STATUS_BUFFER_OVERFLOW;
        converted = DestinationString->MaximumLength == 0 ? 0 : DestinationString->MaximumLength - 1u;
    }
    for (size_t i = 0; i < converted; ++i) {
        WCHAR c = SourceString->Buffer[i];
        DestinationString->Buffer[i] = c <= 0xFF ? static_cast<CHAR>(c) : '?';
    }
    DestinationString->Length = static_cast<USHORT>(converted);
    if (converted < DestinationString->MaximumLength)
        DestinationString->Buffer[converted] = 0;
    return status;
}

/* Frees a buffer the Rtl routines allocated and empties the string. */
VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString)
{
    if (UnicodeString->Buffer != nullptr)
        ExFreePool(UnicodeString->Buffer);
    UnicodeString->Buffer = nullptr;
    UnicodeString->Length = UnicodeString->MaximumLength = 0;
}

/* Frees a buffer the Rtl routines allocated and empties the string. */
VOID NTAPI RtlFreeAnsiString(PANSI_STRING AnsiString)
{
    if (AnsiString->Buffer != nullptr)
        ExFreePool(AnsiString->Buffer);
    AnsiString->Buffer = nullptr;
    AnsiString->Length = AnsiString->MaximumLength = 0;
}
