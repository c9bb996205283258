/*
 * shared-channel.cpp - the control side of the application channel: opening
 * the device, the control requests, taking and giving back the share.
 */
#include <windows.h>

#include "ndisfilter-app.h"

#include <cstdio>
#include <cstring>

namespace nfapp {

namespace {

/* How long Stop waits for the parked read to come back before cancelling it. */
const DWORD ParkedReadReturnMs = 5000;

/* Whether a ring header describes 512 blocks of 1684 bytes inside the block area, indexes in range. */
bool RingHeaderValid(const volatile SharedBlockRing &ring)
{
    const LONG count = ring.m_iBlockCount;
    const LONG size = ring.m_iBlockSize;
    if (size != SHARED_BLOCK_SIZE || count != SHARED_BLOCK_COUNT)
        return false;
    const LONG base = ring.m_iBaseOffset;
    const LONG area = (LONG)(sizeof(SharedMemory) - FIELD_OFFSET(SharedMemory, m_OutputBlocks));
    if (base < 0 || base > area - count * size)
        return false;
    const LONG read = ring.m_iRead;
    const LONG write = ring.m_iWrite;
    return read >= 0 && read < count && write >= 0 && write < count;
}

/* A manual-reset event for one synchronous request, closed with its scope. */
class Event {
public:
    Event() : m_handle(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {}
    ~Event()
    {
        if (m_handle != nullptr)
            CloseHandle(m_handle);
    }
    Event(const Event &) = delete;
    Event &operator=(const Event &) = delete;
    bool Valid() const { return m_handle != nullptr; }
    HANDLE Get() const { return m_handle; }

private:
    HANDLE m_handle;
};

} // namespace

/* Describe - "STEP failed, error N", or "" when nothing failed. */
std::string ChannelError::Describe() const
{
    if (Step.empty())
        return std::string();
    char text[48];
    std::snprintf(text, sizeof(text), " failed, error %lu", (unsigned long)Code);
    return Step + text;
}

/* SendResultName - a short lower-case name for messages. */
const char *SendResultName(SendResult result)
{
    switch (result) {
    case SendResult::Sent:
        return "sent";
    case SendResult::RingFull:
        return "ring full";
    case SendResult::BadLength:
        return "bad length";
    case SendResult::NotStarted:
        return "not started";
    case SendResult::RequestFailed:
        return "request failed";
    }
    return "?";
}

SharedChannel::SharedChannel()
    : m_device(INVALID_HANDLE_VALUE), m_memory(nullptr), m_writeEvent(nullptr), m_readOverlapped(),
      m_readEvent(nullptr), m_readParked(false), m_stopRequested(false), m_receiveFailed(false), m_blocksSent(0),
      m_blocksReceived(0), m_announcements(0), m_readsCompleted(0)
{
}

SharedChannel::~SharedChannel()
{
    Close();
}

/*
 * Open - opens \\.\NdisFilter for overlapped I/O and creates the two
 * manual-reset events of the sender's and the receiver's requests.
 */
bool SharedChannel::Open()
{
    if (IsOpen())
        return true;
    m_controlError = ChannelError();
    m_writeEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    m_readEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (m_writeEvent == nullptr || m_readEvent == nullptr) {
        m_controlError = ChannelError{GetLastError(), "CreateEvent"};
        Close();
        return false;
    }
    m_device = CreateFileA(NDISFILTER_USER_DEVICE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                           FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OVERLAPPED, nullptr);
    if (m_device == INVALID_HANDLE_VALUE) {
        m_controlError = ChannelError{GetLastError(), "open " NDISFILTER_USER_DEVICE};
        Close();
        return false;
    }
    return true;
}

/*
 * Request - one control request on the overlapped handle, waited for on
 * `event`. On failure `error` gets the request's `name`. TRUE when it succeeded.
 */
bool SharedChannel::Request(const char *name, DWORD code, void *input, DWORD inputLength, void *output,
                            DWORD outputLength, DWORD *returned, HANDLE event, ChannelError &error)
{
    OVERLAPPED overlapped;
    std::memset(&overlapped, 0, sizeof(overlapped));
    overlapped.hEvent = event;
    DWORD bytes = 0;
    BOOL ok = DeviceIoControl(m_device, code, input, inputLength, output, outputLength, &bytes, &overlapped);
    if (!ok && GetLastError() == ERROR_IO_PENDING)
        ok = GetOverlappedResult(m_device, &overlapped, &bytes, TRUE);
    if (!ok) {
        error = ChannelError{GetLastError(), name};
        return false;
    }
    if (returned != nullptr)
        *returned = bytes;
    return true;
}

/*
 * Start - PUT_SHAREDMEMORYSIZE must answer the size of the mapped area; then
 * START_SHARE with `shareValue` answers the program's address of the shared
 * area, or 20 when the share is taken. The ring headers found there must
 * describe 512 blocks of 1684 bytes inside the area.
 */
bool SharedChannel::Start(ULONG shareValue)
{
    if (IsStarted())
        return true;
    m_controlError = ChannelError();
    if (!IsOpen()) {
        m_controlError = ChannelError{ERROR_INVALID_HANDLE, "start without an open device"};
        return false;
    }
    if (shareValue == 0) {
        m_controlError = ChannelError{ERROR_INVALID_PARAMETER, "START_SHARE with the value 0"};
        return false;
    }
    Event event;
    if (!event.Valid()) {
        m_controlError = ChannelError{GetLastError(), "CreateEvent"};
        return false;
    }

    UINT32 size = 0;
    DWORD returned = 0;
    if (!Request("PUT_SHAREDMEMORYSIZE", IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, nullptr, 0, &size, sizeof(size),
                 &returned, event.Get(), m_controlError))
        return false;
    if (returned != sizeof(size) || size != MAPPED_MEMORY_SIZE) {
        m_controlError = ChannelError{ERROR_INVALID_DATA, "PUT_SHAREDMEMORYSIZE answered an unexpected size"};
        return false;
    }

    /* Buffered: the answer overwrites the value in the one buffer. */
    UINT32 value = (UINT32)shareValue;
    UCHAR buffer[8] = {0};
    std::memcpy(buffer, &value, sizeof(value));
    if (!Request("START_SHARE", IOCTL_NDIS_FILTER_START_SHARE, buffer, sizeof(value), buffer, sizeof(buffer),
                 &returned, event.Get(), m_controlError))
        return false;
    ULONG64 address = 0;
    std::memcpy(&address, buffer, sizeof(address));
    if (returned < sizeof(address) || address == 0 || address == ShareRefused) {
        m_controlError = ChannelError{ERROR_BUSY, "START_SHARE refused the share"};
        return false;
    }
    m_memory = (volatile SharedMemory *)(ULONG_PTR)address;
    m_stopRequested.store(false);
    m_receiveFailed.store(false);
    return CheckRings();
}

/* CheckRings - after START_SHARE: both ring headers must be sound, else the share is given back. */
bool SharedChannel::CheckRings()
{
    if (RingHeaderValid(m_memory->KernelModeOutput) && RingHeaderValid(m_memory->KernelModeInput))
        return true;
    Stop();
    m_controlError = ChannelError{ERROR_INVALID_DATA, "START_SHARE: the ring headers do not match"};
    return false;
}

/*
 * Stop - STOP_SHARE, which also completes the parked read; the read is then
 * collected (cancelled if the framework keeps it), since its OVERLAPPED lives
 * here. The shared area is not touched afterwards.
 */
bool SharedChannel::Stop()
{
    if (!IsStarted())
        return true;
    m_stopRequested.store(true);
    Event event;
    bool stopped = false;
    if (!event.Valid())
        m_controlError = ChannelError{GetLastError(), "CreateEvent"};
    else
        stopped = Request("STOP_SHARE", IOCTL_NDIS_FILTER_STOP_SHARE, nullptr, 0, nullptr, 0, nullptr, event.Get(),
                          m_controlError);
    m_memory = nullptr;

    if (m_readParked) {
        bool completed = false;
        CollectRead(ParkedReadReturnMs, &completed);
        if (!completed) {
            CancelIoEx(m_device, &m_readOverlapped);
            CollectRead(INFINITE, &completed);
        }
    }
    return stopped;
}

/* Close - Stop, then closes the device and the events. */
void SharedChannel::Close()
{
    if (IsOpen()) {
        Stop();
        CloseHandle(m_device);
        m_device = INVALID_HANDLE_VALUE;
    }
    if (m_writeEvent != nullptr) {
        CloseHandle(m_writeEvent);
        m_writeEvent = nullptr;
    }
    if (m_readEvent != nullptr) {
        CloseHandle(m_readEvent);
        m_readEvent = nullptr;
    }
}

/* Block - block `index` of a ring: behind both headers, at the ring's base offset. */
volatile SharedBlock *SharedChannel::Block(volatile SharedBlockRing *ring, LONG index) const
{
    volatile UCHAR *area = (volatile UCHAR *)m_memory + FIELD_OFFSET(SharedMemory, m_OutputBlocks);
    return (volatile SharedBlock *)(area + ring->m_iBaseOffset + (ULONG_PTR)index * (ULONG_PTR)ring->m_iBlockSize);
}

} // namespace nfapp
