/*
 * daemon.cpp - the host program as a daemon: the drivers stay loaded and
 * their control device is served to user programs in processes of their own,
 * one connection per process on a Unix socket (the host runtime's bridge).
 *
 * The socket lives in a directory of the daemon's user closed to others
 * (0700) and is itself 0600; the runtime also refuses a peer of another uid.
 * SIGUSR1 replays the captures through the adapters (what a user program
 * then sees through the rings); SIGINT and SIGTERM end the service: every
 * connection is closed (its handles as at process exit) before the caller
 * unloads the drivers.
 */
#include <windows.h>
#include <ntddk.h>
#include <ndis.h>
#include <hostkernel.h>
#include <ndishook.h>

#include "daemon.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>

namespace host {
namespace {

int SignalPipe[2] = {-1, -1};

void OnSignal(int number)
{
    int saved = errno;
    unsigned char byte = (unsigned char)number;
    if (write(SignalPipe[1], &byte, 1) < 0) {
        /* a full pipe already holds a wake-up */
    }
    errno = saved;
}

/* The socket's directory: made 0700 when missing, else it must be ours and closed to others. */
bool PrepareDirectory(const std::string &path, std::string *error)
{
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
        *error = "cannot make " + dir + ": " + std::strerror(errno);
        return false;
    }
    struct stat info;
    if (stat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        *error = dir + " is not a directory";
        return false;
    }
    if (info.st_uid != geteuid() || (info.st_mode & 077) != 0) {
        char text[64];
        std::snprintf(text, sizeof(text), " (owner uid %u, mode %03o)", (unsigned)info.st_uid,
                      (unsigned)(info.st_mode & 0777));
        *error = "the socket's directory " + dir + " must belong to this user and be closed to others (0700)" + text;
        return false;
    }
    return true;
}

int Listen(const std::string &path, std::string *error)
{
    struct sockaddr_un address;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        *error = "socket path too long: " + path;
        return -1;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *error = std::string("socket: ") + std::strerror(errno);
        return -1;
    }
    /* A socket left by a daemon that died is replaced; a live one is not. */
    if (connect(fd, (struct sockaddr *)&address, sizeof(address)) == 0) {
        close(fd);
        *error = "a daemon already serves " + path;
        return -1;
    }
    unlink(path.c_str());
    mode_t old = umask(077);
    int bound = bind(fd, (struct sockaddr *)&address, sizeof(address));
    umask(old);
    if (bound != 0 || chmod(path.c_str(), 0600) != 0 || listen(fd, 16) != 0) {
        *error = "cannot listen on " + path + ": " + std::strerror(errno);
        close(fd);
        return -1;
    }
    return fd;
}

struct Served {
    std::thread Thread;
    int Control = -1; /* a duplicate of the connection, to shut it down at the end */
    std::shared_ptr<std::atomic<bool>> Done;
};

/* Frames the hook driver delivered since the last look, added up per adapter and taken out of
 * its record (one at a time, so none delivered meanwhile is lost and the record does not grow). */
void CountDelivered(Adapters &adapters, DaemonReport *report)
{
    report->ToWire.resize(adapters.size());
    report->ToProtocols.resize(adapters.size());
    static UCHAR frame[65536];
    for (size_t i = 0; i < adapters.size(); i++) {
        for (ULONG direction : {(ULONG)FILTER_DIRECTION_TO_ADAPTER, (ULONG)FILTER_DIRECTION_TO_PROTOCOL}) {
            ULONG64 &count = direction == FILTER_DIRECTION_TO_ADAPTER ? report->ToWire[i] : report->ToProtocols[i];
            ULONG length = 0;
            while (NT_SUCCESS(NdisHookTakeDelivered(adapters[i]->Handle, direction, frame, sizeof(frame), &length)))
                count++;
        }
    }
}

} // namespace

void ServeDaemon(const Options &options, Adapters &adapters, DaemonReport *report)
{
    std::string error;
    if (!OpenAdapters(adapters, &error)) {
        report->Problems.push_back(error);
        return;
    }
    std::string path = options.SocketPath;
    if (path.empty()) {
        char buffer[512];
        if (HkBridgeSocketPath(buffer, sizeof(buffer)) == 0) {
            report->Problems.push_back("no usable socket path");
            return;
        }
        path = buffer;
    }
    if (!PrepareDirectory(path, &error)) {
        report->Problems.push_back(error);
        return;
    }
    int listener = Listen(path, &error);
    if (listener < 0) {
        report->Problems.push_back(error);
        return;
    }
    if (pipe2(SignalPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        report->Problems.push_back(std::string("pipe: ") + std::strerror(errno));
        close(listener);
        unlink(path.c_str());
        return;
    }
    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = OnSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (int number : {SIGINT, SIGTERM, SIGUSR1})
        sigaction(number, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);

    std::printf("daemon: serving \\\\.\\NdisFilter at %s (pid %d)\n", path.c_str(), (int)getpid());
    std::vector<Served> served;
    bool running = true;
    while (running) {
        struct pollfd waits[2] = {{listener, POLLIN, 0}, {SignalPipe[0], POLLIN, 0}};
        if (poll(waits, 2, 1000) < 0 && errno != EINTR)
            break;
        unsigned char number = 0;
        while (read(SignalPipe[0], &number, 1) == 1) {
            if (number == SIGUSR1) {
                bool ok = false;
                Replay(adapters, &ok, &error);
                if (!ok)
                    report->Problems.push_back(error);
                std::printf("daemon: captures replayed\n");
            } else {
                running = false;
            }
        }
        if (running && (waits[0].revents & POLLIN) != 0) {
            int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (connection >= 0) {
                Served one;
                one.Control = dup(connection);
                one.Done = std::make_shared<std::atomic<bool>>(false);
                std::shared_ptr<std::atomic<bool>> done = one.Done;
                one.Thread = std::thread([connection, done] {
                    HkBridgeServe(connection);
                    *done = true;
                });
                served.push_back(std::move(one));
                report->Connections++;
            }
        }
        /* Threads of connections that ended are joined as they go. */
        for (auto it = served.begin(); it != served.end();) {
            if (*it->Done) {
                it->Thread.join();
                close(it->Control);
                it = served.erase(it);
            } else {
                ++it;
            }
        }
        CountDelivered(adapters, report);
    }
    close(listener);
    unlink(path.c_str());
    for (Served &one : served)
        shutdown(one.Control, SHUT_RDWR);
    for (Served &one : served) {
        one.Thread.join();
        close(one.Control);
    }
    CountDelivered(adapters, report);
    for (int number : {SIGINT, SIGTERM, SIGUSR1})
        signal(number, SIG_DFL);
    close(SignalPipe[0]);
    close(SignalPipe[1]);
    std::printf("daemon: stopped after %u connection(s)\n", report->Connections);
}

void PrintDaemonReport(const Adapters &adapters, const DaemonReport &report, const std::vector<std::string> &findings)
{
    for (size_t i = 0; i < adapters.size() && i < report.ToWire.size(); i++)
        std::printf("adapter %lu %s: %llu frames to the wire, %llu to the protocols\n", (unsigned long)adapters[i]->Id,
                    adapters[i]->Name.c_str(), (unsigned long long)report.ToWire[i],
                    (unsigned long long)report.ToProtocols[i]);
    for (const std::string &problem : report.Problems)
        std::printf("problem: %s\n", problem.c_str());
    std::printf("verifier findings: %zu\n", findings.size());
    for (const std::string &finding : findings)
        std::printf("  %s\n", finding.c_str());
    std::printf("%s\n", report.Problems.empty() && findings.empty() ? "daemon: clean" : "daemon: NOT clean");
}

} // namespace host
