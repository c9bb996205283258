/*
 * shared-channel-receive.cpp - the output ring: the framework writes blocks
 * and advances m_iWrite, completing the program's parked READ_SHARE; the
 * program takes them and advances m_iRead.
 */
#include <windows.h>

#include "ndisfilter-app.h"

#include <cstring>

namespace nfapp {

/*
 * Drain - hands each block from m_iRead up to m_iWrite to `callback`, then
 * gives it back by advancing m_iRead with a plain store behind a release
 * fence. An index outside the ring stops the receiver. Receiver thread only.
 */
ULONG SharedChannel::Drain(const ReceiveCallback &callback)
{
    if (!IsStarted())
        return 0;
    volatile SharedBlockRing *ring = &m_memory->KernelModeOutput;
    const LONG count = ring->m_iBlockCount;
    ULONG taken = 0;
    for (;;) {
        const LONG read = ring->m_iRead;
        const LONG write = ring->m_iWrite;
        if (read == write)
            break;
        if (read < 0 || read >= count || write < 0 || write >= count) {
            m_receiveError = ChannelError{ERROR_INVALID_DATA, "output ring index out of range"};
            m_receiveFailed.store(true);
            break;
        }
        std::atomic_thread_fence(std::memory_order_acquire);

        const SharedBlock *block = (const SharedBlock *)Block(ring, read);
        ReceivedBlock received;
        received.AdapterId = block->m_nAdapterId;
        received.Direction = block->m_nDirection;
        received.IndicateCode = block->m_nIndicateCode;
        received.IndicateValue = block->m_nIndicateValue;
        received.Frame = block->m_Frame;
        received.Length = block->m_nPacketSize;
        if (received.Length > SHARED_BLOCK_FRAME_SIZE)
            received.Length = SHARED_BLOCK_FRAME_SIZE;
        if (callback)
            callback(received);

        std::atomic_thread_fence(std::memory_order_release);
        ring->m_iRead = (read + 1) % count;
        m_blocksReceived.fetch_add(1);
        taken++;
    }
    return taken;
}

/*
 * ParkRead - sends READ_SHARE with the receiver's OVERLAPPED. The framework
 * keeps it until it writes to the output ring, or completes it at once when
 * blocks wait; m_readParked tells which. FALSE when the request failed.
 */
bool SharedChannel::ParkRead()
{
    ResetEvent(m_readEvent);
    std::memset(&m_readOverlapped, 0, sizeof(m_readOverlapped));
    m_readOverlapped.hEvent = m_readEvent;
    DWORD bytes = 0;
    if (DeviceIoControl(m_device, IOCTL_NDIS_FILTER_READ_SHARE, nullptr, 0, nullptr, 0, &bytes, &m_readOverlapped)) {
        m_readsCompleted.fetch_add(1);
        return true;
    }
    DWORD error = GetLastError();
    if (error == ERROR_IO_PENDING) {
        m_readParked = true;
        return true;
    }
    m_receiveError = ChannelError{error, "READ_SHARE"};
    return false;
}

/*
 * CollectRead - waits up to `timeoutMs` for the parked read. *completed tells
 * whether it came back (a cancelled read counts as back, not as completed
 * by the framework). FALSE when the framework failed it.
 */
bool SharedChannel::CollectRead(DWORD timeoutMs, bool *completed)
{
    *completed = false;
    DWORD waited = WaitForSingleObject(m_readEvent, timeoutMs);
    if (waited == WAIT_TIMEOUT)
        return true;
    if (waited != WAIT_OBJECT_0) {
        m_receiveError = ChannelError{GetLastError(), "waiting for READ_SHARE"};
        return false;
    }
    DWORD bytes = 0;
    BOOL ok = GetOverlappedResult(m_device, &m_readOverlapped, &bytes, TRUE);
    DWORD error = ok ? ERROR_SUCCESS : GetLastError();
    m_readParked = false;
    *completed = true;
    if (ok) {
        m_readsCompleted.fetch_add(1);
        return true;
    }
    if (error == ERROR_OPERATION_ABORTED)
        return true;
    m_receiveError = ChannelError{error, "READ_SHARE"};
    return false;
}

/*
 * ReceiveOnce - takes what waits, makes sure a read is parked, and waits up
 * to `timeoutMs` for it; a completion means new blocks, which are taken too.
 * Blocks written between the first drain and the parking complete the read
 * at once, so none is left behind until the next write.
 */
ULONG SharedChannel::ReceiveOnce(const ReceiveCallback &callback, DWORD timeoutMs)
{
    if (!IsStarted()) {
        m_receiveError = ChannelError{ERROR_INVALID_HANDLE, "receive without a share"};
        m_receiveFailed.store(true);
        return 0;
    }
    ULONG taken = Drain(callback);
    if (!m_readParked) {
        if (!ParkRead()) {
            m_receiveFailed.store(true);
            return taken;
        }
        if (!m_readParked)
            return taken + Drain(callback);
    }
    bool completed = false;
    if (!CollectRead(timeoutMs, &completed)) {
        m_receiveFailed.store(true);
        return taken;
    }
    if (completed)
        taken += Drain(callback);
    return taken;
}

/* RunReceiver - ReceiveOnce until RequestStop (then a last drain) or a failure. */
bool SharedChannel::RunReceiver(const ReceiveCallback &callback, DWORD pollMs)
{
    while (!m_stopRequested.load() && !m_receiveFailed.load())
        ReceiveOnce(callback, pollMs);
    if (!m_receiveFailed.load())
        Drain(callback);
    return !m_receiveFailed.load();
}

/* OutputWaiting - blocks between m_iRead and m_iWrite of the output ring. */
ULONG SharedChannel::OutputWaiting() const
{
    if (!IsStarted())
        return 0;
    volatile const SharedBlockRing *ring = &m_memory->KernelModeOutput;
    const LONG count = ring->m_iBlockCount;
    return (ULONG)((ring->m_iWrite - ring->m_iRead + count) % count);
}

} // namespace nfapp
