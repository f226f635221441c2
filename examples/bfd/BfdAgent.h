/// @file
/// A BFD session over UDP with a neighbour one hop away (RFC 5881).
#pragma once

#include "Pavo/UdpPam.h"
#include "bfd/BfdSession.h"

namespace Bfd {

/// Where a session runs.
struct Place {
    Pavo::IpGenAddr local;
    Pavo::IpGenAddr peer;
    /// The interface to the peer, which link-local addresses need; empty for any.
    Mox::String device = {};
};

/// The endpoints of a session, disabled. In service, and in tests on a real wire, they are made by
/// `udpPamFactory`.
struct Endpoints {
    Mox::Ptr<Pavo::UdpPam> rx;
    Mox::Ptr<Pavo::UdpPam> tx;
};

/// Carries the packets of one session. Two endpoints are needed: packets go to port 3784, but come
/// from a port of 49152 or above (RFC 5881, 4). One session for each local address. An observer of
/// the session may destroy the agent.
class BfdAgent {
  public:
    static constexpr uint16_t port = 3784;
    static constexpr uint16_t firstSourcePort = 49152;

    /// Enables the endpoints, whose packets leave with the greatest TTL; the kernel drops others
    /// that are received (RFC 5881, 5).
    /// @throws Mox::ErrnoException as `UdpPam::enabledIs`.
    BfdAgent(const Place& place, const SessionConfig& config, const Endpoints& endpoints,
             Mox::Clock* clock);
    BfdAgent(const BfdAgent&) = delete;
    BfdAgent& operator=(const BfdAgent&) = delete;
    ~BfdAgent();

    /// It ends with the agent.
    const Mox::Ptr<BfdSession>& session() const { return session_; }
    /// Datagrams that were no valid packets of the peer.
    uint32_t rxDiscards() const { return rxDiscards_ + session_->rxDiscards(); }

  private:
    enum class Receipt { nothing, discarded, taken };

    Receipt receiveOne();
    void receiveWaiting();
    void send(const BfdHdr& pkt);

    const Pavo::IpGenAddr peer_;
    const Endpoints endpoints_;
    uint32_t rxDiscards_ = 0;
    Mox::Ptr<BfdSession> session_;
    Mox::Watch<Pavo::UdpPam> readable_;
};

}  // namespace Bfd
