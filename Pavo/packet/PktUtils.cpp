#include "Pavo/packet/PktUtils.h"

#include <cstdint>
#include <ios>

#include "Mox/Trace.h"

#include "Pavo/packet/Checksum.h"
#include "Pavo/packet/PktPieces.h"
#include "Pavo/value/Ip.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::PktUtils");
constexpr int faultLevel = 1;

// The headers of a frame that is long enough and has the right type, or what is wrong.
template <class Hdr>
PktErrors bindHeaders(const Mox::Ptr<Pkt>& pkt, uint32_t totalBytes, uint16_t requiredType,
                      EthHdr*& eth, Hdr*& header) {
    constexpr uint32_t needed = sizeof(EthHdr) + sizeof(Hdr);
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
    const uint32_t totalBytes = pkt->totalBytes();
    const PktErrors error = bindHeaders(pkt, totalBytes, EthType::ip, eth, ip);
    if (error != PktErrors::noError) {
        return error;
    }
    if (ip->version() != IpVersion(4)) {
        MOX_TRACE(facility, faultLevel, "Ip hdr is not IPv4");
        return PktErrors::nonIpHdr;
    }
    if (!areLengthsGood(*ip, totalBytes - uint32_t{sizeof(EthHdr)})) {
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
    const uint32_t totalBytes = pkt->totalBytes();
    const PktErrors error = bindHeaders(pkt, totalBytes, EthType::ip6, eth, ip6);
    if (error != PktErrors::noError) {
        return error;
    }
    if (ip6->version() != IpVersion(6)) {
        MOX_TRACE(facility, faultLevel, "Ip hdr is not IPv6");
        return PktErrors::nonIp6Hdr;
    }
    if (ip6->payloadLen() > totalBytes - sizeof(EthHdr) - sizeof(Ip6Hdr)) {
        MOX_TRACE(facility, faultLevel,
                  "IPv6 payload length is larger than the actual packet size. ");
        return PktErrors::badIp6PayloadLen;
    }
    return PktErrors::noError;
}

namespace {

// The faults that the IPv6 header alone shows.
PktErrors checkIcmp6Payload(const Ip6Hdr& ip6) {
    if (ip6.protocolNum() != IpProtocolNumber::ipv6Icmp) {
        MOX_TRACE(facility, faultLevel, "Next header is not Icmp6");
        return PktErrors::nextHdrIsNotIcmp6;
    }
    if (ip6.payloadLen() < sizeof(Icmp6Hdr)) {
        MOX_TRACE(facility, faultLevel, "IP6 payload is too small to contain Icmp6");
        // The fault is in the IPv6 header's length, hence not a code of ICMPv6.
        return PktErrors::badIp6PayloadLen;
    }
    return PktErrors::noError;
}

PktErrors checkedSum(IpChecksum sum) {
    if (sum != IpChecksum()) {
        MOX_TRACE(facility, faultLevel, "Icmp6 checksum is invalid");
        return PktErrors::badIcmp6Checksum;
    }
    return PktErrors::noError;
}

}  // namespace

PktErrors checkIcmp6CheckSum(const Mox::Ptr<Pkt>& pkt, Ip6Hdr* ip6, Icmp6Hdr*& icmp6) {
    const PktErrors error = checkIcmp6Payload(*ip6);
    if (error != PktErrors::noError) {
        return error;
    }
    const auto offset =
        static_cast<uint32_t>(reinterpret_cast<const uint8_t*>(ip6 + 1) - pkt->frontData());
    const uint16_t bytes = ip6->payloadLen();
    if (uint64_t{offset} + bytes > pkt->totalBytes()) {
        MOX_TRACE(facility, faultLevel,
                  "IPv6 payload length is larger than the actual packet size. ");
        return PktErrors::badIp6PayloadLen;
    }
    if (offset + sizeof(Icmp6Hdr) > pkt->frontBytes()) {
        MOX_TRACE(facility, faultLevel, "Headers do not lie in the first ", pkt->frontBytes(),
                  " bytes");
        return PktErrors::pktTooShort;
    }
    icmp6 = reinterpret_cast<Icmp6Hdr*>(ip6 + 1);
    const uint32_t sum = Icmp6Hdr::pseudoHdrSum(ip6->src(), ip6->dst(), bytes);
    return checkedSum(pktChecksum(*pkt, offset, bytes, sum));
}

PktErrors checkIcmp6CheckSum(Ip6Hdr* ip6, Icmp6Hdr*& icmp6) {
    const PktErrors error = checkIcmp6Payload(*ip6);
    if (error != PktErrors::noError) {
        return error;
    }
    icmp6 = reinterpret_cast<Icmp6Hdr*>(ip6 + 1);
    return checkedSum(icmp6->computedChecksum(ip6->src(), ip6->dst(), ip6->payloadLen()));
}

IpChecksum pktChecksum(const Pkt& pkt, uint32_t offset, uint16_t bytes, uint32_t sum) {
    Mox::require(uint64_t{offset} + bytes <= pkt.totalBytes(),
                 "offset + bytes <= pkt.totalBytes()");
    uint8_t word[2];
    bool isHalf = false;  // The first byte of `word` was the last of the piece before.
    forEachPiece(pkt, offset, bytes, [&](const uint8_t* data, uint32_t n) {
        if (isHalf) {
            word[1] = *data++;
            --n;
            isHalf = false;
            sum = ipChecksumChunk(word, sizeof(word), sum);
        }
        sum = ipChecksumChunk(data, static_cast<uint16_t>(n & ~1u), sum);
        if (n % 2 != 0) {
            word[0] = data[n - 1];
            isHalf = true;
        }
    });
    return ipChecksumCalc(word, isHalf ? 1 : 0, sum);
}

}  // namespace Pavo
