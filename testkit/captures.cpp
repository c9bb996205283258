/* Reading and writing pcap files (see ndisfilter-testkit-captures.h). Kept apart from the
 * framework's headers: libpcap's headers declare the C library's htons and inet_ntoa. */
#include "ndisfilter-testkit-captures.h"

#include <pcap/pcap.h>

#include <gtest/gtest.h>

namespace nfkit {

std::vector<Frame> ReadPcap(const std::string &path)
{
    std::vector<Frame> frames;
    char error[PCAP_ERRBUF_SIZE];
    pcap_t *capture = pcap_open_offline(path.c_str(), error);
    if (capture == nullptr) {
        ADD_FAILURE() << "cannot read " << path << ": " << error;
        return frames;
    }
    struct pcap_pkthdr *header;
    const u_char *data;
    while (pcap_next_ex(capture, &header, &data) == 1)
        frames.emplace_back(data, data + header->caplen);
    pcap_close(capture);
    return frames;
}

bool WritePcap(const std::string &path, const std::vector<Frame> &frames)
{
    pcap_t *dead = pcap_open_dead(DLT_EN10MB, 65535);
    pcap_dumper_t *dumper = pcap_dump_open(dead, path.c_str());
    if (dumper == nullptr) {
        pcap_close(dead);
        return false;
    }
    for (size_t i = 0; i < frames.size(); i++) {
        struct pcap_pkthdr header = {};
        header.ts.tv_sec = (time_t)i;
        header.caplen = header.len = (bpf_u_int32)frames[i].size();
        pcap_dump((u_char *)dumper, &header, frames[i].data());
    }
    pcap_dump_close(dumper);
    pcap_close(dead);
    return true;
}

} // namespace nfkit
