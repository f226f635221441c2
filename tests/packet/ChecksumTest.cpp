#include "Pavo/Checksum.h"

#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Pavo/Crc32.h"
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

// Random bytes and all-ones bytes, each area up to the end of an allocation, at every
// alignment; lengths around the block sizes and the largest.
TEST(Checksum, AgreesWithZlibAndPlainLoops) {
    constexpr uint32_t most = 131072;
    std::vector<uint8_t> memory(most);
    uint8_t* const first = memory.data();
    const uint8_t* const end = first + most;
    for (const uint32_t seed : PavoTest::Seeds(2)) {
        std::mt19937 random(seed);
        const bool ones = seed % 2 == 0;
        for (uint32_t i = 0; i < most; ++i) {
            first[i] = ones ? 0xff : static_cast<uint8_t>(random());
        }
        for (uint32_t i = 0; i < 1000; ++i) {
            const auto len = static_cast<uint32_t>(i <= 300 ? i : random() % 4200);
            for (const uint32_t bytes : {len, 65535 - len, most - len}) {
                const auto sum = static_cast<uint32_t>(random());
                const uint32_t expected = plainSum(end - bytes, bytes, sum);
                const auto short16 = static_cast<uint16_t>(bytes);
                if (bytes % 2 == 0 && bytes == short16) {
                    ASSERT_EQ(ipChecksumChunk(end - bytes, short16, sum), expected) << bytes;
                }
                if (bytes == short16) {
                    ASSERT_EQ(ipChecksumCalc(end - bytes, short16, sum).value(),
                              fuzz::folded(expected));
                }
                const IpChecksum stored(fuzz::folded(plainSum(end - bytes, bytes, 0)));
                const uint16_t image = ipChksum(end - bytes, bytes);
                ASSERT_EQ(std::memcmp(&image, &stored, sizeof(image)), 0) << bytes;
            }
            const uint8_t* const data = end - len;
            const auto crc = static_cast<uint32_t>(crc32(0, data, len));
            ASSERT_EQ(Crc32::crc(data, len), crc) << len;
            ASSERT_EQ(Crc32::crcByTables(data, len), crc) << len;
            const uint32_t half = len / 2;
            const uint32_t crc32c = plainCrc32c(data, len);
            const uint32_t before = Crc32c::crc(data, half);
            ASSERT_EQ(Crc32c::crc(data, len), crc32c) << len;
            ASSERT_EQ(Crc32c::crc(data + half, len - half, before), crc32c) << len;
            ASSERT_EQ(Crc32c::crcByTables(data + half, len - half, before), crc32c) << len;
        }
    }
    EXPECT_EQ(Crc32c::crc("123456789", 9), 0xe3069283u);  // The published check value.
    EXPECT_DEATH((void)ipChecksumChunk(first, 3, 0), "\\(len % 2\\) == 0");
}

}  // namespace
}  // namespace Pavo
