/// @file
/// The routes of one family in little memory.
#pragma once

#include <linux/rtnetlink.h>

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "Pavo/base/NetOrder.h"
#include "Pavo/kernel/Route.h"
#include "Pavo/kernel/RouteRecord.h"

namespace Pavo {

/// Records of routes in chunks that never move, and a hash table of the first record of each key,
/// whose others follow it in an order of the caller's. Several next hops are in lists beside it.
template <class Address>
class RouteIndex {
  public:
    using Record = RouteRecord<Address>;
    using Read = ReadRoute<Address>;

    static constexpr uint32_t none = 0xffffffff;

    /// How many routes there are.
    uint32_t members() const { return members_; }
    /// The memory of all of them.
    uint64_t memoryBytes() const;

    /// Records are numbers below this; which of them are `used` changes with each operation.
    uint32_t end() const { return end_; }
    Record& at(uint32_t index) { return chunks_[index >> chunkBits][index & (chunkRecords - 1)]; }
    const Record& at(uint32_t index) const {
        return chunks_[index >> chunkBits][index & (chunkRecords - 1)];
    }
    bool isUsed(uint32_t index) const { return (at(index).flags & Record::used) != 0; }
    /// The list of a record with `several`, else an empty one.
    const std::vector<RouteHop>& severalOf(const Record& record) const;
    /// All next hops, and others than a list only where there is no list.
    std::vector<RouteHop> allHopsOf(uint32_t index) const {
        return hopsOf(at(index), severalOf(at(index)));
    }

    /// The first record of a key, or `none`; the others are at `next`.
    uint32_t headOf(const Record& key) const;
    /// Whether a record with these next hops, where it has several, is the same route.
    static bool isSame(const Record& record, const std::vector<RouteHop>& several,
                       const Read& route);
    bool has(uint32_t index, const Read& route) const {
        return isSame(at(index), severalOf(at(index)), route);
    }

    /// Puts a route after one of its key, or with `none` before all of them.
    uint32_t insert(const Read& route, uint8_t generation, uint32_t after);
    /// Puts another route of the same key in the place of one.
    void replace(uint32_t index, const Read& route, uint8_t generation);
    void remove(uint32_t index);
    void sourceDel(uint32_t index);

    /// False when no next hop has the link, and no route of a user's the source: most links and
    /// addresses that go are in no route, and need no search.
    /// @{
    bool mayUseLink(uint32_t ifIndex) const { return linkUses_[ifIndex % buckets] != 0; }
    bool mayUseSource(const Address& source) const { return sourceUses_[bucketOf(source)] != 0; }
    /// @}
    /// The kernel makes routes with the source of an address, and deletes them with a message.
    static bool hasSourceOfUser(const Record& record) {
        return record.source != Address() && record.protocol != RTPROT_KERNEL;
    }

  private:
    static constexpr uint32_t chunkBits = 12;
    static constexpr uint32_t chunkRecords = 1 << chunkBits;
    static constexpr uint32_t buckets = 1024;

    static uint32_t bucketOf(const Address& source) {
        uint8_t bytes[sizeof(Address)];
        source.copyToBuffer(bytes);
        return loadNet<uint16_t>(bytes + sizeof(bytes) - 2) % buckets;
    }

    uint32_t slotOf(const Record& key) const;
    void slotDel(uint32_t slot);
    void grow();
    uint32_t reserve(const Read& route);
    uint32_t newRecord();
    void fill(uint32_t index, const Read& route, uint8_t generation, uint32_t list);
    void empty(uint32_t index);
    void count(const Record& record, uint32_t delta);

    std::vector<std::unique_ptr<Record[]>> chunks_;
    std::vector<uint32_t> slots_;  // A power of two; `none` is free.
    uint32_t keys_ = 0;
    uint32_t end_ = 0;
    uint32_t free_ = none;  // The first of a list through `next`.
    uint32_t members_ = 0;
    std::vector<std::vector<RouteHop>> lists_;
    std::vector<uint32_t> freeLists_;
    // By the low bits of link and source.
    std::array<uint32_t, buckets> linkUses_ = {};
    std::array<uint32_t, buckets> sourceUses_ = {};
};

extern template class RouteIndex<IpAddr>;
extern template class RouteIndex<Ip6Addr>;

}  // namespace Pavo
