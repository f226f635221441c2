/// @file
/// Threads that stand beside the event loop and do what may block.
#pragma once

#include <pthread.h>

#include "Pavo/base/Export.h"

namespace Pavo {

/// Starts a thread called `name` (at most 15 bytes) that runs `run(argument)`. It takes no signals,
/// so that those of the process go on reaching the threads that wait for them, and it runs in the
/// network namespace in which the process started, so that it keeps no other one alive.
///
/// Returns 0, or what pthread_create(3) returned; `errno` stays as it was. The caller joins or
/// detaches the thread.
PAVO_EXPORT int startServiceThread(pthread_t* thread, const char* name, void (*run)(void*),
                                   void* argument);

}  // namespace Pavo
