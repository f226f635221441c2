/// @file
/// Route distinguishers (RFC 4364, 4.2).
#pragma once

#include <bit>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "Mox/Assert.h"
#include "Mox/Enum.h"
#include "Mox/ValueType.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/value/AutonomousSystem.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

/// A route distinguisher makes equal addresses of different VPNs distinct: eight bytes in network
/// order, of which the first two are a type that says how the others divide into an administrator
/// and the number that the administrator assigned. The default value is not valid.
///
///            2 bytes   then
///     type 0    0      2-byte AS number   4 bytes, number or IPv4 address
///     type 1    1      IPv4 address       2-byte number
///     type 2    2      4-byte AS number   2-byte number
///
/// `stringValue` is "65000:7", "65000:10.0.0.1", "10.0.0.1:7", "INVALID", or all eight bytes as
/// "0x0003000000000001" where the type is above 2. Strep, streams and the constructor from two
/// iterators use the text of the record; whole texts (`RouteDistinguisher(text)`, `stringValueIs`,
/// `Mox::fromText`, `Mox::tryParse`) may have both forms.
class RouteDistinguisher : public Mox::ValueType<RouteDistinguisher> {
  public:
    /// The number in the first two bytes (RFC 4364, 4.2).
    enum Type : uint32_t { type0 = 0, type1 = 1, type2 = 2 };

    /// How the local part of a type-0 value was entered, and so how it is printed: as an IPv4
    /// address, else as a number.
    enum Type0LocalType : uint32_t { localInvalid = 0, localIpAddr = 1, localNumber = 2 };

    constexpr RouteDistinguisher() = default;
    /// From the fields as they are, the first in network order; no relation between them is
    /// enforced. `fromType0`, `fromType1` and `fromType2` take numbers.
    constexpr RouteDistinguisher(uint64_t rdNbo, bool valid, Type0LocalType type0LocalType)
        : rdNboInternal_(rdNbo), valid_(valid), type0LocalType_(type0LocalType) {}
    /// @throws Mox::RangeException "Invalid RouteDistinguisher", "Invalid type0LocalType"
    RouteDistinguisher(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit RouteDistinguisher(std::string_view text) { readWhole(text); }
    /// @throws Mox::RangeException "Invalid type0LocalType"
    RouteDistinguisher(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The type-0 value of a two-byte AS number and an assigned number, printed "65000:7".
    /// @throws Mox::RangeException "RouteDistinguisher::type0Administrator > 65535 not allowed"
    static constexpr RouteDistinguisher fromType0(AutonomousSystem administrator, uint32_t number) {
        requireTwoBytes(administrator.value(),
                        "RouteDistinguisher::type0Administrator > 65535 not allowed");
        return fromHbo(uint64_t{administrator.value()} << 32 | number, localNumber);
    }
    /// The same with an IPv4 address as the local part, printed "65000:10.0.0.1".
    /// @throws Mox::RangeException as above
    static constexpr RouteDistinguisher fromType0(AutonomousSystem administrator, IpAddr local) {
        RouteDistinguisher rd = fromType0(administrator, local.value());
        rd.type0LocalType_ = localIpAddr;
        return rd;
    }
    /// The type-1 value of an IPv4 address and an assigned number, printed "10.0.0.1:7".
    /// @throws Mox::RangeException "RouteDistinguisher::type1LocallyAssignedNumber > 65535 not
    /// allowed"
    static constexpr RouteDistinguisher fromType1(IpAddr administrator, uint32_t number) {
        requireTwoBytes(number,
                        "RouteDistinguisher::type1LocallyAssignedNumber > 65535 not allowed");
        return fromHbo(uint64_t{type1} << 48 | uint64_t{administrator.value()} << 16 | number);
    }
    /// The type-2 value of a four-byte AS number and an assigned number, printed "65536:7".
    /// @throws Mox::RangeException "RouteDistinguisher::type2LocallyAssignedNumber > 65535 not
    /// allowed"
    static constexpr RouteDistinguisher fromType2(AutonomousSystem administrator, uint32_t number) {
        requireTwoBytes(number,
                        "RouteDistinguisher::type2LocallyAssignedNumber > 65535 not allowed");
        return fromHbo(uint64_t{type2} << 48 | uint64_t{administrator.value()} << 16 | number);
    }

    /// @throws Mox::RangeException "Invalid RouteDistinguisher::Type" for a number or a name that
    /// no type has.
    PAVO_EXPORT static Type TypeInstance(uint32_t value);
    PAVO_EXPORT static Type TypeInstance(const Mox::String& name);
    /// @throws Mox::RangeException "Invalid type0LocalType"
    PAVO_EXPORT static Type0LocalType Type0LocalTypeInstance(uint32_t value);
    PAVO_EXPORT static Type0LocalType Type0LocalTypeInstance(const Mox::String& name);

    /// The eight bytes as they are in memory, in network order.
    constexpr uint64_t rdNbo() const { return rdNboInternal_; }
    /// Makes the value valid; a type-0 value gets a number as its local part.
    void rdNboIs(uint64_t rdNbo) {
        *this = {rdNbo, true, localInvalid};
        type0LocalType_ = rdType() == type0 ? localNumber : localInvalid;
    }
    /// The eight bytes as a number in host order.
    constexpr uint64_t rdHbo() const { return hostOrder(rdNboInternal_); }

    /// False by default; the text is then "INVALID".
    constexpr bool valid() const { return valid_; }
    /// Has a meaning for type 0 only.
    constexpr Type0LocalType type0LocalType() const { return type0LocalType_; }

    /// Any 16-bit number, `type0`, `type1` and `type2` among them. Asserts "valid()".
    Type rdType() const {
        Mox::require(valid_, "valid()");
        return static_cast<Type>(rdHbo() >> 48);
    }

    /// Asserts "rdType() == type0()", as the next two do.
    AutonomousSystem type0Administrator() const {
        return AutonomousSystem(type0Bits(rdHbo() >> 32) & 0xffff);
    }
    /// In host order.
    uint32_t type0LocallyAssignedNumber() const { return type0Bits(rdHbo()); }
    /// The same four bytes as an address, however they were entered.
    IpAddr type0LocallyAssignedIpAddr() const { return IpAddr(type0Bits(rdHbo())); }

    /// Asserts "rdType() == type1()", as the next one does.
    IpAddr type1Administrator() const { return IpAddr(type1Bits(rdHbo() >> 16)); }
    /// In host order.
    uint16_t type1LocallyAssignedNumber() const {
        return static_cast<uint16_t>(type1Bits(rdHbo()));
    }

    /// Asserts "rdType() == type2()", as the next one does.
    AutonomousSystem type2Administrator() const {
        return AutonomousSystem(type2Bits(rdHbo() >> 16));
    }
    /// In host order.
    uint16_t type2LocallyAssignedNumber() const {
        return static_cast<uint16_t>(type2Bits(rdHbo()));
    }

    /// `stringValue`, on request with the administrator of type 2 in asdot.
    PAVO_EXPORT Mox::String displayString(bool asdot) const;

    friend constexpr bool operator==(const RouteDistinguisher&,
                                     const RouteDistinguisher&) = default;
    /// By the number whose least significant byte is the first of the eight, on purpose: tables
    /// are sorted by it. Then by `valid`, false first. Neither of two values that differ in
    /// `type0LocalType` alone comes before the other: a sorted map takes both for one key, a hashed
    /// map does not.
    friend constexpr bool operator<(const RouteDistinguisher& a, const RouteDistinguisher& b) {
        const uint64_t left = __builtin_bswap64(a.rdHbo());
        const uint64_t right = __builtin_bswap64(b.rdHbo());
        return left != right ? left < right : a.valid_ < b.valid_;
    }
    /// From `operator<`.
    /// @{
    friend constexpr bool operator>(const RouteDistinguisher& a, const RouteDistinguisher& b) {
        return b < a;
    }
    friend constexpr bool operator<=(const RouteDistinguisher& a, const RouteDistinguisher& b) {
        return !(b < a);
    }
    friend constexpr bool operator>=(const RouteDistinguisher& a, const RouteDistinguisher& b) {
        return !(a < b);
    }
    /// @}

    static constexpr auto description() {
        return Mox::record("Pavo::RouteDistinguisher",
                           Mox::field("rdNboInternal", &RouteDistinguisher::rdNboInternal_),
                           Mox::field("valid", &RouteDistinguisher::valid_),
                           Mox::field("type0LocalType", &RouteDistinguisher::type0LocalType_));
    }
    void print(Mox::TextWriter& out) const { printDisplay(out, /*asdot=*/false); }
    /// Reads what `stringValue` and `displayString` print. The administrator chooses the type: 1
    /// for an IPv4 address, 0 for a number up to 65535, 2 for a larger one or for asdot ("0.100").
    /// So a type-2 value with an administrator up to 65535 reads back as type 0.
    PAVO_EXPORT const char* parseText(Mox::TextCursor& in);

  private:
    static constexpr uint64_t hostOrder(uint64_t nbo) {
        return std::endian::native == std::endian::little ? __builtin_bswap64(nbo) : nbo;
    }
    static constexpr RouteDistinguisher fromHbo(uint64_t hbo, Type0LocalType local = localInvalid) {
        return {hostOrder(hbo), true, local};
    }
    static constexpr void requireTwoBytes(uint32_t number, const char* error) {
        if (number > 0xffff) {
            Mox::throwRangeException(error);
        }
    }
    PAVO_EXPORT void printDisplay(Mox::TextWriter& out, bool asdot) const;

    uint32_t type0Bits(uint64_t bits) const {
        Mox::require(rdType() == type0, "rdType() == type0()");
        return static_cast<uint32_t>(bits);
    }
    uint32_t type1Bits(uint64_t bits) const {
        Mox::require(rdType() == type1, "rdType() == type1()");
        return static_cast<uint32_t>(bits);
    }
    uint32_t type2Bits(uint64_t bits) const {
        Mox::require(rdType() == type2, "rdType() == type2()");
        return static_cast<uint32_t>(bits);
    }

    uint64_t rdNboInternal_ = 0;
    bool valid_ = false;
    Type0LocalType type0LocalType_ = localInvalid;
};
static_assert(std::is_trivially_copyable_v<RouteDistinguisher> && sizeof(RouteDistinguisher) == 16);

constexpr auto enumDescription(RouteDistinguisher::Type) {
    using Rd = RouteDistinguisher;
    return Mox::enumeration<Rd::Type>(
        "Invalid RouteDistinguisher::Type",
        {{Rd::type0, "type0"}, {Rd::type1, "type1"}, {Rd::type2, "type2"}});
}
constexpr auto enumDescription(RouteDistinguisher::Type0LocalType) {
    using Local = RouteDistinguisher::Type0LocalType;
    // The text names the field, where a bad name stands in a record.
    return Mox::enumeration<Local>("Invalid type0LocalType", {{Local::localInvalid, "localInvalid"},
                                                              {Local::localIpAddr, "localIpAddr"},
                                                              {Local::localNumber, "localNumber"}});
}

}  // namespace Pavo
