/// @file
/// Addresses of either family.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "Mox/Enum.h"
#include "Mox/Lifetime.h"
#include "Mox/ValueType.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/value/Ip6Addr.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

/// The numbers are Pavo's own, not AF_INET and AF_INET6; they are those of the log.
enum AddressFamily : uint32_t { ipunknown = 0, ipv4 = 1, ipv6 = 2 };

constexpr auto enumDescription(AddressFamily) {
    return Mox::enumeration<AddressFamily>(
        "Invalid AddressFamily", {{ipunknown, "ipunknown"}, {ipv4, "ipv4"}, {ipv6, "ipv6"}});
}

/// @throws Mox::RangeException "Invalid AddressFamily"
PAVO_EXPORT AddressFamily AddressFamilyInstance(uint32_t value);
/// @throws Mox::RangeException "Invalid AddressFamily"
PAVO_EXPORT AddressFamily AddressFamilyInstance(const Mox::String& name);

/// The bits of an address of the family: 32, 128, or 0 for an unknown one.
constexpr uint32_t addressBits(AddressFamily af) {
    return af == ipv4 ? 32 : af == ipv6 ? 128 : 0;
}

/// The family of the text at the cursor: IPv6 when its first ":" is before any "." and "/", IPv4
/// when its first "." is, else unknown.
PAVO_EXPORT AddressFamily detectedFamily(const Mox::TextCursor& in);

/// An IPv4 or an IPv6 address, or none yet (`ipunknown`). Sixteen bytes hold it: those of the IPv6
/// address, or the four of the IPv4 address and zeros. Ordered by family, then by the sixteen bytes
/// as a number.
///
/// Text is the family's own form, and "::" for an unknown one. The first ":" or "." in the text
/// decides the family; a "/" before either, or neither, is "Invalid IpGenAddr". All other errors,
/// also for text after the address, have the texts of the family's type.
class IpGenAddr : public Mox::ValueType<IpGenAddr> {
  public:
    constexpr IpGenAddr() = default;
    /// Family and address.
    constexpr IpGenAddr(const IpAddr& address) { handleV4Addr(address); }
    /// Family and address.
    constexpr IpGenAddr(const Ip6Addr& address) { handleV6Addr(address); }
    /// The zero address of a family.
    constexpr explicit IpGenAddr(AddressFamily af) : af_(af) {}
    /// From the sixteen bytes that hold the address.
    /// @throws Mox::RangeException "Invalid IpGenAddr" for bytes that the family has no use for and
    /// that are not zero
    constexpr IpGenAddr(AddressFamily af, const Ip6Addr& address) : af_(af), address_(address) {
        requireValid();
    }
    /// @throws Mox::RangeException "Invalid IpGenAddr", or a text of the family's type
    IpGenAddr(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit IpGenAddr(std::string_view text) { readWhole(text); }
    /// @throws Mox::RangeException "Invalid AddressFamily"; "Invalid IpGenAddr" for bytes that the
    /// family has no use for and that are not zero
    IpGenAddr(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// `ipunknown` until an address is given.
    constexpr AddressFamily af() const { return af_; }
    /// The sixteen bytes that hold the address.
    constexpr const Ip6Addr& address() const MOX_LIFETIME_BOUND { return address_; }
    /// No byte is set that the family has no use for.
    static constexpr bool isAddress(AddressFamily af, const Ip6Addr& address) {
        return address == address.ip6AddrMaskedByLength(addressBits(af));
    }
    /// The IPv4 address, or 0.0.0.0 when the family is another.
    constexpr IpAddr v4Addr() const { return af_ == ipv4 ? IpAddr(address_.u32(0)) : IpAddr(); }
    /// The IPv6 address, or :: when the family is another.
    constexpr Ip6Addr v6Addr() const { return af_ == ipv6 ? address_ : Ip6Addr(); }
    /// Sets family and address.
    constexpr void handleV4Addr(const IpAddr& address) {
        af_ = ipv4;
        address_ = Ip6Addr(uint64_t{address.value()} << 32, 0);
    }
    /// Sets family and address.
    constexpr void handleV6Addr(const Ip6Addr& address) {
        af_ = ipv6;
        address_ = address;
    }

    /// The number of bytes of an address: 4 for IPv4, else 16.
    constexpr uint32_t size() const { return af_ == ipv4 ? 4 : 16; }
    /// `size()` bytes in network order.
    PAVO_EXPORT Mox::Bytes bytes() const;
    /// Copies `size()` bytes in network order.
    PAVO_EXPORT void copyToBuffer(unsigned char* buffer) const;

    /// The IPv4 address inside a v4-mapped IPv6 one; for any other value an unknown one.
    PAVO_EXPORT static IpGenAddr getMappedV4Addr(const IpGenAddr& address);
    /// ::ffff:a.b.c.d for the IPv4 address a.b.c.d; for any other value an unknown one.
    PAVO_EXPORT static IpGenAddr getV4MappedV6Addr(const IpGenAddr& address);

    /// 0.0.0.0 of IPv4. The :: of IPv6 is "unspecified".
    constexpr bool isAny() const { return af_ == ipv4 && v4Addr().isAny(); }
    /// The :: of IPv6.
    constexpr bool isUnspecified() const { return af_ == ipv6 && address_.isUnspecified(); }
    /// The predicate of the family's type; false for an unknown family.
    /// @{
    constexpr bool isUnicast() const {
        return ofFamily(false, [](const auto& address) { return address.isUnicast(); });
    }
    constexpr bool isMulticast() const {
        return ofFamily(false, [](const auto& address) { return address.isMulticast(); });
    }
    constexpr bool isLinkLocalUnicast() const {
        return ofFamily(false, [](const auto& address) { return address.isLinkLocalUnicast(); });
    }
    constexpr bool isLoopback() const {
        return ofFamily(false, [](const auto& address) { return address.isLoopback(); });
    }
    constexpr bool isLoopbackBase() const {
        return ofFamily(false, [](const auto& address) { return address.isLoopbackBase(); });
    }
    /// @}
    /// IPv4 only; `routable` as in `IpAddr::isReserved`.
    PAVO_EXPORT bool isReserved(bool routable) const;
    /// The predicate of the family's type; false for an unknown family.
    constexpr bool isLinkLocal() const {
        return ofFamily(false, [](const auto& address) { return address.isLinkLocal(); });
    }
    /// IPv4 only.
    constexpr bool isThisNetwork() const { return af_ == ipv4 && v4Addr().isThisNetwork(); }
    /// IPv4 only.
    constexpr bool isBroadcast() const { return af_ == ipv4 && v4Addr().isBroadcast(); }
    /// 169.254.0.0/16.
    constexpr bool isV4LinkLocal() const { return af_ == ipv4 && isLinkLocal(); }
    /// As `Ip6Addr::isLinkLocal`.
    constexpr bool isV6LinkLocal() const { return af_ == ipv6 && isLinkLocal(); }
    /// 224.0.0.13 or ff02::d.
    constexpr bool isPimRouters() const {
        return ofFamily(false, [](const auto& address) { return address.isPimRouters(); });
    }
    /// 224.0.0.0/24, or IPv6 multicast of link-local scope.
    constexpr bool isLinkLocalMulticast() const {
        return af_ == ipv4 ? v4Addr().isReservedMulticast() : isMulticast() && isLinkLocal();
    }
    /// IPv6 only.
    constexpr bool isRoutableMulticast() const {
        return af_ == ipv6 && address_.isRoutableMulticast();
    }

    /// The MAC of the group, as the family makes it; zero for an unknown family.
    PAVO_EXPORT EthAddr mcastEtherAddress() const;
    /// The number of leading bits that both share; 0 for different or unknown families.
    PAVO_EXPORT uint32_t longestCommonPrefix(const IpGenAddr& other) const;

    friend constexpr auto operator<=>(const IpGenAddr&, const IpGenAddr&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::IpGenAddr", Mox::field("af", &IpGenAddr::af_),
                           Mox::field("address", &IpGenAddr::address_));
    }
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    void print(Mox::TextWriter& out) const {
        if (af_ == ipv4) {
            v4Addr().print(out);
        } else {
            address_.print(out);
        }
    }

    constexpr const char* check() const { return isAddress(af_, address_) ? nullptr : invalidText; }
    constexpr const char* leftoverText() const {
        return af_ == ipv4 ? IpAddr::invalidText : Ip6Addr::invalidText;
    }

  private:
    // `call(address)` with the address as its family's own type, or `none` for an unknown family.
    template <class Result, class Call>
    constexpr Result ofFamily(Result none, Call call) const {
        switch (af_) {
            case ipv4:
                return call(v4Addr());
            case ipv6:
                return call(address_);
            default:
                return none;
        }
    }

    AddressFamily af_ = ipunknown;
    Ip6Addr address_;
};
static_assert(std::is_trivially_copyable_v<IpGenAddr> && sizeof(IpGenAddr) == 20);

/// Reads the text of `FamilyValue`, a type of one family, into a generic `*value`. Returns null or
/// the text of the range error.
template <class FamilyValue, class T>
const char* parseAs(Mox::TextCursor& in, T* value) {
    FamilyValue read;
    const char* const error = read.parse(in);
    if (error == nullptr) {
        *value = read;
    }
    return error;
}

}  // namespace Pavo
