/*
 * shared-channel-send.cpp - the input ring: the program writes blocks and
 * advances m_iWrite; the framework's thread takes them and advances m_iRead.
 */
#include <windows.h>

#include "ndisfilter-app.h"

#include <cstring>

namespace nfapp {

/*
 * Write - fills the block at m_iWrite (adapter, direction, size, frame; the
 * other fields zero), then publishes it by advancing m_iWrite with a plain
 * store behind a release fence. The ring is full when the next index would
 * reach m_iRead. Sender thread only.
 */
SendResult SharedChannel::Write(ULONG adapterId, ULONG direction, const void *frame, ULONG length)
{
    if (!IsStarted())
        return SendResult::NotStarted;
    if (frame == nullptr || length == 0 || length > SHARED_BLOCK_FRAME_SIZE)
        return SendResult::BadLength;

    volatile SharedBlockRing *ring = &m_memory->KernelModeInput;
    const LONG count = ring->m_iBlockCount;
    const LONG write = ring->m_iWrite;
    const LONG read = ring->m_iRead;
    if ((write + 1) % count == read)
        return SendResult::RingFull;
    /* The framework is done with the block once m_iRead has passed it. */
    std::atomic_thread_fence(std::memory_order_acquire);

    SharedBlock *block = (SharedBlock *)Block(ring, write);
    std::memset(block, 0, FIELD_OFFSET(SharedBlock, m_Frame));
    block->m_nAdapterId = adapterId;
    block->m_nDirection = direction;
    block->m_nPacketSize = length;
    std::memcpy(block->m_Frame, frame, length);

    std::atomic_thread_fence(std::memory_order_release);
    ring->m_iWrite = (write + 1) % count;
    m_blocksSent.fetch_add(1);
    return SendResult::Sent;
}

/* Announce - WRITE_SHARE: wakes the framework's thread that serves the input ring. Sender thread only. */
bool SharedChannel::Announce()
{
    if (!IsStarted()) {
        m_sendError = ChannelError{ERROR_INVALID_HANDLE, "WRITE_SHARE without a share"};
        return false;
    }
    if (!Request("WRITE_SHARE", IOCTL_NDIS_FILTER_WRITE_SHARE, nullptr, 0, nullptr, 0, nullptr, m_writeEvent,
                 m_sendError))
        return false;
    m_announcements.fetch_add(1);
    return true;
}

/* Send - Write, then Announce. */
SendResult SharedChannel::Send(ULONG adapterId, ULONG direction, const void *frame, ULONG length)
{
    SendResult result = Write(adapterId, direction, frame, length);
    if (result == SendResult::Sent && !Announce())
        return SendResult::RequestFailed;
    return result;
}

/* InputInFlight - blocks between m_iRead and m_iWrite of the input ring. */
ULONG SharedChannel::InputInFlight() const
{
    if (!IsStarted())
        return 0;
    volatile const SharedBlockRing *ring = &m_memory->KernelModeInput;
    const LONG count = ring->m_iBlockCount;
    return (ULONG)((ring->m_iWrite - ring->m_iRead + count) % count);
}

} // namespace nfapp
