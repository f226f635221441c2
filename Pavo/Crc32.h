/// @file
/// The CRC-32 of Ethernet frames (IEEE 802.3-2018, 3.2.9).
#pragma once

#include <cstdint>

#include "Pavo/Export.h"

namespace Pavo {

/// The reflected CRC-32 with the polynomial 0x04c11db7: bytes enter with their lowest bit first,
/// the register starts as all ones, and its complement is the result. The check value, that of
/// "123456789", is 0xcbf43926.
class Crc32 {
  public:
    /// The CRC of `len` bytes at any address; 0 when there are none.
    PAVO_EXPORT static uint32_t crc(const void* data, uint32_t len);
    /// The same, without the instructions that only some processors have.
    PAVO_EXPORT static uint32_t crcByTables(const void* data, uint32_t len);

    /// Fills the 256 entries: `table[i]` is what the byte `i` makes of an empty register. So
    /// `crc = table[(crc ^ byte) & 0xff] ^ (crc >> 8)` takes one byte in.
    static constexpr void initCrc32Table(uint32_t* table) {
        constexpr uint32_t polynomial = 0x04c11db7;
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t remainder = reflected(i, 8) << 24;
            for (int bit = 0; bit < 8; ++bit) {
                const bool divides = remainder >> 31 != 0;
                remainder = remainder << 1 ^ (divides ? polynomial : 0);
            }
            table[i] = reflected(remainder, 32);
        }
    }

  private:
    // The lowest `bits` bits in reverse order.
    static constexpr uint32_t reflected(uint32_t value, int bits) {
        uint32_t turned = 0;
        for (int bit = 0; bit < bits; ++bit) {
            turned = turned << 1 | (value >> bit & 1);
        }
        return turned;
    }
};

}  // namespace Pavo
