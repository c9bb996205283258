/*
 * main-job-bench - the main job (ndisfilter-host) on a large generated
 * capture: frames per second through the framework (the replay, as the
 * summary reports it) and end to end (the whole run: reading the capture,
 * the replay, draining, writing the output captures and the capture logs).
 *
 * The capture alternates frames sent by the adapter's host and frames
 * arriving for it (UDP and TCP, one in sixteen an ICMP echo the injector
 * takes and hands back later). The run must end clean, or the benchmark
 * reports an error.
 */
#include <benchmark/benchmark.h>
#include <pcap/pcap.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

const unsigned char HostMac[6] = {0x02, 0x00, 0x00, 0x00, 0x0A, 0x01};
const unsigned char PeerMac[6] = {0x02, 0x00, 0x00, 0x00, 0x0A, 0x02};

/* Frame n of the generated capture: IPv4 between 10.0.0.1 (the host) and 10.0.0.2. */
size_t MakeFrame(unsigned long n, unsigned char *frame)
{
    const bool own = (n & 1) == 0;
    const unsigned protocol = (n % 16) == 5 ? 1 : (n % 3) == 0 ? 6 : 17;
    const size_t length = 60 + (n % 7) * 200;
    std::memset(frame, 0, length);
    std::memcpy(frame, own ? PeerMac : HostMac, 6);
    std::memcpy(frame + 6, own ? HostMac : PeerMac, 6);
    frame[12] = 0x08;
    unsigned char *ip = frame + 14;
    const size_t ipLength = length - 14;
    ip[0] = 0x45;
    ip[2] = (unsigned char)(ipLength >> 8);
    ip[3] = (unsigned char)ipLength;
    ip[8] = 64;
    ip[9] = (unsigned char)protocol;
    const unsigned char host[4] = {10, 0, 0, 1}, peer[4] = {10, 0, 0, 2};
    std::memcpy(ip + 12, own ? host : peer, 4);
    std::memcpy(ip + 16, own ? peer : host, 4);
    unsigned char *l4 = ip + 20;
    if (protocol == 1) {
        l4[0] = own ? 8 : 0; /* echo request out, reply in */
    } else {
        const unsigned port = 40000 + (unsigned)(n % 64);
        l4[0] = (unsigned char)((own ? port : 9000) >> 8);
        l4[1] = (unsigned char)(own ? port : 9000);
        l4[2] = (unsigned char)((own ? 9000 : port) >> 8);
        l4[3] = (unsigned char)(own ? 9000 : port);
        if (protocol == 17) {
            l4[4] = (unsigned char)((ipLength - 20) >> 8);
            l4[5] = (unsigned char)(ipLength - 20);
        } else {
            l4[12] = 0x50;
            l4[13] = 0x18; /* PSH ACK */
        }
    }
    return length;
}

bool WriteCapture(const std::string &path, unsigned long frames)
{
    pcap_t *dead = pcap_open_dead(DLT_EN10MB, 65535);
    pcap_dumper_t *dumper = pcap_dump_open(dead, path.c_str());
    if (dumper == nullptr) {
        pcap_close(dead);
        return false;
    }
    unsigned char frame[1514];
    for (unsigned long n = 0; n < frames; n++) {
        struct pcap_pkthdr header = {};
        header.ts.tv_sec = 1700000000 + (time_t)(n / 1000000);
        header.ts.tv_usec = (suseconds_t)(n % 1000000);
        header.caplen = header.len = (bpf_u_int32)MakeFrame(n, frame);
        pcap_dump((u_char *)dumper, &header, frame);
    }
    bool ok = pcap_dump_flush(dumper) == 0;
    pcap_dump_close(dumper);
    pcap_close(dead);
    return ok;
}

/* Runs the main job on `capture`; its summary goes to `summary`. The exit status, or -1. */
int RunMainJob(const std::string &capture, const std::string &out, const std::string &summary)
{
    pid_t child = fork();
    if (child == 0) {
        FILE *to = std::freopen(summary.c_str(), "w", stdout);
        FILE *quiet = std::freopen("/dev/null", "w", stderr);
        if (to == nullptr || quiet == nullptr)
            _exit(127);
        execl(NF_BENCH_MAIN_JOB, NF_BENCH_MAIN_JOB, "--quiet", "--pcap", capture.c_str(), "--out", out.c_str(),
              (char *)nullptr);
        _exit(127);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/* The frames per second of the summary's replay line, or 0. */
double ReplayRate(const std::string &summary, bool *clean)
{
    FILE *file = std::fopen(summary.c_str(), "r");
    double rate = 0;
    *clean = false;
    if (file == nullptr)
        return 0;
    char line[512];
    while (std::fgets(line, sizeof(line), file) != nullptr) {
        unsigned long long frames;
        double ms, perSecond;
        if (std::sscanf(line, "replay: %llu frames in %lf ms (%lf frames/s)", &frames, &ms, &perSecond) == 3)
            rate = perSecond;
        if (std::strcmp(line, "result: clean\n") == 0)
            *clean = true;
    }
    std::fclose(file);
    return rate;
}

void BM_MainJob(benchmark::State &state)
{
    const unsigned long frames = (unsigned long)state.range(0);
    char dir[] = "/tmp/main-job-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        state.SkipWithError("no temporary directory");
        return;
    }
    const std::string capture = std::string(dir) + "/generated.pcap";
    const std::string summary = std::string(dir) + "/summary.txt";
    if (!WriteCapture(capture, frames)) {
        state.SkipWithError("cannot write the capture");
        return;
    }
    double throughFramework = 0;
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        int status = RunMainJob(capture, std::string(dir) + "/out", summary);
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        state.SetIterationTime(seconds);
        bool clean = false;
        throughFramework = ReplayRate(summary, &clean);
        if (status != 0 || !clean) {
            state.SkipWithError(("the main job did not end clean; see " + summary).c_str());
            return;
        }
    }
    state.counters["frames_per_second_framework"] = throughFramework;
    state.counters["frames_per_second_end_to_end"] =
        benchmark::Counter((double)frames * (double)state.iterations(), benchmark::Counter::kIsRate);
    std::string cleanup = std::string("rm -rf ") + dir;
    if (std::system(cleanup.c_str()) != 0)
        state.SkipWithError("cannot remove the temporary directory");
}

BENCHMARK(BM_MainJob)->Arg(100000)->Arg(1000000)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
