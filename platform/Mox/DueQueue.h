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
    /// The index of a timer that is in no queue.
    static constexpr uint32_t notQueued = UINT32_MAX;

    /// The time at which it is due, on the clock.
    double seconds = 0;
    /// Greater for a timer that was armed later.
    uint64_t armedAs = 0;
    /// The place in the queue, which the queue sets.
    uint32_t index = notQueued;

    /// Called before `other`.
    bool isBefore(const Due& other) const {
        return seconds != other.seconds ? seconds < other.seconds : armedAs < other.armedAs;
    }
};

/// A queue of timers, with the one that is called next at its head. It owns none of them.
///
/// Timers are mostly armed in the order in which they become due, since the same interval is used
/// again and again. Such a timer goes to the end of a sorted run, which takes the same short time
/// however many there are; every other one goes into a heap.
class MOX_EXPORT DueQueue {
  public:
    /// The timer that is called next; null when the queue is empty.
    Due* first() const {
        if (heap_.empty() || (end_ != 0 && run_[head_].isBefore(heap_.front()))) {
            return end_ == 0 ? nullptr : run_[head_].due;
        }
        return heap_.front().due;
    }
    /// The earliest time after `seconds` at which a timer is due; +infinity when there is none.
    /// Takes a look at every timer of the heap when its first one is due at `seconds` or before.
    double firstAfter(double seconds) const;
    /// @pre `due` is in no queue; it stays where it is in memory, and as it is, until it is
    /// removed.
    void push(Due* due) {
        if (end_ != 0 && end_ != run_.size() && run_[end_ - 1].seconds < due->seconds) {
            append(due);
        } else {
            insert(due);
        }
    }
    /// Gives a timer the time and order of `place`, with fewer steps than `remove` and `push`. When
    /// memory runs out, the timer is in no queue.
    void move(Due* due, const Due& place);
    /// Takes a timer out; without effect on one that is not in the queue.
    void remove(Due* due) {
        if (due->index != Due::notQueued) {
            take(due);
        }
    }

  private:
    // The time is here too, so that most comparisons do not touch the timer.
    struct Entry {
        double seconds;
        Due* due;  // In the run, null for a timer that was removed.

        bool isBefore(const Entry& other) const {
            return seconds != other.seconds ? seconds < other.seconds
                                            : due->armedAs < other.due->armedAs;
        }
    };

    // Marks an index as one of the run.
    static constexpr uint32_t inRun = 1u << 31;

    void append(Due* due) {
        due->index = inRun | end_;
        run_[end_++] = {due->seconds, due};
    }
    void insert(Due* due);  // As `push`, where the end of the run is not the place or is full.
    void take(Due* due);
    void removeFromRun(uint32_t index);
    void makeRoomInRun();
    void removeFromHeap(uint32_t index);
    void place(uint32_t index, Entry entry);
    void sift(uint32_t index, Entry moving);
    void siftUp(uint32_t index, Entry moving);
    void siftDown(uint32_t index, Entry moving);

    // The run: the entries from the head up to the end, of which the first and the last one are
    // timers; at 0 both when it is empty.
    std::vector<Entry> run_;
    uint32_t head_ = 0;
    uint32_t end_ = 0;
    std::vector<Entry> heap_;  // With four children each.
};

}  // namespace Mox
