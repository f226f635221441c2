/// @file
/// Pieces of address text that several types share: dotted quads, and the "/length" or mask after
/// an address.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#include "Mox/Text.h"

namespace Pavo {

/// The faults of the text of a dotted quad.
enum class DottedFault { none, digitExpected, tooManyDigits, valueTooLarge, dotExpected };

/// Reads four decimal octets joined by "." into `bytes` and stops after the fourth. An octet has at
/// most `mostDigits` digits, leading zeros included. Returns the first fault from the left; `bytes`
/// may then be half-written.
template <uint32_t mostDigits = UINT32_MAX>
constexpr DottedFault readDottedQuad(Mox::TextCursor& in, uint8_t* bytes) {
    const char* at = in.at();
    const char* const end = in.end();
    for (int i = 0;; ++i) {
        if (at == end || !Mox::TextCursor::isDigit(*at)) {
            return DottedFault::digitExpected;
        }
        uint32_t value = 0;
        uint32_t digits = 0;
        for (; at != end && Mox::TextCursor::isDigit(*at); ++at) {
            if (++digits > mostDigits) {
                return DottedFault::tooManyDigits;
            }
            value = 10 * value + static_cast<uint32_t>(*at - '0');
            if (value > 255) {
                return DottedFault::valueTooLarge;
            }
        }
        bytes[i] = static_cast<uint8_t>(value);
        if (i == 3) {
            in.atIs(at);
            return DottedFault::none;
        }
        if (at == end || *at != '.') {
            return DottedFault::dotExpected;
        }
        ++at;
    }
}

/// The longest dotted quad has 15 characters.
inline constexpr uint32_t dottedQuadChars = 15;

/// "0." to "255.", four characters each.
inline constexpr auto dottedOctets = [] {
    std::array<char, 1024> octets{};
    for (unsigned i = 0; i < 256; ++i) {
        char* at = &octets[4 * i];
        if (i >= 100) {
            *at++ = static_cast<char>('0' + i / 100);
        }
        if (i >= 10) {
            *at++ = static_cast<char>('0' + i / 10 % 10);
        }
        *at++ = static_cast<char>('0' + i % 10);
        *at = '.';
    }
    return octets;
}();

/// Writes the quad and returns its end. Up to `dottedQuadChars` characters at `at` are overwritten,
/// whatever the length.
inline char* dottedQuadAt(char* at, const uint8_t* bytes) {
    for (int i = 0; i < 4; ++i) {
        // The last octet comes without its dot, and so never touches a sixteenth character.
        std::memcpy(at, &dottedOctets[4u * bytes[i]], i < 3 ? 4 : 3);
        at += 2 + (bytes[i] >= 10) + (bytes[i] >= 100);
    }
    return at - 1;
}

/// The faults of the text of a length.
enum class LengthFault { none, missing, tooLarge };

/// Reads "/" and the decimal number that must follow at once. `missing` when either is not there,
/// `tooLarge` when the number passes 32 bits.
constexpr LengthFault readLengthSuffix(Mox::TextCursor& in, uint32_t* length) {
    Mox::TextCursor ahead = in;
    if (!ahead.take('/') || !ahead.atDigit()) {
        return LengthFault::missing;
    }
    if (!ahead.decimal(length)) {
        return LengthFault::tooLarge;
    }
    in = ahead;
    return LengthFault::none;
}

/// Whether "/" and a length stand at the cursor, and not "/" and a mask written as an address,
/// whose first digits alone look like a length: "/255.0" and "/64:1" are masks, "/24: up" is a
/// length.
constexpr bool atMaskLength(Mox::TextCursor in, bool isIp6) {
    if (!in.take('/') || !in.atDigit()) {
        return false;
    }
    while (in.atDigit()) {
        in.skip();
    }
    if (!isIp6) {
        return !in.take('.') || !in.atDigit();
    }
    const auto isHex = [&in] { return Mox::TextCursor::hexValue(in.peek()) >= 0; };
    if (in.take(':')) {
        return in.peek() != ':' && !isHex();
    }
    return in.peek() != '.' && !isHex();
}

}  // namespace Pavo
