/*
 * The bridge: the host program as a daemon, and user programs in processes
 * of their own (bridge-probe) reaching \\.\NdisFilter through it.
 */
#include "bridge_protocol.h"
#include "control-table.h"
#include "hook_fixture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

/* A child process with its standard output in a pipe. */
struct Child {
    pid_t Pid = -1;
    int Output = -1;
    std::string Seen;

    /* Reads until a line contains `text` (true) or the output ends or `seconds` pass. */
    bool WaitFor(const std::string &text, int seconds = 20)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (Seen.find(text) == std::string::npos) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0)
                return false;
            struct pollfd wait = {Output, POLLIN, 0};
            if (poll(&wait, 1, (int)left.count()) <= 0)
                continue;
            char buffer[4096];
            ssize_t got = read(Output, buffer, sizeof(buffer));
            if (got <= 0)
                return Seen.find(text) != std::string::npos;
            Seen.append(buffer, (size_t)got);
        }
        return true;
    }

    /* Waits for the exit (all output read); the exit status, or -signal. */
    int Finish()
    {
        WaitFor("\x01never", 60);
        close(Output);
        int status = 0;
        waitpid(Pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
};

/* Runs argv with NDISFILTER_SOCKET set, stderr to `errorFile`; `asNobody` drops to uid/gid 65534 first. */
Child Spawn(const std::vector<std::string> &argv, const std::string &socket, const std::string &errorFile,
            bool asNobody = false)
{
    int pipeFds[2];
    EXPECT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
    Child child;
    child.Pid = fork();
    if (child.Pid == 0) {
        dup2(pipeFds[1], 1);
        int error = open(errorFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
        if (error >= 0)
            dup2(error, 2);
        setenv("NDISFILTER_SOCKET", socket.c_str(), 1);
        if (asNobody && (setgid(65534) != 0 || setuid(65534) != 0))
            _exit(125);
        std::vector<char *> args;
        for (const std::string &arg : argv)
            args.push_back(const_cast<char *>(arg.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    close(pipeFds[1]);
    child.Output = pipeFds[0];
    return child;
}

class BridgeTest : public testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/nf-bridge-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_dir = pattern;
        m_socket = m_dir + "/daemon.sock";
        m_daemon = Spawn({NF_HOST_PROGRAM, "--daemon", "--quiet", "--socket", m_socket, "--out", m_dir + "/out"},
                         m_socket, m_dir + "/daemon.err");
        ASSERT_TRUE(m_daemon.WaitFor("daemon: serving")) << m_daemon.Seen;
    }

    void TearDown() override
    {
        if (m_daemon.Pid > 0)
            StopDaemon();
        std::string command = "rm -rf '" + m_dir + "'";
        EXPECT_EQ(system(command.c_str()), 0);
    }

    /* SIGTERM; the daemon's summary, checked clean. */
    std::string StopDaemon()
    {
        kill(m_daemon.Pid, SIGTERM);
        int status = m_daemon.Finish();
        m_daemon.Pid = -1;
        EXPECT_EQ(status, 0) << m_daemon.Seen << DaemonErrors();
        EXPECT_NE(m_daemon.Seen.find("daemon: clean"), std::string::npos) << m_daemon.Seen;
        return m_daemon.Seen;
    }

    std::string DaemonErrors()
    {
        std::ifstream file(m_dir + "/daemon.err");
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

    Child Probe(const std::vector<std::string> &args, bool asNobody = false)
    {
        std::vector<std::string> argv = {NF_BRIDGE_PROBE};
        argv.insert(argv.end(), args.begin(), args.end());
        return Spawn(argv, m_socket, m_dir + "/probe.err", asNobody);
    }

    std::string m_dir, m_socket;
    Child m_daemon;
};

/* The framework in this process, with one adapter, for the answers a local caller gets. */
class InProcess : public hooktest::HookTest {
public:
    void TestBody() override {}
    std::vector<std::string> Table()
    {
        LoadBoth(true);
        OpenAdapter(1);
        const UCHAR mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x01};
        std::vector<std::string> lines = bridgetest::RunControlTable(mac, 1);
        TearDown();
        return lines;
    }
};

/* Every control code from a second process answers as it does in the framework's own process,
 * and frames it injects through the input ring reach the hook driver's wire. */
TEST_F(BridgeTest, ControlCodesAndInjectionFromAnotherProcess)
{
    Child controls = Probe({"controls", "02:00:00:00:0a:01", "1"});
    ASSERT_EQ(controls.Finish(), 0);
    Child share = Probe({"share", "0", "3"});
    EXPECT_EQ(share.Finish(), 0) << share.Seen;
    std::string summary = StopDaemon();
    EXPECT_NE(summary.find("host-a: 3 frames to the wire"), std::string::npos) << summary;

    std::string local;
    for (const std::string &line : InProcess().Table())
        local += line + "\n";
    EXPECT_EQ(controls.Seen, local);
    EXPECT_NE(controls.Seen.find("share mapped: yes rings 512/512"), std::string::npos) << controls.Seen;
}

/* The daemon replays its capture on SIGUSR1: the tap's copies reach the program through the rings. */
TEST_F(BridgeTest, TappedFramesReachAnotherProcess)
{
    Child share = Probe({"share", "2", "0"});
    ASSERT_TRUE(share.WaitFor("ready")) << share.Seen;
    kill(m_daemon.Pid, SIGUSR1);
    EXPECT_EQ(share.Finish(), 0) << share.Seen;
}

/* A second process is refused the share; killing the holder with its read parked frees both. */
TEST_F(BridgeTest, KilledHolderReleasesShareAndRead)
{
    Child holder = Probe({"hold"});
    ASSERT_TRUE(holder.WaitFor("holding")) << holder.Seen;
    Child second = Probe({"share", "0", "0"});
    EXPECT_EQ(second.Finish(), 1);
    EXPECT_NE(second.Seen.find("share refused"), std::string::npos) << second.Seen;

    kill(holder.Pid, SIGKILL);
    EXPECT_EQ(holder.Finish(), -SIGKILL);
    bool taken = false;
    for (int attempt = 0; attempt < 50 && !taken; attempt++) {
        Child next = Probe({"share", "0", "0"});
        taken = next.Finish() == 0;
        if (!taken)
            usleep(100000);
    }
    EXPECT_TRUE(taken);
    StopDaemon(); /* clean: nothing of the killed process leaked */
}

/* Another user cannot connect: the socket's directory is closed to it, and where it is
 * opened up the daemon refuses the peer by its credentials. */
TEST_F(BridgeTest, AnotherUserIsRefused)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to run a process as another user";
    Child closed = Probe({"open"}, true);
    EXPECT_EQ(closed.Finish(), 1);
    EXPECT_NE(closed.Seen.find("open failed: 5"), std::string::npos) << closed.Seen;

    ASSERT_EQ(chmod(m_dir.c_str(), 0711), 0);
    ASSERT_EQ(chmod(m_socket.c_str(), 0666), 0);
    Child opened = Probe({"open"}, true);
    EXPECT_EQ(opened.Finish(), 1);
    EXPECT_NE(opened.Seen.find("open failed: 5"), std::string::npos) << opened.Seen;
    StopDaemon();
    EXPECT_NE(DaemonErrors().find("refused a connection from uid 65534"), std::string::npos) << DaemonErrors();
}

/* ---- a client that writes the bridge's messages by hand ---- */

namespace wire = hk::bridge;

int Connect(const std::string &path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
    EXPECT_EQ(connect(fd, (struct sockaddr *)&address, sizeof(address)), 0);
    struct timeval patience = {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    return fd;
}

/* The next answer's header and the first record of its body (zero when the daemon hung up). */
template <typename Record> Record Answer(int fd, wire::Header *header)
{
    Record record{};
    std::memset(header, 0, sizeof(*header));
    std::vector<uint8_t> body;
    if (wire::ReceiveExactly(fd, header, sizeof(*header)) && header->bodyLength <= (1u << 20)) {
        body.resize(header->bodyLength);
        wire::ReceiveExactly(fd, body.data(), body.size());
        std::memcpy(&record, body.data(), std::min(body.size(), sizeof(record)));
    }
    return record;
}

bool HungUp(int fd)
{
    char byte;
    return recv(fd, &byte, 1, 0) == 0;
}

/* Malformed, oversized and out-of-turn messages are refused or end the connection; the daemon stays clean. */
TEST_F(BridgeTest, HostileMessagesAreRefused)
{
    int early = Connect(m_socket);
    wire::SendMessage(early, wire::Type::Open, 0, 1, nullptr, 0);
    EXPECT_TRUE(HungUp(early)) << "a message before the greeting ends the connection";
    close(early);

    int fd = Connect(m_socket);
    wire::Hello hello = {wire::kVersion, 0, 0x300000000000ull, wire::kWindowSize};
    wire::SendMessage(fd, wire::Type::Hello, 0, 0, &hello, sizeof(hello));
    wire::Header header;
    wire::Request request = {IRP_MJ_DEVICE_CONTROL, {}, 0, 0, 0, 0};
    wire::SendMessage(fd, wire::Type::Request, 77, 1, &request, sizeof(request));
    EXPECT_EQ(Answer<wire::Complete>(fd, &header).win32Error, (uint32_t)ERROR_INVALID_HANDLE);

    const struct {
        std::u16string Name;
        uint32_t Units, Error;
    } opens[] = {{u"\\\\.\\NdisFilter", 4000, ERROR_FILE_NOT_FOUND},
                 {u"C:\\secret", 9, ERROR_PATH_NOT_FOUND},
                 {std::u16string(u"\\\\.\\Ndis\0Filter", 15), 15, ERROR_PATH_NOT_FOUND},
                 {u"\\\\.\\NdisFilter", 14, 0}};
    for (const auto &open : opens) {
        wire::Open message = {GENERIC_ALL, 0, 0, open.Units};
        wire::SendMessage(fd, wire::Type::Open, 0, 2, &message, sizeof(message), open.Name.data(), open.Name.size() * 2);
        EXPECT_EQ(Answer<wire::Opened>(fd, &header).win32Error, open.Error);
        EXPECT_EQ(header.handle != 0, open.Error == 0);
    }
    uint32_t handle = header.handle;
    request.inputLength = 100;
    wire::SendMessage(fd, wire::Type::Request, handle, 4, &request, sizeof(request));
    EXPECT_EQ(Answer<wire::Complete>(fd, &header).win32Error, (uint32_t)ERROR_INVALID_PARAMETER) << "short input";
    request = {0x33, {}, 0, 0, 0, 0};
    wire::SendMessage(fd, wire::Type::Request, handle, 5, &request, sizeof(request));
    EXPECT_EQ(Answer<wire::Complete>(fd, &header).win32Error, (uint32_t)ERROR_INVALID_PARAMETER) << "unknown major";
    wire::SendMessage(fd, wire::Type::Cancel, handle, 999, nullptr, 0);
    wire::SendMessage(fd, wire::Type::Close, 999, 0, nullptr, 0);
    request = {IRP_MJ_DEVICE_CONTROL, {}, IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, 0, 4, 0};
    wire::SendMessage(fd, wire::Type::Request, handle, 6, &request, sizeof(request));
    wire::Complete complete = Answer<wire::Complete>(fd, &header);
    EXPECT_EQ(header.id, 6u);
    EXPECT_EQ(complete.status, 0);
    EXPECT_EQ(complete.information, 4u);

    wire::Header huge = {0x7FFFFFFF, (uint16_t)wire::Type::Request, 0, handle, 7};
    ASSERT_EQ(send(fd, &huge, sizeof(huge), MSG_NOSIGNAL), (ssize_t)sizeof(huge));
    EXPECT_TRUE(HungUp(fd)) << "an oversized message ends the connection";
    close(fd);
    StopDaemon();
}

} // namespace
