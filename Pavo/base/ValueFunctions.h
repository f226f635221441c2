/// @file
/// The framework's free functions on values, under Pavo's own name, so that `Pavo::sequenceToValue`
/// is found as `sequenceToValue(it, end, &address)` is; enumerations need them here to be found at
/// all. A value `T` is read from text by
/// - `T(text)` and `fromText<T>(text)`: the whole text, or a `Mox::RangeException` with the type's
///   text; the second for templates, since it knows every type
/// - `tryParse<T>(text)`: the whole text, or nothing, for text that may well be wrong; never throws
/// - `value.stringValueIs(text)`: the whole text, or an exception that leaves the value unchanged
/// - `sequenceToValue(it, end, &value)`: as much text as belongs to the value, `it` then after it
///
/// and written by `value.stringValue()`, by `value.printToBuffer(buffer, size)`, which allocates
/// nothing, and by `{}` in a format (`Pavo/Format.h`, `Pavo/Fmt.h`). `<<` to a stream writes the
/// strep, which for types whose strep is a record, such as labels, is another text.
#pragma once

#include "Mox/Strep.h"
#include "Mox/ValueType.h"

namespace Pavo {

using Mox::operator<<;
using Mox::enumValue;
using Mox::fromText;
using Mox::sequenceToValue;
using Mox::strepToValue;
using Mox::stringValue;
using Mox::tryParse;
using Mox::valueToStrep;

}  // namespace Pavo
