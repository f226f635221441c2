/// @file
/// The header of ICMPv6 messages (RFC 4443, 2.1), and that of echo messages.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mox/Enum.h"
#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/IcmpHdr.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/value/Ip6Addr.h"

namespace Pavo {

/// Kinds of ICMPv6 message (IANA, "ICMPv6 type Numbers"): errors below 128, information from there
/// on. A packet may hold any other byte: it reads as that number, without a name.
enum class Icmp6Type : uint32_t {
    destinationUnreachable = 1,
    packetTooBig = 2,
    timeExceeded = 3,
    parameterProblem = 4,
    experiment1 = 100,
    experiment2 = 101,
    echoRequest = 128,
    echoReply = 129,
    multicastListenerQuery = 130,
    multicastListenerReport = 131,
    multicastListenerDone = 132,
    routerSolicitation = 133,
    routerAdvertisement = 134,
    neighborSolicitation = 135,
    neighborAdvertisement = 136,
    redirect = 137,
    routerRenumbering = 138,
    nodeInformationQuery = 139,
    nodeInformationResponse = 140,
    inverseNeighborSolicitation = 141,
    inverseNeighborAdvertisement = 142,
    multicastListenerReport2 = 143,
    homeAgentDiscoveryRequest = 144,
    homeAgentDiscoveryReply = 145,
    mobilePrefixSolicitation = 146,
    mobilePrefixAdvertisement = 147,
    certificationPathSolicitation = 148,
    certificationPathAdvertisement = 149,
    experimentalMobility = 150,
    multicastRouterAdvertisement = 151,
    multicastRouterSolicitation = 152,
    multicastRouterTermination = 153,
    fastHandover = 154,
    rplControl = 155,
    locatorUpdate = 156,
    duplicateAddressRequest = 157,
    duplicateAddressConfirmation = 158,
    mplControl = 159,
    extendedEchoRequest = 160,
    extendedEchoReply = 161,
    experiment3 = 200,
    experiment4 = 201,
};

/// @throws Mox::RangeException "Invalid Icmp6Type"
PAVO_EXPORT Icmp6Type Icmp6TypeInstance(uint32_t value);
/// @throws Mox::RangeException "Invalid Icmp6Type"
PAVO_EXPORT Icmp6Type Icmp6TypeInstance(const Mox::String& name);

// clang-format off
constexpr auto enumDescription(Icmp6Type) {
    return Mox::enumeration<Icmp6Type>("Invalid Icmp6Type", {
        {Icmp6Type::destinationUnreachable, "destinationUnreachable"},
        {Icmp6Type::packetTooBig, "packetTooBig"},
        {Icmp6Type::timeExceeded, "timeExceeded"},
        {Icmp6Type::parameterProblem, "parameterProblem"},
        {Icmp6Type::experiment1, "experiment1"},
        {Icmp6Type::experiment2, "experiment2"},
        {Icmp6Type::echoRequest, "echoRequest"},
        {Icmp6Type::echoReply, "echoReply"},
        {Icmp6Type::multicastListenerQuery, "multicastListenerQuery"},
        {Icmp6Type::multicastListenerReport, "multicastListenerReport"},
        {Icmp6Type::multicastListenerDone, "multicastListenerDone"},
        {Icmp6Type::routerSolicitation, "routerSolicitation"},
        {Icmp6Type::routerAdvertisement, "routerAdvertisement"},
        {Icmp6Type::neighborSolicitation, "neighborSolicitation"},
        {Icmp6Type::neighborAdvertisement, "neighborAdvertisement"},
        {Icmp6Type::redirect, "redirect"},
        {Icmp6Type::routerRenumbering, "routerRenumbering"},
        {Icmp6Type::nodeInformationQuery, "nodeInformationQuery"},
        {Icmp6Type::nodeInformationResponse, "nodeInformationResponse"},
        {Icmp6Type::inverseNeighborSolicitation, "inverseNeighborSolicitation"},
        {Icmp6Type::inverseNeighborAdvertisement, "inverseNeighborAdvertisement"},
        {Icmp6Type::multicastListenerReport2, "multicastListenerReport2"},
        {Icmp6Type::homeAgentDiscoveryRequest, "homeAgentDiscoveryRequest"},
        {Icmp6Type::homeAgentDiscoveryReply, "homeAgentDiscoveryReply"},
        {Icmp6Type::mobilePrefixSolicitation, "mobilePrefixSolicitation"},
        {Icmp6Type::mobilePrefixAdvertisement, "mobilePrefixAdvertisement"},
        {Icmp6Type::certificationPathSolicitation, "certificationPathSolicitation"},
        {Icmp6Type::certificationPathAdvertisement, "certificationPathAdvertisement"},
        {Icmp6Type::experimentalMobility, "experimentalMobility"},
        {Icmp6Type::multicastRouterAdvertisement, "multicastRouterAdvertisement"},
        {Icmp6Type::multicastRouterSolicitation, "multicastRouterSolicitation"},
        {Icmp6Type::multicastRouterTermination, "multicastRouterTermination"},
        {Icmp6Type::fastHandover, "fastHandover"},
        {Icmp6Type::rplControl, "rplControl"},
        {Icmp6Type::locatorUpdate, "locatorUpdate"},
        {Icmp6Type::duplicateAddressRequest, "duplicateAddressRequest"},
        {Icmp6Type::duplicateAddressConfirmation, "duplicateAddressConfirmation"},
        {Icmp6Type::mplControl, "mplControl"},
        {Icmp6Type::extendedEchoRequest, "extendedEchoRequest"},
        {Icmp6Type::extendedEchoReply, "extendedEchoReply"},
        {Icmp6Type::experiment3, "experiment3"},
        {Icmp6Type::experiment4, "experiment4"},
    });
}
// clang-format on

/// The beginning of every ICMPv6 message:
///
///     | type (1) | code (1) | checksum (2) |
class Icmp6Hdr : public IcmpFields<Icmp6Type> {
  public:
    static constexpr std::string_view recordName = "Icmp6Hdr";

    /// The checksum over the message of `bytes` bytes that begins here, header and checksum field
    /// included, and over the pseudo header with the addresses of the IPv6 header (RFC 8200, 8.1):
    /// 0 when that is right. To fill the field in, it is zeroed first.
    PAVO_EXPORT IpChecksum computedChecksum(const Ip6Addr& src, const Ip6Addr& dst,
                                            uint16_t bytes) const;
    /// The unfolded sum of the pseudo header alone, for a message in pieces.
    PAVO_EXPORT static uint32_t pseudoHdrSum(const Ip6Addr& src, const Ip6Addr& dst,
                                             uint16_t bytes);
};
static_assert(isOverlay<Icmp6Hdr>(4));

/// The header of an echo request or reply, before the data that is to come back (RFC 4443, 4.1
/// and 4.2):
///
///     | type (1) | code (1)       | checksum (2)        |
///     | identifier (2)            | sequence number (2) |
class Icmp6EchoHdr : public IcmpEchoFields<Icmp6Hdr> {
  public:
    static constexpr std::string_view recordName = "Icmp6EchoHdr";
};
static_assert(isOverlay<Icmp6EchoHdr>(8));

/// Adds what needs the packet to a wrapper of an ICMPv6 header.
template <class Self, class Hdr>
class Icmp6HdrWrapperBase : public IcmpFieldsWrapper<Self, Hdr> {
  public:
    using IcmpFieldsWrapper<Self, Hdr>::IcmpFieldsWrapper;

    /// As `Icmp6Hdr::computedChecksum`. Fatal when the message does not lie wholly in the first
    /// iovec: "( offset_ + bytes ) <= pkt_->frontBytes()".
    IpChecksum computedChecksum(const Ip6Addr& src, const Ip6Addr& dst, uint16_t bytes) const {
        this->requireFront(bytes, "( offset_ + bytes ) <= pkt_->frontBytes()");
        return this->header_->computedChecksum(src, dst, bytes);
    }
};

class PAVO_EXPORT Icmp6HdrWrapper : public Icmp6HdrWrapperBase<Icmp6HdrWrapper, Icmp6Hdr> {
  public:
    using Icmp6HdrWrapperBase::Icmp6HdrWrapperBase;

    static constexpr const char* typeName = "Pavo::Icmp6HdrWrapper";
};

class PAVO_EXPORT Icmp6EchoHdrWrapper
    : public Icmp6HdrWrapperBase<Icmp6EchoHdrWrapper, Icmp6EchoHdr> {
  public:
    using Icmp6HdrWrapperBase::Icmp6HdrWrapperBase;

    static constexpr const char* typeName = "Pavo::Icmp6EchoHdrWrapper";
};

inline Mox::Ptr<Icmp6HdrWrapper> icmp6HdrWrapperFactory(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<Icmp6HdrWrapper>(pkt, offset);
}
inline Mox::Ptr<Icmp6EchoHdrWrapper> icmp6EchoHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt,
                                                                uint32_t offset) {
    return Mox::make<Icmp6EchoHdrWrapper>(pkt, offset);
}

}  // namespace Pavo
