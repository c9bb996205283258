/* application.cpp - the user program's side of a run (see application.h). */
#include "application.h"

#include <chrono>

namespace host {

namespace {

/* How long Send waits for room in a full input ring. */
const auto FullRingPatience = std::chrono::seconds(5);

} // namespace

bool ApplicationSide::Start(std::string *error)
{
    if (!m_channel.Open() || !m_channel.Start()) {
        *error = m_channel.ControlError().Describe();
        m_channel.Close();
        return false;
    }
    m_started = true;
    m_receiver = std::thread([this] {
        m_channel.RunReceiver([this](const nfapp::ReceivedBlock &block) { Keep(block); });
    });
    return true;
}

/* Keep - the receiver's callback: a copy of the frame and the block's direction and code. */
void ApplicationSide::Keep(const nfapp::ReceivedBlock &block)
{
    CapturedFrame frame;
    frame.Bytes.assign(block.Frame, block.Frame + block.Length);
    std::lock_guard<std::mutex> guard(m_lock);
    m_frames.push_back(std::move(frame));
    m_byDirection[block.Direction]++;
    m_byCode[block.IndicateCode]++;
}

bool ApplicationSide::Send(ULONG adapterId, ULONG direction, const std::vector<unsigned char> &frame,
                           std::string *error)
{
    const auto deadline = std::chrono::steady_clock::now() + FullRingPatience;
    for (;;) {
        nfapp::SendResult result = m_channel.Send(adapterId, direction, frame.data(), (ULONG)frame.size());
        if (result == nfapp::SendResult::Sent) {
            if (direction < 4)
                m_sent[direction]++;
            return true;
        }
        if (result != nfapp::SendResult::RingFull || std::chrono::steady_clock::now() >= deadline) {
            *error = std::string("application send: ") + nfapp::SendResultName(result) + " " +
                     m_channel.SendError().Describe();
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

bool ApplicationSide::Idle() const
{
    return !m_started || (m_channel.InputInFlight() == 0 && m_channel.OutputWaiting() == 0);
}

void ApplicationSide::Finish()
{
    if (!m_started)
        return;
    m_channel.RequestStop();
    if (m_receiver.joinable())
        m_receiver.join();
    m_channel.Close();
    m_started = false;
}

ApplicationSide::Statistics ApplicationSide::Stats() const
{
    Statistics stats;
    stats.SentToProtocols = m_sent[FILTER_DIRECTION_TO_PROTOCOL];
    stats.SentToAdapter = m_sent[FILTER_DIRECTION_TO_ADAPTER];
    stats.SentLoopback = m_sent[FILTER_DIRECTION_TO_APPLICATION];
    stats.Announcements = m_channel.Announcements();
    stats.Received = m_channel.BlocksReceived();
    stats.ReadsCompleted = m_channel.ReadsCompleted();
    stats.ReceiverFailed = m_channel.ReceiveFailed();
    if (stats.ReceiverFailed)
        stats.ReceiverError = m_channel.ReceiveError().Describe();
    std::lock_guard<std::mutex> guard(m_lock);
    stats.ReceivedByDirection = m_byDirection;
    stats.ReceivedByCode = m_byCode;
    return stats;
}

std::vector<CapturedFrame> ApplicationSide::Frames() const
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_frames;
}

} // namespace host
