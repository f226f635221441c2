#include "session/Speaker.h"

#include <cmath>
#include <utility>

namespace Session {

namespace {

// Configured before the machine is made, since a listener restarts at each new key.
template <class Config>
Mox::Ptr<Config> configured(const Mox::Ptr<Config>& config, const Place& place) {
    config->networkNamespaceIs(place.netNs);
    config->txTtlIs(Pavo::IpTtl(255));
    config->rxMinTtlIs(Pavo::IpTtl(255));
    config->md5AuthIs(Pavo::IpGenAddrWithMask(place.peer), place.md5Key);
    config->optionsIs(Pavo::optionTxTtl | Pavo::optionRxMinTtl | Pavo::optionMd5Auth);
    return config;
}

}  // namespace

Speaker::Speaker(const SpeakerConfig& config, Mox::EventLoop* loop, Keel::TimerWheel* wheel,
                 Log log)
    : speakerConfig_(config),
      loop_(loop),
      wheel_(wheel),
      fdFactory_(Pavo::tcpFileDescriptorEventRegistrationFactoryMoxcFactory()),
      log_(std::move(log)),
      ending_(wheel, [this] { handleEnd(); }) {}

uint32_t Speaker::updatesReceived() const {
    return earlierUpdates_ + (session_ ? session_->counters().updatesReceived : 0);
}

void Speaker::start(const Pavo::TcpConnSocket& connection) {
    drop();
    session_ = std::make_unique<PeerSession>(
        speakerConfig_, connection.fileDescriptor(), fdFactory_, wheel_,
        [this](const PeerSession& session, const std::string& reason) {
            changed(session, reason);
        });
}

void Speaker::drop() {
    ending_.expiryIs(Keel::TimerWheel::idle);
    earlierUpdates_ = updatesReceived();
    session_ = nullptr;
}

void Speaker::changed(const PeerSession& session, const std::string& reason) {
    if (session.state() == PeerSession::State::established) {
        ++sessions_;
        log("session established with speaker " + std::to_string(session.peer()));
        return;
    }
    log("session ended: " + reason);
    ending_.expiryIs(wheel_->now());
}

ClientSpeaker::ClientSpeaker(const SpeakerConfig& config, const Place& place, Mox::EventLoop* loop,
                             Keel::TimerWheel* wheel, Log log)
    : Speaker(config, loop, wheel, std::move(log)),
      config_(configured(Pavo::tcpClientConfigFactory(place.peer, place.port), place)),
      status_(Pavo::tcpClientStatusFactory()),
      client_(Pavo::tcpClientSmFactory(fdFactory_.ptr(), wheel, config.speaker, config_, status_)),
      statusWatch_(status_,
                   {Pavo::TcpClientStatus::connectionStatusAttr,
                    Pavo::TcpClientStatus::connectionAttemptCountAttr,
                    Pavo::TcpClientStatus::retryTimerNextAttr},
                   [this](const Mox::Change& change) { handleStatus(change); }) {
    config_->clientIpAddrIs(place.local);
    config_->exponentialBackoffRetriesIs(3);
    config_->kernelTcpTimeoutIs(2);
    client_->startConnection();
}

ClientSpeaker::~ClientSpeaker() {
    client_->stopConnection();
}

// The stream closes when session, machine and status have all dropped it.
void ClientSpeaker::handleEnd() {
    drop();
    client_->stopConnection();
    client_->startConnection();
}

void ClientSpeaker::handleStatus(const Mox::Change& change) {
    using Status = Pavo::TcpClientStatus::ConnectionStatus;
    const Status now = status_->connectionStatus();
    if (change.is(Pavo::TcpClientStatus::retryTimerNextAttr)) {
        if (now == Status::failed && status_->retryTimerNext() != Keel::TimerWheel::idle) {
            const double seconds = std::round(status_->retryTimerNext() - wheel_->now());
            log("next attempt in " + std::to_string(static_cast<uint32_t>(seconds)) + " s");
        }
        return;
    }
    std::string line = Mox::stringValue(now).c_str();
    if (now == Status::failed) {
        line += std::string(", ") + status_->reason().c_str();
    }
    log(line + " (attempts " + std::to_string(status_->connectionAttemptCount()) + ", errors " +
        std::to_string(status_->connectionErrorCount()) + ", successes " +
        std::to_string(status_->connectionSuccessCount()) + ")");
    if (now == Status::connected && change.is(Pavo::TcpClientStatus::connectionStatusAttr)) {
        start(status_->connSocket());
    }
}

ServerSpeaker::ServerSpeaker(const SpeakerConfig& config, const Place& place, Mox::EventLoop* loop,
                             Keel::TimerWheel* wheel, Log log)
    : Speaker(config, loop, wheel, std::move(log)),
      config_(configured(Pavo::tcpServerConfigFactory(place.local, place.port), place)),
      status_(Pavo::tcpServerStatusFactory()),
      server_(Pavo::tcpServerSmFactory(fdFactory_.ptr(), wheel, config_, status_)),
      statusWatch_(status_, Pavo::TcpServerStatus::reasonAttr,
                   [this] { this->log(status_->reason().c_str()); }),
      connections_(status_, Pavo::TcpServerStatus::connSocketCountAttr,
                   [this] { handleConnection(); }) {
    start();
}

ServerSpeaker::~ServerSpeaker() {
    server_->stopListener();
}

void ServerSpeaker::start() {
    server_->startListener();
}

void ServerSpeaker::stop() {
    server_->stopListener();
    log("stopped listening");
    drop();
}

void ServerSpeaker::handleConnection() {
    if (const Pavo::TcpConnSocket connection = status_->getConnSocket()) {
        log(std::string("accepted ") + connection.toStrep().c_str());
        start(connection);
    }
}

}  // namespace Session
