/// @file
/// Where the messages of a stream end, as data.
#pragma once

#include <cstdint>
#include <span>

#include "Pavo/base/Export.h"
#include "Pavo/base/NetOrder.h"

namespace Pavo {

/// A stream of messages, each of which begins with a header that has its length: `FramedTcpPduPam`
/// receives them. A message has at most 65,535 bytes with its header.
///
///     constexpr Pavo::TcpFraming framing{.headerBytes = 4, .lengthAt = 2, .lengthBytes = 2};
struct TcpFraming {
    /// Bytes that have to be there before the length is known; a message has no fewer.
    uint16_t headerBytes = 2;
    /// Where the length begins, in bytes from the start of the message.
    uint16_t lengthAt = 0;
    /// The size of the length, an unsigned number in network order: 1 to 4.
    uint8_t lengthBytes = 2;
    /// Whether the length is that of the whole message; else it counts what follows `headerBytes`.
    bool lengthIncludesHeader = true;
    /// The shortest message, in bytes with the header.
    uint32_t min = 0;
    /// The longest one. `maxPduLength` of the endpoint is a limit too, and is this at first.
    uint32_t max = 65535;
    /// Refuses a header of `headerBytes` bytes: returns null, or a text that lives as long as the
    /// process, which becomes the `rxErrorReason`. It is asked before the length is looked at, and
    /// must not change the endpoint. Null accepts all.
    const char* (*check)(std::span<const uint8_t> header) = nullptr;

    /// Null, or what is wrong with the values above.
    PAVO_EXPORT const char* fault() const;
    /// The length of the message that begins with `header`, header included, however large.
    /// @pre `header` has `headerBytes` bytes, and there is no `fault`.
    uint64_t messageBytes(const uint8_t* header) const {
        const uint8_t* from = header + lengthAt;
        uint64_t length = 0;
        if (lengthBytes == 2) {  // The most frequent.
            length = loadNet<uint16_t>(from);
        } else {
            for (const uint8_t byte : std::span(from, lengthBytes)) {
                length = length << 8 | byte;
            }
        }
        return length + (lengthIncludesHeader ? 0 : headerBytes);
    }

    friend bool operator==(const TcpFraming&, const TcpFraming&) = default;
};

namespace Detail {
/// @private
PAVO_EXPORT const char* checkBgpMarker(std::span<const uint8_t> header);
/// @private
PAVO_EXPORT const char* checkLdpVersion(std::span<const uint8_t> header);
}  // namespace Detail

/// BGP (RFC 4271, 4.1): a marker of 16 bytes, the length of all, the type. A marker that is not all
/// ones is refused as "BGP marker not all ones". Where extended messages (RFC 8654) were
/// negotiated, set `max` to 65535.
inline constexpr TcpFraming bgpFraming{
    .headerBytes = 19, .lengthAt = 16, .min = 19, .max = 4096, .check = Detail::checkBgpMarker};
/// LDP (RFC 5036, 3.1): the version, then the length of what follows it. Another version than 1 is
/// refused as "LDP version not 1". The longest is that of RFC 5036, 3.5.3, before negotiation.
inline constexpr TcpFraming ldpFraming{.headerBytes = 4,
                                       .lengthAt = 2,
                                       .lengthIncludesHeader = false,
                                       .min = 10,
                                       .max = 4100,
                                       .check = Detail::checkLdpVersion};
/// RPKI to router (RFC 8210, 5.1): 8 bytes, the last four of which are the length of all.
inline constexpr TcpFraming rpkiRtrFraming{
    .headerBytes = 8, .lengthAt = 4, .lengthBytes = 4, .min = 8};
/// The length of what follows in two bytes, as of DNS (RFC 1035, 4.2.2); what follows has at most
/// 65,533 bytes.
inline constexpr TcpFraming length16Framing{.lengthIncludesHeader = false};
/// The length of what follows in four bytes; what follows has at most 65,531 bytes.
inline constexpr TcpFraming length32Framing{
    .headerBytes = 4, .lengthBytes = 4, .lengthIncludesHeader = false};

}  // namespace Pavo
