#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Pavo/Checksum.h"
#include "support/GuardedText.h"

namespace Pavo {
namespace {

uint32_t plainSum(const uint8_t* data, uint32_t len, uint32_t sum) {
    for (uint32_t i = 0; i + 1 < len; i += 2) {
        sum += data[i] * 256u + data[i + 1];
    }
    return len % 2 == 0 ? sum : sum + data[len - 1] * 256u;
}

uint16_t folded(uint32_t sum) {
    while (sum > 0xffff) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

// What `ipChksum` returns, as the two bytes that come to lie in the packet.
IpChecksum stored(uint16_t checksum) {
    IpChecksum image;
    std::memcpy(static_cast<void*>(&image), &checksum, sizeof(image));
    return image;
}

TEST(Checksum, GivesPublishedAndBoundaryValues) {
    const struct {
        const char* what;
        std::vector<uint8_t> data;
        uint32_t sum;
        uint16_t checksum;
    } cases[] = {
        {"RFC 1071, 3", {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7}, 0, 0x220d},
        {"an odd byte is the high one", {0x01}, 0, 0xfeff},
        {"an odd byte behind a word", {0x00, 0x01, 0x02}, 0, 0xfdfe},
        {"words that make 0xffff", {0xff, 0xfe, 0x00, 0x01}, 0, 0},
        {"nothing", {}, 0, 0xffff},
        {"a fold that carries again", {}, 0xffffffff, 0},
        {"a fold that carries into 1", {0x00, 0x02}, 0xffff, 0xfffd},
        {"an IPv4 header with its checksum",
         {0x45, 0x00, 0x00, 0x73, 0x00, 0x00, 0x40, 0x00, 0x40, 0x11,
          0xb8, 0x61, 0xc0, 0xa8, 0x00, 0x01, 0xc0, 0xa8, 0x00, 0xc7},
         0,
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto len = static_cast<uint16_t>(c.data.size());
        EXPECT_EQ(ipChecksumCalc(c.data.data(), len, c.sum).value(), c.checksum);
        if (c.sum == 0) {
            EXPECT_EQ(stored(ipChksum(c.data.data(), len)).value(), c.checksum);
        }
    }
    EXPECT_EQ(ipChecksumChunk(cases[0].data.data(), 8, 0), 0x2ddf0u);  // RFC 1071, 3: not folded.
}

// Random bytes and all-ones bytes, each area up to a page that must not be touched, at every
// alignment; lengths around the block sizes and the largest.
TEST(Checksum, AgreesWithAPlainLoopInEveryBitOfTheUnfoldedSum) {
    constexpr uint32_t most = 131072;
    const GuardedBuffer memory(most);
    auto* const first = reinterpret_cast<uint8_t*>(memory.data());
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
                              folded(plainSum(data, bytes, sum)));
                }
                ASSERT_EQ(stored(ipChksum(data, bytes)).value(), folded(plainSum(data, bytes, 0)));
            }
        }
    }
    EXPECT_DEATH((void)ipChecksumChunk(first, 3, 0), "\\(len % 2\\) == 0");
}

}  // namespace
}  // namespace Pavo
