/*
 * control-plane.h - the user program's view of a run, through the commands
 * of ndisfilterctl: the events the clients reported and the answers of a few
 * diagnostic commands.
 */
#pragma once

#include <string>
#include <vector>

namespace host {

/* One command as ndisfilterctl runs it, and what it printed. */
struct ControlAnswer {
    std::string Command;
    int Status = 0; /* ndisfilterctl's exit status */
    std::string Output;
};

/* Drains the event queue and asks the framework and the example clients about themselves. */
std::vector<ControlAnswer> AskControlPlane();

} // namespace host
