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
// Whatever is due beyond it, after some 8,700 years, waits there.
constexpr uint64_t horizonTicks = (uint64_t{1} << (levels * levelBits)) - 1;

// A clock that goes from tick to tick, whatever steps the real one makes.
class NearClock : public Mox::Clock {
  public:
    double now() const override { return now_; }
    void nowIs(double now) { now_ = now; }

  private:
    double now_ = 0;
};

}  // namespace

struct TimerWheel::Wheel {
    struct Slot {
        Notifiee::Link ring;
        double earliest = idle;  // No timer here is due before; after a cancellation, not exact.
    };
    struct Level {
        std::array<Slot, levelSlots> slots;
        uint64_t used = 0;  // A bit for each slot that may have timers.
    };
    struct WakeUp : Mox::Clock::Notifiee {
        WakeUp(Mox::Clock* clock, Wheel* owner) : Notifiee(clock), wheel(owner) {}
        void handleExpiry() override { wheel->turn(); }

        Wheel* wheel;
    };

    explicit Wheel(Mox::Clock* clock) : start(clock->now()), wakeUp(clock, this) {}

    uint64_t tickOf(double time) const;
    void add(Notifiee* timer);
    void place(Notifiee* timer);
    void remove(Notifiee* timer);
    Slot* firstUsedSlot();
    template <class Use>
    void drain(Notifiee::Link* from, Use use);
    void comeDown(Slot* slot);
    void turnEnds();
    void turn();

    double start;
    uint64_t current = 0;
    NearClock near;  // Holds the timers of the current tick and before.
    WakeUp wakeUp;
    bool turning = false;
    double turnsTo = idle;       // The time of the turn under way.
    Notifiee::Link forNextTurn;  // Timers that a handler armed for that time or before.
    std::array<Level, levels> byLevel;
};

void TimerWheel::Notifiee::Link::insertBefore(Link* other) {
    previous = other->previous;
    next = other;
    previous->next = this;
    next->previous = this;
}

void TimerWheel::Notifiee::Link::remove() {
    previous->next = next;
    next->previous = previous;
    previous = this;
    next = this;
}

uint64_t TimerWheel::Wheel::tickOf(double time) const {
    const double ticks = (time - start) * ticksPerSecond;
    if (ticks >= static_cast<double>(horizonTicks)) {
        return horizonTicks;
    }
    return ticks > 0 ? static_cast<uint64_t>(ticks) : 0;
}

void TimerWheel::Wheel::add(Notifiee* timer) {
    if (turning && timer->expiry_ <= turnsTo) {
        timer->inSlot_.insertBefore(&forNextTurn);
        return;
    }
    place(timer);
    if (!turning && timer->expiry_ < wakeUp.expiry()) {
        wakeUp.expiryIs(timer->expiry_);
    }
}

void TimerWheel::Wheel::place(Notifiee* timer) {
    const uint64_t tick = tickOf(timer->expiry_);
    if (tick <= current) {
        timer->due_.expiryIs(timer->expiry_);
        return;
    }
    const auto level = (63u - static_cast<uint32_t>(std::countl_zero(tick ^ current))) / levelBits;
    const uint64_t index = tick >> (level * levelBits) & (levelSlots - 1);
    Slot& slot = byLevel[level].slots[index];
    if (slot.ring.isAlone()) {
        slot.earliest = idle;
    }
    slot.earliest = std::min(slot.earliest, timer->expiry_);
    timer->inSlot_.insertBefore(&slot.ring);
    byLevel[level].used |= uint64_t{1} << index;
}

void TimerWheel::Wheel::remove(Notifiee* timer) {
    timer->inSlot_.remove();
    timer->due_.expiryIs(idle);
}

// The slot whose timers are due before those of all others: a lower level's are of the current slot
// of every higher one. Null when all are empty.
TimerWheel::Wheel::Slot* TimerWheel::Wheel::firstUsedSlot() {
    for (Level& level : byLevel) {
        while (level.used != 0) {
            const auto index = static_cast<uint32_t>(std::countr_zero(level.used));
            Slot& slot = level.slots[index];
            if (!slot.ring.isAlone()) {
                return &slot;
            }
            level.used &= level.used - 1;  // All its timers were cancelled.
        }
    }
    return nullptr;
}

// Calls `use` for each timer of the ring, in order, after taking it out.
template <class Use>
void TimerWheel::Wheel::drain(Notifiee::Link* from, Use use) {
    Notifiee::Link ring;
    ring.insertBefore(from);
    from->remove();
    while (!ring.isAlone()) {
        Notifiee* timer = static_cast<Notifiee::InSlot*>(ring.next)->owner;
        timer->inSlot_.remove();
        use(timer);
    }
}

// Makes the slot's earliest tick the current one and places its timers anew, in their order, so
// that equal expiries stay in the order of arming.
void TimerWheel::Wheel::comeDown(Slot* slot) {
    current = std::max(current, tickOf(slot->earliest));
    drain(&slot->ring, [this](Notifiee* timer) { place(timer); });
}

// Fires tick after tick, so that few timers wait in order at a time, however late the turn comes.
void TimerWheel::Wheel::turn() {
    struct Ending {
        ~Ending() { wheel->turnEnds(); }
        Wheel* wheel;
    };
    const Ending ending{this};  // Also when a notifiee throws.
    turning = true;
    turnsTo = wakeUp.clock()->now();
    for (Slot* slot = firstUsedSlot(); slot != nullptr && slot->earliest <= turnsTo;
         slot = firstUsedSlot()) {
        comeDown(slot);
        const double tickEnds = start + static_cast<double>(current + 1) / ticksPerSecond;
        near.nowIs(std::min(tickEnds, turnsTo));
        near.fire();
    }
    near.nowIs(turnsTo);
    near.fire();
}

void TimerWheel::Wheel::turnEnds() {
    turning = false;
    drain(&forNextTurn, [](Notifiee* timer) { timer->due_.expiryIs(timer->expiry_); });
    const Slot* slot = firstUsedSlot();
    wakeUp.expiryIs(std::min(near.nextExpiry(), slot == nullptr ? idle : slot->earliest));
}

TimerWheel::TimerWheel(Mox::Clock* clock) : wheel_(std::make_unique<Wheel>(clock)) {}

TimerWheel::~TimerWheel() = default;

Mox::Clock* TimerWheel::clock() const {
    return wheel_->wakeUp.clock();
}

TimerWheel::Notifiee::Notifiee(TimerWheel* wheel)
    : wheel_(wheel->wheel_.get()), due_(&wheel_->near, this) {
    inSlot_.owner = this;
}

TimerWheel::Notifiee::~Notifiee() {
    wheel_->remove(this);
}

void TimerWheel::Notifiee::expiryIs(double expiry) {
    Mox::require(!std::isnan(expiry), "!isnan( expiry )");
    wheel_->remove(this);
    expiry_ = expiry;
    if (!isIdle()) {
        wheel_->add(this);
    }
}

void TimerWheel::Notifiee::Due::handleExpiry() {
    owner->expiry_ = idle;
    owner->handleExpiry();
}

}  // namespace Keel
