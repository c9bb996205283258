/*
 * control-requests.cpp - the control requests of the user program that need
 * no share: one request, one answer, on the control device.
 *
 * Portable Win32 code, as the rest of the library.
 */
#include "ndisfilter-app.h"

#include <cstring>

namespace nfapp {

namespace {

/*
 * Sends one buffered request and waits for its answer, also on a handle
 * opened for overlapped I/O (an event of its own carries the completion).
 */
bool ControlRequest(HANDLE device, const char *name, DWORD code, void *input, DWORD inputLength, void *output,
                    DWORD outputLength, DWORD *returned, ChannelError &error)
{
    error = ChannelError();
    if (device == INVALID_HANDLE_VALUE || device == nullptr) {
        error = ChannelError{ERROR_INVALID_HANDLE, name};
        return false;
    }
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (event == nullptr) {
        error = ChannelError{GetLastError(), "CreateEvent"};
        return false;
    }
    OVERLAPPED overlapped;
    std::memset(&overlapped, 0, sizeof(overlapped));
    overlapped.hEvent = event;
    DWORD bytes = 0;
    BOOL ok = DeviceIoControl(device, code, input, inputLength, output, outputLength, &bytes, &overlapped);
    if (!ok && GetLastError() == ERROR_IO_PENDING)
        ok = GetOverlappedResult(device, &overlapped, &bytes, TRUE);
    if (!ok)
        error = ChannelError{GetLastError(), name};
    CloseHandle(event);
    if (ok && returned != nullptr)
        *returned = bytes;
    return ok != FALSE;
}

} // namespace

bool StartCaptureLogs(HANDLE device, ChannelError &error)
{
    return ControlRequest(device, "START_ETHRLOG", IOCTL_NDIS_FILTER_START_ETHRLOG, nullptr, 0, nullptr, 0, nullptr,
                          error);
}

bool StopCaptureLogs(HANDLE device, ChannelError &error)
{
    return ControlRequest(device, "STOP_ETHRLOG", IOCTL_NDIS_FILTER_STOP_ETHRLOG, nullptr, 0, nullptr, 0, nullptr,
                          error);
}

} // namespace nfapp
