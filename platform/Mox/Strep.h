/// @file
/// Reading streps: helpers for types that parse their own, and the conversion of a whole strep.
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>

#include "Mox/Exception.h"
#include "Mox/Record.h"
#include "Mox/String.h"
#include "Mox/Text.h"
#include "Mox/ValueType.h"

namespace Mox {

/// Reads all decimal digits from `it` on; leading zeros are accepted.
/// @throws Mox::RangeException "Invalid number" when there is no digit or the number exceeds 32
/// bits; `it` is then unchanged.
inline uint32_t dectol(String::IteratorConst& it, const String::IteratorConst& end) {
    TextCursor in(it, end);
    uint32_t value = 0;
    if (!in.decimal(&value)) {
        throwRangeException("Invalid number");
    }
    it = in.at();
    return value;
}

/// Moves `it` past `literal`.
/// @throws Mox::RangeException "Invalid text" when `literal` is not next; `it` is then unchanged.
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
/// `*value` are then unchanged.
template <class T>
void deserializeAttr(String::IteratorConst& it, const String::IteratorConst& end, T* value) {
    TextCursor in(it, end);
    if (const char* error = Codec<T>::parse(in, value, "Invalid text")) {
        throwRangeException(error);
    }
    it = in.at();
}

/// Checks that no text is left.
/// @throws Mox::RangeException with `leftoverText` when there is.
inline void strepToValueEnd(const String::IteratorConst& it, const String::IteratorConst& end,
                            const char* leftoverText = "unexpected trailing characters") {
    if (it != end) {
        throwRangeException(leftoverText);
    }
}

/// Reads the whole of `strep`.
/// @throws Mox::RangeException with the type's text; `*value` is then unchanged.
template <Value T>
void strepToValue(const String& strep, T* value) {
    T fresh{};
    auto it = strep.begin();
    sequenceToValue(it, strep.end(), &fresh);
    strepToValueEnd(it, strep.end(), fresh.leftoverText());
    *value = std::move(fresh);
}

}  // namespace Mox
