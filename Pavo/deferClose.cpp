#include "Pavo/deferClose.h"

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <signal.h>
#include <unistd.h>

#include "Mox/Trace.h"
#include "netns/netns.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::deferClose");

// A ring with one producer and one consumer. The producer writes a slot, then `queued`, then posts;
// the consumer waits, reads the slot, then writes `closedByThread`, by which the slot is free
// again.
constexpr uint32_t maxQueued = 512;
static_assert((maxQueued & (maxQueued - 1)) == 0, "the counters wrap at a power of two");

// All of static storage and never destroyed: the thread is still there when the process ends.
constinit int queue[maxQueued] = {};
constinit DeferCloseStats stats;
constinit sem_t waiting = {};
constinit bool closerStarted = false;

void* closer(void*) {
    // The thread was born in its creator's namespace, which it would keep alive for ever. Where
    // this fails for want of privilege, nobody could have switched.
    (void)setnsByName(DEFAULT_NS, CLONE_NEWNET);
    for (;;) {
        if (sem_wait(&waiting) != 0) {
            continue;  // EINTR: a debugger, or a stop and a continue.
        }
        const uint32_t closed = stats.closedByThread.load(std::memory_order_relaxed);
        (void)close(queue[closed % maxQueued]);
        stats.closedByThread.store(closed + 1, std::memory_order_release);
    }
}

// All signals but those that the thread's own faults would raise.
sigset_t closerSignalMask() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE}) {
        sigdelset(&blocked, fault);
    }
    return blocked;
}

// Returns whether the thread runs.
bool startCloser() {
    const Mox::ErrnoKeeper errnoKeeper;
    (void)sem_init(&waiting, /*pshared=*/0, /*value=*/0);
    // The thread inherits the mask: set there, it would leave a moment in which a signal gets in.
    const sigset_t blocked = closerSignalMask();
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, &blocked, &before);
    pthread_t thread;  // Never joined.
    const int error = pthread_create(&thread, nullptr, closer, nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0) {
        MOX_TRACE(facility, 0, "no closer thread, error ", error);
        return false;
    }
    (void)pthread_setname_np(thread, "deferClose");
    return true;
}

int closeAtOnce(int fd) {
    stats.closedAtOnce.fetch_add(1, std::memory_order_relaxed);
    return close(fd);
}

}  // namespace

int deferClose(int fd) {
    closerStarted = closerStarted || startCloser();
    const uint32_t queued = stats.queued.load(std::memory_order_relaxed);
    const uint32_t closed = stats.closedByThread.load(std::memory_order_acquire);
    if (!closerStarted || queued - closed == maxQueued) {
        return closeAtOnce(fd);
    }
    queue[queued % maxQueued] = fd;
    stats.queued.store(queued + 1, std::memory_order_release);
    return sem_post(&waiting);
}

const DeferCloseStats* deferCloseStats() {
    return &stats;
}

}  // namespace Pavo
