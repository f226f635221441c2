/// @file
/// The Internet checksum (RFC 1071): the one's complement of the one's complement sum of 16-bit
/// words.
#pragma once

#include <cstdint>

#include "Pavo/base/Export.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/value/Ip6Addr.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

/// `sum` plus the 16-bit words at `data`, each with its first byte high, modulo 2^32. Nothing is
/// folded, so a chain of areas (pseudo header, header, payload) is summed area by area and folded
/// once, by `ipChecksumCalc`. `data` may lie at any address. An odd `len` is fatal:
/// "(len % 2) == 0".
PAVO_EXPORT uint32_t ipChecksumChunk(const void* data, uint16_t len, uint32_t sum);

/// The checksum of the last area and of all that `sum` holds. The last byte of an odd area is the
/// high byte of a word whose low byte is zero. A checksum of 0 is returned as 0: protocols to which
/// that means "no checksum" put 0xffff in its place themselves.
PAVO_EXPORT IpChecksum ipChecksumCalc(const void* data, uint16_t len, uint32_t sum);

/// The checksum of all that `sum` holds.
inline IpChecksum ipChecksumOf(uint32_t sum) {
    sum = (sum & 0xffff) + (sum >> 16);
    return IpChecksum(static_cast<uint16_t>(~(sum + (sum >> 16))));
}

/// The checksum of one area of at most 128 KiB, in the form that is stored into the packet without
/// a byte swap.
PAVO_EXPORT uint16_t ipChksum(const void* data, uint32_t len);

/// The unfolded sum of the addresses of a pseudo header.
/// @{
inline uint32_t addressSumOf(const Ip6Addr& src, const Ip6Addr& dst) {
    return ipChecksumChunk(&dst, sizeof(dst), ipChecksumChunk(&src, sizeof(src), 0));
}
inline uint32_t addressSumOf(const IpAddr& src, const IpAddr& dst) {
    return (src.value() >> 16) + (src.value() & 0xffff) + (dst.value() >> 16) +
           (dst.value() & 0xffff);
}
/// @}

}  // namespace Pavo
