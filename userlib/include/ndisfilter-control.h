/*
 * ndisfilter-control.h - the framework's control requests as a user program
 * sends them: version, the adapters bound to TCP/IP, events, IP
 * configuration, media state, packet dumps, capture logs, the debug mask,
 * congestion control, diagnostic commands and the device-extension dump.
 *
 * Portable Win32 code (<windows.h> and the framework's shared header only),
 * built for Windows with mingw-w64 and on the host runtime.
 *
 *   ControlDevice device;
 *   if (!device.Open()) ...                 // device.LastFailure() says why
 *   std::vector<AdapterEntry> adapters;
 *   device.GetTcpIpInterfaces(adapters);
 *
 * Every request is one synchronous round trip on the caller's thread. The
 * framework's replies are parsed by the functions at the end of this header,
 * which bound every count and length they read.
 */
#ifndef NDISFILTER_CONTROL_H
#define NDISFILTER_CONTROL_H

#include <windows.h>
#include <ndisfilter-shared.h>

#include <string>
#include <vector>

namespace nfapp {

/* ---- sizes of the requests and replies ---- */

const DWORD MacAddressSize = 6;
const DWORD TcpIpMaxAdapters = 32;
const DWORD TcpIpEntrySize = 282;     /* u32 id, then the adapter entry behind its handle */
const DWORD TcpIpInterfacesSize = 9028; /* u32 count, then 32 entries */
const DWORD AdapterNameSize = 256;
const DWORD EventRecordSize = 1036;
const DWORD EventTextSize = 1024;
const DWORD IpConfigRequestSize = 224; /* u32 id, then 220 bytes of configuration */
const DWORD IpConfigMaxEntries = 8;
const DWORD MacRequestSize = 7;        /* MAC, then one byte of state */
const DWORD AdapterIdReplySize = 10;   /* MAC, then the u32 id */
const DWORD DiagHeaderSize = 40;
const DWORD DiagTextOffset = 33;
const DWORD DiagCommandMax = 1023;
const DWORD DiagReplyBufferSize = 65536;

/* Media states as NDIS names them. */
const UCHAR MediaStateConnected = 0;
const UCHAR MediaStateDisconnected = 1;

/* ---- records ---- */

/* One adapter bound to TCP/IP. */
struct AdapterEntry {
    ULONG Id = 0;
    ULONG Medium = 0;
    USHORT Mtu = 0;
    ULONG State = 0;
    UCHAR PermanentAddress[6] = {0};
    UCHAR CurrentAddress[6] = {0};
    std::string Name;
};

/*
 * One event: the two values the reporting driver chose, the text length it
 * stored (-1 when its text did not fit), the adapter id that replaced the
 * adapter handle in the record's data, and the meaningful bytes of the text
 * area (the stored length, at most 1024).
 */
struct EventRecord {
    ULONG Value1 = 0;
    ULONG Value2 = 0;
    LONG TextLength = 0;
    ULONG AdapterId = 0;
    std::vector<UCHAR> Data;
};

/* An IPv4 address as the framework stores it: network byte order in memory. */
struct IpAddressTriple {
    ULONG Address = 0;
    ULONG Netmask = 0;
    ULONG Broadcast = 0;
};

/* The IP configuration of one adapter; every list holds at most 8 entries. */
struct IpConfiguration {
    ULONG Carried = 0; /* carried unchanged, never interpreted */
    std::vector<IpAddressTriple> Addresses;
    std::vector<ULONG> Gateways;
    std::vector<ULONG> DhcpServers;
    std::vector<ULONG> DnsServers;
    ULONG Wins1 = 0;
    ULONG Wins2 = 0;
    bool Clipped = false; /* a count in the reply was above 8 */
};

/* ---- failures ---- */

enum class ControlFailure {
    None,
    DeviceMissing,    /* no \\.\NdisFilter: the framework is not loaded */
    AccessDenied,
    BufferRefused,    /* the framework found a buffer too small */
    AdapterNotFound,
    NotSupported,     /* nobody serves the code */
    InvalidParameter,
    InternalError,
    OutOfResources,
    DiagnosticRefused, /* another diagnostic runs, or the command is unfit */
    BadReply,          /* the reply does not have the expected length */
    Other
};

/* The last failure: which request, how it failed and the codes behind it. */
struct ControlError {
    ControlFailure Kind = ControlFailure::None;
    std::string Request;
    DWORD Win32Error = 0;
    LONG Status = 0;        /* the NTSTATUS, when known */
    bool StatusKnown = false;
    std::string Describe() const;
};

/* A sentence for a failure kind, such as "adapter not found". */
const char *ControlFailureText(ControlFailure kind);

/* ---- the device ---- */

class ControlDevice {
public:
    ControlDevice();
    ~ControlDevice();
    ControlDevice(const ControlDevice &) = delete;
    ControlDevice &operator=(const ControlDevice &) = delete;

    /* Opens `path` (the control device by default). */
    bool Open(const char *path = NDISFILTER_USER_DEVICE);
    void Close();
    bool IsOpen() const { return m_device != INVALID_HANDLE_VALUE; }
    const ControlError &LastFailure() const { return m_error; }

    /* GET_VERSION; the framework reports no bytes, so a silent success means 1.0. */
    bool GetVersion(UCHAR *major, UCHAR *minor);
    bool GetSharedMemorySize(ULONG *size);
    bool GetTcpIpInterfaces(std::vector<AdapterEntry> &adapters);
    bool GetAdapterId(const UCHAR mac[6], ULONG *id);
    /* GET_EVENT: *got is false when the queue was empty. */
    bool GetEvent(EventRecord &event, bool *got);
    bool ClearEvents();
    bool StartCaptureLogs();
    bool StopCaptureLogs();
    bool GetIpConfig(ULONG adapterId, IpConfiguration &config);
    bool SetIpConfig(ULONG adapterId, const IpConfiguration &config);
    bool GetMediaState(const UCHAR mac[6], UCHAR *state);
    bool SetMediaState(const UCHAR mac[6], UCHAR state);
    bool GetPacketDump(const UCHAR mac[6], bool *on);
    bool SetPacketDump(const UCHAR mac[6], bool on);
    bool ReloadDebugMask();
    bool SetCongestionControl(ULONG injectPacketMax);
    bool DumpDeviceExtension();
    /* A diagnostic command (words separated by blanks, at most 1023 bytes); the reply text. */
    bool Diagnose(const std::string &command, std::string &reply);

    /* One raw request: TRUE on success, *returned the bytes the framework reported. */
    bool Request(const char *name, DWORD code, void *input, DWORD inputLength, void *output, DWORD outputLength,
                 DWORD *returned);

private:
    bool Fail(const char *name, ControlFailure kind);

    HANDLE m_device;
    HANDLE m_event;
    ControlError m_error;
};

/* ---- replies: parsing and building (bounded, never trusting a count) ---- */

/* The adapters of a GET_TCPIP_INTERFACES reply of `length` bytes. FALSE when it is too short. */
bool ParseTcpIpInterfaces(const UCHAR *reply, DWORD length, std::vector<AdapterEntry> &adapters);
/* A GET_EVENT reply of 1036 bytes. */
bool ParseEventRecord(const UCHAR *reply, DWORD length, EventRecord &event);
/* The 220 bytes of configuration behind the adapter id. */
void ParseIpConfig(const UCHAR *bytes, IpConfiguration &config);
/* Writes the 220 bytes; FALSE when a list holds more than 8 entries. */
bool BuildIpConfig(const IpConfiguration &config, UCHAR *bytes);
/*
 * The text of a diagnostic reply: `returned` bytes were reported of a buffer
 * of `bufferLength`. FALSE when the reply is shorter than its header.
 */
bool ParseDiagReply(const UCHAR *reply, DWORD bufferLength, DWORD returned, std::string &text);

/* The kind of a failed request, from its status (when known) or Win32 error. */
ControlFailure ClassifyFailure(DWORD code, bool statusKnown, LONG status, DWORD win32Error);

} // namespace nfapp

#endif /* NDISFILTER_CONTROL_H */
