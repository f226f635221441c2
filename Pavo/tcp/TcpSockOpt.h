/// @file
/// Options of TCP sockets, and their binding and connecting.
///
/// Each function that sets something returns 0, or -1 with the `errno` of the failing call. A
/// family other than IPv4 and IPv6 is an assertion failure: "Unexpected af" for options, "Unknown
/// af" for addresses. A socket is of the family `af`, or an IPv6 one that is set an option for its
/// IPv4 connections.
#pragma once

#include <sys/socket.h>

#include <compare>
#include <cstdint>
#include <optional>
#include <string_view>

#include "Mox/String.h"
#include "Mox/ValueType.h"
#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/IpGenAddrWithMask.h"

namespace Pavo {

/// Sets a socket option of the type int. With `verify` the option is then read back and has to have
/// the value (assertions "valueLength == sizeof( verificationValue )" and "value ==
/// verificationValue"). The two ECN bits of a TOS byte or traffic class are not compared, since the
/// kernel clears them on TCP sockets (RFC 3168, 6.1).
PAVO_EXPORT int setSocketOptionInteger(int sd, int level, int optname, int value, bool verify);

/// The TTL, or unicast hop limit, of sent segments; if not enabled, the kernel's default.
PAVO_EXPORT int setSockOptTxTtl(AddressFamily af, int sd, bool enabled, IpTtl ttl);
/// The TOS byte, or traffic class, of sent segments; if not enabled, 0.
PAVO_EXPORT int setSockOptTxDs(AddressFamily af, int sd, bool enabled, IpDscp dscp);
/// The smallest TTL, or hop limit, with which a segment is accepted (RFC 5082); if not enabled,
/// any.
PAVO_EXPORT int setSockOptRxMinTtl(AddressFamily af, int sd, bool enabled, IpTtl ttl);
/// The largest segment, in bytes, announced to the peer: 88 to 32767, or 0 for the interface's
/// limit.
PAVO_EXPORT int setSockOptMaxSegSize(int sd, uint16_t bytes);
/// Path MTU discovery: always, or if not enabled never.
PAVO_EXPORT int setSockOptPathMtuDiscovery(AddressFamily af, int sd, bool enable);
/// IPv4: only hosts on attached networks are reached. IPv6: segments leave by the interface
/// `ifIndex`; if not enabled, by any.
PAVO_EXPORT int setSockOptDontRoute(AddressFamily af, int sd, bool enabled, uint32_t ifIndex);

/// Whether a listening socket keeps the SYN of each connection for `synTtl` (TCP_SAVE_SYN, Linux
/// 4.3; before that ENOPROTOOPT).
PAVO_EXPORT int setSockOptSaveSyn(int sd, bool enabled);
/// The TTL, or hop limit, with which the SYN of an accepted connection arrived. Nothing where the
/// kernel has not kept the SYN: its listener did not ask for it at that time, or the kernel sent
/// SYN cookies. The kernel forgets the SYN with this call.
PAVO_EXPORT std::optional<IpTtl> synTtl(int sd);

/// Sets the key with which segments to and from a peer are signed (RFC 2385). An empty key removes
/// the peer's key; removing an absent one succeeds. A mask length below that of a host stands for
/// all peers of the prefix; the longest prefix wins. The kernel keeps the host bits of the address:
/// a key is removed only with the address and length with which it was set. A v4-mapped IPv6
/// address stands for the IPv4 peer of an IPv6 socket.
/// @pre `key.bytes() < 80` (assertion of this text); `checkMd5Key` says that beforehand.
PAVO_EXPORT int setSockMd5AuthOption(int sd, const IpGenAddrWithMask& addrWithMask,
                                     const Mox::String& key);
/// Null for a key that signatures can be made with, else what is wrong with it: "key is empty",
/// "key has more than 79 bytes". To be asked before a key from outside goes into `md5Auth`, whose
/// setter takes any.
PAVO_EXPORT const char* checkMd5Key(const Mox::String& key);
/// An IPv4 peer, or prefix of peers, as an IPv6 socket names it: 192.0.2.0/24 becomes
/// ::ffff:192.0.2.0/120.
PAVO_EXPORT IpGenAddrWithMask v4MappedPeer(const IpGenAddrWithMask& peer);

/// Writes family and address, with port and scope 0, to `*out`. Returns the length: 16 bytes for
/// IPv4, 28 for IPv6, for which the caller has room.
PAVO_EXPORT socklen_t constructSockAddr(sockaddr* out, const IpGenAddr& addr);

/// Calls bind(2), with the scope 0.
PAVO_EXPORT int socketBind(int sd, const IpGenAddr& addr, const Port& port);
/// Sets SO_REUSEADDR and binds a client's socket to an address, with a port that the kernel
/// chooses. An address of unknown family is the wildcard of `af`; `ifIndex` is the scope of an IPv6
/// link-local address. On failure `*failed`, unless `failed` is null, becomes "Setsockopt" or
/// "Bind".
PAVO_EXPORT int socketBindClient(int sd, AddressFamily af, const IpGenAddr& addr, uint32_t ifIndex,
                                 const char** failed = nullptr);
/// Calls connect(2): -1 with EINPROGRESS is usual for a non-blocking socket. `ifIndex` is the scope
/// of an IPv6 link-local address.
PAVO_EXPORT int socketConnect(int sd, const IpGenAddr& addr, const Port& port, uint32_t ifIndex);

/// When the kernel probes a silent peer (tcp(7)): after `idleTime` seconds of silence, then every
/// `probeInterval` seconds, giving up after `probeCount` probes. Linux takes 1 to 32767 seconds and
/// 1 to 127 probes.
class TcpKeepaliveOptions : public Mox::ValueType<TcpKeepaliveOptions> {
  public:
    /// The off value: all zero, the default.
    static const TcpKeepaliveOptions keepaliveDisabled;

    constexpr TcpKeepaliveOptions() = default;
    constexpr TcpKeepaliveOptions(uint32_t idleTime, uint32_t probeInterval, uint32_t probeCount)
        : idleTime_(idleTime), probeInterval_(probeInterval), probeCount_(probeCount) {}
    TcpKeepaliveOptions(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit TcpKeepaliveOptions(std::string_view text) { readWhole(text); }
    TcpKeepaliveOptions(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// In seconds.
    constexpr uint32_t idleTime() const { return idleTime_; }
    /// In seconds.
    constexpr uint32_t probeInterval() const { return probeInterval_; }
    /// Probes without an answer after which the connection fails.
    constexpr uint32_t probeCount() const { return probeCount_; }
    /// Any value but the off one.
    constexpr bool enabled() const { return *this != TcpKeepaliveOptions(); }

    friend constexpr auto operator<=>(const TcpKeepaliveOptions&,
                                      const TcpKeepaliveOptions&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::TcpKeepaliveOptions",
                           Mox::field("idleTime", &TcpKeepaliveOptions::idleTime_),
                           Mox::field("probeInterval", &TcpKeepaliveOptions::probeInterval_),
                           Mox::field("probeCount", &TcpKeepaliveOptions::probeCount_));
    }

  private:
    uint32_t idleTime_ = 0;
    uint32_t probeInterval_ = 0;
    uint32_t probeCount_ = 0;
};
inline constexpr TcpKeepaliveOptions TcpKeepaliveOptions::keepaliveDisabled{};

/// Applies keep-alive options, all of them even after a failure; SO_KEEPALIVE alone when they are
/// off.
/// Unlike the functions above, it returns how many options failed, with `errno` as the last failing
/// call left it.
PAVO_EXPORT uint32_t setSockOptKeepalive(int sd, const TcpKeepaliveOptions& options);

}  // namespace Pavo
