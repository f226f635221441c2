/// @file
/// Prefixes of either family.
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
#include "Pavo/value/PrefixOps.h"

namespace Pavo {

class IpGenPrefix;

/// The parts of a prefix of either family, without a rule between them: any length, host bits or
/// none. Ordered by family, then by address, then by length.
///
/// Text is that of the record alone, with the address as the IPv6 text of its sixteen bytes.
class IpGenPrefixBase : public IpGenAddrAndLen<IpGenPrefixBase> {
  public:
    constexpr IpGenPrefixBase() = default;
    /// Address and length as they are; none is checked.
    constexpr IpGenPrefixBase(const IpGenAddr& address, uint32_t len)
        : IpGenAddrAndLen(address, len) {}
    /// Converts without loss.
    constexpr IpGenPrefixBase(const IpGenPrefix& prefix);
    /// @throws Mox::RangeException "Invalid IpGenPrefixBase", "Invalid AddressFamily", or a text of
    /// `Ip6Addr`
    IpGenPrefixBase(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit IpGenPrefixBase(std::string_view text) { readWhole(text); }
    /// @throws Mox::RangeException "Invalid AddressFamily"; "Invalid IpGenAddr" for bytes that the
    /// family has no use for and that are not zero
    IpGenPrefixBase(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    friend constexpr std::strong_ordering operator<=>(const IpGenPrefixBase& a,
                                                      const IpGenPrefixBase& b) {
        const auto byAddress = a.ipGenAddr() <=> b.ipGenAddr();
        return byAddress != 0 ? byAddress : a.len_ <=> b.len_;
    }

    static constexpr const char* typeName = "Pavo::IpGenPrefixBase";
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    PAVO_EXPORT void print(Mox::TextWriter& out) const;
};
static_assert(std::is_trivially_copyable_v<IpGenPrefixBase> && sizeof(IpGenPrefixBase) == 24);

/// A network of either family, or none yet (`ipunknown`, of the length 0): an address without host
/// bits and a length of at most 32 or 128. It has what `IpGenPrefixBase` has and converts to it,
/// but does not derive from it, so that nothing written through the base breaks the rule.
///
/// Text is the family's own form, and "::/0" for an unknown family. The first ":" or "." in the
/// text decides the family; a "/" before either, or neither, is "Invalid prefix". IPv4 text without
/// any "/" is "premature end of Prefix type". All other errors, also for text after the length,
/// have the texts of `Prefix` and `Ip6Prefix`.
///
/// Ordered by family, then as the family's prefixes are: the more specific one comes first.
class IpGenPrefix : public IpGenAddrAndLen<IpGenPrefix>, public PrefixOps<IpGenPrefix> {
  public:
    constexpr IpGenPrefix() = default;
    /// @throws Mox::RangeException "Invalid IPv4 Prefix Length" for the length 0xffffffff
    constexpr IpGenPrefix(const Prefix& prefix) : IpGenPrefix(prefix.address(), prefix.len()) {}
    /// Converts without loss.
    constexpr IpGenPrefix(const Ip6Prefix& prefix) : IpGenPrefix(prefix.address(), prefix.len()) {}
    /// @throws Mox::RangeException "Invalid IPv4 Prefix Length" above 32; "Invalid prefix -
    /// Non-zero after prefix length"
    constexpr IpGenPrefix(const IpAddr& address, uint32_t len)
        : IpGenPrefix(IpGenAddr(address), len) {}
    /// @throws Mox::RangeException "Invalid IPv6 Prefix Length" above 128; "Invalid prefix -
    /// Non-zero after prefix length"
    constexpr IpGenPrefix(const Ip6Addr& address, uint32_t len)
        : IpGenPrefix(IpGenAddr(address), len) {}
    /// @throws Mox::RangeException as the family's constructor; "Invalid prefix" for a length of an
    /// unknown family
    constexpr IpGenPrefix(const IpGenAddr& address, uint32_t len) : IpGenAddrAndLen(address, len) {
        requireValid();
    }
    /// The prefix of one host.
    constexpr explicit IpGenPrefix(const IpGenAddr& address)
        : IpGenPrefix(address, Pavo::addressBits(address.af())) {}
    /// The address from 32-bit words in host order, most significant first; IPv4 has one.
    /// @throws Mox::RangeException as the family's constructor
    constexpr IpGenPrefix(AddressFamily af, uint32_t len, uint32_t word0, uint32_t word1 = 0,
                          uint32_t word2 = 0, uint32_t word3 = 0) {
        af_ = af;
        address_ = Ip6Addr(uint64_t{word0} << 32 | word1, uint64_t{word2} << 32 | word3);
        len_ = len;
        requireValid();
    }
    /// @throws Mox::RangeException as the family's constructor
    constexpr explicit IpGenPrefix(const IpGenPrefixBase& parts)
        : IpGenPrefix(parts.ipGenAddr(), parts.len()) {}
    /// @throws Mox::RangeException "Invalid prefix", or a text of the family's type
    IpGenPrefix(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit IpGenPrefix(std::string_view text) { readWhole(text); }
    /// @throws Mox::RangeException "Invalid AddressFamily", or as the family's constructor
    IpGenPrefix(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The prefix of the length `len` that `address` lies in: its host bits are cleared.
    /// @throws Mox::RangeException "Invalid IPv4 Prefix Length" above 32, "Invalid IPv6 Prefix
    /// Length" above 128, "Invalid prefix" for a length of an unknown family
    static constexpr IpGenPrefix containing(const IpGenAddr& address, uint32_t len) {
        const Ip6Addr network = address.address().ip6AddrMaskedByLength(len);
        return IpGenPrefix(IpGenAddr(address.af(), network), len);
    }

    /// The IPv4 prefix, or 0.0.0.0/0, which contains every address, when the family is another.
    constexpr Prefix v4Prefix() const { return af_ == ipv4 ? Prefix(v4Addr(), len_) : Prefix(); }
    /// The IPv6 prefix, or ::/0, which contains every address, when the family is another.
    constexpr Ip6Prefix v6Prefix() const {
        return af_ == ipv6 ? Ip6Prefix(v6Addr(), len_) : Ip6Prefix();
    }
    /// As `v4Prefix`.
    constexpr explicit operator Prefix() const { return v4Prefix(); }
    /// As `v6Prefix`.
    constexpr explicit operator Ip6Prefix() const { return v6Prefix(); }

    /// 0.0.0.0/0 or ::/0; not the prefix of an unknown family.
    constexpr bool isDefaultRoutePrefix() const { return af_ != ipunknown && len_ == 0; }

    PAVO_EXPORT friend std::weak_ordering operator<=>(const IpGenPrefix& a, const IpGenPrefix& b);

    /// In place of those of `PrefixOps`.
    constexpr uint32_t addressBits() const { return Pavo::addressBits(af_); }
    /// As `containing`, for an address of this prefix's family.
    constexpr IpGenPrefix networkOf(const Ip6Addr& address, uint32_t len) const {
        return containing(IpGenAddr(af_, address), len);
    }

    static constexpr const char* typeName = "Pavo::IpGenPrefix";
    static constexpr const char* invalidText = "Invalid prefix";
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    void print(Mox::TextWriter& out) const { printAddressAndLength(out); }
    constexpr const char* check() const {
        if (len_ > addressBits()) {
            return longLengthText();
        }
        return validAsPrefix() ? nullptr : "Invalid prefix - Non-zero after prefix length";
    }
    constexpr const char* leftoverText() const {
        return af_ == ipv4 ? Prefix::invalidText : Ip6Prefix::invalidText;
    }

  private:
    constexpr const char* longLengthText() const {
        switch (af_) {
            case ipv4:
                return "Invalid IPv4 Prefix Length";
            case ipv6:
                return "Invalid IPv6 Prefix Length";
            default:
                return invalidText;
        }
    }
};
static_assert(std::is_trivially_copyable_v<IpGenPrefix> && sizeof(IpGenPrefix) == 24);

constexpr IpGenPrefixBase::IpGenPrefixBase(const IpGenPrefix& prefix)
    : IpGenPrefixBase(prefix.ipGenAddr(), prefix.len()) {}

}  // namespace Pavo
