#include "session/PeerSession.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Session {

namespace {

constexpr char updateBody[] = "reachable 192.0.2.128/25 metric 20 tag 65001";
constexpr Pavo::TcpKeepaliveOptions keepalive{1, 1, 2};

}  // namespace

PeerSession::PeerSession(const SpeakerConfig& config, Mox::Ptr<Pavo::TcpFileDescriptor> stream,
                         Mox::Ptr<Pavo::TcpFileDescriptorEventRegistrationFactory> fdFactory,
                         Keel::TimerWheel* wheel, Changed changed)
    : config_(config),
      changed_(std::move(changed)),
      wheel_(wheel),
      pam_(Pavo::simpleTcpPduPamFactory(std::move(stream), std::move(fdFactory))),
      holdTimer_(wheel, [this] { notifyAndEnd("hold timer expired"); }),
      keepAliveTimer_(wheel, [this] { sendKeepAlive(); }),
      readable_(pam_, Pavo::Pam::readableCountAttr, [this] { receive(); }),
      writable_(pam_, Pavo::Pam::writableCountAttr, [this] { sendUpdates(); }),
      failed_(pam_, {Pavo::Pam::rxErrorsAttr, Pavo::Pam::txErrorsAttr}, [this](const Mox::Change&) {
          end((pam_->rxErrorReason().empty() ? pam_->txErrorReason() : pam_->rxErrorReason())
                  .c_str());
      }) {
    pam_->keepaliveOptsIs(keepalive);
    pam_->enableModeIs(Pavo::tcpEnableModeReadWrite);
    send(MsgType::open);
    heardNow();
}

// A packet is built from the body to the front: the header is prepended.
bool PeerSession::send(MsgType type, const std::string& body) {
    if (!pam_->writable()) {
        return false;
    }
    const Mox::Ptr<Pavo::Pkt> pkt = Pavo::globalPktManager()->newPkt();
    std::memcpy(pkt->newSharedHeadData(static_cast<uint32_t>(body.size())), body.data(),
                body.size());
    auto* header = new (pkt->newSharedHeadData(sizeof(MsgHdr))) MsgHdr;
    header->typeIs(type);
    header->lengthBytesIs(static_cast<uint16_t>(pkt->totalBytes()));
    header->speakerIs(config_.speaker);
    header->numberIs(type == MsgType::update ? counters_.updatesSent + 1 : 0);
    header->holdSecondsIs(config_.holdSeconds);
    pam_->txPktIs(pkt);
    return true;
}

void PeerSession::updatesToSendInc(uint32_t count) {
    updatesToSend_ += count;
    sendUpdates();
}

// Stops when there is no room; the rest follows when the endpoint reports room.
void PeerSession::sendUpdates() {
    while (state_ == State::established && updatesToSend_ != 0 &&
           send(MsgType::update, updateBody)) {
        --updatesToSend_;
        ++counters_.updatesSent;
    }
}

// Without room the peer still has messages to read, which keep the session up as well.
void PeerSession::sendKeepAlive() {
    keepAliveTimer_.expiryIs(wheel_->now() + config_.holdSeconds / 3.0);
    send(MsgType::keepAlive);
}

// Reads one message for each report: while more wait, the endpoint reports again.
void PeerSession::receive() {
    const Mox::Ptr<Pavo::Pkt> pkt = pam_->rxPkt();
    if (!pkt || state_ == State::ended) {
        return;
    }
    const auto* header = reinterpret_cast<const MsgHdr*>(pkt->frontData());
    if (header->type() == MsgType::notification) {
        const auto* body = reinterpret_cast<const char*>(pkt->frontData()) + sizeof(MsgHdr);
        end("peer: " + std::string(body, pkt->totalBytes() - sizeof(MsgHdr)));
        return;
    }
    if (const char* fault = take(*header, pkt->totalBytes())) {
        notifyAndEnd(fault);
        return;
    }
    heardNow();
}

const char* PeerSession::take(const MsgHdr& header, uint32_t bytes) {
    if (header.version() != MsgHdr::currentVersion) {
        return "version not supported";
    }
    if ((header.type() == MsgType::open) != (state_ == State::opening)) {
        return state_ == State::opening ? "no open message" : "second open message";
    }
    switch (header.type()) {
        case MsgType::open:
            if (header.holdSeconds() == 0) {
                return "hold time not acceptable";
            }
            establish(header);
            return nullptr;
        case MsgType::keepAlive:
            ++counters_.keepAlivesReceived;
            return bytes == sizeof(MsgHdr) ? nullptr : "keep-alive with a body";
        case MsgType::update:
            return header.number() == ++counters_.updatesReceived ? nullptr : "update lost";
        default:
            return "unknown message";
    }
}

// Both ends use the shorter of the two hold times.
void PeerSession::establish(const MsgHdr& open) {
    peer_ = open.speaker();
    config_.holdSeconds = std::min(config_.holdSeconds, open.holdSeconds());
    state_ = State::established;
    sendKeepAlive();
    changed_(*this, "");
    sendUpdates();
}

void PeerSession::heardNow() {
    if (state_ == State::ended) {
        return;
    }
    holdTimer_.expiryIs(wheel_->now() + config_.holdSeconds);
}

void PeerSession::notifyAndEnd(const std::string& reason) {
    send(MsgType::notification, reason);
    end(reason);
}

void PeerSession::end(const std::string& reason) {
    if (state_ == State::ended) {
        return;
    }
    state_ = State::ended;
    holdTimer_.expiryIs(Keel::TimerWheel::idle);
    keepAliveTimer_.expiryIs(Keel::TimerWheel::idle);
    pam_->enableModeIs(Pavo::tcpEnableModeNone);
    changed_(*this, reason);
}

}  // namespace Session
