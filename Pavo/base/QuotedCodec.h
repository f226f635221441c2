/// @file
/// Names without an end mark of their own, as fields of records.
#pragma once

#include "Mox/Hash.h"
#include "Mox/NboAttrLog.h"
#include "Mox/String.h"
#include "Mox/ValueType.h"

namespace Pavo {

/// What `Mox::Codec` of a name derives from, where the whole input of a parser is the name: a
/// record shows such a name in quotes, as it does a string. `T` has its text in `value()`.
///
/// Members: what the framework calls for a field of a record.
template <class T>
struct QuotedCodec {
    static const char* parse(Mox::TextCursor& in, T* value, const char* invalid) {
        Mox::TextCursor ahead = in;
        Mox::String name;
        const char* error = Mox::Codec<Mox::String>::parse(ahead, &name, invalid);
        Mox::TextCursor text(name.view());
        error = error != nullptr ? error : value->parse(text);
        if (error == nullptr) {
            in = ahead;
        }
        return error;
    }
    static void print(Mox::TextWriter& out, const T& value) {
        Mox::Codec<Mox::String>::print(out, value.value());
    }
    static void toLog(Mox::NboAttrLog::Out& out, const T& value) { out << value; }
    static void fromLog(Mox::NboAttrLog::In& in, T* value) { *value = T(&in, Mox::StreamBogon()); }
    static void mix(Mox::Hash& hash, const T& value) { hash.mix(value.hash()); }
};

}  // namespace Pavo
