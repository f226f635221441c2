/// @file
/// The record of a class: its name, its base and its attributes, from which come the numbering of
/// attributes and the text of their values. Each class writes it once, as `description()`:
///
///     class Link : public Mox::EntityOf<Link> {
///       public:
///         static constexpr Mox::Attribute<Link> mtuAttr{0, "mtu"};
///         static constexpr Mox::Attribute<Link, IpAddr> addressAttr{1, "address"};
///         static constexpr auto description() {
///             return Mox::classRecord("Example::Link", Mox::attribute(mtuAttr, &Link::mtu),
///                                     Mox::attribute(addressAttr));
///         }
#pragma once

#include <array>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Mox/Export.h"
#include "Mox/Ptr.h"
#include "Mox/Record.h"
#include "Mox/String.h"
#include "Mox/Text.h"

namespace Mox {

/// The attributes of an entity and of its bases are at most this many.
inline constexpr uint32_t maxAttributes = 64;

/// The number and the name of an attribute, each unique in the chain of an entity's classes.
struct AttributeBase {
    /// Below `maxAttributes`.
    uint8_t number;
    /// Of static storage, as every name here.
    const char* name;
};

/// The token of an attribute of `T`; `Key` is given for a collection, whose changes name the member
/// that changed. The numbers of a class follow those of its base, without a gap; one above 63 does
/// not compile.
template <class T, class... Key>
struct Attribute : AttributeBase {
    /// The class that has the attribute.
    using Owner = T;

    /// A number above 63 does not compile.
    constexpr Attribute(uint8_t attributeNumber, const char* attributeName)
        : AttributeBase{checked(attributeNumber), attributeName} {}

  private:
    static constexpr uint8_t checked(uint8_t given) {
        return given < maxAttributes ? given : throw "attribute numbers are 0 to 63";
    }
};

/// An attribute in the record of a class.
struct AttributeRecord : AttributeBase {
    /// Prints the value that `object`, of this class, has; null for a collection.
    void (*print)(const PtrInterface& object, TextWriter& out);
};

/// A class's qualified name, its base's record, and the attributes that it adds.
struct FwkType {
    /// With its namespace: "Mox::Entity".
    const char* name;
    /// Null for `PtrInterface`.
    const FwkType* base;
    /// In the order of their numbers, without those of the bases.
    std::span<const AttributeRecord> attributes;
    /// The number of those that the bases have.
    uint32_t baseAttributes;

    /// Whether this is the record of the class of `other` or of one derived from it. Plug-ins that
    /// show no symbols have records of their own, so an equal name is the same class.
    bool isA(const FwkType& other) const {
        return this == &other || std::string_view(name) == other.name ||
               (base != nullptr && base->isA(other));
    }
    /// The attribute of that name, or null.
    const AttributeRecord* attribute(std::string_view attributeName) const {
        for (const AttributeRecord& each : attributes) {
            if (each.name == attributeName) {
                return &each;
            }
        }
        return base == nullptr ? nullptr : base->attribute(attributeName);
    }
};

/// How many attributes of a class and its bases have that name.
constexpr uint32_t attributesNamed(const FwkType& type, std::string_view name) {
    uint32_t count = 0;
    for (const AttributeRecord& each : type.attributes) {
        count += each.name == name ? 1U : 0U;
    }
    // The base is not compared with null, which g++ does not evaluate with its sanitizers on.
    return type.baseAttributes == 0 ? count : count + attributesNamed(*type.base, name);
}

/// The fault of the numbers and names that a class adds to those of its bases, or null.
constexpr const char* attributeFault(const FwkType& type) {
    uint32_t next = type.baseAttributes;
    for (const AttributeRecord& each : type.attributes) {
        if (each.number != next++) {
            return "a number does not follow the one before";
        }
        if (attributesNamed(type, each.name) != 1) {
            return "a name is used twice";
        }
    }
    return next <= maxAttributes ? nullptr : "there are more than 64 attributes";
}

/// An attribute as a description lists it; `Getter` is null for a collection.
template <class Owner, class Getter>
struct AttributeDescription : AttributeBase {
    /// The member function that yields the value.
    Getter getter;
};

/// An attribute with the getter of its value.
template <class Owner, class Class, class Value>
constexpr AttributeDescription<Owner, Value (Class::*)() const> attribute(
    const Attribute<Owner>& token, Value (Class::*getter)() const) {
    return {token, getter};
}
/// An attribute that is a collection, whose values are not printed.
template <class Owner, class Key>
constexpr AttributeDescription<Owner, std::nullptr_t> attribute(
    const Attribute<Owner, Key>& token) {
    return {token, nullptr};
}

/// What `classRecord` yields.
///
/// Members: the arguments of `classRecord`.
template <class... Attributes>
struct ClassDescription {
    const char* name;
    std::tuple<Attributes...> attributes;
};

/// The description of a class: its qualified name, and its attributes in the order of their
/// numbers.
template <class... Owner, class... Getter>
constexpr ClassDescription<AttributeDescription<Owner, Getter>...> classRecord(
    const char* name, AttributeDescription<Owner, Getter>... attributes) {
    return {name, {attributes...}};
}

namespace Detail {

template <class T>
void printValue(TextWriter& out, const T& value) {
    if constexpr (std::same_as<T, String>) {
        out.text(value.view());
    } else if constexpr (requires { value.printText(out); }) {
        value.printText(out);
    } else if constexpr (requires { Codec<T>::print(out, value); }) {
        Codec<T>::print(out, value);
    } else if constexpr (std::is_enum_v<T>) {
        printValue(out, static_cast<std::underlying_type_t<T>>(value));
    } else if constexpr (std::floating_point<T>) {
        char text[32];
        const auto end = std::to_chars(text, text + sizeof(text), value).ptr;
        out.text({text, static_cast<std::size_t>(end - text)});
    } else if (value == nullptr) {
        out.text("null");
    } else if constexpr (requires { value->fwkType(); }) {
        String name;
        if constexpr (requires { name = value->name(); }) {
            name = value->name();
        }
        out.text(name.empty() ? value->fwkType()->name : name.view());
    } else {
        out.text("set");
    }
}

template <class Self>
struct MOX_EXPORT TypeRecord {
    static constexpr auto description = Self::description();

    template <std::size_t index>
    static void print(const PtrInterface& object, TextWriter& out) {
        constexpr auto getter = std::get<index>(description.attributes).getter;
        printValue(out, (static_cast<const Self&>(object).*getter)());
    }

    template <std::size_t index, class Owner, class Getter>
    static constexpr AttributeRecord recordOf(const AttributeDescription<Owner, Getter>& each) {
        static_assert(std::same_as<Owner, Self>, "a class describes its own attributes only");
        if constexpr (std::same_as<Getter, std::nullptr_t>) {
            return {each, nullptr};
        } else {
            return {each, print<index>};
        }
    }

    static constexpr auto attributes = []<std::size_t... index>(std::index_sequence<index...>) {
        return std::array<AttributeRecord, sizeof...(index)>{
            recordOf<index>(std::get<index>(description.attributes))...};
    }
    (std::make_index_sequence<std::tuple_size_v<decltype(description.attributes)>>());

    using Base = TypeRecord<typename Self::DescribedBase::DescribedClass>;
    static constexpr FwkType value{
        description.name, &Base::value, attributes,
        Base::value.baseAttributes + static_cast<uint32_t>(Base::value.attributes.size())};
    static_assert(attributeFault(value) == nullptr,
                  "the attributes of a class are listed in the order of their numbers, which "
                  "follow those of its base without a gap, and each has a name of its own");
    static_assert(value.name != std::string_view(Base::value.name),
                  "each class has a description() of its own");
};

template <>
struct MOX_EXPORT TypeRecord<PtrInterface> {
    static constexpr FwkType value{"Mox::PtrInterface", nullptr, {}, 0};
};

}  // namespace Detail

/// The record of `T`, or of its nearest base that has one.
template <std::derived_from<PtrInterface> T>
constexpr const FwkType& fwkTypeOf() {
    return Detail::TypeRecord<typename T::DescribedClass>::value;
}

/// The layer between a class, `Self`, and its base that answers `fwkType()` with the record made
/// from `Self::description()`.
template <class Self, std::derived_from<PtrInterface> Base = PtrInterface>
class MOX_EXPORT Described : public Base {
  public:
    /// The class that wrote the record.
    using DescribedClass = Self;
    /// The class whose record is the base of it.
    using DescribedBase = Base;

    /// The record of `Self`.
    const FwkType* fwkType() const override { return &fwkTypeOf<Self>(); }

  protected:
    /// The arguments are those of the base.
    template <class... Args>
    explicit Described(Args&&... args) : Base(std::forward<Args>(args)...) {}
    ~Described() override = default;
};

/// The value of an attribute as text: a value type's canonical text, a decimal number, "true" or
/// "false", a string as it is, the name or the class of an object, "null" for none, and "set" for a
/// pointer to anything else. Nothing for a collection, and for a name that `object` does not have.
MOX_EXPORT std::optional<String> attributeText(const PtrInterface& object, std::string_view name);

}  // namespace Mox
