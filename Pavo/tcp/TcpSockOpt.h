/// @file
/// Options of TCP sockets, and their binding and connecting.
///
/// Each function gives 0, or -1 with `errno` as the failing call left it. A family other than IPv4
/// and IPv6 is refused with an assertion: "Unexpected af" by the options, "Unknown af" by what
/// takes an address.
#pragma once

#include <sys/socket.h>

#include <cstdint>

#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/IpGenAddrWithMask.h"

namespace Pavo {

/// Sets a socket option of the type int. With `verify` the option is then read back and has to have
/// the value (assertions "valueLength == sizeof( verificationValue )" and "value ==
/// verificationValue"); of a TOS byte or traffic class the two bits of congestion notification are
/// left out, which TCP keeps for itself (RFC 3168, 6.1).
PAVO_EXPORT int setSocketOptionInteger(int sd, int level, int optname, int value, bool verify);

/// The TTL, or unicast hop limit, of what is sent; not enabled, the kernel's default.
PAVO_EXPORT int setSockOptTxTtl(AddressFamily af, int sd, bool enabled, IpTtl ttl);
/// The TOS byte, or traffic class, of what is sent; not enabled, 0.
PAVO_EXPORT int setSockOptTxDs(AddressFamily af, int sd, bool enabled, IpDscp dscp);
/// The smallest TTL, or hop limit, with which a segment is accepted; not enabled, any (RFC 5082).
PAVO_EXPORT int setSockOptRxMinTtl(AddressFamily af, int sd, bool enabled, IpTtl ttl);
/// The largest segment, in bytes, announced to the peer: 88 to 32767, or 0 for no limit but the
/// interface's.
PAVO_EXPORT int setSockOptMaxSegSize(int sd, uint16_t bytes);
/// Discover the path's MTU always, or never.
PAVO_EXPORT int setSockOptPathMtuDiscovery(AddressFamily af, int sd, bool enable);
/// IPv4: hosts on attached networks only. IPv6: what is sent leaves by the interface `ifIndex`;
/// not enabled, by any.
PAVO_EXPORT int setSockOptDontRoute(AddressFamily af, int sd, bool enabled, uint32_t ifIndex);

/// Sets the key with which segments to and from a peer are signed (RFC 2385); an empty one removes
/// the peer's key, and one that is not there is removed already. A mask length below that of a host
/// stands for all peers of the prefix, of which the longest one counts. The address is kept with
/// its host bits: a key is removed only with the address and length with which it was set. A
/// v4-mapped IPv6 address stands for the IPv4 peer of an IPv6 socket.
/// @pre `key.bytes() < 80` (assertion of this text).
PAVO_EXPORT int setSockMd5AuthOption(int sd, const IpGenAddrWithMask& addrWithMask,
                                     const Mox::String& key);

/// Fills in family and address, with port and scope 0, and gives the length: 16 bytes for IPv4, 28
/// for IPv6, for which there has to be room.
PAVO_EXPORT socklen_t constructSockAddr(sockaddr* out, const IpGenAddr& addr);

PAVO_EXPORT int socketBind(int sd, const IpGenAddr& addr, const Port& port);
/// Sets SO_REUSEADDR and binds a client's socket to an address, with a port of the kernel's choice.
/// An address of unknown family is the wildcard of `af`; `ifIndex` is the scope of an IPv6
/// link-local one. Where `failed` is not null it is set on failure to the step that failed,
/// "Setsockopt" or "Bind".
PAVO_EXPORT int socketBindClient(int sd, AddressFamily af, const IpGenAddr& addr, uint32_t ifIndex,
                                 const char** failed = nullptr);
/// What connect(2) gives: -1 with EINPROGRESS on a non-blocking socket. `ifIndex` is the scope of
/// an IPv6 link-local address.
PAVO_EXPORT int socketConnect(int sd, const IpGenAddr& addr, const Port& port, uint32_t ifIndex);

}  // namespace Pavo
