/*
 * checksum-bench - the framework's packet checksum against a plain 16-bit
 * reference loop, in bytes per second, for 64, 576 and 1500 byte segments.
 * Before timing, both are checked to agree on every length and on the zero
 * cases.
 */
#include <ntddk.h>
#include <ndis.h>
#include <ndisfilter.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

EXTERN_C USHORT NdisFilter_Checksum(const UCHAR *Data, ULONG Length);

namespace {

/* 16-bit little-endian words into a 32-bit sum, folded and complemented. */
USHORT ReferenceChecksum(const UCHAR *data, ULONG length)
{
    ULONG sum = 0;
    ULONG i = 0;
    for (; i + 1 < length; i += 2)
        sum += (ULONG)data[i] | (ULONG)data[i + 1] << 8;
    if (i < length)
        sum += data[i];
    ULONG t = (sum >> 16) + (sum & 0xFFFF);
    return (USHORT)~(t + (t >> 16));
}

std::vector<UCHAR> Segment(size_t length)
{
    std::vector<UCHAR> data(length);
    ULONG state = 12345;
    for (UCHAR &byte : data) {
        state = state * 1103515245u + 12345u;
        byte = (UCHAR)(state >> 16);
    }
    return data;
}

/* Aborts unless both routines agree everywhere the benchmark could reach. */
void CheckAgreement()
{
    std::vector<UCHAR> data = Segment(1600);
    for (ULONG length = 0; length <= data.size(); length++) {
        for (ULONG offset = 0; offset < 4; offset++) {
            if (length + offset > data.size())
                break;
            if (NdisFilter_Checksum(data.data() + offset, length) != ReferenceChecksum(data.data() + offset, length)) {
                std::fprintf(stderr, "checksums differ at length %u offset %u\n", length, offset);
                std::abort();
            }
        }
    }
    std::vector<UCHAR> zeros(64, 0), ones(64, 0xFF);
    if (NdisFilter_Checksum(zeros.data(), 64) != ReferenceChecksum(zeros.data(), 64) ||
        NdisFilter_Checksum(ones.data(), 64) != ReferenceChecksum(ones.data(), 64)) {
        std::fprintf(stderr, "checksums differ in the zero cases\n");
        std::abort();
    }
}

void BM_FrameworkChecksum(benchmark::State &state)
{
    std::vector<UCHAR> data = Segment((size_t)state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(NdisFilter_Checksum(data.data(), (ULONG)data.size()));
    state.SetBytesProcessed((int64_t)state.iterations() * state.range(0));
}

void BM_Reference16BitChecksum(benchmark::State &state)
{
    std::vector<UCHAR> data = Segment((size_t)state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(ReferenceChecksum(data.data(), (ULONG)data.size()));
    state.SetBytesProcessed((int64_t)state.iterations() * state.range(0));
}

BENCHMARK(BM_FrameworkChecksum)->Arg(64)->Arg(576)->Arg(1500);
BENCHMARK(BM_Reference16BitChecksum)->Arg(64)->Arg(576)->Arg(1500);

} // namespace

int main(int argc, char **argv)
{
    CheckAgreement();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
