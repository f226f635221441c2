#include <zlib.h>

#include <cstdint>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Pavo/Crc32.h"

namespace Pavo {
namespace {

TEST(Crc32c, GivesThePublishedValues) {
    EXPECT_EQ(Crc32c::crc("123456789", 9), 0xe3069283u);  // The check value.
    const std::string zeros(32, '\0'), ones(32, '\xff');  // RFC 3720, B.4.
    EXPECT_EQ(Crc32c::crc(zeros.data(), 32), 0x8a9136aau);
    EXPECT_EQ(Crc32c::crc(ones.data(), 32), 0x62a8ab43u);
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

// Up to the end of an allocation, at every alignment; lengths around the block sizes.
TEST(Crc32, AgreesWithZlibAndAPlainLoop) {
    constexpr uint32_t most = 9000;
    std::vector<uint8_t> memory(most);
    uint8_t* const first = memory.data();
    std::mt19937 random(802);
    for (uint32_t i = 0; i < most; ++i) {
        first[i] = static_cast<uint8_t>(random());
    }
    std::vector<uint32_t> lens(301);
    std::iota(lens.begin(), lens.end(), 0);
    for (int i = 0; i < 300; ++i) {
        lens.push_back(static_cast<uint32_t>(random() % (most + 1)));
    }
    for (const uint32_t len : lens) {
        const uint8_t* data = first + most - len;
        const auto expected = static_cast<uint32_t>(crc32(0, data, len));
        ASSERT_EQ(Crc32::crc(data, len), expected) << len;
        ASSERT_EQ(Crc32::crcByTables(data, len), expected) << len;

        const uint32_t expectedC = plainCrc32c(data, len);
        const uint32_t half = len / 2;
        const uint32_t before = Crc32c::crc(data, half);
        ASSERT_EQ(Crc32c::crc(data, len), expectedC) << len;
        ASSERT_EQ(Crc32c::crc(data + half, len - half, before), expectedC) << len;
        ASSERT_EQ(Crc32c::crcByTables(data + half, len - half, before), expectedC) << len;
    }
}

}  // namespace
}  // namespace Pavo
