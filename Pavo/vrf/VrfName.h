/// @file
/// Names of VRFs.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>

#include "Mox/Lifetime.h"
#include "Mox/String.h"
#include "Mox/ValueType.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/QuotedCodec.h"
#include "Pavo/base/ValueFunctions.h"

namespace Pavo {

/// The name of a VRF, as operators configure it: text of 1 to 255 bytes without white space and
/// without control characters, so that it is one word of a configuration or a table. Bytes from
/// 0x80 on, as of UTF-8, are allowed. The default is "default", the name of the default VRF. The
/// whole input of a parser is the name; as a field of a record the name is in quotes, as a string
/// is. Ordered byte by byte; upper and lower case differ.
///
/// Constructors and the setter throw Mox::RangeException with
/// "VrfName::value::bytes < 1 or > 255 not allowed" or, for a character that is not allowed,
/// "Invalid VrfName".
class VrfName : public Mox::ValueType<VrfName> {
  public:
    /// The greatest length.
    static constexpr uint32_t maxBytes = 255;

    VrfName() = default;
    /// Copies the name.
    explicit VrfName(const Mox::String& value) { valueIs(value); }
    VrfName(TextIt& it, const TextIt& end) { readText(it, end); }
    VrfName(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// "default" by default.
    const Mox::String& value() const MOX_LIFETIME_BOUND { return value_; }
    /// A name that is refused leaves the value unchanged.
    PAVO_EXPORT void valueIs(const Mox::String& value);

    /// "default".
    bool isDefault() const { return value_.view() == defaultText; }

    friend auto operator<=>(const VrfName&, const VrfName&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::VrfName", Mox::field("value", &VrfName::value_));
    }
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    const char* check() const { return errorOf(value_); }
    void print(Mox::TextWriter& out) const { out.text(value_); }

  private:
    static constexpr std::string_view defaultText = "default";

    // Null, or the text of the range error.
    PAVO_EXPORT static const char* errorOf(std::string_view value);

    Mox::String value_{defaultText};
};

}  // namespace Pavo

/// A record shows a name in quotes.
template <>
struct Mox::Codec<Pavo::VrfName> : Pavo::QuotedCodec<Pavo::VrfName> {};
