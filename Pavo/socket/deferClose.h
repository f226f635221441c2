/// @file
/// Closing descriptors on a thread of its own.
#pragma once

#include <atomic>
#include <cstdint>

#include "Pavo/base/Export.h"

namespace Pavo {

/// How many descriptors took which way. Any thread may read; the counters wrap. What is still
/// waiting to be closed is `queued - closedByThread`.
struct DeferCloseStats {
    std::atomic<uint32_t> queued = 0;          ///< Handed to the closer thread.
    std::atomic<uint32_t> closedByThread = 0;  ///< Closed by it, or refused by the kernel.
    std::atomic<uint32_t> closedAtOnce =
        0;  ///< Closed by the caller, for want of a free slot or of the thread.
};
static_assert(sizeof(DeferCloseStats) == 12 && std::atomic<uint32_t>::is_always_lock_free);

/// Closes `fd` soon, without making the caller wait: the close of a socket with data still to send
/// can block in the kernel. Descriptors are closed in the order in which they came, by one thread
/// that the first call starts; up to 512 may wait. What the kernel answers there is ignored.
///
/// Returns 0; or, where 512 are waiting, or no thread could be started, closes `fd` at once and
/// returns what close(2) returned, with its `errno`.
///
/// To be called from one thread only, the one that runs the event loop. The closer thread runs in
/// the network namespace in which the process started, so that it keeps no other one alive, and
/// takes no signals. A child of fork(2) does not inherit it and is not to call this.
PAVO_EXPORT int deferClose(int fd);

/// The counters of the process.
PAVO_EXPORT const DeferCloseStats* deferCloseStats();

}  // namespace Pavo
