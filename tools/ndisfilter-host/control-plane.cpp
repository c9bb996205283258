/* control-plane.cpp - the run seen through ndisfilterctl (see control-plane.h). */
#include "control-plane.h"

#include "ctl.h"
#include "example-firewall.h"
#include "example-flow-tracker.h"
#include "example-monitor.h"
#include "example-tap.h"

#include <sstream>

namespace host {

std::vector<ControlAnswer> AskControlPlane()
{
    const std::vector<std::vector<const char *>> commands = {
        {"events"},
        {"diag", "driver"},
        {"diag", "filter", "show", "driver"},
        {"diag", EXAMPLE_FIREWALL_SERVICE_NAME, "show"},
        {"diag", EXAMPLE_TAP_SERVICE_NAME, "show"},
        {"diag", EXAMPLE_FLOW_TRACKER_SERVICE_NAME, "show"},
        {"diag", EXAMPLE_MONITOR_SERVICE_NAME, "show"},
    };
    std::vector<ControlAnswer> answers;
    for (std::vector<const char *> command : commands) {
        ControlAnswer answer;
        for (const char *word : command)
            answer.Command += (answer.Command.empty() ? "" : " ") + std::string(word);
        command.insert(command.begin(), "ndisfilterctl");
        std::ostringstream out;
        answer.Status = nfctl::Run((int)command.size(), command.data(), out, out);
        answer.Output = out.str();
        answers.push_back(answer);
    }
    return answers;
}

} // namespace host
