/*
 * The independent test data: frames from pcap files and the values tshark
 * found in them (tests/data). Kept apart from the framework's headers, since
 * the system headers libpcap needs declare their own inet_ntoa.
 */
#pragma once

#include <map>
#include <string>
#include <vector>

namespace nftest {

using Frame = std::vector<unsigned char>;

/* Every frame of a pcap file, in order; an unreadable file fails the calling test. */
std::vector<Frame> ReadPcap(const std::string &path);

/* Writes frames to a pcap file with Ethernet link type. */
bool WritePcap(const std::string &path, const std::vector<Frame> &frames);

/* The rows of a CSV file written by tshark, keyed by column name; no quoted commas. */
std::vector<std::map<std::string, std::string>> ReadCsv(const std::string &path);

/* A path below tests/data. */
std::string DataPath(const std::string &relative);

/* A hexadecimal or decimal field value ("0x3e84", "17"); -1 when empty. */
long FieldNumber(const std::map<std::string, std::string> &row, const std::string &column);

} // namespace nftest
