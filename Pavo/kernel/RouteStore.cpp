#include "Pavo/kernel/RouteStore.h"

#include <linux/rtnetlink.h>

#include <algorithm>

namespace Pavo {

namespace {

// A route that leads nowhere, which stays when its source goes.
bool isError(uint8_t type) {
    return type == RTN_BLACKHOLE || type == RTN_UNREACHABLE || type == RTN_PROHIBIT ||
           type == RTN_THROW;
}

bool hasGateway(const std::vector<RouteHop>& hops) {
    return !hops.empty() && hops.front().gateway.af() != ipunknown;
}

// Whether the kernel has made the route from a router advertisement, whose sender is the gateway.
bool isAdvertised(uint8_t protocol, const std::vector<RouteHop>& hops) {
    return protocol == RTPROT_RA && hasGateway(hops) && hops.front().gateway.isLinkLocalUnicast();
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

// The record goes with its last next hop.
template <class Address>
void RouteStore<Address>::removeHops(uint32_t index,
                                     const std::function<bool(const RouteHop&)>& isGone) {
    std::vector<RouteHop> hops = routes_.allHopsOf(index);
    std::erase_if(hops, isGone);
    if (hops.empty()) {
        routes_.remove(index);
        return;
    }
    Read left{routes_.at(index), {}};
    setHops(&left, hops);
    routes_.replace(index, left, generation_);
}

// Which of the routes of a key a message with NLM_F_REPLACE stands for, or `none`. The kernel takes
// the first; of IPv6 the first of those that have gateways, or have none, as the new one. For that
// its own routes of router advertisements have none.
template <class Address>
uint32_t RouteStore<Address>::replacedBy(const Read& route, uint32_t head) const {
    if constexpr (Record::family == ipv6) {
        const bool wanted = hasGateway(hopsOf(route.record, route.hops));
        for (uint32_t index = head; index != none; index = routes_.at(index).next) {
            const std::vector<RouteHop> hops = routes_.allHopsOf(index);
            const bool isOwn = isAdvertised(routes_.at(index).protocol, hops);
            if ((hasGateway(hops) && !isOwn) == wanted) {
                return index;
            }
        }
    }
    return head;
}

// A next hop that is added to an IPv6 route is announced as the whole route, with the source of the
// new one, which may be another: the route that it extends, or `none`.
template <class Address>
uint32_t RouteStore<Address>::extendedBy(const Read& route, uint32_t head) const {
    if (Record::family == ipv4 || (route.record.flags & Record::several) == 0) {
        return none;
    }
    for (uint32_t index = head; index != none; index = routes_.at(index).next) {
        if (routes_.at(index).isLike(route.record, /*withSource=*/false) &&
            hasAll(route.hops, routes_.allHopsOf(index))) {
            return index;
        }
    }
    return none;
}

template <class Address>
void RouteStore<Address>::add(const Read& route, uint16_t flags, Changes* changes) {
    if (grouped_ != 0 && group_[0].record.hasKeyOf(route.record)) {
        commitPart(changes);
    }
    hasGrown_ = true;
    const uint32_t head = routes_.headOf(route.record);
    const uint32_t replaced =
        (flags & NLM_F_REPLACE) != 0 ? replacedBy(route, head) : extendedBy(route, head);
    uint32_t last = none;
    for (uint32_t index = head; index != none; index = routes_.at(index).next) {
        if (routes_.has(index, route) && (replaced == none || replaced == index)) {
            routes_.at(index).generation = generation_;
            return;
        }
        last = index;
    }
    if (replaced != none && (flags & NLM_F_REPLACE) == 0) {
        Read extended = route;
        extended.record.source = routes_.at(replaced).source;
        routes_.replace(replaced, extended, generation_);
    } else if (replaced != none) {
        routes_.replace(replaced, route, generation_);
    } else {
        const bool isAtEnd = Record::family == ipv6 || (flags & NLM_F_APPEND) != 0;
        routes_.insert(route, generation_, isAtEnd ? last : none);
    }
    note(route.record, changes);
}

template <class Address>
void RouteStore<Address>::del(const Read& route, Changes* changes) {
    if (Record::family == ipv6 ||
        (!group_.empty() && group_[0].record.prefix == route.record.prefix)) {
        trust_.deleted();
    }
    if (grouped_ != 0 && group_[0].record.hasKeyOf(route.record)) {
        commitPart(changes);
    }
    const uint32_t head = routes_.headOf(route.record);
    for (uint32_t index = head; index != none; index = routes_.at(index).next) {
        if (routes_.has(index, route)) {
            routes_.remove(index);
            note(route.record, changes);
            return;
        }
    }
    if constexpr (Record::family == ipv6) {
        const std::vector<RouteHop> gone = hopsOf(route.record, route.hops);
        for (uint32_t index = head; index != none; index = routes_.at(index).next) {
            if (hasAll(routes_.allHopsOf(index), gone)) {
                removeHops(index, [&](const RouteHop& hop) { return hasAll(gone, {hop}); });
                note(route.record, changes);
                return;
            }
        }
    }
}

template <class Address>
void RouteStore<Address>::dumpBegin(bool isAgain) {
    grouped_ = 0;
    isPartial_ = false;
    trust_.begin(isAgain);
    inDump_ = true;
    hasGrown_ = false;
    isAmbiguous_ = false;
    if (!isAgain && ++generation_ == 0) {
        for (uint32_t index = 0; index < routes_.end(); ++index) {
            routes_.at(index).generation = 0;
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
    constexpr uint32_t mostRepetitions = 3;
    const bool isSure = trust_.end(members());
    if (isAmbiguous_ && repetitions_ < mostRepetitions) {
        ++repetitions_;
        return false;
    }
    repetitions_ = 0;
    if (!isSure) {
        return false;
    }
    for (uint32_t index = 0; index < routes_.end(); ++index) {
        if (routes_.isUsed(index) && routes_.at(index).generation != generation_) {
            note(routes_.at(index), changes);
            routes_.remove(index);
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
    const uint32_t head = routes_.headOf(first.record);
    const bool isKnown = head != none && routes_.has(head, first);
    if (grouped_ > 1 || isPartial_ || (head != none && routes_.at(head).next != none) ||
        (head != none && !isKnown && routes_.at(head).generation == generation_)) {
        commitChain(changes);
        return;
    }
    grouped_ = 0;
    if (isKnown) {
        routes_.at(head).generation = generation_;
        return;
    }
    if (head == none) {
        routes_.insert(first, generation_, none);
    } else {
        routes_.replace(head, first, generation_);
    }
    note(first.record, changes);
}

// Whether these are the routes of their key, in this order.
template <class Address>
bool RouteStore<Address>::isChain(const std::vector<Read>& routes, std::size_t count) const {
    uint32_t index = routes_.headOf(routes[0].record);
    for (std::size_t i = 0; i < count; ++i, index = routes_.at(index).next) {
        if (index == none || !routes_.has(index, routes[i])) {
            return false;
        }
    }
    return index == none;
}

// As a rule nothing has changed.
template <class Address>
void RouteStore<Address>::commitChain(Changes* changes) {
    if (!isChain(group_, grouped_)) {
        mergeChain(changes);
    } else {
        for (uint32_t index = routes_.headOf(group_[0].record); index != none;
             index = routes_.at(index).next) {
            routes_.at(index).generation = generation_;
        }
    }
    grouped_ = 0;
    isPartial_ = false;
}

// Puts the routes of the group in the place of those of its key. Those that were seen since the
// dump began stay: an IPv6 dump goes back where routes were added, and brings some of a key again.
// Where none was added, two IPv6 routes that are equal are two: the kernel makes such by replacing
// another one.
// When the group may be only a part of its key, all stay: what does not come goes at the end of the
// dump.
template <class Address>
void RouteStore<Address>::mergeChain(Changes* changes) {
    std::vector<Read> chain;
    const auto isInChain = [&](const Record& record, const std::vector<RouteHop>& several) {
        return std::any_of(chain.begin(), chain.end(), [&](const Read& each) {
            return RouteIndex<Address>::isSame(record, several, each);
        });
    };
    for (uint32_t i = 0; i < grouped_; ++i) {
        const bool isEqual =
            (Record::family == ipv4 || hasGrown_) && isInChain(group_[i].record, group_[i].hops);
        isAmbiguous_ = isAmbiguous_ || (Record::family == ipv6 && isEqual);
        if (!isEqual) {
            chain.push_back(group_[i]);
        }
    }
    const std::size_t seen = chain.size();
    const Record key = chain[0].record;
    for (uint32_t index = routes_.headOf(key); index != none; index = routes_.at(index).next) {
        const Record& record = routes_.at(index);
        const bool stays = isPartial_ || record.generation == generation_;
        if (stays && !isInChain(record, routes_.severalOf(record))) {
            chain.push_back({record, routes_.severalOf(record)});
        }
    }
    const bool isChanged = !isChain(chain, chain.size());
    for (uint32_t index = routes_.headOf(key); index != none; index = routes_.headOf(key)) {
        routes_.remove(index);
    }
    uint32_t last = none;
    for (std::size_t i = 0; i < chain.size(); ++i) {
        const uint8_t generation = i < seen ? generation_ : chain[i].record.generation;
        last = routes_.insert(chain[i], generation, last);
    }
    if (isChanged) {
        note(key, changes);
    }
}

// Before a message that may concern the group, of which the dump may not have brought all.
template <class Address>
void RouteStore<Address>::commitPart(Changes* changes) {
    if (grouped_ != 0) {
        isPartial_ = true;
        commitChain(changes);
        isPartial_ = true;
    }
}

template <class Address>
void RouteStore<Address>::linkDown(uint32_t ifIndex, const IsUp& isUp, bool hasAddress,
                                   Changes* changes) {
    commitPart(changes);
    for (uint32_t index = 0; routes_.mayUseLink(ifIndex) && index < routes_.end(); ++index) {
        const Record& record = routes_.at(index);
        if (!routes_.isUsed(index) ||
            (Record::family == ipv4 && hasAddress && record.scope == RT_SCOPE_HOST)) {
            continue;
        }
        const std::vector<RouteHop>& hops = routes_.severalOf(record);
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
            routes_.remove(index);
            trust_.deleted();
        }
    }
}

template <class Address>
void RouteStore<Address>::linkGone(uint32_t ifIndex, Changes* changes) {
    commitPart(changes);
    const auto isOn = [&](const RouteHop& hop) { return hop.ifIndex == ifIndex; };
    for (uint32_t index = 0; routes_.mayUseLink(ifIndex) && index < routes_.end(); ++index) {
        const Record& record = routes_.at(index);
        const std::vector<RouteHop>& hops = routes_.severalOf(record);
        if (!routes_.isUsed(index) ||
            (hops.empty() ? record.ifIndex != ifIndex
                          : std::none_of(hops.begin(), hops.end(), isOn))) {
            continue;
        }
        note(record, changes);
        trust_.deleted();
        if (Record::family == ipv6 && !hops.empty()) {
            removeHops(index, isOn);
        } else {
            routes_.remove(index);
        }
    }
}

// An IPv4 route goes with its source; an IPv6 route goes on without it.
template <class Address>
void RouteStore<Address>::addressGone(const Address& address, uint32_t table, Changes* changes) {
    commitPart(changes);
    for (uint32_t index = 0; routes_.mayUseSource(address) && index < routes_.end(); ++index) {
        const Record& record = routes_.at(index);
        if (!routes_.isUsed(index) || record.source != address ||
            !routes_.hasSourceOfUser(record)) {
            continue;
        }
        if (Record::family == ipv4 && record.table == table && !isError(record.type)) {
            note(record, changes);
            routes_.remove(index);
            trust_.deleted();
        } else if (Record::family == ipv6) {
            note(record, changes);
            routes_.sourceDel(index);
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
