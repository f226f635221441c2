/// @file
/// The small numbers of IPv6 addresses: the index of a byte, the length of a prefix.
#pragma once

#include <cstdint>

#include "Pavo/base/Ordinal.h"

namespace Pavo {

/// The index of a byte in an `Ip6Addr`, 0 to 15.
class Ip6AddrU8Key : public Ordinal<Ip6AddrU8Key, uint8_t, 15> {
  public:
    using Ordinal::Ordinal;

    static constexpr const char* typeName = "Pavo::Ip6AddrU8Key";
    static constexpr const char* rangeText = "Ip6AddrU8Key::value < 0 or > 15 not allowed";
};

/// A prefix length in bits, 0 to 128, or 129 where a mask has none.
class Ip6PrefixLen : public Ordinal<Ip6PrefixLen, uint8_t, 129> {
  public:
    using Ordinal::Ordinal;

    /// The length of the prefix of all addresses.
    static constexpr uint8_t min = 0;
    /// The length of a host prefix.
    static constexpr uint8_t max = 128;
    /// The mask is not ones followed by zeros.
    static constexpr uint8_t invalid = 129;

    static constexpr const char* typeName = "Pavo::Ip6PrefixLen";
    static constexpr const char* rangeText =
        "Ip6PrefixLen::value < Ip6PrefixLen::min or > Ip6PrefixLen::invalid not allowed";
};
static_assert(sizeof(Ip6PrefixLen) == 1);

}  // namespace Pavo
