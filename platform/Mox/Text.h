/// @file
/// Reading text from a range and printing it into a buffer, without allocating.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "Mox/String.h"

namespace Mox {

/// What each character is worth as a hexadecimal digit of either case, or -1.
inline constexpr auto hexValues = [] {
    std::array<int8_t, 256> values{};
    values.fill(-1);
    for (int8_t i = 0; i < 16; ++i) {
        values[static_cast<unsigned char>("0123456789abcdef"[i])] = i;
        values[static_cast<unsigned char>("0123456789ABCDEF"[i])] = i;
    }
    return values;
}();

/// A place in a text that is being read. Nothing is taken by a call that fails, and nothing at or
/// past `end` is ever touched.
class TextCursor {
  public:
    TextCursor(const char* at, const char* end) : at_(at), end_(end) {}
    explicit TextCursor(std::string_view text)
        : TextCursor(text.data(), text.data() + text.size()) {}

    const char* at() const { return at_; }
    const char* end() const { return end_; }
    bool atEnd() const { return at_ == end_; }
    std::string_view rest() const { return {at_, static_cast<std::size_t>(end_ - at_)}; }

    /// The next character, or NUL at the end.
    char peek() const { return at_ == end_ ? '\0' : *at_; }
    /// Leaves out one character that was looked at.
    void skip() { ++at_; }
    void atIs(const char* at) { at_ = at; }

    bool take(char c) {
        if (at_ == end_ || *at_ != c) {
            return false;
        }
        ++at_;
        return true;
    }
    bool take(std::string_view literal) {
        if (rest().substr(0, literal.size()) != literal) {
            return false;
        }
        at_ += literal.size();
        return true;
    }

    bool atDigit() const { return at_ != end_ && isDigit(*at_); }

    /// All decimal digits from here on (no sign, no blank, leading zeros are fine). False when
    /// there is no digit, or when the number does not fit.
    bool decimal(uint32_t* value) { return number(value); }
    bool decimal64(uint64_t* value) { return number(value); }

    /// The value of a hexadecimal digit of either case, or -1.
    static constexpr int hexValue(char c) { return hexValues[static_cast<unsigned char>(c)]; }
    static constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }

  private:
    template <class Number>
    bool number(Number* value) {
        const char* at = at_;
        Number sum = 0;
        for (; at != end_ && isDigit(*at); ++at) {
            if (__builtin_mul_overflow(sum, Number(10), &sum) ||
                __builtin_add_overflow(sum, Number(*at - '0'), &sum)) {
                return false;
            }
        }
        if (at == at_) {
            return false;
        }
        at_ = at;
        *value = sum;
        return true;
    }

    const char* at_;
    const char* end_;
};

/// "00" to "99" in one row: two digits a step.
inline constexpr auto decimalPairs = [] {
    std::array<char, 200> pairs{};
    for (unsigned i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}();

/// "00" to "ff" in one row: two lowercase hexadecimal digits a byte.
inline constexpr auto hexPairs = [] {
    std::array<char, 512> pairs{};
    for (unsigned i = 0; i < 256; ++i) {
        pairs[2 * i] = "0123456789abcdef"[i >> 4];
        pairs[2 * i + 1] = "0123456789abcdef"[i & 15];
    }
    return pairs;
}();

/// Prints into a buffer with the semantics of snprintf(3): never more than `size` bytes, the NUL
/// among them, nothing at all for size 0; what had no room is cut off and counted.
class TextWriter {
  public:
    TextWriter(char* buffer, uint32_t size)
        : buffer_(buffer), room_(size == 0 ? 0 : size - 1), hasRoomForNul_(size != 0) {}

    void put(char c) { text({&c, 1}); }

    void text(std::string_view more) {
        const auto length = static_cast<uint32_t>(more.size());
        if (needed_ < room_) {
            const uint32_t fits = room_ - needed_ < length ? room_ - needed_ : length;
            std::memcpy(buffer_ + needed_, more.data(), fits);
        }
        needed_ += length;
    }

    /// Lets `fill` write at most `most` characters and return their end: straight into the buffer
    /// where they fit for certain, else aside first. The fast way for a form of bounded length.
    template <uint32_t most, class Fill>
    void bounded(Fill fill) {
        if (needed_ + most <= room_) {
            needed_ = static_cast<uint32_t>(fill(buffer_ + needed_) - buffer_);
            return;
        }
        char aside[most];
        text({aside, static_cast<std::size_t>(fill(aside) - aside)});
    }

    void decimal(uint64_t value) {
        bounded<20>([value](char* at) { return decimalAt(at, value); });
    }
    void decimalSigned(int64_t value) {
        if (value < 0) {
            put('-');
        }
        decimal(value < 0 ? ~static_cast<uint64_t>(value) + 1 : static_cast<uint64_t>(value));
    }

    /// Ends the text with its NUL and returns the length that the whole text needs without it.
    uint32_t finish() {
        if (hasRoomForNul_) {
            buffer_[needed_ < room_ ? needed_ : room_] = '\0';
        }
        return needed_;
    }

    /// Writes `value` without leading zeros; returns the end.
    static char* decimalAt(char* at, uint64_t value) {
        char digits[20];
        char* first = digits + sizeof(digits);
        while (value >= 100) {
            first -= 2;
            std::memcpy(first, &decimalPairs[2 * (value % 100)], 2);
            value /= 100;
        }
        if (value >= 10) {
            first -= 2;
            std::memcpy(first, &decimalPairs[2 * value], 2);
        } else {
            *--first = static_cast<char>('0' + value);
        }
        const auto length = static_cast<std::size_t>(digits + sizeof(digits) - first);
        std::memcpy(at, first, length);
        return at + length;
    }

  private:
    char* buffer_;
    uint32_t room_;
    uint32_t needed_ = 0;
    bool hasRoomForNul_;
};

}  // namespace Mox
