/// @file
/// The base of every value type: text, strep, streams, log and hash from a few hooks.
///
/// A value type `T` derives from `Mox::ValueType<T>` and declares the hooks below; the first
/// is required. `parse`, `check` and `parseStrep` return null or the text of the range error, and
/// never throw; `fromLog` throws `Mox::RangeException`.
///
///     // The type's name and its fields, from which record text, log and seeded hash follow.
///     static constexpr auto description() {
///         return Mox::record("ns::T", Mox::field("port", &T::port_));
///     }
///     // The error for bad text and for text after the value, where it is not "Invalid T".
///     // Functions of the class body that use it come after the description.
///     static constexpr const char* invalidText = "T expected";
///
///     // A text form of its own, which is also the strep. With `print` alone, `stringValue` gives
///     // that text, while strep and parsing stay those of the record.
///     const char* parse(Mox::TextCursor&);
///     void print(Mox::TextWriter&) const;
///     // Where the strep is the record: reads another text form. `stringValueIs` and `tryParse`
///     // read both then; texts that do not begin like a record are passed to this.
///     const char* parseText(Mox::TextCursor&);
///     // The rules between fields, checked when a record or a log has been read. A constructor
///     // from parts calls `requireValid`, which throws the text.
///     const char* check() const;
///     // The error for text after the value, where it depends on the value.
///     const char* leftoverText() const;
///     // A strep that is neither the text nor the record.
///     const char* parseStrep(Mox::TextCursor&);
///     void printStrep(Mox::TextWriter&) const;
///     // A log form of its own.
///     void toLog(Mox::NboAttrLog::Out&) const;
///     void fromLog(Mox::NboAttrLog::In&);
///
/// Its constructors from text and from a log call `readText`, `readWhole` and `readLog`:
///
///     T(TextIt& it, const TextIt& end) { readText(it, end); }
///     explicit T(std::string_view text) { readWhole(text); }
///     T(NboAttrLog::In* in, StreamBogon) { readLog(in); }
#pragma once

#include <array>
#include <compare>
#include <concepts>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string_view>
#include <utility>

#include "Mox/Exception.h"
#include "Mox/Hash.h"
#include "Mox/NboAttrLog.h"
#include "Mox/Record.h"
#include "Mox/Text.h"

namespace Mox {

template <class T>
class ValueType;

/// A value type: it derives from `ValueType<T>`.
template <class T>
concept Value = std::derived_from<T, ValueType<T>>;

/// `T` has the hook `parse`: a text form of its own that is read.
template <class T>
concept HasParse = requires(T& value, TextCursor& in) {
    { value.parse(in) } -> std::same_as<const char*>;
};
/// `T` has the hook `print`: a text form of its own that is written.
template <class T>
concept HasPrint = requires(const T& value, TextWriter& out) {
    value.print(out);
};
/// `T` has the hook `parseText`: a text form beside the record.
template <class T>
concept HasTextForm = requires(T& value, TextCursor& in) {
    { value.parseText(in) } -> std::same_as<const char*>;
};
/// `T` has the hook `check`: a rule between its fields.
template <class T>
concept HasCheck = requires(const T& value) {
    { value.check() } -> std::same_as<const char*>;
};
/// `T` has the hooks `parseStrep` and `printStrep`: a strep of its own.
template <class T>
concept HasStrepForm = requires(const T& value, T& target, TextWriter& out, TextCursor& in) {
    value.printStrep(out);
    { target.parseStrep(in) } -> std::same_as<const char*>;
};
/// `T` has the hooks `toLog` and `fromLog`: a log form of its own.
template <class T>
concept HasLogForm = requires(const T& value, T& target, NboAttrLog::Out& out, NboAttrLog::In& in) {
    value.toLog(out);
    target.fromLog(in);
};

namespace Detail {

struct HookNames {
    int parse, print, parseText, check, parseStrep, printStrep, toLog, fromLog;
};
// A name is ambiguous in this class when `T` has a member of that name, which may be private.
template <class T>
struct HookProbe : T, HookNames {};

/// Rejects a member with the name of a hook that cannot be called as one, and that would otherwise
/// be ignored.
template <class T>
consteval bool hooksFit() {
    using Probe = HookProbe<T>;
    static_assert(
        HasParse<T> || requires { &Probe::parse; },
        "the hook is `const char* parse(Mox::TextCursor&)`, and public");
    static_assert(
        HasPrint<T> || requires { &Probe::print; },
        "the hook is `void print(Mox::TextWriter&) const`, and public");
    static_assert(
        HasTextForm<T> || requires { &Probe::parseText; },
        "the hook is `const char* parseText(Mox::TextCursor&)`, and public");
    static_assert(
        HasCheck<T> || requires { &Probe::check; },
        "the hook is `const char* check() const`, and public");
    static_assert(
        HasStrepForm<T> || requires { &Probe::parseStrep, &Probe::printStrep; },
        "the hooks are `const char* parseStrep(Mox::TextCursor&)` and "
        "`void printStrep(Mox::TextWriter&) const`, and public");
    static_assert(
        HasLogForm<T> || requires { &Probe::toLog, &Probe::fromLog; },
        "the hooks are `void toLog(Mox::NboAttrLog::Out&) const` and "
        "`void fromLog(Mox::NboAttrLog::In&)`, and public");
    return true;
}

}  // namespace Detail

/// Reads the strep of `T`, which is its own text where it has one. Returns null or the text of the
/// range error; `*value` is unspecified after an error.
template <class T>
const char* parseValue(TextCursor& in, T* value) {
    static_assert(Detail::hooksFit<T>());
    if constexpr (HasParse<T>) {
        return value->parse(in);
    } else if constexpr (HasStrepForm<T>) {
        return value->parseStrep(in);
    } else {
        const char* error = parseRecord(in, value, T::description(), T::invalidText);
        if constexpr (HasCheck<T>) {
            error = error != nullptr ? error : value->check();
        }
        return error;
    }
}

/// Reads the whole of `text`, which is a strep, or a text of the type's own. Returns as
/// `parseValue` does.
template <class T>
const char* parseWhole(std::string_view text, T* value) {
    TextCursor in(text);
    const char* error = nullptr;
    if constexpr (HasTextForm<T>) {
        error = text.starts_with("Value(") ? parseValue(in, value) : value->parseText(in);
    } else {
        error = parseValue(in, value);
    }
    return error == nullptr && !in.atEnd() ? value->leftoverText() : error;
}

/// Writes the strep.
template <class T>
void printStrep(TextWriter& out, const T& value) {
    if constexpr (HasParse<T>) {
        value.print(out);
    } else if constexpr (HasStrepForm<T>) {
        value.printStrep(out);
    } else {
        printRecord(out, value, T::description());
    }
}

namespace Detail {

/// "Invalid " and the name of `T` without its namespace.
template <class T>
inline constexpr auto invalidTextOf = [] {
    constexpr std::string_view invalid = "Invalid ";
    constexpr std::string_view type = T::description().typeName;
    constexpr std::string_view name = type.substr(type.find("::") + 2);
    std::array<char, invalid.size() + name.size() + 1> text{};
    name.copy(&text[invalid.copy(text.data(), invalid.size())], name.size());
    return text;
}();

}  // namespace Detail

/// The base of a value type `T`, which the head of this file describes.
template <class T>
class ValueType {
  public:
    /// Where a constructor from text reads.
    using TextIt = String::IteratorConst;

    /// The error for bad text, unless the type has one of its own: "Invalid T", where T stands for
    /// the type's name without its namespace.
    static constexpr const char* invalidText = Detail::invalidTextOf<T>.data();
    /// The error for text after this value, where all of the text is to be read.
    constexpr const char* leftoverText() const { return T::invalidText; }

    /// The canonical text.
    String stringValue() const {
        return printedString([this](TextWriter& out) { printText(out); });
    }

    /// Reads the whole of `text`.
    /// @throws Mox::RangeException with the type's text; the value is then unchanged.
    void stringValueIs(const String& text) {
        T fresh{};
        static_cast<ValueType&>(fresh).readWhole(text);
        self() = std::move(fresh);
    }

    /// Writes the canonical text with the semantics of snprintf(3): at most `size` bytes including
    /// the NUL, truncated to fit, nothing for size 0. Returns the length of the whole text.
    uint32_t printToBuffer(char* buffer, uint32_t size) const {
        TextWriter out(buffer, size);
        printText(out);
        return out.finish();
    }

    /// The fields, mixed in declaration order.
    constexpr uint32_t hash(uint32_t seed = 0) const {
        Hash mixer(seed);
        T::description().forEach(
            [&]<class M>(const Field<T, M>& each) { Codec<M>::mix(mixer, self().*each.member); });
        return mixer.result();
    }

    /// Writes the canonical text.
    void printText(TextWriter& out) const {
        if constexpr (HasPrint<T>) {
            self().print(out);
        } else {
            printRecord(out, self(), T::description());
        }
    }

    // The defaulted comparisons of T compare this empty base too. Constrained to exactly this type,
    // since they would otherwise compare values of a T that has no comparison.
    template <std::same_as<ValueType> Base>
    friend constexpr bool operator==(const Base&, const Base&) {
        return true;
    }
    template <std::same_as<ValueType> Base>
    friend constexpr std::strong_ordering operator<=>(const Base&, const Base&) {
        return std::strong_ordering::equal;
    }

  protected:
    constexpr ValueType() = default;

    /// Reads the text at `it` and moves `it` past it. For the constructor from text.
    /// @throws Mox::RangeException with the type's text; `it` is then unchanged.
    void readText(TextIt& it, const TextIt& end) {
        TextCursor in(it, end);
        if (const char* error = parseValue(in, &self())) {
            throwRangeException(error);
        }
        it = in.at();
    }

    /// Reads the whole of `text`. For the explicit constructor from a `std::string_view`.
    /// @throws Mox::RangeException with the type's text.
    void readWhole(std::string_view text) {
        if (const char* error = parseWhole(text, &self())) {
            throwRangeException(error);
        }
    }

    /// Checks the rules between the fields. For constructors from parts.
    /// @throws Mox::RangeException with the text of `check`
    constexpr void requireValid() const {
        if (const char* error = self().check()) {
            throwRangeException(error);
        }
    }

    /// Reads the fields and calls `check`. For the constructor from a log.
    /// @throws Mox::RangeException "NboAttrLog: premature end"; "NboAttrLog: value out of range"
    /// when a number does not fit its field; the text of `check`.
    void readLog(NboAttrLog::In* in) {
        if constexpr (HasLogForm<T>) {
            self().fromLog(*in);
        } else {
            T::description().forEach([&]<class M>(const Field<T, M>& each) {
                Codec<M>::fromLog(*in, &(self().*each.member));
            });
        }
        if constexpr (HasCheck<T>) {
            requireValid();
        }
    }

  private:
    constexpr T& self() { return static_cast<T&>(*this); }
    constexpr const T& self() const { return static_cast<const T&>(*this); }
};

/// Writes the log form: the fields in declaration order, unless the type has a form of its own.
template <Value T>
NboAttrLog::Out& operator<<(NboAttrLog::Out& out, const T& value) {
    if constexpr (HasLogForm<T>) {
        value.toLog(out);
    } else {
        T::description().forEach(
            [&]<class M>(const Field<T, M>& each) { Codec<M>::toLog(out, value.*each.member); });
    }
    return out;
}

/// A field that is itself a value.
template <Value T>
struct Codec<T> {
    static const char* parse(TextCursor& in, T* value, const char*) {
        T fresh{};
        const char* error = parseValue(in, &fresh);
        if (error == nullptr) {
            *value = std::move(fresh);
        }
        return error;
    }
    static void print(TextWriter& out, const T& value) { printStrep(out, value); }
    static void toLog(NboAttrLog::Out& out, const T& value) { out << value; }
    static void fromLog(NboAttrLog::In& in, T* value) { *value = T(&in, StreamBogon()); }
    static constexpr void mix(Hash& hash, const T& value) { hash.mix(value.hash()); }
};

/// The framework text: the canonical text of a type that reads it back, else the record form.
template <Value T>
String valueToStrep(const T& value) {
    return printedString([&value](TextWriter& out) { printStrep(out, value); });
}

/// Writes the strep.
template <Value T>
std::ostream& operator<<(std::ostream& out, const T& value) {
    return out << valueToStrep(value);
}

/// Reads a value at `it`, moves `it` past it and stops at the first character that does not belong.
/// @throws Mox::RangeException with the type's text; `it` and `*value` are then unchanged.
template <Value T>
void sequenceToValue(String::IteratorConst& it, const String::IteratorConst& end, T* value) {
    TextCursor in(it, end);
    T fresh{};
    if (const char* error = parseValue(in, &fresh)) {
        throwRangeException(error);
    }
    *value = std::move(fresh);
    it = in.at();
}

/// The value that the whole of `text` stands for, or nothing. Never throws.
template <Value T>
[[nodiscard]] std::optional<T> tryParse(std::string_view text) {
    T value{};
    if (parseWhole(text, &value) != nullptr) {
        return std::nullopt;
    }
    return value;
}

/// The value that the whole of `text` stands for.
/// @throws Mox::RangeException with the type's text.
template <Value T>
T fromText(const String& text) {
    T value;
    value.stringValueIs(text);
    return value;
}

}  // namespace Mox

template <Mox::Value T>
struct std::hash<T> {
    std::size_t operator()(const T& value) const noexcept { return value.hash(); }
};
