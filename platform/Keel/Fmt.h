/// @file
/// Values as text, for formatted output.
#pragma once

#include "Mox/Enum.h"
#include "Mox/String.h"
#include "Mox/ValueType.h"

namespace KeelFmt {

/// What `value.stringValue()` gives.
template <Mox::Value T>
Mox::String to_string(const T& value) {
    return value.stringValue();
}

/// The name of a member; of a number that is no member, the number in decimal.
template <Mox::Enum E>
Mox::String to_string(E value) {
    return Mox::stringValue(value);
}

}  // namespace KeelFmt
