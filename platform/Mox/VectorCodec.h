/// @file
/// Sequences of values as fields of records.
#pragma once

#include <cstdint>
#include <vector>

#include "Mox/ValueType.h"

namespace Mox {

/// A sequence of values: "[16, 17]" in text, from the texts of the values; in the log a 32-bit
/// count and the values. It is printed, but not read, in records.
template <Value T>
struct Codec<std::vector<T>> {
    static void print(TextWriter& out, const std::vector<T>& values) {
        out.put('[');
        bool first = true;
        for (const T& each : values) {
            out.text(first ? "" : ", ");
            each.printText(out);
            first = false;
        }
        out.put(']');
    }
    static void toLog(NboAttrLog::Out& out, const std::vector<T>& values) {
        out.u32(static_cast<uint32_t>(values.size()));
        for (const T& each : values) {
            out << each;
        }
    }
    static void fromLog(NboAttrLog::In& in, std::vector<T>* values) {
        // One at a time, since the count may be larger than what the log holds.
        for (uint32_t left = in.u32(); left != 0; --left) {
            values->push_back(T(&in, StreamBogon()));
        }
    }
    static constexpr void mix(Hash& hash, const std::vector<T>& values) {
        hash.mix(static_cast<uint32_t>(values.size()));
        for (const T& each : values) {
            hash.mix(each.hash());
        }
    }
};

}  // namespace Mox
