#include "Mox/DueHeap.h"

#include <algorithm>
#include <limits>

namespace Mox {

double DueHeap::firstAfter(double seconds) const {
    constexpr double never = std::numeric_limits<double>::infinity();
    if (heap_.empty() || heap_.front()->seconds > seconds) {
        return heap_.empty() ? never : heap_.front()->seconds;
    }
    double earliest = never;
    for (const Due* each : heap_) {
        if (each->seconds > seconds) {
            earliest = std::min(earliest, each->seconds);
        }
    }
    return earliest;
}

void DueHeap::push(Due* due) {
    heap_.push_back(due);
    siftUp(static_cast<uint32_t>(heap_.size()) - 1);
}

void DueHeap::remove(Due* due) {
    if (due->index == Due::notInHeap) {
        return;
    }
    const uint32_t index = due->index;
    Due* last = heap_.back();
    heap_.pop_back();
    due->index = Due::notInHeap;
    if (last != due) {
        place(index, last);
        siftUp(index);
        siftDown(last->index);
    }
}

void DueHeap::place(uint32_t index, Due* due) {
    heap_[index] = due;
    due->index = index;
}

void DueHeap::siftUp(uint32_t index) {
    Due* moving = heap_[index];
    while (index > 0 && moving->isBefore(*heap_[(index - 1) / 2])) {
        place(index, heap_[(index - 1) / 2]);
        index = (index - 1) / 2;
    }
    place(index, moving);
}

void DueHeap::siftDown(uint32_t index) {
    const auto count = static_cast<uint32_t>(heap_.size());
    Due* moving = heap_[index];
    for (uint32_t child = 2 * index + 1; child < count; child = 2 * index + 1) {
        if (child + 1 < count && heap_[child + 1]->isBefore(*heap_[child])) {
            ++child;
        }
        if (!heap_[child]->isBefore(*moving)) {
            break;
        }
        place(index, heap_[child]);
        index = child;
    }
    place(index, moving);
}

}  // namespace Mox
