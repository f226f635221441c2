#include <zlib.h>

#include <cstdint>
#include <random>

#include <gtest/gtest.h>

#include "Pavo/Crc32.h"
#include "support/GuardedText.h"

namespace Pavo {
namespace {

TEST(Crc32, GivesTheCheckValue) {
    EXPECT_EQ(Crc32::crc("123456789", 9), 0xcbf43926u);
    EXPECT_EQ(Crc32::crc(nullptr, 0), 0u);
}

TEST(Crc32, AgreesWithTheTableAndTheSumsOfZlibInFrontOfAPageThatMustNotBeTouched) {
    uint32_t table[257];
    table[256] = 7;
    Crc32::initCrc32Table(table);
    for (uint32_t i = 0; i < 256; ++i) {
        ASSERT_EQ(table[i], get_crc_table()[i]) << i;
    }
    EXPECT_EQ(table[256], 7u);

    constexpr uint32_t most = 9000;
    const GuardedBuffer memory(most);
    auto* const first = reinterpret_cast<uint8_t*>(memory.data());
    std::mt19937 random(802);
    for (uint32_t i = 0; i < most; ++i) {
        first[i] = static_cast<uint8_t>(random());
    }
    for (uint32_t i = 0; i < 1300; ++i) {
        const auto len = static_cast<uint32_t>(i <= 300 ? i : random() % (most + 1));
        const uint8_t* data = first + most - len;
        const auto expected = static_cast<uint32_t>(crc32(0, data, len));
        ASSERT_EQ(Crc32::crc(data, len), expected) << len;
        ASSERT_EQ(Crc32::crcByTables(data, len), expected) << len;
    }
}

}  // namespace
}  // namespace Pavo
