#include "Pavo/packet/IpMsg.h"

#include <algorithm>

#include "Pavo/packet/Checksum.h"
#include "Pavo/packet/Ip6Hdr.h"
#include "Pavo/packet/IpHdr.h"
#include "Pavo/packet/PktUtils.h"

namespace Pavo {

uint32_t IpMsg::frontBytes() const {
    const uint32_t front = pkt->frontBytes();
    return front <= offset ? 0 : std::min(front - offset, bytes);
}

uint32_t IpMsg::pseudoHdrSum(uint32_t pseudoBytes) const {
    const uint32_t addresses = src.af() == ipv6 ? addressSumOf(src.address(), dst.address())
                                                : addressSumOf(src.v4Addr(), dst.v4Addr());
    return addresses + static_cast<uint32_t>(protocol) + (pseudoBytes >> 16) +
           (pseudoBytes & 0xffff);
}

IpChecksum IpMsg::checksum(uint32_t count, uint32_t sum) const {
    if (count > 0xffff) {
        return IpChecksum(0xffff);
    }
    return pktChecksum(*pkt, offset, static_cast<uint16_t>(count), sum);
}

namespace {

PktErrors ip4MsgAt(const Mox::Ptr<Pkt>& pkt, uint32_t offset, IpMsg& msg) {
    const uint32_t there = pkt->frontBytes() - offset;
    if (there < sizeof(IpHdr)) {
        return PktErrors::pktTooShort;
    }
    const auto& ip = *reinterpret_cast<const IpHdr*>(pkt->frontData() + offset);
    const uint32_t headerBytes = ip.headerBytes();
    if (headerBytes < sizeof(IpHdr) || headerBytes > ip.totalLen() ||
        ip.totalLen() > pkt->totalBytes() - offset) {
        return PktErrors::badIpPayloadLen;
    }
    if (headerBytes > there) {
        return PktErrors::pktTooShort;
    }
    if (ip.computedChecksum() != IpChecksum()) {
        return PktErrors::badIpHdrChecksum;
    }
    if (ip.moreFrag() || ip.fragmentOffset() != IpFragmentOffset(0)) {
        return PktErrors::ipFragment;
    }
    msg = {.pkt = pkt,
           .offset = offset + headerBytes,
           .bytes = ip.payloadLen(),
           .protocol = ip.protocolNum(),
           .src = ip.src(),
           .dst = ip.dst(),
           .ttl = static_cast<uint8_t>(ip.ttl().value())};
    return PktErrors::noError;
}

bool isSkipped(IpProtocolNumber number) {
    return number == IpProtocolNumber::hopopt || number == IpProtocolNumber::ipv6Route ||
           number == IpProtocolNumber::ipv6Opts;
}

PktErrors ip6MsgAt(const Mox::Ptr<Pkt>& pkt, uint32_t offset, IpMsg& msg) {
    if (pkt->frontBytes() - offset < sizeof(Ip6Hdr)) {
        return PktErrors::pktTooShort;
    }
    const auto& ip6 = *reinterpret_cast<const Ip6Hdr*>(pkt->frontData() + offset);
    if (ip6.payloadLen() > pkt->totalBytes() - offset - sizeof(Ip6Hdr)) {
        return PktErrors::badIp6PayloadLen;
    }
    uint32_t at = offset + uint32_t{sizeof(Ip6Hdr)};
    const uint32_t end = at + ip6.payloadLen();
    IpProtocolNumber next = ip6.protocolNum();
    while (isSkipped(next)) {
        if (end - at < sizeof(Ip6HdrOptionCommon)) {
            return PktErrors::badIp6PayloadLen;
        }
        if (at + sizeof(Ip6HdrOptionCommon) > pkt->frontBytes()) {
            return PktErrors::pktTooShort;
        }
        const auto& options = *reinterpret_cast<const Ip6HdrOptionCommon*>(pkt->frontData() + at);
        if (options.headerBytes() > end - at) {
            return PktErrors::badIp6PayloadLen;
        }
        next = protocolNumFromByte(options.nextHdrNum());
        at += options.headerBytes();
    }
    if (next == IpProtocolNumber::ipv6Frag) {
        return PktErrors::ipFragment;
    }
    msg = {.pkt = pkt,
           .offset = at,
           .bytes = end - at,
           .protocol = next,
           .src = ip6.src(),
           .dst = ip6.dst(),
           .ttl = ip6.hopLimit()};
    return PktErrors::noError;
}

}  // namespace

PktErrors ipMsgAt(const Mox::Ptr<Pkt>& pkt, uint32_t offset, IpMsg& msg) {
    if (offset >= pkt->frontBytes()) {
        return PktErrors::pktTooShort;
    }
    switch (pkt->frontData()[offset] >> 4) {
        case 4:
            return ip4MsgAt(pkt, offset, msg);
        case 6:
            return ip6MsgAt(pkt, offset, msg);
        default:
            return PktErrors::nonIpHdr;
    }
}

}  // namespace Pavo
