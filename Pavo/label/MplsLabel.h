/// @file
/// MPLS labels, indices into stacks of them, and what the records of label stacks are read with.
#pragma once

#include <compare>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "Mox/ValueType.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/Ordinal.h"
#include "Pavo/base/ValueFunctions.h"

namespace Pavo {

/// Reads all digits of a number from 0 to `most`. Returns null, `rangeText` for a greater number,
/// and `invalid` where there is no digit; the last two change nothing.
PAVO_EXPORT const char* parseUpTo(Mox::TextCursor& in, uint32_t most, uint32_t* value,
                                  const char* rangeText, const char* invalid);

/// A field with an upper bound in a record. `Rule` names the `Number` that holds it, the number
/// `initial`, the greatest one, `most`, and `rangeText`, the error for more in text and log.
template <class Rule>
struct LimitedField {
    typename Rule::Number number = Rule::initial;

    friend constexpr auto operator<=>(const LimitedField&, const LimitedField&) = default;
};

/// An MPLS label, in host order. Numbers up to `maxValue` are labels of 20 bits as packets have
/// them (RFC 3032, 2.1; reserved ones: IANA, "Special-Purpose MPLS Label Values"); the named ones
/// above are markers in configuration and state. `stringValue()` is the number.
class MplsLabel : public Mox::ValueType<MplsLabel> {
  public:
    enum WellKnownValue : uint32_t {
        explicitNullIpv4Value = 0,
        routerAlertValue = 1,
        explicitNullIpv6Value = 2,
        /// Never in a packet: asks the router before to take the label off.
        implicitNullValue = 3,
        /// Stands directly above an entropy label (RFC 6790, 4.2).
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
    static constexpr const char* rangeText =
        "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed";

    constexpr MplsLabel() = default;
    /// @throws Mox::RangeException `rangeText` past `luWithdrawLabelValue`.
    constexpr MplsLabel(uint32_t value) { valueIs(value); }
    MplsLabel(TextIt& it, const TextIt& end) { readText(it, end); }
    /// @throws Mox::RangeException `rangeText` past `luWithdrawLabelValue`.
    MplsLabel(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    constexpr uint32_t value() const { return value_.number; }
    /// @throws Mox::RangeException `rangeText` past `luWithdrawLabelValue`; nothing changes then.
    constexpr void valueIs(uint32_t value) {
        if (value > luWithdrawLabelValue) {
            Mox::throwRangeException(rangeText);
        }
        value_.number = value;
    }

    /// 0 or 2.
    constexpr bool isExplicitNull() const {
        return value() == explicitNullIpv4Value || value() == explicitNullIpv6Value;
    }
    constexpr bool isImplicitNull() const { return value() == implicitNullValue; }
    /// The indicator or the mark of an entropy label, which stacks hold as positions and never as
    /// labels.
    constexpr bool isEntropyMarker() const {
        return value() == entropyLabelIndicatorValue || value() == entropyLabelValue;
    }

    /// The number, behind a name where it has one: "imp-null(3)"; the markers above 20 bits by name
    /// alone: "N/A", "(any)", "(entropy)", "(lu-withdraw)".
    PAVO_EXPORT Mox::String prettyString() const;
    PAVO_EXPORT void printPretty(Mox::TextWriter& out) const;

    friend constexpr auto operator<=>(const MplsLabel&, const MplsLabel&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::MplsLabel", Mox::field("value", &MplsLabel::value_));
    }
    void print(Mox::TextWriter& out) const { out.decimal(value()); }

  private:
    struct ValueRule {
        using Number = uint32_t;
        static constexpr Number initial = nullValue;
        static constexpr Number most = luWithdrawLabelValue;
        static constexpr const char* rangeText = MplsLabel::rangeText;
    };

    LimitedField<ValueRule> value_;
};
static_assert(sizeof(MplsLabel) == 4 && std::is_trivially_copyable_v<MplsLabel>);

/// The place of an ordinary label in a bounded stack, 0 for the top, to 6; 7 for none.
class MplsStackEntryIndex : public Ordinal<MplsStackEntryIndex, uint8_t, 7> {
  public:
    using Ordinal::Ordinal;

    static constexpr uint8_t nullValue = 7;

    constexpr bool valid() const { return value() != nullValue; }

    static constexpr const char* typeName = "Pavo::MplsStackEntryIndex";
    static constexpr const char* rangeText =
        "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > MplsStackEntryIndex::nullValue "
        "not allowed";
    MplsStackEntryIndex(TextIt& it, const TextIt& end) { readText(it, end); }
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
};
static_assert(sizeof(MplsStackEntryIndex) == 1 &&
              std::is_trivially_copyable_v<MplsStackEntryIndex>);

}  // namespace Pavo

namespace Mox {

template <class Rule>
struct Codec<Pavo::LimitedField<Rule>> {
    using Limited = Pavo::LimitedField<Rule>;
    using Number = typename Rule::Number;

    static const char* parse(TextCursor& in, Limited* value, const char* invalid) {
        uint32_t number = 0;
        const char* error = Pavo::parseUpTo(in, Rule::most, &number, Rule::rangeText, invalid);
        if (error == nullptr) {
            value->number = static_cast<Number>(number);
        }
        return error;
    }
    static void print(TextWriter& out, Limited value) { out.decimal(value.number); }
    static void toLog(NboAttrLog::Out& out, Limited value) { out.u32(value.number); }
    static void fromLog(NboAttrLog::In& in, Limited* value) {
        const uint32_t number = in.u32();
        if (number > Rule::most) {
            throwRangeException(Rule::rangeText);
        }
        value->number = static_cast<Number>(number);
    }
    static constexpr void mix(Hash& hash, Limited value) { hash.mix(value.number); }
};

/// Sequences of values: "[16, 17]", from the values' own texts; in the log a 32-bit count and the
/// values.
template <Value T>
struct Codec<std::vector<T>> {
    static void print(TextWriter& out, const std::vector<T>& values) {
        out.put('[');
        bool first = true;
        for (const T& each : values) {
            out.text(first ? "" : ", ");
            each.printText(out);
            first = false;
        }
        out.put(']');
    }
    static void toLog(NboAttrLog::Out& out, const std::vector<T>& values) {
        out.u32(static_cast<uint32_t>(values.size()));
        for (const T& each : values) {
            out << each;
        }
    }
    static void fromLog(NboAttrLog::In& in, std::vector<T>* values) {
        // One at a time: the count is not to be believed before the log has as much.
        for (uint32_t left = in.u32(); left != 0; --left) {
            values->push_back(T(&in, StreamBogon()));
        }
    }
    static constexpr void mix(Hash& hash, const std::vector<T>& values) {
        hash.mix(static_cast<uint32_t>(values.size()));
        for (const T& each : values) {
            hash.mix(each.hash());
        }
    }
};

}  // namespace Mox
