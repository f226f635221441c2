// Checksums beside plain loops and zlib.

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <array>
#include <cstdint>
#include <random>
#include <vector>

#include "Pavo/Checksum.h"
#include "Pavo/Crc32.h"

namespace {

std::vector<uint8_t> bytesOf(int64_t length) {
    std::mt19937 random(1);
    std::vector<uint8_t> bytes(static_cast<std::size_t>(length));
    for (auto& each : bytes) {
        each = static_cast<uint8_t>(random());
    }
    return bytes;
}

// What anybody would write: 16-bit words, most significant byte first. Kept a loop of such words,
// as it would be met in a program that was not written for speed.
uint16_t plainChecksum(const uint8_t* data, uint16_t length) {
    uint32_t sum = 0;
    for (uint16_t i = 0; i + 1 < length; i = static_cast<uint16_t>(i + 2)) {
        sum += static_cast<uint32_t>(data[i]) << 8 | data[i + 1];
    }
    if (length % 2 != 0) {
        sum += static_cast<uint32_t>(data[length - 1]) << 8;
    }
    while (sum >> 16 != 0) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

// The table of a CRC-32C and the loop over it that stand in every text on CRCs.
uint32_t tableLoop(const uint8_t* data, std::size_t length) {
    static const auto table = [] {
        std::array<uint32_t, 256> entries;
        Pavo::initReflectedTable(entries.data(), Pavo::Crc32c::polynomial);
        return entries;
    }();
    uint32_t crc = 0xffffffff;
    for (std::size_t i = 0; i < length; ++i) {
        crc = table[(crc ^ data[i]) & 0xff] ^ crc >> 8;
    }
    return ~crc;
}

template <class Work>
void run(benchmark::State& state, Work work) {
    auto bytes = bytesOf(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(bytes.data());
        benchmark::ClobberMemory();
        benchmark::DoNotOptimize(work(bytes.data(), bytes.size()));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void checksumPavo(benchmark::State& state) {
    run(state, [](const uint8_t* data, std::size_t length) {
        return Pavo::ipChecksumCalc(data, static_cast<uint16_t>(length), 0);
    });
}
void checksumPlain(benchmark::State& state) {
    run(state, [](const uint8_t* data, std::size_t length) {
        return plainChecksum(data, static_cast<uint16_t>(length));
    });
}
void crcPavo(benchmark::State& state) {
    run(state, [](const uint8_t* data, std::size_t length) {
        return Pavo::Crc32::crc(data, static_cast<uint32_t>(length));
    });
}
void crcZlib(benchmark::State& state) {
    run(state, [](const uint8_t* data, std::size_t length) {
        return crc32(0, data, static_cast<uInt>(length));
    });
}
void crc32cPavo(benchmark::State& state) {
    run(state, [](const uint8_t* data, std::size_t length) {
        return Pavo::Crc32c::crc(data, static_cast<uint32_t>(length));
    });
}
void crc32cTable(benchmark::State& state) {
    run(state, tableLoop);
}

const bool registered = [] {
    for (const int length : {20, 1500, 9000}) {
        const auto line = "IpChecksum" + std::to_string(length);
        benchmark::RegisterBenchmark((line + "/pavo").c_str(), checksumPavo)->Arg(length);
        benchmark::RegisterBenchmark((line + "/plain_loop").c_str(), checksumPlain)->Arg(length);
    }
    benchmark::RegisterBenchmark("Crc32_1500/pavo", crcPavo)->Arg(1500);
    benchmark::RegisterBenchmark("Crc32_1500/zlib", crcZlib)->Arg(1500);
    benchmark::RegisterBenchmark("Crc32c1500/pavo", crc32cPavo)->Arg(1500);
    benchmark::RegisterBenchmark("Crc32c1500/table_loop", crc32cTable)->Arg(1500);
    return true;
}();

}  // namespace
