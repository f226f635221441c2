/// @file
/// The socket options of IP endpoints. For the endpoints themselves; an agent does not need it.
#pragma once

#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "Pavo/pam/SocketOptions.h"

namespace Pavo {

/// Sets the TOS of an IP socket, and then the priority where the option asks for one, since the
/// kernel overwrites it with the TOS.
/// @throws Mox::ErrnoException "setsockopt(SO_PRIORITY)", or naming the family's option.
void socketTosIs(const SocketSettings& settings, int fd);

/// The step of enabling that sets it. The row of the priority comes later.
void ipTosStep(const SocketOptionChange& change);

/// Rows of the table of options, which differ by family: those that come first, and two that have
/// their places among the rows of every kind.
struct IpOptionRows {
    std::array<SocketOption, 7> first;
    SocketOption transparent;
    SocketOption noMulticastLoop;
};

inline constexpr char ip4LoopFailure[] = "setsockopt(IP_MULTICAST_LOOP)";
inline constexpr char ip6LoopFailure[] = "setsockopt(IPV6_MULTICAST_LOOP)";

/// A row of a family's level.
constexpr SocketOption ip4Option(
    uint32_t bit, int number, const char* failure,
    void (*apply)(const SocketOptionChange&) = SocketOptionSteps::plain) {
    return {bit, apply, IPPROTO_IP, number, failure, bit == ipTransparent};
}
constexpr SocketOption ip6Option(
    uint32_t bit, int number, const char* failure,
    void (*apply)(const SocketOptionChange&) = SocketOptionSteps::plain) {
    return {bit, apply, IPPROTO_IPV6, number, failure, bit == ipTransparent};
}

inline constexpr IpOptionRows ip4OptionRows{
    {{ip4Option(ipPktInfo, IP_PKTINFO, "setsockopt(IP_PKTINFO)"),
      ip4Option(ipFreeBind, IP_FREEBIND, "setsockopt(IP_FREEBIND)"),
      ip4Option(ipMulticastLoop, IP_MULTICAST_LOOP, ip4LoopFailure,
                SocketOptionSteps::multicastLoop),
      ip4Option(ipRecvErr, IP_RECVERR, "setsockopt(IP_RECVERR)"),
      ip4Option(ipRecvOrigDstAddr, IP_RECVORIGDSTADDR, "setsockopt(IP_RECVORIGDSTADD)"),
      ip4Option(ipRecvTOS, IP_RECVTOS, "setsockopt(IP_RECVTOS)"),
      ip4Option(ipRecvTTL, IP_RECVTTL, "setsockopt(IP_RECVTTL)")}},
    ip4Option(ipTransparent, IP_TRANSPARENT, "setsockopt(IP_TRANSPARENT)"),
    ip4Option(ipNoMulticastLoop, IP_MULTICAST_LOOP, ip4LoopFailure,
              SocketOptionSteps::noMulticastLoop)};

inline constexpr IpOptionRows ip6OptionRows{
    {{ip6Option(ipPktInfo, IPV6_RECVPKTINFO, "setsockopt(IPV6_RECVPKTINFO)"),
      ip6Option(ipFreeBind, IPV6_FREEBIND, "setsockopt(IPV6_FREEBIND)"),
      ip6Option(ipMulticastLoop, IPV6_MULTICAST_LOOP, ip6LoopFailure,
                SocketOptionSteps::multicastLoop),
      ip6Option(ipRecvErr, IPV6_RECVERR, "setsockopt(IPV6_RECVERR)"),
      ip6Option(ipRecvOrigDstAddr, IPV6_RECVORIGDSTADDR, "setsockopt(IPV6_RECVORIGDSTADDR)"),
      ip6Option(ipRecvTOS, IPV6_RECVTCLASS, "setsockopt(IPV6_RECVTCLASS)"),
      ip6Option(ipRecvTTL, IPV6_RECVHOPLIMIT, "setsockopt(IPV6_RECVHOPLIMIT)")}},
    ip6Option(ipTransparent, IPV6_TRANSPARENT, "setsockopt(IPV6_TRANSPARENT)"),
    ip6Option(ipNoMulticastLoop, IPV6_MULTICAST_LOOP, ip6LoopFailure,
              SocketOptionSteps::noMulticastLoop)};

/// The rows that follow the family's first ones in the table of every IP endpoint.
constexpr std::array<SocketOption, 10> ipCommonOptions(const IpOptionRows& family,
                                                       const SocketOption& filter,
                                                       const SocketOption& ttl) {
    return {{filter,
             rcvBufOption,
             {none, ipTosStep},
             ttl,
             family.transparent,
             priorityOption,
             family.noMulticastLoop,
             recvDropsOption,
             timestampOption,
             broadcastOption}};
}

/// One table of several groups of rows.
template <std::size_t... counts>
constexpr auto joinedOptions(const std::array<SocketOption, counts>&... groups) {
    std::array<SocketOption, (counts + ...)> all;
    auto next = all.begin();
    ((next = std::copy(groups.begin(), groups.end(), next)), ...);
    return all;
}

}  // namespace Pavo
