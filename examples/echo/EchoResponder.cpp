#include "echo/EchoResponder.h"

#include <utility>

#include "Pavo/IcmpHdr.h"
#include "Pavo/IpHdr.h"

namespace Echo {

EchoResponder::EchoResponder(const Pavo::NamespaceName& netNs,
                             std::function<void(const Packet&)> seen)
    : seen_(std::move(seen)),
      pam_(Pavo::ipSocketPamFactory("echoResponder", Pavo::IpProtocolNumber::icmp, netNs)),
      readable_(pam_, Pavo::Pam::readableCountAttr, [this] { answerOne(); }) {
    pam_->optionsIs(Pavo::ipPktInfo | Pavo::ipRecvTTL | Pavo::ipRecvTOS);
    pam_->txTTLIs(answerTtl);
    pam_->enabledIs(true);  // Opens the socket; the first read attempt follows at once.
}

// One packet a report: while more waits, the loop reports again.
void EchoResponder::answerOne() {
    const Mox::Ptr<Pavo::Pkt> pkt = pam_->rxPkt();
    if (!pkt) {
        return;
    }
    const auto ip = Pavo::tryIpHdr(pkt, 0);
    const auto icmp = ip ? Pavo::tryIcmpEchoHdr(pkt, ip->headerBytes()) : nullptr;
    if (!icmp || icmp->type() != Pavo::IcmpType::echoRequest) {
        return;  // An ICMP socket hears every kind of message.
    }
    const uint16_t messageBytes = ip->payloadLen();
    if (icmp->computedChecksum(messageBytes) != Pavo::IpChecksum()) {
        return;
    }
    const Packet request{ip->src(),        ip->dst(),     pam_->rxIfIndex(),
                         pam_->rxTTL(),    pam_->rxTOS(), icmp->sequenceNumber(),
                         pkt->totalBytes()};

    // The request becomes the answer, in place; the kernel writes the new IP header.
    pkt->delSharedHeadData(ip->headerBytes());
    const auto answer = Pavo::icmpHdrWrapperFactory(pkt, 0);
    answer->typeIs(Pavo::IcmpType::echoReply);
    answer->checksumIs(Pavo::IpChecksum());
    answer->checksumIs(answer->computedChecksum(messageBytes));
    pam_->txSrcIpAddrIs(request.to);
    pam_->txDstIpAddrIs(request.from);
    pam_->txPktIs(pkt);
    seen_(request);
}

}  // namespace Echo
