#include "Pavo/ip/IpArrival.h"

#include <cstring>

#include "Pavo/ip/IpHost.h"
#include "Pavo/packet/Ip6Hdr.h"
#include "Pavo/packet/IpHdr.h"
#include "Pavo/packet/UdpHdr.h"

namespace Pavo {

bool IpArrival::isBroadcast(const IpGenAddr& address) {
    return address == IpGenAddr(IpAddr(0xffffffff));
}

bool IpArrival::read(const Mox::Ptr<Pkt>& pkt, IpArrival* arrival) {
    pkt->linearize();
    IpMsg& msg = arrival->msg;
    if (ipMsgAt(pkt, 0, msg) != PktErrors::noError) {
        return false;
    }
    arrival->tos =
        msg.src.af() == ipv4
            ? reinterpret_cast<const IpHdr*>(pkt->frontData())->tos()
            : static_cast<uint8_t>(
                  reinterpret_cast<const Ip6Hdr*>(pkt->frontData())->trafficClass().value());
    arrival->ifIndex = pkt->hasSeparateVlanTag() ? pkt->separateVlanTci() : IpHost::ethIfIndex;
    arrival->readUdp();
    return true;
}

void IpArrival::readUdp() {
    if (msg.protocol != IpProtocolNumber::udp) {
        return;
    }
    const auto udp = msg.hdr<UdpHdr>();
    if (!udp) {
        return;
    }
    srcPort = udp->srcPort();
    dstPort = udp->dstPort();
    const bool hasNone = msg.src.af() == ipv4 && udp->checksum() == IpChecksum();  // RFC 8200, 8.1.
    const uint16_t bytes = udp->udpLen();
    const bool isRight = hasNone || msg.checksum(bytes, msg.pseudoHdrSum(bytes)) == IpChecksum();
    udpBytes = isRight ? bytes : 0;
}

// The IP header comes back with the ports that follow it.
bool IpArrival::readUnreachable(PktInfo* sent) const {
    constexpr uint32_t icmpBytes = 8;
    constexpr uint8_t port4[] = {3, 3};  // Type and code.
    constexpr uint8_t port6[] = {1, 4};
    const bool six = msg.src.af() == ipv6;
    if (msg.protocol != (six ? IpProtocolNumber::ipv6Icmp : IpProtocolNumber::icmp) ||
        msg.bytes < icmpBytes + (six ? sizeof(Ip6Hdr) : sizeof(IpHdr)) ||
        std::memcmp(msg.pkt->frontData() + msg.offset, six ? port6 : port4, 2) != 0) {
        return false;
    }
    if (msg.checksum(msg.bytes, six ? msg.pseudoHdrSum(msg.bytes) : 0) != IpChecksum()) {
        return false;
    }
    const uint8_t* const begin = msg.pkt->frontData() + msg.offset + icmpBytes;
    IpProtocolNumber protocol;
    uint32_t hdrBytes = sizeof(Ip6Hdr);
    if (six) {
        protocol = reinterpret_cast<const Ip6Hdr*>(begin)->protocolNum();
        sent->srcIpAddr = reinterpret_cast<const Ip6Hdr*>(begin)->src();
        sent->dstIpAddr = reinterpret_cast<const Ip6Hdr*>(begin)->dst();
    } else {
        protocol = reinterpret_cast<const IpHdr*>(begin)->protocolNum();
        sent->srcIpAddr = reinterpret_cast<const IpHdr*>(begin)->src();
        sent->dstIpAddr = reinterpret_cast<const IpHdr*>(begin)->dst();
        hdrBytes = reinterpret_cast<const IpHdr*>(begin)->headerBytes();
    }
    if (protocol != IpProtocolNumber::udp || msg.bytes < icmpBytes + hdrBytes + sizeof(UdpHdr)) {
        return false;
    }
    const auto& udp = *reinterpret_cast<const UdpHdr*>(begin + hdrBytes);
    sent->srcPort = udp.srcPort();
    sent->dstPort = udp.dstPort();
    return true;
}

}  // namespace Pavo
