/*
 * Host kernel runtime: basic Windows types, status codes, lists and strings.
 *
 * Every header of the host runtime includes this one first. It reproduces the
 * Windows x64 data model (LLP64: LONG and ULONG are 32-bit, pointers 64-bit,
 * WCHAR 16-bit through -fshort-wchar) so that driver source compiles here
 * exactly as it does against the DDK headers. Valid C11 and C++17.
 */
#ifndef HK_BASE_H
#define HK_BASE_H

#include <stddef.h>
#include <stdarg.h>

#if defined(__cplusplus)
#define HK_EXTERN_C_BEGIN extern "C" {
#define HK_EXTERN_C_END }
#define EXTERN_C extern "C"
#else
#define HK_EXTERN_C_BEGIN
#define HK_EXTERN_C_END
#define EXTERN_C extern
#endif

#if !defined(__SIZEOF_WCHAR_T__) || __SIZEOF_WCHAR_T__ != 2
#error "the host build must use -fshort-wchar (WCHAR is 16-bit as on Windows)"
#endif

/* ---- annotations and calling conventions (no meaning on the host) ---- */
#define IN
#define OUT
#define OPTIONAL
#define NTAPI
#define NTSYSAPI
#define NTKERNELAPI
#define NTHALAPI
#define NDISAPI
#define DECLSPEC_IMPORT
#define WINAPI
#ifndef __cdecl
#define __cdecl
#endif
#define FORCEINLINE static inline
#define UNREFERENCED_PARAMETER(p) ((void)(p))
#define UNALIGNED

/* ---- scalar types, Windows x64 widths ---- */
typedef void VOID, *PVOID, **PPVOID;
typedef const void *PCVOID;
typedef char CHAR, *PCHAR, *PSTR, *LPSTR;
typedef const char *PCSTR, *LPCSTR, *PCSZ;
typedef unsigned char UCHAR, *PUCHAR, BYTE, *PBYTE, *LPBYTE;
typedef short SHORT, *PSHORT, CSHORT;
typedef unsigned short USHORT, *PUSHORT, WORD, *PWORD;
typedef int LONG, *PLONG, INT, *PINT, LONG32, INT32, BOOL, *PBOOL;
typedef unsigned int ULONG, *PULONG, UINT, *PUINT, DWORD, *PDWORD, *LPDWORD,
    ULONG32, UINT32, DWORD32;
typedef long long LONGLONG, *PLONGLONG, LONG64, *PLONG64, INT64, LONG_PTR,
    *PLONG_PTR, INT_PTR, SSIZE_T;
typedef unsigned long long ULONGLONG, *PULONGLONG, ULONG64, *PULONG64,
    DWORD64, UINT64, ULONG_PTR, *PULONG_PTR, UINT_PTR, DWORD_PTR, SIZE_T,
    *PSIZE_T, KAFFINITY;
typedef UCHAR BOOLEAN, *PBOOLEAN;
typedef wchar_t WCHAR, *PWCHAR, *PWSTR, *LPWSTR, *PWCH;
typedef const wchar_t *PCWSTR, *LPCWSTR, *PCWCH;
typedef PVOID HANDLE, *PHANDLE;
typedef LONG NTSTATUS, *PNTSTATUS;
typedef UCHAR KIRQL, *PKIRQL;
typedef CHAR CCHAR, KPROCESSOR_MODE;
typedef LONG KPRIORITY;
typedef ULONG ACCESS_MASK, *PACCESS_MASK;
typedef ULONG LOGICAL;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif
#ifndef NULL
#define NULL ((void *)0)
#endif

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    struct {
        ULONG LowPart;
        ULONG HighPart;
    } u;
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef LARGE_INTEGER PHYSICAL_ADDRESS, *PPHYSICAL_ADDRESS;

/* ---- record helpers ---- */
#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
/* The field's offset comes from the compiler, not from a member access through
 * a null pointer: that form is undefined behaviour, and clang's
 * UndefinedBehaviorSanitizer reports it on every list walk. */
#define CONTAINING_RECORD(address, type, field) \
    ((type *)((PCHAR)(address) - __builtin_offsetof(type, field)))
#define RTL_NUMBER_OF(a) (sizeof(a) / sizeof((a)[0]))
#define ARRAYSIZE(a) RTL_NUMBER_OF(a)
#define RTL_FIELD_SIZE(type, field) (sizeof(((type *)0)->field))
#if defined(__cplusplus)
#define C_ASSERT(e) static_assert(e, #e)
#else
#define C_ASSERT(e) _Static_assert(e, #e)
#endif

/* ---- status codes ---- */
#define NT_SUCCESS(s) (((NTSTATUS)(s)) >= 0)
#define STATUS_SUCCESS                 ((NTSTATUS)0x00000000)
#define STATUS_WAIT_0                  ((NTSTATUS)0x00000000)
#define STATUS_ABANDONED               ((NTSTATUS)0x00000080)
#define STATUS_USER_APC                ((NTSTATUS)0x000000C0)
#define STATUS_ALERTED                 ((NTSTATUS)0x00000101)
#define STATUS_TIMEOUT                 ((NTSTATUS)0x00000102)
#define STATUS_PENDING                 ((NTSTATUS)0x00000103)
#define STATUS_BUFFER_OVERFLOW         ((NTSTATUS)0x80000005)
#define STATUS_UNSUCCESSFUL            ((NTSTATUS)0xC0000001)
#define STATUS_NOT_IMPLEMENTED         ((NTSTATUS)0xC0000002)
#define STATUS_ACCESS_VIOLATION        ((NTSTATUS)0xC0000005)
#define STATUS_INVALID_HANDLE          ((NTSTATUS)0xC0000008)
#define STATUS_INVALID_PARAMETER       ((NTSTATUS)0xC000000D)
#define STATUS_INVALID_DEVICE_REQUEST  ((NTSTATUS)0xC0000010)
#define STATUS_NO_MEMORY               ((NTSTATUS)0xC0000017)
#define STATUS_ACCESS_DENIED           ((NTSTATUS)0xC0000022)
#define STATUS_BUFFER_TOO_SMALL        ((NTSTATUS)0xC0000023)
#define STATUS_OBJECT_TYPE_MISMATCH    ((NTSTATUS)0xC0000024)
#define STATUS_OBJECT_NAME_INVALID     ((NTSTATUS)0xC0000033)
#define STATUS_OBJECT_NAME_NOT_FOUND   ((NTSTATUS)0xC0000034)
#define STATUS_OBJECT_NAME_COLLISION   ((NTSTATUS)0xC0000035)
#define STATUS_OBJECT_PATH_NOT_FOUND   ((NTSTATUS)0xC000003A)
#define STATUS_INSUFFICIENT_RESOURCES  ((NTSTATUS)0xC000009A)
#define STATUS_NOT_SUPPORTED           ((NTSTATUS)0xC00000BB)
#define STATUS_INTERNAL_ERROR          ((NTSTATUS)0xC00000E5)
#define STATUS_INVALID_PARAMETER_1     ((NTSTATUS)0xC00000EF)
#define STATUS_INVALID_PARAMETER_2     ((NTSTATUS)0xC00000F0)
#define STATUS_INVALID_PARAMETER_3     ((NTSTATUS)0xC00000F1)
#define STATUS_CANCELLED               ((NTSTATUS)0xC0000120)
#define STATUS_DEVICE_NOT_READY        ((NTSTATUS)0xC00000A3)
#define STATUS_DATATYPE_MISALIGNMENT   ((NTSTATUS)0x80000002)
#define STATUS_BREAKPOINT              ((NTSTATUS)0x80000003)
#define STATUS_ILLEGAL_INSTRUCTION     ((NTSTATUS)0xC000001D)
#define STATUS_INTEGER_DIVIDE_BY_ZERO  ((NTSTATUS)0xC0000094)

/* ---- processor levels, modes, pool types ---- */
#define PASSIVE_LEVEL  0
#define LOW_LEVEL      0
#define APC_LEVEL      1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL     15

typedef enum _MODE { KernelMode, UserMode, MaximumMode } MODE;

typedef enum _POOL_TYPE {
    NonPagedPool = 0,
    PagedPool = 1,
    NonPagedPoolMustSucceed = 2,
    NonPagedPoolCacheAligned = 4,
    PagedPoolCacheAligned = 5,
    NonPagedPoolNx = 512
} POOL_TYPE;

/* ---- doubly and singly linked lists ---- */
typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY *Flink;
    struct _LIST_ENTRY *Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY {
    struct _SINGLE_LIST_ENTRY *Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY, SLIST_ENTRY, *PSLIST_ENTRY;

FORCEINLINE VOID InitializeListHead(PLIST_ENTRY ListHead)
{
    ListHead->Flink = ListHead->Blink = ListHead;
}

FORCEINLINE BOOLEAN IsListEmpty(const LIST_ENTRY *ListHead)
{
    return (BOOLEAN)(ListHead->Flink == ListHead);
}

FORCEINLINE BOOLEAN RemoveEntryList(PLIST_ENTRY Entry)
{
    PLIST_ENTRY Flink = Entry->Flink;
    PLIST_ENTRY Blink = Entry->Blink;
    Blink->Flink = Flink;
    Flink->Blink = Blink;
    return (BOOLEAN)(Flink == Blink);
}

FORCEINLINE PLIST_ENTRY RemoveHeadList(PLIST_ENTRY ListHead)
{
    PLIST_ENTRY Entry = ListHead->Flink;
    PLIST_ENTRY Flink = Entry->Flink;
    ListHead->Flink = Flink;
    Flink->Blink = ListHead;
    return Entry;
}

FORCEINLINE PLIST_ENTRY RemoveTailList(PLIST_ENTRY ListHead)
{
    PLIST_ENTRY Entry = ListHead->Blink;
    PLIST_ENTRY Blink = Entry->Blink;
    ListHead->Blink = Blink;
    Blink->Flink = ListHead;
    return Entry;
}

FORCEINLINE VOID InsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry)
{
    PLIST_ENTRY Blink = ListHead->Blink;
    Entry->Flink = ListHead;
    Entry->Blink = Blink;
    Blink->Flink = Entry;
    ListHead->Blink = Entry;
}

FORCEINLINE VOID InsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry)
{
    PLIST_ENTRY Flink = ListHead->Flink;
    Entry->Flink = Flink;
    Entry->Blink = ListHead;
    Flink->Blink = Entry;
    ListHead->Flink = Entry;
}

FORCEINLINE VOID PushEntryList(PSINGLE_LIST_ENTRY ListHead, PSINGLE_LIST_ENTRY Entry)
{
    Entry->Next = ListHead->Next;
    ListHead->Next = Entry;
}

FORCEINLINE PSINGLE_LIST_ENTRY PopEntryList(PSINGLE_LIST_ENTRY ListHead)
{
    PSINGLE_LIST_ENTRY First = ListHead->Next;
    if (First != NULL)
        ListHead->Next = First->Next;
    return First;
}

/* ---- counted strings ---- */
typedef struct _UNICODE_STRING {
    USHORT Length;        /* bytes, without a terminator */
    USHORT MaximumLength; /* bytes */
    PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING *PCUNICODE_STRING;

typedef struct _STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} STRING, *PSTRING, ANSI_STRING, *PANSI_STRING, OEM_STRING, *POEM_STRING;
typedef const STRING *PCSTRING, *PCANSI_STRING;

#define RTL_CONSTANT_STRING(s) \
    { (USHORT)(sizeof(s) - sizeof((s)[0])), (USHORT)sizeof(s), (s) }

/* ---- device control codes ---- */
#define CTL_CODE(DeviceType, Function, Method, Access) \
    (((ULONG)(DeviceType) << 16) | ((ULONG)(Access) << 14) | ((ULONG)(Function) << 2) | (ULONG)(Method))
#define METHOD_BUFFERED   0
#define METHOD_IN_DIRECT  1
#define METHOD_OUT_DIRECT 2
#define METHOD_NEITHER    3
#define FILE_ANY_ACCESS   0
#define FILE_READ_ACCESS  1
#define FILE_WRITE_ACCESS 2
#define FILE_DEVICE_UNKNOWN 0x00000022
#define FILE_DEVICE_NETWORK 0x00000012


/* ---- alignment of records (used by the interlocked list head) ---- */
#ifndef DECLSPEC_ALIGN
#define DECLSPEC_ALIGN(x) __attribute__((aligned(x)))
#endif

#endif /* HK_BASE_H */
