/*
 * ndisfilter-testkit-captures.h - frames and pcap files for the tests of
 * client drivers. Standard C++ only: a test file that includes libpcap's or
 * the C library's network headers can include this one, where it cannot
 * include <ndisfilter.h> (the framework exports htons and inet_ntoa itself).
 */
#ifndef NDISFILTER_TESTKIT_CAPTURES_H
#define NDISFILTER_TESTKIT_CAPTURES_H

#include <string>
#include <vector>

namespace nfkit {

using Frame = std::vector<unsigned char>;

/* Every frame of a pcap file, in order; an unreadable file fails the calling test. */
std::vector<Frame> ReadPcap(const std::string &path);

/* Writes frames to a pcap file with Ethernet link type (frame i stamped i seconds); FALSE when
 * the file cannot be written. */
bool WritePcap(const std::string &path, const std::vector<Frame> &frames);

} // namespace nfkit

#endif /* NDISFILTER_TESTKIT_CAPTURES_H */
