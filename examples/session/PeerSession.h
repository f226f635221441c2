/// @file
/// One session with a peer, over an established connection.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "Keel/TimerWheel.h"
#include "Pavo/TcpPeer.h"
#include "session/SessionMsg.h"

namespace Session {

/// The common part of all sessions of a speaker.
struct SpeakerConfig {
    uint32_t speaker;
    /// When the peer sends nothing for longer, the session ends; keep-alives are sent at a third of
    /// it.
    uint16_t holdSeconds;
};

/// A session: sends an open message, is established when it receives the peer's, and then sends and
/// receives updates. It lasts as long as its connection, which it closes after an invalid message,
/// and when the hold time passes without a message: TCP alone would not notice a dead wire for many
/// minutes.
class PeerSession {
  public:
    /// Sends the open message; calls `established` with the number of the peer's speaker.
    PeerSession(const SpeakerConfig& config, Pavo::TcpPeer* peer, Keel::TimerWheel* wheel,
                std::function<void(uint32_t speaker)> established);

    bool isEstablished() const { return isEstablished_; }

    /// Sends that many more updates, as far as there is room; to be called when there is again.
    void sendUpdates(uint32_t more = 0);
    /// A message has come. True for a valid update.
    bool receive(const Pavo::Pkt& pkt);

  private:
    bool send(MsgType type, const std::string& body = {});
    void sendKeepAlive();
    /// Null, or why the message ends the session.
    const char* take(const MsgHdr& header, uint32_t bytes);
    void establish(const MsgHdr& open);
    void end(const std::string& reason);

    SpeakerConfig config_;
    Pavo::TcpPeer* peer_;
    Keel::TimerWheel* wheel_;
    std::function<void(uint32_t speaker)> established_;
    bool isEstablished_ = false;
    uint32_t updatesToSend_ = 0;
    uint32_t updatesSent_ = 0;
    uint32_t updatesReceived_ = 0;
    Keel::Timer holdTimer_;
    Keel::Timer keepAliveTimer_;
};

}  // namespace Session
