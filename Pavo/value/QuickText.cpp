#include "Pavo/value/QuickText.h"

#ifdef __x86_64__  // SSE2 is part of it.

#include <emmintrin.h>

#include <algorithm>
#include <bit>
#include <cstring>

#include "Mox/Text.h"

namespace Pavo {

namespace {

template <class Word>
Word loadWord(const char* at) {
    Word word;
    std::memcpy(&word, at, sizeof(word));
    return word;
}

__m128i load(const char* at) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}

// The first sixteen characters, or all, at least eight, with zeros after them.
__m128i loadUpTo16(const char* at, std::size_t size) {
    if (size >= 16) {
        return load(at);
    }
    const unsigned known = 8 * (16 - static_cast<unsigned>(size));  // Bits that both words have.
    const uint64_t last = loadWord<uint64_t>(at + size - 8);
    return _mm_set_epi64x(static_cast<int64_t>(last >> 1 >> (known - 1)), loadWord<int64_t>(at));
}

// A byte of ones for each character in the range, of zeros for every other.
__m128i inRange(__m128i chars, char first, char last) {
    const __m128i offset = _mm_sub_epi8(chars, _mm_set1_epi8(first));
    const __m128i most = _mm_set1_epi8(static_cast<char>(last - first));
    return _mm_cmpeq_epi8(_mm_min_epu8(offset, most), offset);
}

// A bit for each character, the first one least significant.
uint64_t bitsOf(__m128i chars) {
    return static_cast<uint64_t>(_mm_movemask_epi8(chars));
}

uint64_t bitsOf(__m128i chars, char wanted) {
    return bitsOf(_mm_cmpeq_epi8(chars, _mm_set1_epi8(wanted)));
}

// The bits of hexadecimal digits.
uint64_t hexDigits(__m128i chars) {
    const __m128i lower = _mm_or_si128(chars, _mm_set1_epi8(0x20));
    return bitsOf(_mm_or_si128(inRange(chars, '0', '9'), inRange(lower, 'a', 'f')));
}

// The values of hexadecimal digits; a zero character has the value 0.
__m128i digitValues(__m128i chars) {
    const __m128i isLetter = _mm_cmpgt_epi8(chars, _mm_set1_epi8('9'));
    return _mm_add_epi8(_mm_and_si128(chars, _mm_set1_epi8(15)),
                        _mm_and_si128(isLetter, _mm_set1_epi8(9)));
}

// The four characters from `at` on as they would be if the first `length` of them came last, after
// zeros.
__m128i lastOfFour(const char* at, unsigned length) {
    const uint64_t chars = loadWord<uint32_t>(at);
    return _mm_cvtsi32_si128(static_cast<int>(chars << (32 - 8 * length)));
}

__m128i fourOf(const __m128i* parts) {
    return _mm_unpacklo_epi64(_mm_unpacklo_epi32(parts[0], parts[1]),
                              _mm_unpacklo_epi32(parts[2], parts[3]));
}

}  // namespace

std::size_t quickDottedQuad(const char* at, const char* end, uint8_t* bytes) {
    const auto size = static_cast<std::size_t>(end - at);
    if (size < 8) {
        return 0;
    }
    const __m128i text = loadUpTo16(at, size);
    // Bits from 16 on are ends, so that there are always four.
    auto ends = static_cast<uint32_t>(~bitsOf(inRange(text, '0', '9')));
    const auto all = ends;
    unsigned length[4];
    unsigned start[4];
    unsigned next = 0;
    unsigned wrong = 0;
#pragma GCC unroll 4
    for (unsigned i = 0; i < 4; ++i) {
        start[i] = next;
        length[i] = static_cast<unsigned>(std::countr_zero(ends)) - next;
        wrong |= length[i] - 1;  // Above 3 when there is no digit, or more than four.
        next += length[i] + 1;
        ends &= i < 3 ? ends - 1 : ~uint32_t{0};
    }
    const uint32_t dots = all ^ ends;
    if (wrong > 3 || (dots & ~bitsOf(text, '.')) != 0 || next > 16 || start[3] > 12) {
        return 0;
    }
    // A copy, since the last octets have no four characters in the text.
    alignas(16) char copy[16];
    _mm_store_si128(reinterpret_cast<__m128i*>(copy), text);
    __m128i octets[4];
#pragma GCC unroll 4
    for (unsigned i = 0; i < 4; ++i) {
        octets[i] = lastOfFour(copy + start[i], length[i]);
    }
    const __m128i digits = _mm_and_si128(fourOf(octets), _mm_set1_epi8(15));
    const __m128i weights = _mm_set_epi16(1, 10, 100, 1000, 1, 10, 100, 1000);
    const __m128i zero = _mm_setzero_si128();
    const __m128i halves =
        _mm_packs_epi32(_mm_madd_epi16(_mm_unpacklo_epi8(digits, zero), weights),
                        _mm_madd_epi16(_mm_unpackhi_epi8(digits, zero), weights));
    const __m128i values = _mm_madd_epi16(halves, _mm_set1_epi16(1));
    if (bitsOf(_mm_cmpgt_epi32(values, _mm_set1_epi32(255))) != 0) {
        return 0;
    }
    const __m128i words = _mm_packs_epi32(values, values);
    const int quad = _mm_cvtsi128_si32(_mm_packus_epi16(words, words));
    std::memcpy(bytes, &quad, sizeof(quad));
    return next - 1;
}

namespace {

// The longest address has 39 characters.
constexpr std::size_t mostChars = 40;

// A bit for each character, the first one least significant.
struct Ip6Marks {
    uint64_t others = ~uint64_t{0};  // Neither digit nor colon, as all past the end.
    uint64_t colons = 0;

    void add(__m128i chars, std::size_t offset) {
        const uint64_t isDigit = hexDigits(chars);
        const uint64_t isColon = bitsOf(chars, ':');
        others &= ~((isDigit | isColon) << offset);
        colons |= isColon << offset;
    }
};

Ip6Marks ip6Marks(const char* at, std::size_t size) {
    Ip6Marks marks;
    marks.add(loadUpTo16(at, size), 0);
    if (size > 16) {
        marks.add(load(at + size - 16), size - 16);
    }
    if (size > 32) {
        marks.add(load(at + 16), 16);
    }
    return marks;
}

// Two bytes of each group of four hexadecimal digits; a zero character is the digit 0.
__m128i groupValues(__m128i chars) {
    const __m128i digits = digitValues(chars);
    const __m128i pairs = _mm_or_si128(_mm_slli_epi16(digits, 4), _mm_srli_epi16(digits, 8));
    return _mm_and_si128(pairs, _mm_set1_epi16(0xff));
}

// There is no instruction for it in what every x86-64 has.
unsigned countOf(uint64_t bits) {
    bits -= bits >> 1 & 0x5555555555555555;
    bits = (bits & 0x3333333333333333) + (bits >> 2 & 0x3333333333333333);
    return static_cast<unsigned>(((bits + (bits >> 4)) & 0x0f0f0f0f0f0f0f0f) * 0x0101010101010101 >>
                                 56);
}

// The address that begins the text.
struct Ip6Shape {
    unsigned length = 0;
    uint64_t colons = 0;
    uint64_t gaps = 0;  // The second colon of "::".

    // False where the plain reader has to look.
    bool read(const char* at, std::size_t size) {
        const Ip6Marks marks = ip6Marks(at, size);
        length = static_cast<unsigned>(std::countr_zero(marks.others));
        const uint64_t inside = (uint64_t{1} << length) - 1;
        colons = marks.colons & inside;
        gaps = colons & colons << 1;
        const uint64_t digits = inside & ~colons;
        const uint64_t fours = digits & digits >> 1 & digits >> 2 & digits >> 3;
        const uint64_t edges = (colons & 1) | (colons & uint64_t{1} << length >> 1);
        const bool isFree = (edges & ~(gaps | gaps >> 1)) != 0;  // A single colon at an end.
        return (fours & digits >> 4) == 0 && !isFree && (gaps & (gaps - 1)) == 0 &&
               length < mostChars && (length == size || at[length] != '.');
    }
};

// The first eight groups, of which "::" has an empty one, as sixteen bytes; those past the last
// group are zero. `*stop` is the end of the eighth, or past the address by the number that is
// missing.
__m128i ip6Groups(const char* at, std::size_t size, const Ip6Shape& shape, unsigned* stop) {
    // The last groups have no four characters in the text: they are read from a copy of its end.
    char tail[32] = {};
    std::memcpy(tail, at + size - 8, 8);
    uint64_t ends = shape.colons | ~uint64_t{0} << shape.length;
    unsigned next = 0;
    __m128i groups[8];
#pragma GCC unroll 8
    for (auto& group : groups) {
        *stop = static_cast<unsigned>(std::countr_zero(ends));
        ends &= ends - 1;
        const char* const from = next + 4 > size ? tail + (next + 8 - size) : at + next;
        group = lastOfFour(from, *stop - next);
        next = *stop + 1;
    }
    return _mm_packus_epi16(groupValues(fourOf(groups)), groupValues(fourOf(groups + 4)));
}

}  // namespace

std::size_t quickIp6(const char* at, const char* end, uint64_t* high, uint64_t* low) {
    const std::size_t size = std::min(static_cast<std::size_t>(end - at), mostChars);
    Ip6Shape shape;
    if (size < 8 || !shape.read(at, size)) {
        return 0;
    }
    unsigned stop = 0;
    const __m128i groups = ip6Groups(at, size, shape, &stop);
    if (stop < shape.length || (shape.gaps == 0 && stop != shape.length)) {
        return 0;
    }
    const auto half = [](__m128i bytes) {
        return __builtin_bswap64(static_cast<uint64_t>(_mm_cvtsi128_si64(bytes)));
    };
    *high = half(groups);
    *low = half(_mm_unpackhi_epi64(groups, groups));
    if (shape.gaps != 0) {  // What follows it moves to the end.
        const unsigned headBits = 16 * countOf(shape.colons & (shape.gaps - 1));
        const unsigned missingBits = 16 * (stop - shape.length);
        const auto all = static_cast<unsigned __int128>(*high) << 64 | *low;
        const auto inTail = ~static_cast<unsigned __int128>(0) >> headBits;
        const auto address = (all & ~inTail) | (all & inTail) >> missingBits;
        *high = static_cast<uint64_t>(address >> 64);
        *low = static_cast<uint64_t>(address);
    }
    return shape.length;
}

std::size_t quickMac(const char* at, const char* end, uint8_t* bytes) {
    constexpr std::size_t length = 17;
    constexpr uint64_t separators = 1u << 2 | 1u << 5 | 1u << 8 | 1u << 11 | 1u << 14;
    const auto isDigit = [](char c) { return Mox::TextCursor::hexValue(c) >= 0; };
    const auto size = static_cast<std::size_t>(end - at);
    if (size < length || (at[2] != ':' && at[2] != '-')) {
        return 0;
    }
    const __m128i high = load(at);  // The first digit of a byte is in one, the second in the other.
    const __m128i low = load(at + 1);
    if (bitsOf(high, at[2]) != separators || hexDigits(high) != (0xffff & ~separators) ||
        !isDigit(at[16]) || (size > length && isDigit(at[length]))) {
        return 0;
    }
    // Of a colon come five bits, of which one would reach the next byte.
    const __m128i highValues = _mm_and_si128(digitValues(high), _mm_set1_epi8(15));
    const __m128i pairs = _mm_or_si128(_mm_slli_epi16(highValues, 4), digitValues(low));
    const auto first = static_cast<uint64_t>(_mm_cvtsi128_si64(pairs));  // In bytes 0, 3 and 6.
    const auto last = static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(pairs, pairs)));
    const auto word = static_cast<uint32_t>((first & 0xff) | (first >> 16 & 0xff00) |
                                            (first >> 32 & 0xff0000) | (last << 16 & 0xff000000));
    const auto half = static_cast<uint16_t>((last >> 32 & 0xff) | (last >> 48 & 0xff00));
    std::memcpy(bytes, &word, sizeof(word));
    std::memcpy(bytes + sizeof(word), &half, sizeof(half));
    return length;
}

}  // namespace Pavo

#else

namespace Pavo {

std::size_t quickDottedQuad(const char*, const char*, uint8_t*) {
    return 0;
}
std::size_t quickIp6(const char*, const char*, uint64_t*, uint64_t*) {
    return 0;
}
std::size_t quickMac(const char*, const char*, uint8_t*) {
    return 0;
}

}  // namespace Pavo

#endif
