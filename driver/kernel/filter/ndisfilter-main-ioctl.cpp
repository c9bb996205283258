/*
 * ndisfilter-main-ioctl.cpp - the control requests of the user program.
 *
 * The framework's own codes are buffered: input and output share one system
 * buffer, so a request that writes output overwrites its input. Codes it does
 * not know go to the hook driver's handler, then to the client drivers'
 * handlers, with the buffers their transfer type gives.
 */
#include "precomp.h"
#include "ndisfilter-global.h"
#include "ndisfilter-ethrlog.h"

namespace {

/* One request in flight: its buffer, lengths and the answer being built. */
struct ControlRequest {
    PIRP Irp;
    ULONG Code;
    PUCHAR Buffer;
    ULONG InputLength;
    ULONG OutputLength;
    NTSTATUS Status;
    ULONG Information;

    BOOLEAN OutputAtLeast(ULONG length)
    {
        if (OutputLength >= length)
            return TRUE;
        NF_TRACE(NF_DBG_CORE, "    Output Buffer Length are too small\n");
        Status = STATUS_BUFFER_TOO_SMALL;
        return FALSE;
    }

    BOOLEAN InputAtLeast(ULONG length)
    {
        if (InputLength >= length)
            return TRUE;
        NF_TRACE(NF_DBG_CORE, "    Input Buffer Length are too small\n");
        Status = STATUS_BUFFER_TOO_SMALL;
        return FALSE;
    }
};

/*
 * START_SHARE: keeps the caller's nonzero value for the mapping and answers
 * the user address of the shared area; 20 means the share was refused or
 * could not be mapped.
 */
VOID StartShare(ControlRequest &Request)
{
    NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_START_SHARE\n");
    if (!Request.OutputAtLeast(sizeof(ULONG64)) || !Request.InputAtLeast(sizeof(ULONG)))
        return;
    g_dwShareValue = *(ULONG UNALIGNED *)Request.Buffer;
    if (g_dwShareValue == 0) {
        NF_TRACE(NF_DBG_CORE, "    User Virtual Address is error\n");
        Request.Status = STATUS_INVALID_PARAMETER_2;
        return;
    }
    ULONG64 address = NdisFilter_StartShare(Request.Irp);
    *(ULONG64 UNALIGNED *)Request.Buffer = address;
    Request.Information = sizeof(ULONG64);
    if (address == 0) {
        NF_TRACE(NF_DBG_CORE, "    NdisFilter_StartShare() fails\n");
        Request.Status = STATUS_INTERNAL_ERROR;
        return;
    }
    NF_TRACE(NF_DBG_CORE, "    NdisFilter_StartShare() success\n");
}


/* GET_VERSION: 1.0 in the first two bytes; no bytes are reported. */
VOID GetVersion(ControlRequest &Request)
{
    NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_GET_VERSION\n");
    if (!Request.OutputAtLeast(2))
        return;
    Request.Buffer[0] = 1;
    Request.Buffer[1] = 0;
}

/* PUT_SHAREDMEMORYSIZE: reports the size of the mapped memory. */
VOID PutSharedMemorySize(ControlRequest &Request)
{
    NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE\n");
    if (!Request.OutputAtLeast(sizeof(ULONG)))
        return;
    *(ULONG UNALIGNED *)Request.Buffer = g_nMappedMemorySize;
    Request.Information = sizeof(ULONG);
}

/* What user mode sees of the adapter table: a count, then per adapter its id and the entry behind its handle. */
#define NF_USER_ADAPTER_ENTRY_SIZE (sizeof(ULONG) + sizeof(AdapterInfo) - FIELD_OFFSET(AdapterInfo, m_nAdapterMedium))
#define NF_USER_ADAPTER_LIST_SIZE (sizeof(ULONG) + FILTER_MAX_ADAPTERS * NF_USER_ADAPTER_ENTRY_SIZE)
C_ASSERT(NF_USER_ADAPTER_ENTRY_SIZE == 282 && NF_USER_ADAPTER_LIST_SIZE == 9028);
/* An IP configuration as user mode carries it: the adapter's id in place of its handle. */
#define NF_USER_IPCONFIG_BODY (sizeof(IPConfig) - sizeof(PFilterAdapter))
#define NF_USER_IPCONFIG_SIZE (sizeof(ULONG) + NF_USER_IPCONFIG_BODY)
C_ASSERT(NF_USER_IPCONFIG_SIZE == 224);

/*
 * GET_TCPIP_INTERFACES: the adapters bound to TCP/IP, each named by its
 * identifier instead of its handle. Entries already written stay when a
 * translation fails.
 */
VOID GetTcpIpInterfaces(ControlRequest &Request)
{
    NF_PRINT("  IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES\n");
    if (!Request.OutputAtLeast(NF_USER_ADAPTER_LIST_SIZE))
        return;
    AdapterList *list = (AdapterList *)ExAllocatePool(NonPagedPool, FILTER_ADAPTER_LIST_SIZE);
    if (list == NULL) {
        NF_TRACE(NF_DBG_CORE, "    call ExAllocatePool func failure.\n");
        Request.Status = STATUS_INSUFFICIENT_RESOURCES;
        return;
    }
    RtlZeroMemory(Request.Buffer, NF_USER_ADAPTER_LIST_SIZE);
    if (Filter_GetTcpIpBoundAdapters(list) != FILTER_STATUS_SUCCESS) {
        Request.Status = STATUS_INTERNAL_ERROR;
        ExFreePool(list);
        return;
    }
    /* The count is bounded by the table it describes. */
    ULONG count = list->m_nAdapterCount < FILTER_MAX_ADAPTERS ? list->m_nAdapterCount : FILTER_MAX_ADAPTERS;
    *(ULONG UNALIGNED *)Request.Buffer = count;
    PUCHAR entry = Request.Buffer + sizeof(ULONG);
    for (ULONG i = 0; i < count; i++, entry += NF_USER_ADAPTER_ENTRY_SIZE) {
        ULONG id = 0;
        if (Filter_AdapterToId(list->m_Adapters[i].m_hAdapter, &id) != FILTER_STATUS_SUCCESS) {
            NF_TRACE(NF_DBG_CORE, "    call Filter_AdapterToId func failure.\n");
            Request.Status = STATUS_INTERNAL_ERROR;
            break;
        }
        RtlCopyMemory(entry, &id, sizeof(id)); /* entries are 282 bytes apart: not aligned */
        RtlCopyMemory(entry + sizeof(ULONG), &list->m_Adapters[i].m_nAdapterMedium,
                      NF_USER_ADAPTER_ENTRY_SIZE - sizeof(ULONG));
    }
    ExFreePool(list);
    Request.Information = NF_USER_ADAPTER_LIST_SIZE;
}

/* A configuration record of the framework's own, its adapter named by the id at the start of `Buffer`. */
PIPConfig IpConfigOfId(ControlRequest &Request)
{
    PIPConfig config = (PIPConfig)ExAllocatePool(NonPagedPool, sizeof(IPConfig));
    if (config == NULL) {
        NF_TRACE(NF_DBG_CORE, "    call ExAllocatePool func failure.\n");
        Request.Status = STATUS_INSUFFICIENT_RESOURCES;
        return NULL;
    }
    RtlZeroMemory(config, sizeof(IPConfig));
    if (Filter_IdToAdapter(*(ULONG UNALIGNED *)Request.Buffer, &config->hAdapter) != FILTER_STATUS_SUCCESS) {
        NF_TRACE(NF_DBG_CORE, "    Input Buffer adapter argument error\n");
        Request.Status = STATUS_INVALID_PARAMETER;
        ExFreePool(config);
        return NULL;
    }
    return config;
}

/* SET_IPCONFIG: a new IP configuration for the adapter with the given id. */
VOID SetIpConfig(ControlRequest &Request)
{
    NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_SET_IPCONFIG\n");
    if (!Request.InputAtLeast(NF_USER_IPCONFIG_SIZE))
        return;
    PIPConfig config = IpConfigOfId(Request);
    if (config == NULL)
        return;
    RtlCopyMemory((PUCHAR)config + sizeof(PFilterAdapter), Request.Buffer + sizeof(ULONG), NF_USER_IPCONFIG_BODY);
    if (Filter_SetIPConfig(config) != FILTER_STATUS_SUCCESS)
        Request.Status = NDIS_STATUS_ADAPTER_NOT_FOUND;
    ExFreePool(config);
}

/*
 * GET_IPCONFIG: the IP configuration of the adapter with the given id. Only
 * the output is measured, as it always was; the id lies in the same buffer.
 */
VOID GetIpConfig(ControlRequest &Request)
{
    NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_GET_IPCONFIG\n");
    if (!Request.OutputAtLeast(NF_USER_IPCONFIG_SIZE))
        return;
    PIPConfig config = IpConfigOfId(Request);
    if (config == NULL)
        return;
    ULONG id = 0;
    if (Filter_GetIPConfig(config->hAdapter, config) == NULL) {
        Request.Status = NDIS_STATUS_ADAPTER_NOT_FOUND;
    } else if (Filter_AdapterToId(config->hAdapter, &id) != FILTER_STATUS_SUCCESS) {
        NF_TRACE(NF_DBG_CORE, "    call Filter_AdapterToId func failure.\n");
        Request.Status = STATUS_INTERNAL_ERROR;
    } else {
        *(ULONG UNALIGNED *)Request.Buffer = id;
        RtlCopyMemory(Request.Buffer + sizeof(ULONG), (PUCHAR)config + sizeof(PFilterAdapter), NF_USER_IPCONFIG_BODY);
        Request.Information = NF_USER_IPCONFIG_SIZE;
    }
    ExFreePool(config);
}

/* The requests that name an adapter by MAC: 6 bytes of address, then one byte of value. */
const ULONG NF_MAC_REQUEST_SIZE = 7;

/* SET_MEDIA_STATUS, SET_PACKET_DUMP: a byte for the adapter with the given MAC. */
VOID SetByMac(ControlRequest &Request, FILTER_STATUS (NTAPI *set)(const UCHAR *, UCHAR))
{
    if (!Request.InputAtLeast(NF_MAC_REQUEST_SIZE))
        return;
    if (set(Request.Buffer, Request.Buffer[6]) != FILTER_STATUS_SUCCESS)
        Request.Status = NDIS_STATUS_ADAPTER_NOT_FOUND;
}

FILTER_STATUS NTAPI SetPacketDumpByMac(const UCHAR *Mac, UCHAR On)
{
    return Filter_SetAdapterPacketDump(Mac, On != 0);
}

/* GET_MEDIA_STATUS, GET_PACKET_DUMP: the byte of the adapter with the given MAC, behind the MAC. */
template <typename Value>
VOID GetByMac(ControlRequest &Request, FILTER_STATUS (NTAPI *get)(const UCHAR *, Value *))
{
    if (!Request.InputAtLeast(NF_MAC_REQUEST_SIZE) || !Request.OutputAtLeast(NF_MAC_REQUEST_SIZE))
        return;
    Value value = 0;
    if (get(Request.Buffer, &value) != FILTER_STATUS_SUCCESS) {
        Request.Status = NDIS_STATUS_ADAPTER_NOT_FOUND;
        return;
    }
    Request.Buffer[6] = (UCHAR)value;
    Request.Information = NF_MAC_REQUEST_SIZE;
}

/* GET_ADAPTER: the id of the adapter with the given MAC, behind the MAC. Only the output is measured. */
VOID GetAdapter(ControlRequest &Request)
{
    NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_GET_ADAPTER\n");
    if (!Request.OutputAtLeast(10))
        return;
    PFilterAdapter adapter = NULL;
    ULONG id = 0;
    if (Filter_FindAdapterByMacAddress(Request.Buffer, &adapter) != FILTER_STATUS_SUCCESS) {
        Request.Status = STATUS_INTERNAL_ERROR;
        return;
    }
    if (Filter_AdapterToId(adapter, &id) != FILTER_STATUS_SUCCESS) {
        NF_TRACE(NF_DBG_CORE, "    call Filter_AdapterToId func failure.\n");
        Request.Status = STATUS_INTERNAL_ERROR;
        return;
    }
    RtlCopyMemory(Request.Buffer + 6, &id, sizeof(id)); /* behind the MAC: not aligned */
    Request.Information = 10;
}

/*
 * GET_EVENT: the oldest queued event, with the adapter handle its first bytes
 * of text may carry replaced by that handle's identifier, or zeroes and no
 * bytes when none is queued.
 */
VOID GetEvent(ControlRequest &Request)
{
    NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_GET_EVENT\n");
    if (!Request.OutputAtLeast(FILTER_EVENT_RECORD_SIZE))
        return;
    PUCHAR out = Request.Buffer;
    RtlZeroMemory(out, FILTER_EVENT_RECORD_SIZE);
    if (!NdisFilter_TakeEvent(out))
        return;

    /* 34 bytes from offset 12: the 8-byte handle at 16 becomes a 4-byte id, the rest moves up by 4. */
    const ULONG rewritten = 34;
    PUCHAR old = (PUCHAR)ExAllocatePool(NonPagedPool, rewritten + 4);
    if (old == NULL) {
        NF_TRACE(NF_DBG_CORE, "    call ExAllocatePool func failure.\n");
        Request.Status = STATUS_INSUFFICIENT_RESOURCES;
        return;
    }
    RtlCopyMemory(old, out + 12, rewritten + 4);
    ULONG id = 0;
    PFilterAdapter handle; /* at an odd offset of the record: copied out, not loaded in place */
    RtlCopyMemory(&handle, old + 4, sizeof(handle));
    if (Filter_AdapterToId(handle, &id) != FILTER_STATUS_SUCCESS) {
        NF_TRACE(NF_DBG_CORE, "    call Filter_AdapterToId func failure.\n");
        Request.Status = STATUS_INTERNAL_ERROR;
        ExFreePool(old);
        return;
    }
    *(ULONG UNALIGNED *)(out + 16) = id;
    RtlCopyMemory(out + 20, old + 12, 8);  /* old u64 at 24 */
    RtlCopyMemory(out + 28, old + 20, 8);  /* old u64 at 32 */
    RtlCopyMemory(out + 36, old + 28, 2);  /* old u16 at 40 */
    RtlCopyMemory(out + 38, old + 30, 4);  /* old u32 at 42 */
    RtlCopyMemory(out + 42, old + 34, 4);  /* old u32 at 46 */
    ExFreePool(old);
    Request.Information = FILTER_EVENT_RECORD_SIZE;
}

/*
 * DIAG: one diagnostic command. The framework answers its own; any other goes
 * on to the hook driver and the client drivers' handlers, which reply into
 * the same record. A prepared diagnostic always succeeds with the header and
 * the text; one that could not be prepared succeeds with nothing.
 */
VOID OfferUnknownCode(ControlRequest &Request);

VOID Diagnose(ControlRequest &Request)
{
    if (Filter_PrepareDiag(Request.Buffer, Request.InputLength, Request.Buffer, Request.OutputLength) !=
        FILTER_STATUS_SUCCESS)
        return;
    Request.Status = NdisFilter_DiagHandler(Request.Buffer, Request.InputLength, Request.Buffer,
                                            Request.OutputLength);
    if (Request.Status != STATUS_SUCCESS)
        OfferUnknownCode(Request);
    ULONG returned = Filter_EndDiag();
    /* A handler that kept the request pending completes it itself. */
    if (Request.Status == STATUS_PENDING)
        return;
    Request.Status = STATUS_SUCCESS;
    Request.Information = returned;
}

/*
 * SET_CONGESTION_CONTROL: stores a new m_nInjectPacketMax without further
 * checks. An input too short to hold the value leaves the old one in place.
 */
VOID SetCongestionControl(ControlRequest &Request)
{
    ULONG maximum = g_pGlobal->m_nInjectPacketMax;
    if (Request.Buffer != NULL && Request.InputLength >= sizeof(ULONG))
        maximum = *(ULONG UNALIGNED *)Request.Buffer;
    NF_PRINT("  IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL\n");
    NF_PRINT("  - InjectPacketMax = %d\n", (int)maximum);
    g_pGlobal->m_nInjectPacketMax = maximum;
}

/*
 * The buffers a control code really has, by its transfer type: buffered codes
 * share the system buffer; direct codes read from the system buffer and write
 * to the pages of the request's MDL; METHOD_NEITHER codes carry user-mode
 * addresses, which are never handed on: they get no buffers at all.
 */
VOID RequestBuffers(const ControlRequest &Request, PVOID *Input, ULONG *InputLength, PVOID *Output,
                    ULONG *OutputLength)
{
    *Input = NULL;
    *InputLength = 0;
    *Output = NULL;
    *OutputLength = 0;
    switch (Request.Code & 3) { /* the transfer type: the low two bits of the code */
    case METHOD_BUFFERED:
        *Input = Request.Buffer;
        *InputLength = Request.Buffer != NULL ? Request.InputLength : 0;
        *Output = Request.Buffer;
        *OutputLength = Request.Buffer != NULL ? Request.OutputLength : 0;
        break;
    case METHOD_IN_DIRECT:
    case METHOD_OUT_DIRECT:
        *Input = Request.Buffer;
        *InputLength = Request.Buffer != NULL ? Request.InputLength : 0;
        if (Request.Irp->MdlAddress != NULL) {
            *Output = MmGetSystemAddressForMdlSafe(Request.Irp->MdlAddress, NormalPagePriority);
            if (*Output != NULL)
                *OutputLength = MmGetMdlByteCount(Request.Irp->MdlAddress);
        }
        break;
    default:
        break;
    }
}

/*
 * A code the framework does not know: the hook driver's handler may claim it
 * (any status but STATUS_NOT_SUPPORTED). A fault in the handler is reported
 * and the code stays unclaimed. The bytes it reports are bounded by the
 * output it was given.
 */
VOID OfferToHookDriver(ControlRequest &Request)
{
    PHOOK_HANDLE_IO_CONTROL handler = g_pGlobal->m_NdisHookAPI.Hook_HandleIoControl;
    if (handler == NULL)
        return;
    PVOID input, output;
    ULONG inputLength, outputLength;
    RequestBuffers(Request, &input, &inputLength, &output, &outputLength);
    ULONG returned = 0;
    NTSTATUS status = STATUS_NOT_SUPPORTED;
    LONG code = FilterGuard([&] {
        status = handler(Request.Code, input, inputLength, output, outputLength, &returned);
    });
    if (code != 0) {
        NF_PRINT("NdisFilterIoControl: exception in hook, code = %d\n", (int)code);
        return;
    }
    Request.Status = status;
    if (status != STATUS_NOT_SUPPORTED)
        Request.Information = returned < outputLength ? returned : outputLength;
}

/* Then to the client drivers' handlers, with the same buffers. */
VOID OfferToClientDrivers(ControlRequest &Request)
{
    PVOID input, output;
    ULONG inputLength, outputLength;
    RequestBuffers(Request, &input, &inputLength, &output, &outputLength);
    NdisFilter_OfferToIoCtrlHandlers(Request.Irp, Request.Code, input, inputLength, output, outputLength,
                                     &Request.Status, &Request.Information);
}

/* Offers a code the framework does not answer itself to the hook driver, then to the client drivers' handlers. */
VOID OfferUnknownCode(ControlRequest &Request)
{
    OfferToHookDriver(Request);
    if (Request.Status == STATUS_NOT_SUPPORTED)
        OfferToClientDrivers(Request);
}

} // namespace

/*
 * NdisFilterIoControl - the device-control dispatch routine of the control
 * device. Returns the status it completed the request with. IRQL = PASSIVE_LEVEL.
 */
EXTERN_C NTSTATUS NTAPI NdisFilterIoControl(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    UNREFERENCED_PARAMETER(DeviceObject);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    ControlRequest request;
    request.Irp = Irp;
    request.Code = stack->Parameters.DeviceIoControl.IoControlCode;
    request.Buffer = (PUCHAR)Irp->AssociatedIrp.SystemBuffer;
    request.InputLength = stack->Parameters.DeviceIoControl.InputBufferLength;
    request.OutputLength = stack->Parameters.DeviceIoControl.OutputBufferLength;
    request.Status = STATUS_SUCCESS;
    request.Information = 0;

    NF_TRACE(NF_DBG_CORE, "Enter NdisFilterIoControl\n");
    NF_TRACE(NF_DBG_CORE, "  - ControlCode - 0x%x\n", (unsigned)request.Code);
    NF_TRACE(NF_DBG_CORE, "  - InputBufferLength - 0x%x\n", (unsigned)request.InputLength);
    NF_TRACE(NF_DBG_CORE, "  - OutputBufferLength - 0x%x\n", (unsigned)request.OutputLength);
    Irp->IoStatus.Status = STATUS_SUCCESS;
    Irp->IoStatus.Information = 0;

    switch (request.Code) {
    case IOCTL_NDIS_FILTER_GET_VERSION:
        GetVersion(request);
        break;
    case IOCTL_NDIS_FILTER_START_SHARE:
        StartShare(request);
        break;
    case IOCTL_NDIS_FILTER_STOP_SHARE:
        NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_STOP_SHARE\n");
        NdisFilter_StopShare(Irp);
        break;
    case IOCTL_NDIS_FILTER_READ_SHARE:
        NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_READ_SHARE\n");
        request.Status = NdisFilter_IOCtrlReadShare(Irp);
        break;
    case IOCTL_NDIS_FILTER_WRITE_SHARE:
        NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_WRITE_SHARE\n");
        NdisFilter_IOCtrlWriteShare(Irp); /* refused or not, the request succeeds */
        break;
    case IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE:
        PutSharedMemorySize(request);
        break;
    case IOCTL_NDIS_FILTER_START_ETHRLOG:
        NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_START_ETHRLOG\n");
        NdisFilter_StartEthrLog();
        break;
    case IOCTL_NDIS_FILTER_STOP_ETHRLOG:
        NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_STOP_ETHRLOG\n");
        NdisFilter_StopEthrLog();
        break;
    case IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL:
        SetCongestionControl(request);
        break;
    case IOCTL_NDIS_FILTER_GET_EVENT:
        GetEvent(request);
        break;
    case IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES:
        GetTcpIpInterfaces(request);
        break;
    case IOCTL_NDIS_FILTER_SET_IPCONFIG:
        SetIpConfig(request);
        break;
    case IOCTL_NDIS_FILTER_GET_IPCONFIG:
        GetIpConfig(request);
        break;
    case IOCTL_NDIS_FILTER_SET_MEDIA_STATUS:
        NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_SET_IPCONFIG\n"); /* the name it has always traced */
        SetByMac(request, Filter_SetAdapterMediaStateByMac);
        break;
    case IOCTL_NDIS_FILTER_GET_MEDIA_STATUS:
        NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_GET_MEDIA_STATUS\n");
        GetByMac<ULONG>(request, Filter_GetAdapterMediaStateByMac);
        break;
    case IOCTL_NDIS_FILTER_SET_PACKET_DUMP:
        NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_SET_PACKET_DUMP\n");
        SetByMac(request, SetPacketDumpByMac);
        break;
    case IOCTL_NDIS_FILTER_GET_PACKET_DUMP:
        NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_GET_PACKET_DUMP\n");
        GetByMac<BOOLEAN>(request, Filter_GetAdapterPacketDump);
        break;
    case IOCTL_NDIS_FILTER_GET_ADAPTER:
        GetAdapter(request);
        break;
    case IOCTL_NDIS_FILTER_CLEAR_EVENT:
        NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_GET_EVENT\n"); /* the name it has always traced */
        NdisFilter_ClearEvents();
        break;
    case IOCTL_NDIS_FILTER_GET_DBGFLAG:
        NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_GET_DBGFLAG\n");
        if (g_RegistryPath.Buffer != NULL)
            Filter_SafeGetGlobalDebugFlag(&g_RegistryPath, 0, (PULONG)&GlobalDebugFlag);
        break;
    case IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION:
        NF_TRACE(NF_DBG_CORE, "  IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION\n");
        NdisFilter_DumpDeviceExtension();
        break;
    case IOCTL_NDIS_FILTER_DIAG:
        Diagnose(request);
        break;
    default:
        request.Status = STATUS_NOT_SUPPORTED;
        OfferUnknownCode(request);
        break;
    }

    if (request.Status != STATUS_PENDING) {
        Irp->IoStatus.Status = request.Status;
        Irp->IoStatus.Information = request.Information;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
    }
    NF_TRACE(NF_DBG_CORE, "Leave NdisFilterIoControl\n");
    return request.Status;
}
