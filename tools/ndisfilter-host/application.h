/*
 * application.h - the user program's side of a run, on the shared rings
 * through the application library: a receiver thread keeps a read parked
 * and keeps every block the framework writes; the run's own thread sends
 * frames toward the protocols and back to the application.
 */
#pragma once

#include <windows.h>

#include "capture-files.h"
#include "ndisfilter-app.h"

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace host {

class ApplicationSide {
public:
    ApplicationSide() = default;
    ~ApplicationSide() { Finish(); }
    ApplicationSide(const ApplicationSide &) = delete;
    ApplicationSide &operator=(const ApplicationSide &) = delete;

    /* Opens the device, takes the share and starts the receiver. FALSE with `error` set. */
    bool Start(std::string *error);
    /* Sends one frame in the given direction, waiting up to a few seconds while the ring is full. */
    bool Send(ULONG adapterId, ULONG direction, const std::vector<unsigned char> &frame, std::string *error);
    /* Whether the framework took every block sent and the receiver took every block written. */
    bool Idle() const;
    /* Stops the receiver, gives the share back and closes the device. */
    void Finish();

    struct Statistics {
        ULONG64 SentToProtocols = 0;
        ULONG64 SentToAdapter = 0;
        ULONG64 SentLoopback = 0;
        ULONG64 Announcements = 0;
        ULONG64 Received = 0;
        ULONG64 ReadsCompleted = 0;
        std::map<ULONG, ULONG64> ReceivedByDirection;
        std::map<ULONG, ULONG64> ReceivedByCode;
        bool ReceiverFailed = false;
        std::string ReceiverError;
    };
    Statistics Stats() const;
    /* The frames the application received, in order. */
    std::vector<CapturedFrame> Frames() const;

private:
    void Keep(const nfapp::ReceivedBlock &block);

    nfapp::SharedChannel m_channel;
    std::thread m_receiver;
    bool m_started = false;
    ULONG64 m_sent[4] = {0, 0, 0, 0}; /* by direction */

    mutable std::mutex m_lock; /* the receiver's records below */
    std::vector<CapturedFrame> m_frames;
    std::map<ULONG, ULONG64> m_byDirection;
    std::map<ULONG, ULONG64> m_byCode;
};

} // namespace host
