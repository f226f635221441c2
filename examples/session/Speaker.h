/// @file
/// The two speakers of a session: one connects, one listens.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Keel/TimerWheel.h"
#include "Mox/EventLoop.h"
#include "Pavo/TcpClientServer.h"
#include "session/PeerSession.h"

namespace Session {

/// The addresses of a speaker and its peer.
struct Place {
    Pavo::NamespaceName netNs;
    Pavo::IpGenAddr local;
    Pavo::IpGenAddr peer;
    Pavo::Port port;
    /// The key that signs every segment (RFC 2385); both ends have the same.
    Mox::String md5Key;
};

/// Called with a line of text for each event of a speaker.
using Log = std::function<void(const std::string& line)>;

/// What both speakers share: they have at most one session at a time, and accept only segments that
/// are signed with the key and crossed no router (GTSM, RFC 5082).
class Speaker {
  public:
    Speaker(const Speaker&) = delete;
    Speaker& operator=(const Speaker&) = delete;

    /// The present session, or the last one; null before the first.
    const PeerSession* session() const { return session_.get(); }
    bool isEstablished() const {
        return session_ && session_->state() == PeerSession::State::established;
    }
    /// Of all sessions.
    uint32_t updatesReceived() const;
    uint32_t sessions() const { return sessions_; }
    void updatesToSendInc(uint32_t count) { session_->updatesToSendInc(count); }

  protected:
    Speaker(const SpeakerConfig& config, Mox::EventLoop* loop, Keel::TimerWheel* wheel, Log log);
    ~Speaker() = default;

    void start(const Pavo::TcpConnSocket& connection);
    void drop();
    void log(const std::string& line) const { log_(line); }
    /// Called from the loop after the session has ended; may destroy it.
    virtual void handleEnd() = 0;

    SpeakerConfig speakerConfig_;
    Mox::EventLoop* loop_;
    Keel::TimerWheel* wheel_;
    Mox::Ptr<Pavo::TcpFileDescriptorEventRegistrationFactory> fdFactory_;

  private:
    void changed(const PeerSession& session, const std::string& reason);

    Log log_;
    std::unique_ptr<PeerSession> session_;
    uint32_t sessions_ = 0;
    uint32_t earlierUpdates_ = 0;
    Keel::Timer ending_;
};

/// Connects, and connects again after the session has ended. Without a connection the TCP machine
/// retries with back-off; only the session notices that an established connection is dead.
class ClientSpeaker : public Speaker {
  public:
    ClientSpeaker(const SpeakerConfig& config, const Place& place, Mox::EventLoop* loop,
                  Keel::TimerWheel* wheel, Log log);
    ~ClientSpeaker();

    const Pavo::TcpClientStatus& status() const { return *status_; }

  private:
    void handleEnd() override;
    void handleStatus(const Mox::Change& change);

    Mox::Ptr<Pavo::TcpClientConfig> config_;
    Mox::Ptr<Pavo::TcpClientStatus> status_;
    Mox::Ptr<Pavo::TcpClientSm> client_;
    Mox::Watch<Pavo::TcpClientStatus> statusWatch_;
};

/// Listens; a new connection replaces the session.
class ServerSpeaker : public Speaker {
  public:
    ServerSpeaker(const SpeakerConfig& config, const Place& place, Mox::EventLoop* loop,
                  Keel::TimerWheel* wheel, Log log);
    ~ServerSpeaker();

    const Pavo::TcpServerStatus& status() const { return *status_; }
    /// Stops listening and ends the session, as a restarted program does; and listens again.
    void stop();
    void start();

  private:
    using Speaker::start;
    void handleEnd() override { drop(); }
    void handleConnection();

    Mox::Ptr<Pavo::TcpServerConfig> config_;
    Mox::Ptr<Pavo::TcpServerStatus> status_;
    Mox::Ptr<Pavo::TcpServerSm> server_;
    Mox::Watch<Pavo::TcpServerStatus> statusWatch_;
    Mox::Watch<Pavo::TcpServerStatus> connections_;
};

}  // namespace Session
