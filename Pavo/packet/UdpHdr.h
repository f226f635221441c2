/// @file
/// The UDP header (RFC 768), and its checksum over IPv4 and IPv6.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/packet/TransportHdr.h"
#include "Pavo/value/Ip.h"

namespace Pavo {

/// A port of UDP.
class UdpPort : public NetField<UdpPort, uint16_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::UdpPort";
};

/// Header and data of a datagram, in bytes.
class UdpLen : public NetField<UdpLen, uint16_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::UdpLen";
};

/// The same in the pseudo header of IPv6.
class UdpLenIp6 : public NetField<UdpLenIp6, uint32_t> {
  public:
    using NetField::NetField;

    static constexpr std::string_view typeName = "Pavo::UdpLenIp6";
};

static_assert(isOverlay<UdpPort>(2) && isOverlay<UdpLen>(2));

/// The pseudo header of UDP over IPv4.
class UdpPseudoHdr : public PseudoHdr<UdpPseudoHdr, UdpLen, IpProtocolNumber::udp> {
  public:
    using PseudoHdr::PseudoHdr;

    /// Header and data, in bytes.
    uint16_t udpLen() const { return len_.value(); }
    void udpLenIs(uint16_t bytes) { len_.valueIs(bytes); }

    static constexpr std::string_view typeName = "Pavo::UdpPseudoHdr";
    static constexpr std::string_view lenName = "udpLen";
};
static_assert(isOverlay<UdpPseudoHdr>(12));

/// The pseudo header of UDP over IPv6.
class UdpPseudoHdrIpv6 : public PseudoHdrIpv6<UdpPseudoHdrIpv6, UdpLenIp6, IpProtocolNumber::udp> {
  public:
    using PseudoHdrIpv6::PseudoHdrIpv6;

    /// Header and data, in bytes.
    uint32_t udpLen() const { return len_.value(); }
    void udpLenIs(uint32_t bytes) { len_.valueIs(bytes); }

    static constexpr std::string_view typeName = "Pavo::UdpPseudoHdrIpv6";
    static constexpr std::string_view lenName = "udpLen";
};
static_assert(isOverlay<UdpPseudoHdrIpv6>(40));

/// A UDP header, laid over the bytes of a packet, or free-standing and all zero to build one from:
///
///     | source port (2) | destination port (2) |
///     | length (2)      | checksum (2)         |
///
/// Numbers are in host order.
///
/// Checksums are taken over the header as it stands, the checksum field included. Since 0 in the
/// field says that there is none, a sum of 0 gives 0xffff: that is what a datagram with a right
/// checksum computes to. To fill the field in, it is zeroed first. As many bytes are read from the
/// header on as the pseudo header has for length, so that is checked beforehand.
///
/// Members: the fields, in host order.
class UdpHdr {
  public:
    static constexpr std::string_view recordName = "UdpHdr";

    uint16_t srcPort() const { return srcPort_.value(); }
    void srcPortIs(uint16_t port) { srcPort_.valueIs(port); }
    uint16_t dstPort() const { return dstPort_.value(); }
    void dstPortIs(uint16_t port) { dstPort_.valueIs(port); }
    /// Header and data, in bytes.
    uint16_t udpLen() const { return udpLen_.value(); }
    void udpLenIs(uint16_t bytes) { udpLen_.valueIs(bytes); }
    IpChecksum checksum() const { return checksum_; }
    void checksumIs(IpChecksum checksum) { checksum_ = checksum; }

    /// The checksum over IPv4, of the `udpLen` bytes that the pseudo header says.
    PAVO_EXPORT IpChecksum computedChecksum(const UdpPseudoHdr& pseudo) const;
    uint16_t computedChecksumU16(const UdpPseudoHdr& pseudo) const {
        return computedChecksum(pseudo).value();
    }
    /// The checksum over IPv6 (RFC 8200, 8.1). Takes the low 16 bits of `udpLen` as the length of
    /// what is summed after the pseudo header.
    PAVO_EXPORT IpChecksum computedChecksumIpv6(const UdpPseudoHdrIpv6& pseudo) const;
    uint16_t computedChecksumIpv6U16(const UdpPseudoHdrIpv6& pseudo) const {
        return computedChecksumIpv6(pseudo).value();
    }

    /// `badIpPayloadLen` unless 8 <= `udpLen()` <= `bytes`.
    PktErrors check(uint32_t bytes) const {
        return udpLen() >= sizeof(UdpHdr) && udpLen() <= bytes ? PktErrors::noError
                                                               : PktErrors::badIpPayloadLen;
    }

  private:
    UdpPort srcPort_;
    UdpPort dstPort_;
    UdpLen udpLen_;
    IpChecksum checksum_;
};
static_assert(isOverlay<UdpHdr>(8));

/// For a datagram over IPv4.
class PAVO_EXPORT UdpHdrWrapper : public TransportHdrWrapper<UdpHdrWrapper, UdpHdr, UdpPseudoHdr> {
  public:
    using TransportHdrWrapper::TransportHdrWrapper;

    static constexpr const char* typeName = "Pavo::UdpHdrWrapper";

    /// As `UdpHdr::computedChecksum`, with the addresses that are held and the header's length.
    uint16_t computedChecksum() const {
        return header_->computedChecksumU16({src(), dst(), header_->udpLen()});
    }
};

/// For a datagram over IPv6.
class PAVO_EXPORT UdpHdrWrapperIpv6
    : public TransportHdrWrapper<UdpHdrWrapperIpv6, UdpHdr, UdpPseudoHdrIpv6> {
  public:
    using TransportHdrWrapper::TransportHdrWrapper;

    static constexpr const char* typeName = "Pavo::UdpHdrWrapperIpv6";

    /// As `UdpHdr::computedChecksumIpv6`, with the addresses that are held and the header's length.
    uint16_t computedChecksum() const {
        return header_->computedChecksumIpv6U16({src(), dst(), header_->udpLen()});
    }
};

inline Mox::Ptr<UdpHdrWrapper> udpHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<UdpHdrWrapper>(pkt, offset);
}
inline Mox::Ptr<UdpHdrWrapperIpv6> udpHdrWrapperIpv6Factory(const Mox::Ptr<Pkt>& pkt,
                                                            uint32_t offset) {
    return Mox::make<UdpHdrWrapperIpv6>(pkt, offset);
}

}  // namespace Pavo
