#include "Pavo/socket/deferClose.h"

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include "Mox/Trace.h"
#include "Pavo/socket/ServiceThread.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::deferClose");

// A ring with one producer and one consumer. The producer writes a slot, then `queued`, then posts;
// the consumer waits, reads the slot, closes, then writes `closedByThread`, which frees the slot.
constexpr uint32_t maxQueued = 512;
static_assert((maxQueued & (maxQueued - 1)) == 0, "the counters wrap at a power of two");

// Never destroyed, since the thread still runs when the process ends.
constinit int queue[maxQueued] = {};
constinit DeferCloseStats stats;
constinit sem_t waiting = {};
constinit bool closerStarted = false;

void closer(void*) {
    for (;;) {
        if (sem_wait(&waiting) != 0) {
            continue;  // EINTR, from a debugger or a stopped process that continues.
        }
        const uint32_t closed = stats.closedByThread.load(std::memory_order_relaxed);
        (void)close(queue[closed % maxQueued]);
        stats.closedByThread.store(closed + 1, std::memory_order_release);
        stats.closedByThread.notify_all();
    }
}

// In a child of fork(2), which has no thread.
void forgetCloser() {
    closerStarted = false;
    stats.closedByThread.store(stats.queued.load(std::memory_order_relaxed));
}

// Returns whether the thread was started.
bool startCloser() {
    const Mox::ErrnoKeeper errnoKeeper;
    static const int isForgotten = pthread_atfork(nullptr, nullptr, forgetCloser);
    if (isForgotten != 0) {
        MOX_TRACE(facility, 0, "no closer thread, error ", isForgotten);
        return false;
    }
    (void)sem_init(&waiting, /*pshared=*/0, /*value=*/0);
    pthread_t thread;
    const int error = startServiceThread(&thread, "deferClose", closer, nullptr);
    if (error != 0) {
        MOX_TRACE(facility, 0, "no closer thread, error ", error);
        return false;
    }
    (void)pthread_detach(thread);
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

void deferCloseWait() {
    const uint32_t queued = stats.queued.load(std::memory_order_relaxed);
    for (uint32_t closed = 0;
         (closed = stats.closedByThread.load(std::memory_order_acquire)) != queued;) {
        stats.closedByThread.wait(closed, std::memory_order_acquire);
    }
}

const DeferCloseStats* deferCloseStats() {
    return &stats;
}

}  // namespace Pavo
