#include "Pavo/arp/ArpClaims.h"

#include <algorithm>

namespace Pavo {

void ArpClaims::start() {
    for (auto& [address, claim] : claims_) {
        begin(address, &claim);
    }
}

void ArpClaims::stop() {
    announcements_.clear();
    for (auto& [address, claim] : claims_) {
        claim.timer.reset();
        stateIs(address, ArpAddressState::probing);
    }
}

void ArpClaims::addressIs(IpAddr address, ArpClaim how) {
    const ArpAddressState* state = address_.find(address);
    if (state != nullptr && *state != ArpAddressState::conflict) {
        return;
    }
    Claim& claim = claims_[address];
    claim.how = how;
    if (sm_->enabled_) {
        begin(address, &claim);
    } else {
        stateIs(address, ArpAddressState::probing);
    }
}

void ArpClaims::addressDel(IpAddr address) {
    claims_.erase(address);
    if (address_.del(address)) {
        if (!isVirtualHost(address)) {
            announcements_.erase(address);
        }
        wire_->later([sm = sm_, address] { sm->notify(ArpSm::addressAttr, address); });
    }
}

void ArpClaims::begin(IpAddr address, Claim* claim) {
    if (claim->how != ArpClaim::probed) {
        stateIs(address, ArpAddressState::usable);
        if (claim->how == ArpClaim::announced) {
            announce(address);
        }
        return;
    }
    stateIs(address, ArpAddressState::probing);
    const ArpSettings& settings = wire_->settings;
    claim->probesSent = 0;
    claim->timer.emplace(wire_->config.timers, [this, address] {
        wire_->run([this, address] { handleProbeTimer(address); });
    });
    double at = wire_->now() + wire_->between(0, settings.probeWaitSeconds);
    if (probeConflicts_ >= settings.maxConflicts) {
        at = std::max(at, claimedAt_ + settings.rateLimitSeconds);
    }
    claimedAt_ = at;
    claim->timer->expiryIs(at);
}

void ArpClaims::handleProbeTimer(IpAddr address) {
    const ArpSettings& settings = wire_->settings;
    Claim& claim = claims_.at(address);
    if (claim.probesSent < settings.probes) {
        wire_->sendProbe(address);
        ++claim.probesSent;
        const bool isLast = claim.probesSent >= settings.probes;
        claim.timer->expiryIs(wire_->now() + (isLast ? settings.announceWaitSeconds
                                                     : wire_->between(settings.probeMinSeconds,
                                                                      settings.probeMaxSeconds)));
        return;
    }
    stateIs(address, ArpAddressState::usable);
    announce(address);
}

void ArpClaims::announce(IpAddr address) {
    const uint32_t count = wire_->settings.announcements;
    if (!sm_->enabled_ || count == 0 || !isOwn(address)) {
        return;
    }
    Announcement& announcement = announcements_[address];
    announcement.left = count;
    announcement.timer.emplace(wire_->config.timers, [this, address] {
        wire_->run([this, address] { handleAnnounceTimer(address); });
    });
    handleAnnounceTimer(address);
}

void ArpClaims::announceAll() {
    for (const auto& [address, claim] : claims_) {
        if (claim.how != ArpClaim::silent) {
            announce(address);
        }
    }
}

void ArpClaims::handleAnnounceTimer(IpAddr address) {
    if (!isOwn(address)) {
        announcements_.erase(address);
        return;
    }
    Announcement& announcement = announcements_.at(address);
    wire_->sendAnnouncement(address, macOf(address));
    if (--announcement.left == 0) {
        announcements_.erase(address);
    } else {
        announcement.timer->expiryIs(wire_->now() + wire_->settings.announceIntervalSeconds);
    }
}

bool ArpClaims::isOwn(IpAddr address) const {
    return isUsable(address) || isVirtualHost(address);
}

bool ArpClaims::isUsable(IpAddr address) const {
    const ArpAddressState* state = address_.find(address);
    return state != nullptr && *state == ArpAddressState::usable;
}

bool ArpClaims::isVirtualHost(IpAddr address) const {
    const auto found = sm_->proxy_->find(address);
    return found && found->isHost;
}

// A request from a virtual address would give neighbours the MAC of the interface for it, and one
// from the address that it is for would be an announcement.
IpAddr ArpClaims::sourceFor(IpAddr target) const {
    const IpAddr* best = nullptr;
    for (const auto& [address, state] : address_) {
        if (state == ArpAddressState::usable && address != target && !isVirtualHost(address) &&
            (best == nullptr ||
             address.longestCommonPrefix(target) > best->longestCommonPrefix(target))) {
            best = &address;
        }
    }
    return best == nullptr ? IpAddr() : *best;
}

EthAddr ArpClaims::macOf(IpAddr address) const {
    const auto found = sm_->proxy_->find(address);
    return found && (found->isHost || address_.find(address) == nullptr) ? found->mac
                                                                         : wire_->config.mac;
}

void ArpClaims::stateIs(IpAddr address, ArpAddressState state) {
    if (address_.is(address, state)) {
        wire_->later([sm = sm_, address] { sm->notify(ArpSm::addressAttr, address); });
    }
}

bool ArpClaims::handleArp(const ArpHdr& arp) {
    const IpAddr sender = arp.senderIp();
    if (sender.isZero()) {  // A probe: another host claims what this one does.
        const ArpAddressState* state = address_.find(arp.targetIp());
        if (state != nullptr && *state == ArpAddressState::probing && arp.op() == ArpOp::request) {
            conflictIs(arp.targetIp(), arp.senderMac());
        }
        return false;
    }
    const ArpAddressState* state = address_.find(sender);
    if (isVirtualHost(sender) || (state != nullptr && *state != ArpAddressState::conflict)) {
        conflictIs(sender, arp.senderMac());
        return true;
    }
    return false;
}

void ArpClaims::conflictIs(IpAddr address, EthAddr mac) {
    ++sm_->conflicts_;
    sm_->lastConflict_ = {address, mac, wire_->now()};
    wire_->later([sm = sm_] { sm->notify(ArpSm::conflictsAttr); });
    const ArpAddressState* state = address_.find(address);
    if (state != nullptr && *state == ArpAddressState::probing) {
        ++probeConflicts_;
        claims_.at(address).timer.reset();
        stateIs(address, ArpAddressState::conflict);
    } else {
        defend(address);
    }
}

// Two hosts that defend one address would otherwise answer each other without end.
void ArpClaims::defend(IpAddr address) {
    const ArpSettings& settings = wire_->settings;
    if (!settings.defends || !(settings.answers || isVirtualHost(address))) {
        return;
    }
    const double now = wire_->now();
    std::erase_if(defendedAt_,
                  [&](const auto& each) { return each.second + settings.defendSeconds <= now; });
    if (defendedAt_.emplace(address, now).second) {
        wire_->sendAnnouncement(address, macOf(address));
    }
}

}  // namespace Pavo
