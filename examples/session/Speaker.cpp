#include "session/Speaker.h"

#include <algorithm>
#include <utility>

namespace Session {

Speaker::Speaker(const SpeakerConfig& config, const Pavo::NamespaceName& netNs,
                 Keel::TimerWheel* wheel, Log log)
    : config_(config), netNs_(netNs), wheel_(wheel), log_(std::move(log)) {
    start();
}

void Speaker::start() {
    peering_ = Pavo::tcpPeeringFactory("speaker", netNs_, sessionFraming, this, wheel_);
}

void Speaker::listenIs(const Pavo::IpGenAddr& address, Pavo::Port port) {
    peering_->listenIs(address, port);
    const auto status = peering_->listenerStatus(address.af());
    log_(status->reason().c_str());
    listenerWatch_ = {status, Pavo::TcpServerStatus::diagnosisAttr,
                      [this, status = status.ptr()] { log_(status->diagnosis().c_str()); }};
}

void Speaker::peerIs(const Pavo::TcpPeerConfig& config) {
    const auto peer = peering_->peerIs(config);
    if (peerWatches_.count(peer.ptr()) == 0) {
        peerWatches_[peer.ptr()] = {peer, Pavo::TcpPeer::stateAttr,
                                    [this, peer = peer.ptr()] { logState(*peer); }};
        logState(*peer);
    }
}

void Speaker::stop() {
    listenerWatch_ = {};
    peerWatches_.clear();
    sessions_.clear();
    log_("stopped");
    start();
}

void Speaker::logState(const Pavo::TcpPeer& peer) const {
    std::string line = Mox::stringValue(peer.state()).c_str();
    if (peer.state() == Pavo::TcpPeer::State::backingOff) {
        line += std::string(", ") + peer.reason().c_str();
    } else if (peer.state() == Pavo::TcpPeer::State::up) {
        line += std::string(", ") + peer.connection().socket.toStrep().c_str();
    }
    log_(line + " (attempts " + std::to_string(peer.attempts()) + ", failures " +
         std::to_string(peer.failures()) + ", connections " + std::to_string(peer.ups()) + ")");
}

void Speaker::up(Pavo::TcpPeer& peer) {
    sessions_.try_emplace(&peer, config_, &peer, wheel_, [this](uint32_t speaker) {
        log_("session established with speaker " + std::to_string(speaker));
    });
}

void Speaker::message(Pavo::TcpPeer& peer, const Mox::Ptr<Pavo::Pkt>& pkt) {
    updatesReceived_ += sessions_.at(&peer).receive(*pkt) ? 1 : 0;
}

void Speaker::down(Pavo::TcpPeer& peer, const Mox::String& reason) {
    sessions_.erase(&peer);
    log_(std::string("session ended: ") + reason.c_str());
}

void Speaker::writable(Pavo::TcpPeer& peer) {
    sessions_.at(&peer).sendUpdates();
}

bool Speaker::isEstablished() const {
    return !sessions_.empty() &&
           std::all_of(sessions_.begin(), sessions_.end(),
                       [](const auto& each) { return each.second.isEstablished(); });
}

void Speaker::updatesToSendInc(uint32_t count) {
    for (auto& [peer, session] : sessions_) {
        session.sendUpdates(count);
    }
}

}  // namespace Session
