/*
 * ndisfilter-adapter-property.cpp - what client drivers and the control
 * requests read and set on an adapter: addresses, medium, media state, name,
 * MTU, the PPP addresses, congestion control and packet dumps, the adapters
 * bound to TCP/IP, media state by MAC address (through the hook driver) and
 * the adapter's IP configuration with its change event.
 *
 * Adapter handles are checked by tag; every read or write of the adapter
 * record and of a caller's buffer runs under the fault guard. Callers'
 * records are copied in before they are used.
 */
#include "precomp.h"
#include "ndisfilter-global.h"

#define NF_ADAPTER_POOL_TAG 0x6441664E /* "NfAd" */
#define NF_MAC_LENGTH 6

C_ASSERT(sizeof(AdapterList) == FILTER_ADAPTER_LIST_SIZE);

namespace {

/*
 * The error and Leave lines of a function that returns a FILTER_STATUS and
 * prints its own Enter line (whose name may differ from the Leave line's).
 */
class LeaveTrace {
public:
    LeaveTrace(PCSTR name, const FILTER_STATUS &status) : m_name(name), m_status(status) {}
    ~LeaveTrace()
    {
        if (m_status != FILTER_STATUS_SUCCESS)
            NF_TRACE_ERROR(NF_DBG_ADAPTER, m_status);
        NF_TRACE(NF_DBG_ADAPTER, "Leave %s, %d-%s\n", m_name, (int)m_status, Filter_StatusString(m_status));
    }
    LeaveTrace(const LeaveTrace &) = delete;
    LeaveTrace &operator=(const LeaveTrace &) = delete;

private:
    PCSTR m_name;
    const FILTER_STATUS &m_status;
};

/*
 * The common frame of the getters and setters taking an adapter handle and a
 * data pointer: NULL either is an argument error, a bad handle is refused,
 * and Access(adapter) runs under the fault guard.
 */
template <typename Access>
FILTER_STATUS OnAdapter(PCSTR Name, PFilterAdapter Adapter, const VOID *Data, Access &&access)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_ADAPTER, Name, status);
    if (Adapter == NULL || Data == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
    } else if (!Filter_IsValidAdapter(Adapter)) {
        status = FILTER_ERROR_INVALID_ADAPTER_HANDLE;
    } else if (LONG code = FilterGuard([&] { status = access(Adapter); })) {
        NF_PRINT("%s: exception, code = %d\n", Name, (int)code);
        status = FILTER_ERROR_EXCEPTION;
    }
    return status;
}

/* Copies a PPP address out; an all-zero one has not been set yet. Runs under the guard. */
FILTER_STATUS CopyPPPAddress(const UCHAR *Address, PUCHAR Out)
{
    UCHAR any = 0;
    for (ULONG i = 0; i < NF_MAC_LENGTH; i++) {
        Out[i] = Address[i];
        any |= Address[i];
    }
    return any != 0 ? FILTER_STATUS_SUCCESS : FILTER_ERROR_ADAPTER_NOT_OPEN;
}

/* Copies a MAC address of the caller's into Copy; FALSE (printed under Name) when it cannot be read. */
BOOLEAN CopyInMac(PCSTR Name, const UCHAR *Mac, UCHAR (&Copy)[NF_MAC_LENGTH])
{
    LONG code = FilterGuard([&] { RtlCopyMemory(Copy, Mac, NF_MAC_LENGTH); });
    if (code != 0) {
        NF_PRINT("%s: exception, code = %d\n", Name, (int)code);
        return FALSE;
    }
    return TRUE;
}

/*
 * Runs Access(adapter) on the adapter whose current address is Mac, for the
 * packet-dump setting. The adapter lookup decides; its "not found" is the answer.
 */
template <typename Access>
FILTER_STATUS OnAdapterByMac(PCSTR Name, const UCHAR *Mac, Access &&access)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_ADAPTER, Name, status);
    UCHAR mac[NF_MAC_LENGTH];
    PFilterAdapter adapter = NULL;
    if (!CopyInMac(Name, Mac, mac)) {
        status = FILTER_ERROR_EXCEPTION;
    } else {
        status = Filter_FindAdapterByMacAddress(mac, &adapter);
        if (status == FILTER_STATUS_SUCCESS) {
            LONG code = FilterGuard([&] { access(adapter); });
            if (code != 0) {
                NF_PRINT("%s: exception, code = %d\n", Name, (int)code);
                status = FILTER_ERROR_EXCEPTION;
            }
        }
    }
    return status;
}

/* Prints one address line of the IP configuration dump. */
VOID DumpAddress(PCSTR Format, ULONG Index, ULONG Address)
{
    CHAR text[16];
    NF_TRACE(NF_DBG_ADAPTER, Format, (int)Index, inet_ntoa(Address, text, sizeof(text)));
}

/* The number of entries of a list the dump prints: its count, never more than the list holds. */
ULONG Bounded(ULONG Count)
{
    return Count < FILTER_MAX_IPCONFIG_ENTRIES ? Count : FILTER_MAX_IPCONFIG_ENTRIES;
}

/* The IP configuration dump (debug bit 0x1) of a record the framework owns or has copied. */
VOID DumpIPConfig(const IPConfig *Config)
{
    if (!NF_TRACE_ON(NF_DBG_ADAPTER))
        return;
    CHAR text[16];
    NF_TRACE(NF_DBG_ADAPTER, "- hAdapter = 0x%p\n", (PVOID)Config->hAdapter);
    NF_TRACE(NF_DBG_ADAPTER, "- m_nIP    = %d\n", (int)Config->m_nIP);
    for (ULONG i = 0; i < Bounded(Config->m_nIP); i++) {
        DumpAddress("- IpAddress[%d] = %s\n", i, Config->m_IP[i].IpAddress);
        DumpAddress("- Netmask[%d]   = %s\n", i, Config->m_IP[i].Netmask);
        DumpAddress("- Broadcast[%d] = %s\n", i, Config->m_IP[i].Broadcast);
    }
    NF_TRACE(NF_DBG_ADAPTER, "- m_nGW    = %d\n", (int)Config->m_nGW);
    for (ULONG i = 0; i < Bounded(Config->m_nGW); i++)
        DumpAddress("- RouterAddr[%d] = %s\n", i, Config->RouterAddr[i]);
    NF_TRACE(NF_DBG_ADAPTER, "- m_nDHCP  = %d\n", (int)Config->m_nDHCP);
    for (ULONG i = 0; i < Bounded(Config->m_nDHCP); i++)
        DumpAddress("- DhcpServer[%d] = %s\n", i, Config->DhcpServer[i]);
    NF_TRACE(NF_DBG_ADAPTER, "- m_nDNS   = %d\n", (int)Config->m_nDNS);
    for (ULONG i = 0; i < Bounded(Config->m_nDNS); i++)
        DumpAddress("- DnsServer[%d]  = %s\n", i, Config->DnsServer[i]);
    NF_TRACE(NF_DBG_ADAPTER, "- WinsServer1 = %s\n", inet_ntoa(Config->WinsServer1, text, sizeof(text)));
    /* The second line shows the first server again; user tools parse it that way. */
    NF_TRACE(NF_DBG_ADAPTER, "- WinsServer2 = %s\n", inet_ntoa(Config->WinsServer1, text, sizeof(text)));
}

/* TRUE when every count of the record fits its list. */
BOOLEAN CountsFit(const IPConfig *Config)
{
    return Config->m_nIP <= FILTER_MAX_IPCONFIG_ENTRIES && Config->m_nGW <= FILTER_MAX_IPCONFIG_ENTRIES &&
           Config->m_nDHCP <= FILTER_MAX_IPCONFIG_ENTRIES && Config->m_nDNS <= FILTER_MAX_IPCONFIG_ENTRIES;
}

} // namespace

/* ---- read-only properties. IRQL <= DISPATCH_LEVEL. ---- */

EXTERN_C FILTER_STATUS NTAPI Filter_GetAdapterCurrentAddress(PFilterAdapter Adapter, PUCHAR Address)
{
    return OnAdapter("Filter_GetAdapterCurrentAddress", Adapter, Address, [&](PFilterAdapter adapter) {
        RtlCopyMemory(Address, adapter->m_CurrentAddress, NF_MAC_LENGTH);
        return (FILTER_STATUS)FILTER_STATUS_SUCCESS;
    });
}

EXTERN_C FILTER_STATUS NTAPI Filter_GetAdapterPermentAddress(PFilterAdapter Adapter, PUCHAR Address)
{
    return OnAdapter("Filter_GetAdapterPermentAddress", Adapter, Address, [&](PFilterAdapter adapter) {
        RtlCopyMemory(Address, adapter->m_PermanentAddress, NF_MAC_LENGTH);
        return (FILTER_STATUS)FILTER_STATUS_SUCCESS;
    });
}

/* Filter_GetAdapterMediaState - the media state as the hook driver keeps it in the record. */
EXTERN_C FILTER_STATUS NTAPI Filter_GetAdapterMediaState(PFilterAdapter Adapter, PULONG State)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    /* The Enter line carries the function's older name; the Leave line its own. */
    NF_TRACE(NF_DBG_ADAPTER, "Enter Filter_GetAdapterState\n");
    LeaveTrace trace("Filter_GetAdapterMediaState", status);
    if (Adapter == NULL || State == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
    } else if (!Filter_IsValidAdapter(Adapter)) {
        status = FILTER_ERROR_INVALID_ADAPTER_HANDLE;
    } else if (LONG code = FilterGuard([&] { *State = Adapter->m_nAdapterMediaState; })) {
        NF_PRINT_EXCEPTION("Filter_GetAdapterMediaState", code);
        status = FILTER_ERROR_EXCEPTION;
    }
    return status;
}

EXTERN_C FILTER_STATUS NTAPI Filter_GetAdapterMediumType(PFilterAdapter Adapter, PULONG Medium)
{
    return OnAdapter("Filter_GetAdapterMediumType", Adapter, Medium, [&](PFilterAdapter adapter) {
        *Medium = adapter->m_nAdapterMedium;
        return (FILTER_STATUS)FILTER_STATUS_SUCCESS;
    });
}

EXTERN_C FILTER_STATUS NTAPI Filter_IsNdisWanAdapter(PFilterAdapter Adapter, PBOOLEAN NdisWan)
{
    return OnAdapter("Filter_IsNdisWanAdapter", Adapter, NdisWan, [&](PFilterAdapter adapter) {
        *NdisWan = adapter->m_bNdisWanAdapter;
        return (FILTER_STATUS)FILTER_STATUS_SUCCESS;
    });
}

/*
 * Filter_GetAdapterMtu - the handle is tested before the output pointer, so a
 * NULL handle is an invalid adapter, not an argument error.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_GetAdapterMtu(PFilterAdapter Adapter, PUSHORT Mtu)
{
    NF_ENTER(NF_DBG_ADAPTER, "Filter_GetAdapterMtu");
    if (!Filter_IsValidAdapter(Adapter)) {
        NF_LEAVE(NF_DBG_ADAPTER, "Filter_GetAdapterMtu, Invalid adapter");
        return FILTER_ERROR_INVALID_ADAPTER_HANDLE;
    }
    if (Mtu == NULL) {
        NF_LEAVE(NF_DBG_ADAPTER, "Filter_GetAdapterMtu, Invalid argument");
        return FILTER_ERROR_INVALID_ARGUMENT;
    }
    USHORT mtu = 0;
    LONG code = FilterGuard([&] {
        mtu = Adapter->m_usMTU;
        *Mtu = mtu;
    });
    if (code != 0) {
        NF_PRINT_EXCEPTION("Filter_GetAdapterMtu", code);
        return FILTER_ERROR_EXCEPTION;
    }
    NF_TRACE(NF_DBG_ADAPTER, "Leave Filter_GetAdapterMtu, %d\n", (int)mtu);
    return FILTER_STATUS_SUCCESS;
}

/*
 * Filter_GetAdapterName - a copy of the adapter's name in one block the
 * caller frees with Filter_FreeMemory: the UNICODE_STRING, then the text and
 * a zero character. When memory is short the answer is success and *Name is
 * not written; so it is for a name too long for a UNICODE_STRING to carry
 * its terminator (MaximumLength would wrap).
 */
EXTERN_C FILTER_STATUS NTAPI Filter_GetAdapterName(PFilterAdapter Adapter, PUNICODE_STRING *Name)
{
    return OnAdapter("Filter_GetAdapterName", Adapter, Name, [&](PFilterAdapter adapter) {
        UNICODE_STRING source = adapter->m_AdapterName;
        if ((ULONG)source.Length + sizeof(WCHAR) > 0xFFFF)
            return (FILTER_STATUS)FILTER_STATUS_SUCCESS;
        PUNICODE_STRING copy = (PUNICODE_STRING)Filter_AllocateMemory(
            (ULONG)source.Length + sizeof(UNICODE_STRING) + sizeof(WCHAR), NF_ADAPTER_POOL_TAG);
        if (copy == NULL)
            return (FILTER_STATUS)FILTER_STATUS_SUCCESS;
        PUCHAR text = (PUCHAR)(copy + 1);
        copy->Length = source.Length;
        copy->MaximumLength = (USHORT)(source.Length + sizeof(WCHAR));
        copy->Buffer = (PWCH)text;
        text[source.Length] = 0;
        text[source.Length + 1] = 0;
        /* The block is the caller's from here on, even when the name cannot be read. */
        *Name = copy;
        if (source.Length != 0)
            RtlCopyMemory(text, source.Buffer, source.Length);
        return (FILTER_STATUS)FILTER_STATUS_SUCCESS;
    });
}

/* ---- PPP addresses, congestion control ---- */

/* Filter_GetAdapterPPPSrcMacAddress - copied out; FILTER_ERROR_ADAPTER_NOT_OPEN while it is all zero. */
EXTERN_C FILTER_STATUS NTAPI Filter_GetAdapterPPPSrcMacAddress(PFilterAdapter Adapter, PUCHAR Address)
{
    return OnAdapter("Filter_GetAdapterPPPSrcMacAddress", Adapter, Address, [&](PFilterAdapter adapter) {
        return CopyPPPAddress(adapter->m_PPPSrcMacAddress, Address);
    });
}

EXTERN_C FILTER_STATUS NTAPI Filter_GetAdapterPPPDstMacAddress(PFilterAdapter Adapter, PUCHAR Address)
{
    return OnAdapter("Filter_GetAdapterPPPDstMacAddress", Adapter, Address, [&](PFilterAdapter adapter) {
        return CopyPPPAddress(adapter->m_PPPDstMacAddress, Address);
    });
}

/* Filter_SetAdapterPPPSrcMacAddress - stores the address and prints it whatever the mask. */
EXTERN_C FILTER_STATUS NTAPI Filter_SetAdapterPPPSrcMacAddress(PFilterAdapter Adapter, const UCHAR *Address)
{
    return OnAdapter("Filter_SetAdapterPPPSrcMacAddress", Adapter, Address, [&](PFilterAdapter adapter) {
        PUCHAR a = adapter->m_PPPSrcMacAddress;
        RtlCopyMemory(a, Address, NF_MAC_LENGTH);
        NF_PRINT("Set PPPSrcMacAddress = %2.2x-%2.2x-%2.2x-%2.2x-%2.2x-%2.2x\n", a[0], a[1], a[2], a[3], a[4],
                 a[5]);
        return (FILTER_STATUS)FILTER_STATUS_SUCCESS;
    });
}

EXTERN_C FILTER_STATUS NTAPI Filter_SetAdapterPPPDstMacAddress(PFilterAdapter Adapter, const UCHAR *Address)
{
    return OnAdapter("Filter_SetAdapterPPPDstMacAddress", Adapter, Address, [&](PFilterAdapter adapter) {
        PUCHAR a = adapter->m_PPPDstMacAddress;
        RtlCopyMemory(a, Address, NF_MAC_LENGTH);
        NF_PRINT("Set PPPDstMacAddress = %2.2x-%2.2x-%2.2x-%2.2x-%2.2x-%2.2x\n", a[0], a[1], a[2], a[3], a[4],
                 a[5]);
        return (FILTER_STATUS)FILTER_STATUS_SUCCESS;
    });
}

/* Filter_SetAdapterCongestionControl - the flag is stored as given; only the handle is checked. */
EXTERN_C FILTER_STATUS NTAPI Filter_SetAdapterCongestionControl(PFilterAdapter Adapter, BOOLEAN Enable)
{
    /* The flag is passed as the "data" so that only a NULL handle is an argument error. */
    return OnAdapter("Filter_SetAdapterCongestionControl", Adapter, (const VOID *)Adapter,
                     [&](PFilterAdapter adapter) {
                         adapter->m_bCongestionControl = Enable;
                         return (FILTER_STATUS)FILTER_STATUS_SUCCESS;
                     });
}

/* ---- packet dump by MAC address ---- */

/* Filter_GetAdapterPacketDump - the dump flag of the adapter whose current address is Mac. */
EXTERN_C FILTER_STATUS NTAPI Filter_GetAdapterPacketDump(const UCHAR *Mac, PBOOLEAN Dump)
{
    if (Mac == NULL || Dump == NULL) {
        FILTER_STATUS status = FILTER_ERROR_INVALID_ARGUMENT;
        NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_GetAdapterPacketDump", status);
        return status;
    }
    return OnAdapterByMac("Filter_GetAdapterPacketDump", Mac,
                          [&](PFilterAdapter adapter) { *Dump = adapter->m_bPacketDump; });
}

/* Filter_SetAdapterPacketDump - switches the dump of the adapter whose current address is Mac. */
EXTERN_C FILTER_STATUS NTAPI Filter_SetAdapterPacketDump(const UCHAR *Mac, BOOLEAN Dump)
{
    if (Mac == NULL) {
        FILTER_STATUS status = FILTER_ERROR_INVALID_ARGUMENT;
        NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_SetAdapterPacketDump", status);
        return status;
    }
    return OnAdapterByMac("Filter_SetAdapterPacketDump", Mac,
                          [&](PFilterAdapter adapter) { adapter->m_bPacketDump = Dump; });
}

/* ---- adapters bound to TCP/IP ---- */

/*
 * Filter_GetTcpIpBoundAdapters - a ULONG count and up to FILTER_MAX_ADAPTERS
 * AdapterInfo entries (FILTER_ADAPTER_LIST_SIZE bytes at most) as the hook
 * driver reports them now. The hook driver fills a block of the framework's,
 * which is then copied to the caller, so a bad buffer never faults inside
 * the hook driver; FILTER_ERROR_OUT_OF_MEMORY when that block cannot be had.
 * IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_GetTcpIpBoundAdapters(PVOID Buffer)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_GetTcpIpBoundAdapters", status);
    if (Buffer == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }

    AdapterList *list = NULL;
    {
        NfHookReference hook;
        PHOOK_GET_TCPIP_BOUND_ADAPTERS get = hook.Get(&NdisHookAPI::Hook_GetTcpIpBoundAdapters);
        if (get == NULL) {
            status = FILTER_ERROR_INTERFACE_NOT_ACTIVE;
            return status;
        }
        if (NdisAllocateMemoryWithTag((PVOID *)&list, sizeof(*list), NF_ADAPTER_POOL_TAG) != NDIS_STATUS_SUCCESS ||
            list == NULL) {
            status = FILTER_ERROR_OUT_OF_MEMORY;
            return status;
        }
        list->m_nAdapterCount = 0;
        LONG code = FilterGuard([&] { get(list); });
        if (code != 0) {
            NF_PRINT("Hook_GetTcpIpBoundAdapters: exception, code = %d\n", (int)code);
            list->m_nAdapterCount = 0;
        }
    }
    if (list->m_nAdapterCount > FILTER_MAX_ADAPTERS)
        list->m_nAdapterCount = FILTER_MAX_ADAPTERS;
    ULONG length = FIELD_OFFSET(AdapterList, m_Adapters) + list->m_nAdapterCount * sizeof(AdapterInfo);
    LONG code = FilterGuard([&] { RtlCopyMemory(Buffer, list, length); });
    if (code != 0) {
        NF_PRINT_EXCEPTION("Filter_GetTcpIpBoundAdapters", code);
        status = FILTER_ERROR_EXCEPTION;
    }
    NdisFreeMemory(list, sizeof(*list), 0);
    return status;
}

/* ---- IP configuration ---- */

/*
 * Filter_SetIPConfig - stores the configuration in the adapter it names.
 * Broadcasts are recomputed from addresses and masks (and written back into
 * the caller's record) before the comparison, so a record that differs only
 * in them is no change. A change is dumped and delivered to every event
 * handler as FILTER_EVENT_IPCONFIG_CHANGED. A count above
 * FILTER_MAX_IPCONFIG_ENTRIES is an argument error. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_SetIPConfig(PIPConfig Config)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_SetIPConfig", status);
    if (Config == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }

    IPConfig copy;
    LONG code = FilterGuard([&] { RtlCopyMemory(&copy, Config, sizeof(copy)); });
    if (code != 0) {
        NF_PRINT_EXCEPTION("Filter_SetIPConfig", code);
        status = FILTER_ERROR_EXCEPTION;
        return status;
    }
    PFilterAdapter adapter = copy.hAdapter;
    if (adapter == NULL || !Filter_IsValidAdapter(adapter)) {
        status = FILTER_ERROR_INVALID_ADAPTER_HANDLE;
        return status;
    }
    if (!CountsFit(&copy)) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }

    for (ULONG i = 0; i < copy.m_nIP; i++) {
        IPAddressTriple *triple = &copy.m_IP[i];
        triple->Broadcast = (triple->IpAddress & triple->Netmask) | ~triple->Netmask;
    }
    BOOLEAN changed = FALSE;
    code = FilterGuard([&] {
        for (ULONG i = 0; i < copy.m_nIP; i++)
            Config->m_IP[i].Broadcast = copy.m_IP[i].Broadcast;
        if (RtlCompareMemory(&adapter->m_IPConfig, &copy, sizeof(copy)) != sizeof(copy)) {
            RtlCopyMemory(&adapter->m_IPConfig, &copy, sizeof(copy));
            changed = TRUE;
        }
    });
    if (code != 0) {
        NF_PRINT_EXCEPTION("Filter_SetIPConfig", code);
        status = FILTER_ERROR_EXCEPTION;
        return status;
    }
    if (!changed) {
        NF_TRACE(NF_DBG_ADAPTER, "No IP Address change, ignore\n");
        return status;
    }
    DumpIPConfig(&copy);
    NdisFilter_DeliverAdapterEvent("Filter_SetIPConfig", FILTER_EVENT_IPCONFIG_CHANGED, adapter);
    return status;
}

/*
 * Filter_GetIPConfig - copies the adapter's configuration to Config when it
 * is given and returns the address of the adapter's own record (read in
 * place at the caller's risk), or NULL for a bad handle. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C PIPConfig NTAPI Filter_GetIPConfig(PFilterAdapter Adapter, PIPConfig Config)
{
    NF_ENTER(NF_DBG_ADAPTER, "Filter_GetIPConfig");
    if (!Filter_IsValidAdapter(Adapter)) {
        NF_LEAVE(NF_DBG_ADAPTER, "Filter_GetIPConfig, Invalid adapter");
        return NULL;
    }
    IPConfig copy;
    LONG code = FilterGuard([&] {
        RtlCopyMemory(&copy, &Adapter->m_IPConfig, sizeof(copy));
        if (Config != NULL)
            RtlCopyMemory(Config, &copy, sizeof(copy));
    });
    if (code != 0) {
        NF_PRINT_EXCEPTION("Filter_GetIPConfig", code);
        return NULL;
    }
    DumpIPConfig(&copy);
    NF_TRACE(NF_DBG_ADAPTER, "Leave Filter_GetIPConfig, 0x%p\n", (PVOID)&Adapter->m_IPConfig);
    return &Adapter->m_IPConfig;
}

/* ---- media state by MAC address, through the hook driver ---- */

namespace {

/* The hook driver's answer as a framework status. */
FILTER_STATUS MapHookStatus(NTSTATUS Status)
{
    if (Status == (NTSTATUS)NDIS_STATUS_ADAPTER_NOT_FOUND)
        return FILTER_ERROR_ADAPTER_NOT_FOUND;
    if (Status == (NTSTATUS)STATUS_INSUFFICIENT_RESOURCES)
        return FILTER_ERROR_OUT_OF_MEMORY;
    return FILTER_STATUS_SUCCESS;
}

} // namespace

/*
 * Filter_GetAdapterMediaStateByMac - the media state the hook driver reports
 * for the adapter whose current address is Mac (a ULONG, NDIS_MEDIA_STATE).
 * IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_GetAdapterMediaStateByMac(const UCHAR *Mac, PULONG State)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_GetAdapterMediaStateByMac", status);
    UCHAR mac[NF_MAC_LENGTH];
    if (Mac == NULL || State == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    NfHookReference hook;
    PHOOK_GET_ADAPTER_STATUS get = hook.Get(&NdisHookAPI::Hook_GetAdapterStatus);
    if (get == NULL) {
        status = FILTER_ERROR_INTERFACE_NOT_ACTIVE;
    } else if (!CopyInMac("Filter_GetAdapterMediaStateByMac", Mac, mac)) {
        status = FILTER_ERROR_EXCEPTION;
    } else {
        ULONG state = 0;
        NTSTATUS answer = STATUS_SUCCESS;
        LONG code = FilterGuard([&] { answer = get(mac, &state); });
        if (code != 0) {
            NF_PRINT("Hook_GetAdapterStatus: exception, code = %d\n", (int)code);
            status = FILTER_ERROR_EXCEPTION;
        } else {
            status = MapHookStatus(answer);
            if (status == FILTER_STATUS_SUCCESS &&
                (code = FilterGuard([&] { *State = state; })) != 0) {
                NF_PRINT_EXCEPTION("Filter_GetAdapterMediaStateByMac", code);
                status = FILTER_ERROR_EXCEPTION;
            }
        }
    }
    return status;
}

/*
 * Filter_SetAdapterMediaStateByMac - has the hook driver force the media
 * state of the adapter whose current address is Mac; the adapter's status
 * indication of a change arrives before this returns. IRQL <= DISPATCH_LEVEL.
 */
EXTERN_C FILTER_STATUS NTAPI Filter_SetAdapterMediaStateByMac(const UCHAR *Mac, UCHAR State)
{
    FILTER_STATUS status = FILTER_STATUS_SUCCESS;
    NfStatusTrace trace(NF_DBG_ADAPTER, "Filter_SetAdapterMediaStateByMac", status);
    UCHAR mac[NF_MAC_LENGTH];
    if (Mac == NULL) {
        status = FILTER_ERROR_INVALID_ARGUMENT;
        return status;
    }
    NfHookReference hook;
    PHOOK_SET_ADAPTER_STATUS set = hook.Get(&NdisHookAPI::Hook_SetAdapterStatus);
    if (set == NULL) {
        status = FILTER_ERROR_INTERFACE_NOT_ACTIVE;
    } else if (!CopyInMac("Filter_SetAdapterMediaStateByMac", Mac, mac)) {
        status = FILTER_ERROR_EXCEPTION;
    } else {
        NTSTATUS answer = STATUS_SUCCESS;
        LONG code = FilterGuard([&] { answer = set(mac, State); });
        if (code != 0) {
            NF_PRINT("Hook_SetAdapterStatus: exception, code = %d\n", (int)code);
            status = FILTER_ERROR_EXCEPTION;
        } else {
            status = MapHookStatus(answer);
        }
    }
    return status;
}
