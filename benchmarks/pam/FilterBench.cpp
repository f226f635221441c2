// A filter expression over short frames, beside libpcap's own call on the same program.

#include <benchmark/benchmark.h>
#include <pcap/pcap.h>

#include <cstring>

#include "Pavo/BpfFilter.h"
#include "WordTimes.h"

namespace {

constexpr uint32_t frameBytes = 64;
constexpr uint32_t frames = 256;

// TCP segments, of which every other one passes "tcp port 179", in an order that cannot be guessed.
struct Traffic {
    Traffic() {
        uint32_t random = 1;
        for (auto& pkt : pkts) {
            pkt = Pavo::globalPktManager()->newPkt();
            uint8_t* const bytes = pkt->newSharedTailData(frameBytes);
            std::memset(bytes, 0, frameBytes);
            bytes[12] = 0x08;
            bytes[14] = 0x45;
            bytes[23] = 6;
            random = random * 1664525 + 1013904223;
            bytes[random >> 30 & 1 ? 35 : 37] = random >> 31 != 0 ? 179 : 80;
        }
        filter->bpfFilterStringIs("tcp port 179");
    }

    Mox::Ptr<Pavo::Pkt> pkts[frames];
    Mox::Ptr<Pavo::BpfFilter> filter = Pavo::bpfFilterFactory("bench");
};

void pavo(benchmark::State& state) {
    const Traffic traffic;
    uint32_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(traffic.filter->match(traffic.pkts[next++ % frames]));
    }
    state.SetItemsProcessed(state.iterations());
}

void pcapOfflineFilter(benchmark::State& state) {
    const Traffic traffic;
    const PavoBench::WordPkthdr header{{0, 0}, frameBytes, frameBytes};
    uint32_t next = 0;
    for (auto _ : state) {
        const uint8_t* const data = traffic.pkts[next++ % frames]->frontData();
        benchmark::DoNotOptimize(
            pcap_offline_filter(traffic.filter->bpfFilter(), header.get(), data));
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(pavo)->Name("BpfMatch/pavo");
BENCHMARK(pcapOfflineFilter)->Name("BpfMatch/pcap_offline_filter");

}  // namespace
