#include "testing/Courier.h"

#include <utility>

#include "Mox/Assert.h"
#include "Pavo/EthHdr.h"

namespace Guide {

Mox::Ptr<Pavo::Pkt> newFrame(const CourierConfig& sender, FrameKind kind, uint32_t number,
                             std::string_view message) {
    Mox::Ptr<Pavo::Pkt> pkt = Pavo::globalPktManager()->newPkt();
    pkt->stringValueIs(message, /*atTail=*/false);
    auto* header = new (pkt->newSharedHeadData(sizeof(CourierHdr))) CourierHdr;
    header->kindIs(kind);
    header->messageBytesIs(static_cast<uint16_t>(message.size()));
    header->numberIs(number);
    auto* eth = new (pkt->newSharedHeadData(sizeof(Pavo::EthHdr))) Pavo::EthHdr;
    eth->dstIs(sender.peer);
    eth->srcIs(sender.own);
    eth->typeIs(Courier::ethType);
    return pkt;
}

Courier::Courier(const CourierConfig& config, Mox::Ptr<Pavo::Pam> pam, Mox::Clock* clock,
                 Received received)
    : config_(config),
      pam_(std::move(pam)),
      received_(std::move(received)),
      timer_(clock, [this] { handleTimeout(); }),
      readable_(pam_, Pavo::Pam::readableCountAttr, [this] { takeFrame(); }) {}

void Courier::send(std::string message) {
    Mox::require(message.size() <= maxMessageBytes, "message.size() <= maxMessageBytes");
    messages_.push_back(std::move(message));
    if (waiting() == 1) {
        sendFirst();
    }
}

void Courier::sendFirst() {
    ++tries_;
    pam_->txPktIs(newFrame(config_, FrameKind::message, number_, messages_.front()));
    timer_.expiryIs(timer_.clock()->now() + config_.retrySeconds);
}

void Courier::handleTimeout() {
    if (tries_ == config_.maxTries) {
        gaveUp_ = true;
        return;
    }
    ++retries_;
    sendFirst();
}

// One frame a report. What comes from outside is checked before it is believed.
void Courier::takeFrame() {
    const Mox::Ptr<Pavo::Pkt> pkt = pam_->rxPkt();
    if (!pkt) {
        return;
    }
    const auto eth = Pavo::tryHdr<Pavo::EthHdr>(pkt, 0);
    if (!eth || eth->type() != ethType || eth->dst() != config_.own || eth->src() != config_.peer) {
        return;
    }
    const auto header = Pavo::tryHdr<CourierHdr>(pkt, sizeof(Pavo::EthHdr));
    if (!header) {
        return;
    }
    if (header->kind() == FrameKind::receipt) {
        takeReceipt(header->number());
    } else if (header->kind() == FrameKind::message) {
        const auto* text = reinterpret_cast<const char*>(header.ptr()) + sizeof(CourierHdr);
        takeMessage(header->number(), std::string(text, header->messageBytes()));
    }
}

void Courier::takeMessage(uint32_t number, const std::string& message) {
    // How far ahead, also where the numbers wrap (RFC 1982). The other one sends none ahead.
    if (static_cast<int32_t>(number - expected_) > 0) {
        return;
    }
    pam_->txPktIs(newFrame(config_, FrameKind::receipt, number, {}));
    if (number == expected_) {
        ++expected_;
        received_(message);
    }
}

void Courier::takeReceipt(uint32_t number) {
    if (messages_.empty() || number != number_ || gaveUp_) {
        return;  // Late, or a second one.
    }
    timer_.expiryIs(Mox::Clock::idle);
    messages_.pop_front();
    ++number_;
    tries_ = 0;
    if (!messages_.empty()) {
        sendFirst();
    }
}

}  // namespace Guide
