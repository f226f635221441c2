#include "Pavo/value/Ip6Addr.h"

#include <array>
#include <cstring>
#include <string_view>

#include "Pavo/value/EthAddr.h"
#include "Pavo/value/Ip6Text.h"
#include "Pavo/value/IpText.h"
#include "Pavo/value/QuickText.h"

namespace Pavo {

namespace {

constexpr const char* notExpandedText = "Ip6Addr: address is not expanded";

// The groups that "::" replaces: the leftmost longest run of two or more zero groups.
struct Run {
    uint8_t start;
    uint8_t length;
};

// By a bit mask of the zero groups, the first group in bit 0.
constexpr auto zeroRuns = [] {
    std::array<Run, 256> runs{};
    for (unsigned mask = 0; mask < 256; ++mask) {
        Run best{8, 1};
        for (uint8_t start = 0; start < 8; ++start) {
            uint8_t length = 0;
            while (start + length < 8 && (mask >> (start + length) & 1) != 0) {
                ++length;
            }
            if (length > best.length) {
                best = {start, length};
            }
        }
        runs[mask] = best;
    }
    return runs;
}();

// Writes the group without leading zeros and returns its end. Four characters are overwritten.
char* groupAt(char* at, uint16_t group) {
    // The digits are put together in a register: a load from bytes just stored would have to wait.
    static_assert(std::endian::native == std::endian::little);
    uint16_t high = 0;
    uint16_t low = 0;
    std::memcpy(&high, &Mox::hexPairs[2u * (group >> 8)], 2);
    std::memcpy(&low, &Mox::hexPairs[2u * (group & 0xff)], 2);
    const int zeros = std::countl_zero(static_cast<uint16_t>(group | 1)) / 4;
    const uint32_t digits = (high | static_cast<uint32_t>(low) << 16) >> (8 * zeros);
    std::memcpy(at, &digits, 4);
    return at + (4 - zeros);
}

char* groupsAt(char* at, const Ip6Addr& address, unsigned first, unsigned last) {
    for (unsigned i = first; i < last; ++i) {
        at = groupAt(at, address.u16(i));
        *at++ = ':';
    }
    return at;
}

}  // namespace

EthAddr Ip6Addr::mcastEtherAddress() const {
    return EthAddr(0x3333, u16(6), u16(7));
}

Ip6Addr Ip6Addr::validLlUnicastAddress() const {
    if (!isLinkLocalUnicast2()) {
        Mox::throwRangeException("Not an address that belongs to subnet fe80::/10");
    }
    return Ip6Addr(0xfe80000000000000, low());
}

void Ip6Addr::stringValueExpandedIs(const Mox::String& text) {
    if (text.bytes() != 39) {
        Mox::throwRangeException(notExpandedText);
    }
    Ip6Addr fresh;
    for (unsigned i = 0; i < 8; ++i) {
        const char* const group = text.begin() + 5 * i;
        uint32_t value = 0;
        if (readHexGroup(group, text.end(), &value) != group + 4 || (i < 7 && group[4] != ':')) {
            Mox::throwRangeException(notExpandedText);
        }
        fresh.u16Is(i, static_cast<uint16_t>(value));
    }
    *this = fresh;
}

const char* Ip6Addr::parse(Mox::TextCursor& in) {
    uint64_t high = 0;
    uint64_t low = 0;
    if (const std::size_t length = quickIp6(in.at(), in.end(), &high, &low)) {
        *this = Ip6Addr(high, low);
        in.atIs(in.at() + length);
        return nullptr;
    }
    return readPlainIp6Text(in, this);
}

void Ip6Addr::print(Mox::TextWriter& out) const {
    out.bounded<39>([this](char* at) {
        if (isV4MappedV6()) {
            constexpr std::string_view mapped = "::ffff:";
            return dottedQuadAt(at + mapped.copy(at, mapped.size()), bytes_ + 12);
        }
        unsigned zeros = 0;
        for (unsigned i = 0; i < 8; ++i) {
            zeros |= static_cast<unsigned>(u16(i) == 0) << i;
        }
        const Run run = zeroRuns[zeros];
        if (run.start == 8) {
            at = groupsAt(at, *this, 0, 7);
            return groupAt(at, u16(7));
        }
        at = groupsAt(at, *this, 0, run.start);
        if (run.start == 0) {
            *at++ = ':';
        }
        *at++ = ':';
        const unsigned after = run.start + run.length;
        if (after == 8) {
            return at;
        }
        at = groupsAt(at, *this, after, 7);
        return groupAt(at, u16(7));
    });
}

uint32_t Ip6Addr::hash(uint32_t seed) const {
    return ValueType::hash(seed);
}

void sequenceToValue(Mox::String::IteratorConst& it, const Mox::String::IteratorConst& end,
                     Ip6Addr* value) {
    *value = Ip6Addr();
    *value = Ip6Addr(it, end);
}

Ip6Addr ip6LinkLocalFromMac(const EthAddr& mac) {
    return Ip6Addr(0xfe80, 0, 0, 0, mac.word(0) ^ 0x0200,
                   static_cast<uint16_t>((mac.word(1) & 0xff00) | 0xff),
                   static_cast<uint16_t>(0xfe00 | (mac.word(1) & 0xff)), mac.word(2));
}

const char* Ip6AddrWithMask::parse(Mox::TextCursor& in) {
    return readIp6TextAndLength(in, &address_, &len_);
}

const char* Ip6AddrWithFullMask::parse(Mox::TextCursor& in) {
    if (const char* error = address_.parse(in)) {
        return error;
    }
    if (atMaskLength(in, /*isIp6=*/true)) {
        uint32_t len = 0;
        if (readLengthSuffix(in, &len) != LengthFault::none || len > 128) {
            return invalidText;
        }
        mask_ = ip6AddrFromPrefixLen(len);
        return nullptr;
    }
    const bool atMask =
        in.take('/') && (in.peek() == ':' || Mox::TextCursor::hexValue(in.peek()) >= 0);
    return atMask ? mask_.parse(in) : invalidText;
}

void Ip6AddrWithFullMask::print(Mox::TextWriter& out) const {
    address_.print(out);
    out.put('/');
    if (hasPrefixRepr()) {
        out.decimal(prefixLen().value());
    } else {
        mask_.print(out);
    }
}

Ip6Addr Ip6Prefix::subnetHost(const Ip6Addr& host) const {
    if (!host.ip6AddrMaskedByLength(len_).isZero()) {
        Mox::throwRangeException("Host address is too long");
    }
    return Ip6Addr(address_.u64(0) | host.u64(0), address_.u64(1) | host.u64(1));
}

const char* Ip6Prefix::parse(Mox::TextCursor& in) {
    if (const char* error = readIp6TextAndLength(in, &address_, &len_)) {
        return error;
    }
    return validAsPrefix() ? nullptr : invalidText;
}

}  // namespace Pavo
