/* The test's collector (see collector_peer.h). */
#include "collector_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int BoundSocket(int type, unsigned short port)
{
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

unsigned short PortOf(int fd)
{
    sockaddr_in a{};
    socklen_t length = sizeof(a);
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &length);
    return ntohs(a.sin_port);
}

} // namespace

CollectorPeer::CollectorPeer()
{
    for (int attempt = 0; attempt < 20 && listener < 0; ++attempt) {
        if (udp >= 0)
            close(udp);
        udp = BoundSocket(SOCK_DGRAM, 0);
        port = PortOf(udp);
        listener = BoundSocket(SOCK_STREAM, port);
    }
    listen(listener, 4);
}

void CollectorPeer::Start()
{
    reader = std::thread([this] {
        while (!stop.load()) {
            pollfd p[3] = {{udp, POLLIN, 0}, {listener, POLLIN, 0}, {stream, POLLIN, 0}};
            if (poll(p, stream >= 0 ? 3 : 2, 20) <= 0)
                continue;
            char buffer[65536];
            if (p[0].revents & POLLIN) {
                ssize_t n = recv(udp, buffer, sizeof(buffer), 0);
                std::lock_guard<std::mutex> guard(lock);
                datagrams.emplace_back(buffer, n > 0 ? static_cast<size_t>(n) : 0);
            }
            if ((p[1].revents & POLLIN) && stream < 0)
                stream = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (stream >= 0 && (p[2].revents & (POLLIN | POLLHUP))) {
                ssize_t n = recv(stream, buffer, sizeof(buffer), 0);
                std::lock_guard<std::mutex> guard(lock);
                if (n > 0)
                    bytes.append(buffer, static_cast<size_t>(n));
            }
        }
    });
}

void CollectorPeer::CloseListener()
{
    close(listener);
    listener = -1;
}

CollectorPeer::~CollectorPeer()
{
    stop = true;
    if (reader.joinable())
        reader.join();
    for (int fd : {udp, listener, stream})
        if (fd >= 0)
            close(fd);
}

std::string AskForAnswer(unsigned short port, const std::string &question)
{
    int asker = BoundSocket(SOCK_DGRAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(port);
    sendto(asker, question.data(), question.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to));
    pollfd p{asker, POLLIN, 0};
    std::string answer;
    char buffer[256];
    if (poll(&p, 1, 10000) == 1) {
        ssize_t n = recv(asker, buffer, sizeof(buffer), 0);
        if (n > 0)
            answer.assign(buffer, static_cast<size_t>(n));
    }
    close(asker);
    return answer;
}
