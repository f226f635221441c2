/// @file
/// Reading framework text by hand: for types whose text is not a plain record, and for callers that
/// hold a strep.
#pragma once

#include <string_view>

#include "Mox/Exception.h"
#include "Mox/Record.h"
#include "Mox/String.h"
#include "Mox/ValueType.h"

namespace Mox {

/// An unsigned decimal number: all digits from `it` on, leading zeros accepted.
/// @throws Mox::RangeException "Invalid number" without a digit or past 32 bits; `it` is unchanged.
inline uint32_t dectol(String::IteratorConst& it, const String::IteratorConst& end) {
    TextCursor in(it, end);
    uint32_t value = 0;
    if (!in.decimal(&value)) {
        throwRangeException("Invalid number");
    }
    it = in.at();
    return value;
}

/// Takes `literal`, which must stand at `it`.
/// @throws Mox::RangeException "Invalid text"; `it` is unchanged.
inline void needString(String::IteratorConst& it, const String::IteratorConst& end,
                       std::string_view literal) {
    TextCursor in(it, end);
    if (!in.take(literal)) {
        throwRangeException("Invalid text");
    }
    it = in.at();
}

/// Reads one field of a record at `it`.
/// @throws Mox::RangeException with the text of the field's type, or "Invalid text"; `it` and
/// `*value` are unchanged.
template <class T>
void deserializeAttr(String::IteratorConst& it, const String::IteratorConst& end, T* value) {
    TextCursor in(it, end);
    if (const char* error = Codec<T>::parse(in, value, "Invalid text")) {
        throwRangeException(error);
    }
    it = in.at();
}

/// Requires that nothing is left.
/// @throws Mox::RangeException with `leftoverText`.
inline void strepToValueEnd(const String::IteratorConst& it, const String::IteratorConst& end,
                            const char* leftoverText = "unexpected trailing characters") {
    if (it != end) {
        throwRangeException(leftoverText);
    }
}

/// Reads the whole of a strep.
/// @throws Mox::RangeException with the type's text; `*value` is then unchanged.
template <Value T>
void strepToValue(const String& strep, T* value) {
    T fresh{};
    auto it = strep.begin();
    sequenceToValue(it, strep.end(), &fresh);
    strepToValueEnd(it, strep.end(), T::leftoverText);
    *value = std::move(fresh);
}

template <Enum T>
void strepToValue(const String& strep, T* value) {
    *value = enumValue<T>(strep);
}

}  // namespace Mox
