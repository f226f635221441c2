// Checksums beside data-plane libraries, which may use all that this machine's processor has.

#include <benchmark/benchmark.h>
#include <libdeflate.h>
#if __has_include(<isa-l.h>)  // Only where its assembler is for the processor.
#include <isa-l.h>
#define PAVO_BENCH_ISAL 1
#endif

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Pavo/Checksum.h"
#include "Pavo/Crc32.h"
#include "peers/DpdkPeers.h"

namespace {

constexpr std::size_t rounds = 64;

template <class Work>
void run(benchmark::State& state, Work work) {
    std::vector<uint8_t> const bytes(static_cast<std::size_t>(state.range(0)), 0x5a);
    for (auto _ : state) {
        benchmark::DoNotOptimize(work(bytes.data(), bytes.size()));
    }
    state.SetItemsProcessed(static_cast<int64_t>(rounds) * state.iterations());
}

// `Work` in a loop of `rounds`, each over bytes that may have changed.
template <class Work>
auto repeated(Work work) {
    return [work](const uint8_t* data, std::size_t length) {
        uint32_t all = 0;
        for (std::size_t i = 0; i < rounds; ++i) {
            benchmark::ClobberMemory();
            all += work(data, length);
        }
        return all;
    };
}

void pavoChecksum(benchmark::State& state) {
    run(state, repeated([](const uint8_t* data, std::size_t length) -> uint32_t {
            return Pavo::ipChecksumChunk(data, static_cast<uint16_t>(length), 0);
        }));
}

void dpdkChecksum(benchmark::State& state) {
    run(state, [](const uint8_t* data, std::size_t length) {
        return DpdkPeers::checksums(data, length, rounds);
    });
}

void pavoCrc(benchmark::State& state) {
    run(state, repeated([](const uint8_t* data, std::size_t length) {
            return Pavo::Crc32::crc(data, static_cast<uint32_t>(length));
        }));
}

void libdeflateCrc(benchmark::State& state) {
    run(state, repeated([](const uint8_t* data, std::size_t length) {
            return libdeflate_crc32(0, data, length);
        }));
}

#ifdef PAVO_BENCH_ISAL
void isalCrc(benchmark::State& state) {
    run(state, repeated([](const uint8_t* data, std::size_t length) {
            return crc32_gzip_refl(0, data, length);
        }));
}
BENCHMARK(isalCrc)->Name("DataPlaneCrc1500/isal")->Arg(1500);
BENCHMARK(isalCrc)->Name("DataPlaneCrc9000/isal")->Arg(9000);
#endif

BENCHMARK(pavoChecksum)->Name("DataPlaneChecksum20/pavo")->Arg(20);
BENCHMARK(dpdkChecksum)->Name("DataPlaneChecksum20/dpdk")->Arg(20);
BENCHMARK(pavoChecksum)->Name("DataPlaneChecksum1500/pavo")->Arg(1500);
BENCHMARK(dpdkChecksum)->Name("DataPlaneChecksum1500/dpdk")->Arg(1500);
BENCHMARK(pavoChecksum)->Name("DataPlaneChecksum9000/pavo")->Arg(9000);
BENCHMARK(dpdkChecksum)->Name("DataPlaneChecksum9000/dpdk")->Arg(9000);
BENCHMARK(pavoCrc)->Name("DataPlaneCrc20/pavo")->Arg(20);
BENCHMARK(libdeflateCrc)->Name("DataPlaneCrc20/libdeflate")->Arg(20);
BENCHMARK(pavoCrc)->Name("DataPlaneCrc1500/pavo")->Arg(1500);
BENCHMARK(libdeflateCrc)->Name("DataPlaneCrc1500/libdeflate")->Arg(1500);
BENCHMARK(pavoCrc)->Name("DataPlaneCrc9000/pavo")->Arg(9000);
BENCHMARK(libdeflateCrc)->Name("DataPlaneCrc9000/libdeflate")->Arg(9000);

}  // namespace
