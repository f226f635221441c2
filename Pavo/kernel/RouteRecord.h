/// @file
/// A route in the least memory, and its reading from messages.
#pragma once

#include <linux/rtnetlink.h>

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "Pavo/kernel/Route.h"
#include "Pavo/value/Ip6Addr.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

/// A route of one family, as `RouteStore` keeps it. Several next hops, and one whose gateway is of
/// the other family, are kept elsewhere.
template <class Address>
struct RouteRecord {
    static constexpr uint8_t onLink = 1;   // The next hop's gateway is on the link.
    static constexpr uint8_t several = 2;  // The next hops are elsewhere.
    static constexpr uint8_t used = 4;     // Not free.

    static constexpr AddressFamily family = sizeof(Address) == 4 ? ipv4 : ipv6;

    Address prefix;
    Address gateway;  // Zero for none.
    Address source;   // Zero for none.
    uint32_t table;
    uint32_t metric;
    uint32_t ifIndex;  // Of the next hop; with `several`, which list of next hops.
    uint32_t next;     // The route with the same key that comes after it.
    uint8_t len;
    uint8_t tos;
    uint8_t protocol;
    uint8_t type;
    uint8_t scope;
    uint8_t flags;
    uint8_t generation;  // The dump in which it was seen last.
    uint8_t unused;

    bool hasKeyOf(const RouteRecord& other) const {
        return prefix == other.prefix && table == other.table && metric == other.metric &&
               len == other.len && tos == other.tos;
    }
    // All but the next hops.
    bool isLike(const RouteRecord& other, bool withSource = true) const {
        return hasKeyOf(other) && protocol == other.protocol && type == other.type &&
               scope == other.scope && (!withSource || source == other.source);
    }
    RouteKey key() const {
        return {IpGenPrefix::containing(IpGenAddr(prefix), len), table, metric, tos};
    }
};
static_assert(sizeof(RouteRecord<IpAddr>) == 36 && sizeof(RouteRecord<Ip6Addr>) == 72);
static_assert(std::is_trivially_copyable_v<RouteRecord<IpAddr>>);

/// A route that is read from a message: `hops` are those of a record with `several`, else empty.
template <class Address>
struct ReadRoute {
    RouteRecord<Address> record;
    std::vector<RouteHop> hops;
};

/// What a message says of a route, if anything: `other` is of another family, an entry of a cache,
/// or a route for packets from certain sources only.
enum class RouteMessage { route, other, malformed };

/// Reads a message of the family, within its bounds. Where it is no `route`, `*route` may be
/// changed; its memory is used again.
template <class Address>
RouteMessage readRoute(const nlmsghdr& message, ReadRoute<Address>* route);

/// The next hops of a record whose list of several is `hops`.
template <class Address>
std::vector<RouteHop> hopsOf(const RouteRecord<Address>& record,
                             const std::vector<RouteHop>& hops) {
    if ((record.flags & record.several) != 0) {
        return hops;
    }
    const bool hasGateway = record.gateway != Address();
    if (record.ifIndex == 0 && !hasGateway) {
        return {};
    }
    return {{hasGateway ? IpGenAddr(record.gateway) : IpGenAddr(), record.ifIndex, 1,
             (record.flags & record.onLink) != 0}};
}

/// Puts next hops, which `hopsOf` then yields, into a route that is read.
template <class Address>
void setHops(ReadRoute<Address>* route, const std::vector<RouteHop>& hops) {
    RouteRecord<Address>& record = route->record;
    record.flags &= static_cast<uint8_t>(~(record.onLink | record.several));
    record.gateway = Address();
    record.ifIndex = 0;
    route->hops.clear();
    if (hops.size() > 1 || (hops.size() == 1 && hops[0].gateway.af() != ipunknown &&
                            hops[0].gateway.af() != RouteRecord<Address>::family)) {
        record.flags |= record.several;
        route->hops = hops;
        route->hops[0].weight = hops.size() == 1 ? uint16_t{1} : hops[0].weight;
    } else if (hops.size() == 1) {
        record.ifIndex = hops[0].ifIndex;
        record.flags |= hops[0].isOnLink ? record.onLink : uint8_t{0};
        if constexpr (RouteRecord<Address>::family == ipv4) {
            record.gateway = hops[0].gateway.v4Addr();
        } else {
            record.gateway = hops[0].gateway.v6Addr();
        }
    }
}

/// As the value that agents see.
template <class Address>
Route routeOf(const RouteRecord<Address>& record, const std::vector<RouteHop>& hops) {
    return {record.key(),
            record.type,
            record.protocol,
            record.scope,
            record.source == Address() ? IpGenAddr() : IpGenAddr(record.source),
            hopsOf(record, hops)};
}

extern template RouteMessage readRoute(const nlmsghdr& message, ReadRoute<IpAddr>* route);
extern template RouteMessage readRoute(const nlmsghdr& message, ReadRoute<Ip6Addr>* route);

}  // namespace Pavo
