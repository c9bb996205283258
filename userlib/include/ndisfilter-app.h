/*
 * ndisfilter-app.h - the application side of the packet filter framework:
 * the control device and the two shared rings of packet blocks, as a user
 * program uses them.
 *
 * Portable Win32 code (<windows.h> and the framework's shared header only),
 * built for Windows with mingw-w64 and on the host runtime.
 *
 * The life of a channel:
 *
 *   SharedChannel channel;
 *   channel.Open();                  // \\.\NdisFilter, overlapped
 *   channel.Start();                 // maps the shared area into the program
 *   // sender thread:   channel.Send(adapterId, FILTER_DIRECTION_TO_PROTOCOL, frame, length);
 *   // receiver thread: channel.RunReceiver(callback);   (until RequestStop())
 *   channel.Stop();                  // gives the share back
 *
 * Threads: one sender thread (Send, Write, Announce) and one receiver thread
 * (ReceiveOnce, RunReceiver, Drain) may work at the same time; RequestStop
 * and the statistics may be called from any thread. Open, Start, Stop and
 * Close belong to one controlling thread while neither of the others runs
 * (Stop also waits for the receiver's parked read to come back).
 */
#ifndef NDISFILTER_APP_H
#define NDISFILTER_APP_H

#include <windows.h>
#include <ndisfilter-shared.h>

#include <atomic>
#include <functional>
#include <string>

namespace nfapp {

/* One block taken from the output ring. Frame points into the shared area and
 * is valid only during the callback that receives it. */
struct ReceivedBlock {
    ULONG AdapterId;
    ULONG Direction;
    ULONG IndicateCode;
    ULONG64 IndicateValue;
    const UCHAR *Frame;
    ULONG Length;
};

using ReceiveCallback = std::function<void(const ReceivedBlock &block)>;

/* What went wrong last in one role of the channel: the Win32 error and the step. */
struct ChannelError {
    DWORD Code = 0;
    std::string Step;
    std::string Describe() const;
};

enum class SendResult {
    Sent,         /* written and announced */
    RingFull,     /* 511 blocks in flight: try again once the framework has taken some */
    BadLength,    /* 0 bytes, or more than SHARED_BLOCK_FRAME_SIZE */
    NotStarted,   /* no share */
    RequestFailed /* the block was written, but WRITE_SHARE failed (see SendError) */
};

/* The value START_SHARE answers when the share cannot be handed out. */
const ULONG64 ShareRefused = 20;

class SharedChannel {
public:
    SharedChannel();
    ~SharedChannel();
    SharedChannel(const SharedChannel &) = delete;
    SharedChannel &operator=(const SharedChannel &) = delete;

    /* Opens the control device for overlapped I/O. FALSE (see ControlError) when it cannot. */
    bool Open();
    /*
     * Asks for the size of the shared area, then for the share itself with
     * `shareValue` (nonzero), and checks the ring headers it finds there.
     * FALSE when the framework refused (the answer 20: another program
     * holds the share) or anything did not match.
     */
    bool Start(ULONG shareValue = 1);
    /* Gives the share back (STOP_SHARE) and collects the parked read. No-op without a share. */
    bool Stop();
    /* Stop, then closes the device. */
    void Close();

    bool IsOpen() const { return m_device != INVALID_HANDLE_VALUE; }
    /* The handle of the control device (INVALID_HANDLE_VALUE when not open), for the other control requests. */
    HANDLE Device() const { return m_device; }
    bool IsStarted() const { return m_memory != nullptr; }
    /* The shared area as the program sees it (NULL without a share). */
    volatile SharedMemory *Memory() const { return m_memory; }

    /* ---- sending: the input ring ---- */

    /* Writes one block and announces it with WRITE_SHARE. */
    SendResult Send(ULONG adapterId, ULONG direction, const void *frame, ULONG length);
    /* Writes one block without announcing it (a batch ends with Announce). */
    SendResult Write(ULONG adapterId, ULONG direction, const void *frame, ULONG length);
    /* Tells the framework that blocks wait in the input ring. */
    bool Announce();
    /* Blocks written and not yet taken by the framework. */
    ULONG InputInFlight() const;
    const ChannelError &SendError() const { return m_sendError; }

    /* ---- receiving: the output ring ---- */

    /*
     * Keeps one READ_SHARE parked, waits up to `timeoutMs` for the framework
     * to complete it, and hands every block waiting in the output ring to
     * `callback`. Returns the number of blocks handed over; on a failed
     * request it returns what it had and sets ReceiveFailed.
     */
    ULONG ReceiveOnce(const ReceiveCallback &callback, DWORD timeoutMs);
    /* Hands the blocks waiting now to `callback`, without any request. */
    ULONG Drain(const ReceiveCallback &callback);
    /* ReceiveOnce in a loop until RequestStop or a failed request; FALSE on the latter. */
    bool RunReceiver(const ReceiveCallback &callback, DWORD pollMs = 50);
    void RequestStop() { m_stopRequested.store(true); }
    bool ReceiveFailed() const { return m_receiveFailed.load(); }
    const ChannelError &ReceiveError() const { return m_receiveError; }
    /* Blocks the framework wrote that the program has not taken yet. */
    ULONG OutputWaiting() const;

    /* ---- statistics ---- */

    ULONG64 BlocksSent() const { return m_blocksSent.load(); }
    ULONG64 BlocksReceived() const { return m_blocksReceived.load(); }
    ULONG64 Announcements() const { return m_announcements.load(); }
    ULONG64 ReadsCompleted() const { return m_readsCompleted.load(); }

    /* The last failure of Open, Start, Stop or Close. Each role keeps its own
     * record; read one while its thread is not working. */
    const ChannelError &ControlError() const { return m_controlError; }

private:
    bool Request(const char *name, DWORD code, void *input, DWORD inputLength, void *output, DWORD outputLength,
                 DWORD *returned, HANDLE event, ChannelError &error);
    bool CheckRings();
    bool ParkRead();
    bool CollectRead(DWORD timeoutMs, bool *completed);
    volatile SharedBlock *Block(volatile SharedBlockRing *ring, LONG index) const;

    HANDLE m_device;
    volatile SharedMemory *m_memory;

    /* sender */
    HANDLE m_writeEvent;

    /* receiver */
    OVERLAPPED m_readOverlapped;
    HANDLE m_readEvent;
    bool m_readParked;
    std::atomic<bool> m_stopRequested;
    std::atomic<bool> m_receiveFailed;

    std::atomic<ULONG64> m_blocksSent;
    std::atomic<ULONG64> m_blocksReceived;
    std::atomic<ULONG64> m_announcements;
    std::atomic<ULONG64> m_readsCompleted;

    ChannelError m_controlError;
    ChannelError m_sendError;
    ChannelError m_receiveError;
};

/*
 * Control requests that need no share, on a device handle from
 * SharedChannel::Device() (or any handle of \\.\NdisFilter, overlapped or
 * not). FALSE, with `error` filled, when the request failed.
 */
/* START_ETHRLOG: capture files of every adapter (and of the shared rings) on the machine's drive C:. */
bool StartCaptureLogs(HANDLE device, ChannelError &error);
/* STOP_ETHRLOG: the capture files are completed and closed. */
bool StopCaptureLogs(HANDLE device, ChannelError &error);

/* A readable name of a SendResult. */
const char *SendResultName(SendResult result);

} // namespace nfapp

#endif /* NDISFILTER_APP_H */
