#include "echo/EchoRequester.h"

#include <utility>

#include "Pavo/IcmpHdr.h"
#include "Pavo/IpHdr.h"

namespace Echo {

EchoRequester::EchoRequester(const Config& config, Mox::Clock* clock,
                             std::function<void(const Packet&, double)> answered)
    : config_(config),
      clock_(clock),
      answered_(std::move(answered)),
      pam_(Pavo::ipSocketPamFactory("echoRequester", Pavo::IpProtocolNumber::icmp, config.netNs)),
      readable_(pam_, Pavo::Pam::readableCountAttr, [this] { readOne(); }),
      next_(clock, [this] { sendOne(); }) {
    pam_->optionsIs(Pavo::ipHdrIncl | Pavo::ipPktInfo | Pavo::ipRecvTTL | Pavo::ipRecvTOS);
    pam_->txDstIpAddrIs(config_.to);
    pam_->enabledIs(true);
    next_.expiryIs(clock_->now());
}

// A packet is built from its end to its front: each layer prepends its header to what is there.
Mox::Ptr<Pavo::Pkt> EchoRequester::newRequest(uint16_t sequence) const {
    const Mox::Ptr<Pavo::Pkt> pkt = Pavo::pktFactory();
    uint8_t* payload = pkt->newSharedHeadData(config_.payloadBytes);
    for (uint32_t i = 0; i < config_.payloadBytes; ++i) {
        payload[i] = static_cast<uint8_t>(i);
    }

    pkt->newSharedHeadData(sizeof(Pavo::IcmpEchoHdr));
    const auto icmp = Pavo::icmpEchoHdrWrapperFactory(pkt, 0);
    *icmp->header() = Pavo::IcmpEchoHdr();
    icmp->header()->typeIs(Pavo::IcmpType::echoRequest);
    icmp->header()->idIs(echoId);
    icmp->header()->sequenceNumberIs(sequence);
    icmp->checksumIs(icmp->computedChecksum(static_cast<uint16_t>(pkt->totalBytes())));

    pkt->newSharedHeadData(sizeof(Pavo::IpHdr));
    const auto wrapper = Pavo::ipHdrWrapperFactory(pkt, 0);
    Pavo::IpHdr* ip = wrapper->header();
    *ip = Pavo::IpHdr();
    ip->versionIs(4);
    ip->headerBytesIs(sizeof(Pavo::IpHdr));
    ip->tosIs(requestTos);
    ip->totalLenIs(static_cast<uint16_t>(pkt->totalBytes()));
    ip->ttlIs(requestTtl);
    ip->protocolNumIs(Pavo::IpProtocolNumber::icmp);
    ip->srcIs(config_.from);
    ip->dstIs(config_.to);
    ip->checksumIs(ip->computedChecksum());
    return pkt;
}

void EchoRequester::sendOne() {
    const uint16_t sequence = sent() + 1;
    sentAt_.push_back(clock_->now());
    pam_->txPktIs(newRequest(sequence));
    if (sequence < config_.count) {
        next_.expiryIs(clock_->now() + config_.intervalSeconds);
    }
}

void EchoRequester::readOne() {
    const Mox::Ptr<Pavo::Pkt> pkt = pam_->rxPkt();
    if (!pkt) {
        return;
    }
    const auto ip = Pavo::tryIpHdr(pkt, 0);
    const auto icmp = ip ? Pavo::tryIcmpEchoHdr(pkt, ip->headerBytes()) : nullptr;
    const bool isAnswer = icmp && icmp->type() == Pavo::IcmpType::echoReply &&
                          icmp->id() == echoId && icmp->sequenceNumber() >= 1 &&
                          icmp->sequenceNumber() <= sent() &&
                          icmp->computedChecksum(ip->payloadLen()) == Pavo::IpChecksum();
    if (!isAnswer) {
        return;
    }
    const Packet answer{ip->src(),        ip->dst(),     pam_->rxIfIndex(),
                        pam_->rxTTL(),    pam_->rxTOS(), icmp->sequenceNumber(),
                        pkt->totalBytes()};
    answered_(answer, clock_->now() - sentAt_[answer.sequence - 1]);
}

}  // namespace Echo
