/// @file
/// Raw IPv4 endpoints on Linux sockets.
#pragma once

#include "Mox/Ptr.h"
#include "Pavo/base/Export.h"
#include "Pavo/ip/RawIpPam.h"

namespace Pavo {

/// A raw IPv4 endpoint on an AF_INET socket (ip(7)). A received packet begins with its IP header. A
/// packet is sent without one, unless `ipHdrIncl` is on. `ipv6Checksum` changes nothing.
class PAVO_EXPORT IpSocketPam : public Mox::EntityOf<IpSocketPam, RawIpPam> {
  public:
    static constexpr Mox::Attribute<IpSocketPam> txMcastTTLAttr{35, "txMcastTTL"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::IpSocketPam",
                                Mox::attribute(txMcastTTLAttr, &IpSocketPam::txMcastTTL));
    }

    /// Disabled, for `protocol` in the namespace `netNs`.
    IpSocketPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs);

    /// The TTL of packets that are sent to groups; 0 leaves it to the kernel, which sends with 1.
    /// @throws Mox::ErrnoException "setsockopt(IP_MULTICAST_TTL)"; the attribute keeps its value.
    IpTtl txMcastTTL() const { return txMcastTTL_; }
    void txMcastTTLIs(IpTtl ttl);

  protected:
    ~IpSocketPam() override;

  private:
    IpTtl txMcastTTL_;
};

/// A disabled endpoint for `protocol` in the namespace `netNs`.
PAVO_EXPORT Mox::Ptr<IpSocketPam> ipSocketPamFactory(Mox::String name, IpProtocolNumber protocol,
                                                     NamespaceName netNs);

/// Replaces the `rxFilter` of an endpoint by a compiled expression; each instruction that changes
/// is notified. Returns what `ipFilterFromText` returns; after an error the endpoint is unchanged.
/// A socket keeps the filter that is attached to it until the option `ipAttachFilter` is next
/// switched on, or the endpoint enabled.
PAVO_EXPORT Mox::String rxFilterFromText(const Mox::String& expression, Mox::Ptr<IpSocketPam> pam);

}  // namespace Pavo
