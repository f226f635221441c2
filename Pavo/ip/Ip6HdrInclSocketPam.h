/// @file
/// Raw IPv6 endpoints that send with headers of their own.
#pragma once

#include <cstdint>

#include "Mox/Entity.h"
#include "Mox/Ptr.h"
#include "Pavo/base/Export.h"
#include "Pavo/ip/Ip6SocketPam.h"

namespace Pavo {

/// A raw IPv6 endpoint that receives on a socket of its protocol and sends packets that begin with
/// their own IPv6 header, which is not checked, through an inner endpoint on an IPPROTO_RAW socket
/// of the same namespace. The two are enabled together or not at all, and disabled together.
///
/// For a send, the inner endpoint is given the destination, interface, source (which has to be an
/// address of the host, and selects the route only) and flags set here; counts and `txErrno` of the
/// send, and the report of room after an EAGAIN, are those of this one. The options `ipFreeBind`,
/// `ipMulticastLoop`, `ipNoMulticastLoop`, `ipTransparent` and `ipPriority` are set on both
/// sockets; when the inner one refuses, the endpoint is disabled. `txTOS`, `txTTL` and packet
/// options have no effect.
class PAVO_EXPORT Ip6HdrInclSocketPam : public Mox::EntityOf<Ip6HdrInclSocketPam, Ip6SocketPam> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::Ip6HdrInclSocketPam"); }

    /// Disabled, for `protocol` in the namespace `netNs`.
    Ip6HdrInclSocketPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs);

    /// @pre as for `RawIpPam`.
    void txPktIsImpl(Mox::Ptr<Pkt> pkt) override;
    void optionsIsImpl(uint32_t options) override;
    void enabledIsImpl(bool enabled) override;
    void handleCleanup() override;

    /// The inner endpoint, enabled while this one is; null before it is first made.
    const Mox::Ptr<Ip6SocketPam>& txPam() const { return txPam_; }
    /// Makes the inner endpoint, unless there is one; the first enabling does it as well.
    void txPamIs();

  protected:
    ~Ip6HdrInclSocketPam() override;

  private:
    static uint32_t sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts);
    int sendInner(Mox::Ptr<Pkt> pkt);
    void txPamDisable();
    void txPamOptionsAre();
    void changeTxPamOptions();

    Mox::Ptr<Ip6SocketPam> txPam_;
    Mox::Watch<Ip6SocketPam> roomAgain_;
};

/// A disabled endpoint for `protocol` in the namespace `netNs`.
PAVO_EXPORT Mox::Ptr<Ip6HdrInclSocketPam> ip6HdrInclSocketPamFactory(Mox::String name,
                                                                     IpProtocolNumber protocol,
                                                                     NamespaceName netNs);

}  // namespace Pavo
