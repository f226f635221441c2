/// @file
/// Names of network namespaces.
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

/// The name of a network namespace: text of at most 150 bytes without a NUL, at which file names
/// end. The empty name, which is the default, and `defaultNamespace()` both mean the namespace in
/// which the process started. The whole input of a parser is the name; as a field of a record the
/// name is in quotes, as a string is. Ordered byte by byte.
///
/// Constructors and the setter throw Mox::RangeException with
/// "NamespaceName::value::bytes > 150 not allowed" or, for a NUL, "Invalid NamespaceName".
class NamespaceName : public Mox::ValueType<NamespaceName> {
  public:
    /// The greatest length, without the NUL.
    static constexpr uint32_t maxBytes = 150;

    NamespaceName() = default;
    /// Copies the name.
    explicit NamespaceName(const Mox::String& value) { valueIs(value); }
    NamespaceName(TextIt& it, const TextIt& end) { readText(it, end); }
    NamespaceName(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The name of the namespace in which the process started.
    PAVO_EXPORT static NamespaceName defaultNamespace();

    /// Empty by default, which is not equal to `defaultNamespace()`.
    const Mox::String& value() const MOX_LIFETIME_BOUND { return value_; }
    /// A name that is refused leaves the value unchanged.
    PAVO_EXPORT void valueIs(const Mox::String& value);

    /// Not empty.
    explicit operator bool() const { return !value_.empty(); }

    friend auto operator<=>(const NamespaceName&, const NamespaceName&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::NamespaceName", Mox::field("value", &NamespaceName::value_));
    }
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    const char* check() const { return errorOf(value_); }
    void print(Mox::TextWriter& out) const { out.text(value_); }

  private:
    // Null, or the text of the range error.
    PAVO_EXPORT static const char* errorOf(std::string_view value);

    Mox::String value_;
};

}  // namespace Pavo

/// A record shows a name in quotes.
template <>
struct Mox::Codec<Pavo::NamespaceName> : Pavo::QuotedCodec<Pavo::NamespaceName> {};
