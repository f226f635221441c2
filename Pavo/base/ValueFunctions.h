/// @file
/// The framework's free functions on values, under Pavo's own name, so that `Pavo::sequenceToValue`
/// is found as `sequenceToValue(it, end, &address)` is; enumerations need them here to be found at
/// all.
#pragma once

#include "Mox/Strep.h"
#include "Mox/ValueType.h"

namespace Pavo {

using Mox::operator<<;
using Mox::enumValue;
using Mox::sequenceToValue;
using Mox::strepToValue;
using Mox::stringValue;
using Mox::valueToStrep;

}  // namespace Pavo
