/* pcap files in and out of the host program (see capture-files.h). */
#include "capture-files.h"

#include <pcap/pcap.h>

namespace host {

CaptureReader::~CaptureReader()
{
    if (m_capture != nullptr)
        pcap_close(static_cast<pcap_t *>(m_capture));
}

bool CaptureReader::Open(const std::string &path, std::string *error)
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
    m_capture = capture;
    return true;
}

bool CaptureReader::Next(FrameView *frame)
{
    if (m_capture == nullptr)
        return false;
    struct pcap_pkthdr *header;
    const u_char *data;
    int result = pcap_next_ex(static_cast<pcap_t *>(m_capture), &header, &data);
    if (result != 1) {
        if (result == PCAP_ERROR)
            m_error = pcap_geterr(static_cast<pcap_t *>(m_capture));
        return false;
    }
    frame->Bytes = data;
    frame->Length = header->caplen;
    frame->Seconds = header->ts.tv_sec;
    frame->Microseconds = header->ts.tv_usec;
    return true;
}

CaptureWriter::~CaptureWriter()
{
    std::string ignored;
    Close(&ignored);
}

bool CaptureWriter::Open(const std::string &path, std::string *error)
{
    pcap_t *dead = pcap_open_dead(DLT_EN10MB, 65535);
    pcap_dumper_t *dumper = pcap_dump_open(dead, path.c_str());
    if (dumper == nullptr) {
        *error = pcap_geterr(dead);
        pcap_close(dead);
        return false;
    }
    m_dead = dead;
    m_dumper = dumper;
    m_frames = 0;
    return true;
}

void CaptureWriter::Write(const unsigned char *bytes, size_t length, int64_t seconds, int64_t microseconds)
{
    if (m_dumper == nullptr)
        return;
    struct pcap_pkthdr header = {};
    header.ts.tv_sec = (time_t)seconds;
    header.ts.tv_usec = (suseconds_t)microseconds;
    header.caplen = header.len = (bpf_u_int32)length;
    pcap_dump(static_cast<u_char *>(m_dumper), &header, bytes);
    m_frames++;
}

bool CaptureWriter::Close(std::string *error)
{
    if (m_dumper == nullptr)
        return true;
    bool flushed = pcap_dump_flush(static_cast<pcap_dumper_t *>(m_dumper)) == 0;
    pcap_dump_close(static_cast<pcap_dumper_t *>(m_dumper));
    pcap_close(static_cast<pcap_t *>(m_dead));
    m_dumper = m_dead = nullptr;
    if (!flushed)
        *error = "cannot write the capture";
    return flushed;
}

bool CountFrames(const std::string &path, size_t *frames, std::string *error)
{
    CaptureReader reader;
    *frames = 0;
    if (!reader.Open(path, error))
        return false;
    FrameView frame;
    while (reader.Next(&frame))
        (*frames)++;
    *error = reader.Error();
    return error->empty();
}
bool WriteCapture(const std::string &path, const std::vector<CapturedFrame> &frames, std::string *error)
{
    CaptureWriter writer;
    if (!writer.Open(path, error))
        return false;
    for (const CapturedFrame &frame : frames)
        writer.Write(frame.Bytes.data(), frame.Bytes.size(), frame.Seconds, frame.Microseconds);
    if (!writer.Close(error)) {
        *error = "cannot write " + path;
        return false;
    }
    return true;
}

void StampFrames(std::vector<CapturedFrame> *frames, int64_t startSeconds)
{
    for (size_t i = 0; i < frames->size(); i++) {
        (*frames)[i].Seconds = startSeconds + (int64_t)(i / 1000000);
        (*frames)[i].Microseconds = (int64_t)(i % 1000000);
    }
}

} // namespace host
