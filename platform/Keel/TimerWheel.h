/// @file
/// Many timers on one clock.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>

#include "Keel/Export.h"
#include "Mox/Clock.h"

namespace Keel {

/// Timers by the thousand, driven by a clock: arming and cancelling one takes the same time however
/// many there are. Times are absolute, in seconds of that clock, and exact: nothing is rounded.
/// Timers are called in the rounds of the clock, by the same rules as the clock's own notifiees,
/// but for rounds that are made inside the call of a timer: these call no timer of the wheel.
///
/// A hierarchical wheel (Varghese and Lauck, 1987). Time is counted in ticks of 1/1024 s; a timer
/// that is due after the current tick waits in a slot of the level at which its tick and the
/// current one first differ, and moves down a level or more when its slot is reached:
///
///     level 0   64 slots of 1 tick      (1 ms)
///     level 1   64 slots of 64 ticks    (63 ms)
///       ...
///     level 7   64 slots of 2^42 ticks  (136 years)
///
/// Timers of the current tick wait in the order of their expiries. A lone timer costs the clock a
/// single call, at its expiry, however far away that is.
class KEEL_EXPORT TimerWheel {
  public:
    /// The expiry of a timer that is not armed.
    static constexpr double idle = std::numeric_limits<double>::infinity();

    class Notifiee;

    /// `clock` is not null; it may end before the wheel.
    explicit TimerWheel(Mox::Clock* clock);
    TimerWheel(const TimerWheel&) = delete;
    TimerWheel& operator=(const TimerWheel&) = delete;
    /// Timers may outlive their wheel: they are idle from then on. If only the clock ends, they
    /// keep their expiries and are not called any more. Not to be called by one of its timers:
    /// assertion "!turning".
    ~TimerWheel();

    /// Null after the end of the clock.
    Mox::Clock* clock() const;
    /// Assertion "clock()" after the end of the clock.
    double now() const {
        Mox::require(clock() != nullptr, "clock()");
        return clock()->now();
    }

  private:
    struct Wheel;
    // A place in a ring; alone it is a ring of one.
    struct Link {
        Link* previous = this;
        Link* next = this;

        bool isAlone() const { return next == this; }
        void insertBefore(Link* other);
        void remove();
    };
    struct InSlot : Link {};
    struct InWheel : Link {};

    std::unique_ptr<Wheel> wheel_;
};

/// A receiver that a wheel calls at its expiry.
class KEEL_EXPORT TimerWheel::Notifiee : private Mox::Due, private InSlot, private InWheel {
  public:
    /// Idle at first.
    explicit Notifiee(TimerWheel* wheel);
    Notifiee(const Notifiee&) = delete;
    Notifiee& operator=(const Notifiee&) = delete;
    virtual ~Notifiee();

    /// The clock of the wheel; null after the end of either.
    Mox::Clock* clock() const;
    /// +infinity while idle.
    double expiry() const { return expiry_; }
    /// Not armed.
    bool isIdle() const { return expiry_ == idle; }
    /// Arms it for an absolute time, also a past one; +infinity makes it idle. NaN is refused with
    /// the assertion "!isnan( expiry )", arming after the end of the wheel or of the clock with
    /// "clock()".
    void expiryIs(double expiry);

    /// Called once for each expiry, idle, in the order of the expiries and among equal ones in that
    /// of arming. The notifiee may arm itself again, which is then for another round of the clock,
    /// or be destroyed.
    virtual void handleExpiry() = 0;

  protected:
    /// In `handleExpiry`, before the notifiee arms itself again: the time at which it became due.
    /// That is the expiry, or the time of the last round before arming where that was later.
    double due() const { return Due::seconds; }

  private:
    friend class TimerWheel;

    Wheel* wheel_;  // Null after its end.
    double expiry_ = idle;
};

/// A timer of a wheel that calls a function: once, or periodically.
using Timer = Mox::BasicTimer<TimerWheel>;

}  // namespace Keel
