/// @file
/// A speaker: an agent with sessions, one for each of its peers.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "Keel/TimerWheel.h"
#include "Mox/Entity.h"
#include "Pavo/TcpPeering.h"
#include "session/PeerSession.h"

namespace Session {

/// Called with a line of text for each event of a speaker.
using Log = std::function<void(const std::string& line)>;

/// Has a session with each peer while there is a connection with it; the peering makes these, and
/// makes them again.
class Speaker : public Pavo::TcpPeeringHandler {
  public:
    Speaker(const SpeakerConfig& config, const Pavo::NamespaceName& netNs, Keel::TimerWheel* wheel,
            Log log);

    /// Waits for connections from peers.
    void listenIs(const Pavo::IpGenAddr& address, Pavo::Port port);
    /// Adds the peer, or changes it.
    void peerIs(const Pavo::TcpPeerConfig& config);
    /// Ends everything at once, as a program does that is restarted.
    void stop();

    const Pavo::TcpPeering& peering() const { return *peering_; }
    /// All sessions, of which there is one at least, are established.
    bool isEstablished() const;
    /// In all sessions.
    uint32_t updatesReceived() const { return updatesReceived_; }
    /// To all peers.
    void updatesToSendInc(uint32_t count);

  private:
    void up(Pavo::TcpPeer& peer) override;
    void message(Pavo::TcpPeer& peer, const Mox::Ptr<Pavo::Pkt>& pkt) override;
    void down(Pavo::TcpPeer& peer, const Mox::String& reason) override;
    void writable(Pavo::TcpPeer& peer) override;
    void start();
    void logState(const Pavo::TcpPeer& peer) const;

    SpeakerConfig config_;
    Pavo::NamespaceName netNs_;
    Keel::TimerWheel* wheel_;
    Log log_;
    std::map<Pavo::TcpPeer*, PeerSession> sessions_;
    uint32_t updatesReceived_ = 0;
    Mox::Ptr<Pavo::TcpPeering> peering_;
    std::map<Pavo::TcpPeer*, Mox::Watch<Pavo::TcpPeer>> peerWatches_;
    Mox::Watch<Pavo::TcpServerStatus> listenerWatch_;
};

}  // namespace Session
