/// @file
/// The event loop: one for each thread, on epoll(7).
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

#include "Mox/Clock.h"
#include "Mox/Export.h"
#include "Mox/FileDescriptor.h"

namespace Mox {

/// Reports the readiness of descriptors, fires timers, and makes deferred and posted calls, all on
/// the thread that made it. A thread has at most one; descriptors find the loop of their thread by
/// themselves.
///
/// A turn looks at the kernel once, then fires the timers that are due, makes the calls that were
/// deferred or posted before it, and reports every descriptor that is ready, each at most once. An
/// exception from any of these leaves the turn; the timers, calls and reports that were not reached
/// follow in the next turn.
class MOX_EXPORT EventLoop {
  public:
    /// @throws Mox::ErrnoException "epoll_create1", "eventfd", "timerfd_create" or "epoll_ctl". A
    /// second loop on one thread is refused with the assertion "!EventLoop::current()".
    EventLoop();
    /// Destroys the calls that are pending, without making them. Descriptors and timers may outlive
    /// the loop: interests are then off, without a notification, and timers idle. Not to be called
    /// from inside a turn: assertion "!inTurn_".
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    /// This thread's loop, or null.
    static EventLoop* current();

    /// The loop's own clock: the machine's monotonic one.
    Clock* clock() { return &clock_; }

    /// Does one turn, and waits at most `timeoutSeconds` for something to do, rounded up to whole
    /// milliseconds; 0 does not wait, and +infinity waits for ever. A timer ends the wait at its
    /// expiry, which is not rounded. Returns how many reports, timers and calls there were; 0 is
    /// also possible before the time is over. Not to be called from inside a turn: assertion
    /// "!inTurn_".
    /// @throws Mox::ErrnoException "epoll_wait".
    uint32_t turn(double timeoutSeconds = Clock::idle);
    /// Makes turns until `stop`.
    void run();
    /// Ends `run` after the turn under way, or at once the next `run`, and ends the wait of a turn.
    /// May be called from a signal handler.
    void stop();

    /// Calls `call` once in the next turn, not in the one under way.
    void defer(std::function<void()> call);
    /// The same for any thread, and the only function of this class that other threads may call;
    /// not for signal handlers. Calls are made in the order in which they were posted. The loop
    /// must not end before `post` returns; a call that is then still pending is destroyed by the
    /// thread of the loop.
    void post(std::function<void()> call);

    /// For nesting in another loop: readable as soon as there is work, a timer that is due or a
    /// deferred call included. The other loop then calls `turn(0)`, by level once, by edge until
    /// it is no longer readable. The descriptor stays the loop's own; only epoll(7), poll(2) and
    /// select(2) are for the caller.
    int fd();

  private:
    friend class FileDescriptor;

    // The registration of a descriptor. Events carry its number and its generation, so that those
    // of an earlier registration of the number are recognized.
    struct Registration {
        FileDescriptor* descriptor = nullptr;
        uint32_t generation = 0;
    };
    struct OwnedNumber {
        ~OwnedNumber();
        const int number;
    };
    struct OwnClock : MonotonicClock {
        explicit OwnClock(EventLoop* itsLoop) : loop(itsLoop) {}
        void handleNextExpiry() override { loop->workCame(); }

        EventLoop* const loop;
    };
    struct Turn;

    void watch(FileDescriptor* descriptor);
    void interestLost(FileDescriptor* descriptor);
    int updateKernel(FileDescriptor* descriptor, int operation, uint32_t generation);
    void forget(FileDescriptor* descriptor);
    void addToKernel(int number, uint32_t events, uint64_t data);

    void wait(double timeoutSeconds);
    int waitMilliseconds(double deadline);
    bool takeEvents(int count);
    bool hasWork() const;
    void wake();
    void armTimer(double expiry);
    void workCame();
    void showWork();
    void takePosted();
    uint32_t makeDeferredCalls(std::size_t count);
    uint32_t makeReports();
    void queue(FileDescriptor::Report* report);
    void unqueue(FileDescriptor::Report* report);

    OwnedNumber epoll_;
    OwnedNumber wakeUp_;  // An eventfd(2), so that no stop is lost between a look and the wait.
    OwnedNumber timer_;   // A timerfd(2): epoll_wait would be late by up to 0.1 % of the wait.
    OwnClock clock_{this};
    double timerExpiry_ = Clock::idle;  // The time for which `timer_` is armed.
    std::atomic<bool> stopped_ = false;
    bool inTurn_ = false;
    bool nested_ = false;
    uint32_t turn_ = 0;
    std::vector<Registration> registrations_;  // By descriptor number.
    std::size_t watched_ = 0;
    std::vector<epoll_event> events_;  // Room for those of the loop and one of each descriptor.
    std::deque<std::function<void()>> deferred_;
    FileDescriptor::Report* firstReport_ = nullptr;
    FileDescriptor::Report* lastReport_ = nullptr;

    std::mutex postMutex_;
    std::deque<std::function<void()>> posted_;  // Under the mutex.
    bool ended_ = false;                        // Under the mutex.
    std::atomic<bool> hasPosted_ = false;
};

}  // namespace Mox
