/// @file
/// Label stack entries as packets have them, and stacks of them.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Mox/ValueType.h"
#include "Mox/VectorCodec.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/label/MplsLabel.h"

namespace Pavo {

/// A label stack entry as its four bytes in network order (RFC 3032, 2.1; RFC 5462), in bits:
///
///     | label (20) | traffic class (3) | bottom of stack (1) | time to live (8) |
///
/// Ordered as 32-bit numbers.
class MplsLabelEntry : public Mox::ValueType<MplsLabelEntry> {
  public:
    /// The greatest traffic class.
    static constexpr uint8_t maxCos = 7;
    /// The lowest bit of the field in the 32-bit number.
    /// @{
    static constexpr uint32_t labelShift = 12;
    static constexpr uint32_t cosShift = 9;
    static constexpr uint32_t bosShift = 8;
    /// @}

    constexpr MplsLabelEntry() = default;
    /// From all 32 bits in host order, the label in the highest ones.
    constexpr explicit MplsLabelEntry(uint32_t value)
        : v0_(static_cast<uint8_t>(value >> 24)),
          v1_(static_cast<uint8_t>(value >> 16)),
          v2_(static_cast<uint8_t>(value >> 8)),
          v3_(static_cast<uint8_t>(value)) {}
    /// @throws Mox::RangeException "MplsLabelEntry::label > 1048575 not allowed" and
    /// "MplsLabelEntry::cos > 7 not allowed"
    PAVO_EXPORT MplsLabelEntry(MplsLabel label, uint32_t cos, bool bos, uint8_t ttl);
    MplsLabelEntry(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit MplsLabelEntry(std::string_view text) { readWhole(text); }
    MplsLabelEntry(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// All 32 bits in host order.
    constexpr uint32_t value() const {
        return uint32_t{v0_} << 24 | uint32_t{v1_} << 16 | uint32_t{v2_} << 8 | v3_;
    }
    /// The first to the fourth byte of the entry.
    /// @{
    constexpr uint8_t v0() const { return v0_; }
    constexpr uint8_t v1() const { return v1_; }
    constexpr uint8_t v2() const { return v2_; }
    constexpr uint8_t v3() const { return v3_; }
    /// @}

    /// 0 to 1048575.
    constexpr MplsLabel label() const { return value() >> labelShift; }
    /// The traffic class, 0 to 7.
    constexpr uint8_t cos() const { return v2_ >> 1 & maxCos; }
    /// Whether this is the bottom of the stack.
    constexpr bool bos() const { return (v2_ & 1) != 0; }
    /// The time to live, in hops.
    constexpr uint8_t ttl() const { return v3_; }

    friend constexpr auto operator<=>(const MplsLabelEntry&, const MplsLabelEntry&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::MplsLabelEntry", Mox::field("v0", &MplsLabelEntry::v0_),
                           Mox::field("v1", &MplsLabelEntry::v1_),
                           Mox::field("v2", &MplsLabelEntry::v2_),
                           Mox::field("v3", &MplsLabelEntry::v3_));
    }

  private:
    uint8_t v0_ = 0;
    uint8_t v1_ = 0;
    uint8_t v2_ = 0;
    uint8_t v3_ = 0;
};
static_assert(sizeof(MplsLabelEntry) == 4 && alignof(MplsLabelEntry) == 1 &&
              std::is_trivially_copyable_v<MplsLabelEntry>);

/// The label stack entries of a packet, 0 on top. Ordered entry by entry from the top.
///
/// It has a text, as all values have, but none is read: the attempt stops the process with the
/// assertion "No String constructor for MplsLabelStack - has collection".
class MplsLabelStack : public Mox::ValueType<MplsLabelStack> {
  public:
    MplsLabelStack() = default;
    MplsLabelStack(TextIt& it, const TextIt& end) { readText(it, end); }
    MplsLabelStack(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The number of entries.
    uint32_t size() const { return static_cast<uint32_t>(entries_.size()); }

    /// @throws Mox::RangeException "MplsLabelStack::labelEntry: index out of range"
    PAVO_EXPORT MplsLabelEntry labelEntry(uint32_t index) const;
    /// Replaces an entry, or appends one at `index` `size()`.
    /// @throws Mox::RangeException "MplsLabelStack::labelEntryIs: index out of range" past that.
    PAVO_EXPORT void labelEntryIs(uint32_t index, MplsLabelEntry entry);
    /// Removes an entry; those below it move up.
    /// @throws Mox::RangeException "MplsLabelStack::labelEntryDel: index out of range"
    PAVO_EXPORT void labelEntryDel(uint32_t index);
    /// Leaves no entry.
    void labelEntryDelAll() { entries_.clear(); }

    /// Whether there are entries, and the last one, and no other, is marked as the bottom.
    PAVO_EXPORT bool valid() const;

    friend bool operator==(const MplsLabelStack&, const MplsLabelStack&) = default;
    friend auto operator<=>(const MplsLabelStack&, const MplsLabelStack&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::MplsLabelStack",
                           Mox::field("labelEntry", &MplsLabelStack::entries_));
    }
    /// Fatal.
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    PAVO_EXPORT void print(Mox::TextWriter& out) const;

  private:
    std::vector<MplsLabelEntry> entries_;
};

}  // namespace Pavo
