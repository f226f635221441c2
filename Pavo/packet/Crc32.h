/// @file
/// The CRC-32 of Ethernet frames (IEEE 802.3-2018, 3.2.9) and that of SCTP, CRC-32C (RFC 9260,
/// appendix A). Both take bytes in with their lowest bit first, start with a register of all ones,
/// and give its complement.
#pragma once

#include <cstdint>

#include "Pavo/base/Export.h"

namespace Pavo {

/// The lowest `bits` bits of `value` in reverse order.
constexpr uint32_t reflectedBits(uint32_t value, int bits) {
    uint32_t turned = 0;
    for (int bit = 0; bit < bits; ++bit) {
        turned = turned << 1 | (value >> bit & 1);
    }
    return turned;
}

/// Fills the 256 entries of the table of a reflected CRC: `table[i]` is what the byte `i` makes of
/// an empty register. So `crc = table[(crc ^ byte) & 0xff] ^ (crc >> 8)` takes one byte in.
constexpr void initReflectedTable(uint32_t* table, uint32_t polynomial) {
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t remainder = reflectedBits(i, 8) << 24;
        for (int bit = 0; bit < 8; ++bit) {
            const bool divides = remainder >> 31 != 0;
            remainder = remainder << 1 ^ (divides ? polynomial : 0);
        }
        table[i] = reflectedBits(remainder, 32);
    }
}

/// The CRC with the polynomial 0x04c11db7. The check value, that of "123456789", is 0xcbf43926.
class Crc32 {
  public:
    /// The coefficient of x^31 in the highest bit.
    static constexpr uint32_t polynomial = 0x04c11db7;

    /// The CRC of `len` bytes at any address; 0 when there are none.
    PAVO_EXPORT static uint32_t crc(const void* data, uint32_t len);

    /// As `initReflectedTable`, for this polynomial.
    static constexpr void initCrc32Table(uint32_t* table) { initReflectedTable(table, polynomial); }
};

/// The CRC with the polynomial 0x1edc6f41 (Castagnoli). The check value is 0xe3069283.
class Crc32c {
  public:
    /// The coefficient of x^31 in the highest bit.
    static constexpr uint32_t polynomial = 0x1edc6f41;

    /// The CRC of `len` bytes at any address that follow bytes whose CRC is `before`. The CRC of no
    /// bytes is 0, the value to begin with.
    PAVO_EXPORT static uint32_t crc(const void* data, uint32_t len, uint32_t before = 0);
};

}  // namespace Pavo
