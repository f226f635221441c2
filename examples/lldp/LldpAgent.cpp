#include "lldp/LldpAgent.h"

#include <algorithm>
#include <utility>

#include "Pavo/BuildPkt.h"
#include "Pavo/EthHdr.h"

namespace Lldp {

Mox::Ptr<Pavo::EthDevPam> newEndpoint(const Pavo::NamespaceName& netNs, const Mox::String& device) {
    const auto pam = Pavo::ethDevPamFactory("lldp", netNs);
    pam->deviceIs(device);
    pam->etherTypeIs(Pavo::EthType::lldp);
    const Mox::String fault = pam->tryRxFilter("ether dst 01:80:c2:00:00:0e");
    Mox::require(fault.empty(), "fault.empty()");
    pam->enabledIs(true);
    pam->doJoinMcastGroup(nearestBridge);
    return pam;
}

LldpAgent::LldpAgent(const AgentConfig& config, Mox::Ptr<Pavo::Pam> pam, Mox::Clock* clock)
    : config_(config),
      pam_(std::move(pam)),
      table_(Mox::make<NeighbourTable>(clock)),
      tx_(clock, [this] { sendPeriodic(); }),
      readable_(pam_, Pavo::Pam::readableCountAttr, [this] { receive(); }) {
    tx_.expiryIs(clock->now());
}

void LldpAgent::stop() {
    if (!isStopped_) {
        isStopped_ = true;
        tx_.expiryIs(Mox::Clock::idle);
        send(/*ttlSeconds=*/0);
    }
}

void LldpAgent::sendPeriodic() {
    const bool isFast = fastLeft_ > 0;
    fastLeft_ -= isFast ? 1 : 0;
    lastTx_ = tx_.clock()->now();
    tx_.expiryIs(lastTx_ + (fastLeft_ > 0 ? fastSeconds : config_.txIntervalSeconds));
    send(static_cast<uint16_t>(
        std::min<uint32_t>(uint32_t{config_.txIntervalSeconds} * config_.txHold + 1, UINT16_MAX)));
}

void LldpAgent::send(uint16_t ttlSeconds) {
    Pdu pdu = config_.own;
    pdu.ttlSeconds = ttlSeconds;
    pam_->txPktIs(Pavo::buildPkt(
        Pavo::Eth{.dst = nearestBridge, .src = config_.mac, .type = Pavo::EthType::lldp},
        image(pdu)));
}

// One frame a report. The table is the last, since its observers may destroy the agent.
void LldpAgent::receive() {
    const Mox::Ptr<Pavo::Pkt> pkt = pam_->rxPkt();
    if (!pkt) {
        return;
    }
    const auto eth = Pavo::tryHdr<Pavo::EthHdr>(pkt, 0);
    if (!eth || eth->dst() != nearestBridge || eth->type() != Pavo::EthType::lldp ||
        pkt->hasSeparateVlanTag() || pam_->rxInfo().pktType == Pavo::RxPktType::otherHost) {
        return;
    }
    pkt->linearize();
    const auto pdu = parse(std::as_const(*pkt).span().subspan(sizeof(Pavo::EthHdr)));
    if (!pdu) {
        ++rxDiscards_;
        return;
    }
    if (pdu->ttlSeconds != 0 && table_->neighbour(pdu->key) == nullptr) {
        sendFast();
    }
    table_->neighbourIs(*pdu);
}

// However many neighbours a sender invents, there is at most one frame a second.
void LldpAgent::sendFast() {
    if (!isStopped_) {
        fastLeft_ = fastFrames;
        tx_.expiryIs(std::min(tx_.expiry(), lastTx_ + fastSeconds));
    }
}

}  // namespace Lldp
