#include "Pavo/kernel/RouteIndex.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Pavo {

namespace {

uint64_t mixed(uint64_t number) {
    number *= 0x9e3779b97f4a7c15;
    return number ^ (number >> 29);
}

// Addresses as they lie in memory: the table is of this process alone.
template <class Address>
uint32_t hashOf(const RouteRecord<Address>& record) {
    uint64_t hash = uint64_t{record.table} << 32 ^ record.metric ^ uint64_t { record.len } << 24 ^
                    uint64_t { record.tos } << 16;
    uint32_t words[sizeof(Address) / 4];
    std::memcpy(words, &record.prefix, sizeof(words));
    for (const uint32_t word : words) {
        hash = mixed(hash ^ word);
    }
    return static_cast<uint32_t>(hash ^ hash >> 32);
}

}  // namespace

template <class Address>
uint64_t RouteIndex<Address>::memoryBytes() const {
    uint64_t bytes = chunks_.size() * (sizeof(chunks_[0]) + chunkRecords * sizeof(Record)) +
                     slots_.capacity() * sizeof(uint32_t) +
                     lists_.capacity() * sizeof(std::vector<RouteHop>) + sizeof(*this);
    for (const auto& each : lists_) {
        bytes += each.capacity() * sizeof(RouteHop);
    }
    return bytes;
}

template <class Address>
const std::vector<RouteHop>& RouteIndex<Address>::severalOf(const Record& record) const {
    static const std::vector<RouteHop> no;
    return (record.flags & Record::several) != 0 ? lists_[record.ifIndex] : no;
}

template <class Address>
bool RouteIndex<Address>::isSame(const Record& record, const std::vector<RouteHop>& several,
                                 const Read& route) {
    constexpr uint8_t hopFlags = Record::onLink | Record::several;
    if (!record.isLike(route.record) || ((record.flags ^ route.record.flags) & hopFlags) != 0) {
        return false;
    }
    return (record.flags & Record::several) != 0
               ? several == route.hops
               : record.ifIndex == route.record.ifIndex && record.gateway == route.record.gateway;
}

// The slot of the key, or the free one where it belongs.
template <class Address>
uint32_t RouteIndex<Address>::slotOf(const Record& key) const {
    const auto mask = static_cast<uint32_t>(slots_.size() - 1);
    uint32_t slot = hashOf(key) & mask;
    while (slots_[slot] != none && !at(slots_[slot]).hasKeyOf(key)) {
        slot = (slot + 1) & mask;
    }
    return slot;
}

template <class Address>
uint32_t RouteIndex<Address>::headOf(const Record& key) const {
    return slots_.empty() ? none : slots_[slotOf(key)];
}

// The keys after it move up where the search for them passes the free slot.
template <class Address>
void RouteIndex<Address>::slotDel(uint32_t slot) {
    const auto mask = static_cast<uint32_t>(slots_.size() - 1);
    for (uint32_t each = (slot + 1) & mask; slots_[each] != none; each = (each + 1) & mask) {
        const uint32_t home = hashOf(at(slots_[each])) & mask;
        if (((each - home) & mask) >= ((each - slot) & mask)) {
            slots_[slot] = slots_[each];
            slot = each;
        }
    }
    slots_[slot] = none;
    --keys_;
}

template <class Address>
void RouteIndex<Address>::grow() {
    std::vector<uint32_t> slots(std::max<std::size_t>(64, 2 * slots_.size()), none);
    slots.swap(slots_);
    const auto mask = static_cast<uint32_t>(slots_.size() - 1);
    for (const uint32_t head : slots) {
        if (head == none) {
            continue;
        }
        uint32_t slot = hashOf(at(head)) & mask;
        while (slots_[slot] != none) {
            slot = (slot + 1) & mask;
        }
        slots_[slot] = head;
    }
}

// Allocates all that a route needs, before anything is changed. Returns the number of the list of
// its next hops, or `none`.
template <class Address>
uint32_t RouteIndex<Address>::reserve(const Read& route) {
    if (free_ == none && end_ >> chunkBits == chunks_.size()) {
        // Not zeroed: `fill` sets all of a record before it is read.
        chunks_.push_back(std::make_unique_for_overwrite<Record[]>(chunkRecords));
    }
    if ((route.record.flags & Record::several) == 0) {
        return none;
    }
    if (freeLists_.empty()) {
        if (freeLists_.capacity() <= lists_.size()) {  // All lists may become free.
            freeLists_.reserve(2 * lists_.size() + 1);
        }
        lists_.emplace_back();
        freeLists_.push_back(static_cast<uint32_t>(lists_.size() - 1));
    }
    const uint32_t list = freeLists_.back();
    lists_[list] = route.hops;
    freeLists_.pop_back();
    return list;
}

template <class Address>
uint32_t RouteIndex<Address>::newRecord() {
    ++members_;
    if (free_ != none) {
        const uint32_t index = free_;
        free_ = at(index).next;
        return index;
    }
    return end_++;
}

// Sets all but `next`.
template <class Address>
void RouteIndex<Address>::fill(uint32_t index, const Read& route, uint8_t generation,
                               uint32_t list) {
    Record& record = at(index);
    const uint32_t next = record.next;
    record = route.record;
    record.next = next;
    record.flags |= Record::used;
    record.generation = generation;
    record.ifIndex = list == none ? record.ifIndex : list;
    count(record, 1);
}

template <class Address>
void RouteIndex<Address>::empty(uint32_t index) {
    Record& record = at(index);
    count(record, ~0u);
    if ((record.flags & Record::several) != 0) {
        std::vector<RouteHop>().swap(lists_[record.ifIndex]);
        freeLists_.push_back(record.ifIndex);
    }
    record.flags = 0;
}

template <class Address>
void RouteIndex<Address>::count(const Record& record, uint32_t delta) {
    if ((record.flags & Record::several) == 0) {
        linkUses_[record.ifIndex % buckets] += delta;
    }
    for (const RouteHop& each : severalOf(record)) {
        linkUses_[each.ifIndex % buckets] += delta;
    }
    if (hasSourceOfUser(record)) {
        sourceUses_[bucketOf(record.source)] += delta;
    }
}

template <class Address>
uint32_t RouteIndex<Address>::insert(const Read& route, uint8_t generation, uint32_t after) {
    if (slots_.empty() || 4 * (uint64_t{keys_} + 1) > 3 * uint64_t{slots_.size()}) {
        grow();
    }
    const uint32_t list = reserve(route);
    const uint32_t index = newRecord();
    fill(index, route, generation, list);
    if (after != none) {
        at(index).next = std::exchange(at(after).next, index);
        return index;
    }
    uint32_t& head = slots_[slotOf(route.record)];
    keys_ += head == none ? 1 : 0;
    at(index).next = std::exchange(head, index);
    return index;
}

template <class Address>
void RouteIndex<Address>::remove(uint32_t index) {
    const uint32_t slot = slotOf(at(index));
    const uint32_t next = at(index).next;
    if (slots_[slot] != index) {
        uint32_t before = slots_[slot];
        while (at(before).next != index) {
            before = at(before).next;
        }
        at(before).next = next;
    } else if (next != none) {
        slots_[slot] = next;
    } else {
        slotDel(slot);
    }
    empty(index);
    at(index).next = free_;
    free_ = index;
    --members_;
}

template <class Address>
void RouteIndex<Address>::replace(uint32_t index, const Read& route, uint8_t generation) {
    const uint32_t list = reserve(route);
    empty(index);
    fill(index, route, generation, list);
}

template <class Address>
void RouteIndex<Address>::sourceDel(uint32_t index) {
    count(at(index), ~0u);
    at(index).source = Address();
    count(at(index), 1);
}

template class RouteIndex<IpAddr>;
template class RouteIndex<Ip6Addr>;

}  // namespace Pavo
