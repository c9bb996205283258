/*
 * control-device.cpp - the control requests of the user program, one
 * synchronous round trip each on an overlapped handle, and what their
 * failures mean.
 */
#include <windows.h>

#include "ndisfilter-control.h"

#include <cstdio>
#include <cstring>

namespace nfapp {

namespace {

/* The statuses the framework completes its requests with. */
const LONG StatusPendingValue = (LONG)0x00000103;
const LONG StatusInvalidParameter = (LONG)0xC000000D;
const LONG StatusInvalidParameter2 = (LONG)0xC00000F0;
const LONG StatusInsufficientResources = (LONG)0xC0000017;
const LONG StatusBufferTooSmall = (LONG)0xC0000023;
const LONG StatusNotSupported = (LONG)0xC00000BB;
const LONG StatusInternalError = (LONG)0xC00000E5;
const LONG StatusAdapterNotFound = (LONG)0xC0010006;

/* The Win32 errors these become when only GetLastError tells. */
const DWORD ErrorNoStatusMapping = 317; /* ERROR_MR_MID_NOT_FOUND: what an NDIS status maps to */
const DWORD ErrorInternal = 1359;       /* ERROR_INTERNAL_ERROR */
const DWORD ErrorNoResources = 1450;    /* ERROR_NO_SYSTEM_RESOURCES */
const DWORD ErrorDeviceGone = 55;       /* ERROR_DEV_NOT_EXIST */

/* Requests that name an adapter, and what "not found" looks like for each. */
bool NamesAdapterById(DWORD code)
{
    return code == IOCTL_NDIS_FILTER_GET_IPCONFIG || code == IOCTL_NDIS_FILTER_SET_IPCONFIG;
}

bool NamesAdapterByMac(DWORD code)
{
    return code == IOCTL_NDIS_FILTER_GET_MEDIA_STATUS || code == IOCTL_NDIS_FILTER_SET_MEDIA_STATUS ||
           code == IOCTL_NDIS_FILTER_GET_PACKET_DUMP || code == IOCTL_NDIS_FILTER_SET_PACKET_DUMP;
}

ControlFailure ClassifyStatus(DWORD code, LONG status)
{
    switch (status) {
    case StatusBufferTooSmall:
        return ControlFailure::BufferRefused;
    case StatusAdapterNotFound:
        return ControlFailure::AdapterNotFound;
    case StatusNotSupported:
        return ControlFailure::NotSupported;
    case StatusInvalidParameter:
    case StatusInvalidParameter2:
        /* The IP configuration requests answer an unknown adapter id so. */
        return NamesAdapterById(code) ? ControlFailure::AdapterNotFound : ControlFailure::InvalidParameter;
    case StatusInternalError:
        /* GET_ADAPTER answers an unknown MAC so. */
        return code == IOCTL_NDIS_FILTER_GET_ADAPTER ? ControlFailure::AdapterNotFound
                                                     : ControlFailure::InternalError;
    case StatusInsufficientResources:
        return ControlFailure::OutOfResources;
    default:
        return ControlFailure::Other;
    }
}

ControlFailure ClassifyWin32(DWORD code, DWORD error)
{
    switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ErrorDeviceGone:
        return ControlFailure::DeviceMissing;
    case ERROR_ACCESS_DENIED:
        return ControlFailure::AccessDenied;
    case ERROR_INSUFFICIENT_BUFFER:
        return ControlFailure::BufferRefused;
    case ERROR_NOT_SUPPORTED:
        return ControlFailure::NotSupported;
    case ErrorNoStatusMapping:
        return NamesAdapterByMac(code) || NamesAdapterById(code) ? ControlFailure::AdapterNotFound
                                                                 : ControlFailure::Other;
    case ERROR_INVALID_PARAMETER:
        return NamesAdapterById(code) ? ControlFailure::AdapterNotFound : ControlFailure::InvalidParameter;
    case ErrorInternal:
        return code == IOCTL_NDIS_FILTER_GET_ADAPTER ? ControlFailure::AdapterNotFound
                                                     : ControlFailure::InternalError;
    case ErrorNoResources:
    case ERROR_NOT_ENOUGH_MEMORY:
    case ERROR_OUTOFMEMORY:
        return ControlFailure::OutOfResources;
    default:
        return ControlFailure::Other;
    }
}

void StoreMac(UCHAR *buffer, const UCHAR mac[6])
{
    std::memcpy(buffer, mac, MacAddressSize);
}

} // namespace

ControlFailure ClassifyFailure(DWORD code, bool statusKnown, LONG status, DWORD win32Error)
{
    if (statusKnown) {
        ControlFailure kind = ClassifyStatus(code, status);
        if (kind != ControlFailure::Other)
            return kind;
    }
    return ClassifyWin32(code, win32Error);
}

const char *ControlFailureText(ControlFailure kind)
{
    switch (kind) {
    case ControlFailure::None:
        return "no failure";
    case ControlFailure::DeviceMissing:
        return "the control device is missing (is the framework loaded?)";
    case ControlFailure::AccessDenied:
        return "access to the control device denied (run as administrator)";
    case ControlFailure::BufferRefused:
        return "the framework refused the buffer (too small)";
    case ControlFailure::AdapterNotFound:
        return "adapter not found";
    case ControlFailure::NotSupported:
        return "not supported by the framework";
    case ControlFailure::InvalidParameter:
        return "invalid parameter";
    case ControlFailure::InternalError:
        return "internal error in the framework";
    case ControlFailure::OutOfResources:
        return "the framework is out of memory";
    case ControlFailure::DiagnosticRefused:
        return "diagnostic refused (another one is running, or the command is empty or too long)";
    case ControlFailure::BadReply:
        return "unexpected reply length";
    case ControlFailure::Other:
        return "request failed";
    }
    return "request failed";
}

/* Describe - "REQUEST: sentence (status 0x..., error N)". */
std::string ControlError::Describe() const
{
    if (Kind == ControlFailure::None)
        return std::string();
    std::string text = Request + ": " + ControlFailureText(Kind);
    char codes[64];
    if (StatusKnown)
        std::snprintf(codes, sizeof(codes), " (status 0x%08lX, error %lu)", (unsigned long)(ULONG)Status,
                      (unsigned long)Win32Error);
    else if (Win32Error != 0)
        std::snprintf(codes, sizeof(codes), " (error %lu)", (unsigned long)Win32Error);
    else
        codes[0] = '\0';
    return text + codes;
}

ControlDevice::ControlDevice() : m_device(INVALID_HANDLE_VALUE), m_event(nullptr) {}

ControlDevice::~ControlDevice()
{
    Close();
}

/* Open - `path` for overlapped I/O, with the event every request waits on. */
bool ControlDevice::Open(const char *path)
{
    Close();
    m_error = ControlError();
    m_event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (m_event == nullptr) {
        m_error.Win32Error = GetLastError();
        return Fail("CreateEvent", ControlFailure::OutOfResources);
    }
    m_device = CreateFileA(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                           FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OVERLAPPED, nullptr);
    if (m_device == INVALID_HANDLE_VALUE) {
        DWORD error = GetLastError();
        m_error.Win32Error = error;
        std::string step = std::string("open ") + path;
        Fail(step.c_str(), ClassifyWin32(0, error));
        CloseHandle(m_event);
        m_event = nullptr;
        return false;
    }
    return true;
}

void ControlDevice::Close()
{
    if (m_device != INVALID_HANDLE_VALUE) {
        CloseHandle(m_device);
        m_device = INVALID_HANDLE_VALUE;
    }
    if (m_event != nullptr) {
        CloseHandle(m_event);
        m_event = nullptr;
    }
}

bool ControlDevice::Fail(const char *name, ControlFailure kind)
{
    m_error.Kind = kind;
    m_error.Request = name;
    return false;
}

/*
 * Request - sends `code` and waits for it. A request the framework completed
 * at once reports only its Win32 error; one that went through the OVERLAPPED
 * also leaves its NTSTATUS there, which names the failure more exactly.
 */
bool ControlDevice::Request(const char *name, DWORD code, void *input, DWORD inputLength, void *output,
                            DWORD outputLength, DWORD *returned)
{
    m_error = ControlError();
    if (returned != nullptr)
        *returned = 0;
    if (!IsOpen())
        return Fail(name, ControlFailure::DeviceMissing);
    OVERLAPPED overlapped;
    std::memset(&overlapped, 0, sizeof(overlapped));
    overlapped.hEvent = m_event;
    ResetEvent(m_event);
    DWORD bytes = 0;
    BOOL ok = DeviceIoControl(m_device, code, input, inputLength, output, outputLength, &bytes, &overlapped);
    if (!ok && GetLastError() == ERROR_IO_PENDING)
        ok = GetOverlappedResult(m_device, &overlapped, &bytes, TRUE);
    if (!ok) {
        m_error.Win32Error = GetLastError();
        LONG status = (LONG)(ULONG)overlapped.Internal;
        m_error.StatusKnown = status < 0 && status != StatusPendingValue;
        m_error.Status = m_error.StatusKnown ? status : 0;
        return Fail(name, ClassifyFailure(code, m_error.StatusKnown, m_error.Status, m_error.Win32Error));
    }
    if (returned != nullptr)
        *returned = bytes;
    return true;
}

bool ControlDevice::GetVersion(UCHAR *major, UCHAR *minor)
{
    UCHAR version[2] = {0, 0};
    DWORD returned = 0;
    if (!Request("GET_VERSION", IOCTL_NDIS_FILTER_GET_VERSION, nullptr, 0, version, sizeof(version), &returned))
        return false;
    if (returned >= sizeof(version)) {
        *major = version[0];
        *minor = version[1];
    } else {
        /* The framework writes 1.0 but reports no bytes, so none come back. */
        *major = 1;
        *minor = 0;
    }
    return true;
}

bool ControlDevice::GetSharedMemorySize(ULONG *size)
{
    UCHAR reply[4] = {0};
    DWORD returned = 0;
    if (!Request("PUT_SHAREDMEMORYSIZE", IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, nullptr, 0, reply, sizeof(reply),
                 &returned))
        return false;
    if (returned < sizeof(reply))
        return Fail("PUT_SHAREDMEMORYSIZE", ControlFailure::BadReply);
    std::memcpy(size, reply, sizeof(reply));
    return true;
}

bool ControlDevice::GetTcpIpInterfaces(std::vector<AdapterEntry> &adapters)
{
    adapters.clear();
    std::vector<UCHAR> reply(TcpIpInterfacesSize, 0);
    DWORD returned = 0;
    if (!Request("GET_TCPIP_INTERFACES", IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, nullptr, 0, reply.data(),
                 TcpIpInterfacesSize, &returned))
        return false;
    if (!ParseTcpIpInterfaces(reply.data(), returned, adapters))
        return Fail("GET_TCPIP_INTERFACES", ControlFailure::BadReply);
    return true;
}

bool ControlDevice::GetAdapterId(const UCHAR mac[6], ULONG *id)
{
    UCHAR buffer[AdapterIdReplySize] = {0};
    StoreMac(buffer, mac);
    DWORD returned = 0;
    if (!Request("GET_ADAPTER", IOCTL_NDIS_FILTER_GET_ADAPTER, buffer, MacAddressSize, buffer, sizeof(buffer),
                 &returned))
        return false;
    if (returned < sizeof(buffer))
        return Fail("GET_ADAPTER", ControlFailure::BadReply);
    std::memcpy(id, buffer + MacAddressSize, sizeof(*id));
    return true;
}

bool ControlDevice::GetEvent(EventRecord &event, bool *got)
{
    *got = false;
    std::vector<UCHAR> reply(EventRecordSize, 0);
    DWORD returned = 0;
    if (!Request("GET_EVENT", IOCTL_NDIS_FILTER_GET_EVENT, nullptr, 0, reply.data(), EventRecordSize, &returned))
        return false;
    if (returned == 0)
        return true;
    if (!ParseEventRecord(reply.data(), returned, event))
        return Fail("GET_EVENT", ControlFailure::BadReply);
    *got = true;
    return true;
}

bool ControlDevice::ClearEvents()
{
    return Request("CLEAR_EVENT", IOCTL_NDIS_FILTER_CLEAR_EVENT, nullptr, 0, nullptr, 0, nullptr);
}

bool ControlDevice::StartCaptureLogs()
{
    return Request("START_ETHRLOG", IOCTL_NDIS_FILTER_START_ETHRLOG, nullptr, 0, nullptr, 0, nullptr);
}

bool ControlDevice::StopCaptureLogs()
{
    return Request("STOP_ETHRLOG", IOCTL_NDIS_FILTER_STOP_ETHRLOG, nullptr, 0, nullptr, 0, nullptr);
}

bool ControlDevice::GetIpConfig(ULONG adapterId, IpConfiguration &config)
{
    UCHAR buffer[IpConfigRequestSize] = {0};
    std::memcpy(buffer, &adapterId, sizeof(adapterId));
    DWORD returned = 0;
    if (!Request("GET_IPCONFIG", IOCTL_NDIS_FILTER_GET_IPCONFIG, buffer, sizeof(adapterId), buffer, sizeof(buffer),
                 &returned))
        return false;
    if (returned < sizeof(buffer))
        return Fail("GET_IPCONFIG", ControlFailure::BadReply);
    ParseIpConfig(buffer + 4, config);
    return true;
}

bool ControlDevice::SetIpConfig(ULONG adapterId, const IpConfiguration &config)
{
    UCHAR buffer[IpConfigRequestSize] = {0};
    std::memcpy(buffer, &adapterId, sizeof(adapterId));
    if (!BuildIpConfig(config, buffer + 4))
        return Fail("SET_IPCONFIG", ControlFailure::InvalidParameter);
    return Request("SET_IPCONFIG", IOCTL_NDIS_FILTER_SET_IPCONFIG, buffer, sizeof(buffer), nullptr, 0, nullptr);
}

bool ControlDevice::GetMediaState(const UCHAR mac[6], UCHAR *state)
{
    UCHAR buffer[MacRequestSize] = {0};
    StoreMac(buffer, mac);
    DWORD returned = 0;
    if (!Request("GET_MEDIA_STATUS", IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, buffer, sizeof(buffer), buffer,
                 sizeof(buffer), &returned))
        return false;
    if (returned < sizeof(buffer))
        return Fail("GET_MEDIA_STATUS", ControlFailure::BadReply);
    *state = buffer[MacAddressSize];
    return true;
}

bool ControlDevice::SetMediaState(const UCHAR mac[6], UCHAR state)
{
    UCHAR buffer[MacRequestSize] = {0};
    StoreMac(buffer, mac);
    buffer[MacAddressSize] = state;
    return Request("SET_MEDIA_STATUS", IOCTL_NDIS_FILTER_SET_MEDIA_STATUS, buffer, sizeof(buffer), nullptr, 0,
                   nullptr);
}

bool ControlDevice::GetPacketDump(const UCHAR mac[6], bool *on)
{
    UCHAR buffer[MacRequestSize] = {0};
    StoreMac(buffer, mac);
    DWORD returned = 0;
    if (!Request("GET_PACKET_DUMP", IOCTL_NDIS_FILTER_GET_PACKET_DUMP, buffer, sizeof(buffer), buffer,
                 sizeof(buffer), &returned))
        return false;
    if (returned < sizeof(buffer))
        return Fail("GET_PACKET_DUMP", ControlFailure::BadReply);
    *on = buffer[MacAddressSize] != 0;
    return true;
}

bool ControlDevice::SetPacketDump(const UCHAR mac[6], bool on)
{
    UCHAR buffer[MacRequestSize] = {0};
    StoreMac(buffer, mac);
    buffer[MacAddressSize] = on ? 1 : 0;
    return Request("SET_PACKET_DUMP", IOCTL_NDIS_FILTER_SET_PACKET_DUMP, buffer, sizeof(buffer), nullptr, 0,
                   nullptr);
}

bool ControlDevice::ReloadDebugMask()
{
    return Request("GET_DBGFLAG", IOCTL_NDIS_FILTER_GET_DBGFLAG, nullptr, 0, nullptr, 0, nullptr);
}

bool ControlDevice::SetCongestionControl(ULONG injectPacketMax)
{
    UCHAR buffer[4];
    std::memcpy(buffer, &injectPacketMax, sizeof(buffer));
    return Request("SET_CONGESTION_CONTROL", IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL, buffer, sizeof(buffer),
                   nullptr, 0, nullptr);
}

bool ControlDevice::DumpDeviceExtension()
{
    return Request("DUMP_DEVICE_EXTENSION", IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION, nullptr, 0, nullptr, 0,
                   nullptr);
}

/*
 * Diagnose - the command travels in the buffer the reply comes back in. No
 * bytes back means the framework refused the diagnostic.
 */
bool ControlDevice::Diagnose(const std::string &command, std::string &reply)
{
    reply.clear();
    if (command.empty() || command.size() > DiagCommandMax)
        return Fail("DIAG", ControlFailure::DiagnosticRefused);
    std::vector<UCHAR> buffer(DiagReplyBufferSize, 0);
    std::memcpy(buffer.data(), command.data(), command.size());
    DWORD returned = 0;
    if (!Request("DIAG", IOCTL_NDIS_FILTER_DIAG, buffer.data(), (DWORD)command.size(), buffer.data(),
                 DiagReplyBufferSize, &returned))
        return false;
    if (returned == 0)
        return Fail("DIAG", ControlFailure::DiagnosticRefused);
    if (!ParseDiagReply(buffer.data(), DiagReplyBufferSize, returned, reply))
        return Fail("DIAG", ControlFailure::BadReply);
    return true;
}

} // namespace nfapp
