#include "Pavo/tcp/TcpPeerConfig.h"

namespace Pavo {

const char* TcpPeerConfig::fault() const {
    if (address.af() == ipunknown) {
        return "TcpPeerConfig: no address";
    }
    if (port == Port(0) && (mode == TcpPeerMode::active || mode == TcpPeerMode::both)) {
        return "TcpPeerConfig: no port";
    }
    const bool isLinkLocal = address.af() == ipv6 && address.isLinkLocalUnicast();
    if (isLinkLocal && ifIndex == 0) {
        return "TcpPeerConfig: a link-local address needs an interface";
    }
    if (!isLinkLocal && ifIndex != 0) {
        return "TcpPeerConfig: an interface needs a link-local address";
    }
    if (localAddress.af() != ipunknown && localAddress.af() != address.af()) {
        return "TcpPeerConfig: addresses of two families";
    }
    // Written so that it refuses what is no number.
    if (!(connectRetrySeconds > 0 && connectRetryMaxSeconds > 0 && connectTimeoutSeconds != 0)) {
        return "TcpPeerConfig: times must be positive";
    }
    return md5Key.empty() ? nullptr : checkMd5Key(md5Key);
}

TcpCollision tcpCollisionByNumber(bool isLocalNumberGreater, const TcpPeerConnection& established,
                                  const TcpPeerConnection& arriving) {
    if (established.isAccepted == arriving.isAccepted) {
        return TcpCollision::arriving;
    }
    return arriving.isAccepted == isLocalNumberGreater ? TcpCollision::established
                                                       : TcpCollision::arriving;
}

TcpCollision tcpCollisionByAddress(const TcpPeerConnection& established,
                                   const TcpPeerConnection& arriving) {
    const TcpConnSocket& ends = arriving.socket;
    return tcpCollisionByNumber(ends.srcIpAddr() > ends.dstIpAddr(), established, arriving);
}

}  // namespace Pavo
