/*
 * adapters.h - one simulated adapter per capture file: its own MAC address
 * found in the capture, the replay of the capture through the hook driver,
 * and the frames that came out on either side.
 */
#pragma once

#include <ntddk.h>
#include <ndis.h>
#include <ndisfilter.h>

#include "capture-files.h"

#include <memory>
#include <string>
#include <vector>

namespace host {

struct ReplayAdapter {
    std::string CapturePath;
    std::string Name; /* the capture's file name without its extension */
    std::vector<CapturedFrame> Frames;
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

    /* what came out, collected before the adapter closes */
    std::vector<CapturedFrame> ToWire;
    std::vector<CapturedFrame> ToProtocols;

    /* Whether the frame was sent by this adapter's host. */
    bool IsOwnFrame(const CapturedFrame &frame) const;
};

using Adapters = std::vector<std::unique_ptr<ReplayAdapter>>;

/* Reads each capture and picks its adapter's MAC: the most frequent source address (the first seen on a tie). */
bool ReadCaptures(const std::vector<std::string> &paths, Adapters *adapters, std::string *error);

/*
 * Opens every adapter on the hook driver, with the IP configuration its own
 * frames show (the most frequent IPv4 source address, a /24 network, its .1
 * or .254 as router), and asks the framework for its identifier.
 */
bool OpenAdapters(Adapters &adapters, std::string *error);

/*
 * Replays all captures interleaved by their time stamps (as fast as the
 * framework takes them): own frames are sent, the others received. Returns
 * the seconds it took; FALSE in `ok` when the hook driver refused a frame.
 */
double Replay(Adapters &adapters, bool *ok, std::string *error);

/* Copies the frames each adapter delivered to the wire and to the protocols. */
void CollectDelivered(Adapters &adapters, int64_t startSeconds);

void CloseAdapters(Adapters &adapters);

/* "02-00-00-00-0A-01". */
std::string MacText(const UCHAR *mac);

} // namespace host
