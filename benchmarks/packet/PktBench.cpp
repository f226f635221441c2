// A packet's life: made, filled, given three headers, released. Beside the same with malloc(3) for
// each packet: the object that counts references, and its buffer, as Pavo has them too.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "Pavo/Pkt.h"

namespace {

constexpr uint32_t headerBytes[] = {8, 20, 14};  // UDP, IPv4, Ethernet.

struct PlainPacket {
    uint32_t references;
    uint32_t size;
    uint8_t* buffer;
    uint8_t* data;
    uint32_t bytes;
};

PlainPacket* newPlainPacket(const char* payload, uint32_t bytes) {
    auto* pkt = static_cast<PlainPacket*>(std::malloc(sizeof(PlainPacket)));
    constexpr uint32_t size = Pavo::Pkt::Manager::defaultBufferSize;
    auto* buffer = static_cast<uint8_t*>(std::malloc(size));
    *pkt = {1, size, buffer, buffer + size - bytes, bytes};
    std::memcpy(pkt->data, payload, bytes);
    return pkt;
}

void lifePavo(benchmark::State& state) {
    const std::string payload(static_cast<std::size_t>(state.range(0)), 'x');
    const Mox::Ptr<Pavo::Pkt::Manager> manager = Pavo::globalPktManager();
    const auto bytes = static_cast<uint32_t>(payload.size());
    for (auto _ : state) {
        const Mox::Ptr<Pavo::Pkt> pkt = manager->newPkt();
        std::memcpy(pkt->newSharedTailData(bytes), payload.data(), bytes);
        for (const uint32_t header : headerBytes) {
            std::memset(pkt->newSharedHeadData(header), 0x45, header);
        }
        benchmark::DoNotOptimize(pkt->frontData());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

void lifeMalloc(benchmark::State& state) {
    const std::string payload(static_cast<std::size_t>(state.range(0)), 'x');
    const auto bytes = static_cast<uint32_t>(payload.size());
    for (auto _ : state) {
        PlainPacket* pkt = newPlainPacket(payload.data(), bytes);
        benchmark::DoNotOptimize(pkt);
        for (const uint32_t header : headerBytes) {
            pkt->data -= header;
            pkt->bytes += header;
            std::memset(pkt->data, 0x45, header);
        }
        benchmark::DoNotOptimize(pkt->data);
        benchmark::ClobberMemory();
        std::free(pkt->buffer);
        std::free(pkt);
    }
    state.SetItemsProcessed(state.iterations());
}

const bool registered = [] {
    for (const int bytes : {64, 1400}) {
        const auto line = "PktLife" + std::to_string(bytes);
        benchmark::RegisterBenchmark((line + "/pavo").c_str(), lifePavo)->Arg(bytes);
        benchmark::RegisterBenchmark((line + "/malloc").c_str(), lifeMalloc)->Arg(bytes);
    }
    return true;
}();

}  // namespace
