#include "Pavo/tcp/TcpPeer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <functional>
#include <new>
#include <utility>

#include "Mox/Exception.h"
#include "Mox/Trace.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/tcp/TcpClientSm.h"
#include "Pavo/tcp/TcpPeering.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TcpPeer");

// For what the peer has sent before this end could not send any more.
constexpr double lastMessagesSeconds = 1;

// Whether the peer cannot know of the connection yet.
bool isUnanswered(int sd) {
    tcp_info info{};
    socklen_t bytes = sizeof(info);
    return getsockopt(sd, IPPROTO_TCP, TCP_INFO, &info, &bytes) == 0 &&
           info.tcpi_state == TCP_SYN_SENT;
}

}  // namespace

// One attempt to connect. Its status is its own, since a machine still writes it while it ends.
struct TcpPeer::Attempt {
    Mox::Ptr<TcpClientConfig> config;
    Mox::Ptr<TcpClientStatus> status = tcpClientStatusFactory();
    Mox::Ptr<TcpClientSm> machine;
    Mox::Watch<TcpClientStatus> watch;
};

struct TcpPeer::Link {
    TcpPeerConnection connection;
    Mox::Ptr<FramedTcpPduPam> pam;
    double upSince;
    uint32_t counted = 0;  // Drops and errors of `pam`.
    Mox::Watch<FramedTcpPduPam> readable;
    Mox::Watch<FramedTcpPduPam> writable;
    Mox::Watch<FramedTcpPduPam> dropped;
    Mox::Watch<FramedTcpPduPam> failed;
};

TcpPeer::TcpPeer(TcpPeering* peering, const TcpPeerConfig& config)
    : peering_(peering), config_(config), timer_(peering->wheel(), [this] { handleTimer(); }) {}

TcpPeer::~TcpPeer() = default;

TcpPeerConnection TcpPeer::connection() const {
    return link_ ? link_->connection : TcpPeerConnection();
}

Mox::Ptr<FramedTcpPduPam> TcpPeer::pam() const {
    return link_ ? link_->pam : nullptr;
}

bool TcpPeer::isOpen() const {
    return isAnnounced_ && (due_ & downDue) == 0;
}

bool TcpPeer::writable() const {
    return isOpen() && link_->pam->writable();
}

bool TcpPeer::connects() const {
    return config_.mode == TcpPeerMode::active || config_.mode == TcpPeerMode::both;
}

bool TcpPeer::accepts(const TcpConnSocket& connection) const {
    return (config_.mode == TcpPeerMode::passive || config_.mode == TcpPeerMode::both) &&
           (config_.localAddress.af() == ipunknown ||
            config_.localAddress == connection.srcIpAddr());
}

// Makes the changes, and then notifies of them.
void TcpPeer::publish(const std::function<void()>& changes) {
    const Mox::Ptr<TcpPeer> hold(this);
    publisher_.publish(changes);
}

void TcpPeer::stateIs(State state) {
    publisher_.set(state_, state, stateAttr);
}

void TcpPeer::reasonIs(const Mox::String& reason) {
    MOX_TRACE(facility, 1, config_.address, ": ", reason);
    publisher_.set(reason_, reason, reasonAttr);
}

void TcpPeer::configIs(const TcpPeerConfig& config) {
    if (config == config_) {
        return;
    }
    publish([&] {
        config_ = config;
        attempt_.reset();
        if (link_ && config_.mode == TcpPeerMode::none) {
            dropLink("Switched off", link_->pam->txQueuedPkts());
        }
        if (link_) {
            const auto pam = link_->pam;
            applyToSocket(link_->connection.socket);
            applyToPam(pam.ptr());
        } else {
            failuresInRow_ = 0;
            start();
        }
        if (peering_ != nullptr) {  // An observer of the endpoint may have deleted the peer.
            peering_->updateListeners(config_.address);
        }
    });
}

void TcpPeer::begin() {
    publish([this] {
        start();
        peering_->updateListeners(config_.address);
    });
}

void TcpPeer::start() {
    publish([this] {
        timerIs(Keel::TimerWheel::idle);
        if (connects()) {
            connect();
        } else {
            stateIs(State::idle);
        }
    });
}

// Connects with a new machine: an attempt may fail before `startConnection` returns.
void TcpPeer::connect() try {
    stateIs(State::connecting);
    publisher_.set(attempts_, attempts_ + 1, attemptsAttr);
    auto attempt = std::make_unique<Attempt>();
    attempt->config = clientConfig();
    const auto machine = attempt->machine =
        tcpClientSmFactory(peering_->registrations_.ptr(), peering_->wheel(), /*clientId=*/0,
                           attempt->config, attempt->status);
    attempt->watch = {attempt->status, TcpClientStatus::connectionStatusAttr,
                      [this] { handleAttempt(); }};
    attempt_ = std::move(attempt);
    machine->startConnection();
} catch (const std::bad_alloc& error) {
    attemptFailed(error.what());
}

void TcpPeer::handleAttempt() {
    using Status = TcpClientStatus::ConnectionStatus;
    const auto status = attempt_->status;
    if (status->connectionStatus() == Status::connected) {
        const TcpPeerConnection connection{status->connSocket(), /*isAccepted=*/false};
        attempt_.reset();
        try {
            established(connection);
        } catch (const std::bad_alloc& error) {
            attemptFailed(error.what());
        }
    } else if (status->connectionStatus() == Status::failed) {
        attemptFailed(status->reason());
    } else if (status->connectionStatus() == Status::timedout) {
        attemptFailed(status->diagnosis());
    }
}

void TcpPeer::attemptFailed(const Mox::String& reason) {
    publish([&] {
        attempt_.reset();
        publisher_.set(failures_, failures_ + 1, failuresAttr);
        if (!link_) {
            reasonIs(reason);
            planAttempt();
        }
    });
}

// The time doubles with each failure, exactly, as far as there are bits for it.
void TcpPeer::planAttempt() {
    if (attempt_) {
        stateIs(State::connecting);  // It was left over.
    } else if (connects()) {
        const int doublings = static_cast<int>(std::min(failuresInRow_++, 1000u));
        timerIs(peering_->wheel()->now() +
                std::min(std::ldexp(config_.connectRetrySeconds, doublings),
                         config_.connectRetryMaxSeconds));
        stateIs(State::backingOff);
    } else {
        stateIs(State::idle);
    }
}

void TcpPeer::timerIs(double expiry) {
    timer_.expiryIs(expiry);
    publisher_.set(nextAttempt_, expiry, nextAttemptAttr);
}

void TcpPeer::handleTimer() {
    if (link_) {
        linkLost(link_->pam->txErrorReason(), 0);
    } else {
        start();
    }
}

void TcpPeer::established(const TcpPeerConnection& connection) {
    const Mox::Ptr<TcpPeer> hold(this);
    const bool collides = link_ != nullptr;
    const auto decision = collides
                              ? peering_->handler_->collision(*this, this->connection(), connection)
                              : TcpCollision::arriving;
    if (peering_ == nullptr || config_.mode == TcpPeerMode::none) {
        return;  // The handler has deleted the peer, or switched it off.
    }
    publish([&] {
        if (collides) {
            publisher_.set(collisions_, collisions_ + 1, collisionsAttr);
        }
        if (decision == TcpCollision::established) {
            return;
        }
        if (link_) {
            dropLink("Replaced by another connection", link_->pam->txQueuedPkts());
        }
        if (config_.mode != TcpPeerMode::none) {  // An observer may have deleted the peer.
            bringUp(connection);
        }
    });
}

void TcpPeer::bringUp(const TcpPeerConnection& connection) try {
    auto link = std::make_unique<Link>();
    link->connection = connection;
    link->upSince = peering_->wheel()->now();
    link->pam = framedTcpPduPamFactory(connection.socket.fileDescriptor(), peering_->registrations_,
                                       peering_->framing());
    applyToSocket(connection.socket);
    applyToPam(link->pam.ptr());
    link->readable = {link->pam, Pam::readableCountAttr, [this] { receive(); }};
    link->writable = {link->pam, Pam::writableCountAttr, [this] { dueIs(writableDue); }};
    link->dropped = {link->pam, Pam::txDropsAttr, [this] { countPamDrops(); }};
    link->failed = {link->pam, {Pam::rxErrorsAttr, Pam::txErrorsAttr}, [this](const Mox::Change&) {
                        handleError();
                    }};
    link_ = std::move(link);
    if (attempt_ && isUnanswered(attempt_->machine->getClientSocket())) {
        attempt_.reset();
    }
    timerIs(Keel::TimerWheel::idle);
    stateIs(State::up);
    publisher_.set(ups_, ups_ + 1, upsAttr);
    dueIs(upDue);
} catch (const std::exception& error) {  // Without memory, too.
    link_.reset();
    reasonIs(error.what());
    planAttempt();
}

void TcpPeer::applyToPam(FramedTcpPduPam* pam) const {
    pam->readAheadBytesIs(config_.readAheadBytes);
    pam->txQueueBytesIs(config_.txQueueBytes);
    pam->keepaliveOptsIs(config_.keepalive);
}

// A connection that did not last counts as a failed attempt. The reason is a copy, since it may be
// the text of the endpoint that goes.
void TcpPeer::linkLost(Mox::String reason, uint32_t unsent) {
    publish([&] {
        dropLink(reason, unsent);
        planAttempt();
    });
}

// The handler is notified of the loss of the connection that it knows, and of no later one before.
void TcpPeer::dropLink(const Mox::String& reason, uint32_t unsent) {
    countPamDrops();
    countDrops(unsent);
    if (peering_ != nullptr && peering_->wheel()->now() - link_->upSince >= config_.minUpSeconds) {
        failuresInRow_ = 0;
    }
    link_.reset();
    timerIs(Keel::TimerWheel::idle);
    reasonIs(reason);
    due_ &= downDue;
    if (isAnnounced_ && due_ == 0) {
        downReason_ = reason;
        dueIs(downDue);
    }
}

void TcpPeer::countDrops(uint32_t messages) {
    publisher_.inc(txDrops_, messages, txDropsAttr);
}

void TcpPeer::countPamDrops() {
    const uint32_t now = link_->pam->txDrops() + link_->pam->txErrors();
    countDrops(now - std::exchange(link_->counted, now));
}

void TcpPeer::handleError() {
    publish([this] {
        const auto pam = link_->pam;
        countPamDrops();
        if (!pam->rxErrorReason().empty()) {
            linkLost(pam->rxErrorReason(), pam->txQueuedPkts());
        } else if (pam->txErrno() != EMSGSIZE && !pam->txErrorReason().empty() && timer_.isIdle()) {
            timer_.expiryIs(peering_->wheel()->now() + lastMessagesSeconds);
        }
    });
}

void TcpPeer::receive() {
    const Mox::Ptr<TcpPeer> hold(this);
    const auto pam = link_->pam;
    const Mox::Ptr<Pkt> pkt = pam->rxPkt();
    if (pkt && this->pam() == pam) {
        peering_->handler_->message(*this, pkt);
    }
}

bool TcpPeer::txPktIs(const Mox::Ptr<Pkt>& pkt) {
    return txPktsIs({&pkt, 1}) == 1;
}

// With a queue the endpoint takes messages without room, too, and gathers them by itself.
uint32_t TcpPeer::txPktsIs(std::span<const Mox::Ptr<Pkt>> pkts) {
    const Mox::Ptr<TcpPeer> hold(this);
    const auto pam = isOpen() ? link_->pam : nullptr;
    uint32_t taken = 0;
    uint32_t counted = 0;  // By the endpoint.
    const auto drops = [&] { return pam->txDrops() + pam->txErrors(); };
    if (pam && pam->txQueueBytes() != 0) {
        for (; taken < pkts.size() && counted == 0 && this->pam() == pam; ++taken) {
            const uint32_t before = drops();
            pam->txPktIs(pkts[taken]);
            counted = drops() - before;
        }
        taken -= std::min(taken, counted);
    } else if (pam && pam->writable()) {
        const auto tooLarge = std::find_if(pkts.begin(), pkts.end(), [](const auto& each) {
            return each->totalBytes() > UINT16_MAX;
        });
        const uint32_t before = drops();
        taken = pam->txPktsIs({pkts.begin(), tooLarge});
        counted = std::min(taken, drops() - before);
        taken -= counted;
    }
    countDrops(static_cast<uint32_t>(pkts.size()) - taken - counted);
    return taken;
}

void TcpPeer::close(const Mox::String& reason, double drainSeconds) {
    if (!link_) {
        return;
    }
    publish([&] {
        const auto pam = link_->pam;
        linkLost(reason, /*unsent=*/0);
        peering_->drain(this, pam, drainSeconds);
    });
}

void TcpPeer::leave(const Mox::String& reason) {
    publish([&] {
        config_.mode = TcpPeerMode::none;
        attempt_.reset();
        if (link_) {
            dropLink(reason, link_->pam->txQueuedPkts());
        }
        timerIs(Keel::TimerWheel::idle);
        stateIs(State::idle);
        std::exchange(peering_, nullptr)->updateListeners(config_.address);
    });
}

void TcpPeer::dueIs(Due what) {
    const bool isListed = due_ != 0;
    due_ |= what;
    if (!isListed) {
        peering_->due(this);
    }
}

// Calls the handler once. The peer may have been deleted meanwhile.
void TcpPeer::deliver(TcpPeeringHandler* handler) {
    const uint32_t first = due_ & -due_;
    due_ -= first;
    if (first == downDue) {
        isAnnounced_ = false;
        handler->down(*this, std::exchange(downReason_, {}));
    } else if (first == upDue) {
        FirstException exception;
        if (opens(&exception)) {
            isAnnounced_ = true;
            exception.collect([&] { handler->up(*this); });
        }
        exception.rethrow();
    } else if (first == writableDue && writable()) {
        handler->writable(*this);
    }
}

// Nothing passes before, so that the agent sends and receives nothing on a connection that it does
// not know of. An observer of the endpoint may end the connection, or throw. The endpoint has room
// at first, of which `up` says enough.
bool TcpPeer::opens(FirstException* exception) {
    const auto pam = this->pam();
    if (!pam) {
        return false;
    }
    try {
        pam->enableModeIs(tcpEnableModeReadWrite);
    } catch (const Mox::ErrnoException& error) {
        if (this->pam() == pam) {
            linkLost(error.what(), 0);
        }
        return false;
    } catch (...) {
        exception->collect([] { throw; });
    }
    due_ &= ~uint32_t{writableDue};
    return this->pam() == pam;
}

}  // namespace Pavo
