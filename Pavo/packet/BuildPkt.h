/// @file
/// Whole packets in one expression:
///
///     buildPkt(Eth{.dst = router, .src = own}, Vlan{.vlanId = 7},
///              Ip{.src = a, .dst = b, .ttl = 1}, Udp{.srcPort = 1024, .dstPort = 53}, "a
///              question")
///     buildPkt(Ip{.src = a, .dst = b, .protocol = IpProtocolNumber::ospf}, hello)
///
/// Fields that are not named keep their initial values. EtherTypes, protocol numbers, lengths,
/// header lengths and checksums are filled in from the inside out, unless the caller sets them; a
/// number that no layer implies, as before a payload, has to be set. Numbers are in host order.
///
/// Layers hold no bytes: options and payloads have to be there until `buildPkt` has returned.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>

#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/label/MplsLabel.h"
#include "Pavo/packet/BuildControl.h"
#include "Pavo/packet/BuildNd.h"
#include "Pavo/packet/BuildTunnel.h"
#include "Pavo/packet/EthHdr.h"
#include "Pavo/packet/Icmp6Hdr.h"
#include "Pavo/packet/IcmpHdr.h"
#include "Pavo/packet/Ip6Hdr.h"
#include "Pavo/packet/IpHdr.h"
#include "Pavo/packet/MplsHdr.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/packet/PktLayer.h"
#include "Pavo/packet/SctpHdr.h"
#include "Pavo/packet/TcpHdr.h"
#include "Pavo/packet/UdpHdr.h"
#include "Pavo/value/EthAddr.h"

namespace Pavo {

/// An Ethernet header, also of a frame in a tunnel.
/// @throws Mox::RangeException "Eth::type not set, and no layer follows that has one"
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Eth {
    EthAddr dst = {};
    EthAddr src = {};
    std::optional<uint16_t> type = {};

    static constexpr bool nextHasEtherType = true;
    uint16_t etherType() const { return EthType::bridging; }
    std::size_t hdrBytes() const { return sizeof(EthHdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// An IEEE 802.1Q tag. Tags may be stacked.
/// @throws Mox::RangeException "Vlan::vlanId > 4095 not allowed", "Vlan::priority > 7 not allowed",
/// "Vlan::type not set, and no layer follows that has one"
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Vlan {
    uint16_t vlanId = 0;
    uint8_t priority = 0;
    bool dropEligible = false;
    uint16_t tpid = EthType::dot1Q;
    std::optional<uint16_t> type = {};

    static constexpr bool nextHasEtherType = true;
    uint16_t etherType() const { return tpid; }
    std::size_t hdrBytes() const { return sizeof(Eth8021QHdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// An MPLS label stack entry. `bos` is set where no other entry follows.
/// @throws Mox::RangeException as `MplsHdr::labelIs` and `MplsHdr::cosIs`
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Mpls {
    MplsLabel label = 0;
    uint8_t cos = 0;
    uint8_t ttl = 64;
    std::optional<bool> bos = {};

    uint16_t etherType() const { return EthType::mpls; }
    std::size_t hdrBytes() const { return sizeof(MplsLabelEntry); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// An IPv4 header. `options` is padded with zeros to whole words.
/// @throws Mox::RangeException "Ip::protocol not set, and no layer follows that has one",
/// "Ip::totalLen > 65535 not allowed", and for more than 40 bytes of options "IpHdrLen::value < 0
/// or > 15 not allowed"
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Ip {
    IpAddr src = {};
    IpAddr dst = {};
    IpTtl ttl = 64;
    std::optional<IpProtocolNumber> protocol = {};
    uint8_t tos = 0;
    uint16_t id = 0;
    IpFlags flags = 0;
    IpFragmentOffset fragmentOffset = 0;
    std::span<const uint8_t> options = {};
    IpVersion version = 4;
    std::optional<IpHdrLen> headerLen = {};
    std::optional<uint16_t> totalLen = {};
    std::optional<IpChecksum> checksum = {};

    static constexpr bool nextHasIpProtocol = true;
    uint16_t etherType() const { return EthType::ip; }
    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::ipv4; }
    PAVO_EXPORT uint32_t addressSum() const;
    std::size_t hdrBytes() const { return sizeof(IpHdr) + (options.size() + 3) / 4 * 4; }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// An IPv6 header. Where nothing follows, the next header is 59, "no next header".
/// @throws Mox::RangeException "Ip6::nextHeader not set, and no layer follows that has one",
/// "Ip6::payloadLen > 65535 not allowed"
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Ip6 {
    Ip6Addr src = {};
    Ip6Addr dst = {};
    uint8_t hopLimit = 64;
    std::optional<IpProtocolNumber> nextHeader = {};
    IpTrafficClass trafficClass = 0;
    IpFlowLabel flowLabel = 0;
    IpVersion version = 6;
    std::optional<uint16_t> payloadLen = {};

    static constexpr bool nextHasIpProtocol = true;
    static constexpr bool hasIp6Addresses = true;
    uint16_t etherType() const { return EthType::ip6; }
    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::ipv6; }
    PAVO_EXPORT uint32_t addressSum() const;
    std::size_t hdrBytes() const { return sizeof(Ip6Hdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// The first 8 bytes of an ICMP message. `id` and `sequenceNumber` are those of an echo message;
/// in other messages they are the two halves of the last four bytes, for example the MTU of the
/// next hop in `sequenceNumber` (RFC 1191, 4).
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Icmp {
    IcmpType type = IcmpType::echoRequest;
    uint8_t code = 0;
    uint16_t id = 0;
    uint16_t sequenceNumber = 0;
    std::optional<IpChecksum> checksum = {};

    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::icmp; }
    std::size_t hdrBytes() const { return sizeof(IcmpEchoHdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// The first 8 bytes of an ICMPv6 message, as in `Icmp`.
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Icmp6 {
    Icmp6Type type = Icmp6Type::echoRequest;
    uint8_t code = 0;
    uint16_t id = 0;
    uint16_t sequenceNumber = 0;
    std::optional<IpChecksum> checksum = {};

    static constexpr bool needsAddresses = true;
    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::ipv6Icmp; }
    std::size_t hdrBytes() const { return sizeof(Icmp6EchoHdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// A UDP header. A computed checksum of 0 is sent as 0xffff (RFC 768); set 0 to send none.
/// @throws Mox::RangeException "Udp::len > 65535 not allowed"
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Udp {
    uint16_t srcPort = 0;
    uint16_t dstPort = 0;
    std::optional<uint16_t> len = {};
    std::optional<IpChecksum> checksum = {};

    static constexpr bool needsAddresses = true;
    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::udp; }
    std::size_t hdrBytes() const { return sizeof(UdpHdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// A TCP header. `options` is padded with zeros to whole words. Over IPv6 the checksum is
/// `TcpHdr::computedChecksumRfc8200`.
/// @throws Mox::RangeException for more than 40 bytes of options "TcpDataOffset::value < 0 or > 15
/// not allowed"
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Tcp {
    uint16_t srcPort = 0;
    uint16_t dstPort = 0;
    uint32_t sequenceNumber = 0;
    uint32_t acknowledgementNumber = 0;
    bool cwr = false;
    bool ece = false;
    bool urg = false;
    bool ack = false;
    bool psh = false;
    bool rst = false;
    bool syn = false;
    bool fin = false;
    uint16_t window = 0xffff;
    uint16_t urgentPointer = 0;
    std::span<const uint8_t> options = {};
    std::optional<TcpDataOffset> dataOffset = {};
    std::optional<IpChecksum> checksum = {};

    static constexpr bool needsAddresses = true;
    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::tcp; }
    std::size_t hdrBytes() const { return sizeof(TcpHdr) + (options.size() + 3) / 4 * 4; }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// The common header of SCTP. Its chunks are the payload.
///
/// Members: the fields, in host order; `PktLayer` says what one that is not set means.
struct Sctp {
    uint16_t srcPort = 0;
    uint16_t dstPort = 0;
    uint32_t verificationTag = 0;
    std::optional<SctpChecksum> checksum = {};

    IpProtocolNumber ipProtocol() const { return IpProtocolNumber::sctp; }
    std::size_t hdrBytes() const { return sizeof(SctpHdr); }
    PAVO_EXPORT void write(const LayerSite& site) const;
};

/// Bytes as they are, at any place in the packet. It refers to them and holds none. A text, an
/// array of characters too, ends before its first NUL: pass binary data as a span.
class Payload {
  public:
    /// The characters before the first NUL.
    template <std::convertible_to<std::string_view> T>
    Payload(const T& text) {
        const std::string_view view = text;
        bytes_ = {reinterpret_cast<const uint8_t*>(view.data()), view.size()};
    }
    /// All bytes of the span.
    template <std::convertible_to<std::span<const uint8_t>> T>
    Payload(const T& bytes) : bytes_(bytes) {}

    std::size_t hdrBytes() const { return bytes_.size(); }
    PAVO_EXPORT void write(const LayerSite& site) const;

  private:
    std::span<const uint8_t> bytes_;
};

// What follows serves `buildPkt` only.
namespace layers {

/// The layer has an EtherType.
template <class T>
concept HasEtherType = requires(const T& layer) {
    layer.etherType();
};
/// The layer has a protocol number in IP.
template <class T>
concept HasIpProtocol = requires(const T& layer) {
    layer.ipProtocol();
};
/// The layer has addresses that checksums cover.
template <class T>
concept HasAddresses = requires(const T& layer) {
    layer.addressSum();
};

/// A packet whose data is `bytes` bytes, not initialised, at the end of its buffer.
/// @throws Mox::RangeException "buildPkt: more than 4294967295 bytes not allowed"
PAVO_EXPORT Mox::Ptr<Pkt> newPktWith(uint64_t bytes);

template <PktLayer Layer>
const Layer& layerOf(const Layer& layer) {
    return layer;
}
inline Payload layerOf(const Payload& bytes) {
    return bytes;
}

template <class Layer, class Next>
constexpr void checkOrder() {
    constexpr bool isPayload = std::is_same_v<Next, Payload>;
    if constexpr (requires { Layer::nextHasEtherType; }) {
        static_assert(isPayload || HasEtherType<Next>, "the next layer has no EtherType");
    }
    if constexpr (requires { Layer::nextHasIpProtocol; }) {
        static_assert(isPayload || HasIpProtocol<Next>, "the next layer has no IP protocol number");
    }
}

template <class Layer, class Next, class... Rest>
void setNext(LayerSite& site, const Next& next, const Rest&...) {
    checkOrder<Layer, Next>();
    if constexpr (HasEtherType<Next>) {
        site.nextEtherTypeIs(next.etherType());
    }
    if constexpr (HasIpProtocol<Next>) {
        site.nextProtocolIs(next.ipProtocol());
    }
}

// What is known of the IP layer before a layer.
enum class IpBefore { none, ip4, ip6 };

template <class Layer>
constexpr IpBefore ipAfter(IpBefore before) {
    if constexpr (HasAddresses<Layer>) {
        return requires {
            Layer::hasIp6Addresses;
        }
        ? IpBefore::ip6 : IpBefore::ip4;
    }
    return before;
}

// Writes the layers into `bytes` bytes at `at`, the last one first.
template <IpBefore ipBefore, class Layer, class... Rest>
void writeLayers(uint8_t* at, uint32_t bytes, uint32_t addressSum, const Layer& layer,
                 const Rest&... rest) {
    if constexpr (requires { Layer::needsAddresses; }) {
        static_assert(ipBefore != IpBefore::none,
                      "the checksum needs the addresses of an IP layer before this one");
    }
    const auto hdrBytes = static_cast<uint32_t>(layer.hdrBytes());
    LayerSite site(at, hdrBytes, bytes - hdrBytes);
    site.addressSumIs(addressSum);
    site.isAfterIp6Is(ipBefore == IpBefore::ip6);
    if constexpr (HasAddresses<Layer>) {
        addressSum = layer.addressSum();
    }
    if constexpr (sizeof...(rest) != 0) {
        setNext<Layer>(site, rest...);
        writeLayers<ipAfter<Layer>(ipBefore)>(at + hdrBytes, bytes - hdrBytes, addressSum, rest...);
    }
    layer.write(site);
}

template <class... Layers>
Mox::Ptr<Pkt> build(const Layers&... layers) {
    Mox::Ptr<Pkt> pkt = newPktWith((uint64_t{layers.hdrBytes()} + ...));
    writeLayers<IpBefore::none>(pkt->frontData(), pkt->frontBytes(), 0, layers...);
    return pkt;
}

}  // namespace layers

/// A packet of these layers, the outermost first. Each is one of the structs above, another
/// `PktLayer`, or bytes: what converts to `std::string_view` or to `std::span<const uint8_t>`. The
/// packet is made by `globalPktManager`, with all bytes in one piece. There is no tail room; head
/// room is what a buffer of the default size has beyond the packet, none in a larger packet.
///
/// A datagram without its IP header, for a socket that makes one, is built with the `Ip` layer, for
/// the checksum, and `delSharedHeadData` removes that.
/// @throws Mox::RangeException as the layers do, and "buildPkt: more than 4294967295 bytes not
/// allowed"
template <class... Layers>
Mox::Ptr<Pkt> buildPkt(const Layers&... layers) {
    static_assert(sizeof...(layers) != 0, "a packet has at least one layer");
    return layers::build(layers::layerOf(layers)...);
}

}  // namespace Pavo
