/// @file
/// A peer over TCP: the connection with it, made again whenever it is lost.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <span>

#include "Keel/TimerWheel.h"
#include "Mox/Entity.h"
#include "Mox/Enum.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/tcp/FramedTcpPduPam.h"
#include "Pavo/tcp/TcpPeerConfig.h"
#include "Pavo/tcp/TcpStatusPublisher.h"

namespace Pavo {

class FirstException;
class TcpPeering;
class TcpPeeringHandler;

/// A peer of a `TcpPeering`, which makes it: at most one connection at a time, opened by either
/// end as `TcpPeerConfig::mode` says.
///
///     idle -- mode active or both --> connecting
///     idle, connecting, backingOff -- the peer connects, mode passive or both --> up
///     connecting -- connected --> up
///     connecting -- failure, no answer within connectTimeoutSeconds --> backingOff
///     backingOff -- timer --> connecting
///     up -- lost, closed --> backingOff, with mode passive or none idle
///     backingOff, connecting -- a changed configuration --> connecting or idle
///
///     state        connection   attempt                  timer
///     idle         none         none                     idle
///     connecting   none         one                      idle
///     up           one          one that is left over    for what still arrives
///     backingOff   none         none                     to the next attempt
///
/// An attempt that is under way when the peer connects ends, unless the peer may have accepted it
/// already, since its SYN was answered: then it is left over. Where it leads to a second
/// connection, as does a peer that connects again, `TcpPeeringHandler::collision` decides.
///
/// A connection is lost with its reading direction. When only sending has failed, what the peer has
/// sent before is still received, for at most a second.
///
/// The state changes first. Then observers of the attributes are notified, and last, from the event
/// loop, the handler of the peering is. An observer and the handler may call everything while they
/// are notified, and may drop peer and peering. A peer that was deleted, or whose peering has gone,
/// is idle for ever.
class PAVO_EXPORT TcpPeer : public Mox::EntityOf<TcpPeer> {
  public:
    /// Where the peer is.
    enum class State : uint32_t {
        idle = 0,        ///< waits for the peer, or is switched off
        connecting = 1,  ///< an attempt is under way
        up = 2,          ///< there is a connection
        backingOff = 3,  ///< waits for the next attempt
    };

    static constexpr Mox::Attribute<TcpPeer> stateAttr{0, "state"};
    static constexpr Mox::Attribute<TcpPeer> reasonAttr{1, "reason"};
    static constexpr Mox::Attribute<TcpPeer> nextAttemptAttr{2, "nextAttempt"};
    static constexpr Mox::Attribute<TcpPeer> attemptsAttr{3, "attempts"};
    static constexpr Mox::Attribute<TcpPeer> failuresAttr{4, "failures"};
    static constexpr Mox::Attribute<TcpPeer> upsAttr{5, "ups"};
    static constexpr Mox::Attribute<TcpPeer> collisionsAttr{6, "collisions"};
    static constexpr Mox::Attribute<TcpPeer> txDropsAttr{7, "txDrops"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::TcpPeer", Mox::attribute(stateAttr, &TcpPeer::state),
                                Mox::attribute(reasonAttr, &TcpPeer::reason),
                                Mox::attribute(nextAttemptAttr, &TcpPeer::nextAttempt),
                                Mox::attribute(attemptsAttr, &TcpPeer::attempts),
                                Mox::attribute(failuresAttr, &TcpPeer::failures),
                                Mox::attribute(upsAttr, &TcpPeer::ups),
                                Mox::attribute(collisionsAttr, &TcpPeer::collisions),
                                Mox::attribute(txDropsAttr, &TcpPeer::txDrops));
    }

    /// For `TcpPeering::peerIs`, which also starts it.
    TcpPeer(TcpPeering* peering, const TcpPeerConfig& config);

    /// As `TcpPeering::peerIs` has set it last.
    const TcpPeerConfig& config() const { return config_; }
    /// Null once the peer was deleted, or its peering has gone.
    TcpPeering* peering() const { return peering_; }

    /// Where the peer is.
    State state() const { return state_; }
    /// Why the last connection was lost or closed, or the last attempt failed: a text of
    /// `TcpPduPam::rxErrorReason`, of `TcpClientStatus::reason` or, without an answer, `diagnosis`,
    /// or that which was passed to `close`; empty before.
    const Mox::String& reason() const { return reason_; }
    /// When the next attempt is made, in seconds of the wheel's clock; +infinity when none is
    /// planned.
    double nextAttempt() const { return nextAttempt_; }
    /// Attempts to connect.
    uint32_t attempts() const { return attempts_; }
    /// Attempts that failed, or had no answer in time.
    uint32_t failures() const { return failures_; }
    /// Connections that the peer has had, whichever end has opened them.
    uint32_t ups() const { return ups_; }
    /// Second connections, of which one was closed.
    uint32_t collisions() const { return collisions_; }
    /// Messages that were not taken, without a connection or without room, and those that were
    /// taken and had not left for the kernel when the connection ended, or the time of `close`.
    uint32_t txDrops() const { return txDrops_; }

    /// The connection; an empty one unless up.
    TcpPeerConnection connection() const;
    /// The endpoint of the connection, for its counters; null unless up. The stream stays open as
    /// long as the pointer is kept.
    Mox::Ptr<FramedTcpPduPam> pam() const;

    /// Whether there is room for a message; `TcpPeeringHandler::writable` says when there is again.
    bool writable() const;
    /// Sends a message with its header, contiguous or not. True when it was taken, by the socket or
    /// the queue; else it is dropped and counted in `txDrops`. Messages are taken from `up` on
    /// until the connection is lost. One that was taken is lost with its connection; the packet is
    /// the agent's again.
    /// @pre a packet: assertion "pkt != nullptr".
    bool txPktIs(const Mox::Ptr<Pkt>& pkt);
    /// Sends messages with few system calls, in order. Returns how many, from the first one, were
    /// taken; those from the first one that was not are dropped and counted.
    uint32_t txPktsIs(std::span<const Mox::Ptr<Pkt>> pkts);

    /// Ends the connection for the reason, which becomes that of `TcpPeeringHandler::down`: what
    /// was taken is still sent, for at most `drainSeconds`, +infinity for as long as it takes, then
    /// the stream is closed. What has not left by then is counted in `txDrops`, and the connection
    /// is reset. An active end connects again after its back-off. Without a connection nothing
    /// changes: to switch a peer off, set its mode.
    /// @pre `drainSeconds` is not negative (assertion "seconds >= 0").
    void close(const Mox::String& reason, double drainSeconds = 5);

  protected:
    ~TcpPeer() override;

  private:
    friend class TcpPeering;
    friend class TcpStatusPublisher<TcpPeer>;
    struct Attempt;
    struct Link;

    // What the handler is to be notified of, in this order.
    enum Due : uint32_t { downDue = 1, upDue = 2, writableDue = 4 };
    static constexpr uint32_t dueKinds = 3;

    bool isOpen() const;
    bool connects() const;
    bool accepts(const TcpConnSocket& connection) const;
    void publish(const std::function<void()>& changes);
    void stateIs(State state);
    void reasonIs(const Mox::String& reason);
    void configIs(const TcpPeerConfig& config);
    void begin();
    void start();
    void connect();
    Mox::Ptr<TcpClientConfig> clientConfig() const;
    void handleAttempt();
    void attemptFailed(const Mox::String& reason);
    void planAttempt();
    void timerIs(double expiry);
    void handleTimer();
    void established(const TcpPeerConnection& connection);
    void bringUp(const TcpPeerConnection& connection);
    void applyToSocket(const TcpConnSocket& connection) const;
    void applyToPam(FramedTcpPduPam* pam) const;
    void linkLost(Mox::String reason, uint32_t unsent);
    void dropLink(const Mox::String& reason, uint32_t unsent);
    void countDrops(uint32_t messages);
    void countPamDrops();
    void handleError();
    void receive();
    void leave(const Mox::String& reason);
    void dueIs(Due what);
    void deliver(TcpPeeringHandler* handler);
    bool opens(FirstException* exception);

    TcpPeering* peering_;
    TcpPeerConfig config_;
    State state_ = State::idle;
    bool isAnnounced_ = false;  // The handler knows of a connection.
    uint32_t due_ = 0;          // Bits of `Due`.
    uint32_t failuresInRow_ = 0;
    uint32_t attempts_ = 0;
    uint32_t failures_ = 0;
    uint32_t ups_ = 0;
    uint32_t collisions_ = 0;
    uint32_t txDrops_ = 0;
    double nextAttempt_ = std::numeric_limits<double>::infinity();
    Mox::String reason_;
    Mox::String downReason_;
    std::unique_ptr<Attempt> attempt_;
    std::unique_ptr<Link> link_;
    Keel::Timer timer_;
    TcpStatusPublisher<TcpPeer> publisher_{this};
};

constexpr auto enumDescription(TcpPeer::State) {
    using enum TcpPeer::State;
    return Mox::enumeration<TcpPeer::State>(
        "Invalid TcpPeer::State",
        {{idle, "idle"}, {connecting, "connecting"}, {up, "up"}, {backingOff, "backingOff"}});
}

}  // namespace Pavo
