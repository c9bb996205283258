/*
 * control-table.h - every control code of the framework, with good and bad
 * buffers, through the Win32 calls a user program makes; one line of text
 * per request, so the answers of the framework in this process and in the
 * daemon can be compared.
 */
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace bridgetest {

/* The adapter the table asks about: its MAC and its identifier. */
std::vector<std::string> RunControlTable(const UCHAR mac[6], ULONG adapterId);

} // namespace bridgetest
