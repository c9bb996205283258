/*
 * capture-logs.h - the framework's capture logs during a run: drive C: of the
 * framework mapped to a directory of the host, the logs started through the
 * control request before the replay and stopped after it, and the files they
 * left, each with the number of frames the run says it must hold.
 */
#pragma once

#include "adapters.h"
#include "application.h"
#include "ndisfilter-control.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace host {

class CaptureLogs {
public:
    CaptureLogs() = default;
    CaptureLogs(const CaptureLogs &) = delete;
    CaptureLogs &operator=(const CaptureLogs &) = delete;

    /* Maps drive C: to `directory` (created when missing) and removes the capture files of an earlier run. */
    bool Prepare(const std::string &directory, std::string *error);
    /* START_ETHRLOG on the control device; returns once every log is open. */
    bool Start(std::string *error);
    /* STOP_ETHRLOG; returns once every log has written what it had and is closed. */
    bool Stop(std::string *error);

    /* The microseconds since 1970 just before the start and just after the stop. */
    int64_t StartedAt() const { return m_started; }
    int64_t StoppedAt() const { return m_stopped; }

    /*
     * Every capture file in the directory with the frames it must hold: at an
     * adapter's lower edge the frames received and those delivered to the
     * wire, at its upper edge the frames its protocols sent and those
     * delivered to them, none injected on the application's behalf (no
     * client of the run does that), and on the shared rings the blocks the
     * application sent and received. Frames the file holds that differ from
     * that count go to `problems`.
     */
    std::vector<std::pair<std::string, size_t>> Files(const Adapters &adapters,
                                                      const ApplicationSide::Statistics &application,
                                                      std::vector<std::string> *problems) const;

private:
    std::string m_directory;
    nfapp::ControlDevice m_device;
    int64_t m_started = 0;
    int64_t m_stopped = 0;
};

} // namespace host
