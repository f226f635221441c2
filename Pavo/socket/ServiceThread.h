/// @file
/// Threads beside the event loop, for work that may block.
#pragma once

#include <pthread.h>

#include "Pavo/base/Export.h"

namespace Pavo {

/// Starts a thread called `name` (at most 15 bytes) that runs `run(argument)`. It blocks all
/// signals except those of its own faults, so that signals of the process still reach the threads
/// that wait for them. It runs in the network namespace in which the process started, so that it
/// keeps no other namespace alive.
///
/// Returns 0, or the error number of pthread_create(3); `errno` is unchanged. The caller joins or
/// detaches the thread.
PAVO_EXPORT int startServiceThread(pthread_t* thread, const char* name, void (*run)(void*),
                                   void* argument);

}  // namespace Pavo
