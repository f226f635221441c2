/// @file
/// The clock of benchmarks that time parts of a round.
#pragma once

#include <time.h>

namespace PavoBench {

/// Processor time of this thread, so that other programs do not count.
inline double threadSeconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

}  // namespace PavoBench
