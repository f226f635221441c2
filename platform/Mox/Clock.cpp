#include "Mox/Clock.h"

#include <time.h>

#include <algorithm>
#include <cmath>

#include "Mox/Assert.h"

namespace Mox {

Clock::~Clock() = default;

double Clock::nextExpiry() const {
    return heap_.empty() ? idle : heap_.front()->expiry_;
}

uint32_t Clock::fire() {
    const double due = now();
    const uint64_t newest = armed_;
    uint32_t fired = 0;
    fired_ = due;  // Whatever is armed from now on stands behind all that is due.
    while (!heap_.empty() && heap_.front()->due_ <= due && heap_.front()->armedAs_ <= newest) {
        Notifiee* first = heap_.front();
        first->expiryIs(idle);
        ++fired;
        first->handleExpiry();
    }
    return fired;
}

bool Clock::Notifiee::isBefore(const Notifiee& other) const {
    return due_ != other.due_ ? due_ < other.due_ : armedAs_ < other.armedAs_;
}

void Clock::place(uint32_t index, Notifiee* notifiee) {
    heap_[index] = notifiee;
    notifiee->index_ = index;
}

void Clock::siftUp(uint32_t index) {
    Notifiee* moving = heap_[index];
    while (index > 0 && moving->isBefore(*heap_[(index - 1) / 2])) {
        place(index, heap_[(index - 1) / 2]);
        index = (index - 1) / 2;
    }
    place(index, moving);
}

void Clock::siftDown(uint32_t index) {
    const auto count = static_cast<uint32_t>(heap_.size());
    Notifiee* moving = heap_[index];
    for (uint32_t child = 2 * index + 1; child < count; child = 2 * index + 1) {
        if (child + 1 < count && heap_[child + 1]->isBefore(*heap_[child])) {
            ++child;
        }
        if (!heap_[child]->isBefore(*moving)) {
            break;
        }
        place(index, heap_[child]);
        index = child;
    }
    place(index, moving);
}

void Clock::add(Notifiee* notifiee, double expiry) {
    heap_.push_back(notifiee);
    notifiee->expiry_ = expiry;
    notifiee->due_ = std::max(expiry, fired_);
    notifiee->armedAs_ = ++armed_;
    siftUp(static_cast<uint32_t>(heap_.size()) - 1);
}

void Clock::remove(Notifiee* notifiee) {
    const uint32_t index = notifiee->index_;
    Notifiee* last = heap_.back();
    heap_.pop_back();
    if (last == notifiee) {
        return;
    }
    place(index, last);
    siftUp(index);
    siftDown(last->index_);
}

Clock::Notifiee::~Notifiee() {
    expiryIs(idle);
}

void Clock::Notifiee::expiryIs(double expiry) {
    require(!std::isnan(expiry), "!isnan( expiry )");
    if (!isIdle()) {
        clock_->remove(this);
        expiry_ = idle;
    }
    if (expiry != idle) {
        clock_->add(this, expiry);
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
    while (nextExpiry() <= target) {
        if (nextExpiry() > now_) {
            now_ = nextExpiry();
        }
        fire();
    }
    now_ = std::max(now_, target);  // A handler may have gone on further.
}

}  // namespace Mox
