/// @file
/// Hosts of IP inside one process, for tests of agents that hold UDP or raw IP endpoints.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Mox/Clock.h"
#include "Mox/Collections.h"
#include "Mox/Entity.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/ip/RawIpPam.h"
#include "Pavo/ip/UdpPam.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/PamConnector.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

class IpHostEnd;
class PamMux;
struct IpArrival;

/// A host on one end of a connector, which carries packets from their IP header on. UDP and raw IP
/// endpoints that are attached to it send and receive there instead of on a socket: nothing of them
/// needs a privilege, a namespace or an event loop, and time is that of the connector's clock.
///
///     agent - UdpPam ---+                                       +--- UdpPam - agent
///                       IpHost --- PamConnector --- IpHost -----+
///     agent - IpPam ----+        "pam0"     "pam1"              +--- IpPam - agent
///
/// An attached endpoint behaves as it does on a socket of a Linux host with the interface "eth0"
/// (index 2), the loopback interface "lo" (index 1), and a neighbour that answers for every
/// address. There are no subnets, and always room to send; packets are announced one by one, so
/// that an agent which reads at once gets batches of one. The receiver gets a copy. In particular:
/// - without an address, IPv4 is sent from 0.0.0.0 where the interface is named;
/// - a port is taken once, unless all ask for `ipReuseAddr` or `ipReusePort`; 0 takes a free one;
/// - of several UDP endpoints the one with the most definite addresses receives, a group or
///   broadcast reaches all; every raw endpoint of the protocol receives a copy;
/// - groups have to be joined, on the right interface; a UDP endpoint receives only from its own;
/// - what a host sends to itself, or to a group of which it is a member, comes back to it;
/// - where no endpoint receives a datagram, the sender gets an ICMP error, and a client fails with
///   ECONNREFUSED once;
/// - `rxMinTtl`, `maxRxPktData`, and the options that fill in `rxInfo`, have their effect;
/// - so has `rxFilter`, which takes or refuses a packet and does not shorten it, and which refuses
///   each packet in which it looks for more than bytes (SKF_AD_OFF and SKF_NET_OFF in
///   linux/filter.h). A bad program is refused at enabling; one that is switched on later is
///   ignored.
///
/// Some things have no effect: limits of memberships, mapped addresses of IPv4 in IPv6, `netNs`,
/// `priority`, `rxBuf`, `txFlags` and `rxFlags`, the error queue (`ipRecvErr`), fragments. An
/// endpoint holds 1024 packets; further ones are dropped and counted as the kernel's drops are
/// (`ipRecvDrops`).
///
/// The host holds the end of the connector, and does not hold the endpoints, which do not hold it
/// either. When the host is destroyed, sends of its endpoints fail with ENETDOWN.
class PAVO_EXPORT IpHost : public Mox::EntityOf<IpHost> {
  public:
    static constexpr Mox::Attribute<IpHost, IpGenAddr> addressAttr{0, "address"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::IpHost", Mox::attribute(addressAttr));
    }

    /// The indices of its two interfaces.
    /// @{
    static constexpr uint32_t loIfIndex = 1;
    static constexpr uint32_t ethIfIndex = 2;
    /// @}

    /// A host without addresses but those of the loopback interface, 127.0.0.0/8 and ::1. The clock
    /// outlives it, and is that of the connector.
    IpHost(Mox::String name, Mox::Ptr<PamConnectorPam> link, Mox::Clock* clock);

    Mox::String name() const override { return name_; }

    /// The addresses of "eth0". The first one in their order is the source of packets that do not
    /// name one; for a link-local destination the first link-local one.
    const Mox::Set<IpGenAddr>& address() const { return address_; }
    void addressIs(const IpGenAddr& address);
    void addressDel(const IpGenAddr& address) { memberDel(address_, address, addressAttr); }

    /// Makes the host the network of a disabled endpoint, for the rest of its life; returns it.
    /// @pre disabled (assertion "!enabled()").
    template <class Endpoint>
    Mox::Ptr<Endpoint> attach(const Mox::Ptr<Endpoint>& pam) {
        attachEnd(pam.ptr());
        return pam;
    }

  protected:
    ~IpHost() override;

  private:
    friend class IpHostEnd;
    friend class RawHostEnd;
    friend class UdpHostEnd;

    void attachEnd(UdpPam* pam);
    void attachEnd(RawIpPam* pam);

    uint32_t interfaceIndex(const Mox::String& name) const;
    bool isOwn(const IpGenAddr& address) const;
    bool isMember(const IpArrival& arrival) const;
    bool isForThis(const PktInfo& info) const;
    IpGenAddr sourceFor(const PktInfo& info) const;
    bool isPortFree(const IpHostEnd& wanted, Port port) const;
    Port freePort(const IpHostEnd& wanted);
    IpGenAddr hereFor(const PktInfo& info) const;
    int resolve(PktInfo* info, bool* isHere) const;
    int send(TxInfo info, const Pkt& pkt, const IpHostEnd& end);
    void transmit(const Mox::Ptr<Pkt>& pkt, const PktInfo& info, bool leaves, bool comesBack);
    void route(const Mox::Ptr<Pkt>& pkt);
    void routeUdp(const IpArrival& arrival);
    void sendUnreachable(const IpArrival& arrival);
    void takeUnreachable(const IpArrival& arrival);

    Mox::String name_;
    Mox::Ptr<PamConnectorPam> link_;
    Mox::Clock* clock_;
    Mox::Set<IpGenAddr> address_;
    Mox::Ptr<PamMux> mux_;  // A client for each open end.
    std::vector<IpHostEnd*> attached_;
    std::vector<IpHostEnd*> ends_;  // Those that are open, the newest first.
    uint32_t endsMade_ = 0;
    uint16_t lastPort_ = 49151;
};

/// A host whose packets pass `link`, an end of a connector that has the clock.
PAVO_EXPORT Mox::Ptr<IpHost> ipHostFactory(Mox::String name, Mox::Ptr<PamConnectorPam> link,
                                           Mox::Clock* clock);

}  // namespace Pavo
