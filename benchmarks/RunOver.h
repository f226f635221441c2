/// @file
/// What the benchmarks of values share.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>

/// Calls `work(i)` for each sample in turn, over and over; counts an item a call.
template <class Work>
void runOver(uint32_t samples, benchmark::State& state, Work work) {
    uint32_t i = 0;
    for (auto _ : state) {
        work(i);
        i = i + 1 == samples ? 0 : i + 1;
    }
    state.SetItemsProcessed(state.iterations());
}
