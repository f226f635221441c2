#include "Keel/TimerWheel.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>

#include "Mox/Assert.h"

namespace Keel {

namespace {

constexpr double ticksPerSecond = 1024;  // A power of two: scaling by it is exact.
constexpr uint32_t levelBits = 6;
constexpr uint32_t levelSlots = 1u << levelBits;
constexpr uint32_t levels = 8;
// A timer that is due beyond it, after some 8,700 years, waits there.
constexpr double horizonTicks = (uint64_t{1} << (levels * levelBits)) - 1;

}  // namespace

struct TimerWheel::Wheel {
    struct Slot {
        Link ring;
        double earliest = idle;  // No timer here is due before; after a cancellation, not exact.
    };
    struct WakeUp : Mox::Clock::Notifiee {
        WakeUp(Mox::Clock* clock, Wheel* owner) : Notifiee(clock), wheel(owner) {}
        void handleExpiry() override { wheel->turn(); }

        Wheel* wheel;
    };

    explicit Wheel(Mox::Clock* clock)
        : start(clock->now()), wakeUp(clock, this), overdue(clock, this) {}
    ~Wheel();

    Mox::Clock* clock() const { return wakeUp.clock(); }
    int64_t tickOf(double time) const;
    void add(Notifiee* timer, double expiry);
    bool putInSlot(Notifiee* timer, double due);
    void wakeAt(double due);
    void remove(Notifiee* timer);
    Slot* firstUsedSlot();
    void moveDown(Slot* slot);
    void fireBefore(double limit);
    void turn();
    void endTurn();

    double start;
    int64_t current = 0;
    // Timers of the current tick and before, and those that were armed for the time of a round that
    // had begun.
    Mox::DueQueue near;
    Link timers;  // All of them, armed or idle.
    // Two notifiees, since the clock has to know the next expiry while overdue timers wait for the
    // next round.
    WakeUp wakeUp;
    WakeUp overdue;
    bool turning = false;
    std::array<uint64_t, levels> used{};  // A bit for each slot of a level that may have timers.
    std::array<Slot, levels * levelSlots> slots;  // Level after level.
};

void TimerWheel::Link::insertBefore(Link* other) {
    Link* before = other->previous;
    previous = before;
    next = other;
    before->next = this;
    other->previous = this;
}

void TimerWheel::Link::remove() {
    previous->next = next;
    next->previous = previous;
    previous = this;
    next = this;
}

TimerWheel::Wheel::~Wheel() {
    Mox::require(!turning, "!turning");
    while (!timers.isAlone()) {
        auto* timer = static_cast<Notifiee*>(static_cast<InWheel*>(timers.next));
        timer->InWheel::remove();
        timer->InSlot::remove();
        timer->wheel_ = nullptr;
        timer->expiry_ = idle;
    }
}

int64_t TimerWheel::Wheel::tickOf(double time) const {
    const double ticks = (time - start) * ticksPerSecond;
    // Not std::clamp, which keeps a NaN: the distance between two times at infinity.
    return static_cast<int64_t>(std::min(std::max(0.0, ticks), horizonTicks));
}

void TimerWheel::Wheel::add(Notifiee* timer, double expiry) {
    static_cast<Mox::Due&>(*timer) = clock()->dueAt(expiry);
    const double due = timer->due();
    if (due < wakeUp.expiry()) {
        wakeAt(due);  // First, since memory may run out: then the timer is idle.
    }
    if (!putInSlot(timer, due)) {
        near.push(timer);
    }
    timer->expiry_ = expiry;
}

void TimerWheel::Wheel::wakeAt(double due) {
    if (turning) {
        return;
    }
    WakeUp& waker = due <= clock()->roundTime() ? overdue : wakeUp;
    if (due < waker.expiry()) {
        waker.expiryIs(due);
    }
}

inline bool TimerWheel::Wheel::putInSlot(Notifiee* timer, double due) {
    const int64_t tick = tickOf(due);
    if (tick <= current || due <= clock()->roundTime()) {
        return false;
    }
    const auto differing = static_cast<uint64_t>(tick ^ current);
    const auto level = (63u - static_cast<uint32_t>(std::countl_zero(differing))) / levelBits;
    const auto index = static_cast<uint32_t>(tick >> (level * levelBits)) % levelSlots;
    Slot& slot = slots[level * levelSlots + index];
    slot.earliest = slot.ring.isAlone() ? due : std::min(slot.earliest, due);
    timer->InSlot::insertBefore(&slot.ring);
    used[level] |= uint64_t{1} << index;
    return true;
}

void TimerWheel::Wheel::remove(Notifiee* timer) {
    near.remove(timer);
    timer->InSlot::remove();
    timer->expiry_ = idle;
}

// The slot whose timers are due before those of all others: a lower level covers the current slot
// of each higher one. Null when all are empty.
TimerWheel::Wheel::Slot* TimerWheel::Wheel::firstUsedSlot() {
    for (uint32_t level = 0; level < levels; ++level) {
        while (used[level] != 0) {
            const auto index = static_cast<uint32_t>(std::countr_zero(used[level]));
            Slot& slot = slots[level * levelSlots + index];
            if (!slot.ring.isAlone()) {
                return &slot;
            }
            used[level] &= used[level] - 1;  // All its timers were cancelled.
        }
    }
    return nullptr;
}

// Makes the slot's earliest tick the current one and places its timers anew: on lower levels, or
// near.
void TimerWheel::Wheel::moveDown(Slot* slot) {
    current = std::max(current, tickOf(slot->earliest));
    while (!slot->ring.isAlone()) {
        Link* first = slot->ring.next;
        first->remove();
        auto* timer = static_cast<Notifiee*>(static_cast<InSlot*>(first));
        try {
            if (!putInSlot(timer, timer->due())) {
                near.push(timer);
            }
        } catch (...) {  // No memory: the next turn goes on.
            timer->InSlot::insertBefore(&slot->ring);
            throw;
        }
    }
}

void TimerWheel::Wheel::fireBefore(double limit) {
    for (Mox::Due* first = near.first();
         first != nullptr && first->seconds < limit && clock()->isInRound(*first);
         first = near.first()) {
        auto* timer = static_cast<Notifiee*>(first);
        near.remove(timer);
        timer->expiry_ = idle;
        timer->handleExpiry();
    }
}

// Fires tick after tick, so that few timers are near at a time, however late the turn comes.
void TimerWheel::Wheel::turn() {
    struct Turn {
        ~Turn() { wheel->endTurn(); }
        Wheel* wheel;
    };
    const Turn ending{this};  // Also when a notifiee throws.
    turning = true;
    wakeUp.expiryIs(idle);  // Both are set at the end; a round inside this one must not turn again.
    overdue.expiryIs(idle);
    const double time = clock()->roundTime();
    for (Slot* slot = firstUsedSlot(); slot != nullptr && slot->earliest <= time;
         slot = firstUsedSlot()) {
        moveDown(slot);
        fireBefore(start + static_cast<double>(current + 1) / ticksPerSecond);
    }
    fireBefore(idle);
}

void TimerWheel::Wheel::endTurn() {
    turning = false;
    const double time = clock()->roundTime();
    const Mox::Due* first = near.first();
    if (first != nullptr && first->seconds <= time) {
        overdue.expiryIs(time);
    }
    const Slot* slot = firstUsedSlot();
    wakeUp.expiryIs(std::min(near.firstAfter(time), slot == nullptr ? idle : slot->earliest));
}

TimerWheel::TimerWheel(Mox::Clock* clock) : wheel_(std::make_unique<Wheel>(clock)) {}

TimerWheel::~TimerWheel() = default;

Mox::Clock* TimerWheel::clock() const {
    return wheel_->clock();
}

TimerWheel::Notifiee::Notifiee(TimerWheel* wheel) : wheel_(wheel->wheel_.get()) {
    InWheel::insertBefore(&wheel_->timers);
}

TimerWheel::Notifiee::~Notifiee() {
    if (!isIdle()) {
        wheel_->remove(this);
    }
    InWheel::remove();
}

Mox::Clock* TimerWheel::Notifiee::clock() const {
    return wheel_ == nullptr ? nullptr : wheel_->clock();
}

void TimerWheel::Notifiee::expiryIs(double expiry) {
    Mox::require(!std::isnan(expiry), "!isnan( expiry )");
    if (!isIdle()) {
        wheel_->remove(this);
    }
    if (expiry != idle) {
        Mox::require(clock() != nullptr, "clock()");
        wheel_->add(this, expiry);
    }
}

}  // namespace Keel
