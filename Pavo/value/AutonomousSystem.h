/// @file
/// BGP autonomous-system numbers.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "Mox/ValueType.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/OneAtATimeHash.h"
#include "Pavo/base/ValueFunctions.h"

namespace Pavo {

/// A BGP autonomous-system number of two or four bytes (RFC 6793). Text is that of the record;
/// `displayString` is for people. `stringValueIs`, `Mox::fromText` and `Mox::tryParse` read both,
/// so that "65536" and "1.0" are one number.
class AutonomousSystem : public Mox::ValueType<AutonomousSystem> {
  public:
    constexpr AutonomousSystem() = default;
    /// Every number is valid.
    constexpr explicit AutonomousSystem(uint32_t value) : value_(value) {}
    /// @throws Mox::RangeException "Invalid AutonomousSystem"
    AutonomousSystem(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit AutonomousSystem(std::string_view text) { readWhole(text); }
    AutonomousSystem(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The number, of two or four bytes alike.
    constexpr uint32_t value() const { return value_; }
    constexpr void valueIs(uint32_t value) { value_ = value; }

    /// 64512 to 65534, and 4200000000 to 4294967294 (RFC 6996).
    constexpr bool isPrivate() const {
        return (value_ >= 64512 && value_ <= 65534) ||
               (value_ >= 4200000000 && value_ <= 4294967294);
    }

    /// Plain decimal, or on request, above 65535, asdot: 65536 is "1.0" (RFC 5396).
    PAVO_EXPORT Mox::String displayString(bool asdot = false) const;
    /// Prints what `displayString` gives.
    PAVO_EXPORT void printDisplay(Mox::TextWriter& out, bool asdot) const;

    /// The same in every process, on both word sizes.
    constexpr uint32_t hash() const { return oneAtATimeHash(value_); }

    friend constexpr bool operator==(const AutonomousSystem&, const AutonomousSystem&) = default;
    friend constexpr auto operator<=>(const AutonomousSystem&, const AutonomousSystem&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::AutonomousSystem",
                           Mox::field("value", &AutonomousSystem::value_));
    }
    /// The number, mixed from `seed` on as in composite values.
    constexpr uint32_t hash(uint32_t seed) const { return ValueType::hash(seed); }
    /// Reads a plain number, or two up to 65535 with a dot between them.
    PAVO_EXPORT const char* parseText(Mox::TextCursor& in);

  private:
    uint32_t value_ = 0;
};
static_assert(std::is_trivially_copyable_v<AutonomousSystem> && sizeof(AutonomousSystem) == 4);

}  // namespace Pavo
