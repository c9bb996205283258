/*
 * Host kernel runtime: run-time library routines (memory blocks and counted
 * strings).
 *
 * The memory-block routines are macros over the C library, as in the DDK.
 * Counted strings are UNICODE_STRING / ANSI_STRING records: lengths in bytes,
 * no terminator required. "ANSI" here is the Latin-1 code page: each byte is
 * the code point of the same value; characters above U+00FF become '?'.
 * Valid C11 and C++17.
 */
#ifndef HK_RTL_H
#define HK_RTL_H

#include "hk/base.h"
#include <string.h>

/* ---- memory blocks ---- */
#define RtlZeroMemory(Destination, Length) memset((Destination), 0, (Length))
#define RtlCopyMemory(Destination, Source, Length) memcpy((Destination), (Source), (Length))
#define RtlMoveMemory(Destination, Source, Length) memmove((Destination), (Source), (Length))
#define RtlFillMemory(Destination, Length, Fill) memset((Destination), (Fill), (Length))
#define RtlEqualMemory(Source1, Source2, Length) (!memcmp((Source1), (Source2), (Length)))

HK_EXTERN_C_BEGIN

/* Number of leading bytes that are equal in both blocks (Length when all are). Any IRQL
 * for non-paged memory. */
NTSYSAPI SIZE_T NTAPI RtlCompareMemory(const VOID *Source1, const VOID *Source2, SIZE_T Length);

/* ---- counted strings ---- */

/* Points DestinationString at the NUL-terminated SourceString (no copy); a NULL source
 * gives an empty string with a NULL buffer. Any IRQL for non-paged memory. */
NTSYSAPI VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
NTSYSAPI VOID NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString);
NTSYSAPI VOID NTAPI RtlInitString(PSTRING DestinationString, PCSZ SourceString);

/* Copies as much of SourceString as DestinationString's buffer holds, adding a terminator
 * when there is room; a NULL source empties the destination. */
NTSYSAPI VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString,
                                         PCUNICODE_STRING SourceString);

/* String comparisons; CaseInSensitive compares the upper-case forms. */
NTSYSAPI BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                             BOOLEAN CaseInSensitive);
NTSYSAPI LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                            BOOLEAN CaseInSensitive);
/* TRUE when String1 is a prefix of String2. */
NTSYSAPI BOOLEAN NTAPI RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                              BOOLEAN CaseInSensitive);
NTSYSAPI WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter);

/* Appends to Destination; STATUS_BUFFER_TOO_SMALL (nothing appended) when it does not fit. */
NTSYSAPI NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination,
                                                       PCUNICODE_STRING Source);
NTSYSAPI NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source);

/* Parses an optionally signed number; Base 0 accepts 0x / 0o / 0b prefixes (default 10). */
NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base,
                                                  PULONG Value);

/* Conversions between the code pages. With AllocateDestinationString the buffer comes
 * from paged pool (IRQL <= APC_LEVEL) and is released with RtlFreeUnicodeString /
 * RtlFreeAnsiString; otherwise STATUS_BUFFER_OVERFLOW when the destination is too small. */
NTSYSAPI NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString,
                                                     PCANSI_STRING SourceString,
                                                     BOOLEAN AllocateDestinationString);
NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString,
                                                     PCUNICODE_STRING SourceString,
                                                     BOOLEAN AllocateDestinationString);
NTSYSAPI VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString);
NTSYSAPI VOID NTAPI RtlFreeAnsiString(PANSI_STRING AnsiString);

HK_EXTERN_C_END

#endif /* HK_RTL_H */
