#include "echo/Echo.h"

#include "Pavo/Icmp6Hdr.h"
#include "Pavo/IcmpHdr.h"
#include "Pavo/Ip6Pam.h"
#include "Pavo/IpHdr.h"
#include "Pavo/IpSocketPam.h"

namespace Echo {

namespace {

template <class Hdr, class Type>
void addEchoHdr(const Mox::Ptr<Pavo::Pkt>& pkt, Type type, uint16_t id, uint16_t sequence) {
    auto* header = reinterpret_cast<Hdr*>(pkt->newSharedHeadData(sizeof(Hdr)));
    *header = Hdr();
    header->typeIs(type);
    header->idIs(id);
    header->sequenceNumberIs(sequence);
}

// Takes the fields of an echo header; false for any other message.
template <class Type, class View>
bool take(const View& header, Packet* packet) {
    if (!header || (header->type() != Type::echoRequest && header->type() != Type::echoReply)) {
        return false;
    }
    packet->isRequest = header->type() == Type::echoRequest;
    packet->id = header->id();
    packet->sequence = header->sequenceNumber();
    return true;
}

}  // namespace

Mox::Ptr<Pavo::RawIpPam> newPam(const char* name, Pavo::AddressFamily family,
                                const Pavo::NamespaceName& netNs) {
    if (family == Pavo::ipv6) {
        return Pavo::ip6PamFactory(name, Pavo::Ip6Pam::Mode::icmp6, netNs);
    }
    const auto pam = Pavo::ipSocketPamFactory(name, Pavo::IpProtocolNumber::icmp, netNs);
    pam->optionsIs(Pavo::ipPktInfo | Pavo::ipRecvTTL | Pavo::ipRecvTOS);
    return pam;
}

void addHeader(const Mox::Ptr<Pavo::Pkt>& pkt, Pavo::AddressFamily family, uint16_t id,
               uint16_t sequence) {
    if (family == Pavo::ipv6) {
        addEchoHdr<Pavo::Icmp6EchoHdr>(pkt, Pavo::Icmp6Type::echoRequest, id, sequence);
        return;
    }
    addEchoHdr<Pavo::IcmpEchoHdr>(pkt, Pavo::IcmpType::echoRequest, id, sequence);
    const auto icmp = Pavo::icmpEchoHdrWrapperFactory(pkt, 0);
    icmp->checksumIs(icmp->computedChecksum(static_cast<uint16_t>(pkt->totalBytes())));
}

std::optional<Packet> readPacket(const Mox::Ptr<Pavo::Pkt>& pkt, const Pavo::RawIpPam& pam) {
    Packet packet{};
    packet.from = pam.rxSrcIpAddr();
    packet.to = pam.rxDstIpAddr();
    packet.ifIndex = pam.rxIfIndex();
    packet.ttl = pam.rxTTL();
    packet.tos = pam.rxTOS();
    packet.bytes = pkt->totalBytes();
    if (packet.from.af() == Pavo::ipv6) {  // The kernel has looked at the checksum.
        return take<Pavo::Icmp6Type>(Pavo::tryHdr<Pavo::Icmp6EchoHdr>(pkt, 0), &packet)
                   ? std::optional(packet)
                   : std::nullopt;
    }
    const auto ip = Pavo::tryHdr<Pavo::IpHdr>(pkt, 0);
    packet.headerBytes = ip ? ip->headerBytes() : 0;
    const auto icmp = Pavo::tryHdr<Pavo::IcmpEchoHdr>(pkt, packet.headerBytes);
    const bool isSound = ip && take<Pavo::IcmpType>(icmp, &packet) &&
                         icmp->computedChecksum(ip->payloadLen()) == Pavo::IpChecksum();
    return isSound ? std::optional(packet) : std::nullopt;
}

void makeAnswer(const Mox::Ptr<Pavo::Pkt>& pkt, const Packet& request) {
    pkt->delSharedHeadData(request.headerBytes);
    if (request.from.af() == Pavo::ipv6) {
        Pavo::icmp6HdrWrapperFactory(pkt, 0)->typeIs(Pavo::Icmp6Type::echoReply);
        return;
    }
    const auto answer = Pavo::icmpHdrWrapperFactory(pkt, 0);
    answer->typeIs(Pavo::IcmpType::echoReply);
    answer->checksumIs(Pavo::IpChecksum());
    answer->checksumIs(answer->computedChecksum(static_cast<uint16_t>(pkt->totalBytes())));
}

}  // namespace Echo
