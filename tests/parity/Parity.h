/// @file
/// What must not depend on the word size, printed line by line: processes of both kinds share keys,
/// logs and packets.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Mox/Enum.h"
#include "Mox/GenericIf.h"
#include "Mox/NboAttrLog.h"
#include "Mox/ValueType.h"

// One function a layer, in a source of its own.
void parityOfValues();
void parityOfPackets();

namespace parity {

inline void printHex(const void* data, uint32_t length) {
    for (uint32_t i = 0; i < length; ++i) {
        std::printf("%02x", static_cast<const uint8_t*>(data)[i]);
    }
}

/// '<', '=', '>', '~' for values side by side, '?' for a type without an order.
template <class T>
char relation(const T& a, const T& b) {
    if (a == b) {
        return '=';
    }
    if constexpr (requires { a < b; }) {
        if (a < b) {
            return '<';
        }
        return b < a ? '>' : '~';
    } else {
        return '?';
    }
}

/// One line a sample: text, strep, log, hashes, and the order to the sample before it.
template <Mox::Value T>
void parityOf(const std::vector<T>& samples) {
    const std::string_view typeName = T::description().typeName;
    std::printf("%.*s size=%u\n", static_cast<int>(typeName.size()), typeName.data(),
                std::is_trivially_copyable_v<T> ? static_cast<unsigned>(sizeof(T)) : 0);
    const T* before = &samples.front();
    for (const T& sample : samples) {
        Mox::NboAttrLog::Out log;
        log << sample;
        std::printf("%.*s text=%s strep=%s", static_cast<int>(typeName.size()), typeName.data(),
                    sample.stringValue().c_str(), valueToStrep(sample).c_str());
        std::printf(" log=");
        printHex(log.bytes.data(), log.bytes.bytes());
        std::printf(" hash=%08x", sample.hash());
        if constexpr (requires { sample.hash(7u); }) {
            std::printf(" seeded=%08x", sample.hash(0x9e3779b9u));
        }
        std::printf(" order=%c\n", relation(*before, sample));
        before = &sample;
    }
}

/// One line a member: name and number.
template <Mox::Enum E>
void parityOf(const char* typeName) {
    for (const auto& member : Mox::enumTable<E>.members) {
        std::printf("%s %s=%u\n", typeName, Mox::stringValue(member.value).c_str(),
                    static_cast<unsigned>(member.value));
    }
}

}  // namespace parity
