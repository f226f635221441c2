/// @file
/// IPv4 addresses, addresses with masks, prefixes, and address with port.
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
#include "Pavo/value/IpText.h"
#include "Pavo/value/PrefixOps.h"

namespace Pavo {

class EthAddr;

/// An IPv4 address: four bytes in network order, so that the value may lie over a packet. Numbers
/// are in host order, first octet most significant, and so is the order.
///
/// Text is the dotted quad. Leading zeros are read as such, and never as octal: 010.0.0.1 is
/// 10.0.0.1. Reading stops after the fourth octet.
class IpAddr : public Mox::ValueType<IpAddr> {
  public:
    constexpr IpAddr() = default;
    /// IpAddr(0x0a000001) is 10.0.0.1.
    constexpr explicit IpAddr(uint32_t value) { valueIs(value); }
    /// @throws Mox::RangeException "Invalid IpAddr"
    IpAddr(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit IpAddr(std::string_view text) { readWhole(text); }
    IpAddr(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The address as a number in host order.
    constexpr uint32_t value() const { return loadNet<uint32_t>(bytes_); }
    constexpr void valueIs(uint32_t value) { storeNet(bytes_, value); }

    /// Copies the four bytes in network order, out of the value or into it.
    /// @{
    void copyToBuffer(unsigned char* buffer) const { std::memcpy(buffer, bytes_, sizeof(bytes_)); }
    void copyFromBuffer(const unsigned char* buffer) {
        std::memcpy(bytes_, buffer, sizeof(bytes_));
    }
    /// @}

    /// 0.0.0.0.
    constexpr bool isZero() const { return value() == 0; }
    /// 0.0.0.0.
    constexpr bool isAny() const { return isZero(); }
    /// 0.0.0.0/8 (RFC 1122, 3.2.1.3).
    constexpr bool isThisNetwork() const { return bytes_[0] == 0; }
    /// 127.0.0.0/8 (RFC 1122, 3.2.1.3).
    constexpr bool isLoopback() const { return bytes_[0] == 127; }
    /// 127.0.0.0.
    constexpr bool isLoopbackBase() const { return value() == 0x7f000000; }
    /// 224.0.0.0/4 (RFC 5771).
    constexpr bool isMulticast() const { return value() >> 28 == 0xe; }
    /// 224.0.0.0/24, which no router forwards (RFC 5771, 4).
    constexpr bool isReservedMulticast() const { return value() >> 8 == 0xe00000; }
    /// 224.0.0.13.
    constexpr bool isPimRouters() const { return value() == 0xe000000d; }
    /// 255.255.255.255.
    constexpr bool isBroadcast() const { return value() == 0xffffffff; }
    /// Neither multicast nor 255.255.255.255.
    constexpr bool isUnicast() const { return !isMulticast() && !isBroadcast(); }
    /// 169.254.0.0/16 (RFC 3927, 2.1).
    constexpr bool isLinkLocal() const { return value() >> 16 == 0xa9fe; }
    /// 169.254.0.0/16 (RFC 3927, 2.1).
    constexpr bool isLinkLocalUnicast() const { return isLinkLocal(); }
    /// All bits of 10.0.0.0, of 172.16.0.0 or of 192.168.0.0 are among the address's. The networks
    /// are tested against themselves, not against their netmasks: 11.0.0.1 and 255.255.255.255
    /// count as private too, on purpose.
    constexpr bool isPrivate() const {
        return hasBits(0x0a000000) || hasBits(0xac100000) || hasBits(0xc0a80000);
    }
    /// 240.0.0.0/4 without 255.255.255.255 (RFC 1112, 4). Nothing is reserved when both `routable`
    /// and the feature toggle "Ipv4Routable240ClassE" in "Pavo.json" are true; the toggle is on
    /// where the file does not say, and is asked once in the life of the process.
    PAVO_EXPORT bool isReserved(bool routable) const;

    /// 01:00:5e and the low 23 bits of the address (RFC 1112, 6.4), for any address.
    PAVO_EXPORT EthAddr mcastEtherAddress() const;
    /// The number of leading bits that both addresses share, 0 to 32.
    constexpr uint32_t longestCommonPrefix(const IpAddr& other) const {
        return static_cast<uint32_t>(std::countl_zero(value() ^ other.value()));
    }

    /// The address with every bit past the first `len` cleared; the address itself from 32 on.
    constexpr IpAddr ipAddrMaskedByLength(uint32_t len) const {
        return IpAddr(len == 0 ? 0 : value() & ~uint32_t{0} << (len < 32 ? 32 - len : 0));
    }

    /// The same in every process, on both word sizes. Read with the first octet least significant.
    constexpr uint32_t hash() const { return intMix(__builtin_bswap32(value())); }

    friend constexpr bool operator==(const IpAddr& a, const IpAddr& b) {
        return a.value() == b.value();
    }
    friend constexpr std::strong_ordering operator<=>(const IpAddr& a, const IpAddr& b) {
        return a.value() <=> b.value();
    }

    // In the log, the four bytes are one 32-bit number.
    static constexpr auto description() {
        return Mox::record("Pavo::IpAddr", Mox::field("bytes", &IpAddr::bytes_));
    }
    constexpr const char* parse(Mox::TextCursor& in) {
        if (!std::is_constant_evaluated()) {
            return parseAtRunTime(in);
        }
        return readDottedQuad(in, bytes_) == DottedFault::none ? nullptr : invalidText;
    }
    void print(Mox::TextWriter& out) const {
        out.bounded<dottedQuadChars>([this](char* at) { return dottedQuadAt(at, bytes_); });
    }

  private:
    PAVO_EXPORT const char* parseAtRunTime(Mox::TextCursor& in);
    constexpr bool hasBits(uint32_t bits) const { return (value() & bits) == bits; }

    uint8_t bytes_[4] = {};
};
static_assert(std::is_trivially_copyable_v<IpAddr> && sizeof(IpAddr) == 4 && alignof(IpAddr) == 1);

/// A mask of `len` ones, at most 32, in the shape of an address.
constexpr IpAddr ipAddrFromPrefixLen(uint32_t len) {
    return IpAddr(0xffffffff).ipAddrMaskedByLength(len);
}

/// An address that keeps its host bits, with a mask length. No relation between the two is
/// enforced, and any length is stored as given: 10.1.2.3/99 is a value. Ordered by address, then by
/// length.
class IpAddrWithMask : public Mox::ValueType<IpAddrWithMask> {
  public:
    constexpr IpAddrWithMask() = default;
    /// Checks nothing.
    constexpr IpAddrWithMask(const IpAddr& address, uint32_t len) : address_(address), len_(len) {}
    /// @throws Mox::RangeException "Invalid IpAddr", "premature end of Prefix type"
    IpAddrWithMask(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit IpAddrWithMask(std::string_view text) { readWhole(text); }
    IpAddrWithMask(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// As it was given, with its host bits.
    constexpr const IpAddr& address() const MOX_LIFETIME_BOUND { return address_; }
    /// The mask length in bits.
    constexpr uint32_t len() const { return len_; }

    friend constexpr auto operator<=>(const IpAddrWithMask&, const IpAddrWithMask&) = default;

    static constexpr const char* invalidText = "premature end of Prefix type";
    static constexpr auto description() {
        return Mox::record("Pavo::IpAddrWithMask", Mox::field("address", &IpAddrWithMask::address_),
                           Mox::field("len", &IpAddrWithMask::len_));
    }
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    PAVO_EXPORT void print(Mox::TextWriter& out) const;

  private:
    IpAddr address_;
    uint32_t len_ = 0;
};
static_assert(std::is_trivially_copyable_v<IpAddrWithMask> && sizeof(IpAddrWithMask) == 8);

/// An address with any 32-bit mask, in host order; the mask need not be contiguous. Ordered by
/// address, then by mask.
///
/// `stringValue` shows the matched network: 10.1.2.0/24 for 10.1.2.3 under a contiguous mask,
/// 10.1.2.3/255.0.255.0 under any other. Strep and parsing are those of the record.
class IpAddrWithFullMask : public Mox::ValueType<IpAddrWithFullMask> {
  public:
    constexpr IpAddrWithFullMask() = default;
    /// Checks nothing; `mask` is in host order.
    constexpr IpAddrWithFullMask(const IpAddr& address, uint32_t mask)
        : address_(address), mask_(mask) {}
    /// @throws Mox::RangeException "Invalid IpAddrWithFullMask", "Invalid IpAddr"
    IpAddrWithFullMask(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit IpAddrWithFullMask(std::string_view text) { readWhole(text); }
    IpAddrWithFullMask(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// As it was given, bits outside the mask included.
    constexpr const IpAddr& address() const MOX_LIFETIME_BOUND { return address_; }
    /// The mask in host order: the most significant bit is the first mask bit.
    constexpr uint32_t mask() const { return mask_; }

    friend constexpr auto operator<=>(const IpAddrWithFullMask&,
                                      const IpAddrWithFullMask&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::IpAddrWithFullMask",
                           Mox::field("address", &IpAddrWithFullMask::address_),
                           Mox::field("mask", &IpAddrWithFullMask::mask_));
    }
    PAVO_EXPORT void print(Mox::TextWriter& out) const;

  private:
    IpAddr address_;
    uint32_t mask_ = 0;
};
static_assert(std::is_trivially_copyable_v<IpAddrWithFullMask> && sizeof(IpAddrWithFullMask) == 8);

/// A network: an address without host bits, and a length. Text never clears host bits silently:
/// 10.1.0.0/8 is an error.
///
/// The more specific prefix comes first: 10.1.0.0/16 before 10.0.0.0/8, and 0.0.0.0/0 after
/// everything. Prefixes that differ within the shorter length are ordered by address.
class Prefix : public Mox::ValueType<Prefix>, public PrefixOps<Prefix> {
  public:
    constexpr Prefix() = default;
    /// Valid are 32; 0 to 31 without host bits; and 0xffffffff, whatever the address.
    /// @throws Mox::RangeException "Prefix::validAsPrefix != true not allowed"
    constexpr Prefix(const IpAddr& address, uint32_t len) : address_(address), len_(len) {
        requireValid();
    }
    /// @throws Mox::RangeException "Invalid IpAddr"; "premature end of Prefix type";
    /// "Invalid Prefix - non-zero after prefixlen", also for every length above 32
    Prefix(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit Prefix(std::string_view text) { readWhole(text); }
    /// @throws Mox::RangeException "Prefix::validAsPrefix != true not allowed"
    Prefix(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The prefix of the length `len` that `address` lies in: its host bits are cleared.
    /// @throws Mox::RangeException "Prefix::validAsPrefix != true not allowed" above 32, except for
    /// 0xffffffff
    static constexpr Prefix containing(const IpAddr& address, uint32_t len) {
        return Prefix(address.ipAddrMaskedByLength(len), len);
    }

    /// The address of the network: its host bits are zero, except at the length 0xffffffff.
    constexpr const IpAddr& address() const MOX_LIFETIME_BOUND { return address_; }
    /// In bits: 0 to 32, or 0xffffffff.
    constexpr uint32_t len() const { return len_; }

    /// The rule for constructors from parts.
    static constexpr bool validAsPrefix(const IpAddr& address, uint32_t len) {
        return len < 32 ? address.value() << len == 0 : len == 32 || len == 0xffffffff;
    }

    /// The length is 32.
    constexpr bool isHost() const { return len_ == 32; }
    /// The prefix's address is unicast.
    constexpr bool isUnicast() const { return address_.isUnicast(); }

    /// `address` agrees with the prefix's in the first `len` bits; in all of them from 32 on.
    constexpr bool contains(const IpAddr& address) const {
        return address.ipAddrMaskedByLength(len_) == address_.ipAddrMaskedByLength(len_);
    }
    /// `other` is this prefix, or a longer one inside it.
    constexpr bool contains(const Prefix& other) const {
        return len_ <= other.len_ && contains(other.address_);
    }
    /// Some address lies in both: one of the two contains the other.
    constexpr bool overlaps(const Prefix& other) const {
        return contains(other.address_) || other.contains(address_);
    }

    /// The prefix's address with the bits of `host`.
    /// @throws Mox::RangeException "Host address too long" when the length is 1 to 32 and `host`
    /// has a bit within it
    PAVO_EXPORT IpAddr subnetHost(const IpAddr& host) const;

    friend constexpr bool operator==(const Prefix&, const Prefix&) = default;
    /// Weak, since prefixes of the length 0xffffffff are equivalent whatever their address.
    friend constexpr std::weak_ordering operator<=>(const Prefix& a, const Prefix& b) {
        return a.orderKey() <=> b.orderKey();
    }

    static constexpr const char* invalidText = "Invalid Prefix - non-zero after prefixlen";
    static constexpr auto description() {
        return Mox::record("Pavo::Prefix", Mox::field("address", &Prefix::address_),
                           Mox::field("len", &Prefix::len_));
    }
    constexpr const char* parse(Mox::TextCursor& in) {
        if (const char* error = address_.parse(in)) {
            return error;
        }
        const LengthFault fault = readLengthSuffix(in, &len_);
        if (fault == LengthFault::missing) {
            return IpAddrWithMask::invalidText;
        }
        // Text allows none of the lengths above 32, parts allow one.
        const bool valid =
            fault == LengthFault::none && len_ <= 32 && validAsPrefix(address_, len_);
        return valid ? nullptr : invalidText;
    }
    PAVO_EXPORT void print(Mox::TextWriter& out) const;
    constexpr const char* check() const {
        return validAsPrefix(address_, len_) ? nullptr
                                             : "Prefix::validAsPrefix != true not allowed";
    }

  private:
    // The last address of the network, then the length, the greatest first: a network comes after
    // all that end before it does, and of those that end with it after the more specific ones. The
    // length 0xffffffff counts as -1, which covers every address and differs in none.
    constexpr uint64_t orderKey() const {
        const auto len = static_cast<int32_t>(len_);
        const uint64_t last = address_.value() | uint64_t{0xffffffff} >> (len_ & 63);
        return len < 0 ? uint64_t{0xffffffff} << 32 | 33 : last << 32 | (32 - len_);
    }

    IpAddr address_;
    uint32_t len_ = 0;
};
static_assert(std::is_trivially_copyable_v<Prefix> && sizeof(Prefix) == 8);

/// One end of a transport connection. Ordered by address, then by port.
class IpAndPort : public Mox::ValueType<IpAndPort> {
  public:
    constexpr IpAndPort() = default;
    /// `port` is in host order.
    constexpr IpAndPort(const IpAddr& ip, uint16_t port) : ip_(ip), port_(port) {}
    /// @throws Mox::RangeException "Invalid IpAndPort", "Invalid IpAddr"
    IpAndPort(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit IpAndPort(std::string_view text) { readWhole(text); }
    IpAndPort(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// Any address, the wildcard 0.0.0.0 among them.
    constexpr const IpAddr& ip() const MOX_LIFETIME_BOUND { return ip_; }
    /// In host order.
    constexpr uint16_t port() const { return port_; }

    friend constexpr auto operator<=>(const IpAndPort&, const IpAndPort&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::IpAndPort", Mox::field("ip", &IpAndPort::ip_),
                           Mox::field("port", &IpAndPort::port_));
    }

  private:
    IpAddr ip_;
    uint16_t port_ = 0;
};
static_assert(std::is_trivially_copyable_v<IpAndPort> && sizeof(IpAndPort) == 6);

}  // namespace Pavo
