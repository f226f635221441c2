/// @file
/// Many timers on one clock.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <utility>

#include "Keel/Export.h"
#include "Mox/Clock.h"

namespace Keel {

/// Timers by the thousand, driven by a clock: arming and cancelling one takes the same time however
/// many there are. Times are absolute, in seconds of that clock, and exact: nothing is rounded.
///
/// A hierarchical wheel (Varghese and Lauck, 1987). Time is counted in ticks of 1/1024 s; a timer
/// that is due after the current tick waits in a slot of the level at which its tick and the
/// current one first differ, and comes down a level or more when its slot is reached:
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
    static constexpr double idle = std::numeric_limits<double>::infinity();

    class Notifiee;

    /// The clock must outlive the wheel.
    explicit TimerWheel(Mox::Clock* clock);
    TimerWheel(const TimerWheel&) = delete;
    TimerWheel& operator=(const TimerWheel&) = delete;
    ~TimerWheel();

    Mox::Clock* clock() const;
    double now() const { return clock()->now(); }

  private:
    struct Wheel;

    std::unique_ptr<Wheel> wheel_;
};

/// What is called at its expiry. The wheel must outlive it.
class KEEL_EXPORT TimerWheel::Notifiee {
  public:
    explicit Notifiee(TimerWheel* wheel);
    Notifiee(const Notifiee&) = delete;
    Notifiee& operator=(const Notifiee&) = delete;
    virtual ~Notifiee();

    /// +infinity while idle.
    double expiry() const { return expiry_; }
    bool isIdle() const { return expiry_ == idle; }
    /// Arms it for an absolute time, also a past one; +infinity makes it idle. NaN is refused with
    /// the assertion "!isnan( expiry )".
    void expiryIs(double expiry);

    /// Called once an expiry, idle, in the order of the expiries and among equal ones in that of
    /// arming. The notifiee may arm itself again, then to be called in another round of the clock,
    /// or be destroyed.
    virtual void handleExpiry() = 0;

  private:
    friend struct Wheel;

    // A place in a slot's ring; alone it is a ring of one.
    struct Link {
        Link* previous = this;
        Link* next = this;

        bool isAlone() const { return next == this; }
        void insertBefore(Link* other);
        void remove();
    };
    struct InSlot : Link {
        Notifiee* owner = nullptr;
    };
    struct Due : Mox::Clock::Notifiee {
        Due(Mox::Clock* clock, TimerWheel::Notifiee* timer)
            : Mox::Clock::Notifiee(clock), owner(timer) {}
        void handleExpiry() override;

        TimerWheel::Notifiee* owner;
    };

    Wheel* wheel_;
    double expiry_ = idle;
    InSlot inSlot_;
    Due due_;
};

/// A timer that calls a function. It may be destroyed from inside the call.
class Timer : public TimerWheel::Notifiee {
  public:
    Timer(TimerWheel* wheel, std::function<void()> handler)
        : Notifiee(wheel),
          handler_(std::make_shared<const std::function<void()>>(std::move(handler))) {}
    void handleExpiry() override {
        const auto held = handler_;
        (*held)();
    }

  private:
    std::shared_ptr<const std::function<void()>> handler_;
};

}  // namespace Keel
