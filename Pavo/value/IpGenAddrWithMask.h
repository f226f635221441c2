/// @file
/// Addresses of either family with a mask length.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "Mox/ValueType.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/value/Ip6Addr.h"
#include "Pavo/value/IpAddr.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/IpGenAddrAndLen.h"

namespace Pavo {

/// An address of either family that keeps its host bits, with a mask length; any length is stored
/// as given. Ordered by family, then as `IpAddrWithMask` and `Ip6AddrWithMask` are.
///
/// Text is the family's own form, and for an unknown family that of IPv6. The first ":" or "." in
/// the text decides the family; a "/" before either, or neither, is "Invalid prefix". All other
/// errors, also for text after the length, have the texts of the family's type.
class IpGenAddrWithMask : public IpGenAddrAndLen<IpGenAddrWithMask> {
  public:
    constexpr IpGenAddrWithMask() = default;
    /// Address and length as they are; none is checked.
    /// @{
    constexpr IpGenAddrWithMask(const IpAddrWithMask& value)
        : IpGenAddrWithMask(value.address(), value.len()) {}
    constexpr IpGenAddrWithMask(const Ip6AddrWithMask& value)
        : IpGenAddrWithMask(value.address(), value.len()) {}
    constexpr IpGenAddrWithMask(const IpAddr& address, uint32_t len)
        : IpGenAddrAndLen(address, len) {}
    constexpr IpGenAddrWithMask(const Ip6Addr& address, uint32_t len)
        : IpGenAddrAndLen(address, len) {}
    constexpr IpGenAddrWithMask(const IpGenAddr& address, uint32_t len)
        : IpGenAddrAndLen(address, len) {}
    /// @}
    /// With the length of a host: 32 or 128, and 0 for an unknown family.
    constexpr explicit IpGenAddrWithMask(const IpGenAddr& address)
        : IpGenAddrAndLen(address, addressBits(address.af())) {}
    /// @throws Mox::RangeException "Invalid prefix", or a text of the family's type
    IpGenAddrWithMask(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit IpGenAddrWithMask(std::string_view text) { readWhole(text); }
    /// @throws Mox::RangeException "Invalid AddressFamily"; "Invalid IpGenAddr" for bytes that the
    /// family has no use for and that are not zero
    IpGenAddrWithMask(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The IPv4 value, or 0.0.0.0/0 when the family is another.
    constexpr IpAddrWithMask v4AddrWithMask() const {
        return af_ == ipv4 ? IpAddrWithMask(v4Addr(), len_) : IpAddrWithMask();
    }
    /// The IPv6 value, or ::/0 when the family is another.
    constexpr Ip6AddrWithMask v6AddrWithMask() const {
        return af_ == ipv6 ? Ip6AddrWithMask(address_, len_) : Ip6AddrWithMask();
    }

    /// Not the default value.
    constexpr explicit operator bool() const { return *this != IpGenAddrWithMask(); }

    friend constexpr std::strong_ordering operator<=>(const IpGenAddrWithMask& a,
                                                      const IpGenAddrWithMask& b) {
        if (a.af_ != b.af_) {
            return a.af_ <=> b.af_;
        }
        return a.af_ == ipv4
                   ? a.v4AddrWithMask() <=> b.v4AddrWithMask()
                   : Ip6AddrWithMask(a.address_, a.len_) <=> Ip6AddrWithMask(b.address_, b.len_);
    }

    static constexpr const char* typeName = "Pavo::IpGenAddrWithMask";
    static constexpr const char* invalidText = "Invalid prefix";
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    void print(Mox::TextWriter& out) const { printAddressAndLength(out); }
    constexpr const char* leftoverText() const {
        return af_ == ipv4 ? IpAddrWithMask::invalidText : Ip6AddrWithMask::invalidText;
    }
};
static_assert(std::is_trivially_copyable_v<IpGenAddrWithMask> && sizeof(IpGenAddrWithMask) == 24);

}  // namespace Pavo
