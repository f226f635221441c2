/// @file
/// Raw IPv4 endpoints on Linux sockets.
#pragma once

#include "Mox/Ptr.h"
#include "Pavo/base/Export.h"
#include "Pavo/pam/RawIpPam.h"

namespace Pavo {

/// A raw IPv4 endpoint on an AF_INET socket (ip(7)). A received packet begins with its IP header. A
/// packet is sent without one, unless `ipHdrIncl` is on. `ipv6Checksum` changes nothing.
class PAVO_EXPORT IpSocketPam : public Mox::EntityOf<IpSocketPam, RawIpPam> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::IpSocketPam"); }

    /// Disabled, for `protocol` in the namespace `netNs`.
    IpSocketPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs);

  protected:
    ~IpSocketPam() override;
};

/// A disabled endpoint for `protocol` in the namespace `netNs`.
PAVO_EXPORT Mox::Ptr<IpSocketPam> ipSocketPamFactory(Mox::String name, IpProtocolNumber protocol,
                                                     NamespaceName netNs);

}  // namespace Pavo
