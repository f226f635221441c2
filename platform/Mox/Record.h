/// @file
/// Descriptions of records, and how each kind of field is written in a strep, in the attribute log
/// and in a hash.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Mox/Enum.h"
#include "Mox/Exception.h"
#include "Mox/Hash.h"
#include "Mox/NboAttrLog.h"
#include "Mox/String.h"
#include "Mox/Text.h"

namespace Mox {

/// One field of a record: its name and its member.
///
/// Members: what `field` was given.
template <class Owner, class Member>
struct Field {
    std::string_view name;
    Member Owner::*member;
};

/// A field for `record`. The name is the one in the text.
template <class Owner, class Member>
constexpr Field<Owner, Member> field(std::string_view name, Member Owner::*member) {
    return {name, member};
}

/// A type's qualified name and its fields in declaration order, from which strep, log and hash
/// follow.
template <class... Fields>
struct RecordDescription {
    /// With its namespace.
    std::string_view typeName;
    /// In declaration order.
    std::tuple<Fields...> fields;

    /// Calls `visit(field)` for each field in order.
    template <class Visit>
    constexpr void forEach(Visit visit) const {
        std::apply([&visit](const Fields&... each) { (visit(each), ...); }, fields);
    }
};

/// The description of a value type: its qualified name and its fields.
template <class... Fields>
constexpr RecordDescription<Fields...> record(std::string_view typeName, Fields... fields) {
    return {typeName, {fields...}};
}

/// How one kind of field is read and written. `parse` returns null or the text of the range error
/// (`invalid` where the kind has none of its own) and changes `*value` on success only; `fromLog`
/// throws `Mox::RangeException`; `mix` feeds a hash.
template <class T>
struct Codec;

/// "true" or "false" in text, 32 bits in the log.
template <>
struct Codec<bool> {
    static const char* parse(TextCursor& in, bool* value, const char* invalid) {
        const bool isTrue = in.take("true");
        if (!isTrue && !in.take("false")) {
            return invalid;
        }
        *value = isTrue;
        return nullptr;
    }
    static void print(TextWriter& out, bool value) { out.text(value ? "true" : "false"); }
    static void toLog(NboAttrLog::Out& out, bool value) { out.u32(value ? 1 : 0); }
    static void fromLog(NboAttrLog::In& in, bool* value) {
        const uint32_t number = in.u32();
        if (number > 1) {
            throwRangeException("NboAttrLog: value out of range");
        }
        *value = number == 1;
    }
    static constexpr void mix(Hash& hash, bool value) { hash.mix(value ? 1 : 0); }
};

/// Integers: decimal in text; 32 bits in the log, except 64 for 64-bit integers.
template <std::integral T>
struct Codec<T> {
    static const char* parse(TextCursor& in, T* value, const char* invalid) {
        TextCursor ahead = in;
        const bool negative = std::is_signed_v<T> && ahead.take('-');
        uint64_t magnitude = 0;
        const uint64_t limit = static_cast<uint64_t>(std::numeric_limits<T>::max()) + negative;
        if (!ahead.decimal64(&magnitude) || magnitude > limit) {
            return invalid;
        }
        *value = static_cast<T>(negative ? ~magnitude + 1 : magnitude);
        in = ahead;
        return nullptr;
    }

    static void print(TextWriter& out, T value) {
        if constexpr (std::is_signed_v<T>) {
            out.decimalSigned(value);
        } else {
            out.decimal(value);
        }
    }

    static void toLog(NboAttrLog::Out& out, T value) {
        if constexpr (sizeof(T) == 8) {
            out.u64(static_cast<uint64_t>(value));
        } else {
            out.u32(static_cast<uint32_t>(value));
        }
    }

    static void fromLog(NboAttrLog::In& in, T* value) {
        if constexpr (sizeof(T) == 8) {
            *value = static_cast<T>(in.u64());
        } else {
            using Wide = std::conditional_t<std::is_signed_v<T>, int32_t, uint32_t>;
            const auto wide = static_cast<Wide>(in.u32());
            if (static_cast<Wide>(static_cast<T>(wide)) != wide) {
                throwRangeException("NboAttrLog: value out of range");
            }
            *value = static_cast<T>(wide);
        }
    }

    static constexpr void mix(Hash& hash, T value) {
        if constexpr (sizeof(T) == 8) {
            hash.mix64(static_cast<uint64_t>(value));
        } else {
            hash.mix(static_cast<uint32_t>(value));
        }
    }
};

/// Enumerations: the name in text, 32 bits in the log.
template <Enum T>
struct Codec<T> {
    static const char* parse(TextCursor& in, T* value, const char*) { return parseEnum(in, value); }
    static void print(TextWriter& out, T value) { printEnum(out, value); }
    static void toLog(NboAttrLog::Out& out, T value) { out.u32(static_cast<uint32_t>(value)); }
    static void fromLog(NboAttrLog::In& in, T* value) { *value = enumValue<T>(in.u32()); }
    static constexpr void mix(Hash& hash, T value) { hash.mix(static_cast<uint32_t>(value)); }
};

/// Byte arrays: the bytes in the log, one mixed word each in the hash. A type with such a field has
/// a text form of its own.
template <std::size_t count>
struct Codec<uint8_t[count]> {
    static void toLog(NboAttrLog::Out& out, const uint8_t (&bytes)[count]) {
        out.raw(bytes, count);
    }
    static void fromLog(NboAttrLog::In& in, uint8_t (*bytes)[count]) { in.raw(*bytes, count); }
    static constexpr void mix(Hash& hash, const uint8_t (&bytes)[count]) {
        for (const uint8_t byte : bytes) {
            hash.mix(byte);
        }
    }
};

/// Strings: in single quotes, with "\" before a quote and before "\"; in the log a 32-bit length,
/// then the bytes.
template <>
struct Codec<String> {
    static const char* parse(TextCursor& in, String* value, const char* invalid) {
        TextCursor ahead = in;
        std::string text;
        if (!ahead.take('\'')) {
            return invalid;
        }
        while (!ahead.take('\'')) {
            (void)ahead.take('\\');
            if (ahead.atEnd()) {
                return invalid;
            }
            text += ahead.peek();
            ahead.skip();
        }
        *value = String(std::move(text));
        in = ahead;
        return nullptr;
    }
    static void print(TextWriter& out, const String& value) {
        out.put('\'');
        for (const char c : value) {
            if (c == '\'' || c == '\\') {
                out.put('\\');
            }
            out.put(c);
        }
        out.put('\'');
    }
    static void toLog(NboAttrLog::Out& out, const String& value) { out.string(value); }
    static void fromLog(NboAttrLog::In& in, String* value) { *value = in.string(); }
    static void mix(Hash& hash, const String& value) {
        hash.mix(value.bytes());
        for (const char c : value) {
            hash.mix(static_cast<uint8_t>(c));
        }
    }
};

/// Prints the generic text of a record, such as "Value('ns::Range', ** {'from': 1, 'to': 9})".
template <class T, class... Fields>
void printRecord(TextWriter& out, const T& value, const RecordDescription<Fields...>& about) {
    out.text("Value('");
    out.text(about.typeName);
    out.text("', ** {");
    bool first = true;
    about.forEach([&]<class M>(const Field<T, M>& each) {
        out.text(first ? "'" : ", '");
        out.text(each.name);
        out.text("': ");
        Codec<M>::print(out, value.*each.member);
        first = false;
    });
    out.text("})");
}

/// Reads exactly what `printRecord` prints. Returns null or the text of the range error.
template <class T, class... Fields>
const char* parseRecord(TextCursor& in, T* value, const RecordDescription<Fields...>& about,
                        const char* invalid) {
    if (!in.take("Value('") || !in.take(about.typeName) || !in.take("', ** {")) {
        return invalid;
    }
    const char* error = nullptr;
    bool first = true;
    about.forEach([&]<class M>(const Field<T, M>& each) {
        if (error != nullptr) {
            return;
        }
        const bool named = in.take(first ? "'" : ", '") && in.take(each.name) && in.take("': ");
        error = named ? Codec<M>::parse(in, &(value->*each.member), invalid) : invalid;
        first = false;
    });
    return error == nullptr && !in.take("})") ? invalid : error;
}

}  // namespace Mox
