/// @file
/// Addresses of either family with a mask of any shape.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "Mox/ValueType.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/Ordinal.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/value/Ip6Addr.h"
#include "Pavo/value/IpAddr.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

/// An address of either family and a mask of the same family, which need not be contiguous. Both
/// are held as in `IpGenAddr`: sixteen bytes, of which IPv4 uses the first four. Ordered by family,
/// then by address, then by mask.
///
/// Text is that of `IpAddrWithFullMask` and `Ip6AddrWithFullMask`: 10.1.2.0/24 for 10.1.2.3 under a
/// contiguous mask, so the host bits of IPv4 are lost in it; 10.1.2.3/255.0.255.0 under any other;
/// fe80::1/64; "::/0" for an unknown family. The mask is read as a length or as an address. Errors
/// are
/// - "Invalid IPv4/IPv6 address": neither ":" nor "." comes before the "/"
/// - "Invalid IPv4 address", "Invalid IPv6 address"
/// - "premature end of Prefix type": nothing after the address, or nothing after the "/"
/// - "Invalid IPv4 mask", "Invalid IPv6 mask", also for text after the mask
/// - "Invalid IPv4 prefix length", "Invalid IPv6 prefix": a length above 32 or 128
class IpGenAddrWithFullMask : public Mox::ValueType<IpGenAddrWithFullMask> {
  public:
    /// The length of a mask in bits, 0 to 128, or 129 where it has none.
    class PrefixLen : public Ordinal<PrefixLen, uint8_t, 129> {
      public:
        using Ordinal::Ordinal;

        /// The mask is not ones followed by zeros.
        static constexpr uint8_t invalid = 129;

        static constexpr const char* typeName = "Pavo::IpGenAddrWithFullMask::PrefixLen";
        static constexpr const char* invalidText = "Invalid PrefixLen";
        static constexpr const char* rangeText =
            "PrefixLen::value < PrefixLen::invalid or > PrefixLen::max not allowed";
    };

    constexpr IpGenAddrWithFullMask() = default;
    /// Any mask, in the shape of an address of the same family.
    constexpr IpGenAddrWithFullMask(const IpAddr& address, const IpAddr& mask)
        : IpGenAddrWithFullMask(ipv4, IpGenAddr(address).address(), IpGenAddr(mask).address()) {}
    /// Any mask, in the shape of an address of the same family.
    constexpr IpGenAddrWithFullMask(const Ip6Addr& address, const Ip6Addr& mask)
        : IpGenAddrWithFullMask(ipv6, address, mask) {}
    /// @throws Mox::RangeException "Invalid IPv4 prefix length" above 32
    constexpr IpGenAddrWithFullMask(const IpAddr& address, uint32_t len)
        : IpGenAddrWithFullMask(ipv4, IpGenAddr(address).address(), maskOfLength(ipv4, len)) {}
    /// @throws Mox::RangeException "Invalid IPv6 prefix" above 128
    constexpr IpGenAddrWithFullMask(const Ip6Addr& address, uint32_t len)
        : IpGenAddrWithFullMask(ipv6, address, maskOfLength(ipv6, len)) {}
    /// @throws Mox::RangeException with one of the texts above
    IpGenAddrWithFullMask(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit IpGenAddrWithFullMask(std::string_view text) { readWhole(text); }
    /// @throws Mox::RangeException "Invalid AddressFamily"; "Invalid IpGenAddr" for bytes that the
    /// family has no use for and that are not zero
    IpGenAddrWithFullMask(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// `ipunknown` until an address is given.
    constexpr AddressFamily af() const { return af_; }
    /// As it was given, bits outside the mask included.
    constexpr IpGenAddr ipGenAddr() const { return IpGenAddr(af_, address_); }
    /// The mask, in the shape of an address.
    constexpr IpGenAddr mask() const { return IpGenAddr(af_, mask_); }
    /// The IPv4 value, or 0.0.0.0 with the mask 0 when the family is another.
    constexpr IpAddrWithFullMask v4AddrWithFullMask() const {
        return IpAddrWithFullMask(ipGenAddr().v4Addr(), mask().v4Addr().value());
    }
    /// The IPv6 value, or :: with the mask :: when the family is another.
    constexpr Ip6AddrWithFullMask v6AddrWithFullMask() const {
        return Ip6AddrWithFullMask(ipGenAddr().v6Addr(), mask().v6Addr());
    }

    /// The mask is ones followed by zeros, and no bit of the address is set where it has a zero.
    constexpr bool validAsPrefix() const {
        return prefixLen() != PrefixLen::invalid && masked(address_) == address_;
    }
    /// The number of leading ones of the mask; `PrefixLen::invalid`, 129, when a one comes after a
    /// zero.
    constexpr PrefixLen prefixLen() const { return ip6AddrToPrefixLen(mask_); }
    /// All bits of the mask are ones.
    constexpr bool isHost() const { return af_ != ipunknown && prefixLen() == addressBits(af_); }
    /// `address` is of the same family and agrees with this one where the mask has ones. Nothing
    /// contains an address of an unknown family.
    constexpr bool contains(const IpGenAddr& address) const {
        return af_ != ipunknown && af_ == address.af() &&
               masked(address.address()) == masked(address_);
    }
    /// Not the default value.
    constexpr explicit operator bool() const { return *this != IpGenAddrWithFullMask(); }

    friend constexpr auto operator<=>(const IpGenAddrWithFullMask&,
                                      const IpGenAddrWithFullMask&) = default;

    static constexpr const char* invalidText = "Invalid IPv4/IPv6 address";
    static constexpr auto description() {
        return Mox::record("Pavo::IpGenAddrWithFullMask",
                           Mox::field("af", &IpGenAddrWithFullMask::af_),
                           Mox::field("address", &IpGenAddrWithFullMask::address_),
                           Mox::field("mask", &IpGenAddrWithFullMask::mask_));
    }
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    PAVO_EXPORT void print(Mox::TextWriter& out) const;
    constexpr const char* check() const {
        const bool fits = IpGenAddr::isAddress(af_, address_) && IpGenAddr::isAddress(af_, mask_);
        return fits ? nullptr : IpGenAddr::invalidText;
    }
    constexpr const char* leftoverText() const { return maskText(af_); }

  private:
    constexpr IpGenAddrWithFullMask(AddressFamily af, const Ip6Addr& address, const Ip6Addr& mask)
        : af_(af), address_(address), mask_(mask) {}

    static constexpr const char* maskText(AddressFamily af) {
        return af == ipv4 ? "Invalid IPv4 mask" : "Invalid IPv6 mask";
    }
    static constexpr const char* longLengthText(AddressFamily af) {
        return af == ipv4 ? "Invalid IPv4 prefix length" : "Invalid IPv6 prefix";
    }
    static constexpr Ip6Addr maskOfLength(AddressFamily af, uint32_t len) {
        if (len > addressBits(af)) {
            Mox::throwRangeException(longLengthText(af));
        }
        return ip6AddrFromPrefixLen(len);
    }
    constexpr Ip6Addr masked(const Ip6Addr& address) const {
        return Ip6Addr(address.u64(0) & mask_.u64(0), address.u64(1) & mask_.u64(1));
    }

    template <class Address>
    const char* parseParts(Mox::TextCursor& in, const char* addressError);

    AddressFamily af_ = ipunknown;
    Ip6Addr address_;
    Ip6Addr mask_;
};
static_assert(std::is_trivially_copyable_v<IpGenAddrWithFullMask> &&
              sizeof(IpGenAddrWithFullMask) == 36 && sizeof(IpGenAddrWithFullMask::PrefixLen) == 1);

}  // namespace Pavo
