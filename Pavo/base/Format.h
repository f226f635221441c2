/// @file
/// Values in `std::format`, where the standard library has it; otherwise this header adds nothing,
/// and `Pavo/Fmt.h` does the same for {fmt}.
///
/// `{}` is the canonical text, that of `stringValue()`. Fill, alignment, width and precision are
/// those of a string: `std::format("{:>15}", address)`.
#pragma once

#include <version>

#ifdef __cpp_lib_format
#include <format>
#include <string_view>

#include "Mox/ValueType.h"

template <Mox::Value T>
struct std::formatter<T, char> : std::formatter<std::string_view, char> {
    template <class Context>
    auto format(const T& value, Context& context) const {
        return std::formatter<std::string_view, char>::format(value.stringValue().view(), context);
    }
};
#endif
