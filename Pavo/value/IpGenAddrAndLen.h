/// @file
/// An address of either family with a length in bits: the common part of the generic prefixes and
/// of the generic address with mask.
#pragma once

#include <cstdint>

#include "Mox/Lifetime.h"
#include "Mox/ValueType.h"

#include "Pavo/value/Ip6Addr.h"
#include "Pavo/value/IpAddr.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

/// Family, address and length. The address is held as in `IpGenAddr`: sixteen bytes, of which IPv4
/// uses the first four. Log, hash and size are the same for all types on this base; order, text and
/// what a length may be are theirs. `T` derives from this and has a `typeName`.
///
/// Predicates on the address are those of `IpGenAddr`, false for a family that has none.
template <class T>
class IpGenAddrAndLen : public Mox::ValueType<T> {
  public:
    /// `ipunknown` until an address is given.
    constexpr AddressFamily af() const { return af_; }
    /// The sixteen bytes that hold the address.
    constexpr const Ip6Addr& address() const MOX_LIFETIME_BOUND { return address_; }
    /// In bits.
    constexpr uint32_t len() const { return len_; }

    /// Family and address.
    constexpr IpGenAddr ipGenAddr() const { return IpGenAddr(af_, address_); }
    /// The IPv4 address, or 0.0.0.0 when the family is another.
    constexpr IpAddr v4Addr() const { return ipGenAddr().v4Addr(); }
    /// The IPv6 address, or :: when the family is another.
    constexpr Ip6Addr v6Addr() const { return ipGenAddr().v6Addr(); }

    /// The length is that of an address: 32 for IPv4, 128 for IPv6.
    constexpr bool isHost() const { return af_ != ipunknown && len_ == addressBits(af_); }
    /// The length is at most that of an address, and no bit of the address is set past it.
    constexpr bool validAsPrefix() const {
        return len_ <= addressBits(af_) && address_ == address_.ip6AddrMaskedByLength(len_);
    }
    /// `address` is of the same family and agrees with this one in the first `len` bits; in all of
    /// them when it has no more. Nothing contains an address of an unknown family.
    constexpr bool contains(const IpGenAddr& address) const {
        return af_ != ipunknown && af_ == address.af() &&
               address_.ip6AddrMaskedByLength(len_) ==
                   address.address().ip6AddrMaskedByLength(len_);
    }
    /// All addresses of `other` lie in this network.
    constexpr bool contains(const T& other) const {
        return len_ <= other.len() && contains(other.ipGenAddr());
    }
    /// Either contains the other's address.
    constexpr bool overlaps(const T& other) const {
        return contains(other.ipGenAddr()) || other.contains(ipGenAddr());
    }

    /// IPv4 only; `routable` as in `IpAddr::isReserved`.
    bool isReserved(bool routable) const { return ipGenAddr().isReserved(routable); }
    /// The predicate of `IpGenAddr` for the address, whatever the length.
    /// @{
    constexpr bool isMulticast() const { return ipGenAddr().isMulticast(); }
    constexpr bool isLoopback() const { return ipGenAddr().isLoopback(); }
    constexpr bool isLinkLocal() const { return ipGenAddr().isLinkLocal(); }
    /// @}
    /// IPv6 only.
    constexpr bool isRoutableMulticast() const { return ipGenAddr().isRoutableMulticast(); }
    /// The :: of IPv6.
    constexpr bool isUnspecified() const { return ipGenAddr().isUnspecified(); }

    friend constexpr bool operator==(const T& a, const T& b) {
        return a.af() == b.af() && a.address() == b.address() && a.len() == b.len();
    }

    static constexpr auto description() {
        return Mox::record(T::typeName, Mox::field<T, AddressFamily>("af", &IpGenAddrAndLen::af_),
                           Mox::field<T, Ip6Addr>("address", &IpGenAddrAndLen::address_),
                           Mox::field<T, uint32_t>("len", &IpGenAddrAndLen::len_));
    }
    // Any length is valid.
    constexpr const char* check() const {
        return IpGenAddr::isAddress(af_, address_) ? nullptr : IpGenAddr::invalidText;
    }

  protected:
    constexpr IpGenAddrAndLen() = default;
    /// Checks nothing.
    constexpr IpGenAddrAndLen(const IpGenAddr& address, uint32_t len)
        : af_(address.af()), address_(address.address()), len_(len) {}

    /// The address, "/" and the length.
    void printAddressAndLength(Mox::TextWriter& out) const {
        ipGenAddr().print(out);
        out.put('/');
        out.decimal(len_);
    }

    AddressFamily af_ = ipunknown;
    Ip6Addr address_;
    uint32_t len_ = 0;
};

}  // namespace Pavo
