#include "Pavo/tcp/TcpPeering.h"

#include <algorithm>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Exception.h"
#include "Mox/Trace.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/tcp/TcpServerSm.h"
#include "Pavo/value/IpGenAddrWithMask.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::TcpPeering");

// Connections that wait to be accepted, of many peers that start at once.
constexpr int backlog = 128;

// Members are made of it.
Keel::TimerWheel* requiredWheel(Keel::TimerWheel* wheel) {
    Mox::require(wheel != nullptr, "wheel != nullptr");
    return wheel;
}

}  // namespace

struct TcpPeering::Listener {
    Mox::Ptr<TcpServerConfig> config;
    Mox::Ptr<TcpServerStatus> status = tcpServerStatusFactory();
    Mox::Ptr<TcpServerSm> machine;
    Mox::Watch<TcpServerStatus> accepted;
};

struct TcpPeering::Closing {
    Mox::Ptr<TcpPeer> peer;
    Mox::Ptr<FramedTcpPduPam> pam;
    uint32_t drops;  // Of `pam` before.
    Mox::Watch<FramedTcpPduPam> closed;
};

TcpPeeringHandler::~TcpPeeringHandler() = default;

void TcpPeeringHandler::writable(TcpPeer&) {}

TcpCollision TcpPeeringHandler::collision(TcpPeer&, const TcpPeerConnection& established,
                                          const TcpPeerConnection& arriving) {
    return tcpCollisionByAddress(established, arriving);
}

TcpPeering::TcpPeering(Mox::String name, const NamespaceName& netNs, const TcpFraming& framing,
                       TcpPeeringHandler* handler, Keel::TimerWheel* wheel,
                       Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> registrations)
    : name_(std::move(name)),
      netNs_(netNs),
      framing_(framing),
      handler_(handler),
      wheel_(requiredWheel(wheel)),
      registrations_(std::move(registrations)),
      delivery_(wheel_, [this] { deliver(); }) {
    Mox::require(handler_ != nullptr, "handler != nullptr");
    Mox::require(registrations_ != nullptr, "registrations != nullptr");
    if (const char* fault = framing_.fault()) {
        Mox::throwRangeException(fault);
    }
}

TcpPeering::~TcpPeering() = default;

void TcpPeering::zeroReferencesIs(bool zero) {
    if (zero) {
        *hasEnded_ = true;
        delivery_.expiryIs(Keel::TimerWheel::idle);
        due_.clear();
        std::exchange(listeners_, {}).clear();  // Observers may call while they end.
        closing_.clear();
        for (const auto& [key, peer] : std::exchange(peers_, {})) {
            try {
                peer->leave("Peering ended");
            } catch (...) {  // The last holder lets go in a destructor, which cannot pass it on.
                MOX_TRACE(facility, 0, name_, ": an observer of its end has thrown");
            }
        }
    }
    Entity::zeroReferencesIs(zero);
}

void TcpPeering::listenIs(const IpGenAddr& localAddress, Port port) {
    const Mox::Ptr<TcpPeering> hold(this);
    listenDel(localAddress.af());
    auto made = std::make_unique<Listener>();
    Listener* const listener = made.get();
    listener->config = tcpServerConfigFactory(localAddress, port);
    listener->config->networkNamespaceIs(netNs_);
    for (const auto& [key, peer] : peers_) {
        updateListener(*listener, key.first);  // Before it listens: a changed key restarts it.
    }
    listener->machine =
        tcpServerSmFactory(registrations_.ptr(), wheel_, listener->config, listener->status);
    listener->machine->backlogIs(backlog);
    listener->accepted = {listener->status, TcpServerStatus::connSocketCountAttr,
                          [this, listener] { accept(listener); }};
    const auto machine = listener->machine;
    listeners_[localAddress.af()] = std::move(made);
    machine->startListener();
}

void TcpPeering::listenDel(AddressFamily af) {
    const auto ended = listeners_.extract(af);  // Observers may call while it ends.
}

Mox::Ptr<TcpServerStatus> TcpPeering::listenerStatus(AddressFamily af) const {
    const auto it = listeners_.find(af);
    return it != listeners_.end() ? it->second->status : nullptr;
}

// While it calls the handler, everything may end. A connection whose handling throws does not keep
// those after it waiting.
void TcpPeering::accept(Listener* listener) {
    const auto hasEnded = hasEnded_;
    const auto status = listener->status;
    FirstException exception;
    while (!*hasEnded) {
        const TcpConnSocket connection = status->getConnSocket();
        if (!connection) {
            break;
        }
        exception.collect([&] { accepted(connection); });
    }
    exception.rethrow();
}

void TcpPeering::accepted(const TcpConnSocket& connection) {
    const auto found = peer(connection.dstIpAddr(), connection.ifIndex());
    if (found && found->accepts(connection)) {
        found->established({connection, /*isAccepted=*/true});
    } else {
        MOX_TRACE(facility, 1, name_, ": refused ", connection.toStrep());
        attributeInc(refused_, 1, refusedAttr);
    }
}

// Brings the key and the least TTL of the address into line with the peers that have it.
void TcpPeering::updateListener(const Listener& listener, const IpGenAddr& address) {
    const auto config = listener.config;  // Observers of a restart may end the listener.
    if (config->listenIpAddr().af() != address.af()) {
        return;
    }
    const IpGenAddrWithMask host(address);
    Mox::String key;
    IpTtl minTtl;
    for (auto it = firstPeer(address); it != lastPeer(address); ++it) {
        key = it->second->config().md5Key;
        minTtl = std::max(minTtl, it->second->config().minTtl);
    }
    key.empty() ? config->md5AuthDel(host) : config->md5AuthIs(host, key);
    minTtl == IpTtl(0) ? config->peerRxMinTtlDel(host) : config->peerRxMinTtlIs(host, minTtl);
    TcpSocketOptions options;
    options.optionIs(optionMd5Auth, config->md5Auth().members() != 0);
    options.optionIs(optionTxTtl, config->peerRxMinTtl().members() != 0);
    config->txTtlIs(IpTtl::max);
    config->optionsIs(options);
}

void TcpPeering::updateListeners(const IpGenAddr& address) {
    const auto it = listeners_.find(address.af());
    if (it != listeners_.end()) {
        updateListener(*it->second, address);
    }
}

TcpPeering::Peers::const_iterator TcpPeering::firstPeer(const IpGenAddr& address) const {
    return peers_.lower_bound({address, 0});
}

TcpPeering::Peers::const_iterator TcpPeering::lastPeer(const IpGenAddr& address) const {
    return peers_.upper_bound({address, UINT32_MAX});
}

Mox::Ptr<TcpPeer> TcpPeering::peerIs(const TcpPeerConfig& config) {
    if (const char* fault = config.fault()) {
        Mox::throwRangeException(fault);
    }
    const Key key(config.address, config.ifIndex);
    for (auto it = firstPeer(config.address); it != lastPeer(config.address); ++it) {
        if (it->first != key && it->second->config().md5Key != config.md5Key) {
            Mox::throwRangeException("TcpPeering: another key of this address");
        }
    }
    const Mox::Ptr<TcpPeering> hold(this);
    auto changed = peer(config.address, config.ifIndex);
    if (changed) {
        changed->configIs(config);
    } else {
        changed = Mox::make<TcpPeer>(this, config);
        peers_.emplace(key, changed);
        changed->begin();
    }
    return changed;
}

Mox::Ptr<TcpPeer> TcpPeering::peer(const IpGenAddr& address, uint32_t ifIndex) const {
    const auto it = peers_.find({address, ifIndex});
    return it != peers_.end() ? it->second : nullptr;
}

void TcpPeering::peerDel(const IpGenAddr& address, uint32_t ifIndex) {
    const auto deleted = peer(address, ifIndex);
    if (!deleted) {
        return;
    }
    const Mox::Ptr<TcpPeering> hold(this);
    peers_.erase({address, ifIndex});
    deleted->leave("Peer deleted");
}

void TcpPeering::peerDelAll() {
    const Mox::Ptr<TcpPeering> hold(this);
    while (!peers_.empty()) {
        const Key key = peers_.begin()->first;
        peerDel(key.first, key.second);
    }
}

// The stream lives as long as its endpoint.
void TcpPeering::drain(TcpPeer* peer, const Mox::Ptr<FramedTcpPduPam>& pam, double seconds) {
    closing_.remove_if([](const auto& each) { return each->pam->closed(); });
    closing_.push_front(std::make_unique<Closing>());
    const auto place = closing_.begin();
    (*place)->peer = peer;
    (*place)->pam = pam;
    (*place)->drops = pam->txDrops() + pam->txErrors();
    (*place)->closed = {pam, TcpPduPam::closedAttr, [this, place] { drained(place); }};
    pam->closeAfterTx(seconds, wheel_->clock());
}

// An observer that throws keeps later ones, such as that of this peering, from being notified.
uint32_t TcpPeering::closing() const {
    return static_cast<uint32_t>(std::count_if(
        closing_.begin(), closing_.end(), [](const auto& each) { return !each->pam->closed(); }));
}

void TcpPeering::drained(std::list<std::unique_ptr<Closing>>::iterator place) {
    const auto closing = std::move(*place);
    closing_.erase(place);
    const auto& pam = closing->pam;
    closing->peer->countDrops(pam->txDrops() + pam->txErrors() - closing->drops);
}

void TcpPeering::due(TcpPeer* peer) {
    if (!*hasEnded_) {
        due_.push_back(peer);
        delivery_.expiryIs(wheel_->now());
    }
}

// Calls that are made for what the handler does now follow in the next round of the clock.
void TcpPeering::deliver() {
    const auto hasEnded = hasEnded_;
    FirstException exception;
    for (const auto& peer : std::exchange(due_, {})) {
        for (uint32_t calls = TcpPeer::dueKinds; calls > 0 && !*hasEnded && peer->due_ != 0;
             --calls) {
            exception.collect([&] { peer->deliver(handler_); });
        }
        if (!*hasEnded && peer->due_ != 0) {
            due(peer.ptr());
        }
    }
    exception.rethrow();
}

Mox::Ptr<TcpPeering> tcpPeeringFactory(
    const Mox::String& name, const NamespaceName& netNs, const TcpFraming& framing,
    TcpPeeringHandler* handler, Keel::TimerWheel* wheel,
    Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> registrations) {
    if (!registrations) {
        registrations = loopTcpRegistrationFactory();
    }
    return Mox::make<TcpPeering>(name, netNs, framing, handler, wheel, std::move(registrations));
}

}  // namespace Pavo
