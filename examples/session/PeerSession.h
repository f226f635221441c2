/// @file
/// One session with a peer, over an established stream.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "Keel/TimerWheel.h"
#include "Mox/Entity.h"
#include "Pavo/TcpPduPam.h"
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
/// receives updates until it ends. It ends with the stream, a notification, an invalid message, or
/// when the hold time passes without a message: TCP alone would not notice a dead wire for many
/// minutes. The kernel's keep-alive probes (1 s idle, then 2 probes 1 s apart) find a dead peer of
/// an idle connection, and the hold timer finds it in any case.
class PeerSession {
  public:
    enum class State { opening, established, ended };

    struct Counters {
        uint32_t updatesSent = 0;
        uint32_t updatesReceived = 0;
        uint32_t keepAlivesReceived = 0;
    };

    /// Called with each new state, and with the reason of an end. It may not destroy the session;
    /// the first call may come before the constructor returns.
    using Changed = std::function<void(const PeerSession& session, const std::string& reason)>;

    /// Sends the open message.
    PeerSession(const SpeakerConfig& config, Mox::Ptr<Pavo::TcpFileDescriptor> stream,
                Mox::Ptr<Pavo::TcpFileDescriptorEventRegistrationFactory> fdFactory,
                Keel::TimerWheel* wheel, Changed changed);

    State state() const { return state_; }
    const Counters& counters() const { return counters_; }
    uint32_t peer() const { return peer_; }

    /// Sends that many more updates, as fast as the peer receives them.
    void updatesToSendInc(uint32_t count);

  private:
    bool send(MsgType type, const std::string& body = {});
    void sendUpdates();
    void sendKeepAlive();
    void receive();
    /// Null, or why the message ends the session.
    const char* take(const MsgHdr& header, uint32_t bytes);
    void establish(const MsgHdr& open);
    void heardNow();
    void notifyAndEnd(const std::string& reason);
    void end(const std::string& reason);

    SpeakerConfig config_;
    Changed changed_;
    Keel::TimerWheel* wheel_;
    State state_ = State::opening;
    Counters counters_;
    uint32_t peer_ = 0;
    uint32_t updatesToSend_ = 0;
    Mox::Ptr<Pavo::SimpleTcpPduPam> pam_;
    Keel::Timer holdTimer_;
    Keel::Timer keepAliveTimer_;
    Mox::Watch<Pavo::SimpleTcpPduPam> readable_;
    Mox::Watch<Pavo::SimpleTcpPduPam> writable_;
    Mox::Watch<Pavo::SimpleTcpPduPam> failed_;
};

}  // namespace Session
