// What the kernel-socket tests share: locked buffers for requests, peers made
// of host sockets or socat on the loopback interface, and the end-of-test
// checks that nothing of the transport or the library is left behind.
#pragma once

#include <ntddk.h>
#include <ndis.h>
#include <tdikrnl.h>
#include <hostkernel.h>
#include <ksocket.h>

#include "hk_test_support.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace kstest {

constexpr ULONG kRequestTag = 0x7152734B; // "KsRq"
constexpr ULONG kEaTag = 0x6145734B;      // "KsEa"
constexpr ULONG kLinkTag = 0x6E4C734B;    // "KsLn"

inline ULONG Loopback() { return htonl(INADDR_LOOPBACK); }

inline TA_IP_ADDRESS IpAddress(ULONG address, USHORT port)
{
    TA_IP_ADDRESS ta;
    KS_InitIPAddress(&ta, address, htons(port));
    return ta;
}

// A buffer described by a locked MDL, as a client passes to a request.
struct MdlBuffer {
    std::vector<UCHAR> data;
    PMDL mdl = nullptr;
    explicit MdlBuffer(size_t length, UCHAR fill = 0) : data(length, fill)
    {
        mdl = KS_AllocateAndProbeMdl(data.data(), static_cast<ULONG>(length), FALSE, FALSE, nullptr);
    }
    explicit MdlBuffer(const std::string &text) : MdlBuffer(text.size())
    {
        std::memcpy(data.data(), text.data(), text.size());
    }
    ~MdlBuffer()
    {
        if (mdl != nullptr)
            KS_UnlockAndFreeMdl(mdl);
    }
    std::string Text(size_t length) const
    {
        return std::string(reinterpret_cast<const char *>(data.data()), length);
    }
    MdlBuffer(const MdlBuffer &) = delete;
    MdlBuffer &operator=(const MdlBuffer &) = delete;
};

// A host socket of the test, bound to 127.0.0.1 on a port of the system's choice.
struct HostSocket {
    int fd = -1;
    USHORT port = 0;
    explicit HostSocket(int type)
    {
        fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = Loopback();
        bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a));
        socklen_t length = sizeof(a);
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &length);
        port = ntohs(a.sin_port);
        if (type == SOCK_STREAM)
            listen(fd, 8);
    }
    explicit HostSocket(int acceptedFd, bool) : fd(acceptedFd) {}
    ~HostSocket()
    {
        if (fd >= 0)
            close(fd);
    }
    HostSocket(const HostSocket &) = delete;
    HostSocket &operator=(const HostSocket &) = delete;

    bool Readable(int ms = 10000) const
    {
        pollfd p{fd, POLLIN, 0};
        return poll(&p, 1, ms) == 1;
    }
    // One datagram (or what a stream has), waiting up to 10 s.
    std::string Receive(sockaddr_in *from = nullptr)
    {
        if (!Readable())
            return "(timeout)";
        char buffer[65536];
        socklen_t length = sizeof(sockaddr_in);
        ssize_t n = recvfrom(fd, buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr *>(from),
                             from ? &length : nullptr);
        return n < 0 ? "(error)" : std::string(buffer, static_cast<size_t>(n));
    }
    void SendTo(USHORT toPort, const std::string &text)
    {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = Loopback();
        to.sin_port = htons(toPort);
        sendto(fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to));
    }
    int Accept()
    {
        return Readable() ? accept4(fd, nullptr, nullptr, SOCK_CLOEXEC) : -1;
    }
    // Closes with a reset instead of a release.
    void Reset()
    {
        linger abort{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
        close(fd);
        fd = -1;
    }
};

// A port nobody listens on right now.
inline USHORT UnusedPort(int type)
{
    HostSocket s(type);
    return s.port;
}

// A real peer: socat run with `arguments`, stopped at the end of the scope.
struct Socat {
    pid_t pid = -1;
    Socat(const std::vector<std::string> &arguments, USHORT port, int type)
    {
        pid = fork();
        if (pid == 0) {
            std::vector<char *> argv;
            argv.push_back(const_cast<char *>("socat"));
            for (const std::string &a : arguments)
                argv.push_back(const_cast<char *>(a.c_str()));
            argv.push_back(nullptr);
            execvp("socat", argv.data());
            _exit(127);
        }
        // Up when the port is taken.
        hktest::WaitUntil([&] {
            int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_addr.s_addr = Loopback();
            a.sin_port = htons(port);
            bool taken = bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)) != 0;
            close(fd);
            return taken;
        });
    }
    ~Socat()
    {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
};

inline bool HaveSocat()
{
    return system("command -v socat >/dev/null 2>&1") == 0;
}

// Every test ends with the transport's objects and sockets gone and nothing of
// the library's left: no IRP, MDL, request context, EA buffer or link name.
class KsTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        EXPECT_TRUE(hktest::WaitUntil([] { return HkTransportObjectCount() == 0; }))
            << HkTransportObjectCount() << " transport objects left open";
        EXPECT_EQ(0u, HkTransportSocketCount());
        EXPECT_TRUE(hktest::WaitUntil([] { return HkLiveIrpCount() == 0; }))
            << HkLiveIrpCount() << " IRPs left";
        EXPECT_EQ(0u, HkLiveMdlCount());
        for (ULONG tag : {kRequestTag, kEaTag, kLinkTag})
            EXPECT_EQ(0u, HkPoolLiveAllocationCountWithTag(tag));
    }
};

} // namespace kstest
