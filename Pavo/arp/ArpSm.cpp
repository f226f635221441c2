#include "Pavo/arp/ArpSm.h"

#include <cmath>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Exception.h"
#include "Pavo/arp/ArpClaims.h"
#include "Pavo/arp/ArpResolver.h"
#include "Pavo/arp/ArpWire.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/packet/ArpHdr.h"
#include "Pavo/packet/HdrWrapper.h"

namespace Pavo {
namespace {

// A frame to the virtual MAC is one for another host to the kernel; so is one in a VLAN, which does
// not concern this interface.
bool isForUs(const EthHdr& eth, const RxInfo& info, EthAddr own, EthAddr ofTarget) {
    const bool isToOwn = !eth.dst().isUnicast() || eth.dst() == own;
    return (isToOwn && info.pktType != RxPktType::otherHost) ||
           (eth.dst() == ofTarget && ofTarget != own);
}

void requireUnicast(IpAddr address, const char* errorText) {
    if (!address.isUnicast() || address.isZero()) {
        Mox::throwRangeException(errorText);
    }
}

void requireUnicast(EthAddr mac, const char* errorText) {
    if (!mac.isUnicast() || mac == EthAddr()) {
        Mox::throwRangeException(errorText);
    }
}

bool isInVlan(const Pkt& pkt) {
    return pkt.hasSeparateVlanTag() && (pkt.separateVlanTci() & 0xfff) != 0;
}

}  // namespace

struct ArpSm::Parts {
    Parts(ArpSm* sm, Config config)
        : wire(sm, std::move(config)), claims(sm, &wire), resolver(sm, &wire, &claims) {}

    ArpWire wire;
    ArpClaims claims;
    ArpResolver resolver;
    Mox::Watch<Pam> arrivals;  // While enabled.
};

ArpSm::ArpSm(Mox::String name, Config config)
    : name_(std::move(name)),
      proxy_(Mox::make<ProxyArp>()),
      parts_(std::make_unique<Parts>(this, std::move(config))) {
    if (ifIndex() == 0) {
        Mox::throwRangeException("ArpSm::ifIndex is 0");
    }
    requireUnicast(mac(), "ArpSm::mac is not unicast");
}

ArpSm::~ArpSm() {
    if (enabled_) {
        parts_->wire.run([this] { stop(); });
    }
}

const Mox::Ptr<Pam>& ArpSm::pam() const {
    return parts_->wire.config.pam;
}

const Mox::Ptr<ArpTable>& ArpSm::table() const {
    return parts_->wire.config.table;
}

uint32_t ArpSm::ifIndex() const {
    return parts_->wire.config.ifIndex;
}

void ArpSm::enabledIs(bool enabled) {
    if (enabled == enabled_) {
        return;
    }
    const Mox::Ptr<ArpSm> hold(this);
    FirstException exception;
    exception.collect([&] {
        parts_->wire.run([&] {
            parts_->wire.later([this] { notify(enabledAttr); });
            enabled ? start() : stop();
        });
    });
    if (enabled) {
        exception.collect([this] { handleReadable(); });
    }
    exception.rethrow();
}

void ArpSm::start() {
    enabled_ = true;
    parts_->arrivals = Mox::Watch<Pam>(pam(), Pam::readableCountAttr, [this] { handleReadable(); });
    parts_->claims.start();
    parts_->resolver.start();
}

void ArpSm::stop() {
    enabled_ = false;
    parts_->arrivals = {};
    parts_->claims.stop();
    parts_->resolver.stop();
}

EthAddr ArpSm::mac() const {
    return parts_->wire.config.mac;
}

void ArpSm::macIs(EthAddr mac) {
    requireUnicast(mac, "ArpSm::mac is not unicast");
    if (std::exchange(parts_->wire.config.mac, mac) != mac) {
        parts_->wire.run([this] {
            parts_->claims.announceAll();
            parts_->wire.later([this] { notify(macAttr); });
        });
    }
}

const ArpSettings& ArpSm::settings() const {
    return parts_->wire.settings;
}

void ArpSm::settingsIs(const ArpSettings& settings) {
    if (const char* error = settings.check()) {
        Mox::throwRangeException(error);
    }
    parts_->wire.settings = settings;
}

const Mox::Map<IpAddr, ArpAddressState>& ArpSm::address() const {
    return parts_->claims.address();
}

void ArpSm::addressIs(IpAddr address, ArpClaim claim) {
    requireUnicast(address, "ArpSm::address is not unicast");
    parts_->wire.run([&] { parts_->claims.addressIs(address, claim); });
}

void ArpSm::addressDel(IpAddr address) {
    parts_->wire.run([&] { parts_->claims.addressDel(address); });
}

void ArpSm::announce(IpAddr address) {
    parts_->wire.run([&] { parts_->claims.announce(address); });
}

Mox::Ptr<ArpEntry> ArpSm::resolve(IpAddr address) {
    requireUnicast(address, "ArpSm::resolve is not unicast");
    Mox::Ptr<ArpEntry> entry;
    if (enabled_) {
        parts_->wire.run([&] { entry = parts_->resolver.use(address); });
    }
    return entry;
}

void ArpSm::txPktIs(Mox::Ptr<Pkt> pkt, IpAddr nextHop, uint16_t etherType) {
    Mox::require(pkt && pkt->totalBytes() != 0, "pkt && pkt->totalBytes() != 0");
    if (enabled_) {
        parts_->wire.run([&] { parts_->resolver.send(std::move(pkt), nextHop, etherType); });
    }
}

void ArpSm::confirm(IpAddr address) {
    parts_->wire.run([&] { parts_->resolver.confirm(address); });
}

const Mox::Map<IpAddr, EthAddr>& ArpSm::permanent() const {
    return parts_->resolver.permanent;
}

void ArpSm::permanentIs(IpAddr address, EthAddr mac) {
    constexpr char errorText[] = "ArpSm::permanent is not unicast";
    requireUnicast(address, errorText);
    requireUnicast(mac, errorText);
    parts_->wire.run([&] {
        if (parts_->resolver.permanent.is(address, mac)) {
            parts_->resolver.update(address);
            parts_->wire.later([=, this] { notify(permanentAttr, address); });
        }
    });
}

void ArpSm::permanentDel(IpAddr address) {
    parts_->wire.run([&] {
        if (parts_->resolver.permanent.del(address)) {
            parts_->resolver.entryDel(address);
            parts_->wire.later([=, this] { notify(permanentAttr, address); });
        }
    });
}

void ArpSm::entryDel(IpAddr address) {
    parts_->wire.run([&] { parts_->resolver.entryDel(address); });
}

const Mox::Map<IpAddr, double>& ArpSm::refresh() const {
    return parts_->resolver.refresh;
}

void ArpSm::refreshIs(IpAddr address, double periodSeconds) {
    if (!(periodSeconds >= 0) || !std::isfinite(periodSeconds)) {
        Mox::throwRangeException("ArpSm::refresh: a period < 0 not allowed");
    }
    requireUnicast(address, "ArpSm::refresh is not unicast");
    parts_->wire.run([&] {
        if (parts_->resolver.refresh.is(address, periodSeconds)) {
            parts_->resolver.update(address);
            parts_->wire.later([=, this] { notify(refreshAttr, address); });
        }
    });
}

void ArpSm::refreshDel(IpAddr address) {
    parts_->wire.run([&] {
        if (parts_->resolver.refresh.del(address)) {
            parts_->resolver.update(address);
            parts_->wire.later([=, this] { notify(refreshAttr, address); });
        }
    });
}

const Mox::Map<IpAddr, Mox::Ptr<MonitoredNextHop>>& ArpSm::nextHop() const {
    return parts_->resolver.nextHop;
}

Mox::Ptr<MonitoredNextHop> ArpSm::nextHopIs(IpAddr address, double periodSeconds) {
    if (!(periodSeconds > 0) || !std::isfinite(periodSeconds)) {
        Mox::throwRangeException("ArpSm::nextHop: a period <= 0 not allowed");
    }
    requireUnicast(address, "ArpSm::nextHop is not unicast");
    const auto* found = nextHop().find(address);
    if (found != nullptr && (*found)->periodSeconds() == periodSeconds) {
        return *found;
    }
    const auto hop =
        Mox::make<MonitoredNextHop>(ArpKey(ifIndex(), address), periodSeconds, parts_->wire.now());
    parts_->wire.run([&] {
        parts_->resolver.nextHop.is(address, hop);
        parts_->resolver.update(address);
        parts_->wire.later([=, this] { notify(nextHopAttr, address); });
    });
    return hop;
}

void ArpSm::nextHopDel(IpAddr address) {
    parts_->wire.run([&] {
        if (parts_->resolver.nextHop.del(address)) {
            parts_->resolver.update(address);
            parts_->wire.later([=, this] { notify(nextHopAttr, address); });
        }
    });
}

const ArpCounters& ArpSm::counters() const {
    return parts_->wire.counters;
}

// More packets wait for the next report; a flood does not keep the loop here.
void ArpSm::handleReadable() {
    constexpr int atOnce = 32;
    const Mox::Ptr<ArpSm> hold(this);
    for (int i = 0; i < atOnce && enabled_; ++i) {
        const Mox::Ptr<Pkt> pkt = pam()->rxPkt();
        if (!pkt) {
            return;
        }
        if (enabled_) {
            parts_->wire.run([&] { handleFrame(pkt, pam()->rxInfo()); });
        }
    }
}

void ArpSm::handleFrame(const Mox::Ptr<Pkt>& pkt, const RxInfo& info) {
    pkt->linearize();
    const auto eth = tryHdr<EthHdr>(pkt, 0);
    if (!eth || eth->type() != EthType::arp || isInVlan(*pkt)) {
        return;
    }
    const auto arp = tryHdr<ArpHdr>(pkt, sizeof(EthHdr));
    ArpCounters& counters = parts_->wire.counters;
    if (!arp || arp->senderMac() == EthAddr() || arp->senderIp().isLoopback() ||
        arp->targetIp().isLoopback()) {
        ++counters.rxBad;
        return;
    }
    const ArpClaims& claims = parts_->claims;
    const bool isOwn =
        arp->senderMac() == mac() || arp->senderMac() == claims.macOf(arp->senderIp());
    if (isOwn || !isForUs(*eth, info, mac(), claims.macOf(arp->targetIp()))) {
        return;
    }
    ++(arp->op() == ArpOp::request ? counters.rxRequests : counters.rxReplies);
    handleArp(*arp, eth->dst() == mac());
}

void ArpSm::handleArp(const ArpHdr& arp, bool isToMac) {
    ArpClaims& claims = parts_->claims;
    if (claims.handleArp(arp)) {
        return;  // A conflict: nothing else in the packet can be right.
    }
    const IpAddr sender = arp.senderIp();
    const IpAddr target = arp.targetIp();
    const bool isRequest = arp.op() == ArpOp::request;
    const bool isAnnouncement = sender == target;
    const auto proxied = proxy_->find(target);
    const bool isProxied = proxied && (proxied->isHost || !(sender.isZero() || isAnnouncement));
    const bool isAnswered = isRequest && (claims.isUsable(target) || isProxied);
    if (isAnswered && (settings().answers || isProxied)) {
        const EthAddr from = claims.macOf(target);
        parts_->wire.counters.txProxyReplies += from != mac() ? 1 : 0;
        parts_->wire.sendReply(from, target, arp.senderMac(), sender);
    }
    if (!sender.isZero()) {
        parts_->resolver.learn(
            {sender, arp.senderMac(), !isRequest && isToMac, isAnnouncement, isAnswered});
    }
}

Mox::Ptr<ArpSm> arpSmFactory(Mox::String name, ArpSm::Config config) {
    return Mox::make<ArpSm>(std::move(name), std::move(config));
}

}  // namespace Pavo
