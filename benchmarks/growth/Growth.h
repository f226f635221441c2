/// @file
/// What a unit of work costs among many endpoints, and what an endpoint costs. A line of work is
/// measured with 1 to 10,000 endpoints, one of them busy ("one") or each of them in turn ("all").
/// The time is the thread's processor time for one unit; the memory that of an endpoint which has
/// been busy and is now at rest, without the kernel's.
#pragma once

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "Mox/EventLoop.h"
#include "ThreadTime.h"

namespace PavoBench {

inline double heapBytes() {
    const auto info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
}

inline void allowDescriptors() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

/// Turns until `done()`; ends the program where that does not come.
template <class Done>
void turnUntil(Mox::EventLoop& loop, Done done) {
    for (uint32_t turns = 0; !done(); ++turns) {
        if (turns == 100'000) {
            std::fputs("an event is lost\n", stderr);
            std::exit(1);
        }
        loop.turn(0);
    }
}

/// Endpoints of one kind. `work` does one unit on each of the first `busy` of them and returns the
/// seconds that it took.
class Endpoints {
  public:
    virtual ~Endpoints() = default;
    virtual double work(uint32_t busy) = 0;
    double bytesOfOne = 0;
};

using EndpointsFactory = std::function<std::unique_ptr<Endpoints>(uint32_t count)>;

/// Registers the line `name`.
inline void registerGrowth(const std::string& name, const EndpointsFactory& factory) {
    const auto measure = [factory](benchmark::State& state, uint32_t count, bool all) {
        allowDescriptors();
        const auto endpoints = factory(count);
        const uint32_t busy = all ? count : 1;
        for (auto _ : state) {
            state.SetIterationTime(endpoints->work(busy) / busy);
        }
        state.counters["bytes"] = endpoints->bytesOfOne;
    };
    for (const bool all : {false, true}) {
        for (const uint32_t count : {1u, 100u, 1000u, 10'000u}) {
            const auto line = "Growth" + name + (all ? "/all/" : "/one/") + std::to_string(count);
            benchmark::RegisterBenchmark(line.c_str(), measure, count, all)
                ->UseManualTime()
                ->Repetitions(3)
                ->Iterations(all ? 200'000 / static_cast<int>(std::max(count, 100u)) : 2000);
        }
    }
}

}  // namespace PavoBench
