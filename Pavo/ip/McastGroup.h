/// @file
/// Joining and leaving multicast groups.
#pragma once

#include <cstdint>

#include "Pavo/base/Export.h"
#include "Pavo/value/Ip6Addr.h"
#include "Pavo/value/IpAddr.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

/// Joins a multicast group with a socket, of the address's family, or leaves it. `ifIndex` is an
/// interface of the socket's namespace; 0 leaves the choice to the kernel, which asks its routes. A
/// membership ends with the socket at the latest.
///
/// The host's IP layer takes the group's packets as soon as any socket is a member, and hands them
/// to every raw socket of their protocol.
/// @return 0, or -1 with `errno`: EADDRINUSE for a member, EADDRNOTAVAIL for leaving as none,
/// EINVAL for no multicast address, ENODEV for no interface (ipv6(7), ip(7)).
PAVO_EXPORT int doJoinLeaveMcastGroup(int fd, uint32_t ifIndex, const Ip6Addr& group, bool join);
PAVO_EXPORT int doJoinLeaveMcastGroup(int fd, uint32_t ifIndex, const IpAddr& group, bool join);

/// The same for what one source sends to the group (RFC 4607), for addresses of one family. A
/// socket is a member for several sources, or for all: naming one ends a membership for all, also
/// where a leave for it fails (EADDRNOTAVAIL), and joining for all is then refused (EADDRINUSE).
PAVO_EXPORT int doJoinLeaveMcastGroup(int fd, uint32_t ifIndex, const IpGenAddr& group,
                                      const IpGenAddr& source, bool join);

}  // namespace Pavo
