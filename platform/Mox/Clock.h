/// @file
/// Clocks, and timers that are called when their time has come.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/DueQueue.h"
#include "Mox/Export.h"

namespace Mox {

/// Times in seconds, growing monotonically from an arbitrary start, and notifiees that are called
/// when an absolute time has come. A notifiee at +infinity is idle.
///
/// Notifiees are called in rounds; a round is one call of `fire`. It calls each notifiee that is
/// due and was armed before the round began, in the order of their expiries, and those of equal
/// expiries in the order of arming. A notifiee that is armed for
/// the past counts as due at the time of the last round, so it never delays those that are due now.
class MOX_EXPORT Clock {
  public:
    /// The expiry of a notifiee that is not armed.
    static constexpr double idle = std::numeric_limits<double>::infinity();

    class Notifiee;

    /// Notifiees may outlive their clock: they are idle from then on. Not to be called from inside
    /// `fire`: assertion "!firing_".
    virtual ~Clock();
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;

    /// In seconds; never less than before.
    virtual double now() const = 0;

    /// The expiry of the notifiee that is called next; +infinity when all are idle.
    double nextExpiry() const;
    /// Makes a round and returns how many notifiees it called; each is idle when it is called. An
    /// exception from one of them ends the round; the others stay armed. A round inside that ends
    /// so may leave some for the next round, also when the handler catches the exception.
    uint32_t fire();

    /// The time of the last round, which may still be under way; -infinity before the first one.
    double roundTime() const { return roundTime_; }
    /// For a queue of timers that is driven by this clock, as `Keel::TimerWheel` is: the place of a
    /// timer that is armed now.
    Due dueAt(double expiry) { return {std::max(expiry, roundTime_), ++armed_}; }
    /// For such a queue: whether the round under way calls a timer at that place.
    bool isInRound(const Due& due) const {
        return due.seconds <= roundTime_ && due.armedAs <= newestInRound_;
    }

  protected:
    Clock() = default;

    /// The earliest time after `seconds` at which a notifiee is due; +infinity when there is none.
    double nextDueAfter(double seconds) const { return queue_.firstAfter(seconds); }

  private:
    struct Round;

    // Called when a notifiee was armed that is called before all others.
    virtual void handleNextExpiry();

    DueQueue queue_;
    Notifiee* notifiees_ = nullptr;  // All of them, armed or idle.
    uint64_t armed_ = 0;
    uint64_t newestInRound_ = 0;
    double roundTime_ = -idle;
    uint32_t firing_ = 0;  // Calls of `fire` under way.
};

/// A receiver that a clock calls at its expiry.
class MOX_EXPORT Clock::Notifiee : private Due {
  public:
    /// Idle at first.
    explicit Notifiee(Clock* clock);
    virtual ~Notifiee();
    Notifiee(const Notifiee&) = delete;
    Notifiee& operator=(const Notifiee&) = delete;

    /// Null after the end of the clock.
    Clock* clock() const { return clock_; }
    /// In seconds of the clock; +infinity while idle.
    double expiry() const { return expiry_; }
    /// Not armed.
    bool isIdle() const { return expiry_ == idle; }
    /// Arms it for an absolute time, also a past one; +infinity makes it idle. NaN is refused with
    /// the assertion "!isnan( expiry )", arming after the end of the clock with "clock()".
    void expiryIs(double expiry);

    /// Called once for each expiry, from `Clock::fire`. The notifiee may arm itself again, which is
    /// then for another round, or be destroyed.
    virtual void handleExpiry() = 0;

  protected:
    /// In `handleExpiry`, before the notifiee arms itself again: the time at which it became due.
    /// That is the expiry, or the time of the last round before arming where that was later.
    double due() const { return Due::seconds; }

  private:
    friend class Clock;

    Clock* clock_;
    Notifiee* previous_ = nullptr;
    Notifiee* next_;
    double expiry_ = idle;
};

/// A timer of a clock or of a timer wheel, its `Source`, that calls a function: once, or
/// periodically. It may be destroyed from inside the call. It stays where it is made: many of them
/// are kept in a `std::deque` or a `std::map`, not in a `std::vector`.
template <class Source>
class BasicTimer : public Source::Notifiee {
    using Base = typename Source::Notifiee;

  public:
    /// Idle at first. `handler` is called from the event loop.
    [[nodiscard]] BasicTimer(Source* source, std::function<void()> handler)
        : Base(source),
          handler_(std::make_shared<const std::function<void()>>(std::move(handler))) {}

    /// Arms it for one call at an absolute time, also a past one; +infinity makes it idle. A period
    /// ends with it. Assertions as for the source's notifiees.
    void expiryIs(double expiry) {
        periodSeconds_ = 0;
        Base::expiryIs(expiry);
    }
    /// Arms it for calls at `firstExpiry` and at whole periods after it, until `expiryIs`. A call
    /// that comes late does not shift the later ones. Periods that passed meanwhile are skipped, so
    /// that a late call is a single one.
    /// @pre The period is positive and finite (assertion "period > 0"), and the first expiry is not
    /// -infinity (assertion "firstExpiry > -infinity"); at +infinity there is no call.
    void every(double periodSeconds, double firstExpiry) {
        require(periodSeconds > 0 && periodSeconds != Clock::idle, "period > 0");
        require(firstExpiry != -Clock::idle, "firstExpiry > -infinity");
        Base::expiryIs(firstExpiry);
        firstExpiry_ = firstExpiry;
        periodSeconds_ = periodSeconds;
    }
    /// The same with the first call one period from now.
    void every(double periodSeconds) {
        require(this->clock() != nullptr, "clock()");
        every(periodSeconds, this->clock()->now() + periodSeconds);
    }

    /// In the handler: the time at which the call was due. The handler runs then or later.
    double due() const { return due_; }

    /// Calls the handler; a periodic timer is armed again before that.
    void handleExpiry() override {
        due_ = Base::due();
        if (periodSeconds_ > 0) {
            Base::expiryIs(nextPeriod());  // Before the call: it may throw, or end the timer.
        }
        const auto held = handler_;
        (*held)();
    }

  private:
    // Multiplied, since a sum of many periods would drift by rounding.
    double nextPeriod() const {
        const double now = this->clock()->roundTime();
        const double periods = std::floor((now - firstExpiry_) / periodSeconds_) + 1;
        if (!std::isfinite(periods)) {
            return now;  // In the next round: times of the clock are farther apart than periods.
        }
        const double next = firstExpiry_ + periods * periodSeconds_;
        return next > now ? next : firstExpiry_ + (periods + 1) * periodSeconds_;
    }

    std::shared_ptr<const std::function<void()>> handler_;
    double due_ = Clock::idle;
    double firstExpiry_ = 0;
    double periodSeconds_ = 0;  // 0 for a single call.
};

/// A timer of a clock that calls a function: once, or periodically.
using Timer = BasicTimer<Clock>;

/// The machine's monotonic clock (clock_gettime(2), CLOCK_MONOTONIC).
class MOX_EXPORT MonotonicClock : public Clock {
  public:
    /// Seconds since an arbitrary time, as a rule since the machine was started.
    double now() const override;
};

/// A clock that moves only by `advance`, so that tests of timing neither wait nor depend on the
/// machine.
class MOX_EXPORT ManualClock : public Clock {
  public:
    /// 0 at first.
    double now() const override { return now_; }
    /// Moves on by `seconds`. The clock stops at each expiry on the way, and last at the end, and
    /// makes one round at each stop; it makes one before it moves if a notifiee is due already.
    /// What a handler arms for the time of its own round, or for the past, is called at the next
    /// stop. After an exception from a handler the clock stands at that stop.
    /// @pre `seconds` is not negative (assertion "seconds >= 0").
    void advance(double seconds);

  private:
    double now_ = 0;
};

}  // namespace Mox
