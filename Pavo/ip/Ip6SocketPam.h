/// @file
/// Raw IPv6 endpoints on Linux sockets.
#pragma once

#include <cstdint>

#include "Mox/Ptr.h"
#include "Pavo/base/Export.h"
#include "Pavo/ip/RawIpPam.h"

namespace Pavo {

/// A raw IPv6 endpoint on an AF_INET6 socket (ipv6(7), RFC 3542). A received packet begins after
/// its IPv6 header and extension headers; a forwarded one, received for its router alert, begins
/// with them. A packet is sent without them, unless `ipHdrIncl` is on; the kernel then fills in
/// nothing of the header.
///
/// The options of `IpSocketOptions` are those of IPv6: IPV6_FREEBIND, IPV6_HDRINCL,
/// IPV6_MULTICAST_LOOP, IPV6_RECVPKTINFO, IPV6_RECVERR, IPV6_RECVORIGDSTADDR, IPV6_RECVTCLASS for
/// `ipRecvTOS`, IPV6_RECVHOPLIMIT for `ipRecvTTL`, IPV6_ROUTER_ALERT for alerts of the value 0,
/// IPV6_TRANSPARENT and IPV6_CHECKSUM. The kernel takes the router alert only on an endpoint of
/// `IpProtocolNumber::reserved` (255; else ENOPROTOOPT), and no checksum on one of ICMPv6, whose
/// checksums it fills in itself (EINVAL).
///
/// `txTOS` is the traffic class and `txTTL` the hop limit of every packet sent, to one host or to a
/// group, `ipPktRouterAlert` a hop-by-hop header with the alert of RFC 2711 (value 0). The
/// interface of a link-local destination, or of a group of link-local scope, is `txIfIndex` or
/// `txIfName`.
///
/// The sender's address alone gives `rxIfIndex` when it is link-local; else that needs `ipPktInfo`.
class PAVO_EXPORT Ip6SocketPam : public Mox::EntityOf<Ip6SocketPam, RawIpPam> {
  public:
    static constexpr Mox::Attribute<Ip6SocketPam> checksumOffsetAttr{35, "checksumOffset"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::Ip6SocketPam",
                                Mox::attribute(checksumOffsetAttr, &Ip6SocketPam::checksumOffset));
    }

    /// Disabled, for `protocol` in the namespace `netNs`.
    Ip6SocketPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs);

    /// Where in a sent packet the kernel fills in the checksum that covers it and the pseudo
    /// header, and where it verifies that of a received packet: one with a wrong checksum never
    /// arrives. In bytes, even; -1 is none. Applied with the option `ipv6Checksum`, which without a
    /// valid offset fails with EINVAL and "IPV6_CHECKSUM option must be supplied with a valid
    /// offset".
    int32_t checksumOffset() const { return checksumOffset_; }
    void checksumOffsetIs(int32_t offset) {
        attributeIs(checksumOffset_, offset, checksumOffsetAttr);
    }

  protected:
    ~Ip6SocketPam() override;

  private:
    int32_t checksumOffset_ = -1;
};

/// A disabled endpoint for `protocol` in the namespace `netNs`.
PAVO_EXPORT Mox::Ptr<Ip6SocketPam> ip6SocketPamFactory(Mox::String name, IpProtocolNumber protocol,
                                                       NamespaceName netNs);

}  // namespace Pavo
