#include "Pavo/kernel/KernelRequests.h"

#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

#include "Mox/Exception.h"

#include "Pavo/kernel/NetlinkAddress.h"
#include "Pavo/kernel/NetlinkAttributes.h"

namespace Pavo {

namespace {

NetlinkMessage linkRequest(uint16_t type, uint32_t ifIndex, uint32_t flags = 0,
                           uint32_t changed = 0) {
    NetlinkMessage message(type);
    auto& body = message.bodyIs<ifinfomsg>();
    body.ifi_index = static_cast<int>(ifIndex);
    body.ifi_flags = flags;
    body.ifi_change = changed;
    return message;
}

// The own address is IFA_LOCAL, and IFA_ADDRESS the peer's where there is one.
NetlinkMessage addressRequest(uint16_t type, uint16_t flags,
                              const LinkAddress::Properties& properties) {
    const IpGenAddr& address = properties.key.address;
    if (properties.len > addressBits(address.af()) || properties.scope > UINT8_MAX) {
        Mox::throwRangeException("LinkAddress: length or scope out of range");
    }
    NetlinkMessage message(type, static_cast<uint16_t>(NLM_F_REQUEST | flags));
    auto& body = message.bodyIs<ifaddrmsg>();
    body.ifa_family = kernelFamilyOf(address.af());
    body.ifa_prefixlen = static_cast<uint8_t>(properties.len);
    body.ifa_scope = static_cast<uint8_t>(properties.scope);
    body.ifa_index = properties.key.ifIndex;
    addAddress(message, IFA_LOCAL, address);
    addAddress(message, IFA_ADDRESS, properties.peer.af() == ipunknown ? address : properties.peer);
    addAddress(message, IFA_BROADCAST, properties.broadcast);
    if (properties.flags != 0) {
        message.attributeIs(IFA_FLAGS, properties.flags);
    }
    return message;
}

NetlinkMessage neighbourMessage(uint16_t type, uint16_t flags, const NeighbourKey& key,
                                NeighbourState state) {
    NetlinkMessage message(type, static_cast<uint16_t>(NLM_F_REQUEST | flags));
    auto& body = message.bodyIs<ndmsg>();
    body.ndm_family = kernelFamilyOf(key.address.af());
    body.ndm_ifindex = static_cast<int>(key.ifIndex);
    body.ndm_state = static_cast<uint16_t>(state);
    addAddress(message, NDA_DST, key.address);
    return message;
}

NetlinkMessage neighbourIsMessage(uint16_t flags, const NeighbourKey& key, const EthAddr& address,
                                  NeighbourState state) {
    NetlinkMessage message =
        neighbourMessage(RTM_NEWNEIGH, static_cast<uint16_t>(NLM_F_CREATE | flags), key, state);
    message.attributeIs(NDA_LLADDR, address);
    return message;
}

// A gateway of the other family goes with its family before it.
void addGateway(NetlinkMessage& message, const Route& route, const RouteHop& hop) {
    if (hop.gateway.af() == ipunknown || hop.gateway.af() == route.key.prefix.af()) {
        addAddress(message, RTA_GATEWAY, hop.gateway);
        return;
    }
    uint8_t bytes[sizeof(uint16_t) + sizeof(Ip6Addr)];
    const uint16_t family = kernelFamilyOf(hop.gateway.af());
    std::memcpy(bytes, &family, sizeof(family));
    hop.gateway.copyToBuffer(bytes + sizeof(family));
    message.attributeIs(RTA_VIA,
                        std::span<const uint8_t>(bytes, sizeof(family) + hop.gateway.size()));
}

void addHops(NetlinkMessage& message, const Route& route) {
    if (route.hops.size() == 1) {
        addGateway(message, route, route.hops[0]);
        message.attributeIs(RTA_OIF, route.hops[0].ifIndex);
        return;
    }
    const std::size_t nest = message.nestBegin(RTA_MULTIPATH);
    for (const RouteHop& each : route.hops) {
        const std::size_t begin = message.bytes().size();
        if (each.weight == 0 || each.weight > 256) {
            Mox::throwRangeException("RouteHop::weight not in 1 to 256");
        }
        auto& head = message.bodyIs<rtnexthop>();
        head.rtnh_hops = static_cast<uint8_t>(each.weight - 1);
        head.rtnh_flags = each.isOnLink ? RTNH_F_ONLINK : 0;
        head.rtnh_ifindex = static_cast<int>(each.ifIndex);
        addGateway(message, route, each);
        const std::size_t bytes = message.bytes().size() - begin;
        const auto length = static_cast<uint16_t>(bytes);
        std::memcpy(reinterpret_cast<uint8_t*>(message.header()) + begin, &length, sizeof(length));
    }
    message.nestEnd(nest);
}

NetlinkMessage routeMessage(uint16_t type, uint16_t flags, const Route& route) {
    NetlinkMessage message(type, static_cast<uint16_t>(NLM_F_REQUEST | flags));
    auto& body = message.bodyIs<rtmsg>();
    body.rtm_family = kernelFamilyOf(route.key.prefix.af());
    body.rtm_dst_len = static_cast<uint8_t>(route.key.prefix.len());
    body.rtm_tos = route.key.tos;
    body.rtm_table =
        route.key.table < 256 ? static_cast<uint8_t>(route.key.table) : uint8_t{RT_TABLE_UNSPEC};
    body.rtm_protocol = route.protocol;
    body.rtm_scope = route.scope;
    body.rtm_type = route.type;
    body.rtm_flags = route.hops.size() == 1 && route.hops[0].isOnLink ? RTNH_F_ONLINK : 0u;
    addAddress(message, RTA_DST, route.key.prefix.ipGenAddr());
    message.attributeIs(RTA_TABLE, route.key.table);
    if (route.key.metric != 0) {
        message.attributeIs(RTA_PRIORITY, route.key.metric);
    }
    addAddress(message, RTA_PREFSRC, route.source);
    if (!route.hops.empty()) {
        addHops(message, route);
    }
    return message;
}

// The counters in a message about a link; zero without them.
LinkStatistics linkStatisticsOf(const nlmsghdr& message) {
    const NetlinkAttributes attributes(message, sizeof(ifinfomsg), IFLA_STATS64);
    rtnl_link_stats64 stats{};
    // A kernel that has more counters, or fewer, puts them at the end.
    const std::span<const uint8_t> bytes = attributes.payload(IFLA_STATS64);
    if (!attributes.isSound() || bytes.size() < offsetof(rtnl_link_stats64, collisions)) {
        return {};
    }
    std::memcpy(&stats, bytes.data(), std::min(bytes.size(), sizeof(stats)));
    return LinkStatistics{stats.rx_packets, stats.tx_packets, stats.rx_bytes,
                          stats.tx_bytes,   stats.rx_errors,  stats.tx_errors,
                          stats.rx_dropped, stats.tx_dropped, stats.multicast};
}

}  // namespace

NetlinkMessage linkUpRequest(uint32_t ifIndex, bool isUp) {
    return linkRequest(RTM_NEWLINK, ifIndex, isUp ? IFF_UP : 0, IFF_UP);
}

NetlinkMessage linkMtuRequest(uint32_t ifIndex, uint32_t bytes) {
    NetlinkMessage message = linkRequest(RTM_NEWLINK, ifIndex);
    message.attributeIs(IFLA_MTU, bytes);
    return message;
}

NetlinkMessage linkEthAddrRequest(uint32_t ifIndex, const EthAddr& address) {
    NetlinkMessage message = linkRequest(RTM_NEWLINK, ifIndex);
    message.attributeIs(IFLA_ADDRESS, address);
    return message;
}

NetlinkMessage linkNameRequest(uint32_t ifIndex, const Mox::String& name) {
    NetlinkMessage message = linkRequest(RTM_NEWLINK, ifIndex);
    message.attributeIs(IFLA_IFNAME, name.view());
    return message;
}

NetlinkMessage linkDelRequest(uint32_t ifIndex) {
    return linkRequest(RTM_DELLINK, ifIndex);
}

uint32_t requestLinkStatistics(
    const Mox::Ptr<NetlinkSession>& session, uint32_t ifIndex,
    std::function<void(const NetlinkAnswer&, const LinkStatistics&)> done) {
    const auto statistics = std::make_shared<LinkStatistics>();
    return session->requestIs(
        linkRequest(RTM_GETLINK, ifIndex),
        [statistics, done = std::move(done)](const NetlinkAnswer& answer) {
            done(answer, answer.error == 0 ? *statistics : LinkStatistics());
        },
        [statistics](const nlmsghdr& message) { *statistics = linkStatisticsOf(message); });
}

NetlinkMessage addressAddRequest(const LinkAddress::Properties& properties) {
    return addressRequest(RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, properties);
}

NetlinkMessage addressDelRequest(const LinkAddressKey& key, uint32_t len) {
    LinkAddress::Properties properties;
    properties.key = key;
    properties.len = len;
    properties.peer = key.network.ipGenAddr();  // Of IPv4, any address of the network names it.
    return addressRequest(RTM_DELADDR, 0, properties);
}

NetlinkMessage neighbourReplaceRequest(const NeighbourKey& key, const EthAddr& address,
                                       NeighbourState state) {
    return neighbourIsMessage(NLM_F_REPLACE, key, address, state);
}

NetlinkMessage neighbourAddRequest(const NeighbourKey& key, const EthAddr& address,
                                   NeighbourState state) {
    return neighbourIsMessage(NLM_F_EXCL, key, address, state);
}

NetlinkMessage neighbourDelRequest(const NeighbourKey& key) {
    return neighbourMessage(RTM_DELNEIGH, 0, key, NeighbourState::none);
}

NetlinkMessage routeAddRequest(const Route& route) {
    return routeMessage(RTM_NEWROUTE, NLM_F_CREATE | NLM_F_EXCL, route);
}

NetlinkMessage routeReplaceRequest(const Route& route) {
    return routeMessage(RTM_NEWROUTE, NLM_F_CREATE | NLM_F_REPLACE, route);
}

NetlinkMessage routeAppendRequest(const Route& route) {
    return routeMessage(RTM_NEWROUTE, NLM_F_CREATE | NLM_F_APPEND, route);
}

// For the kernel RT_SCOPE_NOWHERE is any scope.
NetlinkMessage routeDelRequest(const Route& route) {
    NetlinkMessage message = routeMessage(RTM_DELROUTE, 0, route);
    if (route.hops.empty()) {
        reinterpret_cast<rtmsg*>(message.header() + 1)->rtm_scope = RT_SCOPE_NOWHERE;
    }
    return message;
}

}  // namespace Pavo
