/// @file
/// MPLS labels, and indices into stacks of them.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "Mox/ValueType.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/Ordinal.h"
#include "Pavo/base/ValueFunctions.h"

namespace Pavo {

/// Reads all digits of a number from 0 to `most`. Returns null, `rangeText` for a greater number,
/// and `invalid` where there is no digit; the last two change nothing.
PAVO_EXPORT const char* parseUpTo(Mox::TextCursor& in, uint32_t most, uint32_t* value,
                                  const char* rangeText, const char* invalid);

/// An MPLS label, in host order. Numbers up to `maxValue` are labels of 20 bits as in packets (RFC
/// 3032, 2.1; reserved ones: IANA, "Special-Purpose MPLS Label Values"); the named ones above are
/// markers in configuration and state. `stringValue()` is the number. Each named number is also a
/// constant of this type: `MplsLabel::implicitNull`.
class MplsLabel : public Mox::ValueType<MplsLabel> {
  public:
    /// The numbers with a meaning of their own.
    enum WellKnownValue : uint32_t {
        explicitNullIpv4Value = 0,
        routerAlertValue = 1,
        explicitNullIpv6Value = 2,
        /// Never in a packet: asks the previous router to remove the label.
        implicitNullValue = 3,
        /// Is directly above an entropy label (RFC 6790, 4.2).
        entropyLabelIndicatorValue = 7,
        maxValue = 0xfffff,
        /// No label. The default.
        nullValue = 0x100000,
        anyLabelValue = 0x100001,
        /// Marks the place of an entropy label in a stack.
        entropyLabelValue = 0x100002,
        /// Withdraws a label in labelled unicast; the greatest number that is accepted.
        luWithdrawLabelValue = 0x800000,
    };
    /// The label of that number in `WellKnownValue`; `min` is 0.
    /// @{
    static const MplsLabel min;
    static const MplsLabel explicitNullIpv4;
    static const MplsLabel routerAlert;
    static const MplsLabel explicitNullIpv6;
    static const MplsLabel implicitNull;
    static const MplsLabel entropyLabelIndicator;
    static const MplsLabel max;
    static const MplsLabel null;
    static const MplsLabel anyLabel;
    static const MplsLabel entropyLabel;
    static const MplsLabel luWithdraw;
    /// @}

    static constexpr const char* rangeText =
        "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed";

    constexpr MplsLabel() = default;
    /// @throws Mox::RangeException `rangeText` past `luWithdrawLabelValue`.
    constexpr MplsLabel(uint32_t value) { valueIs(value); }
    MplsLabel(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit MplsLabel(std::string_view text) { readWhole(text); }
    /// @throws Mox::RangeException `rangeText` past `luWithdrawLabelValue`.
    MplsLabel(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// In host order; more than 20 bits for the markers.
    constexpr uint32_t value() const { return value_; }
    /// @throws Mox::RangeException `rangeText` past `luWithdrawLabelValue`; nothing changes then.
    constexpr void valueIs(uint32_t value) {
        if (value > luWithdrawLabelValue) {
            Mox::throwRangeException(rangeText);
        }
        value_ = value;
    }

    /// 0 or 2.
    constexpr bool isExplicitNull() const {
        return value() == explicitNullIpv4Value || value() == explicitNullIpv6Value;
    }
    /// 3.
    constexpr bool isImplicitNull() const { return value() == implicitNullValue; }
    /// An entropy label indicator or an entropy label, whose positions stacks record in bit maps
    /// instead of holding them as labels.
    constexpr bool isEntropyMarker() const {
        return value() == entropyLabelIndicatorValue || value() == entropyLabelValue;
    }

    /// The number, after a name where it has one: "imp-null(3)"; the markers above 20 bits are
    /// names alone: "N/A", "(any)", "(entropy)", "(lu-withdraw)".
    PAVO_EXPORT Mox::String prettyString() const;
    /// Prints the text of `prettyString`.
    PAVO_EXPORT void printPretty(Mox::TextWriter& out) const;

    friend constexpr auto operator<=>(const MplsLabel&, const MplsLabel&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::MplsLabel", Mox::field("value", &MplsLabel::value_));
    }
    void print(Mox::TextWriter& out) const { out.decimal(value_); }
    void printStrep(Mox::TextWriter& out) const { Mox::printRecord(out, *this, description()); }
    /// Reads the record, but gives `rangeText` for numbers past 32 bits too.
    PAVO_EXPORT const char* parseStrep(Mox::TextCursor& in);
    /// Null, or `rangeText` past `luWithdrawLabelValue`.
    constexpr const char* check() const {
        return value_ > luWithdrawLabelValue ? rangeText : nullptr;
    }

  private:
    uint32_t value_ = nullValue;
};
static_assert(sizeof(MplsLabel) == 4 && std::is_trivially_copyable_v<MplsLabel>);

inline constexpr MplsLabel MplsLabel::min = 0;
inline constexpr MplsLabel MplsLabel::explicitNullIpv4 = explicitNullIpv4Value;
inline constexpr MplsLabel MplsLabel::routerAlert = routerAlertValue;
inline constexpr MplsLabel MplsLabel::explicitNullIpv6 = explicitNullIpv6Value;
inline constexpr MplsLabel MplsLabel::implicitNull = implicitNullValue;
inline constexpr MplsLabel MplsLabel::entropyLabelIndicator = entropyLabelIndicatorValue;
inline constexpr MplsLabel MplsLabel::max = maxValue;
inline constexpr MplsLabel MplsLabel::null = nullValue;
inline constexpr MplsLabel MplsLabel::anyLabel = anyLabelValue;
inline constexpr MplsLabel MplsLabel::entropyLabel = entropyLabelValue;
inline constexpr MplsLabel MplsLabel::luWithdraw = luWithdrawLabelValue;

/// The place of an ordinary label in a bounded stack, 0 for the top, to 6; 7 for none.
class MplsStackEntryIndex : public Ordinal<MplsStackEntryIndex, uint8_t, 7> {
  public:
    using Ordinal::Ordinal;

    /// No place.
    static constexpr uint8_t nullValue = 7;

    /// Not `nullValue`.
    constexpr bool valid() const { return value() != nullValue; }

    static constexpr const char* typeName = "Pavo::MplsStackEntryIndex";
    static constexpr const char* rangeText =
        "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > MplsStackEntryIndex::nullValue "
        "not allowed";
    MplsStackEntryIndex(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit MplsStackEntryIndex(std::string_view text) { readWhole(text); }
    /// Gives `rangeText` for any number past 7.
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
};
static_assert(sizeof(MplsStackEntryIndex) == 1 &&
              std::is_trivially_copyable_v<MplsStackEntryIndex>);

}  // namespace Pavo
