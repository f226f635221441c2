// The text of MAC addresses beside that of a data-plane library.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "Pavo/EthAddr.h"
#include "RunOver.h"
#include "peers/DpdkPeers.h"

namespace {

constexpr uint32_t count = 16384;

std::vector<Mox::String> texts() {
    std::mt19937 random(3);
    std::vector<Mox::String> all;
    for (uint32_t i = 0; i < count; ++i) {
        Pavo::EthAddr address;
        for (unsigned word = 0; word < 3; ++word) {
            address.wordIs(word, static_cast<uint16_t>(random()));
        }
        all.push_back(address.stringValue());
    }
    return all;
}

void parsePavo(benchmark::State& state) {
    const auto all = texts();
    runOver(count, state, [&all](uint32_t i) {
        Pavo::EthAddr address;
        auto it = all[i].begin();
        sequenceToValue(it, all[i].end(), &address);
        benchmark::DoNotOptimize(address);
    });
}

void parseDpdk(benchmark::State& state) {
    const auto all = texts();
    runOver(count, state, [&all](uint32_t i) {
        uint8_t address[6];
        benchmark::DoNotOptimize(DpdkPeers::readEthAddr(all[i].c_str(), address));
        benchmark::ClobberMemory();
    });
}

BENCHMARK(parsePavo)->Name("DataPlaneEthAddrParse/pavo");
BENCHMARK(parseDpdk)->Name("DataPlaneEthAddrParse/dpdk");

}  // namespace
