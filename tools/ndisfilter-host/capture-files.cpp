/* pcap files in and out of the host program (see capture-files.h). */
#include "capture-files.h"

#include <pcap/pcap.h>

namespace host {

bool ReadCapture(const std::string &path, std::vector<CapturedFrame> *frames, std::string *error)
{
    char text[PCAP_ERRBUF_SIZE] = "";
    pcap_t *capture = pcap_open_offline(path.c_str(), text);
    if (capture == nullptr) {
        *error = text;
        return false;
    }
    if (pcap_datalink(capture) != DLT_EN10MB) {
        *error = "not an Ethernet capture (link type " + std::to_string(pcap_datalink(capture)) + ")";
        pcap_close(capture);
        return false;
    }
    struct pcap_pkthdr *header;
    const u_char *data;
    int result;
    while ((result = pcap_next_ex(capture, &header, &data)) == 1) {
        CapturedFrame frame;
        frame.Bytes.assign(data, data + header->caplen);
        frame.Seconds = header->ts.tv_sec;
        frame.Microseconds = header->ts.tv_usec;
        frames->push_back(std::move(frame));
    }
    if (result == PCAP_ERROR)
        *error = pcap_geterr(capture);
    pcap_close(capture);
    return result != PCAP_ERROR;
}

bool WriteCapture(const std::string &path, const std::vector<CapturedFrame> &frames, std::string *error)
{
    pcap_t *dead = pcap_open_dead(DLT_EN10MB, 65535);
    pcap_dumper_t *dumper = pcap_dump_open(dead, path.c_str());
    if (dumper == nullptr) {
        *error = pcap_geterr(dead);
        pcap_close(dead);
        return false;
    }
    for (const CapturedFrame &frame : frames) {
        struct pcap_pkthdr header = {};
        header.ts.tv_sec = (time_t)frame.Seconds;
        header.ts.tv_usec = (suseconds_t)frame.Microseconds;
        header.caplen = header.len = (bpf_u_int32)frame.Bytes.size();
        pcap_dump((u_char *)dumper, &header, frame.Bytes.data());
    }
    bool flushed = pcap_dump_flush(dumper) == 0;
    pcap_dump_close(dumper);
    pcap_close(dead);
    if (!flushed)
        *error = "cannot write " + path;
    return flushed;
}

void StampFrames(std::vector<CapturedFrame> *frames, int64_t startSeconds)
{
    for (size_t i = 0; i < frames->size(); i++) {
        (*frames)[i].Seconds = startSeconds + (int64_t)(i / 1000000);
        (*frames)[i].Microseconds = (int64_t)(i % 1000000);
    }
}

} // namespace host
