#include "session/PeerSession.h"

#include <algorithm>
#include <utility>

namespace Session {

constexpr char updateBody[] = "reachable 192.0.2.128/25 metric 20 tag 65001";

PeerSession::PeerSession(const SpeakerConfig& config, Pavo::TcpPeer* peer, Keel::TimerWheel* wheel,
                         std::function<void(uint32_t speaker)> established)
    : config_(config),
      peer_(peer),
      wheel_(wheel),
      established_(std::move(established)),
      holdTimer_(wheel, [this] { end("hold timer expired"); }),
      keepAliveTimer_(wheel, [this] { sendKeepAlive(); }) {
    send(MsgType::open);
    holdTimer_.expiryIs(wheel_->now() + config_.holdSeconds);
}

// A packet is built from the body to the front: the header is prepended.
bool PeerSession::send(MsgType type, const std::string& body) {
    const Mox::Ptr<Pavo::Pkt> pkt = Pavo::globalPktManager()->newPkt();
    pkt->stringValueIs(body, /*atTail=*/false);
    const uint32_t bytes = pkt->totalBytes() + sizeof(MsgHdr);
    new (pkt->newSharedHeadData(sizeof(MsgHdr)))
        MsgHdr(type, bytes, config_.speaker, type == MsgType::update ? updatesSent_ + 1 : 0,
               config_.holdSeconds);
    return peer_->txPktIs(pkt);
}

// Stops when there is no room: the rest follows when there is.
void PeerSession::sendUpdates(uint32_t more) {
    updatesToSend_ += more;
    while (isEstablished_ && updatesToSend_ != 0 && peer_->writable() &&
           send(MsgType::update, updateBody)) {
        --updatesToSend_;
        ++updatesSent_;
    }
}

void PeerSession::sendKeepAlive() {
    keepAliveTimer_.expiryIs(wheel_->now() + config_.holdSeconds / 3.0);
    send(MsgType::keepAlive);
}

bool PeerSession::receive(const Pavo::Pkt& pkt) {
    const auto* header = reinterpret_cast<const MsgHdr*>(pkt.frontData());
    if (header->type() == MsgType::notification) {
        const auto* body = reinterpret_cast<const char*>(pkt.frontData()) + sizeof(MsgHdr);
        peer_->close("peer: " + std::string(body, pkt.totalBytes() - sizeof(MsgHdr)));
        return false;
    }
    if (const char* fault = take(*header, pkt.totalBytes())) {
        end(fault);
        return false;
    }
    holdTimer_.expiryIs(wheel_->now() + config_.holdSeconds);
    return header->type() == MsgType::update;
}

const char* PeerSession::take(const MsgHdr& header, uint32_t bytes) {
    if ((header.type() == MsgType::open) == isEstablished_) {
        return isEstablished_ ? "second open message" : "no open message";
    }
    switch (header.type()) {
        case MsgType::open:
            if (header.holdSeconds() == 0) {
                return "hold time not acceptable";
            }
            establish(header);
            return nullptr;
        case MsgType::keepAlive:
            return bytes == sizeof(MsgHdr) ? nullptr : "keep-alive with a body";
        case MsgType::update:
            return header.number() == ++updatesReceived_ ? nullptr : "update lost";
        default:
            return "unknown message";
    }
}

// Both ends use the shorter of the two hold times.
void PeerSession::establish(const MsgHdr& open) {
    config_.holdSeconds = std::min(config_.holdSeconds, open.holdSeconds());
    isEstablished_ = true;
    sendKeepAlive();
    established_(open.speaker());
}

// The notification leaves before the connection is closed.
void PeerSession::end(const std::string& reason) {
    send(MsgType::notification, reason);
    peer_->close(reason);
}

}  // namespace Session
