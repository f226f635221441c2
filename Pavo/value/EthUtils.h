/// @file
/// MAC addresses from assigned numbers.
#pragma once

#include <cstdint>

#include "Pavo/value/EthAddr.h"

namespace Pavo {

/// The MAC with the organisation `oui` in bytes 0 to 2 and the number `station` in bytes 3 to 5.
/// Bits 31 to 24 of `oui` are dropped; those of `station` are ORed into byte 2, on purpose.
constexpr EthAddr ethAddrFromOuiStation(uint32_t oui, uint32_t station) {
    return EthAddr(static_cast<uint16_t>(oui >> 8), static_cast<uint16_t>(oui << 8 | station >> 16),
                   static_cast<uint16_t>(station));
}

}  // namespace Pavo
