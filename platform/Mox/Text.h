/// @file
/// Reading text from a range and printing it into a buffer, without allocating.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "Mox/String.h"

namespace Mox {

/// The value of each character as a hexadecimal digit of either case, or -1.
inline constexpr auto hexValues = [] {
    std::array<int8_t, 256> values{};
    values.fill(-1);
    for (int8_t i = 0; i < 16; ++i) {
        values[static_cast<unsigned char>("0123456789abcdef"[i])] = i;
        values[static_cast<unsigned char>("0123456789ABCDEF"[i])] = i;
    }
    return values;
}();

/// A position in a text that is being parsed. A call that fails does not move it, and nothing at or
/// past `end` is ever read.
class TextCursor {
    // Above its callers: clang 14 evaluates at compile time only what stands before the call.
    template <class Number>
    constexpr bool number(Number* value) {
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

  public:
    /// The text from `at` up to `end`, which has to outlive the cursor.
    constexpr TextCursor(const char* at, const char* end) : at_(at), end_(end) {}
    constexpr explicit TextCursor(std::string_view text)
        : TextCursor(text.data(), text.data() + text.size()) {}

    /// The next character.
    constexpr const char* at() const { return at_; }
    /// The end of the text.
    constexpr const char* end() const { return end_; }
    /// Nothing is left.
    constexpr bool atEnd() const { return at_ == end_; }
    /// The rest of the text.
    constexpr std::string_view rest() const { return {at_, static_cast<std::size_t>(end_ - at_)}; }

    /// The next character, or NUL at the end.
    constexpr char peek() const { return at_ == end_ ? '\0' : *at_; }
    /// Moves past one character.
    /// @pre `!atEnd()`.
    constexpr void skip() { ++at_; }
    /// @pre `at` is in the text, or at its end.
    constexpr void atIs(const char* at) { at_ = at; }

    /// Moves past `c`, or past `literal`; false when it is not next.
    constexpr bool take(char c) {
        if (at_ == end_ || *at_ != c) {
            return false;
        }
        ++at_;
        return true;
    }
    constexpr bool take(std::string_view literal) {
        if (rest().substr(0, literal.size()) != literal) {
            return false;
        }
        at_ += literal.size();
        return true;
    }

    /// A decimal digit is next.
    constexpr bool atDigit() const { return at_ != end_ && isDigit(*at_); }

    /// Reads all decimal digits from here on, without sign or blank; leading zeros are accepted.
    /// False when there is no digit, or when the number does not fit.
    constexpr bool decimal(uint32_t* value) { return number(value); }
    /// As `decimal`, of 64 bits.
    constexpr bool decimal64(uint64_t* value) { return number(value); }

    /// The value of a hexadecimal digit of either case, or -1.
    static constexpr int hexValue(char c) { return hexValues[static_cast<unsigned char>(c)]; }
    /// "0" to "9".
    static constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }

  private:
    const char* at_;
    const char* end_;
};

/// "00" to "99" in one string, so that one division gives two digits.
inline constexpr auto decimalPairs = [] {
    std::array<char, 200> pairs{};
    for (unsigned i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}();

/// "00" to "ff" in one string: the two lowercase hexadecimal digits of each byte.
inline constexpr auto hexPairs = [] {
    std::array<char, 512> pairs{};
    for (unsigned i = 0; i < 256; ++i) {
        pairs[2 * i] = "0123456789abcdef"[i >> 4];
        pairs[2 * i + 1] = "0123456789abcdef"[i & 15];
    }
    return pairs;
}();

/// Prints into a buffer with the semantics of snprintf(3): never more than `size` bytes including
/// the NUL, nothing at all for size 0; text that does not fit is truncated, and counted.
class TextWriter {
  public:
    /// `size` counts the NUL. The buffer may be null for size 0.
    TextWriter(char* buffer, uint32_t size)
        : buffer_(buffer), room_(size == 0 ? 0 : size - 1), hasRoomForNul_(size != 0) {}

    /// One character.
    void put(char c) { text({&c, 1}); }

    /// The characters as they are.
    void text(std::string_view more) {
        const auto length = static_cast<uint32_t>(more.size());
        if (needed_ < room_) {
            const uint32_t fits = room_ - needed_ < length ? room_ - needed_ : length;
            std::memcpy(buffer_ + needed_, more.data(), fits);
        }
        needed_ += length;
    }

    /// Calls `fill(at)`, which writes at most `maxLength` characters to `at` and returns their end.
    /// Faster than `text`: characters that certainly fit are written into the buffer directly.
    template <uint32_t maxLength, class Fill>
    void bounded(Fill fill) {
        if (needed_ + maxLength <= room_) {
            needed_ = static_cast<uint32_t>(fill(buffer_ + needed_) - buffer_);
            return;
        }
        char copy[maxLength];
        text({copy, static_cast<std::size_t>(fill(copy) - copy)});
    }

    /// Without leading zeros.
    void decimal(uint64_t value) {
        bounded<20>([value](char* at) { return decimalAt(at, value); });
    }
    /// "-" before a negative number, else no sign.
    void decimalSigned(int64_t value) {
        if (value < 0) {
            put('-');
        }
        decimal(value < 0 ? ~static_cast<uint64_t>(value) + 1 : static_cast<uint64_t>(value));
    }

    /// Writes the NUL and returns the length of the whole text without it.
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
            std::memcpy(first, &decimalPairs[2 * static_cast<std::size_t>(value % 100)], 2);
            value /= 100;
        }
        const auto rest = static_cast<std::size_t>(value);
        if (rest >= 10) {
            first -= 2;
            std::memcpy(first, &decimalPairs[2 * rest], 2);
        } else {
            *--first = static_cast<char>('0' + rest);
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

/// The text that `print(writer)` prints.
template <class Print>
String printedString(Print print) {
    char buffer[256];
    TextWriter out(buffer, sizeof(buffer));
    print(out);
    const uint32_t length = out.finish();
    if (length < sizeof(buffer)) {
        return String(buffer, length);
    }
    std::string large(length, '\0');
    TextWriter again(large.data(), length + 1);  // A string has room for its NUL.
    print(again);
    again.finish();
    return String(std::move(large));
}

}  // namespace Mox
