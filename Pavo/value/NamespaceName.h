/// @file
/// Names of network namespaces.
#pragma once

#include <compare>
#include <cstdint>

#include "Mox/String.h"
#include "Mox/ValueType.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"

namespace Pavo {

/// The name of a network namespace: any text of at most 150 bytes. The empty name, which is the
/// default, and `defaultNamespace()` both mean the namespace in which the process started. Text is
/// the name, and all of the input is read as one. Ordered byte by byte.
class NamespaceName : public Mox::ValueType<NamespaceName> {
  public:
    static constexpr uint32_t maxBytes = 150;

    NamespaceName() = default;
    /// @throws Mox::RangeException "NamespaceName::value::bytes > 150 not allowed"
    explicit NamespaceName(const Mox::String& value) { valueIs(value); }
    /// @throws Mox::RangeException "NamespaceName::value::bytes > 150 not allowed"
    NamespaceName(TextIt& it, const TextIt& end) { readText(it, end); }
    /// @throws Mox::RangeException "NamespaceName::value::bytes > 150 not allowed"
    NamespaceName(Mox::NboAttrLog::In* in, Mox::StreamBogon) { valueIs(in->string()); }

    /// The name of the namespace in which the process started.
    PAVO_EXPORT static NamespaceName defaultNamespace();

    const Mox::String& value() const { return value_; }
    /// @throws Mox::RangeException "NamespaceName::value::bytes > 150 not allowed"; the name is
    /// then unchanged.
    PAVO_EXPORT void valueIs(const Mox::String& value);

    /// Not empty.
    explicit operator bool() const { return !value_.empty(); }

    friend bool operator==(const NamespaceName&, const NamespaceName&) = default;
    friend auto operator<=>(const NamespaceName&, const NamespaceName&) = default;

    static constexpr const char* leftoverText = "NamespaceName::value::bytes > 150 not allowed";
    static constexpr auto description() {
        return Mox::record("Pavo::NamespaceName", Mox::field("value", &NamespaceName::value_));
    }
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    void print(Mox::TextWriter& out) const { out.text(value_); }

  private:
    Mox::String value_;
};

}  // namespace Pavo
