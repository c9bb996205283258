// ndishook-live-device.h - the Linux devices behind a live adapter: TAP
// device, packet socket, rtnetlink link messages, interface properties and
// addresses, network namespaces. Plain types only: this part sees the C
// library's networking headers, which the framework's header may not meet
// (it exports htons and the address helpers under their own names).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ndishook {
namespace live {

// What an interface reports of itself.
struct InterfaceInfo {
    int Index = 0;
    uint8_t Mac[6] = {0};
    unsigned Mtu = 0;
    bool Running = false; // up with its carrier on
};

// IPv4 addresses in network order.
struct Ipv4Config {
    struct Entry {
        uint32_t Address;
        uint32_t Netmask;
        uint32_t Broadcast;
    };
    std::vector<Entry> Addresses;
    std::vector<uint32_t> Gateways;
};

// The calling thread enters a network namespace (a name under /run/netns or a
// path) for the scope and returns to its own after; an empty name stays.
class NetnsScope {
public:
    explicit NetnsScope(const std::string &netns);
    ~NetnsScope();
    NetnsScope(const NetnsScope &) = delete;
    NetnsScope &operator=(const NetnsScope &) = delete;
    bool Ok(std::string *error) const;

private:
    int m_Home = -1;
    bool m_Entered = false;
    std::string m_Error;
};

bool QueryInterface(const std::string &name, InterfaceInfo *info, std::string *error);
// Sets an interface's MTU (the TAP device follows the wire).
bool SetMtu(const std::string &name, unsigned mtu, std::string *error);
// Attaches to the TAP device `name` (created when missing): non-blocking, frames without a header of its own.
int OpenTap(const std::string &name, std::string *error);
// A non-blocking packet socket bound to every protocol of interface `index`, promiscuous, blind
// to the frames it sends itself.
int OpenWire(int index, std::string *error);
// A non-blocking rtnetlink socket in the link group.
int OpenLinkMonitor(std::string *error);
// The IPv4 addresses on interface `name` and the gateways of the default routes through it.
Ipv4Config ReadIpv4Config(const std::string &name);

// A link message read from the monitor.
struct LinkEvent {
    int Index = 0;
    bool Deleted = false;
    bool Running = false;
    unsigned Mtu = 0;
};
// Reads what the monitor holds now; false when the socket failed.
bool ReadLinkEvents(int fd, std::vector<LinkEvent> *events);

// An eventfd that wakes the threads; Signal makes it readable for good.
int OpenWakeup(std::string *error);
void Signal(int fd);

} // namespace live
} // namespace ndishook
