#include "Pavo/packet/Checksum.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <bit>
#include <cstring>

#include "Mox/Assert.h"

namespace Pavo {

namespace {

// The sums of the bytes at even and at odd places, modulo 2^32. From these two follows the sum of
// the 16-bit words in either byte order, exactly as a loop over the words would have it.
struct ByteSums {
    uint32_t even = 0;
    uint32_t odd = 0;

    uint32_t bigEndianWords() const { return even * 256 + odd; }
    uint32_t hostWords() const {
        return std::endian::native == std::endian::little ? even + odd * 256 : bigEndianWords();
    }
};

#ifdef __SSE2__

uint32_t lanesAdded(__m128i sums) {
    return static_cast<uint32_t>(_mm_cvtsi128_si32(sums)) +
           static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(sums, 8)));
}

// Takes as many whole blocks as there are and returns the bytes taken. `psadbw` against zero adds
// eight bytes in one step; the bytes at odd places are what all bytes make beyond the even ones.
uint32_t sumBlocks(const uint8_t* data, uint32_t len, ByteSums* sums) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i evenBytes = _mm_set1_epi16(0x00ff);
    __m128i all = zero;
    __m128i even = zero;
    const auto add = [&](const uint8_t* at) {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
        all = _mm_add_epi64(all, _mm_sad_epu8(block, zero));
        even = _mm_add_epi64(even, _mm_sad_epu8(_mm_and_si128(block, evenBytes), zero));
    };
    uint32_t taken = 0;
    for (; len - taken >= 64; taken += 64) {
        add(data + taken);
        add(data + taken + 16);
        add(data + taken + 32);
        add(data + taken + 48);
    }
    for (; len - taken >= 16; taken += 16) {
        add(data + taken);
    }
    sums->even += lanesAdded(even);
    sums->odd += lanesAdded(all) - lanesAdded(even);
    return taken;
}

#else

constexpr uint64_t alternateBytes = 0x00ff00ff00ff00ff;

// The four 16-bit lanes of `sums`, added.
uint32_t lanesAdded(uint64_t sums) {
    sums = (sums & 0x0000ffff0000ffff) + (sums >> 16 & 0x0000ffff0000ffff);
    return static_cast<uint32_t>(sums) + static_cast<uint32_t>(sums >> 32);
}

// Takes as many whole blocks as there are and returns the bytes taken. Four bytes of each parity
// are added at once, in lanes of 16 bits, which hold 257 of them.
uint32_t sumBlocks(const uint8_t* data, uint32_t len, ByteSums* sums) {
    uint32_t taken = 0;
    while (len - taken >= 8) {
        uint64_t low = 0;
        uint64_t high = 0;
        for (int lane = 0; lane < 257 && len - taken >= 8; ++lane, taken += 8) {
            uint64_t block;
            std::memcpy(&block, data + taken, 8);
            low += block & alternateBytes;
            high += block >> 8 & alternateBytes;
        }
        const bool evenIsLow = std::endian::native == std::endian::little;
        sums->even += lanesAdded(evenIsLow ? low : high);
        sums->odd += lanesAdded(evenIsLow ? high : low);
    }
    return taken;
}

#endif

// The hot loop of all three functions. The last byte of an odd area lies at an even place, which
// makes it the first byte of a word that ends in zero.
ByteSums sumBytes(const void* area, uint32_t len) {
    const auto* data = static_cast<const uint8_t*>(area);
    ByteSums sums;
    uint32_t taken = sumBlocks(data, len, &sums);
    for (; len - taken >= 2; taken += 2) {
        sums.even += data[taken];
        sums.odd += data[taken + 1];
    }
    if (taken != len) {
        sums.even += data[taken];
    }
    return sums;
}

}  // namespace

uint32_t ipChecksumChunk(const void* data, uint16_t len, uint32_t sum) {
    Mox::require((len % 2) == 0, "(len % 2) == 0");
    return sum + sumBytes(data, len).bigEndianWords();
}

IpChecksum ipChecksumCalc(const void* data, uint16_t len, uint32_t sum) {
    sum += sumBytes(data, len).bigEndianWords();
    while (sum >> 16 != 0) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return IpChecksum(static_cast<uint16_t>(sum ^ 0xffff));
}

uint16_t ipChksum(const void* data, uint32_t len) {
    uint32_t sum = sumBytes(data, len).hostWords();
    sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~(sum + (sum >> 16)));
}

}  // namespace Pavo
