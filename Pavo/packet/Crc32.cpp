#include "Pavo/packet/Crc32.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define PAVO_CRC32_CARRYLESS 1
#endif

#include <bit>
#include <cstring>

namespace Pavo {

namespace {

constexpr uint32_t slices = 16;

// `bytes[n][b]` is what the byte `b` makes of an empty register when `n` zero bytes follow it.
// Built by the compiler, so that a CRC is right before any constructor ran.
template <class Crc>
struct Tables {
    constexpr Tables() {
        initReflectedTable(bytes[0], Crc::polynomial);
        for (uint32_t n = 1; n < slices; ++n) {
            for (uint32_t b = 0; b < 256; ++b) {
                const uint32_t before = bytes[n - 1][b];
                bytes[n][b] = bytes[0][before & 0xff] ^ before >> 8;
            }
        }
    }

    uint32_t bytes[slices][256] = {};
};
template <class Crc>
alignas(64) constexpr Tables<Crc> tables;

uint32_t loadLittle(const uint8_t* at) {
    uint32_t word;
    std::memcpy(&word, at, sizeof(word));
    return std::endian::native == std::endian::little ? word : __builtin_bswap32(word);
}

// What four bytes make of an empty register when `n` zero bytes follow them.
template <class Crc>
uint32_t sliceOf(uint32_t word, uint32_t n) {
    const auto& bytes = tables<Crc>.bytes;
    return bytes[n + 3][word & 0xff] ^ bytes[n + 2][word >> 8 & 0xff] ^
           bytes[n + 1][word >> 16 & 0xff] ^ bytes[n][word >> 24];
}

// Takes the bytes into the register, sixteen at a time with look-ups that do not wait for one
// another.
template <class Crc>
uint32_t sliced(uint32_t crc, const uint8_t* data, uint32_t len) {
    for (; len >= slices; data += slices, len -= slices) {
        crc = sliceOf<Crc>(loadLittle(data) ^ crc, 12) ^ sliceOf<Crc>(loadLittle(data + 4), 8) ^
              sliceOf<Crc>(loadLittle(data + 8), 4) ^ sliceOf<Crc>(loadLittle(data + 12), 0);
    }
    for (; len != 0; ++data, --len) {
        crc = tables<Crc>.bytes[0][(crc ^ *data) & 0xff] ^ crc >> 8;
    }
    return crc;
}

#ifdef PAVO_CRC32_CARRYLESS

// x^n modulo the polynomial, as a factor for `folded`: the lowest power in the highest of 33 bits,
// for a carry-less product of reflected numbers comes out one bit short.
template <class Crc>
constexpr int64_t powerOfX(int n) {
    constexpr uint32_t polynomial = reflectedBits(Crc::polynomial, 32);
    uint32_t power = 0x80000000;
    for (int i = 0; i < n; ++i) {
        power = power >> 1 ^ ((power & 1) != 0 ? polynomial : 0);
    }
    return int64_t{power} << 1;
}

using Block = __m128i;

// Sixteen bytes, moved up by the distance whose powers `by` holds and added to those found there:
// the remainder of the whole stays the same.
[[gnu::target("pclmul")]] inline Block folded(Block block, Block by, Block onto) {
    const Block low = _mm_clmulepi64_si128(block, by, 0x00);
    const Block high = _mm_clmulepi64_si128(block, by, 0x11);
    return _mm_xor_si128(_mm_xor_si128(low, high), onto);
}

inline Block blockAt(const uint8_t* at) {
    return _mm_loadu_si128(reinterpret_cast<const Block*>(at));
}

// The powers that move a block up by so many bits.
template <class Crc, int bits>
inline Block distance() {
    constexpr int64_t low = powerOfX<Crc>(bits + 32);
    constexpr int64_t high = powerOfX<Crc>(bits - 32);
    return _mm_set_epi64x(high, low);
}

constexpr uint32_t stride = 64;

// What takes bytes into a register.
using Taker = uint32_t(uint32_t crc, const uint8_t* data, uint32_t len);

// Folds the data into its last sixteen whole bytes (V. Gopal et al., "Fast CRC Computation for
// Generic Polynomials Using PCLMULQDQ Instruction"), and leaves these and what is after them to
// `rest`. Takes `stride` bytes at least.
template <class Crc, Taker rest>
[[gnu::target("pclmul")]] uint32_t carryless(uint32_t crc, const uint8_t* data, uint32_t len) {
    Block lanes[4] = {blockAt(data), blockAt(data + 16), blockAt(data + 32), blockAt(data + 48)};
    lanes[0] = _mm_xor_si128(lanes[0], _mm_cvtsi32_si128(static_cast<int>(crc)));
    data += stride;
    len -= stride;
    for (; len >= stride; data += stride, len -= stride) {
        for (int i = 0; i < 4; ++i) {
            lanes[i] = folded(lanes[i], distance<Crc, 4 * 128>(), blockAt(data + 16 * i));
        }
    }
    Block last = lanes[0];
    for (int i = 1; i < 4; ++i) {
        last = folded(last, distance<Crc, 128>(), lanes[i]);
    }
    for (; len >= 16; data += 16, len -= 16) {
        last = folded(last, distance<Crc, 128>(), blockAt(data));
    }
    uint8_t bytes[16];
    _mm_storeu_si128(reinterpret_cast<Block*>(bytes), last);
    return rest(rest(0, bytes, sizeof(bytes)), data, len);
}

// The instruction knows CRC-32C only.
[[gnu::target("sse4.2")]] uint32_t byInstruction(uint32_t crc, const uint8_t* data, uint32_t len) {
#ifdef __x86_64__
    uint64_t wide = crc;
    for (; len >= 8; data += 8, len -= 8) {
        uint64_t word;
        std::memcpy(&word, data, sizeof(word));
        wide = _mm_crc32_u64(wide, word);
    }
    crc = static_cast<uint32_t>(wide);
#endif
    for (; len >= 4; data += 4, len -= 4) {
        crc = _mm_crc32_u32(crc, loadLittle(data));
    }
    for (; len != 0; ++data, --len) {
        crc = _mm_crc32_u8(crc, *data);
    }
    return crc;
}

bool multiplies(uint32_t len) {
    return len >= stride && __builtin_cpu_supports("pclmul");
}

// The places that choose, one a polynomial.
uint32_t takenAs(Crc32, uint32_t crc, const uint8_t* data, uint32_t len) {
    return multiplies(len) ? carryless<Crc32, sliced<Crc32>>(crc, data, len)
                           : sliced<Crc32>(crc, data, len);
}
uint32_t takenAs(Crc32c, uint32_t crc, const uint8_t* data, uint32_t len) {
    if (!__builtin_cpu_supports("sse4.2")) {
        return sliced<Crc32c>(crc, data, len);
    }
    return multiplies(len) ? carryless<Crc32c, byInstruction>(crc, data, len)
                           : byInstruction(crc, data, len);
}

#else

template <class Crc>
uint32_t takenAs(Crc, uint32_t crc, const uint8_t* data, uint32_t len) {
    return sliced<Crc>(crc, data, len);
}

#endif

}  // namespace

uint32_t Crc32::crc(const void* data, uint32_t len) {
    return ~takenAs(Crc32(), 0xffffffff, static_cast<const uint8_t*>(data), len);
}

uint32_t Crc32::crcByTables(const void* data, uint32_t len) {
    return ~sliced<Crc32>(0xffffffff, static_cast<const uint8_t*>(data), len);
}

uint32_t Crc32c::crc(const void* data, uint32_t len, uint32_t before) {
    return ~takenAs(Crc32c(), ~before, static_cast<const uint8_t*>(data), len);
}

uint32_t Crc32c::crcByTables(const void* data, uint32_t len, uint32_t before) {
    return ~sliced<Crc32c>(~before, static_cast<const uint8_t*>(data), len);
}

}  // namespace Pavo
