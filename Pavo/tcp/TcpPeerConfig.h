/// @file
/// What an agent asks of its peers over TCP.
#pragma once

#include <cstdint>

#include "Mox/Enum.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/tcp/TcpConfig.h"
#include "Pavo/tcp/TcpConnSocket.h"
#include "Pavo/tcp/TcpSockOpt.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

/// Which end opens the connection with a peer.
enum class TcpPeerMode : uint32_t {
    none = 0,     ///< neither: the peer is switched off
    active = 1,   ///< this end; connections from the peer are refused
    passive = 2,  ///< the peer; this end waits
    both = 3,     ///< each may; `TcpPeeringHandler::collision` decides between two connections
};

constexpr auto enumDescription(TcpPeerMode) {
    using enum TcpPeerMode;
    return Mox::enumeration<TcpPeerMode>(
        "Invalid TcpPeerMode",
        {{none, "none"}, {active, "active"}, {passive, "passive"}, {both, "both"}});
}

/// How to reach a peer, and what its connections are like:
///
///     peering->peerIs({.address = "192.0.2.1"_ip, .port = Pavo::Port(179), .md5Key = "secret"});
struct TcpPeerConfig {
    /// The peer's address.
    IpGenAddr address{};
    /// The port of the peer, to which this end connects.
    Port port{};
    /// The interface of a link-local IPv6 peer; 0 for every other peer.
    uint32_t ifIndex = 0;
    /// The address of this end. The default leaves it to the kernel, and takes connections from the
    /// peer to any address.
    IpGenAddr localAddress{};
    /// Which end connects.
    TcpPeerMode mode = TcpPeerMode::both;
    /// The key that signs every segment (RFC 2385), see `checkMd5Key`; empty is unsigned.
    Mox::String md5Key{};
    /// The smallest TTL, or hop limit, that is accepted from the peer, 255 for a direct neighbour
    /// (GTSM, RFC 5082); what is sent then has 255. With 0 neither is changed.
    IpTtl minTtl{};
    /// The TOS byte, or traffic class, of what is sent.
    IpDscp dscp{};
    /// Seconds from the first failure to the next attempt. The time doubles with each further
    /// failure, up to `connectRetryMaxSeconds`. A connection that is lost within `minUpSeconds` is
    /// a further failure; one that lasted longer, when it is lost, is the first one.
    /// @{
    double connectRetrySeconds = 1;
    double connectRetryMaxSeconds = 60;
    double minUpSeconds = 10;
    /// @}
    /// Seconds after which an attempt without an answer has failed.
    uint32_t connectTimeoutSeconds = TcpClientConfig::kernelTcpTimeoutDefault;
    /// `TcpPduPam::readAheadBytes` of the connection.
    uint32_t readAheadBytes = 64 * 1024;
    /// `TcpPduPam::txQueueBytes` of the connection. With 0, a message is dropped while the socket
    /// has no room for it.
    uint32_t txQueueBytes = 1024 * 1024;
    /// The kernel's probes of a silent peer.
    TcpKeepaliveOptions keepalive{};

    /// Null, or what is wrong with it:
    /// - "TcpPeerConfig: no address", "TcpPeerConfig: no port" of a peer to connect to;
    /// - "TcpPeerConfig: a link-local address needs an interface", "TcpPeerConfig: an interface
    ///   needs a link-local address";
    /// - "TcpPeerConfig: addresses of two families";
    /// - "TcpPeerConfig: times must be positive": those of the retries, and the time-out;
    /// - a text of `checkMd5Key`.
    PAVO_EXPORT const char* fault() const;

    friend bool operator==(const TcpPeerConfig&, const TcpPeerConfig&) = default;
};

/// An established connection with a peer, and which end opened it.
struct TcpPeerConnection {
    TcpConnSocket socket{};   ///< its descriptor and both ends
    bool isAccepted = false;  ///< the peer has opened it
};

/// Which of two connections with a peer stays; the other is closed.
enum class TcpCollision : uint32_t { established = 0, arriving = 1 };

constexpr auto enumDescription(TcpCollision) {
    using enum TcpCollision;
    return Mox::enumeration<TcpCollision>("Invalid TcpCollision",
                                          {{established, "established"}, {arriving, "arriving"}});
}

/// The rule of RFC 4271, 6.8: of two connections that different ends opened, the one of the end
/// with the greater number (such as the BGP identifier) stays, so that both ends decide alike. Of
/// two that one end opened, the arriving one stays: that end has lost the other, for it opens no
/// second one while it has one.
PAVO_EXPORT TcpCollision tcpCollisionByNumber(bool isLocalNumberGreater,
                                              const TcpPeerConnection& established,
                                              const TcpPeerConnection& arriving);
/// The same, by the addresses of both ends: that of the arriving connection.
PAVO_EXPORT TcpCollision tcpCollisionByAddress(const TcpPeerConnection& established,
                                               const TcpPeerConnection& arriving);

}  // namespace Pavo
