#include "host/Answers.h"

#include <optional>
#include <span>

#include "Pavo/ArpHdr.h"
#include "Pavo/BuildPkt.h"
#include "Pavo/Icmp6NdHdr.h"
#include "Pavo/IcmpHdr.h"
#include "Pavo/IpMsg.h"
#include "Pavo/UdpHdr.h"

namespace Host {

namespace {

using Mox::Ptr;
using Pavo::Pkt;

// A message, and the stations that it goes between.
struct Request {
    Pavo::EthAddr from;
    Pavo::EthAddr to;
    Pavo::IpMsg msg;
};

// One sender, to whom an answer can go (RFC 1122, 3.2.1.3).
bool isSender(const Config& host, const Pavo::IpGenAddr& source) {
    return !source.isMulticast() && !source.address().isZero() &&
           source != Pavo::IpGenAddr(Pavo::IpAddr(0xffffffff)) &&
           source != Pavo::IpGenAddr(host.ip) && source != Pavo::IpGenAddr(host.ip6);
}

// Nothing for another protocol, and where the headers are not sound, which `ipMsgAt` checks.
std::optional<Request> requestIn(const Ptr<Pkt>& pkt, Pavo::IpProtocolNumber protocol) {
    Request request;
    const auto eth = Pavo::tryHdr<Pavo::EthHdr>(pkt, 0);
    if (!eth || ipMsgAt(pkt, sizeof(*eth), request.msg) != Pavo::PktErrors::noError ||
        request.msg.protocol != protocol) {
        return std::nullopt;
    }
    request.from = eth->src();
    request.to = eth->dst();
    return request;
}

// A device on a bridge also gets frames for other stations.
bool isFor(const Config& host, const Request& request) {
    const Pavo::IpGenAddr& dst = request.msg.dst;
    return request.to == host.mac && isSender(host, request.msg.src) &&
           (dst == Pavo::IpGenAddr(host.ip) || dst == Pavo::IpGenAddr(host.ip6));
}

// The bytes of a message from `hdrBytes` up to `bytes`.
std::span<const uint8_t> payloadOf(const Pavo::IpMsg& msg, uint32_t hdrBytes, uint32_t bytes) {
    return {msg.pkt->frontData() + msg.offset + hdrBytes, bytes - hdrBytes};
}

// A frame with these layers after the IP header, to the sender of the request.
template <class... Layers>
Ptr<Pkt> answerTo(const Config& host, const Request& request, const Layers&... layers) {
    const Pavo::Eth eth{.dst = request.from, .src = host.mac};
    const Pavo::IpGenAddr& to = request.msg.src;
    return to.af() == Pavo::ipv6
               ? buildPkt(eth, Pavo::Ip6{.src = host.ip6, .dst = to.v6Addr()}, layers...)
               : buildPkt(eth, Pavo::Ip{.src = host.ip, .dst = to.v4Addr()}, layers...);
}

Ptr<Pkt> answerSolicitation(const Config& host, const Request& request) {
    const auto solicitation = checkNs(request.msg);
    if (!solicitation || solicitation->target() != host.ip6) {
        return nullptr;
    }
    // A host that has no address yet is answered by a message to all nodes.
    const Pavo::Ip6Addr from = request.msg.src.v6Addr();
    const bool hasAddress = from != Pavo::Ip6Addr();
    return buildPkt(
        Pavo::Eth{.dst = hasAddress ? request.from : Pavo::EthAddr(0x3333, 0, 1), .src = host.mac},
        Pavo::Ip6{
            .src = host.ip6, .dst = hasAddress ? from : Pavo::ip6AddrAllNodes, .hopLimit = 255},
        Pavo::Icmp6Na{.target = host.ip6, .solicited = hasAddress},
        Pavo::NdLinkAddr{.type = Pavo::NdOptionType::targetLinkAddr, .mac = host.mac});
}

Ptr<Pkt> answerPing6(const Config& host, const Request& request) {
    const Pavo::IpMsg& msg = request.msg;
    const auto ping = msg.wholeHdr<Pavo::Icmp6EchoHdr>();
    if (!isFor(host, request) || !ping || ping->type() != Pavo::Icmp6Type::echoRequest ||
        msg.checksum(msg.bytes, msg.pseudoHdrSum(msg.bytes)) != Pavo::IpChecksum()) {
        return nullptr;
    }
    return answerTo(host, request,
                    Pavo::Icmp6{.type = Pavo::Icmp6Type::echoReply,
                                .id = ping->id(),
                                .sequenceNumber = ping->sequenceNumber()},
                    payloadOf(msg, sizeof(*ping), msg.bytes));
}

}  // namespace

Ptr<Pkt> answerArp(const Config& host, const Ptr<Pkt>& request) {
    const auto arp = Pavo::tryHdr<Pavo::ArpHdr>(request, sizeof(Pavo::EthHdr));
    if (!arp || arp->op() != Pavo::ArpOp::request || arp->targetIp() != host.ip) {
        return nullptr;
    }
    return buildPkt(Pavo::Eth{.dst = arp->senderMac(), .src = host.mac},
                    Pavo::Arp{.op = Pavo::ArpOp::reply,
                              .senderMac = host.mac,
                              .senderIp = host.ip,
                              .targetMac = arp->senderMac(),
                              .targetIp = arp->senderIp()});
}

Ptr<Pkt> answerIcmp(const Config& host, const Ptr<Pkt>& request) {
    const auto received = requestIn(request, Pavo::IpProtocolNumber::icmp);
    if (!received || !isFor(host, *received)) {
        return nullptr;
    }
    const Pavo::IpMsg& msg = received->msg;
    const auto ping = msg.wholeHdr<Pavo::IcmpEchoHdr>();
    if (!ping || ping->type() != Pavo::IcmpType::echoRequest ||
        msg.checksum(msg.bytes) != Pavo::IpChecksum()) {
        return nullptr;
    }
    return answerTo(host, *received,
                    Pavo::Icmp{.type = Pavo::IcmpType::echoReply,
                               .id = ping->id(),
                               .sequenceNumber = ping->sequenceNumber()},
                    payloadOf(msg, sizeof(*ping), msg.bytes));
}

Ptr<Pkt> answerIcmp6(const Config& host, const Ptr<Pkt>& request) {
    const auto received = requestIn(request, Pavo::IpProtocolNumber::ipv6Icmp);
    if (!received) {
        return nullptr;
    }
    const Ptr<Pkt> advertisement = answerSolicitation(host, *received);
    return advertisement ? advertisement : answerPing6(host, *received);
}

Ptr<Pkt> answerUdp(const Config& host, const Ptr<Pkt>& request) {
    const auto received = requestIn(request, Pavo::IpProtocolNumber::udp);
    if (!received || !isFor(host, *received)) {
        return nullptr;
    }
    const Pavo::IpMsg& msg = received->msg;
    const auto udp = msg.wholeHdr<Pavo::UdpHdr>();
    // Nobody is at port 0, and another host like this one would send the answer back for ever.
    if (!udp || udp->srcPort() == Pavo::Port() || udp->srcPort() == udp->dstPort()) {
        return nullptr;
    }
    // Over IPv4 a sender may leave the checksum out.
    const uint16_t bytes = udp->udpLen();
    const bool hasChecksum = msg.dst.af() == Pavo::ipv6 || udp->checksum() != Pavo::IpChecksum();
    if (hasChecksum && msg.checksum(bytes, msg.pseudoHdrSum(bytes)) != Pavo::IpChecksum()) {
        return nullptr;
    }
    return answerTo(host, *received,
                    Pavo::Udp{.srcPort = udp->dstPort(), .dstPort = udp->srcPort()},
                    payloadOf(msg, sizeof(*udp), bytes));
}

}  // namespace Host
