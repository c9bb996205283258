/*
 * capture-files.h - pcap files in and out of the host program (libpcap,
 * Ethernet link type). Kept apart from the framework's headers: the system
 * headers libpcap pulls in declare their own inet_ntoa.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace host {

struct CapturedFrame {
    std::vector<unsigned char> Bytes;
    int64_t Seconds = 0;
    int64_t Microseconds = 0;
};

/* Every frame of an Ethernet capture; FALSE with `error` set when it cannot be read. */
bool ReadCapture(const std::string &path, std::vector<CapturedFrame> *frames, std::string *error);

/* Writes the frames as a pcap file with Ethernet link type; FALSE with `error` set on failure. */
bool WriteCapture(const std::string &path, const std::vector<CapturedFrame> &frames, std::string *error);

/* Stamps frames that carry no time of their own: `start` plus one microsecond per frame. */
void StampFrames(std::vector<CapturedFrame> *frames, int64_t startSeconds);

} // namespace host
