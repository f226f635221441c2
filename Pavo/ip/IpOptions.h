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

/// A row of the level of a family, IPPROTO_IP or IPPROTO_IPV6.
template <int level>
constexpr SocketOption ipOption(
    uint32_t bit, int number, const char* failure,
    void (*apply)(const SocketOptionChange&) = SocketOptionSteps::plain) {
    return {bit, apply, level, number, failure, bit == ipTransparent};
}
inline constexpr IpOptionRows ip4OptionRows{
    {{ipOption<IPPROTO_IP>(ipPktInfo, IP_PKTINFO, "setsockopt(IP_PKTINFO)"),
      ipOption<IPPROTO_IP>(ipFreeBind, IP_FREEBIND, "setsockopt(IP_FREEBIND)"),
      ipOption<IPPROTO_IP>(ipMulticastLoop, IP_MULTICAST_LOOP, ip4LoopFailure,
                           SocketOptionSteps::multicastLoop),
      ipOption<IPPROTO_IP>(ipRecvErr, IP_RECVERR, "setsockopt(IP_RECVERR)"),
      ipOption<IPPROTO_IP>(ipRecvOrigDstAddr, IP_RECVORIGDSTADDR, "setsockopt(IP_RECVORIGDSTADD)"),
      ipOption<IPPROTO_IP>(ipRecvTOS, IP_RECVTOS, "setsockopt(IP_RECVTOS)"),
      ipOption<IPPROTO_IP>(ipRecvTTL, IP_RECVTTL, "setsockopt(IP_RECVTTL)")}},
    ipOption<IPPROTO_IP>(ipTransparent, IP_TRANSPARENT, "setsockopt(IP_TRANSPARENT)"),
    ipOption<IPPROTO_IP>(ipNoMulticastLoop, IP_MULTICAST_LOOP, ip4LoopFailure,
                         SocketOptionSteps::noMulticastLoop)};

inline constexpr IpOptionRows ip6OptionRows{
    {{ipOption<IPPROTO_IPV6>(ipPktInfo, IPV6_RECVPKTINFO, "setsockopt(IPV6_RECVPKTINFO)"),
      ipOption<IPPROTO_IPV6>(ipFreeBind, IPV6_FREEBIND, "setsockopt(IPV6_FREEBIND)"),
      ipOption<IPPROTO_IPV6>(ipMulticastLoop, IPV6_MULTICAST_LOOP, ip6LoopFailure,
                             SocketOptionSteps::multicastLoop),
      ipOption<IPPROTO_IPV6>(ipRecvErr, IPV6_RECVERR, "setsockopt(IPV6_RECVERR)"),
      ipOption<IPPROTO_IPV6>(ipRecvOrigDstAddr, IPV6_RECVORIGDSTADDR,
                             "setsockopt(IPV6_RECVORIGDSTADDR)"),
      ipOption<IPPROTO_IPV6>(ipRecvTOS, IPV6_RECVTCLASS, "setsockopt(IPV6_RECVTCLASS)"),
      ipOption<IPPROTO_IPV6>(ipRecvTTL, IPV6_RECVHOPLIMIT, "setsockopt(IPV6_RECVHOPLIMIT)")}},
    ipOption<IPPROTO_IPV6>(ipTransparent, IPV6_TRANSPARENT, "setsockopt(IPV6_TRANSPARENT)"),
    ipOption<IPPROTO_IPV6>(ipNoMulticastLoop, IPV6_MULTICAST_LOOP, ip6LoopFailure,
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
