#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Pavo/Checksum.h"
#include "fuzz/Frames.h"

namespace Pavo {
namespace {

uint32_t plainSum(const uint8_t* data, uint32_t len, uint32_t sum) {
    return fuzz::plainSum({reinterpret_cast<const char*>(data), len}, sum);
}

// What `ipChksum` returns, as the two bytes that come to lie in the packet.
IpChecksum stored(uint16_t checksum) {
    IpChecksum image;
    std::memcpy(static_cast<void*>(&image), &checksum, sizeof(image));
    return image;
}

TEST(Checksum, GivesPublishedAndBoundaryValues) {
    const uint8_t rfc1071[] = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7};
    EXPECT_EQ(ipChecksumChunk(rfc1071, 8, 0), 0x2ddf0u);  // RFC 1071, 3: not folded.
    EXPECT_EQ(ipChecksumCalc(rfc1071, 8, 0).value(), 0x220d);
    EXPECT_EQ(stored(ipChksum(rfc1071, 8)).value(), 0x220d);
    EXPECT_EQ(ipChecksumCalc(rfc1071, 0, 0xffffffff).value(), 0);  // A fold that carries again.
    EXPECT_EQ(ipChecksumCalc(rfc1071 + 1, 1, 0).value(), 0xfeff);  // An odd byte is the high one.
}

// Random bytes and all-ones bytes, each area up to the end of an allocation, at every
// alignment; lengths around the block sizes and the largest.
TEST(Checksum, AgreesWithAPlainLoopInEveryBitOfTheUnfoldedSum) {
    constexpr uint32_t most = 131072;
    std::vector<uint8_t> memory(most);
    uint8_t* const first = memory.data();
    std::mt19937 random(2);
    for (const bool ones : {false, true}) {
        for (uint32_t i = 0; i < most; ++i) {
            first[i] = ones ? 0xff : static_cast<uint8_t>(random());
        }
        for (uint32_t i = 0; i < 1000; ++i) {
            const auto len = static_cast<uint32_t>(i <= 300 ? i : random() % 4200);
            for (const uint32_t bytes : {len, 65535 - len, most - len}) {
                const uint8_t* data = first + most - bytes;
                const auto sum = static_cast<uint32_t>(random());
                const auto short16 = static_cast<uint16_t>(bytes);
                if (bytes % 2 == 0 && bytes <= 65535) {
                    ASSERT_EQ(ipChecksumChunk(data, short16, sum), plainSum(data, bytes, sum));
                }
                if (bytes <= 65535) {
                    ASSERT_EQ(ipChecksumCalc(data, short16, sum).value(),
                              fuzz::folded(plainSum(data, bytes, sum)));
                }
                ASSERT_EQ(stored(ipChksum(data, bytes)).value(),
                          fuzz::folded(plainSum(data, bytes, 0)));
            }
        }
    }
    EXPECT_DEATH((void)ipChecksumChunk(first, 3, 0), "\\(len % 2\\) == 0");
}

}  // namespace
}  // namespace Pavo
