#include "Pavo/kernel/Route.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "Mox/Text.h"

#include "Pavo/kernel/NetlinkAddress.h"
#include "Pavo/kernel/NetlinkAttributes.h"
#include "Pavo/kernel/RouteRecord.h"

namespace Pavo {

namespace {

// A gateway of the route's own family, or with RTA_VIA of any.
IpGenAddr gatewayOf(const NetlinkAttributes& attributes, uint8_t family) {
    IpGenAddr gateway = addressIn(attributes.payload(RTA_GATEWAY), family);
    const std::span<const uint8_t> via = attributes.payload(RTA_VIA);
    uint16_t viaFamily = 0;
    if (gateway.af() == ipunknown && via.size() >= sizeof(viaFamily)) {
        std::memcpy(&viaFamily, via.data(), sizeof(viaFamily));
        gateway = addressIn(via.subspan(sizeof(viaFamily)), viaFamily);
    }
    return gateway;
}

// The words of ip-route(8); "unicast" is left out.
constexpr std::string_view typeNames[] = {"unspec",   "",          "local",     "broadcast",
                                          "anycast",  "multicast", "blackhole", "unreachable",
                                          "prohibit", "throw",     "nat",       "xresolve"};

void printNumber(Mox::TextWriter& out, std::string_view word, uint32_t number) {
    out.text(word);
    out.decimal(number);
}

void printProtocol(Mox::TextWriter& out, uint8_t protocol) {
    constexpr struct {
        uint8_t number;
        std::string_view name;
    } names[] = {{RTPROT_REDIRECT, "redirect"}, {RTPROT_KERNEL, "kernel"}, {RTPROT_BOOT, "boot"},
                 {RTPROT_STATIC, "static"},     {RTPROT_RA, "ra"},         {RTPROT_DHCP, "dhcp"},
                 {RTPROT_BGP, "bgp"},           {RTPROT_ISIS, "isis"},     {RTPROT_OSPF, "ospf"}};
    for (const auto& each : names) {
        if (each.number == protocol) {
            out.text(" proto ");
            out.text(each.name);
            return;
        }
    }
    printNumber(out, " proto ", protocol);
}

void printScope(Mox::TextWriter& out, uint8_t scope) {
    if (scope == RT_SCOPE_LINK || scope == RT_SCOPE_HOST) {
        out.text(scope == RT_SCOPE_LINK ? " scope link" : " scope host");
    } else if (scope != RT_SCOPE_UNIVERSE) {
        printNumber(out, " scope ", scope);
    }
}

void print(Mox::TextWriter& out, const RouteKey& key) {
    key.prefix.af() == ipunknown ? out.text("no prefix") : key.prefix.printText(out);
    if (key.table != RT_TABLE_MAIN) {
        printNumber(out, " table ", key.table);
    }
    if (key.metric != 0) {
        printNumber(out, " metric ", key.metric);
    }
    if (key.tos != 0) {
        printNumber(out, " tos ", key.tos);
    }
}

void print(Mox::TextWriter& out, const RouteHop& hop, bool isOneOfSeveral) {
    if (isOneOfSeveral) {
        out.text(" nexthop");
    }
    if (hop.gateway.af() != ipunknown) {
        out.text(" via ");
        hop.gateway.printText(out);
    }
    if (hop.ifIndex != 0) {
        printNumber(out, " link ", hop.ifIndex);
    }
    if (isOneOfSeveral) {
        printNumber(out, " weight ", hop.weight);
    }
    if (hop.isOnLink) {
        out.text(" onlink");
    }
}

// The list of RTA_MULTIPATH; false for wrong lengths.
bool readHops(std::span<const uint8_t> list, uint8_t family, std::vector<RouteHop>* hops) {
    while (!list.empty()) {
        rtnexthop head;
        if (list.size() < sizeof(head)) {
            return false;
        }
        std::memcpy(&head, list.data(), sizeof(head));
        if (head.rtnh_len < sizeof(head) || head.rtnh_len > list.size()) {
            return false;
        }
        const NetlinkAttributes attributes(list.subspan(sizeof(head), head.rtnh_len - sizeof(head)),
                                           RTA_VIA);
        if (!attributes.isSound()) {
            return false;
        }
        hops->push_back({gatewayOf(attributes, family), static_cast<uint32_t>(head.rtnh_ifindex),
                         static_cast<uint16_t>(head.rtnh_hops + 1),
                         (head.rtnh_flags & RTNH_F_ONLINK) != 0});
        list = list.subspan(std::min<std::size_t>(RTNH_ALIGN(head.rtnh_len), list.size()));
    }
    return true;
}

bool isKept(const rtmsg& body, uint8_t family) {
    return body.rtm_family == family && (body.rtm_flags & RTM_F_CLONED) == 0 &&
           body.rtm_src_len == 0;
}

template <class Address>
void readKey(const rtmsg& body, const NetlinkAttributes& attributes, RouteRecord<Address>* record) {
    *record = RouteRecord<Address>();
    attributes.read(RTA_DST, &record->prefix);
    if constexpr (sizeof(Address) == 4) {
        record->prefix = record->prefix.ipAddrMaskedByLength(body.rtm_dst_len);
    } else {
        record->prefix = record->prefix.ip6AddrMaskedByLength(body.rtm_dst_len);
    }
    record->len = body.rtm_dst_len;
    record->table = body.rtm_table;  // The low byte, from before there were more.
    attributes.read(RTA_TABLE, &record->table);
    attributes.read(RTA_PRIORITY, &record->metric);
    record->tos = body.rtm_tos;
}

// False for malformed ones. A single one, the usual case, allocates nothing.
template <class Address>
bool readNextHops(const rtmsg& body, const NetlinkAttributes& attributes,
                  ReadRoute<Address>* route) {
    RouteRecord<Address>& record = route->record;
    route->hops.clear();
    if (attributes.find(RTA_MULTIPATH) != nullptr) {
        std::vector<RouteHop> hops;
        if (!readHops(attributes.payload(RTA_MULTIPATH), body.rtm_family, &hops)) {
            return false;
        }
        if (body.rtm_family == AF_INET6) {
            std::sort(hops.begin(), hops.end());  // The kernel begins with any of them.
        }
        setHops(route, hops);
        return true;
    }
    attributes.read(RTA_OIF, &record.ifIndex);
    record.flags = (body.rtm_flags & RTNH_F_ONLINK) != 0 ? record.onLink : uint8_t{0};
    if (attributes.find(RTA_VIA) != nullptr) {
        setHops(route, {{gatewayOf(attributes, body.rtm_family), record.ifIndex, 1,
                         (record.flags & record.onLink) != 0}});
    } else {
        attributes.read(RTA_GATEWAY, &record.gateway);
    }
    return true;
}

template <class Address>
std::optional<Route> routeOfFamily(const nlmsghdr& message) {
    ReadRoute<Address> route;
    if (readRoute(message, &route) != RouteMessage::route) {
        return {};
    }
    return routeOf(route.record, route.hops);
}

}  // namespace

Mox::String RouteKey::stringValue() const {
    return Mox::printedString([this](Mox::TextWriter& out) { print(out, *this); });
}

Mox::String Route::stringValue() const {
    return Mox::printedString([this](Mox::TextWriter& out) {
        if (type >= std::size(typeNames)) {
            printNumber(out, "type ", type);
            out.put(' ');
        } else if (!typeNames[type].empty()) {
            out.text(typeNames[type]);
            out.put(' ');
        }
        print(out, key);
        for (const RouteHop& each : hops) {
            print(out, each, /*isOneOfSeveral=*/hops.size() > 1);
        }
        printProtocol(out, protocol);
        printScope(out, scope);
        if (source.af() != ipunknown) {
            out.text(" src ");
            source.printText(out);
        }
    });
}

template <class Address>
RouteMessage readRoute(const nlmsghdr& message, ReadRoute<Address>* route) {
    const auto* const body = netlinkBody<rtmsg>(message);
    const NetlinkAttributes attributes(message, sizeof(rtmsg), RTA_VIA);
    if (body == nullptr || !attributes.isSound()) {
        return RouteMessage::malformed;
    }
    if (!isKept(*body, kernelFamilyOf(RouteRecord<Address>::family))) {
        return RouteMessage::other;
    }
    if (body->rtm_dst_len > 8 * sizeof(Address)) {
        return RouteMessage::malformed;
    }
    RouteRecord<Address>& record = route->record;
    readKey(*body, attributes, &record);
    record.protocol = body->rtm_protocol;
    record.type = body->rtm_type;
    record.scope = body->rtm_scope;
    attributes.read(RTA_PREFSRC, &record.source);
    return readNextHops(*body, attributes, route) ? RouteMessage::route : RouteMessage::malformed;
}

template RouteMessage readRoute(const nlmsghdr& message, ReadRoute<IpAddr>* route);
template RouteMessage readRoute(const nlmsghdr& message, ReadRoute<Ip6Addr>* route);

std::optional<Route> routeOf(const nlmsghdr& message) {
    const std::optional<Route> route = routeOfFamily<IpAddr>(message);
    return route ? route : routeOfFamily<Ip6Addr>(message);
}

}  // namespace Pavo
