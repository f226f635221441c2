/// @file
/// The event loop: one a thread, on epoll(7).
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "Mox/Clock.h"
#include "Mox/Export.h"
#include "Mox/FileDescriptor.h"

namespace Mox {

/// Reports the readiness of descriptors, fires timers and makes deferred calls, all on the thread
/// that made it. At most one lives on a thread; it finds the descriptors of its thread by itself.
///
/// A turn looks at the kernel once, then fires the timers that are due, makes the calls that were
/// deferred before it, and reports every descriptor that is ready, each at most once. An exception
/// from any of these leaves the turn; what was not reached is done in the next one.
class MOX_EXPORT EventLoop {
  public:
    /// @throws Mox::ErrnoException "epoll_create1". A second loop on one thread is refused with the
    /// assertion "!EventLoop::current()".
    EventLoop();
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    /// This thread's loop, or null.
    static EventLoop* current();

    /// The loop's own clock: the machine's monotonic one.
    Clock* clock() { return &clock_; }

    /// Does one turn, waiting at most `timeoutSeconds` for something to do; 0 does not wait, and
    /// +infinity waits for ever. Returns how many reports, timers and deferred calls there were.
    /// Not to be called from inside a turn: assertion "!inTurn_".
    /// @throws Mox::ErrnoException "epoll_wait".
    uint32_t turn(double timeoutSeconds = Clock::idle);
    /// Turns until `stop`.
    void run();
    /// Ends `run` after the turn under way, or at once the next `run`, and ends a turn's waiting.
    /// May be called from a signal handler.
    void stop();

    /// Calls `call` once in the next turn, not in the one under way.
    void defer(std::function<void()> call) { deferred_.push_back(std::move(call)); }

    /// For nesting in another loop: readable when the kernel has something to report. Beside it the
    /// other loop waits no longer than `secondsToWork()`, and then calls `turn(0)`.
    int fd() const { return epoll_.number; }
    /// Seconds until there is work that the kernel does not know of; 0 when there is some now.
    double secondsToWork() const;

  private:
    friend class FileDescriptor;

    struct Slot {
        FileDescriptor* descriptor = nullptr;
        uint32_t generation = 0;
    };
    struct OwnedNumber {
        ~OwnedNumber();
        const int number;
    };

    void watch(FileDescriptor* descriptor);
    void unwatch(FileDescriptor* descriptor);
    void poll(double timeoutSeconds);
    void forgetWakeUp();
    uint32_t makeDeferredCalls(std::size_t count);
    uint32_t makeReports();
    void queue(FileDescriptor::Report* report);
    void unqueue(FileDescriptor::Report* report);

    OwnedNumber epoll_;
    OwnedNumber wakeUp_;  // An eventfd(2), so that no stop is lost on the way into the wait.
    MonotonicClock clock_;
    std::atomic<bool> stopped_ = false;
    bool inTurn_ = false;
    uint32_t turn_ = 0;
    std::vector<Slot> slots_;
    std::vector<uint32_t> freeSlots_;
    std::vector<epoll_event> events_;  // Room for the wake-up and one of each slot.
    std::deque<std::function<void()>> deferred_;
    FileDescriptor::Report* firstReport_ = nullptr;
    FileDescriptor::Report* lastReport_ = nullptr;
};

}  // namespace Mox
