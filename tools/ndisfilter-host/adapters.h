/*
 * adapters.h - one simulated adapter per capture file: its own MAC address
 * found in the capture, the replay of the capture through the hook driver,
 * and the frames that came out on either side. Captures are read and the
 * frames that come out written a frame at a time: memory does not grow with
 * a capture's length.
 */
#pragma once

#include <ntddk.h>
#include <ndis.h>
#include <ndisfilter.h>

#include "capture-files.h"

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace host {

/* The frames an adapter passed on in one direction, written to a pcap file as they come
 * (from whatever thread delivers them), stamped `start` plus one microsecond per frame. */
class DeliveryOutput {
public:
    bool Open(const std::string &path, int64_t startSeconds, std::string *error);
    void Add(const unsigned char *bytes, size_t length);
    bool Close(std::string *error);
    size_t Frames() const;
    const std::string &Path() const { return m_path; }

private:
    mutable std::mutex m_lock;
    CaptureWriter m_writer;
    std::string m_path;
    int64_t m_start = 0;
    size_t m_frames = 0;
};

struct ReplayAdapter {
    std::string CapturePath;
    std::string Name; /* the capture's file name without its extension */
    size_t FrameCount = 0; /* frames in the capture */
    UCHAR Mac[6] = {0};
    IPConfig IpConfig = {}; /* what TCP/IP has for the adapter, from its own frames */

    /* while open */
    std::string DeviceName;
    std::string InstanceId;
    std::string Description;
    PFilterAdapter Handle = nullptr;
    ULONG Id = 0; /* the framework's identifier, used in the shared rings */

    /* the replay */
    ULONG Sent = 0;     /* frames handed down by "its protocols" (source MAC is its own) */
    ULONG Received = 0; /* frames arriving from the wire */
    ULONG Skipped = 0;  /* shorter than an Ethernet header or longer than 1518 bytes */

    /* what came out, while the outputs are open */
    DeliveryOutput ToWire;
    DeliveryOutput ToProtocols;

    /* Whether the frame was sent by this adapter's host. */
    bool IsOwnFrame(const unsigned char *bytes, size_t length) const;
};

using Adapters = std::vector<std::unique_ptr<ReplayAdapter>>;

/*
 * Reads through each capture and picks its adapter's MAC: the most frequent
 * source address (the first seen on a tie), and its IP configuration from its
 * own frames (see OpenAdapters).
 */
bool ReadCaptures(const std::vector<std::string> &paths, Adapters *adapters, std::string *error);

/* Up to `count` frames from the start of an adapter's capture, of at most `longest` bytes and
 * not empty; with `receivedOnly` only frames that are not its own. */
std::vector<std::vector<unsigned char>> FirstFrames(const ReplayAdapter &adapter, size_t count, size_t longest,
                                                    bool receivedOnly);

/*
 * Opens every adapter on the hook driver, with the IP configuration its own
 * frames show (the most frequent IPv4 source address, a /24 network, its .1
 * or .254 as router), and asks the framework for its identifier.
 */
bool OpenAdapters(Adapters &adapters, std::string *error);

/*
 * Opens each adapter's outputs in `dir` (<stem>-to-wire.pcap, <stem>-to-protocols.pcap;
 * the stem is the capture's name, prefixed with the adapter's id when there are several)
 * and has the hook driver hand them every frame the adapter delivers.
 */
bool StartOutputs(Adapters &adapters, const std::string &dir, int64_t startSeconds, std::string *error);
/* Takes the outputs back from the hook driver and closes them; each written file with its
 * frames goes to `written`, each failure to `problems`. */
void StopOutputs(Adapters &adapters, std::vector<std::pair<std::string, size_t>> *written,
                 std::vector<std::string> *problems);

struct ReplayResult {
    double Seconds = 0;
    unsigned long long Frames = 0; /* handed to the hook driver */
    unsigned long long Waits = 0;  /* frames that found the hook driver's packet pool empty */
    bool Ok = true;
    std::string Error; /* why not Ok */
};

/*
 * Replays all captures interleaved by their time stamps (each capture in its
 * own order, the earlier capture first on equal stamps), as fast as the
 * framework takes them: own frames are sent, the others received. When the
 * hook driver's packet pool is empty it waits for packets to come back, as a
 * protocol would, and fails only when none comes back for ten seconds. With
 * `progress` a line goes to stderr at most once a second.
 */
ReplayResult Replay(Adapters &adapters, bool progress);

void CloseAdapters(Adapters &adapters);

/* "02-00-00-00-0A-01". */
std::string MacText(const UCHAR *mac);

} // namespace host
