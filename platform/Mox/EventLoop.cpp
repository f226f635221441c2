#include "Mox/EventLoop.h"

#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <iterator>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Exception.h"
#include "Mox/Trace.h"

namespace Mox {

namespace {

thread_local EventLoop* currentLoop = nullptr;

// The loop's own events; the low half is no descriptor number.
constexpr uint64_t wakeUpEvent = UINT64_MAX;
constexpr uint64_t timerEvent = UINT64_MAX - 1;
constexpr std::size_t ownEvents = 2;

int checked(int number, const char* call) {
    if (number < 0) {
        throwErrnoException(call);
    }
    return number;
}

}  // namespace

struct EventLoop::Turn {
    explicit Turn(EventLoop* itsLoop) : loop(itsLoop) { loop->inTurn_ = true; }
    ~Turn() {
        loop->inTurn_ = false;
        if (loop->nested_) {
            loop->showWork();
        }
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    EventLoop* const loop;
};

EventLoop::OwnedNumber::~OwnedNumber() {
    (void)close(number);
}

EventLoop::EventLoop()
    : epoll_{checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")},
      wakeUp_{checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")},
      timer_{
          checked(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK), "timerfd_create")},
      events_(ownEvents) {
    require(currentLoop == nullptr, "!EventLoop::current()");
    // Edge-triggered: each write and each expiry is one event, and no read is needed to end it.
    addToKernel(wakeUp_.number, EPOLLIN | EPOLLET, wakeUpEvent);
    addToKernel(timer_.number, EPOLLIN | EPOLLET, timerEvent);
    currentLoop = this;
}

void EventLoop::addToKernel(int number, uint32_t events, uint64_t data) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = data;
    checked(epoll_ctl(epoll_.number, EPOLL_CTL_ADD, number, &event), "epoll_ctl");
}

EventLoop::~EventLoop() {
    require(!inTurn_, "!inTurn_");
    {
        const std::lock_guard lock(postMutex_);
        ended_ = true;
    }
    takePosted();
    while (!deferred_.empty()) {  // What a call holds may defer calls when it is destroyed.
        std::exchange(deferred_, {}).clear();
    }
    for (const Registration& each : registrations_) {
        if (each.descriptor != nullptr) {
            each.descriptor->notifyOnReadable_ = false;
            each.descriptor->notifyOnWritable_ = false;
            forget(each.descriptor);
        }
    }
    currentLoop = nullptr;
}

EventLoop* EventLoop::current() {
    return currentLoop;
}

uint32_t EventLoop::turn(double timeoutSeconds) {
    require(!inTurn_, "!inTurn_");
    const Turn turn(this);
    wait(timeoutSeconds);
    takePosted();
    const auto deferredBefore = deferred_.size();
    uint32_t done = clock_.nextExpiry() == Clock::idle ? 0 : clock_.fire();
    done += makeDeferredCalls(deferredBefore);
    return done + makeReports();
}

void EventLoop::run() {
    while (!stopped_) {
        turn();
    }
    stopped_ = false;
    uint64_t count = 0;  // Ends the event of the stop, for which no turn waits any more.
    (void)!read(wakeUp_.number, &count, sizeof count);  // Fails only where it is not readable.
    workCame();  // An outer loop still has to see the work that is left.
}

void EventLoop::stop() {
    stopped_ = true;
    wake();
}

void EventLoop::wake() {
    const ErrnoKeeper keeper;
    const uint64_t one = 1;
    (void)!write(wakeUp_.number, &one, sizeof one);  // Fails only after 2^64 - 2 of them.
}

void EventLoop::defer(std::function<void()> call) {
    deferred_.push_back(std::move(call));
    workCame();
}

void EventLoop::post(std::function<void()> call) {
    {
        const std::lock_guard lock(postMutex_);
        if (ended_) {
            return;  // `call` is destroyed after the lock was given back.
        }
        posted_.push_back(std::move(call));
        if (posted_.size() > 1) {
            return;  // The first one has woken the loop.
        }
        hasPosted_ = true;
    }
    wake();
}

void EventLoop::takePosted() {
    if (!hasPosted_) {
        return;
    }
    std::deque<std::function<void()>> taken;
    {
        const std::lock_guard lock(postMutex_);
        taken.swap(posted_);
        hasPosted_ = false;
    }
    std::move(taken.begin(), taken.end(), std::back_inserter(deferred_));
}

int EventLoop::fd() {
    nested_ = true;
    workCame();
    return epoll_.number;
}

bool EventLoop::hasWork() const {
    return firstReport_ != nullptr || !deferred_.empty() || hasPosted_;
}

// Work came that the kernel does not know; in a turn, its end looks for all of it.
void EventLoop::workCame() {
    if (nested_ && !inTurn_) {
        showWork();
    }
}

// Makes the descriptor of a nested loop readable when there is work, or when there will be.
void EventLoop::showWork() {
    if (hasWork()) {
        wake();
    }
    if (clock_.nextExpiry() < timerExpiry_) {
        armTimer(clock_.nextExpiry());
    }
}

void EventLoop::armTimer(double expiry) {
    constexpr double soonest = 1e-9;  // 0 would disarm.
    constexpr double latest = 9e9;    // In 285 years; what is due later is then armed anew.
    constexpr double nanoseconds = 1e9;
    const double at = std::clamp(expiry, soonest, latest);
    const double whole = std::floor(at);
    const double rest = std::ceil((at - whole) * nanoseconds);
    itimerspec spec{};
    spec.it_value.tv_sec = static_cast<time_t>(rest < nanoseconds ? whole : whole + 1);
    spec.it_value.tv_nsec = rest < nanoseconds ? static_cast<long>(rest) : 0;
    require(timerfd_settime(timer_.number, TFD_TIMER_ABSTIME, &spec, nullptr) == 0,
            "timerfd_settime");
    timerExpiry_ = expiry;
}

// How long epoll_wait may take: 0 when there is work, -1 for ever. Arms the timer only for an
// earlier expiry than before: a timer that is postponed again and again costs no system call, but
// ends a wait early, once, at the expiry that it had first.
int EventLoop::waitMilliseconds(double deadline) {
    if (deadline == 0 || hasWork()) {
        return 0;
    }
    if (const double next = clock_.nextExpiry(); next < timerExpiry_) {
        if (next <= clock_.now()) {
            return 0;
        }
        armTimer(next);
    }
    if (deadline == Clock::idle) {
        return -1;
    }
    const double seconds = deadline - clock_.now();
    return static_cast<int>(std::clamp<double>(std::ceil(seconds * 1000), 0, INT_MAX));
}

void EventLoop::wait(double timeoutSeconds) {
    const bool isFinite = timeoutSeconds > 0 && timeoutSeconds < Clock::idle;
    const double deadline = isFinite ? clock_.now() + timeoutSeconds : std::max(0., timeoutSeconds);
    bool isOver = false;
    while (!isOver) {
        const int count = epoll_wait(epoll_.number, events_.data(),
                                     static_cast<int>(events_.size()), waitMilliseconds(deadline));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        isOver = takeEvents(checked(count, "epoll_wait")) || clock_.nextExpiry() <= clock_.now();
    }
}

// False when all there was is the timer, which may have been armed for an expiry of the past.
bool EventLoop::takeEvents(int count) {
    bool timerOnly = count == 1;
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events_[static_cast<uint32_t>(i)];
        if (event.data.u64 == timerEvent) {
            timerExpiry_ = Clock::idle;
            continue;
        }
        timerOnly = false;
        if (event.data.u64 == wakeUpEvent) {
            continue;
        }
        const Registration& seen = registrations_[static_cast<uint32_t>(event.data.u64)];
        if (seen.descriptor == nullptr || seen.generation != event.data.u64 >> 32) {
            continue;  // The registration has ended; another one of the number may live.
        }
        seen.descriptor->readinessSeen((event.events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0,
                                       (event.events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0);
    }
    return !timerOnly;
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
    workCame();
}

void EventLoop::unqueue(FileDescriptor::Report* report) {
    if (!report->queued) {
        return;
    }
    report->queued = false;
    (report->previous != nullptr ? report->previous->next : firstReport_) = report->next;
    (report->next != nullptr ? report->next->previous : lastReport_) = report->previous;
}

int EventLoop::updateKernel(FileDescriptor* descriptor, int operation, uint32_t generation) {
    epoll_event event{};
    event.events = descriptor->epollEvents();
    event.data.u64 = uint64_t{generation} << 32 | static_cast<uint32_t>(descriptor->descriptor());
    return epoll_ctl(epoll_.number, operation, descriptor->descriptor(), &event);
}

void EventLoop::watch(FileDescriptor* descriptor) {
    const int number = descriptor->descriptor();
    if (descriptor->loop_ != nullptr) {
        const uint32_t generation = registrations_[static_cast<uint32_t>(number)].generation;
        checked(updateKernel(descriptor, EPOLL_CTL_MOD, generation), "epoll_ctl");
        return;
    }
    const auto index =
        static_cast<uint32_t>(std::max(number, 0));  // -1 is for the kernel to refuse.
    if (index >= registrations_.size()) {
        registrations_.resize(index + 1);
    }
    events_.resize(std::max(events_.size(), watched_ + 1 + ownEvents));
    const uint32_t generation = registrations_[index].generation + 1;
    checked(updateKernel(descriptor, EPOLL_CTL_ADD, generation), "epoll_ctl");
    if (FileDescriptor* displaced = registrations_[index].descriptor) {
        // The kernel adds a number twice only if it was closed in between and given out again: from
        // here on it belongs to the new object alone.
        forget(displaced);
        displaced->descriptor_ = -1;
        displaced->notifyOnReadable_ = false;
        displaced->notifyOnWritable_ = false;
    }
    registrations_[index] = {descriptor, generation};
    ++watched_;
    descriptor->loop_ = this;
}

// Never fails: what the kernel refuses here is a number that was closed early, whose registration
// has ended with it.
void EventLoop::interestLost(FileDescriptor* descriptor) {
    if (!descriptor->notifyOnReadable_) {
        unqueue(&descriptor->readReport_);
    }
    if (!descriptor->notifyOnWritable_) {
        unqueue(&descriptor->writeReport_);
    }
    if (descriptor->notifyOnReadable_ || descriptor->notifyOnWritable_) {
        const auto index = static_cast<uint32_t>(descriptor->descriptor());
        (void)updateKernel(descriptor, EPOLL_CTL_MOD, registrations_[index].generation);
        return;
    }
    (void)epoll_ctl(epoll_.number, EPOLL_CTL_DEL, descriptor->descriptor(), nullptr);
    forget(descriptor);
}

void EventLoop::forget(FileDescriptor* descriptor) {
    unqueue(&descriptor->readReport_);
    unqueue(&descriptor->writeReport_);
    registrations_[static_cast<uint32_t>(descriptor->descriptor())].descriptor = nullptr;
    --watched_;
    descriptor->loop_ = nullptr;
}

}  // namespace Mox
