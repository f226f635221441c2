/// @file
/// The requirements on a layer of `buildPkt`, and the place where it writes its header.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <new>
#include <optional>
#include <span>

#include "Mox/Exception.h"

#include "Pavo/base/Export.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/value/Ip.h"

namespace Pavo {

/// The header of one layer in a packet that is being built, and what surrounds it. Everything after
/// the header is complete already.
class LayerSite {
  public:
    /// A header of `hdrBytes` bytes at `data`, with `payloadBytes` bytes after it.
    LayerSite(uint8_t* data, uint32_t hdrBytes, uint32_t payloadBytes)
        : data_(data), hdrBytes_(hdrBytes), payloadBytes_(payloadBytes) {}

    /// The first byte of the header. The bytes are not initialised.
    uint8_t* data() const { return data_; }
    /// The length of the header.
    uint32_t hdrBytes() const { return hdrBytes_; }
    /// The length of all that follows the header.
    uint32_t payloadBytes() const { return payloadBytes_; }

    /// The EtherType of the next layer, where it has one.
    const std::optional<uint16_t>& nextEtherType() const { return nextEtherType_; }
    void nextEtherTypeIs(uint16_t type) { nextEtherType_ = type; }
    /// The number that the next layer has in the protocol field of IPv4 and the next header field
    /// of IPv6.
    const std::optional<IpProtocolNumber>& nextProtocol() const { return nextProtocol_; }
    void nextProtocolIs(IpProtocolNumber number) { nextProtocol_ = number; }
    /// The unfolded sum of both addresses of the nearest IP layer before this one; 0 without one.
    uint32_t addressSum() const { return addressSum_; }
    void addressSumIs(uint32_t sum) { addressSum_ = sum; }
    /// Whether that layer is IPv6.
    bool isAfterIp6() const { return isAfterIp6_; }
    void isAfterIp6Is(bool isAfterIp6) { isAfterIp6_ = isAfterIp6; }

    /// A header record with its initial values at the start of the header.
    template <class Hdr>
    Hdr& newHdr() const {
        static_assert(isOverlay<Hdr>(sizeof(Hdr)));
        return *new (data_) Hdr;
    }
    /// Writes options after the first `fixedBytes` bytes of the header, and zeros from their end to
    /// that of the header.
    PAVO_EXPORT void optionsAre(uint32_t fixedBytes, std::span<const uint8_t> options) const;

    /// The unfolded sum of the pseudo header of header and payload (RFC 9293, 3.1; RFC 8200, 8.1).
    PAVO_EXPORT uint32_t pseudoHdrSum(IpProtocolNumber number) const;
    /// The Internet checksum of the header as it stands, all that follows, and all that `sum`
    /// holds. The checksum field is zero before.
    PAVO_EXPORT IpChecksum checksum(uint32_t sum = 0) const;

  private:
    uint8_t* data_;
    uint32_t hdrBytes_;
    uint32_t payloadBytes_;
    std::optional<uint16_t> nextEtherType_;
    std::optional<IpProtocolNumber> nextProtocol_;
    uint32_t addressSum_ = 0;
    bool isAfterIp6_ = false;
};

/// A type that has the length of its header, and a function that writes it. A layer is a plain
/// struct, so that its fields can be named where a packet is built. A field that can be computed is
/// a `std::optional`: a value that the caller sets is written as it is. Further members, as far as
/// the protocol has them:
/// - `uint16_t etherType() const`: its EtherType
/// - `IpProtocolNumber ipProtocol() const`: its protocol number in IP
/// - `uint32_t addressSum() const`: the sum of its addresses, for the checksums of layers after it
/// - `static constexpr bool nextHasEtherType = true`, `nextHasIpProtocol = true`: the header names
///   the next layer by such a number. A layer without the number after it does not compile.
/// - `static constexpr bool hasIp6Addresses = true`: the addresses are those of IPv6
/// - `static constexpr bool needsAddresses = true`: its checksum takes in the addresses of an IP
///   header. Without an IP layer before it, it does not compile.
///
/// `write` throws a `Mox::RangeException` for values that do not fit into their fields. For
/// example:
///
///     struct Fragment {  // RFC 8200, 4.5: a datagram in one fragment.
///         uint32_t id = 0;
///         std::optional<IpProtocolNumber> nextHeader = {};
///
///         static constexpr bool nextHasIpProtocol = true;
///         IpProtocolNumber ipProtocol() const { return IpProtocolNumber::ipv6Frag; }
///         std::size_t hdrBytes() const { return 8; }
///         void write(const LayerSite& site) const {
///             const auto next = numberOfNext(nextHeader, site.nextProtocol(),
///                                            "Fragment::nextHeader not set");
///             storeNet(site.data(), static_cast<uint32_t>(next) << 24);
///             storeNet(site.data() + 4, id);
///         }
///     };
template <class T>
concept PktLayer = requires(const T& layer, const LayerSite& site) {
    { layer.hdrBytes() } -> std::same_as<std::size_t>;
    layer.write(site);
};

/// The value of a field that the caller set; else the number of the next layer.
/// @throws Mox::RangeException `notSet` where there is neither
template <class Number>
Number numberOfNext(const std::optional<Number>& set, const std::optional<Number>& next,
                    const char* notSet) {
    if (!set && !next) {
        Mox::throwRangeException(notSet);
    }
    return set ? *set : *next;
}

/// @throws Mox::RangeException `text` unless `fits`
inline void requireField(bool fits, const char* text) {
    if (!fits) {
        Mox::throwRangeException(text);
    }
}

/// The length that the caller set; else `bytes`.
/// @throws Mox::RangeException `tooLong` for more than 65535
PAVO_EXPORT uint16_t lenField(const std::optional<uint16_t>& set, uint64_t bytes,
                              const char* tooLong);

}  // namespace Pavo
