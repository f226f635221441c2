#include "Mox/EventLoop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>

#include "Mox/Assert.h"
#include "Mox/Exception.h"
#include "Mox/Trace.h"

namespace Mox {

namespace {

thread_local EventLoop* currentLoop = nullptr;

// Of the wake-up; no slot and generation make this number.
constexpr uint64_t wakeUpEvent = UINT64_MAX;

// Whole milliseconds, rounded up, so that a timer is due when the wait for it ends. What epoll
// cannot count (24 days) ends early, and the next turn waits on.
int milliseconds(double seconds) {
    if (seconds == Clock::idle) {
        return -1;
    }
    return static_cast<int>(std::clamp<double>(std::ceil(seconds * 1000), 0, INT_MAX));
}

int checked(int number, const char* call) {
    if (number < 0) {
        throwErrnoException(call);
    }
    return number;
}

}  // namespace

EventLoop::OwnedNumber::~OwnedNumber() {
    (void)close(number);
}

EventLoop::EventLoop()
    : epoll_{checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")},
      wakeUp_{checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")},
      events_(1) {
    require(currentLoop == nullptr, "!EventLoop::current()");
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = wakeUpEvent;
    checked(epoll_ctl(epoll_.number, EPOLL_CTL_ADD, wakeUp_.number, &event), "epoll_ctl");
    currentLoop = this;
}

EventLoop::~EventLoop() {
    // Descriptors may outlive their loop; from now on nothing watches them.
    for (const Slot& slot : slots_) {
        if (slot.descriptor != nullptr) {
            slot.descriptor->notifyOnReadable_ = false;
            slot.descriptor->notifyOnWritable_ = false;
            unwatch(slot.descriptor);
        }
    }
    currentLoop = nullptr;
}

EventLoop* EventLoop::current() {
    return currentLoop;
}

double EventLoop::secondsToWork() const {
    if (firstReport_ != nullptr || !deferred_.empty()) {
        return 0;
    }
    return std::max(clock_.nextExpiry() - clock_.now(), 0.0);
}

uint32_t EventLoop::turn(double timeoutSeconds) {
    require(!inTurn_, "!inTurn_");
    struct InTurn {
        explicit InTurn(bool& flag) : flag_(flag) { flag_ = true; }
        ~InTurn() { flag_ = false; }
        bool& flag_;
    } const inTurn(inTurn_);
    const auto deferredBefore = deferred_.size();
    poll(timeoutSeconds);
    uint32_t done = clock_.nextExpiry() == Clock::idle ? 0 : clock_.fire();
    done += makeDeferredCalls(deferredBefore);
    return done + makeReports();
}

void EventLoop::run() {
    while (!stopped_) {
        turn();
    }
    stopped_ = false;
    forgetWakeUp();
}

void EventLoop::stop() {
    const ErrnoKeeper keeper;
    stopped_ = true;
    const uint64_t one = 1;
    (void)!write(wakeUp_.number, &one, sizeof one);  // Fails only where it is readable anyway.
}

void EventLoop::forgetWakeUp() {
    uint64_t count = 0;
    (void)!read(wakeUp_.number, &count, sizeof count);  // Fails only where it is not readable.
}

void EventLoop::poll(double timeoutSeconds) {
    const bool waits = timeoutSeconds > 0;
    const double deadline = waits ? clock_.now() + timeoutSeconds : 0;
    int count = -1;
    do {
        const double wait = waits ? std::min(deadline - clock_.now(), secondsToWork()) : 0;
        count = epoll_wait(epoll_.number, events_.data(), static_cast<int>(events_.size()),
                           milliseconds(wait));
    } while (count < 0 && errno == EINTR);
    checked(count, "epoll_wait");
    for (int i = 0; i < count; ++i) {
        const epoll_event event = events_[static_cast<uint32_t>(i)];
        if (event.data.u64 == wakeUpEvent) {
            forgetWakeUp();
            continue;
        }
        const Slot& slot = slots_[static_cast<uint32_t>(event.data.u64)];
        if (slot.descriptor == nullptr || slot.generation != event.data.u64 >> 32) {
            continue;  // Of a descriptor that is not watched any more; its number may be.
        }
        const uint32_t seen = event.events;
        slot.descriptor->readinessSeen((seen & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0,
                                       (seen & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0);
    }
}

uint32_t EventLoop::makeDeferredCalls(std::size_t count) {
    uint32_t made = 0;
    for (; count > 0; --count) {
        const auto call = std::move(deferred_.front());
        deferred_.pop_front();
        ++made;
        call();
    }
    return made;
}

uint32_t EventLoop::makeReports() {
    ++turn_;  // What is queued from now on waits for the next turn.
    uint32_t made = 0;
    while (firstReport_ != nullptr && firstReport_->turn != turn_) {
        FileDescriptor::Report* due = firstReport_;
        unqueue(due);
        ++made;
        due->owner->report(*due);
    }
    return made;
}

void EventLoop::queue(FileDescriptor::Report* report) {
    if (report->queued) {
        return;
    }
    report->queued = true;
    report->turn = turn_;
    report->previous = lastReport_;
    report->next = nullptr;
    (lastReport_ != nullptr ? lastReport_->next : firstReport_) = report;
    lastReport_ = report;
}

void EventLoop::unqueue(FileDescriptor::Report* report) {
    if (!report->queued) {
        return;
    }
    report->queued = false;
    (report->previous != nullptr ? report->previous->next : firstReport_) = report->next;
    (report->next != nullptr ? report->next->previous : lastReport_) = report->previous;
}

void EventLoop::watch(FileDescriptor* descriptor) {
    if (!descriptor->notifyOnReadable_) {
        unqueue(&descriptor->readReport_);
    }
    if (!descriptor->notifyOnWritable_) {
        unqueue(&descriptor->writeReport_);
    }
    if (!descriptor->notifyOnReadable_ && !descriptor->notifyOnWritable_) {
        unwatch(descriptor);
        return;
    }
    const bool isNew = descriptor->loop_ == nullptr;
    if (isNew) {
        if (freeSlots_.empty()) {
            events_.resize(slots_.size() + 2);
            slots_.emplace_back();
            freeSlots_.push_back(static_cast<uint32_t>(slots_.size()) - 1);
        }
        descriptor->slot_ = freeSlots_.back();
    }
    const uint32_t slot = descriptor->slot_;
    epoll_event event{};
    event.events = descriptor->epollEvents();
    event.data.u64 = uint64_t{slots_[slot].generation} << 32 | slot;
    if (epoll_ctl(epoll_.number, isNew ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, descriptor->descriptor(),
                  &event) < 0) {
        throwErrnoException("epoll_ctl");
    }
    if (isNew) {
        freeSlots_.pop_back();
        slots_[slot].descriptor = descriptor;
        descriptor->loop_ = this;
    }
}

void EventLoop::unwatch(FileDescriptor* descriptor) {
    if (descriptor->loop_ == nullptr) {
        return;
    }
    // Fails where somebody closed the number behind the owner's back; the entry is then gone too,
    // or drops its events by the generation.
    (void)epoll_ctl(epoll_.number, EPOLL_CTL_DEL, descriptor->descriptor(), nullptr);
    unqueue(&descriptor->readReport_);
    unqueue(&descriptor->writeReport_);
    ++slots_[descriptor->slot_].generation;
    slots_[descriptor->slot_].descriptor = nullptr;
    freeSlots_.push_back(descriptor->slot_);
    descriptor->loop_ = nullptr;
}

}  // namespace Mox
