// ndishook-live-device.cpp - the Linux devices behind a live adapter.
#include "ndishook-live-device.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <linux/if_tun.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/ethernet.h>
#include <net/if_arp.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace ndishook {
namespace live {

namespace {

std::string Why(const std::string &what)
{
    return what + ": " + std::strerror(errno);
}

// Copies an interface name into ifr_name; false when it does not fit.
bool NameRequest(const std::string &name, ifreq *request)
{
    std::memset(request, 0, sizeof(*request));
    if (name.empty() || name.size() >= sizeof(request->ifr_name))
        return false;
    std::memcpy(request->ifr_name, name.c_str(), name.size());
    return true;
}

// An AF_INET datagram socket to ask interfaces with ioctl; -1 on failure.
int ControlSocket()
{
    return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

} // namespace

NetnsScope::NetnsScope(const std::string &netns)
{
    if (netns.empty())
        return;
    std::string path = netns.find('/') == std::string::npos ? "/run/netns/" + netns : netns;
    m_Home = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    int target = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_Home < 0 || target < 0) {
        m_Error = Why("cannot open network namespace " + path);
    } else if (setns(target, CLONE_NEWNET) != 0) {
        m_Error = Why("cannot enter network namespace " + path);
    } else {
        m_Entered = true;
    }
    if (target >= 0)
        close(target);
}

NetnsScope::~NetnsScope()
{
    if (m_Entered && setns(m_Home, CLONE_NEWNET) != 0)
        std::fprintf(stderr, "NdisHook: cannot return to the thread's network namespace: %s\n", std::strerror(errno));
    if (m_Home >= 0)
        close(m_Home);
}

bool NetnsScope::Ok(std::string *error) const
{
    if (m_Error.empty())
        return true;
    *error = m_Error;
    return false;
}

bool QueryInterface(const std::string &name, InterfaceInfo *info, std::string *error)
{
    ifreq request;
    if (!NameRequest(name, &request)) {
        *error = "no interface name \"" + name + "\"";
        return false;
    }
    int fd = ControlSocket();
    if (fd < 0) {
        *error = Why("socket");
        return false;
    }
    bool ok = false;
    if (ioctl(fd, SIOCGIFINDEX, &request) != 0) {
        *error = Why("no interface " + name);
    } else {
        info->Index = request.ifr_ifindex;
        if (ioctl(fd, SIOCGIFHWADDR, &request) != 0 || request.ifr_hwaddr.sa_family != ARPHRD_ETHER) {
            *error = "interface " + name + " is not an Ethernet interface";
        } else {
            std::memcpy(info->Mac, request.ifr_hwaddr.sa_data, 6);
            if (ioctl(fd, SIOCGIFMTU, &request) != 0) {
                *error = Why("MTU of " + name);
            } else {
                info->Mtu = (unsigned)request.ifr_mtu;
                if (ioctl(fd, SIOCGIFFLAGS, &request) != 0) {
                    *error = Why("flags of " + name);
                } else {
                    info->Running = (request.ifr_flags & IFF_UP) && (request.ifr_flags & IFF_RUNNING);
                    ok = true;
                }
            }
        }
    }
    close(fd);
    return ok;
}

bool SetMtu(const std::string &name, unsigned mtu, std::string *error)
{
    ifreq request;
    if (!NameRequest(name, &request))
        return false;
    request.ifr_mtu = (int)mtu;
    int fd = ControlSocket();
    bool ok = fd >= 0 && ioctl(fd, SIOCSIFMTU, &request) == 0;
    if (!ok)
        *error = Why("cannot set the MTU of " + name);
    if (fd >= 0)
        close(fd);
    return ok;
}

int OpenTap(const std::string &name, std::string *error)
{
    ifreq request;
    if (!NameRequest(name, &request)) {
        *error = "no TAP device name \"" + name + "\"";
        return -1;
    }
    int fd = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        *error = Why("/dev/net/tun");
        return -1;
    }
    request.ifr_flags = IFF_TAP | IFF_NO_PI;
    if (ioctl(fd, TUNSETIFF, &request) != 0) {
        *error = Why("cannot attach to TAP device " + name);
        close(fd);
        return -1;
    }
    return fd;
}

int OpenWire(int index, std::string *error)
{
    int fd = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, htons(ETH_P_ALL));
    if (fd < 0) {
        *error = Why("packet socket");
        return -1;
    }
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = index;
    packet_mreq promiscuous = {};
    promiscuous.mr_ifindex = index;
    promiscuous.mr_type = PACKET_MR_PROMISC;
    int one = 1;
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
        *error = Why("cannot bind the packet socket");
    } else if (setsockopt(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &promiscuous, sizeof(promiscuous)) != 0) {
        *error = Why("cannot make the interface promiscuous");
    } else if (setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof(one)) != 0) {
        *error = Why("cannot ignore outgoing frames");
    } else {
        return fd;
    }
    close(fd);
    return -1;
}

int OpenLinkMonitor(std::string *error)
{
    int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) {
        *error = Why("rtnetlink socket");
        return -1;
    }
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK;
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
        *error = Why("cannot bind the rtnetlink socket");
        close(fd);
        return -1;
    }
    return fd;
}

Ipv4Config ReadIpv4Config(const std::string &name)
{
    Ipv4Config config;
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) == 0) {
        for (ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
            if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET || name != entry->ifa_name)
                continue;
            Ipv4Config::Entry e = {};
            e.Address = reinterpret_cast<sockaddr_in *>(entry->ifa_addr)->sin_addr.s_addr;
            if (entry->ifa_netmask != nullptr)
                e.Netmask = reinterpret_cast<sockaddr_in *>(entry->ifa_netmask)->sin_addr.s_addr;
            e.Broadcast = (e.Address & e.Netmask) | ~e.Netmask;
            config.Addresses.push_back(e);
        }
        freeifaddrs(list);
    }
    // Default routes through the interface: "<name> 00000000 <gateway hex, as it lies in memory> ..."
    FILE *routes = std::fopen("/proc/thread-self/net/route", "r");
    if (routes != nullptr) {
        char line[256];
        while (std::fgets(line, sizeof(line), routes) != nullptr) {
            char device[IFNAMSIZ + 1];
            unsigned destination, gateway;
            if (std::sscanf(line, "%16s %x %x", device, &destination, &gateway) == 3 && name == device &&
                destination == 0 && gateway != 0)
                config.Gateways.push_back(gateway);
        }
        std::fclose(routes);
    }
    return config;
}

bool ReadLinkEvents(int fd, std::vector<LinkEvent> *events)
{
    alignas(nlmsghdr) char buffer[16384];
    for (;;) {
        ssize_t got = recv(fd, buffer, sizeof(buffer), 0);
        if (got < 0)
            return errno == EAGAIN || errno == EINTR || errno == ENOBUFS; // ENOBUFS: messages lost, read on
        size_t left = (size_t)got;
        for (nlmsghdr *message = reinterpret_cast<nlmsghdr *>(buffer); NLMSG_OK(message, left);
             message = NLMSG_NEXT(message, left)) {
            if ((message->nlmsg_type != RTM_NEWLINK && message->nlmsg_type != RTM_DELLINK) ||
                message->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg)))
                continue;
            const ifinfomsg *link = static_cast<const ifinfomsg *>(NLMSG_DATA(message));
            LinkEvent event;
            event.Index = link->ifi_index;
            event.Deleted = message->nlmsg_type == RTM_DELLINK;
            event.Running = (link->ifi_flags & IFF_UP) && (link->ifi_flags & IFF_RUNNING);
            int attributesLength = (int)(message->nlmsg_len - NLMSG_LENGTH(sizeof(ifinfomsg)));
            for (const rtattr *attribute = IFLA_RTA(link); RTA_OK(attribute, attributesLength);
                 attribute = RTA_NEXT(attribute, attributesLength)) {
                if (attribute->rta_type == IFLA_MTU && RTA_PAYLOAD(attribute) >= sizeof(uint32_t))
                    std::memcpy(&event.Mtu, RTA_DATA(attribute), sizeof(uint32_t));
            }
            events->push_back(event);
        }
    }
}

int OpenWakeup(std::string *error)
{
    int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0)
        *error = Why("eventfd");
    return fd;
}

void Signal(int fd)
{
    uint64_t one = 1;
    if (write(fd, &one, sizeof(one)) < 0 && errno != EAGAIN)
        std::fprintf(stderr, "NdisHook: cannot wake the live adapter's threads: %s\n", std::strerror(errno));
}

} // namespace live
} // namespace ndishook
