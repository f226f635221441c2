#include "Mox/DueQueue.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Mox {

namespace {

constexpr uint32_t children = 4;
constexpr std::size_t leastRoom = 16;

}  // namespace

double DueQueue::firstAfter(double seconds) const {
    double earliest = std::numeric_limits<double>::infinity();
    const auto end = run_.begin() + end_;
    auto later =
        std::upper_bound(run_.begin() + head_, end, seconds,
                         [](double time, const Entry& each) { return time < each.seconds; });
    later = std::find_if(later, end, [](const Entry& each) { return each.due != nullptr; });
    if (later != end) {
        earliest = later->seconds;
    }
    for (const Entry& each : heap_) {
        if (each.seconds > seconds) {
            earliest = std::min(earliest, each.seconds);
            if (&each == &heap_.front()) {
                break;  // No other one is due before it.
            }
        }
    }
    return earliest;
}

void DueQueue::insert(Due* due) {
    const Entry entry{due->seconds, due};
    if (end_ != 0 && entry.isBefore(run_[end_ - 1])) {
        heap_.push_back(entry);
        siftUp(static_cast<uint32_t>(heap_.size()) - 1, entry);
        return;
    }
    if (end_ == run_.size()) {
        makeRoomInRun();
    }
    append(due);
}

void DueQueue::move(Due* due, const Due& place) {
    const uint32_t index = due->index;
    const bool inHeap = (index & inRun) == 0;  // False for one that is in no queue.
    const bool staysInHeap = inHeap && end_ != 0 && place.seconds < run_[end_ - 1].seconds;
    if (!staysInHeap) {
        remove(due);
    }
    due->seconds = place.seconds;
    due->armedAs = place.armedAs;
    if (staysInHeap) {
        sift(index, {due->seconds, due});
    } else {
        push(due);
    }
}

void DueQueue::take(Due* due) {
    const uint32_t index = std::exchange(due->index, Due::notQueued);
    if ((index & inRun) != 0) {
        removeFromRun(index & ~inRun);
    } else {
        removeFromHeap(index);
    }
}

void DueQueue::removeFromRun(uint32_t index) {
    run_[index].due = nullptr;
    while (head_ < end_ && run_[head_].due == nullptr) {
        ++head_;
    }
    if (head_ == end_) {
        head_ = 0;
        end_ = 0;
        return;
    }
    while (run_[end_ - 1].due == nullptr) {
        --end_;
    }
}

// Takes out the entries of timers that were removed. More memory only where half of it is in use
// after that, so that timers that are armed and cancelled for ever need no more of it.
void DueQueue::makeRoomInRun() {
    uint32_t count = 0;
    for (uint32_t i = head_; i < end_; ++i) {
        const Entry each = run_[i];
        if (each.due == nullptr) {
            continue;
        }
        if (i != count) {
            each.due->index = inRun | count;
            run_[count] = each;
        }
        ++count;
    }
    head_ = 0;
    end_ = count;
    if (2 * std::size_t{count} >= run_.size()) {
        run_.resize(std::max(2 * run_.size(), leastRoom));
    }
}

void DueQueue::removeFromHeap(uint32_t index) {
    const Entry last = heap_.back();
    heap_.pop_back();
    if (index != heap_.size()) {
        sift(index, last);
    }
}

void DueQueue::place(uint32_t index, Entry entry) {
    heap_[index] = entry;
    entry.due->index = index;
}

void DueQueue::sift(uint32_t index, Entry moving) {
    if (index > 0 && moving.isBefore(heap_[(index - 1) / children])) {
        siftUp(index, moving);
    } else {
        siftDown(index, moving);
    }
}

void DueQueue::siftUp(uint32_t index, Entry moving) {
    while (index > 0 && moving.isBefore(heap_[(index - 1) / children])) {
        place(index, heap_[(index - 1) / children]);
        index = (index - 1) / children;
    }
    place(index, moving);
}

void DueQueue::siftDown(uint32_t index, Entry moving) {
    const auto count = static_cast<uint32_t>(heap_.size());
    for (uint32_t first = children * index + 1; first < count; first = children * index + 1) {
        uint32_t least = first;
        for (uint32_t child = first + 1; child < std::min(first + children, count); ++child) {
            if (heap_[child].isBefore(heap_[least])) {
                least = child;
            }
        }
        if (!heap_[least].isBefore(moving)) {
            break;
        }
        place(index, heap_[least]);
        index = least;
    }
    place(index, moving);
}

}  // namespace Mox
