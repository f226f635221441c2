/// @file
/// Time, and being called when it comes.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "Mox/Export.h"

namespace Mox {

/// Times in seconds, growing monotonically from an arbitrary start, and notifiees that are called
/// when an absolute time has come. A notifiee at +infinity is idle.
class MOX_EXPORT Clock {
  public:
    static constexpr double idle = std::numeric_limits<double>::infinity();

    class Notifiee;

    virtual ~Clock();
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;

    virtual double now() const = 0;

    /// The expiry of the notifiee that is called next; +infinity when all are idle.
    double nextExpiry() const;
    /// Calls every notifiee that is due and was armed before this call, in the order of their
    /// expiries, of equal ones in the order of arming; each is idle when it is called. Returns how
    /// many were called. An exception passes through; who was not called yet stays armed.
    ///
    /// An expiry before the last call of `fire` counts as the time of that call: a notifiee that
    /// arms itself for the past again and again keeps none of the others waiting.
    uint32_t fire();

  protected:
    Clock() = default;

  private:
    void place(uint32_t index, Notifiee* notifiee);
    void siftUp(uint32_t index);
    void siftDown(uint32_t index);
    void add(Notifiee* notifiee, double expiry);
    void remove(Notifiee* notifiee);

    std::vector<Notifiee*> heap_;  // The earliest in front.
    uint64_t armed_ = 0;
    double fired_ = -idle;  // The time of the last call of `fire`.
};

/// What is called at its expiry. The clock must outlive it.
class MOX_EXPORT Clock::Notifiee {
  public:
    explicit Notifiee(Clock* clock) : clock_(clock) {}
    virtual ~Notifiee();
    Notifiee(const Notifiee&) = delete;
    Notifiee& operator=(const Notifiee&) = delete;

    Clock* clock() const { return clock_; }
    double expiry() const { return expiry_; }
    bool isIdle() const { return expiry_ == idle; }
    /// Arms it for an absolute time, also a past one; +infinity makes it idle. NaN is refused with
    /// the assertion "!isnan( expiry )".
    void expiryIs(double expiry);

    /// Called once an expiry, from `Clock::fire`. The notifiee may arm itself again or be
    /// destroyed.
    virtual void handleExpiry() = 0;

  private:
    friend class Clock;
    bool isBefore(const Notifiee& other) const;

    Clock* clock_;
    double expiry_ = idle;
    double due_ = idle;  // The expiry, but not before the clock's last call of `fire`.
    uint64_t armedAs_ = 0;
    uint32_t index_ = 0;  // In the heap, while armed.
};

/// A notifiee that calls a function. It may be destroyed from inside the call.
class Timer : public Clock::Notifiee {
  public:
    Timer(Clock* clock, std::function<void()> handler)
        : Notifiee(clock),
          handler_(std::make_shared<const std::function<void()>>(std::move(handler))) {}
    void handleExpiry() override {
        const auto held = handler_;
        (*held)();
    }

  private:
    std::shared_ptr<const std::function<void()>> handler_;
};

/// The machine's monotonic clock (clock_gettime(2), CLOCK_MONOTONIC).
class MOX_EXPORT MonotonicClock : public Clock {
  public:
    double now() const override;
};

/// A clock that stands still until it is told to go on, so that tests of timing neither wait nor
/// depend on the machine.
class MOX_EXPORT ManualClock : public Clock {
  public:
    double now() const override { return now_; }
    /// Goes on by `seconds`, stopping at each expiry on the way to call who is due there. After an
    /// exception from one of these it stands at that expiry.
    /// @pre `seconds` is not negative (assertion "seconds >= 0").
    void advance(double seconds);

  private:
    double now_ = 0;
};

}  // namespace Mox
