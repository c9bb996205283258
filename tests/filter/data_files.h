/*
 * The independent test data: frames from pcap files and the values tshark
 * found in them (tests/data). Kept apart from the framework's headers, since
 * the system headers libpcap needs declare their own inet_ntoa.
 */
#pragma once

#include <ndisfilter-testkit-captures.h>

#include <map>
#include <string>
#include <vector>

namespace nftest {

/* Frames and pcap files come from the client drivers' test kit. */
using nfkit::Frame;
using nfkit::ReadPcap;
using nfkit::WritePcap;

/* The rows of a CSV file written by tshark, keyed by column name; no quoted commas. */
std::vector<std::map<std::string, std::string>> ReadCsv(const std::string &path);

/* A path below tests/data. */
std::string DataPath(const std::string &relative);

/* A hexadecimal or decimal field value ("0x3e84", "17"); -1 when empty. */
long FieldNumber(const std::map<std::string, std::string> &row, const std::string &column);

} // namespace nftest
