/// @file
/// IPv6 addresses, addresses with masks, and prefixes.
#pragma once

#include <bit>
#include <compare>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "Mox/Lifetime.h"
#include "Mox/ValueType.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/IntMix.h"
#include "Pavo/base/NetOrder.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/value/Ip6Numbers.h"
#include "Pavo/value/PrefixOps.h"

namespace Pavo {

class EthAddr;

/// An IPv6 address: sixteen bytes in network order, so that the value may lie over a packet. Slices
/// of 8 to 64 bits are numbers in host order, and the order is that of the 128-bit number.
///
/// Text is that of RFC 5952: lowercase, without leading zeros, the leftmost longest run of two or
/// more zero groups as "::". A v4-mapped address ends in a dotted quad (::ffff:10.1.2.3), no other
/// does. Read are one to four digits a group, of either case, and a dotted quad for the last 32
/// bits of any address; its octets have one to three digits. Reading stops after the eighth group,
/// or where "::" leaves no room for another one. The first fault from the left is reported, as one
/// of
/// - "Ip6Addr: leading hex digit expected": neither a digit nor "::" at the start
/// - "Ip6Addr: hex digit expected": no digit after a ":"
/// - "Ip6Addr: too many consecutive hex digits": a fifth digit in a group
/// - "Ip6Addr: ':' expected": after a group, or after a single ":" at the start
/// - "Ip6Addr: too many colons": a third ":" in a row
/// - "Ip6Addr: only one '::' allowed"
/// - "Ip6Addr: incomplete ipv6 address": the text ends after fewer than eight groups without "::"
/// - in the dotted quad "Ip6Addr: decimal digit expected", "Ip6Addr: too many consecutive decimal
///   digits", "Ip6Addr: decimal value too large", "Ip6Addr: expected '.'"
/// - "Ip6Addr: unexpected trailing characters": more text where all of it was to be read
class Ip6Addr : public Mox::ValueType<Ip6Addr> {
  public:
    constexpr Ip6Addr() = default;
    /// The two halves, in host order.
    constexpr Ip6Addr(uint64_t high, uint64_t low) {
        storeNet(bytes_, high);
        storeNet(bytes_ + 8, low);
    }
    /// The eight groups, as text shows them.
    constexpr Ip6Addr(uint16_t group0, uint16_t group1, uint16_t group2, uint16_t group3,
                      uint16_t group4, uint16_t group5, uint16_t group6, uint16_t group7) {
        const uint16_t groups[] = {group0, group1, group2, group3, group4, group5, group6, group7};
        for (int i = 0; i < 8; ++i) {
            storeNet(bytes_ + 2 * i, groups[i]);
        }
    }
    /// @throws Mox::RangeException with one of the texts above
    Ip6Addr(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit Ip6Addr(std::string_view text) { readWhole(text); }
    Ip6Addr(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    // Slices: bytes 0 to 15, groups 0 to 7, 32-bit words 0 to 3, halves 0 to 1. They are numbers in
    // host order; `Del` zeroes one. Another index throws Mox::RangeException with the name of the
    // function, as "Ip6Addr::u16Is: index out of range".

    /// Byte `i`, 0 to 15.
    constexpr uint8_t u8(unsigned i) const {
        return slice<uint8_t>(i, "Ip6Addr::u8: index out of range");
    }
    constexpr void u8Is(unsigned i, uint8_t value) {
        sliceIs(i, value, "Ip6Addr::u8Is: index out of range");
    }
    constexpr void u8Del(unsigned i) {
        sliceIs(i, uint8_t{0}, "Ip6Addr::u8Del: index out of range");
    }

    /// Group `i`, 0 to 7.
    constexpr uint16_t u16(unsigned i) const {
        return slice<uint16_t>(i, "Ip6Addr::u16: index out of range");
    }
    constexpr void u16Is(unsigned i, uint16_t value) {
        sliceIs(i, value, "Ip6Addr::u16Is: index out of range");
    }
    constexpr void u16Del(unsigned i) {
        sliceIs(i, uint16_t{0}, "Ip6Addr::u16Del: index out of range");
    }

    /// 32-bit word `i`, 0 to 3.
    constexpr uint32_t u32(unsigned i) const {
        return slice<uint32_t>(i, "Ip6Addr::u32: index out of range");
    }
    constexpr void u32Is(unsigned i, uint32_t value) {
        sliceIs(i, value, "Ip6Addr::u32Is: index out of range");
    }
    constexpr void u32Del(unsigned i) {
        sliceIs(i, uint32_t{0}, "Ip6Addr::u32Del: index out of range");
    }

    /// Half `i`, 0 to 1.
    constexpr uint64_t u64(unsigned i) const {
        return slice<uint64_t>(i, "Ip6Addr::u64: index out of range");
    }
    constexpr void u64Is(unsigned i, uint64_t value) {
        sliceIs(i, value, "Ip6Addr::u64Is: index out of range");
    }
    constexpr void u64Del(unsigned i) {
        sliceIs(i, uint64_t{0}, "Ip6Addr::u64Del: index out of range");
    }

    /// Copies the sixteen bytes in network order.
    void copyToBuffer(unsigned char* buffer) const { std::memcpy(buffer, bytes_, sizeof(bytes_)); }
    /// Reads the sixteen bytes in network order.
    void copyFromBuffer(const unsigned char* buffer) {
        std::memcpy(bytes_, buffer, sizeof(bytes_));
    }

    /// ::.
    constexpr bool isZero() const { return (high() | low()) == 0; }
    /// :: (RFC 4291, 2.5.2).
    constexpr bool isUnspecified() const { return isZero(); }
    /// ::1 (RFC 4291, 2.5.3).
    constexpr bool isLoopback() const { return high() == 0 && low() == 1; }
    /// Always false: the loopback network of IPv6 has one address.
    constexpr bool isLoopbackBase() const { return false; }
    /// ff00::/8 (RFC 4291, 2.7).
    constexpr bool isMulticast() const { return bytes_[0] == 0xff; }
    /// Not multicast.
    constexpr bool isUnicast() const { return !isMulticast(); }
    /// fe80::/64, the only link-local addresses in use (RFC 4291, 2.5.6).
    constexpr bool isLinkLocalUnicast() const { return high() == 0xfe80000000000000; }
    /// fe80::/10, the whole range reserved for link-local addresses (RFC 4291, 2.4).
    constexpr bool isLinkLocalUnicast2() const { return high() >> 54 == 0x3fa; }
    /// fe80::/64, or multicast of link-local scope (RFC 4291, 2.7).
    constexpr bool isLinkLocal() const {
        return isLinkLocalUnicast() || (isMulticast() && scope() == 2);
    }
    /// None of multicast, unspecified, loopback and fe80::/10.
    constexpr bool isGlobalUnicast() const {
        return !isMulticast() && !isUnspecified() && !isLoopback() && !isLinkLocalUnicast2();
    }
    /// ff02::d.
    constexpr bool isPimRouters() const { return high() == 0xff02000000000000 && low() == 0xd; }
    /// Multicast of scope 4 (admin-local) or wider (RFC 7346, 2).
    constexpr bool isRoutableMulticast() const { return isMulticast() && (scope() & 0xc) != 0; }
    /// ::ffff:0:0/96 (RFC 4291, 2.5.5.2).
    constexpr bool isV4MappedV6() const { return high() == 0 && low() >> 32 == 0xffff; }

    /// 33:33 and bytes 12 to 15 (RFC 2464, 7), for any address.
    PAVO_EXPORT EthAddr mcastEtherAddress() const;
    /// ff02::1:ff00:0 with the low 24 bits of the address (RFC 4291, 2.7.1).
    constexpr Ip6Addr solicitedNodeMulticastAddr() const {
        return Ip6Addr(0xff02000000000000, 0x1ff000000 | (low() & 0xffffff));
    }
    /// fe80:: with the low 64 bits of the address.
    /// @throws Mox::RangeException "Not an address that belongs to subnet fe80::/10"
    PAVO_EXPORT Ip6Addr validLlUnicastAddress() const;
    /// The address with every bit past the first `len` cleared; the address itself from 128 on.
    constexpr Ip6Addr ip6AddrMaskedByLength(uint32_t len) const {
        return Ip6Addr(high() & mask64(len), low() & mask64(len < 64 ? 0 : len - 64));
    }
    /// The number of leading bits that both addresses share, 0 to 128.
    constexpr uint32_t longestCommonPrefix(const Ip6Addr& other) const {
        const int first = std::countl_zero(high() ^ other.high());
        return static_cast<uint32_t>(first < 64 ? first
                                                : 64 + std::countl_zero(low() ^ other.low()));
    }

    /// Reads the fully expanded form alone: eight groups of four digits joined by ":".
    /// @throws Mox::RangeException "Ip6Addr: address is not expanded"; the value is then unchanged.
    PAVO_EXPORT void stringValueExpandedIs(const Mox::String& text);

    /// The same in every process, on both word sizes.
    constexpr uint32_t hash() const {
        uint32_t sum = 0;
        for (unsigned i = 0; i < 16; i += 4) {
            sum = intMix(loadNet<uint32_t>(bytes_ + i) ^ sum);
        }
        return sum;
    }
    PAVO_EXPORT uint32_t hash(uint32_t seed) const;

    friend constexpr bool operator==(const Ip6Addr& a, const Ip6Addr& b) {
        return a.high() == b.high() && a.low() == b.low();
    }
    friend constexpr std::strong_ordering operator<=>(const Ip6Addr& a, const Ip6Addr& b) {
        return a.high() != b.high() ? a.high() <=> b.high() : a.low() <=> b.low();
    }

    static constexpr const char* invalidText = "Ip6Addr: unexpected trailing characters";
    static constexpr auto description() {
        return Mox::record("Pavo::Ip6Addr", Mox::field("bytes", &Ip6Addr::bytes_));
    }
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    PAVO_EXPORT void print(Mox::TextWriter& out) const;

  private:
    // The first `len` of 64 bits.
    static constexpr uint64_t mask64(uint32_t len) {
        return len == 0 ? 0 : ~uint64_t{0} << (len < 64 ? 64 - len : 0);
    }
    constexpr uint64_t high() const { return loadNet<uint64_t>(bytes_); }
    constexpr uint64_t low() const { return loadNet<uint64_t>(bytes_ + 8); }
    // The scope of a multicast address (RFC 4291, 2.7).
    constexpr unsigned scope() const { return bytes_[1] & 0xf; }

    template <class Word>
    constexpr Word slice(unsigned i, const char* error) const {
        if (i >= sizeof(bytes_) / sizeof(Word)) {
            Mox::throwRangeException(error);
        }
        return loadNet<Word>(bytes_ + i * sizeof(Word));
    }
    template <class Word>
    constexpr void sliceIs(unsigned i, Word value, const char* error) {
        if (i >= sizeof(bytes_) / sizeof(Word)) {
            Mox::throwRangeException(error);
        }
        storeNet(bytes_ + i * sizeof(Word), value);
    }

    uint8_t bytes_[16] = {};
};
static_assert(std::is_trivially_copyable_v<Ip6Addr> && sizeof(Ip6Addr) == 16 &&
              alignof(Ip6Addr) == 1);

/// Reads an address at `it` and moves `it` past it. The target is cleared first.
/// @throws Mox::RangeException with one of the texts above; `it` is then unchanged, the target
/// zero.
PAVO_EXPORT void sequenceToValue(Mox::String::IteratorConst& it,
                                 const Mox::String::IteratorConst& end, Ip6Addr* value);

/// fe80:: with the interface identifier made from the MAC: ff:fe in the middle and the
/// universal/local bit flipped (RFC 4291, appendix A).
PAVO_EXPORT Ip6Addr ip6LinkLocalFromMac(const EthAddr& mac);

/// The number of leading one bits when `mask` is ones followed by zeros, else 129.
constexpr uint32_t ip6AddrToPrefixLen(const Ip6Addr& mask) {
    const uint32_t ones = mask.longestCommonPrefix(Ip6Addr(~uint64_t{0}, ~uint64_t{0}));
    return mask == mask.ip6AddrMaskedByLength(ones) ? ones : 129;
}

/// The mask of `len` ones, at most 128, followed by zeros.
constexpr Ip6Addr ip6AddrFromPrefixLen(uint32_t len) {
    return Ip6Addr(~uint64_t{0}, ~uint64_t{0}).ip6AddrMaskedByLength(len);
}

inline constexpr Ip6Addr ip6AddrZero;            ///< ::, the unspecified address (RFC 4291, 2.5.2).
inline constexpr Ip6Addr ip6AddrLoopback(0, 1);  ///< ::1 (RFC 4291, 2.5.3).
/// ff02::1, all nodes of the link (RFC 4291, 2.7.1).
inline constexpr Ip6Addr ip6AddrAllNodes(0xff02, 0, 0, 0, 0, 0, 0, 1);
/// ff02::2, all routers of the link (RFC 4291, 2.7.1).
inline constexpr Ip6Addr ip6AddrAllRouters(0xff02, 0, 0, 0, 0, 0, 0, 2);
inline constexpr Ip6Addr ip6AddrAllHosts(0xff02, 0, 0, 0, 0, 0, 0, 3);  ///< ff02::3.
/// ff02::d (RFC 7761).
inline constexpr Ip6Addr ip6AddrPimRouters(0xff02, 0, 0, 0, 0, 0, 0, 0xd);
/// ff02::12 (RFC 5798, 5.1.2.2).
inline constexpr Ip6Addr ip6AddrVrrp(0xff02, 0, 0, 0, 0, 0, 0, 0x12);
/// ff02::16, to which reports of MLDv2 are sent (RFC 3810, 5.2.14).
inline constexpr Ip6Addr ip6AddrMld(0xff02, 0, 0, 0, 0, 0, 0, 0x16);
/// ff02::, the base of the multicast addresses of link-local scope.
inline constexpr Ip6Addr ip6AddrLinkLocalBase(0xff02, 0, 0, 0, 0, 0, 0, 0);
/// ::ffff:127.0.0.1.
inline constexpr Ip6Addr ip6AddrV4MappedLoopback(0, 0, 0, 0, 0, 0xffff, 0x7f00, 1);
/// ::ffff:127.0.0.0.
inline constexpr Ip6Addr ip6AddrV4MappedLoopbackBase(0, 0, 0, 0, 0, 0xffff, 0x7f00, 0);

/// An address with a length in bits: the common part of `Ip6AddrWithMask` and `Ip6Prefix`. Text is
/// the address, "/" and the length.
///
/// Where one of two lengths is shorter and its network contains the other's address, the longer
/// comes first, so that a network follows all addresses and networks in it; otherwise the addresses
/// decide. `T` derives from this and has a `typeName`.
template <class T>
class Ip6AddrAndLen : public Mox::ValueType<T> {
  public:
    /// As it was given, with its host bits where the type allows them.
    constexpr const Ip6Addr& address() const MOX_LIFETIME_BOUND { return address_; }
    /// In bits.
    constexpr uint32_t len() const { return len_; }

    /// No bit of the address is set past the length.
    /// @throws Mox::RangeException "len <= 128" for a longer one
    constexpr bool validAsPrefix() const {
        if (len_ > 128) {
            Mox::throwRangeException(longLengthText);
        }
        return address_ == address_.ip6AddrMaskedByLength(len_);
    }
    /// `address` agrees with this one in the first `len` bits; in all of them from 128 on.
    constexpr bool contains(const Ip6Addr& address) const {
        return address.ip6AddrMaskedByLength(len_) == address_.ip6AddrMaskedByLength(len_);
    }
    /// All addresses of `other` lie in this network.
    constexpr bool contains(const T& other) const {
        return len_ <= other.len() && contains(other.address());
    }
    /// Either contains the other's address.
    constexpr bool overlaps(const T& other) const {
        return contains(other.address()) || other.contains(address_);
    }

    friend constexpr bool operator==(const T& a, const T& b) {
        return a.address() == b.address() && a.len() == b.len();
    }
    friend constexpr std::strong_ordering operator<=>(const T& a, const T& b) {
        const bool nested = a.len() < b.len() ? a.contains(b.address()) : b.contains(a.address());
        return a.len() != b.len() && nested ? b.len() <=> a.len() : a.address() <=> b.address();
    }

    static constexpr auto description() {
        return Mox::record(T::typeName, Mox::field<T, Ip6Addr>("address", &Ip6AddrAndLen::address_),
                           Mox::field<T, uint32_t>("len", &Ip6AddrAndLen::len_));
    }
    void print(Mox::TextWriter& out) const {
        address_.print(out);
        out.put('/');
        out.decimal(len_);
    }

  protected:
    constexpr Ip6AddrAndLen() = default;
    constexpr Ip6AddrAndLen(const Ip6Addr& address, uint32_t len) : address_(address), len_(len) {}

    static constexpr const char* longLengthText = "len <= 128";

    Ip6Addr address_;
    uint32_t len_ = 0;
};

/// An address that keeps its host bits, with a mask length: any in parts, 0 to 128 in text.
class Ip6AddrWithMask : public Ip6AddrAndLen<Ip6AddrWithMask> {
  public:
    constexpr Ip6AddrWithMask() = default;
    constexpr Ip6AddrWithMask(const Ip6Addr& address, uint32_t len) : Ip6AddrAndLen(address, len) {}
    /// @throws Mox::RangeException with a text of `Ip6Addr`; "Ip6AddrWithMask: prefix size
    /// expected" without "/" and a digit; "Ip6AddrWithMask: prefix too long" above 128
    Ip6AddrWithMask(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit Ip6AddrWithMask(std::string_view text) { readWhole(text); }
    Ip6AddrWithMask(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The same without host bits.
    constexpr Ip6AddrWithMask subnet() const {
        return Ip6AddrWithMask(address_.ip6AddrMaskedByLength(len_), len_);
    }

    static constexpr const char* typeName = "Pavo::Ip6AddrWithMask";
    static constexpr const char* invalidText = "Ip6AddrWithMask: prefix size expected";
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
};
static_assert(std::is_trivially_copyable_v<Ip6AddrWithMask> && sizeof(Ip6AddrWithMask) == 20);

/// An address with any 128-bit mask, in the shape of an address; the mask need not be contiguous.
/// Ordered by address, then by mask.
///
/// Text is the address, "/" and the mask: 2001:db8::1/32 for a contiguous mask, and the mask as an
/// address for any other. Both forms of the mask are read.
class Ip6AddrWithFullMask : public Mox::ValueType<Ip6AddrWithFullMask> {
  public:
    constexpr Ip6AddrWithFullMask() = default;
    constexpr Ip6AddrWithFullMask(const Ip6Addr& address, const Ip6Addr& mask)
        : address_(address), mask_(mask) {}
    /// @throws Mox::RangeException with a text of `Ip6Addr`; "Ip6AddrWithFullMask: mask expected"
    /// without "/" and a digit or ":", and for a length above 128
    Ip6AddrWithFullMask(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit Ip6AddrWithFullMask(std::string_view text) { readWhole(text); }
    Ip6AddrWithFullMask(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// As it was given, bits outside the mask included.
    constexpr const Ip6Addr& address() const MOX_LIFETIME_BOUND { return address_; }
    /// Its one bits are those that count; they need not be contiguous.
    constexpr const Ip6Addr& mask() const MOX_LIFETIME_BOUND { return mask_; }

    /// The mask's length, `Ip6PrefixLen::invalid` when it is not ones followed by zeros.
    constexpr Ip6PrefixLen prefixLen() const { return ip6AddrToPrefixLen(mask_); }
    /// The mask is ones followed by zeros.
    constexpr bool hasPrefixRepr() const { return prefixLen() != Ip6PrefixLen::invalid; }

    friend constexpr auto operator<=>(const Ip6AddrWithFullMask&,
                                      const Ip6AddrWithFullMask&) = default;

    static constexpr const char* invalidText = "Ip6AddrWithFullMask: mask expected";
    static constexpr auto description() {
        return Mox::record("Pavo::Ip6AddrWithFullMask",
                           Mox::field("address", &Ip6AddrWithFullMask::address_),
                           Mox::field("mask", &Ip6AddrWithFullMask::mask_));
    }
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    PAVO_EXPORT void print(Mox::TextWriter& out) const;

  private:
    Ip6Addr address_;
    Ip6Addr mask_;
};
static_assert(std::is_trivially_copyable_v<Ip6AddrWithFullMask> &&
              sizeof(Ip6AddrWithFullMask) == 32);

/// A network: an address without host bits, and a length of at most 128.
class Ip6Prefix : public Ip6AddrAndLen<Ip6Prefix>, public PrefixOps<Ip6Prefix> {
  public:
    constexpr Ip6Prefix() = default;
    /// @throws Mox::RangeException "len <= 128", "Ip6Prefix::validAsPrefix != true not allowed"
    constexpr Ip6Prefix(const Ip6Addr& address, uint32_t len) : Ip6AddrAndLen(address, len) {
        requireValid();
    }
    /// @throws Mox::RangeException with a text of `Ip6AddrWithMask`, or "Invalid Prefix - non-zero
    /// after prefixlen"
    Ip6Prefix(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit Ip6Prefix(std::string_view text) { readWhole(text); }
    /// @throws Mox::RangeException "len <= 128", "Ip6Prefix::validAsPrefix != true not allowed"
    Ip6Prefix(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The prefix of the length `len` that `address` lies in: its host bits are cleared.
    /// @throws Mox::RangeException "len <= 128" above
    static constexpr Ip6Prefix containing(const Ip6Addr& address, uint32_t len) {
        return Ip6Prefix(address.ip6AddrMaskedByLength(len), len);
    }

    /// ::/0.
    constexpr bool isDefaultRoutePrefix() const { return len_ == 0 && address_.isZero(); }
    /// The length is 128.
    constexpr bool isHostRoutePrefix() const { return len_ == 128; }
    /// The default value, ::/0.
    constexpr bool isNullPrefix() const { return *this == Ip6Prefix(); }

    /// The prefix's address with the bits of `host`.
    /// @throws Mox::RangeException "Host address is too long" when `host` has a bit within the
    /// length
    PAVO_EXPORT Ip6Addr subnetHost(const Ip6Addr& host) const;

    static constexpr const char* typeName = "Pavo::Ip6Prefix";
    static constexpr const char* invalidText = "Invalid Prefix - non-zero after prefixlen";
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    constexpr const char* check() const {
        if (len_ > 128) {
            return longLengthText;
        }
        return validAsPrefix() ? nullptr : "Ip6Prefix::validAsPrefix != true not allowed";
    }
};
static_assert(std::is_trivially_copyable_v<Ip6Prefix> && sizeof(Ip6Prefix) == 20);

/// The range reserved for link-local addresses (RFC 4291, 2.4).
inline constexpr Ip6Prefix ip6LinkLocalPrefix(Ip6Addr(0xfe80, 0, 0, 0, 0, 0, 0, 0), 10);

}  // namespace Pavo
