/// @file
/// Interfaces as 64-bit numbers, their names and the kernel's, and the natural order of names.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "Mox/String.h"
#include "Mox/ValueType.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/OneAtATimeHash.h"
#include "Pavo/base/ValueFunctions.h"

namespace Pavo {

/// An interface such as Ethernet3/1, Vlan100 or Port-Channel5.10, as one number. 0, the default, is
/// no interface. The meaning of the bits is described at run time (`IntfIdMgr`):
///
///     63 62 61                         32 31     25 24                    0
///     [sub ][ parts of the name          ][ type   ][ parts of the name     ]
///
/// Text is the long name. Leading zeros are accepted; case matters. A name ends before the first
/// character that does not belong to it, such as a separator without a number after it, or before a
/// "." part of 0. An id without descriptor, such as 0, has the empty text, which is not read back.
/// Ordered as numbers, not as names; `compareIntfName` orders as names.
class IntfId : public Mox::ValueType<IntfId> {
  public:
    constexpr IntfId() = default;
    /// Every number is valid, described or not.
    constexpr explicit IntfId(uint64_t value) : value_(value) {}
    /// @throws Mox::RangeException "Error deserializing IntfId"
    IntfId(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit IntfId(std::string_view text) { readWhole(text); }
    /// Reads any number, since a log may come from a process that has other types.
    IntfId(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }
    /// The id of the short name `name`, such as Et3/1.
    /// @throws Mox::RangeException "Error deserializing IntfId"
    PAVO_EXPORT static IntfId fromShortName(const Mox::String& name);

    /// The number in host order; 0 is no interface.
    constexpr uint64_t value() const { return value_; }
    constexpr void valueIs(uint64_t value) { value_ = value; }

    /// Sets the id of the long name `name`.
    /// @throws Mox::RangeException "Error deserializing IntfId"; the id is then unchanged.
    void handleInitialized(const Mox::String& name) { stringValueIs(name); }
    /// The short name, such as Et3/1; empty where the long one is.
    PAVO_EXPORT Mox::String shortName() const;

    /// Not 0.
    constexpr explicit operator bool() const { return value_ != 0; }

    /// The same in every process, on both word sizes.
    constexpr uint32_t hash() const { return oneAtATimeHash(value_); }
    friend constexpr bool operator==(const IntfId&, const IntfId&) = default;
    friend constexpr auto operator<=>(const IntfId&, const IntfId&) = default;

    static constexpr const char* invalidText = "Error deserializing IntfId";
    static constexpr auto description() {
        return Mox::record("Pavo::IntfId", Mox::field("value", &IntfId::value_));
    }
    /// The number, mixed from `seed` on as in composite values.
    constexpr uint32_t hash(uint32_t seed) const { return ValueType::hash(seed); }
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    PAVO_EXPORT void print(Mox::TextWriter& out) const;

  private:
    uint64_t value_ = 0;
};
static_assert(std::is_trivially_copyable_v<IntfId> && sizeof(IntfId) == 8);

/// The number of an interface seen field by field. Text is that of the record, so that any number
/// is read back, described or not. Ordered by type, then by sub-type, then by the other bits.
class GenericIntfId : public Mox::ValueType<GenericIntfId> {
  public:
    /// The greatest type.
    static constexpr uint32_t maxTypeId = 127;
    /// The greatest sub-type.
    static constexpr uint32_t maxSubType = 3;
    /// Bits 25 to 31 and 62 to 63; all others are for parts.
    static constexpr uint64_t typeBits = 0xc0000000'fe000000;

    constexpr GenericIntfId() = default;
    /// The same number.
    constexpr GenericIntfId(IntfId id) : value_(id.value()) {}
    /// @throws Mox::RangeException "Invalid GenericIntfId"
    GenericIntfId(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit GenericIntfId(std::string_view text) { readWhole(text); }
    GenericIntfId(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The same number.
    constexpr IntfId intfId() const { return IntfId(value_); }
    /// As `intfId`.
    constexpr operator IntfId() const { return intfId(); }

    /// The type of the id's descriptor, 1 to 127; 0 is none.
    constexpr uint32_t typeId() const { return value_ >> typeShift & maxTypeId; }
    /// @throws Mox::RangeException "GenericIntfId::typeId > 127 not allowed"
    constexpr void typeIdIs(uint32_t typeId) {
        if (typeId > maxTypeId) {
            Mox::throwRangeException("GenericIntfId::typeId > 127 not allowed");
        }
        value_ = (value_ & ~(uint64_t{maxTypeId} << typeShift)) | uint64_t{typeId} << typeShift;
    }
    /// Which of the forms of names of the type the id has, 0 to 3.
    constexpr uint32_t subType() const { return static_cast<uint32_t>(value_ >> subTypeShift); }
    /// @throws Mox::RangeException "GenericIntfId::subType > 3 not allowed"
    constexpr void subTypeIs(uint32_t subType) {
        if (subType > maxSubType) {
            Mox::throwRangeException("GenericIntfId::subType > 3 not allowed");
        }
        value_ = (value_ & ~(uint64_t{maxSubType} << subTypeShift)) | uint64_t{subType}
                                                                          << subTypeShift;
    }

    // The numbers in the name, from left to right, as the id's descriptor places them.

    /// @throws Mox::RangeException "GenericIntfId::part: index out of range" for a part that the
    /// descriptor does not have, or without descriptor
    uint32_t part(uint32_t k) const { return part(*this, k); }
    /// @throws Mox::RangeException "GenericIntfId::part: index out of range" as above;
    /// "GenericIntfId::part: value out of range" for a number wider than the part. The id is then
    /// unchanged.
    void partIs(uint32_t k, uint32_t value) { partIs(*this, k, value); }
    /// How many numbers the name has: a part after "." counts only when it is not 0. 0 without
    /// descriptor.
    uint32_t parts() const { return parts(*this); }

    /// As the members of that name, for any id.
    /// @{
    PAVO_EXPORT static uint32_t part(const GenericIntfId& id, uint32_t k);
    PAVO_EXPORT static void partIs(GenericIntfId& id, uint32_t k, uint32_t value);
    PAVO_EXPORT static uint32_t parts(const GenericIntfId& id);
    /// @}

    /// The same in every process, on both word sizes.
    constexpr uint32_t hash() const { return oneAtATimeHash(value_); }
    friend constexpr bool operator==(const GenericIntfId&, const GenericIntfId&) = default;
    friend constexpr std::strong_ordering operator<=>(const GenericIntfId& a,
                                                      const GenericIntfId& b) {
        const uint32_t typeA = a.typeId() << 2 | a.subType();
        const uint32_t typeB = b.typeId() << 2 | b.subType();
        return typeA != typeB ? typeA <=> typeB : a.value_ <=> b.value_;
    }

    static constexpr auto description() {
        return Mox::record("Pavo::GenericIntfId", Mox::field("value", &GenericIntfId::value_));
    }
    /// The number, mixed from `seed` on as in composite values.
    constexpr uint32_t hash(uint32_t seed) const { return ValueType::hash(seed); }

  private:
    static constexpr int typeShift = 25;
    static constexpr int subTypeShift = 62;

    uint64_t value_ = 0;
};
static_assert(std::is_trivially_copyable_v<GenericIntfId> && sizeof(GenericIntfId) == 8);

// Names of interfaces here and in the kernel. Prefixes are recognized in either case, in the order
// of the tables in the source: "loopback0" begins as "lo" does and becomes "Loopbackopback0".

/// The long name of a kernel name: et3_1 is Ethernet3/1, po5 Port-Channel5, tap-7 Test7. What
/// follows the prefix keeps its case; of a "tap" name it is what follows the first "-".
/// @throws Mox::RangeException "Cannot convert kernel interface name" for any other prefix, and for
/// a "tap" name without "-"
PAVO_EXPORT Mox::String kernelIntfToVeyIntf(const Mox::String& kernelName);
/// The kernel name of a long name, all in lower case: Ethernet3/1 is et3_1, Test7 is tap-7.
/// @throws Mox::RangeException "Cannot convert interface name to kernel interface name"
PAVO_EXPORT Mox::String veyIntfToKernelIntf(const Mox::String& name);
/// The short name of a kernel name: et3_1 is Et3/1.
/// @throws Mox::RangeException as `kernelIntfToVeyIntf`; "Error deserializing IntfId" where no
/// descriptor knows the long name
PAVO_EXPORT Mox::String kernelIntfToShortVeyIntf(const Mox::String& kernelName);
/// The long name of a short one: Et3/1 is Ethernet3/1.
/// @throws Mox::RangeException "Error deserializing IntfId"
PAVO_EXPORT Mox::String shortIntfToVeyIntf(const Mox::String& shortName);
/// The long name of a name in either form; a text that is both is taken as a long name.
/// @throws Mox::RangeException "Error deserializing IntfId"
PAVO_EXPORT Mox::String stringToVeyIntf(const Mox::String& text);

/// Negative, 0 or positive as the long name of `a` comes before, with or after that of `b` in
/// natural order: by type name, then number by number, where one that is missing between others
/// counts as 0, then the name with fewer numbers first. Ethernet2 comes before Ethernet10,
/// Ethernet3/1 before Ethernet3/1.5.
/// Of a prefix that has a digit, only what follows its last digit counts: "Ip6Tunnel3",
/// "Ip4Tunnel3" and "Tunnel3" compare as equal, so this is the order of a display, not that of a
/// set.
/// @pre both ids have a name of a type, up to three numbers with "/" between them, and a number
/// after "." (assertions "aret > 1" and "bret > 1").
PAVO_EXPORT int compareIntfName(IntfId a, IntfId b);

}  // namespace Pavo
