/*
 * ndisfilter-settings.cpp - registry settings, the saved registry path, the
 * OS version through the hook driver, and the system clock.
 */
#include "precomp.h"
#include "ndisfilter-global.h"

namespace {

/* A counted wide string's buffer of `maximum` bytes plus a terminating zero character. */
PWSTR AllocateStringBuffer(USHORT maximum)
{
    return (PWSTR)ExAllocatePool(NonPagedPool, (SIZE_T)maximum + sizeof(WCHAR));
}

/*
 * One direct query of `name` under the absolute key `path`, with a default.
 * The outcome is printed whatever the debug mask says. Returns the query's status.
 * IRQL = PASSIVE_LEVEL.
 */
NTSTATUS QueryValue(PUNICODE_STRING path, PCWSTR name, PVOID destination, ULONG defaultType,
                    PVOID defaultData, ULONG defaultLength, BOOLEAN *tableAllocated)
{
    /* The second, zeroed entry ends the table. */
    PRTL_QUERY_REGISTRY_TABLE table =
        (PRTL_QUERY_REGISTRY_TABLE)ExAllocatePool(NonPagedPool, 2 * sizeof(RTL_QUERY_REGISTRY_TABLE));
    *tableAllocated = table != NULL;
    if (table == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;

    RtlZeroMemory(table, 2 * sizeof(RTL_QUERY_REGISTRY_TABLE));
    table[0].Flags = RTL_QUERY_REGISTRY_DIRECT;
    table[0].Name = (PWSTR)name;
    table[0].EntryContext = destination;
    table[0].DefaultType = defaultType;
    table[0].DefaultData = defaultData;
    table[0].DefaultLength = defaultLength;

    NTSTATUS status = RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, path->Buffer, table, NULL, NULL);
    ExFreePool(table);
    return status;
}

/* The work item behind Filter_SafeGetGlobalDebugFlag. */
struct SafeDebugFlagRead {
    PIO_WORKITEM m_WorkItem;
    PUNICODE_STRING m_pRegistryPath;
    ULONG m_dwDefault;
    PULONG m_pResult;
};

VOID NTAPI SafeDebugFlagWorker(PDEVICE_OBJECT DeviceObject, PVOID context)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    SafeDebugFlagRead *read = (SafeDebugFlagRead *)context;
    *read->m_pResult = Filter_GetGlobalDebugFlag(read->m_pRegistryPath, read->m_dwDefault);
    IoFreeWorkItem(read->m_WorkItem);
    ExFreePool(read);
    NdisFilter_WorkItemDone();
}

/*
 * A copy of Source, its last Tail->Length bytes replaced by Tail (no Tail:
 * nothing replaced), in a new non-paged buffer owned by Destination, one
 * character longer for a terminating zero.
 */
NTSTATUS CopyRegistryPath(const UNICODE_STRING *Source, const UNICODE_STRING *Tail, PUNICODE_STRING Destination)
{
    USHORT tailLength = Tail != NULL ? Tail->Length : 0;
    /* The copy must fit the buffer sized from MaximumLength, and the new maximum a USHORT. */
    if (Source == NULL || Destination == NULL || Source->Length > Source->MaximumLength ||
        tailLength > Source->Length || Source->MaximumLength > 0xFFFF - sizeof(WCHAR))
        return STATUS_INVALID_PARAMETER;
    PWSTR buffer = AllocateStringBuffer(Source->MaximumLength);
    if (buffer == NULL)
        return STATUS_INSUFFICIENT_RESOURCES;
    USHORT kept = (USHORT)(Source->Length - tailLength);
    RtlCopyMemory(buffer, Source->Buffer, kept);
    if (tailLength != 0)
        RtlCopyMemory((PUCHAR)buffer + kept, Tail->Buffer, tailLength);
    buffer[Source->Length / sizeof(WCHAR)] = L'\0';
    Destination->Buffer = buffer;
    Destination->Length = Source->Length;
    Destination->MaximumLength = (USHORT)(Source->MaximumLength + sizeof(WCHAR));
    return STATUS_SUCCESS;
}

} // namespace

/*
 * Filter_SaveDriverRegistryPath - copies Source into a new non-paged buffer
 * owned by Destination, one character longer for a terminating zero.
 */
EXTERN_C NTSTATUS NTAPI Filter_SaveDriverRegistryPath(PUNICODE_STRING Source, PUNICODE_STRING Destination)
{
    NF_ENTER(NF_DBG_COMMON, "Filter_SaveDriverRegistryPath");
    NTSTATUS status = CopyRegistryPath(Source, NULL, Destination);
    NF_TRACE(NF_DBG_COMMON, "Leave Filter_SaveDriverRegistryPath, 0x%x\n", (unsigned)status);
    return status;
}

/*
 * Filter_ReplaceDriverRegistryPath - a copy of Source whose last Tail->Length
 * bytes are replaced by Tail, in a new buffer owned by Destination.
 */
EXTERN_C NTSTATUS NTAPI Filter_ReplaceDriverRegistryPath(PUNICODE_STRING Source, PUNICODE_STRING Tail,
                                                         PUNICODE_STRING Destination)
{
    NF_ENTER(NF_DBG_COMMON, "Filter_ReplaceDriverRegistryPath");
    NTSTATUS status = Tail == NULL ? STATUS_INVALID_PARAMETER : CopyRegistryPath(Source, Tail, Destination);
    NF_TRACE(NF_DBG_COMMON, "Leave Filter_ReplaceDriverRegistryPath, 0x%x\n", (unsigned)status);
    return status;
}

/*
 * Filter_RegGetDwordValue - the REG_DWORD value `ValueName` under the absolute
 * key RegistryPath, or Default when it cannot be read. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C ULONG NTAPI Filter_RegGetDwordValue(PUNICODE_STRING RegistryPath, PCWSTR ValueName, ULONG Default)
{
    ULONG value = Default;
    ULONG defaultValue = Default;
    BOOLEAN tableAllocated;
    NTSTATUS status = QueryValue(RegistryPath, ValueName, &value, REG_DWORD, &defaultValue,
                                 sizeof(ULONG), &tableAllocated);
    if (!tableAllocated)
        return Default;
    if (!NT_SUCCESS(status)) {
        NF_PRINT("RtlQueryRegistryValues %S\\%S fail, error = 0x%X\n", RegistryPath->Buffer, ValueName,
                 (unsigned)status);
        return Default;
    }
    NF_PRINT("RtlQueryRegistryValues %S\\%S success, Value = 0x%X\n", RegistryPath->Buffer, ValueName,
             (unsigned)value);
    return value;
}

/*
 * Filter_RegGetStringValue - the REG_SZ value `ValueName` into Value (whose
 * buffer the registry allocates when it is NULL). TRUE when read.
 */
EXTERN_C BOOLEAN NTAPI Filter_RegGetStringValue(PUNICODE_STRING RegistryPath, PCWSTR ValueName,
                                                PUNICODE_STRING Value)
{
    static const WCHAR empty[1] = {0};
    BOOLEAN tableAllocated;
    NTSTATUS status = QueryValue(RegistryPath, ValueName, Value, REG_SZ, (PVOID)empty, 0, &tableAllocated);
    if (!tableAllocated)
        return FALSE;
    if (!NT_SUCCESS(status)) {
        NF_PRINT("RtlQueryRegistryValues %S\\%S fail, error = 0x%X\n", RegistryPath->Buffer, ValueName,
                 (unsigned)status);
        return FALSE;
    }
    NF_PRINT("RtlQueryRegistryValues %S\\%S success, Value = %ws\n", RegistryPath->Buffer, ValueName,
             Value->Buffer);
    return TRUE;
}

EXTERN_C ULONG NTAPI Filter_GetGlobalDebugFlag(PUNICODE_STRING RegistryPath, ULONG Default)
{
    return Filter_RegGetDwordValue(RegistryPath, L"GlobalDebugFlag", Default);
}

EXTERN_C ULONG NTAPI Filter_GetPendingPacketLimit(PUNICODE_STRING RegistryPath, ULONG Default)
{
    return Filter_RegGetDwordValue(RegistryPath, L"PendingPacketLimit", Default);
}

/*
 * Filter_SafeGetGlobalDebugFlag - reads GlobalDebugFlag into *Result later, at
 * PASSIVE_LEVEL on a system worker thread, for callers that may run higher.
 * Returns at once; if the work record cannot be allocated nothing happens.
 * The path must stay valid until the worker has run. The work item holds
 * the control device, and unload waits for it, so it never runs in an
 * unloaded image.
 */
EXTERN_C VOID NTAPI Filter_SafeGetGlobalDebugFlag(PUNICODE_STRING RegistryPath, ULONG Default, PULONG Result)
{
    if (g_pGlobal == NULL)
        return;
    SafeDebugFlagRead *read = (SafeDebugFlagRead *)ExAllocatePool(NonPagedPool, sizeof(SafeDebugFlagRead));
    if (read == NULL)
        return;
    read->m_WorkItem = IoAllocateWorkItem(g_pGlobal->m_pDeviceObject);
    if (read->m_WorkItem == NULL) {
        ExFreePool(read);
        return;
    }
    read->m_pRegistryPath = RegistryPath;
    read->m_dwDefault = Default;
    read->m_pResult = Result;
    NdisFilter_WorkItemQueued();
    IoQueueWorkItem(read->m_WorkItem, SafeDebugFlagWorker, DelayedWorkQueue, read);
}

/*
 * Filter_GetOsVersion - the hook driver's four version numbers. Needs the
 * hook driver bound with its Hook_GetOsVersion.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_GetOsVersion(PULONG Value1, PULONG Value2, PULONG Value3, PULONG Value4)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_COMMON, "Filter_GetOsVersion", status);

    if (Value1 == NULL && Value2 == NULL && Value3 == NULL && Value4 == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    NfHookReference hook;
    PHOOK_GET_OS_VERSION getOsVersion = hook.Get(&NdisHookAPI::Hook_GetOsVersion);
    if (getOsVersion == NULL) {
        status = FILTER_ERROR_INTERFACE_NOT_ACTIVE;
    } else {
        LONG code = FilterGuard([&] {
            if (getOsVersion(Value1, Value2, Value3, Value4) != 0)
                status = FILTER_ERROR_INTERNAL_ERROR;
        });
        if (code != 0) {
            NF_PRINT_EXCEPTION("Filter_GetOsVersion", code);
            status = FILTER_ERROR_EXCEPTION;
        }
    }
    return status;
}

/* Seconds since 1 January 1601 (UTC). */
EXTERN_C LONGLONG NTAPI Filter_GetSystemTime(VOID)
{
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    return now.QuadPart / 10000000;
}

/* Milliseconds since 1 January 1601 (UTC). */
EXTERN_C LONGLONG NTAPI Filter_GetSystemTimeMs(VOID)
{
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    return now.QuadPart / 10000;
}
