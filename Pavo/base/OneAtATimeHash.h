/// @file
/// The hash of interface and autonomous-system numbers.
#pragma once

#include <cstdint>
#include <type_traits>

namespace Pavo {

/// Bob Jenkins's one-at-a-time hash over the bytes of a number, least significant first, whatever
/// the byte order of the machine. Keys of tables that processes share are made with it.
template <typename Number>
constexpr uint32_t oneAtATimeHash(Number value) {
    static_assert(std::is_unsigned_v<Number>);
    uint32_t h = 0;
    for (unsigned i = 0; i < sizeof(Number); ++i) {
        h += static_cast<uint8_t>(value >> (8 * i));
        h += h << 10;
        h ^= h >> 6;
    }
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
}

}  // namespace Pavo
