/*
 * capture-files.h - pcap files in and out of the host program (libpcap,
 * Ethernet link type), a frame at a time, so that no capture is ever held in
 * memory whole. Kept apart from the framework's headers: the system headers
 * libpcap pulls in declare their own inet_ntoa.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace host {

struct CapturedFrame {
    std::vector<unsigned char> Bytes;
    int64_t Seconds = 0;
    int64_t Microseconds = 0;
};

/* One frame as a reader hands it out: valid until the reader's next call. */
struct FrameView {
    const unsigned char *Bytes = nullptr;
    size_t Length = 0; /* bytes captured */
    int64_t Seconds = 0;
    int64_t Microseconds = 0;
    int64_t Time() const { return Seconds * 1000000 + Microseconds; }
};

/* Reads an Ethernet capture frame by frame. */
class CaptureReader {
public:
    CaptureReader() = default;
    ~CaptureReader();
    CaptureReader(const CaptureReader &) = delete;
    CaptureReader &operator=(const CaptureReader &) = delete;

    /* FALSE with `error` set when the file cannot be read or is not Ethernet. */
    bool Open(const std::string &path, std::string *error);
    /* The next frame; FALSE at the end or on an error (then Error() says which). */
    bool Next(FrameView *frame);
    const std::string &Error() const { return m_error; }

private:
    void *m_capture = nullptr; /* pcap_t */
    std::string m_error;
};

/* Writes an Ethernet capture frame by frame. */
class CaptureWriter {
public:
    CaptureWriter() = default;
    ~CaptureWriter();
    CaptureWriter(const CaptureWriter &) = delete;
    CaptureWriter &operator=(const CaptureWriter &) = delete;

    bool Open(const std::string &path, std::string *error);
    void Write(const unsigned char *bytes, size_t length, int64_t seconds, int64_t microseconds);
    /* Flushes and closes; FALSE with `error` set when the file could not be written. */
    bool Close(std::string *error);
    size_t Frames() const { return m_frames; }

private:
    void *m_dead = nullptr;   /* pcap_t */
    void *m_dumper = nullptr; /* pcap_dumper_t */
    size_t m_frames = 0;
};

/* Writes the frames as a pcap file with Ethernet link type; FALSE with `error` set on failure. */
/* The number of frames in a capture; FALSE with `error` set when it cannot be read to the end. */
bool CountFrames(const std::string &path, size_t *frames, std::string *error);

bool WriteCapture(const std::string &path, const std::vector<CapturedFrame> &frames, std::string *error);

/* Stamps frames that carry no time of their own: `start` plus one microsecond per frame. */
void StampFrames(std::vector<CapturedFrame> *frames, int64_t startSeconds);

} // namespace host
