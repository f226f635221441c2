#include "Pavo/Checksum.h"

#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Pavo/Cpu.h"
#include "Pavo/Crc32.h"
#include "Pavo/IpHdr.h"
#include "Pavo/UdpHdr.h"
#include "fuzz/Frames.h"
#include "support/Seeds.h"

namespace Pavo {
namespace {

uint32_t plainSum(const uint8_t* data, uint32_t len, uint32_t sum) {
    return fuzz::plainSum({reinterpret_cast<const char*>(data), len}, sum);
}

// Bit by bit, as the polynomial is defined.
uint32_t plainCrc32c(const uint8_t* data, uint32_t len) {
    uint32_t crc = 0xffffffff;
    for (uint32_t bit = 0; bit < len * 8; ++bit) {
        const uint32_t feedback = (crc ^ data[bit / 8] >> bit % 8) & 1;
        crc = crc >> 1 ^ feedback * 0x82f63b78;
    }
    return ~crc;
}

// What the fast paths of the processor at hand, and those without any, make of an area.
void expectChecksums(const uint8_t* data, uint32_t bytes, uint32_t sum) {
    const uint32_t expected = plainSum(data, bytes, sum);
    const IpChecksum stored(fuzz::folded(plainSum(data, bytes, 0)));
    const auto short16 = static_cast<uint16_t>(bytes);
    for (const uint32_t features : {0u, uint32_t{Cpu::avx2}, ~0u}) {
        Cpu::featuresIs(features);
        if (bytes % 2 == 0 && bytes == short16) {
            ASSERT_EQ(ipChecksumChunk(data, short16, sum), expected) << bytes;
        }
        if (bytes == short16) {
            ASSERT_EQ(ipChecksumCalc(data, short16, sum).value(), fuzz::folded(expected));
        }
        const uint16_t image = ipChksum(data, bytes);
        ASSERT_EQ(std::memcmp(&image, &stored, sizeof(image)), 0) << bytes;
    }
}

void expectCrcs(const uint8_t* data, uint32_t len) {
    const auto crc = static_cast<uint32_t>(crc32(0, data, len));
    const uint32_t crc32c = plainCrc32c(data, len);
    const uint32_t half = len / 2;
    const uint32_t narrow = Cpu::crc32c | Cpu::carryless;
    for (const uint32_t features : {0u, uint32_t{Cpu::crc32c}, narrow, ~0u}) {
        Cpu::featuresIs(features);
        ASSERT_EQ(Crc32::crc(data, len), crc) << len;
        ASSERT_EQ(Crc32c::crc(data, len), crc32c) << len;
        const uint32_t before = Crc32c::crc(data, half);
        ASSERT_EQ(Crc32c::crc(data + half, len - half, before), crc32c) << len;
    }
}

// Random bytes and all-ones bytes, each area up to the end of an allocation, at every
// alignment; lengths around the block sizes and the largest.
TEST(Checksum, AgreesWithZlibAndPlainLoopsOnEachPath) {
    constexpr uint32_t most = 131072;
    std::vector<uint8_t> memory(most);
    const uint8_t* const end = memory.data() + most;
    for (const uint32_t seed : PavoTest::Seeds(2)) {
        std::mt19937 random(seed);
        for (uint8_t& each : memory) {
            each = seed % 2 == 0 ? 0xff : static_cast<uint8_t>(random());
        }
        for (uint32_t i = 0; i < 1000; ++i) {
            const auto len = static_cast<uint32_t>(i <= 300 ? i : random() % 4200);
            for (const uint32_t bytes : {len, 65535 - len, most - len}) {
                expectChecksums(end - bytes, bytes, static_cast<uint32_t>(random()));
            }
            expectCrcs(end - len, len);
        }
    }
    EXPECT_EQ(Crc32c::crc("123456789", 9), 0xe3069283u);  // The published check value.
    EXPECT_DEATH((void)ipChecksumChunk(end - 3, 3, 0), "\\(len % 2\\) == 0");
}

// Sums by fields beside sums of the same bytes.
TEST(Checksum, OfHeadersIsThatOfTheirBytes) {
    for (const uint32_t seed : PavoTest::Seeds(200)) {
        std::mt19937 random(seed);
        uint8_t bytes[60];
        for (uint8_t& each : bytes) {
            each = static_cast<uint8_t>(random());
        }
        const auto& ip = reinterpret_cast<const IpHdr&>(bytes);
        bytes[0] = static_cast<uint8_t>(0x40 | (5 + random() % 2));
        EXPECT_EQ(ip.computedChecksum().value(),
                  fuzz::folded(plainSum(bytes, ip.headerBytes(), 0)));

        const auto udpBytes = static_cast<uint16_t>(random() % sizeof(bytes));
        const auto& udp = reinterpret_cast<const UdpHdr&>(bytes);
        UdpPseudoHdr pseudo(ip.src(), ip.dst(), udpBytes);
        pseudo.zeroIs(bytes[59]);
        const auto* const image = reinterpret_cast<const uint8_t*>(&pseudo);
        const uint32_t sum = plainSum(image, sizeof(pseudo), 0);
        const uint16_t computed = fuzz::folded(plainSum(bytes, udpBytes, sum));
        EXPECT_EQ(udp.computedChecksumU16(pseudo), computed == 0 ? 0xffff : computed);
    }
}

}  // namespace
}  // namespace Pavo
