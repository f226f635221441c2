/// @file
/// Reads the text of IPv6 addresses, at compile time too: for the sources of the types that have
/// this text, and for literals.
#pragma once

#include <cstdint>
#include <type_traits>

#include "Mox/Text.h"

#include "Pavo/base/NetOrder.h"
#include "Pavo/value/Ip6Addr.h"
#include "Pavo/value/IpText.h"

namespace Pavo {

/// The text of the error of `Ip6Addr` for a fault in its dotted quad; null for none.
constexpr const char* ip6DottedFaultText(DottedFault fault) {
    switch (fault) {
        case DottedFault::none:
            return nullptr;
        case DottedFault::digitExpected:
            return "Ip6Addr: decimal digit expected";
        case DottedFault::tooManyDigits:
            return "Ip6Addr: too many consecutive decimal digits";
        case DottedFault::valueTooLarge:
            return "Ip6Addr: decimal value too large";
        case DottedFault::dotExpected:
            return "Ip6Addr: expected '.'";
    }
    return nullptr;
}

/// The end of up to four hexadecimal digits from `at` on.
constexpr const char* readHexGroup(const char* at, const char* end, uint32_t* group) {
    const char* const limit = end - at < 4 ? end : at + 4;
    uint32_t sum = 0;
    for (; at != limit; ++at) {
        const int digit = Mox::TextCursor::hexValue(*at);
        if (digit < 0) {
            break;
        }
        sum = sum << 4 | static_cast<uint32_t>(digit);
    }
    *group = sum;
    return at;
}

/// Reads one address. Every step returns null or the text of the error, and sets `done_` when
/// no more text can belong to the address.
class Ip6TextReader {
  public:
    /// Of the text from `at` up to `end`.
    constexpr Ip6TextReader(const char* at, const char* end) : at_(at), end_(end) {}

    /// Reads the longest address that begins at the start.
    constexpr const char* read() {
        const char* error = readStart();
        while (error == nullptr && !done_) {
            error = readGroup();
            if (error == nullptr && !done_) {
                error = readColons();
            }
        }
        return error;
    }

    /// The first character after the address.
    constexpr const char* at() const { return at_; }

    /// The address, after `read` without an error.
    constexpr Ip6Addr address() const {
        const uint8_t* const tail = hasGap_ ? into_ - 16 : tail_;  // Zeros where there is no "::".
        return Ip6Addr(loadNet<uint64_t>(head_) | loadNet<uint64_t>(tail),
                       loadNet<uint64_t>(head_ + 8) | loadNet<uint64_t>(tail + 8));
    }

  private:
    constexpr bool atChar(char c) const { return at_ != end_ && *at_ == c; }
    constexpr bool atHexDigit() const {
        return at_ != end_ && Mox::TextCursor::hexValue(*at_) >= 0;
    }

    constexpr const char* readStart() {
        if (atHexDigit()) {
            return nullptr;
        }
        if (!atChar(':')) {
            return "Ip6Addr: leading hex digit expected";
        }
        ++at_;
        if (!atChar(':')) {
            return "Ip6Addr: ':' expected";
        }
        return readGap();
    }

    // At the second colon of "::".
    constexpr const char* readGap() {
        if (hasGap_) {
            return "Ip6Addr: only one '::' allowed";
        }
        ++at_;
        if (atChar(':')) {
            return "Ip6Addr: too many colons";
        }
        hasGap_ = true;
        into_ = tail_ + 16;
        --room_;
        done_ = room_ == 0 || !atHexDigit();
        return nullptr;
    }

    // At a hexadecimal digit.
    constexpr const char* readGroup() {
        const char* const begin = at_;
        uint32_t group = 0;
        at_ = readHexGroup(at_, end_, &group);
        if (atChar('.') && (hasGap_ || into_ != head_) && room_ >= 2) {
            return readQuad(begin);
        }
        if (atHexDigit()) {
            return "Ip6Addr: too many consecutive hex digits";
        }
        storeNet(into_, static_cast<uint16_t>(group));
        into_ += 2;
        done_ = --room_ == 0;
        return nullptr;
    }

    // At the first octet of the last 32 bits, which began like a group.
    constexpr const char* readQuad(const char* begin) {
        Mox::TextCursor quad(begin, end_);
        if (const char* error = ip6DottedFaultText(readDottedQuad<3>(quad, into_))) {
            return error;
        }
        at_ = quad.at();
        into_ += 4;
        room_ -= 2;
        done_ = true;
        return room_ == 0 || hasGap_ ? nullptr : "Ip6Addr: incomplete ipv6 address";
    }

    // After a group that is not the last possible one.
    constexpr const char* readColons() {
        if (!atChar(':')) {
            done_ = hasGap_;
            if (done_) {
                return nullptr;
            }
            return at_ == end_ ? "Ip6Addr: incomplete ipv6 address" : "Ip6Addr: ':' expected";
        }
        ++at_;
        if (atHexDigit()) {
            return nullptr;
        }
        return atChar(':') ? readGap() : "Ip6Addr: hex digit expected";
    }

    const char* at_;
    const char* end_;
    // The groups before "::" are written to their final place. Those after it are written after
    // sixteen zeros, so that the last sixteen bytes written are the end of the address.
    uint8_t head_[16] = {};
    uint8_t tail_[32] = {};
    uint8_t* into_ = head_;
    int room_ = 8;  // Groups that may still follow; "::" replaces at least one.
    bool hasGap_ = false;
    bool done_ = false;
};

/// Reads an address as the comment of `Ip6Addr` says, character by character. Returns null or the
/// text of the error; then `*address` is unchanged.
constexpr const char* readPlainIp6Text(Mox::TextCursor& in, Ip6Addr* address) {
    Ip6TextReader reader(in.at(), in.end());
    const char* const error = reader.read();
    if (error == nullptr) {
        *address = reader.address();
        in.atIs(reader.at());
    }
    return error;
}

/// As `readPlainIp6Text`, and as fast as it goes at run time.
constexpr const char* readIp6Text(Mox::TextCursor& in, Ip6Addr* address) {
    return std::is_constant_evaluated() ? readPlainIp6Text(in, address) : address->parse(in);
}

/// Reads an address, "/" and a length of at most 128. Returns null or the text of the error.
constexpr const char* readIp6TextAndLength(Mox::TextCursor& in, Ip6Addr* address, uint32_t* len) {
    if (const char* error = readIp6Text(in, address)) {
        return error;
    }
    const LengthFault fault = readLengthSuffix(in, len);
    if (fault == LengthFault::missing) {
        return Ip6AddrWithMask::invalidText;
    }
    const bool tooLong = fault == LengthFault::tooLarge || *len > 128;
    return tooLong ? "Ip6AddrWithMask: prefix too long" : nullptr;
}

}  // namespace Pavo
