/// @file
/// The routes of one family, kept as the kernel announces and dumps them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "Pavo/kernel/DumpTrust.h"
#include "Pavo/kernel/Route.h"
#include "Pavo/kernel/RouteIndex.h"

namespace Pavo {

/// Routes as messages of the kernel describe them, those of a key in the kernel's order.
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
    uint32_t members() const { return routes_.members(); }
    /// The memory of all of them.
    uint64_t memoryBytes() const { return sizeof(*this) + routes_.memoryBytes(); }

    /// For RTM_NEWROUTE with these flags, of which NLM_F_REPLACE and NLM_F_APPEND count.
    void add(const Read& route, uint16_t flags, Changes* changes);
    /// For RTM_DELROUTE. Of IPv6 the message may name some of a route's next hops, which then go.
    void del(const Read& route, Changes* changes);

    /// With `isAgain` what the dumps before have named stays too.
    void dumpBegin(bool isAgain);
    void dumpItem(const Read& route, Changes* changes);
    /// False when what did not come is kept, since the dump may not be complete. For IPv4 the
    /// kernel counts among the routes of one address only.
    bool dumpEnd(Changes* changes);

    // What the kernel deletes without a message.

    /// A link was set down, or lost its last address, so that next hops over it are dead; `isUp`
    /// says whether those over another link are not. IPv4 routes of local addresses outlive the
    /// first.
    void linkDown(uint32_t ifIndex, const IsUp& isUp, bool hasAddress, Changes* changes);
    /// A link was deleted.
    void linkGone(uint32_t ifIndex, Changes* changes);
    /// The last address of that value was deleted, from a link whose IPv4 routes are in `table`.
    void addressGone(const Address& address, uint32_t table, Changes* changes);

    /// See `RouteIndex`.
    bool mayUseSource(const Address& address) const { return routes_.mayUseSource(address); }

    void clear(Changes* changes);

    /// Calls `call(record, hops)` for each route, in no order; `call` must not change the store.
    template <class Call>
    void forEach(Call call) const {
        for (uint32_t index = 0; index < routes_.end(); ++index) {
            if (routes_.isUsed(index)) {
                call(routes_.at(index), routes_.severalOf(routes_.at(index)));
            }
        }
    }
    /// The same for the routes of a key, in the kernel's order.
    template <class Call>
    void forKey(const Record& key, Call call) const {
        for (uint32_t index = routes_.headOf(key); index != none; index = routes_.at(index).next) {
            call(routes_.at(index), routes_.severalOf(routes_.at(index)));
        }
    }

  private:
    static constexpr uint32_t none = RouteIndex<Address>::none;

    void removeHops(uint32_t index, const std::function<bool(const RouteHop&)>& isGone);
    uint32_t replacedBy(const Read& route, uint32_t head) const;
    uint32_t extendedBy(const Read& route, uint32_t head) const;

    void commitGroup(Changes* changes);
    bool isChain(const std::vector<Read>& routes, std::size_t count) const;
    void commitChain(Changes* changes);
    void mergeChain(Changes* changes);
    void commitPart(Changes* changes);
    void note(const Record& record, Changes* changes) const;

    RouteIndex<Address> routes_;
    uint8_t generation_ = 0;
    bool inDump_ = false;
    DumpTrust trust_;
    bool hasGrown_ = false;     // A route was added during the dump.
    bool isAmbiguous_ = false;  // The dump named equal routes, of which there may be one.
    uint32_t repetitions_ = 0;  // Of ambiguous dumps in a row.
    bool isPartial_ = false;    // The group may lack routes of its key.
    std::vector<Read> group_;   // Of one key, as the dump brings them; the first `grouped_`.
    uint32_t grouped_ = 0;
};

extern template class RouteStore<IpAddr>;
extern template class RouteStore<Ip6Addr>;

}  // namespace Pavo
