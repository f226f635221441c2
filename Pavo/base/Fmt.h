/// @file
/// Values in `fmt::format`, for programs that use {fmt}; the library itself does not.
///
/// `{}` is the canonical text, that of `stringValue()`. Fill, alignment, width and precision are
/// those of a string: `fmt::format("{:>15}", address)`.
#pragma once

#include <fmt/format.h>

#include <string_view>

#include "Mox/ValueType.h"

/// Formats every value type as its canonical text.
template <Mox::Value T>
struct fmt::formatter<T, char> : fmt::formatter<std::string_view, char> {
    /// Writes the canonical text under the format of a string.
    template <class Context>
    auto format(const T& value, Context& context) const {
        return fmt::formatter<std::string_view, char>::format(value.stringValue().view(), context);
    }
};
