#include "Pavo/packet/PktUtils.h"

#include <cstdint>
#include <ios>

#include "Mox/Trace.h"

#include "Pavo/value/Ip.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::PktUtils");
constexpr int faultLevel = 1;

// The headers of a frame that is long enough and has the right type, or what is wrong.
template <class Hdr>
PktErrors bindHeaders(const Mox::Ptr<Pkt>& pkt, uint16_t requiredType, EthHdr*& eth, Hdr*& header) {
    constexpr uint32_t needed = sizeof(EthHdr) + sizeof(Hdr);
    const uint32_t totalBytes = pkt->totalBytes();
    if (totalBytes < needed) {
        MOX_TRACE(facility, faultLevel, "Packet has ", totalBytes,
                  " bytes which is less than needed");
        return PktErrors::pktTooShort;
    }
    if (pkt->frontBytes() < needed) {
        MOX_TRACE(facility, faultLevel, "Headers do not lie in the first ", pkt->frontBytes(),
                  " bytes");
        return PktErrors::pktTooShort;
    }
    auto* frame = reinterpret_cast<EthHdr*>(pkt->frontData());
    if (frame->type() != requiredType) {
        MOX_TRACE(facility, faultLevel, "Got required Type: ", std::hex, std::showbase,
                  frame->type(), " vs. ", requiredType, " src MAC: ", frame->src(),
                  " dst MAC: ", frame->dst());
        return PktErrors::wrongEthType;
    }
    eth = frame;
    header = reinterpret_cast<Hdr*>(frame + 1);
    return PktErrors::noError;
}

// Whether header and payload fit each other and the `bytes` from the header to the end of the
// packet. A total length below the header length would make a payload of almost 2^16 bytes.
bool areLengthsGood(const IpHdr& ip, uint32_t bytes) {
    const uint32_t headerBytes = ip.headerBytes();
    return headerBytes >= sizeof(IpHdr) && headerBytes <= ip.totalLen() &&
           headerBytes + ip.payloadLen() <= bytes;
}

}  // namespace

PktErrors checkEthIpHdr(const Mox::Ptr<Pkt>& pkt, EthHdr*& eth, IpHdr*& ip) {
    const PktErrors error = bindHeaders(pkt, EthType::ip, eth, ip);
    if (error != PktErrors::noError) {
        return error;
    }
    if (ip->version() != IpVersion(4)) {
        MOX_TRACE(facility, faultLevel, "Ip hdr is not IPv4");
        return PktErrors::nonIpHdr;
    }
    if (!areLengthsGood(*ip, pkt->totalBytes() - sizeof(EthHdr))) {
        MOX_TRACE(facility, faultLevel,
                  "IPv4 payload length is larger than the actual packet size");
        return PktErrors::badIpPayloadLen;
    }
    if (sizeof(EthHdr) + ip->headerBytes() > pkt->frontBytes()) {
        MOX_TRACE(facility, faultLevel, "Headers do not lie in the first ", pkt->frontBytes(),
                  " bytes");
        return PktErrors::pktTooShort;
    }
    if (ip->computedChecksum() != IpChecksum()) {
        MOX_TRACE(facility, faultLevel, "IPv4 header checksum is invalid");
        return PktErrors::badIpHdrChecksum;
    }
    return PktErrors::noError;
}

PktErrors checkEthIp6Hdr(const Mox::Ptr<Pkt>& pkt, EthHdr*& eth, Ip6Hdr*& ip6) {
    const PktErrors error = bindHeaders(pkt, EthType::ip6, eth, ip6);
    if (error != PktErrors::noError) {
        return error;
    }
    if (ip6->version() != IpVersion(6)) {
        MOX_TRACE(facility, faultLevel, "Ip hdr is not IPv6");
        return PktErrors::nonIp6Hdr;
    }
    if (ip6->payloadLen() > pkt->totalBytes() - sizeof(EthHdr) - sizeof(Ip6Hdr)) {
        MOX_TRACE(facility, faultLevel,
                  "IPv6 payload length is larger than the actual packet size. ");
        return PktErrors::badIp6PayloadLen;
    }
    return PktErrors::noError;
}

PktErrors checkIcmp6CheckSum(Ip6Hdr* ip6, Icmp6Hdr*& icmp6) {
    if (ip6->protocolNum() != IpProtocolNumber::ipv6Icmp) {
        MOX_TRACE(facility, faultLevel, "Next header is not Icmp6");
        return PktErrors::nextHdrIsNotIcmp6;
    }
    const uint16_t payloadLen = ip6->payloadLen();
    if (payloadLen < sizeof(Icmp6Hdr)) {
        MOX_TRACE(facility, faultLevel, "IP6 payload is too small to contain Icmp6");
        // The fault is in the IPv6 header's length, hence not a code of ICMPv6.
        return PktErrors::badIp6PayloadLen;
    }
    icmp6 = reinterpret_cast<Icmp6Hdr*>(ip6 + 1);
    if (icmp6->computedChecksum(ip6->src(), ip6->dst(), payloadLen) != IpChecksum()) {
        MOX_TRACE(facility, faultLevel, "Icmp6 checksum is invalid");
        return PktErrors::badIcmp6Checksum;
    }
    return PktErrors::noError;
}

}  // namespace Pavo
