#include "bfd/BfdSession.h"

#include <algorithm>
#include <utility>

namespace Bfd {

namespace {

constexpr double microsPerSecond = 1e6;
constexpr uint32_t slowMinTx = 1'000'000;  // At least, while the session is not up (6.8.3).

}  // namespace

BfdSession::BfdSession(const SessionConfig& config, Mox::Clock* clock, Send send,
                       ReceiveWaiting receiveWaiting)
    : config_(config),
      clock_(clock),
      send_(std::move(send)),
      receiveWaiting_(std::move(receiveWaiting)),
      random_(config.localDiscr),
      tx_(clock, [this] { sendPeriodic(); }),
      detection_(clock, [this] { handleDetectionTime(); }) {
    tx_.expiryIs(clock->now());
}

// RFC 5880, 6.8.6, as far as it does not concern authentication.
bool BfdSession::isValid(const BfdHdr& pkt) const {
    const bool isForThis =
        pkt.yourDiscr() == 0 ? pkt.state() <= State::down : pkt.yourDiscr() == config_.localDiscr;
    return pkt.version() == BfdHdr::currentVersion && pkt.detectMult() != 0 && pkt.myDiscr() != 0 &&
           isForThis && !pkt.isMultipoint() && !pkt.hasAuth();
}

bool BfdSession::receive(const BfdHdr& pkt) {
    if (isEnded_ || !isValid(pkt)) {
        ++rxDiscards_;
        return false;
    }
    remote_ = {pkt.myDiscr(),    pkt.state(),        pkt.isDemand(),
               pkt.detectMult(), pkt.desiredMinTx(), pkt.requiredMinRx()};
    isPolling_ = isPolling_ && !pkt.isFinal();
    lastRx_ = clock_->now();
    detection_.expiryIs(lastRx_ + detectionSeconds());
    armTx();  // The peer may want packets sooner than before (6.8.3).
    if (state_ == State::adminDown) {
        return true;
    }
    const State next = nextState(pkt.state());
    if (next != state_) {
        const bool isUp = next == State::up || next == State::init;
        enter(next, isUp ? Diag::none : Diag::signaledDown, pkt.isPoll());
    } else if (pkt.isPoll()) {
        transmit(/*isFinal=*/true);
    }
    return true;
}

State BfdSession::nextState(State remote) const {
    if (remote == State::adminDown) {
        return State::down;
    }
    switch (state_) {
        case State::down:
            return remote == State::down   ? State::init
                   : remote == State::init ? State::up
                                           : State::down;
        case State::init:
            return remote == State::down ? State::init : State::up;
        default:
            return remote == State::down ? State::down : state_;
    }
}

void BfdSession::isAdminDownIs(bool isAdminDown) {
    if (isAdminDown != (state_ == State::adminDown)) {
        isAdminDown ? enter(State::adminDown, Diag::adminDown, false)
                    : enter(State::down, Diag::none, false);
    }
}

void BfdSession::end() {
    isEnded_ = true;
    tx_.expiryIs(Mox::Clock::idle);
    detection_.expiryIs(Mox::Clock::idle);
}

// The new state is sent at once. Observers come last, since they may destroy the session.
void BfdSession::enter(State state, Diag diag, bool isFinal) {
    const Mox::Ptr<BfdSession> hold(this);
    const uint32_t before = desiredMinTx();
    state_ = state;
    diag_ = diag;
    isPolling_ = isPolling_ || desiredMinTx() != before;
    lastTx_ = clock_->now();
    armTx();
    transmit(isFinal);
    notify(stateAttr);
}

// A peer that is gone may come back as another one: what it said is forgotten.
void BfdSession::handleDetectionTime() {
    const Mox::Ptr<BfdSession> hold(this);
    receiveWaiting_();
    if (isEnded_ || !detection_.isIdle()) {
        return;
    }
    remote_ = Remote();
    armTx();
    if (state_ == State::init || state_ == State::up) {
        enter(State::down, Diag::timeExpired, false);
    }
}

double BfdSession::detectionSeconds() const {
    const uint64_t interval = std::max(config_.requiredMinRx, remote_.desiredMinTx);
    return static_cast<double>(remote_.detectMult * interval) / microsPerSecond;
}

uint32_t BfdSession::desiredMinTx() const {
    return state_ == State::up ? config_.desiredMinTx : std::max(config_.desiredMinTx, slowMinTx);
}

double BfdSession::txIntervalSeconds() const {
    return std::max(desiredMinTx(), remote_.requiredMinRx) / microsPerSecond;
}

void BfdSession::sendPeriodic() {
    lastTx_ = clock_->now();
    // With a multiplier of 1 the interval is shortened by at least a tenth (6.8.7).
    jitter_ = std::uniform_real_distribution(0.75, config_.detectMult == 1 ? 0.9 : 1.0)(random_);
    armTx();
    transmit(/*isFinal=*/false);
}

void BfdSession::armTx() {
    const bool isQuiet =
        isEnded_ || remote_.requiredMinRx == 0 ||
        (remote_.isDemand && remote_.state == State::up && state_ == State::up && !isPolling_);
    tx_.expiryIs(isQuiet ? Mox::Clock::idle : lastTx_ + txIntervalSeconds() * jitter_);
}

void BfdSession::transmit(bool isFinal) const {
    if (isEnded_) {
        return;
    }
    BfdHdr pkt;
    pkt.diagIs(diag_);
    pkt.stateIs(state_);
    pkt.isPollIs(isPolling_ && !isFinal);
    pkt.isFinalIs(isFinal);
    pkt.detectMultIs(config_.detectMult);
    pkt.myDiscrIs(config_.localDiscr);
    pkt.yourDiscrIs(remote_.discr);
    pkt.desiredMinTxIs(desiredMinTx());
    pkt.requiredMinRxIs(config_.requiredMinRx);
    send_(pkt);
}

}  // namespace Bfd
