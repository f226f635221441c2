/// @file
/// The text of values, for formatted output.
#pragma once

#include "Mox/Enum.h"
#include "Mox/String.h"
#include "Mox/ValueType.h"

namespace KeelFmt {

/// `value.stringValue()`.
template <Mox::Value T>
Mox::String to_string(const T& value) {
    return value.stringValue();
}

/// The name of a member, or the number in decimal where it is no member's.
template <Mox::Enum E>
Mox::String to_string(E value) {
    return Mox::stringValue(value);
}

}  // namespace KeelFmt
