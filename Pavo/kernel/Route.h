/// @file
/// Routes as values.
#pragma once

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <compare>
#include <cstdint>
#include <optional>
#include <ostream>
#include <vector>

#include "Mox/String.h"

#include "Pavo/base/Export.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/IpGenPrefix.h"

namespace Pavo {

/// What the kernel looks a route up by. Several routes may have one key: to one destination over
/// several links, or appended to each other. The kernel keeps a route under the key with which it
/// is added, except that it makes 1024 of the metric 0 for IPv6, and 254 of table 0.
struct RouteKey {
    IpGenPrefix prefix;              ///< The destinations.
    uint32_t table = RT_TABLE_MAIN;  ///< The local table is RT_TABLE_LOCAL.
    uint32_t metric = 0;             ///< The least one is used.
    uint8_t tos = 0;                 ///< For IPv4; 0 for all packets.

    /// "192.0.2.0/24", then " table 100", " metric 20" and " tos 16" where they are not the
    /// default.
    PAVO_EXPORT Mox::String stringValue() const;

    friend auto operator<=>(const RouteKey&, const RouteKey&) = default;
    /// Writes `stringValue`.
    friend std::ostream& operator<<(std::ostream& out, const RouteKey& key) {
        return out << key.stringValue();
    }
};

/// A next hop of a route.
struct RouteHop {
    IpGenAddr gateway;      ///< None for a destination on the link itself.
    uint32_t ifIndex = 0;   ///< 0 for none.
    uint16_t weight = 1;    ///< The share of packets, 1 to 256, beside the other next hops.
    bool isOnLink = false;  ///< The gateway is on the link, whatever its address.

    friend auto operator<=>(const RouteHop&, const RouteHop&) = default;
};

/// A route of a table of the kernel: what rtnetlink(7) and ip-route(8) say of it, without its
/// metrics (such as a path MTU), encapsulations and the state of its next hops' links.
struct Route {
    RouteKey key;                       ///< How the kernel finds it.
    uint8_t type = RTN_UNICAST;         ///< RTN_BLACKHOLE and others.
    uint8_t protocol = RTPROT_STATIC;   ///< Who made it.
    uint8_t scope = RT_SCOPE_UNIVERSE;  ///< RT_SCOPE_LINK for what is on a link.
    IpGenAddr source;  ///< Preferred for packets to it; none (`ipunknown`) where it is not set.
    std::vector<RouteHop> hops;  ///< None for types such as RTN_BLACKHOLE.

    /// In the words of ip-route(8), with the indexes of links: "192.0.2.0/24 via 10.0.0.1 link 7
    /// proto static", "blackhole 192.0.2.0/24 proto bgp"; several next hops each after " nexthop".
    PAVO_EXPORT Mox::String stringValue() const;

    friend bool operator==(const Route&, const Route&) = default;
    /// Writes `stringValue`.
    friend std::ostream& operator<<(std::ostream& out, const Route& route) {
        return out << route.stringValue();
    }
};

/// What a message of the type RTM_NEWROUTE or RTM_DELROUTE says; nothing for one that is malformed,
/// of another family than IPv4 and IPv6, about an entry of a cache, or about a route for packets
/// from certain sources only (RTA_SRC). Next hops of IPv6 come in the order of link and gateway.
PAVO_EXPORT std::optional<Route> routeOf(const nlmsghdr& message);

}  // namespace Pavo
