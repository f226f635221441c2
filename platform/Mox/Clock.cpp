#include "Mox/Clock.h"

#include <time.h>

#include <algorithm>

namespace Mox {

// A call of `fire` under way. A handler may call `fire` again: the round inside calls also what was
// armed since, and the outer one then goes on with its own limit.
struct Clock::Round {
    explicit Round(Clock& itsClock) : clock(itsClock), outerNewest(clock.newestInRound_) {
        clock.roundTime_ = clock.now();
        clock.newestInRound_ = clock.armed_;
        ++clock.firing_;
    }
    ~Round() {
        clock.newestInRound_ = outerNewest;
        --clock.firing_;
    }
    Round(const Round&) = delete;
    Round& operator=(const Round&) = delete;

    Clock& clock;
    const uint64_t outerNewest;
};

Clock::~Clock() {
    require(firing_ == 0, "!firing_");
    for (Notifiee* each = notifiees_; each != nullptr; each = each->next_) {
        each->clock_ = nullptr;
        each->expiry_ = idle;
    }
}

double Clock::nextExpiry() const {
    const Due* first = queue_.first();
    return first == nullptr ? idle : static_cast<const Notifiee*>(first)->expiry_;
}

uint32_t Clock::fire() {
    const Round round(*this);
    uint32_t fired = 0;
    for (Due* first = queue_.first(); first != nullptr && isInRound(*first);
         first = queue_.first()) {
        auto* notifiee = static_cast<Notifiee*>(first);
        queue_.remove(notifiee);
        notifiee->expiry_ = idle;
        ++fired;
        notifiee->handleExpiry();
    }
    return fired;
}

void Clock::handleNextExpiry() {}

Clock::Notifiee::Notifiee(Clock* clock) : clock_(clock), next_(clock->notifiees_) {
    clock->notifiees_ = this;
    if (next_ != nullptr) {
        next_->previous_ = this;
    }
}

Clock::Notifiee::~Notifiee() {
    if (clock_ == nullptr) {
        return;
    }
    clock_->queue_.remove(this);
    (previous_ != nullptr ? previous_->next_ : clock_->notifiees_) = next_;
    if (next_ != nullptr) {
        next_->previous_ = previous_;
    }
}

void Clock::Notifiee::expiryIs(double expiry) {
    require(!std::isnan(expiry), "!isnan( expiry )");
    const bool wasIdle = isIdle();
    expiry_ = idle;  // Until it is in the queue: memory may run out.
    if (expiry == idle) {
        if (!wasIdle) {
            clock_->queue_.remove(this);
        }
        return;
    }
    require(clock_ != nullptr, "clock()");
    if (wasIdle) {
        static_cast<Due&>(*this) = clock_->dueAt(expiry);
        clock_->queue_.push(this);
    } else {
        clock_->queue_.move(this, clock_->dueAt(expiry));
    }
    expiry_ = expiry;
    if (clock_->queue_.first() == this) {
        clock_->handleNextExpiry();
    }
}

double MonotonicClock::now() const {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

void ManualClock::advance(double seconds) {
    require(seconds >= 0, "seconds >= 0");
    const double target = now_ + seconds;
    if (nextExpiry() <= now_) {
        fire();
    }
    while (now_ < target) {  // A handler may have moved the clock on further.
        now_ = std::min(nextDueAfter(now_), target);
        fire();
    }
}

}  // namespace Mox
