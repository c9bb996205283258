/*
 * ndishook-live.h - live adapters of the simulated hook driver (host only, Linux).
 *
 * A live adapter joins the hook driver to real Linux devices: its wire side is
 * a network interface (a veth end) read and written through a packet socket,
 * its protocol side a TAP device whose network stack plays the adapter's
 * protocols. Frames the stack sends through the TAP device are indicated as
 * sent frames, frames arriving on the interface as received frames; what the
 * hook driver delivers to the protocols is written to the TAP device, what it
 * sends on the wire goes out of the interface. The adapter's MAC is the TAP
 * device's, its MTU and media state the interface's, its IP configuration the
 * IPv4 addresses (and default gateway) of the TAP device.
 *
 * The packet socket is promiscuous, so the wire side sees what the interface
 * carries whatever its own address; like an adapter's receive filter, only
 * frames to the adapter's MAC, broadcast and multicast frames are indicated.
 *
 * Two threads per adapter indicate frames at PASSIVE_LEVEL through the hook
 * driver's usual indication path: one reads the wire and follows the
 * interface's link state (rtnetlink), one reads the TAP device. When either
 * device disappears the adapter closes on its own; Close() stops the threads,
 * closes the adapter and every descriptor. Host tooling, C++17.
 */
#pragma once

#include <ndishook.h>

#include <cstdint>
#include <memory>
#include <string>

namespace ndishook {

struct LiveSetup {
    std::string Wire;  /* the interface of the wire side, e.g. a veth end */
    std::string Tap;   /* the TAP device of the protocol side (attached; created when missing) */
    std::string Netns; /* network namespace both live in: a name under /run/netns or a path; empty: ours */
    std::string InstanceId; /* "{...}"; empty: one made from the TAP device's MAC */
};

struct LiveCounters {
    uint64_t FromWire = 0;    /* frames read from the interface and indicated as received */
    uint64_t FromStack = 0;   /* frames read from the TAP device and indicated as sent */
    uint64_t ToWire = 0;      /* deliveries written to the interface */
    uint64_t ToStack = 0;     /* deliveries written to the TAP device */
    uint64_t Oversize = 0;    /* frames read longer than a packet record holds, or shorter than a header: dropped */
    uint64_t WriteErrors = 0; /* deliveries a device refused (full queue, gone) */
    uint64_t Refused = 0;     /* frames the hook driver did not take (adapter closed meanwhile) */
    uint64_t LinkChanges = 0; /* media state changes indicated */
    uint64_t Foreign = 0;     /* frames on the wire for another unicast address: not indicated */
};

class LiveAdapter {
public:
    /* Opens the devices and the hook driver's adapter and starts the threads; nullptr with `error`
     * set when a device cannot be opened or the hook driver refused. IRQL == PASSIVE_LEVEL. */
    static std::unique_ptr<LiveAdapter> Open(const LiveSetup &setup, std::string *error);
    ~LiveAdapter();
    LiveAdapter(const LiveAdapter &) = delete;
    LiveAdapter &operator=(const LiveAdapter &) = delete;

    /* Stops reading the devices (the threads leave); deliveries still reach them until Close(). */
    void StopReading();
    /* Stops the threads, closes the adapter on the hook driver, closes every descriptor. Idempotent. */
    void Close();

    PFilterAdapter Handle() const;
    const UCHAR *Mac() const;
    USHORT Mtu() const;
    const std::string &Name() const; /* "<wire>:<tap>" */
    /* Whether the adapter closed because a device went away, and why. */
    bool Gone() const;
    std::string GoneReason() const;
    LiveCounters Counters() const;

    struct State;

private:
    explicit LiveAdapter(std::unique_ptr<State> state);
    std::unique_ptr<State> m_State;
};

} // namespace ndishook
