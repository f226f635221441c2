#include "echo/EchoRequester.h"

#include <utility>

#include "Pavo/IpHdr.h"

namespace Echo {

EchoRequester::EchoRequester(const Config& config, Mox::Clock* clock,
                             std::function<void(const Packet&, double)> answered)
    : config_(config),
      clock_(clock),
      answered_(std::move(answered)),
      pam_(newPam("echoRequester", config_.to.af(), config_.netNs)),
      readable_(pam_, Pavo::Pam::readableCountAttr, [this] { readOne(); }),
      next_(clock, [this] { sendOne(); }) {
    const bool writesHeaders = config_.to.af() == Pavo::ipv4;
    const uint32_t options = pam_->options() | (writesHeaders ? Pavo::ipHdrIncl : Pavo::none);
    pam_->optionsIs(options | Pavo::ipMulticastLoop);
    pam_->txSrcIpAddrIs(config_.from);
    pam_->txDstIpAddrIs(config_.to);
    pam_->txIfNameIs(config_.ifName);
    pam_->txTTLIs(requestTtl);
    pam_->txTOSIs(requestTos);
    pam_->enabledIs(true);
    pam_->optionsIs(options);  // Keeps its own kernel from answering requests to a group.
    next_.expiryIs(clock_->now());
}

// A packet is built from the payload to the front: each layer prepends its header.
Mox::Ptr<Pavo::Pkt> EchoRequester::newRequest(uint16_t sequence) const {
    const Mox::Ptr<Pavo::Pkt> pkt = Pavo::pktFactory();
    uint8_t* payload = pkt->newSharedHeadData(config_.payloadBytes);
    for (uint32_t i = 0; i < config_.payloadBytes; ++i) {
        payload[i] = static_cast<uint8_t>(i);
    }

    addHeader(pkt, config_.to.af(), echoId, sequence);
    if (config_.to.af() == Pavo::ipv4) {
        addIpHeader(pkt);
    }
    return pkt;
}

void EchoRequester::addIpHeader(const Mox::Ptr<Pavo::Pkt>& pkt) const {
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
    ip->srcIs(config_.from.v4Addr());
    ip->dstIs(config_.to.v4Addr());
    ip->checksumIs(ip->computedChecksum());
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
    const auto answer = pkt ? readPacket(pkt, *pam_) : std::nullopt;
    const bool isAnswer = answer && !answer->isRequest && answer->id == echoId &&
                          answer->sequence >= 1 && answer->sequence <= sent();
    if (isAnswer) {
        answered_(*answer, clock_->now() - sentAt_[answer->sequence - 1]);
    }
}

}  // namespace Echo
