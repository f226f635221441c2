/// @file
/// Whole numbers with an upper bound, as values: the common part of the small protocol fields.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>

#include "Mox/ValueType.h"

#include "Pavo/base/ValueFunctions.h"

namespace Pavo {

/// A whole number from 0 to `most`, held as `Number`. Text is plain decimal, strep alike, the log
/// holds it as 32 bits, order is numeric. It is made from plain numbers without a cast, and gives
/// its number up on demand only (`value()`), so that two kinds of number never mix.
///
/// The type `T` itself derives from this, inherits the constructors, and names two texts:
/// `typeName` ("Pavo::IpTtl") and `rangeText` ("IpTtl::value < 0 or > 255 not allowed", for a
/// number past `most`).
template <class T, class Number, uint32_t most>
class Ordinal : public Mox::ValueType<T> {
  public:
    using typename Mox::ValueType<T>::TextIt;

    /// The greatest number that the type holds; the least is 0.
    static constexpr Number max = most;

    constexpr Ordinal() = default;
    /// @throws Mox::RangeException `T::rangeText` past `max`.
    constexpr Ordinal(uint32_t value) { valueIs(value); }
    /// @throws Mox::RangeException `T::invalidText`
    Ordinal(TextIt& it, const TextIt& end) { this->readText(it, end); }
    explicit Ordinal(std::string_view text) { this->readWhole(text); }
    /// @throws Mox::RangeException `T::rangeText` past `max`.
    Ordinal(Mox::NboAttrLog::In* in, Mox::StreamBogon) { valueIs(in->u32()); }

    /// The number, in host order.
    constexpr Number value() const { return value_; }
    /// @throws Mox::RangeException `T::rangeText` past `max`; the value is then unchanged.
    constexpr void valueIs(uint32_t value) {
        if (value > most) {
            Mox::throwRangeException(T::rangeText);
        }
        value_ = static_cast<Number>(value);
    }

    friend constexpr bool operator==(const T& a, const T& b) { return a.value() == b.value(); }
    friend constexpr std::strong_ordering operator<=>(const T& a, const T& b) {
        return a.value() <=> b.value();
    }

    static constexpr auto description() {
        return Mox::record(T::typeName, Mox::field<T, Number>("value", &Ordinal::value_));
    }
    const char* parse(Mox::TextCursor& in) {
        uint32_t number = 0;
        if (!in.decimal(&number) || number > most) {
            return T::invalidText;
        }
        value_ = static_cast<Number>(number);
        return nullptr;
    }
    void print(Mox::TextWriter& out) const { out.decimal(value_); }

  private:
    Number value_ = 0;
};

}  // namespace Pavo
