/// @file
/// Enumerations with text names and checked conversion from numbers, each from one table.
///
/// An enumeration is 32 bits wide. Its namespace names the functions below, which
/// argument-dependent lookup would not find otherwise, and has a function that describes the
/// members:
///
///     namespace agent {
///
///     using Mox::operator<<;
///     using Mox::enumValue;
///     using Mox::sequenceToValue;
///     using Mox::strepToValue;
///     using Mox::stringValue;
///     using Mox::valueToStrep;
///
///     enum class Colour : uint32_t { red = 1, green = 2 };
///     constexpr auto enumDescription(Colour) {
///         return Mox::enumeration<Colour>("Invalid Colour",
///                                         {{Colour::red, "red"}, {Colour::green, "green"}});
///     }
///
///     }  // namespace agent
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string_view>
#include <type_traits>

#include "Mox/Exception.h"
#include "Mox/NboAttrLog.h"
#include "Mox/Text.h"

namespace Mox {

/// One row of the table: a value and a name of it.
///
/// Members: the two parts of the row.
template <class E>
struct Enumerator {
    E value;
    std::string_view name;
};

/// A table of members, and the text of the range error for names and numbers that are not in it. A
/// value may have several names: all are read, the first is printed. A name twice does not compile.
template <class E, std::size_t count>
struct EnumDescription {
    /// The text of the range error.
    const char* invalidText;
    /// In any order; of several names of a value the first is printed.
    std::array<Enumerator<E>, count> members;
};

/// The table that an `enumDescription` returns.
template <class E, std::size_t count>
constexpr EnumDescription<E, count> enumeration(const char* invalidText,
                                                const Enumerator<E> (&members)[count]) {
    return {invalidText, std::to_array(members)};
}

/// An enumeration of 32 bits with an `enumDescription`: it has a text and a log form.
template <class E>
concept Enum = std::is_enum_v<E> && sizeof(E) == 4 && requires(E e) {
    enumDescription(e);
};

/// No name stands twice in the table.
template <class E, std::size_t count>
constexpr bool hasUniqueNames(const EnumDescription<E, count>& about) {
    for (std::size_t i = 0; i < count; ++i) {
        for (std::size_t j = 0; j < i; ++j) {
            if (about.members[i].name == about.members[j].name) {
                return false;
            }
        }
    }
    return true;
}

/// The table of `E`, checked at compile time.
template <Enum E>
inline constexpr auto enumTable = [] {
    constexpr auto table = enumDescription(E());
    static_assert(hasUniqueNames(table), "each name of an enumeration stands for one value");
    return table;
}();

/// For each number below 256 the index of its first member in the table plus 1, or 0, so that
/// numbers from packets are looked up without a search.
template <Enum E>
inline constexpr auto enumIndex = [] {
    std::array<uint16_t, 256> index{};
    const auto& members = enumTable<E>.members;
    for (std::size_t i = members.size(); i-- != 0;) {
        const auto value = static_cast<uint32_t>(members[i].value);
        if (value < index.size()) {
            index[value] = static_cast<uint16_t>(i + 1);
        }
    }
    return index;
}();

/// The first member with the number `value`, or null.
template <Enum E>
constexpr const Enumerator<E>* findEnumerator(uint32_t value) {
    if (value < enumIndex<E>.size()) {
        const uint16_t index = enumIndex<E>[value];
        return index == 0 ? nullptr : &enumTable<E>.members[index - 1u];
    }
    for (const auto& member : enumTable<E>.members) {
        if (static_cast<uint32_t>(member.value) == value) {
            return &member;
        }
    }
    return nullptr;
}

/// The member with the number `value`.
/// @throws Mox::RangeException with the enumeration's own text, "Invalid <Type>".
template <Enum E>
E enumValue(uint32_t value) {
    const auto* member = findEnumerator<E>(value);
    if (member == nullptr) {
        throwRangeException(enumTable<E>.invalidText);
    }
    return member->value;
}

/// Reads all letters, digits and "_" from here on as one name. Returns null or the text of the
/// range error; nothing is changed on failure.
template <Enum E>
const char* parseEnum(TextCursor& in, E* value) {
    std::size_t length = 0;
    for (const char c : in.rest()) {
        const bool inName =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
        if (!inName) {
            break;
        }
        ++length;
    }
    const std::string_view name = in.rest().substr(0, length);
    for (const auto& member : enumTable<E>.members) {
        if (member.name == name) {
            *value = member.value;
            in.atIs(in.at() + length);
            return nullptr;
        }
    }
    return enumTable<E>.invalidText;
}

/// The member whose name is the whole of `text`.
/// @throws Mox::RangeException with the enumeration's own text.
template <Enum E>
E enumValue(const String& text) {
    TextCursor in(text.view());
    E value{};
    if (parseEnum(in, &value) != nullptr || !in.atEnd()) {
        throwRangeException(enumTable<E>.invalidText);
    }
    return value;
}

/// Prints the name of a member, or the number in decimal where it is no member's.
template <Enum E>
void printEnum(TextWriter& out, E value) {
    const auto* member = findEnumerator<E>(static_cast<uint32_t>(value));
    if (member != nullptr) {
        out.text(member->name);
    } else {
        out.decimalSigned(static_cast<std::underlying_type_t<E>>(value));
    }
}

/// The text of `printEnum`.
template <Enum E>
String stringValue(E value) {
    return printedString([value](TextWriter& out) { printEnum(out, value); });
}

/// The same as `stringValue`.
template <Enum E>
String valueToStrep(E value) {
    return stringValue(value);
}

/// Reads the whole of `strep` as a name.
/// @throws Mox::RangeException with the enumeration's own text; `*value` is then unchanged.
template <Enum E>
void strepToValue(const String& strep, E* value) {
    *value = enumValue<E>(strep);
}

/// Reads a name at `it` and moves `it` past it.
/// @throws Mox::RangeException with the enumeration's own text; `it` and `*value` are then
/// unchanged.
template <Enum E>
void sequenceToValue(String::IteratorConst& it, const String::IteratorConst& end, E* value) {
    TextCursor in(it, end);
    if (const char* error = parseEnum(in, value)) {
        throwRangeException(error);
    }
    it = in.at();
}

template <Enum E>
std::ostream& operator<<(std::ostream& out, E value) {
    return out << stringValue(value);
}

/// The number, in 32 bits.
template <Enum E>
NboAttrLog::Out& operator<<(NboAttrLog::Out& out, E value) {
    out.u32(static_cast<uint32_t>(value));
    return out;
}

}  // namespace Mox
