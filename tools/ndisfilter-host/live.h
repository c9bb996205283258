/*
 * live.h - the host program on live traffic: the drivers loaded as for a
 * replay, live adapters (ndishook-live.h) instead of captures, the capture
 * logs and the user program's side running until a signal or the duration
 * ends, then the adapters closed, the queues drained and the run reported.
 */
#pragma once

#include "options.h"

namespace host {

/* Runs the live mode of the command line; returns the exit status (0 only when the run was clean). */
int RunLive(const Options &options);

} // namespace host
