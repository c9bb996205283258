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
        expected.emplace_back(stem + "NdisUpper.eth", adapter->Sent + adapter->ToProtocols.size());
        expected.emplace_back(stem + "NdisLower.eth", adapter->Received + adapter->ToWire.size());
        expected.emplace_back(stem + "NdisInject.eth", 0);
    }
    expected.emplace_back(m_directory + "/Application-to-Driver-Io.eth",
                          application.SentToProtocols + application.SentToAdapter + application.SentLoopback);
    expected.emplace_back(m_directory + "/Driver-to-Application-Io.eth", application.Received);

    std::vector<std::pair<std::string, size_t>> files;
    for (const auto &file : expected) {
        std::vector<CapturedFrame> frames;
        std::string error;
        if (!ReadCapture(file.first, &frames, &error)) {
            problems->push_back("capture log " + file.first + ": " + error);
            continue;
        }
        if (frames.size() != file.second)
            problems->push_back("capture log " + file.first + " holds " + std::to_string(frames.size()) +
                                " frames, the run says " + std::to_string(file.second));
        for (size_t i = 0; i < frames.size(); i++) {
            int64_t at = frames[i].Seconds * 1000000 + frames[i].Microseconds;
            if (at < m_started || at > m_stopped) {
                problems->push_back("capture log " + file.first + ": frame " + std::to_string(i + 1) +
                                    " is stamped outside the capture");
                break;
            }
        }
        files.push_back(file);
    }
    return files;
}

} // namespace host
