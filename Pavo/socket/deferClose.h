/// @file
/// Closing descriptors on a thread of its own.
#pragma once

#include <atomic>
#include <cstdint>

#include "Pavo/base/Export.h"

namespace Pavo {

/// Counts descriptors by the way in which they were closed. Any thread may read; the counters wrap.
/// `queued - closedByThread` descriptors are waiting.
struct DeferCloseStats {
    std::atomic<uint32_t> queued = 0;          ///< Passed to the closer thread.
    std::atomic<uint32_t> closedByThread = 0;  ///< Closed by it, also when close(2) failed.
    std::atomic<uint32_t> closedAtOnce = 0;  ///< Closed by the caller: no free slot, or no thread.
};
static_assert(sizeof(DeferCloseStats) == 12 && std::atomic<uint32_t>::is_always_lock_free);

/// Closes `fd` soon, without making the caller wait: the close of a socket with unsent data can
/// block in the kernel. The first call starts a thread, which closes descriptors in the order of
/// the calls and ignores errors of close(2); up to 512 may wait.
///
/// Returns 0. When 512 are waiting, or the thread could not be started, it closes `fd` at once and
/// returns the result of close(2), with its `errno`.
///
/// Call it only on the thread of the event loop. The closer thread runs in the network namespace in
/// which the process started, so that it keeps no other namespace alive, and blocks signals. A
/// child of fork(2) gets a thread of its own; its copies of descriptors that were waiting stay
/// open.
PAVO_EXPORT int deferClose(int fd);

/// Waits until every descriptor that was passed to the closer thread is closed, for callers that
/// need what an open one still occupies, such as the name of a tap device. It takes as long as
/// close(2) does. Call it only on the thread of the event loop.
PAVO_EXPORT void deferCloseWait();

/// The counters of the process.
PAVO_EXPORT const DeferCloseStats* deferCloseStats();

}  // namespace Pavo
