/// @file
/// The integer mix of the hashes of addresses.
#pragma once

#include <cstdint>

namespace Pavo {

/// Spreads the bits of `x` over all 32 bits. It places keys in tables that processes share, so the
/// result is the same on every machine and never changes.
constexpr uint32_t intMix(uint32_t x) {
    x = (x << 15) + ~x;
    x ^= x >> 12;
    x *= 5;
    x ^= x >> 4;
    x *= 2057;
    x ^= x >> 16;
    return x;
}

}  // namespace Pavo
