/// @file
/// The routes of one family in little memory.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "Pavo/kernel/Route.h"
#include "Pavo/kernel/RouteRecord.h"

namespace Pavo {

/// Routes as messages of the kernel describe them: records in chunks that never move, and a hash
/// table of the first record of each key, whose others follow it in the kernel's order.
///
/// Each operation puts the keys whose routes it changed into `changes`, unless that is null; a key
/// may be there twice.
///
/// A dump is compared with what is there: between `dumpBegin` and `dumpEnd` the routes of a key
/// that come in a row replace those that the store had, and at the end what did not come goes.
/// `add` and `del`, meanwhile, are newer than what the dump has brought.
template <class Address>
class RouteStore {
  public:
    using Record = RouteRecord<Address>;
    using Read = ReadRoute<Address>;
    using Changes = std::vector<RouteKey>;
    using IsUp = std::function<bool(uint32_t ifIndex)>;

    /// How many routes there are.
    uint32_t members() const { return members_; }
    /// The memory of all of them.
    uint64_t memoryBytes() const;

    /// For RTM_NEWROUTE with these flags, of which NLM_F_REPLACE and NLM_F_APPEND count.
    void add(const Read& route, uint16_t flags, Changes* changes);
    /// For RTM_DELROUTE. Of IPv6 the message may name some of a route's next hops, which then go.
    void del(const Read& route, Changes* changes);

    void dumpBegin();
    void dumpItem(const Read& route, Changes* changes);
    /// False when what did not come is kept, since the dump may not be complete: the kernel counts
    /// on from where it stopped, and skips routes when others before them were deleted meanwhile.
    /// For IPv4 it counts among the routes of one address only.
    bool dumpEnd(Changes* changes);

    // What the kernel deletes without a message.

    /// A link was set down.
    void linkDown(uint32_t ifIndex, const IsUp& isUp, Changes* changes);
    /// A link was deleted.
    void linkGone(uint32_t ifIndex, Changes* changes);
    /// The last address of that value was deleted, from a link whose routes are in `table`.
    void addressGone(const Address& address, uint32_t ifIndex, uint32_t table, Changes* changes);

    void clear(Changes* changes);

    /// Calls `call(record, hops)` for each route, in no order; `call` must not change the store.
    template <class Call>
    void forEach(Call call) const {
        for (uint32_t index = 0; index < end_; ++index) {
            if ((at(index).flags & Record::used) != 0) {
                call(at(index), severalOf(at(index)));
            }
        }
    }
    /// The same for the routes of a key, in the kernel's order.
    template <class Call>
    void forKey(const Record& key, Call call) const {
        for (uint32_t index = headOf(key); index != none; index = at(index).next) {
            call(at(index), severalOf(at(index)));
        }
    }

  private:
    static constexpr uint32_t none = 0xffffffff;
    static constexpr uint32_t chunkBits = 12;
    static constexpr uint32_t chunkRecords = 1 << chunkBits;
    static constexpr uint32_t buckets = 1024;

    Record& at(uint32_t index) { return chunks_[index >> chunkBits][index & (chunkRecords - 1)]; }
    const Record& at(uint32_t index) const {
        return chunks_[index >> chunkBits][index & (chunkRecords - 1)];
    }
    const std::vector<RouteHop>& severalOf(const Record& record) const;
    bool hasWays(const Record& record, const Read& route) const;
    bool isSame(const Record& record, const Read& route) const;
    bool has(uint32_t index, const Read& route) const { return isSame(at(index), route); }

    uint32_t slotOf(const Record& key) const;
    uint32_t headOf(const Record& key) const;
    bool find(const Read& route) const;
    void slotDel(uint32_t slot);
    void grow();

    uint32_t newRecord();
    void fill(uint32_t index, const Read& route);
    void empty(uint32_t index);
    void count(const Record& record, uint32_t delta);
    uint32_t insert(const Read& route, bool atEnd);
    void remove(uint32_t index);
    void replace(uint32_t index, const Read& route);
    void withoutHops(uint32_t index, const std::function<bool(const RouteHop&)>& isGone);
    uint32_t replacedBy(const Read& route, uint32_t head) const;
    uint32_t extendedBy(const Read& route, uint32_t head) const;

    void commitGroup(Changes* changes);
    void commitChain(Changes* changes);
    void commitPart(const Record& key, Changes* changes);
    void note(const Record& record, Changes* changes) const;

    std::vector<std::unique_ptr<Record[]>> chunks_;
    std::vector<uint32_t> slots_;  // A power of two; `none` is free.
    uint32_t keys_ = 0;
    uint32_t end_ = 0;      // Records that were ever used.
    uint32_t free_ = none;  // The first of a list through `next`.
    uint32_t members_ = 0;
    std::vector<std::vector<RouteHop>> lists_;
    std::vector<uint32_t> freeLists_;

    uint8_t generation_ = 0;
    bool inDump_ = false;
    bool isDisturbed_ = false;
    bool isPartial_ = false;   // The group may lack routes of its key.
    std::vector<Read> group_;  // Of one key, as the dump brings them; the first `grouped_`.
    uint32_t grouped_ = 0;

    // How many next hops have a link, and routes a source, by the low bits of the number: most
    // links and addresses that go are in no route, and need no search.
    std::array<uint32_t, buckets> linkUses_ = {};
    std::array<uint32_t, buckets> sourceUses_ = {};
};

extern template class RouteStore<IpAddr>;
extern template class RouteStore<Ip6Addr>;

}  // namespace Pavo
