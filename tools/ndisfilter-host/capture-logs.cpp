/* capture-logs.cpp - the framework's capture logs during a run (see capture-logs.h). */
#include <windows.h>
#include <hostkernel.h>

#include "capture-logs.h"
#include "ndisfilter-control.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

namespace host {

namespace {

/* Longest wait for the logs' opens and closes, which run as work items. */
const ULONG WorkPatienceMs = 10000;

int64_t NowMicroseconds()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

bool EndsWith(const std::string &text, const std::string &end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

} // namespace

bool CaptureLogs::Prepare(const std::string &directory, std::string *error)
{
    if (HkSetDriveDirectory('C', directory.c_str()) != STATUS_SUCCESS) {
        *error = "cannot use " + directory + " as drive C:";
        return false;
    }
    m_directory = directory;
    if (DIR *dir = opendir(directory.c_str())) {
        while (struct dirent *entry = readdir(dir)) {
            std::string name = entry->d_name;
            if (EndsWith(name, ".eth"))
                unlink((directory + "/" + name).c_str());
        }
        closedir(dir);
    }
    return true;
}

bool CaptureLogs::Start(std::string *error)
{
    if (!m_device.Open()) {
        *error = "capture logs: " + m_device.LastFailure().Describe();
        return false;
    }
    m_started = NowMicroseconds();
    if (!m_device.StartCaptureLogs()) {
        *error = "capture logs: " + m_device.LastFailure().Describe();
        return false;
    }
    if (!HkWaitForWorkQueueIdle(WorkPatienceMs)) {
        *error = "capture logs: the logs did not open in time";
        return false;
    }
    return true;
}

bool CaptureLogs::Stop(std::string *error)
{
    bool stopped = m_device.StopCaptureLogs();
    if (!stopped)
        *error = "capture logs: " + m_device.LastFailure().Describe();
    else if (!HkWaitForWorkQueueIdle(WorkPatienceMs)) {
        *error = "capture logs: the logs did not close in time";
        stopped = false;
    }
    m_stopped = NowMicroseconds();
    m_device.Close();
    return stopped;
}

std::vector<std::pair<std::string, size_t>> CaptureLogs::Files(const Adapters &adapters,
                                                               const ApplicationSide::Statistics &application,
                                                               std::vector<std::string> *problems) const
{
    std::vector<std::pair<std::string, size_t>> expected;
    for (const auto &adapter : adapters) {
        std::string stem = m_directory + "/Adapter(" + MacText(adapter->Mac) + ")";
        expected.emplace_back(stem + "NdisUpper.eth", adapter->Sent + adapter->ToProtocols.Frames());
        expected.emplace_back(stem + "NdisLower.eth", adapter->Received + adapter->ToWire.Frames());
        expected.emplace_back(stem + "NdisInject.eth", 0);
    }
    expected.emplace_back(m_directory + "/Application-to-Driver-Io.eth",
                          application.SentToProtocols + application.SentToAdapter + application.SentLoopback);
    expected.emplace_back(m_directory + "/Driver-to-Application-Io.eth", application.Received);

    std::vector<std::pair<std::string, size_t>> files;
    for (const auto &file : expected) {
        CaptureReader reader;
        std::string error;
        if (!reader.Open(file.first, &error)) {
            problems->push_back("capture log " + file.first + ": " + error);
            continue;
        }
        size_t frames = 0;
        bool outside = false;
        FrameView frame;
        while (reader.Next(&frame)) {
            int64_t at = frame.Time();
            if (!outside && (at < m_started || at > m_stopped)) {
                problems->push_back("capture log " + file.first + ": frame " + std::to_string(frames + 1) +
                                    " is stamped outside the capture");
                outside = true;
            }
            frames++;
        }
        if (!reader.Error().empty()) {
            problems->push_back("capture log " + file.first + ": " + reader.Error());
            continue;
        }
        if (frames != file.second)
            problems->push_back("capture log " + file.first + " holds " + std::to_string(frames) +
                                " frames, the run says " + std::to_string(file.second));
        files.push_back(file);
    }
    return files;
}

} // namespace host
