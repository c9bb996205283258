/*
 * flows.h - the flow tracker's table as the user program reads it: through
 * the tracker's own control request on the framework's control device.
 */
#pragma once

#include <windows.h>

#include "example-flow-tracker.h"

#include <string>
#include <vector>

namespace host {

struct FlowTable {
    ULONG FlowCount = 0; /* in the tracker's table; more than listed when the reply was full */
    std::vector<EXAMPLE_FLOW> Flows;
};

/* Sends IOCTL_EXAMPLE_FLOW_TRACKER_LIST_FLOWS. FALSE with `error` set. */
bool ListFlows(FlowTable *table, std::string *error);

/* The table, busiest flows first. */
void PrintFlows(const FlowTable &table);

} // namespace host
