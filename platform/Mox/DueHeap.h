/// @file
/// The order in which timers are called.
#pragma once

#include <cstdint>
#include <vector>

#include "Mox/Export.h"

namespace Mox {

/// The place of an armed timer in the order of calls: by the time at which it is due, in seconds,
/// and among equal times in the order of arming.
struct Due {
    /// The index of a timer that is in no heap.
    static constexpr uint32_t notInHeap = UINT32_MAX;

    /// The time at which it is due, on the clock.
    double seconds = 0;
    /// Greater for a timer that was armed later.
    uint64_t armedAs = 0;
    /// The place in the heap, which the heap sets.
    uint32_t index = notInHeap;

    /// Called before `other`.
    bool isBefore(const Due& other) const {
        return seconds != other.seconds ? seconds < other.seconds : armedAs < other.armedAs;
    }
};

/// A binary heap of timers, with the one that is called next at its top. It owns none of them.
class MOX_EXPORT DueHeap {
  public:
    /// The timer that is called next; null when the heap is empty.
    Due* first() const { return heap_.empty() ? nullptr : heap_.front(); }
    /// The earliest time after `seconds` at which a timer is due; +infinity when there is none.
    /// Takes a look at every timer when the first one is due at `seconds` or before.
    double firstAfter(double seconds) const;
    /// @pre `due` is in no heap; it stays where it is in memory until it is removed.
    void push(Due* due);
    /// Takes a timer out; without effect on one that is not in the heap.
    void remove(Due* due);

  private:
    void place(uint32_t index, Due* due);
    void siftUp(uint32_t index);
    void siftDown(uint32_t index);

    std::vector<Due*> heap_;
};

}  // namespace Mox
