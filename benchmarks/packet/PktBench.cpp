// A packet's life: made, filled, given three headers, released; and the same without filling it.
// Beside the same with malloc(3) for each packet: the object that counts references, and its
// buffer, as Pavo has them too. The headers have constant sizes, as header records do.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "Pavo/Pkt.h"

namespace {

constexpr uint32_t udpBytes = 8, ipBytes = 20, ethBytes = 14;

struct PlainPacket {
    uint32_t references;
    uint32_t size;
    uint8_t* buffer;
    uint8_t* data;
    uint32_t bytes;
};

PlainPacket* newPlainPacket(uint32_t bytes) {
    auto* pkt = static_cast<PlainPacket*>(std::malloc(sizeof(PlainPacket)));
    constexpr uint32_t size = Pavo::Pkt::Manager::defaultBufferSize;
    auto* buffer = static_cast<uint8_t*>(std::malloc(size));
    *pkt = {1, size, buffer, buffer + size - bytes, bytes};
    return pkt;
}

template <uint32_t bytes>
void addPlainHeader(PlainPacket* pkt) {
    pkt->data -= bytes;
    pkt->bytes += bytes;
    std::memset(pkt->data, 0x45, bytes);
}

template <uint32_t bytes>
void addHeader(const Mox::Ptr<Pavo::Pkt>& pkt) {
    std::memset(pkt->newSharedHeadData(bytes), 0x45, bytes);
}

template <bool isFilled>
void lifePavo(benchmark::State& state) {
    const std::string payload(static_cast<std::size_t>(state.range(0)), 'x');
    const Mox::Ptr<Pavo::Pkt::Manager> manager = Pavo::globalPktManager();
    const auto bytes = static_cast<uint32_t>(payload.size());
    for (auto _ : state) {
        const Mox::Ptr<Pavo::Pkt> pkt = manager->newPkt();
        uint8_t* const data = pkt->newSharedTailData(bytes);
        if (isFilled) {
            std::memcpy(data, payload.data(), bytes);
        }
        addHeader<udpBytes>(pkt);
        addHeader<ipBytes>(pkt);
        addHeader<ethBytes>(pkt);
        benchmark::DoNotOptimize(pkt->frontData());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

template <bool isFilled>
void lifeMalloc(benchmark::State& state) {
    const std::string payload(static_cast<std::size_t>(state.range(0)), 'x');
    const auto bytes = static_cast<uint32_t>(payload.size());
    for (auto _ : state) {
        PlainPacket* pkt = newPlainPacket(bytes);
        if (isFilled) {
            std::memcpy(pkt->data, payload.data(), bytes);
        }
        benchmark::DoNotOptimize(pkt);
        addPlainHeader<udpBytes>(pkt);
        addPlainHeader<ipBytes>(pkt);
        addPlainHeader<ethBytes>(pkt);
        benchmark::DoNotOptimize(pkt->data);
        benchmark::ClobberMemory();
        std::free(pkt->buffer);
        std::free(pkt);
    }
    state.SetItemsProcessed(state.iterations());
}

const bool registered = [] {
    for (const int bytes : {64, 1400}) {
        const auto life = "PktLife" + std::to_string(bytes);
        benchmark::RegisterBenchmark((life + "/pavo").c_str(), lifePavo<true>)->Arg(bytes);
        benchmark::RegisterBenchmark((life + "/malloc").c_str(), lifeMalloc<true>)->Arg(bytes);
        const auto build = "PktBuild" + std::to_string(bytes);
        benchmark::RegisterBenchmark((build + "/pavo").c_str(), lifePavo<false>)->Arg(bytes);
        benchmark::RegisterBenchmark((build + "/malloc").c_str(), lifeMalloc<false>)->Arg(bytes);
    }
    return true;
}();

}  // namespace
