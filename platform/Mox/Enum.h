/// @file
/// Enumerations with text names and checked conversion from numbers, each from one table.
///
/// An enumeration is 32 bits wide and stands beside one function that names its members:
///
///     enum class Colour : uint32_t { red = 1, green = 2 };
///     constexpr auto enumDescription(Colour) {
///         return Mox::enumeration<Colour>("Invalid Colour",
///                                         {{Colour::red, "red"}, {Colour::green, "green"}});
///     }
#pragma once

#include <array>
#include <concepts>
#include <cstdint>
#include <ostream>
#include <string_view>
#include <type_traits>

#include "Mox/Exception.h"
#include "Mox/NboAttrLog.h"
#include "Mox/Text.h"

namespace Mox {

template <class E>
struct Enumerator {
    E value;
    std::string_view name;
};

/// A table of members, and the text of the range error for what is not among them. A value may
/// stand under several names: all are read, the first is printed.
template <class E, std::size_t count>
struct EnumDescription {
    const char* invalidText;
    std::array<Enumerator<E>, count> members;
};

template <class E, std::size_t count>
constexpr EnumDescription<E, count> enumeration(const char* invalidText,
                                                const Enumerator<E> (&members)[count]) {
    return {invalidText, std::to_array(members)};
}

template <class E>
concept Enum = std::is_enum_v<E> && sizeof(E) == 4 && requires(E e) {
    enumDescription(e);
};

template <Enum E>
inline constexpr auto enumTable = enumDescription(E());

/// For the numbers below 256 the place of their first member in the table, counted from 1: numbers
/// out of packets are looked up without a search.
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

/// The member with the number `value`, or null.
template <Enum E>
constexpr const Enumerator<E>* findEnumerator(uint32_t value) {
    if (value < enumIndex<E>.size()) {
        const uint16_t place = enumIndex<E>[value];
        return place == 0 ? nullptr : &enumTable<E>.members[place - 1u];
    }
    for (const auto& member : enumTable<E>.members) {
        if (static_cast<uint32_t>(member.value) == value) {
            return &member;
        }
    }
    return nullptr;
}

/// @throws Mox::RangeException with the enumeration's own text, "Invalid <Type>".
template <Enum E>
E enumValue(uint32_t value) {
    const auto* member = findEnumerator<E>(value);
    if (member == nullptr) {
        throwRangeException(enumTable<E>.invalidText);
    }
    return member->value;
}

/// Returns null, or the text of the range error. Takes the longest name that stands here whole: a
/// letter, a digit or "_" behind it would belong to another name.
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

/// The whole of `text` as a member's name.
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

/// The name of a member; of a number that is no member, the number in decimal.
template <Enum E>
void printEnum(TextWriter& out, E value) {
    const auto* member = findEnumerator<E>(static_cast<uint32_t>(value));
    if (member != nullptr) {
        out.text(member->name);
    } else {
        out.decimalSigned(static_cast<std::underlying_type_t<E>>(value));
    }
}

template <Enum E>
String stringValue(E value) {
    char buffer[128];
    TextWriter out(buffer, sizeof(buffer));
    printEnum(out, value);
    out.finish();
    return String(buffer);
}

template <Enum E>
String valueToStrep(E value) {
    return stringValue(value);
}

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

template <Enum E>
NboAttrLog::Out& operator<<(NboAttrLog::Out& out, E value) {
    out.u32(static_cast<uint32_t>(value));
    return out;
}

}  // namespace Mox
