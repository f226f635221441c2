/// @file
/// One session of BFD in asynchronous mode (RFC 5880), without sockets.
#pragma once

#include <cstdint>
#include <functional>
#include <random>

#include "Mox/Clock.h"
#include "Mox/Entity.h"
#include "bfd/BfdHdr.h"

namespace Bfd {

/// The wishes of this side.
struct SessionConfig {
    /// Identifies the session on this host; not 0.
    uint32_t localDiscr;
    /// Microseconds between sent packets while up, and between those that can be received.
    uint32_t desiredMinTx = 50'000;
    uint32_t requiredMinRx = 50'000;
    /// After how many missing packets the peer takes the session down; not 0.
    uint8_t detectMult = 3;
};

/// A session with one peer, active, without echo and authentication. Both sides send control
/// packets all the time: once a second (or `desiredMinTx`, if that is more) until the session is
/// up, then at the interval on which both agree. Each interval is shortened by up to a quarter, at
/// random from the seed `localDiscr`. When the wanted interval changes, packets have the poll bit
/// until the peer answers with the final bit.
///
///     down --peer is down--> init --peer is init or up--> up
///     down --peer is init--> up
///     init or up --nothing received for the detection time--> down
///     any of them --peer is adminDown--> down;  up --peer is down--> down
///
/// The tables of RFC 5880, 6.2 and 6.8.6. One timer sends, the other one detects; both run in all
/// states. An observer may do anything to the session, and drop the last reference to it.
class BfdSession : public Mox::EntityOf<BfdSession> {
  public:
    static constexpr Mox::Attribute<BfdSession> stateAttr{0, "state"};
    static constexpr Mox::Attribute<BfdSession> diagAttr{1, "diag"};
    static constexpr auto description() {
        return Mox::classRecord("Bfd::BfdSession", Mox::attribute(stateAttr, &BfdSession::state),
                                Mox::attribute(diagAttr, &BfdSession::diag));
    }

    /// Sends a packet to the peer.
    using Send = std::function<void(const BfdHdr& pkt)>;
    /// Hands what waits to be received to `receive`. It is called before the session goes down,
    /// since a process that was held up calls timers first.
    using ReceiveWaiting = std::function<void()>;

    /// Down; the clock sends the first packet. The clock has to outlive the session.
    BfdSession(const SessionConfig& config, Mox::Clock* clock, Send send,
               ReceiveWaiting receiveWaiting);

    State state() const { return state_; }
    /// Why the session is not up. Changes with `state`, and notifies no observer of its own.
    Diag diag() const { return diag_; }
    /// As the last packet had it; down before the first one, and when nothing came for the
    /// detection time.
    State remoteState() const { return remote_.state; }
    /// When the last valid packet was received, in seconds of the clock.
    double lastRxSeconds() const { return lastRx_; }
    /// How long after that the session goes down.
    double detectionSeconds() const;
    /// The average time between sent packets is up to an eighth less.
    double txIntervalSeconds() const;
    /// Whether the peer has not yet answered to a change of this side's interval.
    bool isPolling() const { return isPolling_; }
    /// Packets that were not valid.
    uint32_t rxDiscards() const { return rxDiscards_; }

    /// A packet from the peer. False when it is not valid: it is then counted, and nothing else.
    bool receive(const BfdHdr& pkt);
    /// Takes the session down on this side until it is set back; the peer is notified.
    void isAdminDownIs(bool isAdminDown);
    /// Ends the session for good, for an owner that can send no more: neither function is called
    /// again, and no packet is valid.
    void end();

  private:
    // The last packet of the peer; these values before the first one.
    struct Remote {
        uint32_t discr = 0;
        State state = State::down;
        bool isDemand = false;
        uint8_t detectMult = 0;
        uint32_t desiredMinTx = 0;
        uint32_t requiredMinRx = 1;
    };

    bool isValid(const BfdHdr& pkt) const;
    State nextState(State remote) const;
    void enter(State state, Diag diag, bool isFinal);
    void handleDetectionTime();
    void sendPeriodic();
    void armTx();
    uint32_t desiredMinTx() const;
    void transmit(bool isFinal) const;

    const SessionConfig config_;
    Mox::Clock* const clock_;
    const Send send_;
    const ReceiveWaiting receiveWaiting_;
    State state_ = State::down;
    Diag diag_ = Diag::none;
    Remote remote_;
    bool isPolling_ = false;
    bool isEnded_ = false;
    uint32_t rxDiscards_ = 0;
    double lastRx_ = 0;
    double lastTx_ = 0;
    double jitter_ = 1;  // The factor of the interval that runs now.
    std::minstd_rand random_;
    Mox::Timer tx_;
    Mox::Timer detection_;
};

}  // namespace Bfd
