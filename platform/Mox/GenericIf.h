/// @file
/// Type-erased access to value types: one table of functions for each type, for tools that show,
/// store and edit values by name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "Mox/Record.h"
#include "Mox/Strep.h"
#include "Mox/String.h"
#include "Mox/Text.h"
#include "Mox/ValueType.h"

namespace Mox {

/// Constructs the default value in `memory`, which must have the type's size and alignment.
template <Value T>
T* genericIfConstruct(void* memory) {
    return new (memory) T();
}
/// The strep of the value.
template <Value T>
String genericIfStrRep(const T& value) {
    return valueToStrep(value);
}
/// @throws Mox::RangeException with the type's text; `*value` is then unchanged.
template <Value T>
void genericIfStrepToValue(const String& strep, T* value) {
    strepToValue(strep, value);
}
/// The hash of the value, without a seed.
template <Value T>
uint32_t genericIfHash(const T& value) {
    return value.hash();
}

/// The operations of one value type on memory that holds such a value.
struct GenericIf {
    /// A field, and the function that writes its strep; `value` is the address of the whole value.
    ///
    /// Members: the name of the field, and the function.
    struct Attribute {
        std::string_view name;
        String (*strep)(const void* value);
    };

    /// With its namespace.
    std::string_view typeName;
    /// Of a value, in bytes.
    uint32_t size;
    /// As `genericIfConstruct`.
    void (*construct)(void* memory);
    /// Calls the destructor; the memory is the caller's.
    void (*destroy)(void* value);
    /// As `genericIfStrRep`.
    String (*strRep)(const void* value);
    /// As `genericIfStrepToValue`.
    void (*strepToValue)(const String& strep, void* value);
    /// As `genericIfHash`.
    uint32_t (*hash)(const void* value);
    /// The fields that have a strep, in declaration order.
    std::vector<Attribute> attributes;
};

/// The strep of a record shows a field of this type.
template <class Member>
concept HasFieldStrep = requires(TextWriter& out, const Member& member) {
    Codec<Member>::print(out, member);
};

/// Appends field `i` of `T` where it has a strep, which byte arrays have not.
template <Value T, std::size_t i>
void appendAttribute(std::vector<GenericIf::Attribute>* attributes) {
    static constexpr auto field = std::get<i>(T::description().fields);
    using Member = std::remove_cvref_t<decltype(std::declval<T&>().*field.member)>;
    if constexpr (HasFieldStrep<Member>) {
        attributes->push_back({field.name, [](const void* value) {
                                   return printedString([value](TextWriter& out) {
                                       Codec<Member>::print(
                                           out, static_cast<const T*>(value)->*field.member);
                                   });
                               }});
    }
}

/// The table of `T`, made at the first call.
template <Value T>
const GenericIf& genericIf() {
    static const GenericIf table = [] {
        static constexpr auto about = T::description();
        GenericIf made{
            about.typeName,
            sizeof(T),
            [](void* memory) { genericIfConstruct<T>(memory); },
            [](void* value) { static_cast<T*>(value)->~T(); },
            [](const void* value) { return genericIfStrRep(*static_cast<const T*>(value)); },
            [](const String& strep, void* value) {
                genericIfStrepToValue(strep, static_cast<T*>(value));
            },
            [](const void* value) { return genericIfHash(*static_cast<const T*>(value)); },
            {}};
        [&made]<std::size_t... i>(std::index_sequence<i...>) {
            (appendAttribute<T, i>(&made.attributes), ...);
        }
        (std::make_index_sequence<std::tuple_size_v<decltype(about.fields)>>());
        return made;
    }();
    return table;
}

}  // namespace Mox
