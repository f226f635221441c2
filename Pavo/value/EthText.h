/// @file
/// Reads the text of MAC addresses, at compile time too: for the sources of the types that have
/// this text, and for literals.
#pragma once

#include <algorithm>
#include <cstdint>

#include "Mox/Text.h"

#include "Pavo/base/NetOrder.h"

namespace Pavo {

/// The end of the hexadecimal digits from `at` on, or null when there is none or they pass 0xffff.
constexpr const char* readEthGroup(const char* at, const char* end, uint32_t* value) {
    const char* const first = at;
    uint32_t sum = 0;
    for (; at != end; ++at) {
        const int digit = Mox::TextCursor::hexValue(*at);
        if (digit < 0) {
            break;
        }
        sum = sum << 4 | static_cast<uint32_t>(digit);
        if (sum > 0xffff) {
            return nullptr;
        }
    }
    *value = sum;
    return at == first ? nullptr : at;
}

/// Reads up to four bytes of two hexadecimal digits each, with one character between them; negative
/// when a character is not a digit. `*differences` is unchanged only when each character between
/// the bytes is `separator`.
template <unsigned count>
constexpr int64_t digitPairs(const char* at, char separator, int* differences) {
    int64_t number = 0;
    for (unsigned i = 0; i < count; ++i) {
        // A character that is not a digit gives -1, whose high bits stay set in the sum.
        const int64_t high = Mox::TextCursor::hexValue(at[3 * i]);
        const int64_t low = Mox::TextCursor::hexValue(at[3 * i + 1]);
        number = number << 8 | high << 4 | low;
        *differences |= i + 1 < count ? at[3 * i + 2] ^ separator : 0;
    }
    return number;
}

/// Reads `count` bytes of two digits each, joined by ":" or "-": by far the most frequent form,
/// read without a branch for each character. False for every other form.
template <unsigned count>
constexpr bool readDigitPairs(Mox::TextCursor& in, uint8_t* bytes) {
    constexpr unsigned length = 3 * count - 1;
    constexpr unsigned half = count / 2;
    const char* const at = in.at();
    if (in.rest().size() < length || (at[2] != ':' && at[2] != '-')) {
        return false;
    }
    int differences = at[3 * half - 1] ^ at[2];
    const int64_t high = digitPairs<half>(at, at[2], &differences);
    const int64_t low = digitPairs<half>(at + 3 * half, at[2], &differences);
    const bool hasMoreDigits =
        in.rest().size() > length && Mox::TextCursor::hexValue(at[length]) >= 0;
    if ((high | low) < 0 || differences != 0 || hasMoreDigits) {
        return false;
    }
    // Whole words are stored, since the value is copied as such at once.
    uint8_t image[8] = {};
    storeNet(image, static_cast<uint64_t>(high << (8 * half) | low) << (64 - 8 * count));
    std::copy(image, image + count, bytes);
    in.atIs(at + length);
    return true;
}

/// Reads `count` bytes in one of the three forms.
template <unsigned count>
constexpr bool readHexBytes(Mox::TextCursor& in, uint8_t* bytes) {
    if (readDigitPairs<count>(in, bytes)) {
        return true;
    }
    const char* at = in.at();
    const char* const end = in.end();
    uint32_t group = 0;
    at = readEthGroup(at, end, &group);
    if (at == nullptr || at == end || (*at != ':' && *at != '-' && *at != '.')) {
        return false;
    }
    const char separator = *at;
    const bool wide = separator == '.';
    for (unsigned i = 0;;) {
        if (wide) {
            bytes[i++] = static_cast<uint8_t>(group >> 8);
        } else if (group > 0xff) {
            return false;
        }
        bytes[i++] = static_cast<uint8_t>(group);
        if (i == count) {
            in.atIs(at);
            return true;
        }
        if (at == end || *at != separator) {
            return false;
        }
        at = readEthGroup(at + 1, end, &group);
        if (at == nullptr) {
            return false;
        }
    }
}

}  // namespace Pavo
