#include "Pavo/kernel/RouteStore.h"

#include <linux/rtnetlink.h>

#include <algorithm>

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

template <class Address>
uint32_t bucketOf(const Address& source) {
    uint8_t bytes[sizeof(Address)];
    source.copyToBuffer(bytes);
    return loadNet<uint16_t>(bytes + sizeof(bytes) - 2);
}

// A route whose source is the kernel's own doing is deleted with a message.
template <class Address>
bool isOfUser(const RouteRecord<Address>& record) {
    return record.source != Address() && record.protocol != RTPROT_KERNEL;
}

// A route that leads nowhere, which stays when its source goes.
bool isError(uint8_t type) {
    return type == RTN_BLACKHOLE || type == RTN_UNREACHABLE || type == RTN_PROHIBIT ||
           type == RTN_THROW;
}

bool hasGateway(const std::vector<RouteHop>& hops) {
    return !hops.empty() && hops.front().gateway.af() != ipunknown;
}

// Both in their order, as those of IPv6 are.
bool hasAll(const std::vector<RouteHop>& hops, const std::vector<RouteHop>& some) {
    return !some.empty() && std::all_of(some.begin(), some.end(), [&](const RouteHop& each) {
        return std::any_of(hops.begin(), hops.end(), [&](const RouteHop& hop) {
            return hop.ifIndex == each.ifIndex && hop.gateway == each.gateway;
        });
    });
}

}  // namespace

template <class Address>
uint64_t RouteStore<Address>::memoryBytes() const {
    uint64_t bytes = chunks_.size() * (sizeof(chunks_[0]) + chunkRecords * sizeof(Record)) +
                     slots_.capacity() * sizeof(uint32_t) + lists_.capacity() * sizeof(lists_[0]) +
                     sizeof(*this);
    for (const auto& each : lists_) {
        bytes += each.capacity() * sizeof(RouteHop);
    }
    return bytes;
}

template <class Address>
const std::vector<RouteHop>& RouteStore<Address>::severalOf(const Record& record) const {
    static const std::vector<RouteHop> no;
    return (record.flags & Record::several) != 0 ? lists_[record.ifIndex] : no;
}

template <class Address>
bool RouteStore<Address>::hasWays(const Record& record, const Read& route) const {
    constexpr uint8_t ways = Record::onLink | Record::several;
    if (((record.flags ^ route.record.flags) & ways) != 0) {
        return false;
    }
    return (record.flags & Record::several) != 0
               ? lists_[record.ifIndex] == route.hops
               : record.ifIndex == route.record.ifIndex && record.gateway == route.record.gateway;
}

template <class Address>
bool RouteStore<Address>::isSame(const Record& record, const Read& route) const {
    return record.isLike(route.record) && hasWays(record, route);
}

// The slot of the key, or the free one where it belongs.
template <class Address>
uint32_t RouteStore<Address>::slotOf(const Record& key) const {
    const auto mask = static_cast<uint32_t>(slots_.size() - 1);
    uint32_t slot = hashOf(key) & mask;
    while (slots_[slot] != none && !at(slots_[slot]).hasKeyOf(key)) {
        slot = (slot + 1) & mask;
    }
    return slot;
}

template <class Address>
bool RouteStore<Address>::find(const Read& route) const {
    uint32_t index = headOf(route.record);
    while (index != none && !has(index, route)) {
        index = at(index).next;
    }
    return index != none;
}

template <class Address>
uint32_t RouteStore<Address>::headOf(const Record& key) const {
    return slots_.empty() ? none : slots_[slotOf(key)];
}

// The keys after it move up where the search for them passes the free slot.
template <class Address>
void RouteStore<Address>::slotDel(uint32_t slot) {
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
void RouteStore<Address>::grow() {
    std::vector<uint32_t> heads;
    heads.swap(slots_);
    slots_.assign(std::max<std::size_t>(64, 2 * heads.size()), none);
    const auto mask = static_cast<uint32_t>(slots_.size() - 1);
    for (const uint32_t head : heads) {
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

template <class Address>
uint32_t RouteStore<Address>::newRecord() {
    ++members_;
    if (free_ != none) {
        const uint32_t index = free_;
        free_ = at(index).next;
        return index;
    }
    if (end_ >> chunkBits == chunks_.size()) {
        // Not zeroed: `fill` sets all of a record before it is read.
        chunks_.push_back(std::make_unique_for_overwrite<Record[]>(chunkRecords));
    }
    return end_++;
}

// Sets all but `next`.
template <class Address>
void RouteStore<Address>::fill(uint32_t index, const Read& route) {
    Record& record = at(index);
    const uint32_t next = record.next;
    record = route.record;
    record.next = next;
    record.flags |= Record::used;
    record.generation = generation_;
    if ((record.flags & Record::several) != 0) {
        if (freeLists_.empty()) {
            freeLists_.push_back(static_cast<uint32_t>(lists_.size()));
            lists_.emplace_back();
        }
        record.ifIndex = freeLists_.back();
        freeLists_.pop_back();
        lists_[record.ifIndex] = route.hops;
    }
    count(record, 1);
}

template <class Address>
void RouteStore<Address>::empty(uint32_t index) {
    Record& record = at(index);
    count(record, ~0u);
    if ((record.flags & Record::several) != 0) {
        std::vector<RouteHop>().swap(lists_[record.ifIndex]);
        freeLists_.push_back(record.ifIndex);
    }
    record.flags = 0;
}

template <class Address>
void RouteStore<Address>::count(const Record& record, uint32_t delta) {
    if ((record.flags & Record::several) == 0) {
        linkUses_[record.ifIndex % buckets] += delta;
    }
    for (const RouteHop& each : severalOf(record)) {
        linkUses_[each.ifIndex % buckets] += delta;
    }
    if (isOfUser(record)) {
        sourceUses_[bucketOf(record.source) % buckets] += delta;
    }
}

template <class Address>
uint32_t RouteStore<Address>::insert(const Read& route, bool atEnd) {
    if (slots_.empty() || 4 * (uint64_t{keys_} + 1) > 3 * uint64_t{slots_.size()}) {
        grow();
    }
    const uint32_t slot = slotOf(route.record);
    const uint32_t index = newRecord();
    fill(index, route);
    const uint32_t head = slots_[slot];
    keys_ += head == none ? 1 : 0;
    if (head == none || !atEnd) {
        at(index).next = head;
        slots_[slot] = index;
        return index;
    }
    uint32_t last = head;
    while (at(last).next != none) {
        last = at(last).next;
    }
    at(index).next = none;
    at(last).next = index;
    return index;
}

template <class Address>
void RouteStore<Address>::remove(uint32_t index) {
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
void RouteStore<Address>::replace(uint32_t index, const Read& route) {
    empty(index);
    fill(index, route);
}

// The record goes with its last next hop.
template <class Address>
void RouteStore<Address>::withoutHops(uint32_t index,
                                      const std::function<bool(const RouteHop&)>& isGone) {
    std::vector<RouteHop> hops = hopsOf(at(index), severalOf(at(index)));
    std::erase_if(hops, isGone);
    if (hops.empty()) {
        remove(index);
        return;
    }
    Read left{at(index), {}};
    setHops(&left, hops);
    replace(index, left);
}

// Which of the routes of a key a message with NLM_F_REPLACE stands for, or `none`. The kernel takes
// the first; of IPv6 the first of those that have gateways, or have none, as the new one.
template <class Address>
uint32_t RouteStore<Address>::replacedBy(const Read& route, uint32_t head) const {
    if constexpr (Record::family == ipv6) {
        const bool wanted = hasGateway(hopsOf(route.record, route.hops));
        for (uint32_t index = head; index != none; index = at(index).next) {
            if (hasGateway(hopsOf(at(index), severalOf(at(index)))) == wanted) {
                return index;
            }
        }
    }
    return head;
}

// A next hop that is added to an IPv6 route is announced as the whole route: the one that it
// extends, or `none`.
template <class Address>
uint32_t RouteStore<Address>::extendedBy(const Read& route, uint32_t head) const {
    if (Record::family == ipv4 || (route.record.flags & Record::several) == 0) {
        return none;
    }
    for (uint32_t index = head; index != none; index = at(index).next) {
        if (at(index).isLike(route.record) &&
            hasAll(route.hops, hopsOf(at(index), severalOf(at(index))))) {
            return index;
        }
    }
    return none;
}

template <class Address>
void RouteStore<Address>::add(const Read& route, uint16_t flags, Changes* changes) {
    commitPart(route.record, changes);
    const uint32_t head = headOf(route.record);
    const uint32_t replaced =
        (flags & NLM_F_REPLACE) != 0 ? replacedBy(route, head) : extendedBy(route, head);
    for (uint32_t index = head; index != none; index = at(index).next) {
        if (has(index, route) && (replaced == none || replaced == index)) {
            at(index).generation = generation_;
            return;
        }
    }
    if (replaced != none) {
        replace(replaced, route);
    } else {
        insert(route, Record::family == ipv6 || (flags & NLM_F_APPEND) != 0);
    }
    note(route.record, changes);
}

template <class Address>
void RouteStore<Address>::del(const Read& route, Changes* changes) {
    isDisturbed_ = isDisturbed_ || Record::family == ipv6 ||
                   (!group_.empty() && group_[0].record.prefix == route.record.prefix);
    commitPart(route.record, changes);
    const uint32_t head = headOf(route.record);
    for (uint32_t index = head; index != none; index = at(index).next) {
        if (has(index, route)) {
            remove(index);
            note(route.record, changes);
            return;
        }
    }
    if constexpr (Record::family == ipv6) {
        const std::vector<RouteHop> gone = hopsOf(route.record, route.hops);
        for (uint32_t index = head; index != none; index = at(index).next) {
            if (hasAll(hopsOf(at(index), severalOf(at(index))), gone)) {
                withoutHops(index, [&](const RouteHop& hop) { return hasAll(gone, {hop}); });
                note(route.record, changes);
                return;
            }
        }
    }
}

template <class Address>
void RouteStore<Address>::dumpBegin() {
    grouped_ = 0;
    isPartial_ = false;
    isDisturbed_ = false;
    inDump_ = true;
    if (++generation_ == 0) {
        for (uint32_t index = 0; index < end_; ++index) {
            at(index).generation = 0;
        }
        generation_ = 1;
    }
}

template <class Address>
void RouteStore<Address>::dumpItem(const Read& route, Changes* changes) {
    if (!inDump_) {
        add(route, NLM_F_APPEND, changes);
        return;
    }
    if (grouped_ != 0 && !group_[0].record.hasKeyOf(route.record)) {
        commitGroup(changes);
    }
    if (grouped_ == group_.size()) {
        group_.emplace_back();
    }
    group_[grouped_++] = route;
}

template <class Address>
bool RouteStore<Address>::dumpEnd(Changes* changes) {
    commitGroup(changes);
    inDump_ = false;
    if (isDisturbed_) {
        return false;
    }
    for (uint32_t index = 0; index < end_; ++index) {
        if ((at(index).flags & Record::used) != 0 && at(index).generation != generation_) {
            note(at(index), changes);
            remove(index);
        }
    }
    return true;
}

// The usual case, one route of a key before and after, is here, without allocation.
template <class Address>
void RouteStore<Address>::commitGroup(Changes* changes) {
    if (grouped_ == 0) {
        return;
    }
    const Read& first = group_[0];
    const uint32_t head = headOf(first.record);
    if (grouped_ > 1 || isPartial_ || (head != none && at(head).next != none)) {
        commitChain(changes);
        return;
    }
    grouped_ = 0;
    if (head != none && has(head, first)) {
        at(head).generation = generation_;
        return;
    }
    if (head == none) {
        insert(first, true);
    } else {
        replace(head, first);
    }
    note(first.record, changes);
}

// Puts the routes of the group in the place of those of its key. When the group may be only a part
// of what the dump brings, the others stay: what does not come goes at the end of the dump.
template <class Address>
void RouteStore<Address>::commitChain(Changes* changes) {
    std::vector<Read> chain(group_.begin(), group_.begin() + grouped_);
    const Record key = chain[0].record;
    uint32_t before = 0;
    bool isChanged = false;
    for (const Read& each : chain) {
        isChanged = isChanged || !find(each);
    }
    for (uint32_t index = headOf(key); index != none; index = at(index).next, ++before) {
        if (isPartial_ && std::none_of(group_.begin(), group_.begin() + grouped_,
                                       [&](const Read& each) { return has(index, each); })) {
            chain.push_back({at(index), severalOf(at(index))});
        }
    }
    isChanged = isChanged || chain.size() != before;
    for (uint32_t index = headOf(key); index != none; index = headOf(key)) {
        remove(index);
    }
    for (std::size_t i = 0; i < chain.size(); ++i) {
        const uint32_t index = insert(chain[i], /*atEnd=*/true);
        at(index).generation = i < grouped_ ? generation_ : chain[i].record.generation;
    }
    grouped_ = 0;
    isPartial_ = false;
    if (isChanged) {
        note(key, changes);
    }
}

// A message about a key of which the dump may not have brought all.
template <class Address>
void RouteStore<Address>::commitPart(const Record& key, Changes* changes) {
    if (grouped_ != 0 && group_[0].record.hasKeyOf(key)) {
        isPartial_ = true;
        commitChain(changes);
        isPartial_ = true;
    }
}

template <class Address>
void RouteStore<Address>::linkDown(uint32_t ifIndex, const IsUp& isUp, Changes* changes) {
    for (uint32_t index = 0; linkUses_[ifIndex % buckets] != 0 && index < end_; ++index) {
        const Record& record = at(index);
        if ((record.flags & Record::used) == 0 ||
            (Record::family == ipv4 && record.scope == RT_SCOPE_HOST)) {
            continue;
        }
        const std::vector<RouteHop>& hops = severalOf(record);
        const bool isGone =
            hops.empty()
                ? record.ifIndex == ifIndex
                : std::any_of(hops.begin(), hops.end(),
                              [&](const RouteHop& hop) { return hop.ifIndex == ifIndex; }) &&
                      std::none_of(hops.begin(), hops.end(), [&](const RouteHop& hop) {
                          return hop.ifIndex != ifIndex && isUp(hop.ifIndex);
                      });
        if (isGone) {
            note(record, changes);
            remove(index);
        }
    }
}

template <class Address>
void RouteStore<Address>::linkGone(uint32_t ifIndex, Changes* changes) {
    const auto isOn = [&](const RouteHop& hop) { return hop.ifIndex == ifIndex; };
    for (uint32_t index = 0; linkUses_[ifIndex % buckets] != 0 && index < end_; ++index) {
        const Record& record = at(index);
        const std::vector<RouteHop>& hops = severalOf(record);
        if ((record.flags & Record::used) == 0 ||
            (hops.empty() ? record.ifIndex != ifIndex
                          : std::none_of(hops.begin(), hops.end(), isOn))) {
            continue;
        }
        note(record, changes);
        if (Record::family == ipv6 && !hops.empty()) {
            withoutHops(index, isOn);
        } else {
            remove(index);
        }
    }
}

// An IPv4 route goes with its source; an IPv6 route goes on without it.
template <class Address>
void RouteStore<Address>::addressGone(const Address& address, uint32_t ifIndex, uint32_t table,
                                      Changes* changes) {
    const uint32_t bucket = bucketOf(address) % buckets;
    for (uint32_t index = 0; sourceUses_[bucket] != 0 && index < end_; ++index) {
        Record& record = at(index);
        if ((record.flags & Record::used) == 0 || record.source != address || !isOfUser(record)) {
            continue;
        }
        if (Record::family == ipv4 && record.table == table && !isError(record.type)) {
            note(record, changes);
            remove(index);
        } else if (Record::family == ipv6 && record.ifIndex == ifIndex &&
                   (record.flags & Record::several) == 0) {
            note(record, changes);
            --sourceUses_[bucket];
            record.source = Address();
        }
    }
}

template <class Address>
void RouteStore<Address>::clear(Changes* changes) {
    forEach([&](const Record& record, const auto&) { note(record, changes); });
    *this = RouteStore();
}

template <class Address>
void RouteStore<Address>::note(const Record& record, Changes* changes) const {
    if (changes != nullptr) {
        changes->push_back(record.key());
    }
}

template class RouteStore<IpAddr>;
template class RouteStore<Ip6Addr>;

}  // namespace Pavo
