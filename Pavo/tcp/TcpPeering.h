/// @file
/// Sessions over TCP with a set of peers.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "Keel/TimerWheel.h"
#include "Mox/Entity.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/tcp/FramedTcpPduPam.h"
#include "Pavo/tcp/TcpFd.h"
#include "Pavo/tcp/TcpFraming.h"
#include "Pavo/tcp/TcpPeer.h"
#include "Pavo/tcp/TcpPeerConfig.h"
#include "Pavo/tcp/TcpStatus.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/NamespaceName.h"

namespace Pavo {

/// What an agent does when its peers come, send and go. Every call comes from the event loop, never
/// from inside an operation of the agent, and after all states have changed: the peer may be in a
/// later state than the one of which it is notified. For each peer the order is `up`, then its
/// messages, then `down`, and so on: each `up` has one `down`, and a connection that comes and goes
/// before the loop turns has neither.
///
/// A call may do everything: send, close, delete peers and add them, drop the peering, after which
/// no call comes any more. The peer that is passed lives until the call returns. A call may throw:
/// the exception goes to the loop, all other calls are still made, and a message that was passed
/// has been received.
class PAVO_EXPORT TcpPeeringHandler {
  public:
    TcpPeeringHandler() = default;
    TcpPeeringHandler(const TcpPeeringHandler&) = delete;
    TcpPeeringHandler& operator=(const TcpPeeringHandler&) = delete;
    virtual ~TcpPeeringHandler();

    /// There is a connection with the peer.
    virtual void up(TcpPeer& peer) = 0;
    /// A message of the peer, contiguous at `frontData()`. It is the agent's.
    virtual void message(TcpPeer& peer, const Mox::Ptr<Pkt>& pkt) = 0;
    /// The connection has gone. `reason` is `TcpPeer::reason` as it was then.
    virtual void down(TcpPeer& peer, const Mox::String& reason) = 0;
    /// `TcpPeer::writable` has become true again.
    virtual void writable(TcpPeer& peer);
    /// Of two connections with the peer, which one stays. By default `tcpCollisionByAddress`
    /// decides. Both ends have to decide alike; were each to keep the one that it has, they might
    /// close both. When the arriving one stays, `down` and `up` follow.
    virtual TcpCollision collision(TcpPeer& peer, const TcpPeerConnection& established,
                                   const TcpPeerConnection& arriving);
};

/// A set of peers in one network namespace: a listener for each family, and for each peer what
/// opens a connection with it, accepts one, carries messages and starts again (`TcpPeer`).
///
///     agent       TcpPeeringHandler      up, message, down          TcpPeer: txPktIs, close
///                        |
///     TcpPeering   listener IPv4, listener IPv6 ---- peer by address and interface
///                        |                                  |
///     machines     TcpServerSm x 2                TcpClientSm, FramedTcpPduPam
///
/// A connection from an address that is no peer's, or whose peer does not take it, is closed and
/// counted in `refused`. Listeners have the keys and least TTLs of all peers. A changed key
/// restarts the listener of its family; connections that are up stay, under the key with which they
/// were made.
///
/// The peering holds its peers and their connections, and those that are closing. It does not hold
/// its handler, which outlives it or drops it. Dropping the last reference closes all connections
/// at once, without a call of the handler. One thread uses a peering.
class PAVO_EXPORT TcpPeering : public Mox::EntityOf<TcpPeering> {
  public:
    /// The address of a peer and, of a link-local one, its interface, else 0.
    using Key = std::pair<IpGenAddr, uint32_t>;
    /// The peers by their keys.
    using Peers = std::map<Key, Mox::Ptr<TcpPeer>>;

    static constexpr Mox::Attribute<TcpPeering> refusedAttr{0, "refused"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::TcpPeering",
                                Mox::attribute(refusedAttr, &TcpPeering::refused));
    }

    /// Without peers and listeners. The wheel outlives the peering.
    /// @pre handler, wheel and factory are there: assertions "handler != nullptr", "wheel !=
    /// nullptr", "registrations != nullptr".
    /// @throws Mox::RangeException with the framing's `fault`.
    TcpPeering(Mox::String name, const NamespaceName& netNs, const TcpFraming& framing,
               TcpPeeringHandler* handler, Keel::TimerWheel* wheel,
               Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> registrations);

    Mox::String name() const override { return name_; }
    void zeroReferencesIs(bool zero) override;

    /// As it was made with.
    /// @{
    const NamespaceName& netNs() const { return netNs_; }
    const TcpFraming& framing() const { return framing_; }
    Keel::TimerWheel* wheel() const { return wheel_; }
    /// @}

    /// Listens on the address, 0.0.0.0 or :: for all, in place of the listener that its family has.
    /// A listener that fails tries again each second.
    void listenIs(const IpGenAddr& localAddress, Port port);
    /// Ends the listener of the family; connections stay.
    void listenDel(AddressFamily af);
    /// The status of the listener of the family, to be observed and not to be written; null without
    /// one. A new listener has a new status.
    Mox::Ptr<TcpServerStatus> listenerStatus(AddressFamily af) const;

    /// Adds a peer, or changes the one with that address and interface. A connection that is up
    /// stays, unless the new mode is `none`: DSCP, TTLs, queue and keep-alive reach it at once; the
    /// other values take effect with the next one. Without one, a change starts a new attempt, or
    /// ends it, at once.
    /// @throws Mox::RangeException with the configuration's `fault`, or "TcpPeering: another key of
    /// this address" for one link-local address on two interfaces, since the kernel has one key for
    /// both. Nothing is then changed.
    Mox::Ptr<TcpPeer> peerIs(const TcpPeerConfig& config);
    /// The peer with the address and, for a link-local one, the interface; null without one.
    Mox::Ptr<TcpPeer> peer(const IpGenAddr& address, uint32_t ifIndex = 0) const;
    /// All peers.
    const Peers& peers() const { return peers_; }
    /// Deletes a peer. A connection that is up is closed at once, and `down` follows, with the
    /// reason "Peer deleted".
    void peerDel(const IpGenAddr& address, uint32_t ifIndex = 0);
    /// Deletes all peers likewise.
    void peerDelAll();

    /// Connections that were closed since no peer takes them.
    uint32_t refused() const { return refused_; }
    /// Connections after `TcpPeer::close` that still send. To end in an orderly way, an agent waits
    /// until there are none.
    uint32_t closing() const;

  protected:
    ~TcpPeering() override;

  private:
    friend class TcpPeer;
    struct Closing;
    struct Listener;

    void accept(Listener* listener);
    void accepted(const TcpConnSocket& connection);
    void updateListener(const Listener& listener, const IpGenAddr& address);
    void updateListeners(const IpGenAddr& address);
    Peers::const_iterator firstPeer(const IpGenAddr& address) const;
    Peers::const_iterator lastPeer(const IpGenAddr& address) const;
    void drain(TcpPeer* peer, const Mox::Ptr<FramedTcpPduPam>& pam, double seconds);
    void drained(std::list<std::unique_ptr<Closing>>::iterator place);
    void due(TcpPeer* peer);
    void deliver();

    Mox::String name_;
    NamespaceName netNs_;
    TcpFraming framing_;
    TcpPeeringHandler* handler_;
    Keel::TimerWheel* wheel_;
    Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> registrations_;
    Peers peers_;
    std::map<AddressFamily, std::unique_ptr<Listener>> listeners_;
    std::list<std::unique_ptr<Closing>> closing_;
    std::vector<Mox::Ptr<TcpPeer>> due_;  // The handler is to be notified of them; some twice.
    Keel::Timer delivery_;
    std::shared_ptr<bool> hasEnded_ = std::make_shared<bool>(false);  // Outlives this.
    uint32_t refused_ = 0;
};

/// A peering without peers, whose registrations the thread's event loop serves unless others are
/// given.
/// @throws Mox::RangeException with the framing's `fault`.
PAVO_EXPORT Mox::Ptr<TcpPeering> tcpPeeringFactory(
    const Mox::String& name, const NamespaceName& netNs, const TcpFraming& framing,
    TcpPeeringHandler* handler, Keel::TimerWheel* wheel,
    Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> registrations = nullptr);

}  // namespace Pavo
