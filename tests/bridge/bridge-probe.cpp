/*
 * bridge-probe - a user program in a process of its own, for the bridge's
 * tests. It loads no driver, so \\.\NdisFilter is the daemon's
 * ($NDISFILTER_SOCKET). Commands, each printing what it saw on stdout:
 *
 *   controls MAC ID      the control table (control-table.h)
 *   share COUNT INJECT   takes the share, says "ready", waits (10 s at most)
 *                        for COUNT frames from the rings, sends INJECT frames
 *                        to adapter 1's wire through the input ring, gives
 *                        the share back; "received N", exit 0 when N >= COUNT
 *   hold                 takes the share, keeps a read parked, says "holding"
 *                        and waits to be killed
 *   open                 "opened" or "open failed: <Win32 error>"
 */
#include <windows.h>

#include <ndisfilter-app.h>

#include "control-table.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

bool ParseMac(const char *text, UCHAR mac[6])
{
    unsigned v[6];
    if (std::sscanf(text, "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]) != 6)
        return false;
    for (int i = 0; i < 6; i++)
        mac[i] = (UCHAR)v[i];
    return true;
}

int Share(unsigned expected, unsigned inject)
{
    nfapp::SharedChannel channel;
    if (!channel.Open() || !channel.Start()) {
        std::printf("share refused: %s\n", channel.ControlError().Describe().c_str());
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    std::atomic<unsigned> received{0};
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (received < expected && std::chrono::steady_clock::now() < deadline)
        channel.ReceiveOnce([&](const nfapp::ReceivedBlock &) { received++; }, 100);

    /* A UDP datagram from host A's MAC to port 9 (discard): nothing filters it. */
    UCHAR frame[60] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02, 0x00, 0x00, 0x00, 0x0a, 0x01, 0x08, 0x00,
                       0x45, 0x00, 0x00, 0x2e, 0x00, 0x00, 0x00, 0x00, 0x40, 0x11, 0x00, 0x00, 10, 0, 0, 1,
                       10, 0, 0, 255, 0x30, 0x39, 0x00, 0x09, 0x00, 0x1a, 0x00, 0x00};
    for (unsigned i = 0; i < inject; i++) {
        nfapp::SendResult result = channel.Send(1, FILTER_DIRECTION_TO_ADAPTER, frame, sizeof(frame));
        if (result != nfapp::SendResult::Sent) {
            std::printf("send failed: %s\n", nfapp::SendResultName(result));
            return 1;
        }
    }
    while (channel.InputInFlight() != 0 && std::chrono::steady_clock::now() < deadline + std::chrono::seconds(5))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    channel.Stop();
    channel.Close();
    std::printf("received %u\n", received.load());
    return received >= expected ? 0 : 1;
}

int Hold()
{
    nfapp::SharedChannel channel;
    if (!channel.Open() || !channel.Start()) {
        std::printf("share refused: %s\n", channel.ControlError().Describe().c_str());
        return 1;
    }
    channel.ReceiveOnce([](const nfapp::ReceivedBlock &) {}, 0); /* parks the read */
    std::printf("holding\n");
    std::fflush(stdout);
    for (;;)
        std::this_thread::sleep_for(std::chrono::seconds(1));
}

} // namespace

int main(int argc, char **argv)
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::string command = argc > 1 ? argv[1] : "";
    UCHAR mac[6];
    if (command == "controls" && argc == 4 && ParseMac(argv[2], mac)) {
        for (const std::string &line : bridgetest::RunControlTable(mac, (ULONG)std::strtoul(argv[3], nullptr, 0)))
            std::printf("%s\n", line.c_str());
        return 0;
    }
    if (command == "share" && argc == 4)
        return Share((unsigned)std::strtoul(argv[2], nullptr, 0), (unsigned)std::strtoul(argv[3], nullptr, 0));
    if (command == "hold")
        return Hold();
    if (command == "open") {
        HANDLE device = CreateFileA(NDISFILTER_USER_DEVICE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_OVERLAPPED, nullptr);
        if (device == INVALID_HANDLE_VALUE) {
            std::printf("open failed: %lu\n", (unsigned long)GetLastError());
            return 1;
        }
        std::printf("opened\n");
        CloseHandle(device);
        return 0;
    }
    std::fprintf(stderr, "usage: bridge-probe controls MAC ID | share COUNT INJECT | hold | open\n");
    return 2;
}
