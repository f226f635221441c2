#include "Pavo/arp/ArpResolver.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "Mox/Assert.h"
#include "Pavo/arp/ArpWork.h"
#include "Pavo/packet/EthHdr.h"

namespace Pavo {
namespace {

// The private bytes of the packet leave no room for a header.
Mox::Ptr<Pkt> copyWithHeadRoom(const Pkt& pkt) {
    const Mox::Ptr<Pkt> copy = globalPktManager()->newPkt();
    copy->stringValueIs(pkt.stringValue(), /*atTail=*/true);
    if (pkt.hasSeparateVlanTag()) {
        copy->newSeparateVlanTag(pkt.separateVlanTci(), pkt.separateVlanTpid());
    }
    return copy;
}

}  // namespace

void ArpWork::Timer::handleExpiry() {
    resolver_->wire()->run(
        [machine = resolver_, entry = Mox::Ptr(entry_)] { machine->handleTimer(entry.ptr()); });
}

void ArpResolver::start() {
    Mox::require(wire_->config.table->machines_.insert(wire_->config.ifIndex).second,
                 "one machine for an interface of a table");
    for (const auto& [address, mac] : permanent) {
        update(address);
    }
    for (const auto& [address, seconds] : refresh) {
        update(address);
    }
    for (const auto& [address, each] : nextHop) {
        update(address);
    }
}

void ArpResolver::stop() {
    wire_->config.table->machines_.erase(wire_->config.ifIndex);
    for (const Mox::Ptr<ArpEntry>& each : wire_->config.table->entry()) {
        if (each->work_->resolver == this) {
            remove(each);
        }
    }
}

Mox::Ptr<ArpEntry> ArpResolver::find(IpAddr address) const {
    return wire_->config.table->entry({wire_->config.ifIndex, address});
}

bool ArpResolver::isWanted(IpAddr address) const {
    return permanent.find(address) != nullptr || refreshSecondsOf(address).has_value();
}

// The shortest of the periods; 0 for none.
std::optional<double> ArpResolver::refreshSecondsOf(IpAddr address) const {
    const double* period = refresh.find(address);
    const Mox::Ptr<MonitoredNextHop>* monitored = nextHop.find(address);
    if (monitored == nullptr) {
        return period == nullptr ? std::nullopt : std::optional(*period);
    }
    const double seconds = (*monitored)->periodSeconds();
    return period == nullptr || *period == 0 ? seconds : std::min(*period, seconds);
}

Mox::Ptr<ArpEntry> ArpResolver::add(IpAddr address, bool isWanted) {
    if (!isWanted && !makeRoom()) {
        ++wire_->counters.tableFull;
        return nullptr;
    }
    const Mox::Ptr<ArpTable>& table = wire_->config.table;
    const ArpKey key(wire_->config.ifIndex, address);
    const auto entry = Mox::make<ArpEntry>(key);
    entry->work_ = std::make_unique<ArpWork>(wire_->config.timers, this, entry.ptr());
    entry->since_ = wire_->now();
    table->entry_.emplace(key, entry);
    wire_->later([table, key] { table->notify(ArpTable::entryAttr, key); });
    return entry;
}

bool ArpResolver::makeRoom() {
    ArpTable& table = *wire_->config.table;
    while (table.entries() >= table.maxEntries()) {
        if (table.removable_.empty()) {
            return false;
        }
        ++table.evictions_;
        remove(Mox::Ptr(table.removable_.front()));
    }
    return true;
}

// Also an entry of another machine, to make room.
void ArpResolver::remove(const Mox::Ptr<ArpEntry>& entry) {
    const Mox::Ptr<ArpTable>& table = wire_->config.table;
    dropQueue(entry.ptr());
    stateIs(entry.ptr(), ArpState::none, EthAddr());
    entry->work_.reset();
    table->entry_.erase(entry->key_);
    wire_->later([table, key = entry->key_] { table->notify(ArpTable::entryAttr, key); });
}

// Puts the entry at the end of those that may be removed, or takes it out.
void ArpResolver::updateRemovable(ArpEntry* entry) {
    auto& removable = wire_->config.table->removable_;
    ArpWork& work = *entry->work_;
    if (work.place) {
        removable.erase(*std::exchange(work.place, std::nullopt));
    }
    if ((entry->state_ == ArpState::stale || entry->state_ == ArpState::failed) &&
        !work.refreshSeconds) {
        work.place = removable.insert(removable.end(), entry);
    }
}

void ArpResolver::arm(ArpEntry* entry, double seconds) {
    entry->work_->timer.expiryIs(wire_->now() + seconds);
}

// Commits; the observers are notified when the operation is complete. Nobody knows a new entry yet.
void ArpResolver::stateIs(ArpEntry* entry, ArpState state, EthAddr mac) {
    const Mox::Ptr<ArpEntry> hold(entry);
    const bool isNew = entry->state_ == ArpState::none;
    if (std::exchange(entry->mac_, mac) != mac && !isNew) {
        wire_->later([hold] { hold->notify(ArpEntry::macAttr); });
    }
    if (std::exchange(entry->state_, state) != state) {
        entry->since_ = wire_->now();
        if (!isNew) {
            wire_->later([hold] { hold->notify(ArpEntry::stateAttr); });
        }
    }
    updateRemovable(entry);
    follow(*entry);
}

// A next hop is lost when it has failed, and back when it is confirmed: between that it is as it
// was.
void ArpResolver::follow(const ArpEntry& entry) {
    const Mox::Ptr<MonitoredNextHop> hop = entry.work_->nextHop;
    const bool isBack = entry.state_ == ArpState::reachable || entry.state_ == ArpState::permanent;
    const bool isLost = entry.state_ == ArpState::failed || entry.state_ == ArpState::none;
    if (!hop || !(isBack || isLost)) {
        return;
    }
    const bool isNewMac = isBack && std::exchange(hop->mac_, entry.mac_) != entry.mac_;
    if (std::exchange(hop->reachable_, isBack) != isBack) {
        hop->since_ = wire_->now();
        wire_->later([hop] { hop->notify(MonitoredNextHop::reachableAttr); });
        wire_->later([hop] { hop->notify(MonitoredNextHop::sinceAttr); });
    }
    if (isNewMac) {
        wire_->later([hop] { hop->notify(MonitoredNextHop::macAttr); });
    }
}

void ArpResolver::update(IpAddr address) {
    Mox::Ptr<ArpEntry> entry = find(address);
    if (!sm_->enabled_ || (!entry && !isWanted(address))) {
        return;
    }
    entry = entry ? entry : add(address, /*isWanted=*/true);
    ArpWork& work = *entry->work_;
    const Mox::Ptr<MonitoredNextHop>* hop = nextHop.find(address);
    work.nextHop = hop == nullptr ? nullptr : *hop;
    work.refreshSeconds = refreshSecondsOf(address);
    if (const EthAddr* mac = permanent.find(address)) {
        work.timer.expiryIs(Mox::Clock::idle);
        stateIs(entry.ptr(), ArpState::permanent, *mac);
        sendQueue(entry.ptr());
        return;
    }
    updateRemovable(entry.ptr());
    follow(*entry);
    if (entry->state_ == ArpState::reachable) {
        drawInterval(entry.ptr());
        work.timer.expiryIs(std::max(wire_->now(), entry->confirmedAt_ + work.intervalSeconds));
    } else if (!work.refreshSeconds) {
        if (entry->state_ == ArpState::failed) {
            work.timer.expiryIs(Mox::Clock::idle);
        }
    } else if (entry->state_ == ArpState::stale || entry->state_ == ArpState::delay) {
        beginProbing(entry.ptr(), entry->mac_);
    } else if (!hasMac(entry->state_) && entry->state_ != ArpState::incomplete) {
        beginResolving(entry.ptr());
    }
}

void ArpResolver::entryDel(IpAddr address) {
    if (const Mox::Ptr<ArpEntry> entry = find(address)) {
        remove(entry);
        update(address);
    }
}

Mox::Ptr<ArpEntry> ArpResolver::use(IpAddr address) {
    Mox::Ptr<ArpEntry> entry = find(address);
    entry = entry ? entry : add(address, /*isWanted=*/false);
    if (!entry) {
        return nullptr;
    }
    entry->usedAt_ = wire_->now();
    if (entry->state_ == ArpState::stale) {
        beginDelay(entry.ptr(), entry->mac_);
    } else if (entry->state_ == ArpState::none || entry->state_ == ArpState::failed) {
        beginResolving(entry.ptr());
    }
    return entry;
}

void ArpResolver::beginResolving(ArpEntry* entry) {
    entry->work_->asked = 0;
    stateIs(entry, ArpState::incomplete, EthAddr());
    ask(entry);
    arm(entry, wire_->settings.retransSeconds);
}

// Requests that have had no answer count also where another MAC comes meanwhile: it might
// change again and again.
void ArpResolver::beginProbing(ArpEntry* entry, EthAddr mac) {
    const bool isAsked = entry->state_ == ArpState::probe ||
                         (entry->state_ == ArpState::reachable && entry->work_->asked != 0);
    stateIs(entry, ArpState::probe, mac);
    if (!isAsked) {
        entry->work_->asked = 0;
        ask(entry);
        arm(entry, wire_->settings.retransSeconds);
    }
}

void ArpResolver::beginDelay(ArpEntry* entry, EthAddr mac) {
    stateIs(entry, ArpState::delay, mac);
    arm(entry, wire_->settings.delaySeconds);
}

void ArpResolver::ask(ArpEntry* entry) {
    const EthAddr dst = hasMac(entry->state_) ? entry->mac_ : EthAddr(0xffff, 0xffff, 0xffff);
    ++entry->requestsSent_;
    ++entry->work_->asked;
    wire_->sendRequest(claims_->sourceFor(entry->address()), entry->address(), dst);
}

void ArpResolver::askAgain(ArpEntry* entry, uint32_t limit) {
    if (entry->work_->asked >= limit) {
        fail(entry);
        return;
    }
    ask(entry);
    arm(entry, wire_->settings.retransSeconds);
}

void ArpResolver::fail(ArpEntry* entry) {
    ++wire_->counters.failures;
    dropQueue(entry);
    stateIs(entry, ArpState::failed, EthAddr());
    if (entry->work_->refreshSeconds) {
        handleTimer(entry);  // It may answer with another MAC.
    }
}

void ArpResolver::handleTimer(ArpEntry* entry) {
    const ArpSettings& settings = wire_->settings;
    switch (entry->state_) {
        case ArpState::incomplete:
            askAgain(entry, settings.broadcastRequests);
            break;
        case ArpState::reachable:
            handleReachableTimer(entry);
            break;
        case ArpState::delay:
            beginProbing(entry, entry->mac_);
            break;
        case ArpState::probe:
            askAgain(entry, settings.unicastRequests);
            break;
        case ArpState::failed: {  // It is refreshed.
            const double period = *entry->work_->refreshSeconds;
            ask(entry);
            // RFC 1122, 2.3.2.1: a broadcast request is not repeated faster.
            arm(entry, period == 0 ? settings.failedRetrySeconds
                                   : std::max(period, settings.retransSeconds));
            break;
        }
        case ArpState::none:
        case ArpState::stale:
        case ArpState::permanent:
            break;  // No timer runs.
    }
}

// A confirmation moves the time on without arming the timer anew.
void ArpResolver::handleReachableTimer(ArpEntry* entry) {
    const ArpWork& work = *entry->work_;
    const double until = entry->confirmedAt_ + work.intervalSeconds;
    if (work.asked == 0 && wire_->now() < until) {
        entry->work_->timer.expiryIs(until);
    } else if (work.refreshSeconds) {
        askAgain(entry, wire_->settings.unicastRequests);
    } else if (wire_->now() <= entry->usedAt_ + wire_->settings.delaySeconds) {
        beginDelay(entry, entry->mac_);
    } else {
        stateIs(entry, ArpState::stale, entry->mac_);
    }
}

// A refreshed entry is asked for early enough that all requests fit into the time.
void ArpResolver::drawInterval(ArpEntry* entry) {
    const ArpSettings& settings = wire_->settings;
    ArpWork& work = *entry->work_;
    const double good = settings.reachableSeconds * wire_->between(0.5, 1.5);
    work.intervalSeconds = good;
    if (work.refreshSeconds) {
        const double lead = settings.retransSeconds * settings.unicastRequests;
        work.intervalSeconds = std::max(good - lead, good / 2);
        if (*work.refreshSeconds != 0) {
            work.intervalSeconds = std::min(work.intervalSeconds, *work.refreshSeconds);
        }
    }
}

void ArpResolver::confirm(IpAddr address) {
    const Mox::Ptr<ArpEntry> entry = find(address);
    if (entry && hasMac(entry->state_) && entry->state_ != ArpState::permanent) {
        confirmed(entry.ptr(), entry->mac_);
    }
}

void ArpResolver::confirmed(ArpEntry* entry, EthAddr mac) {
    ArpWork& work = *entry->work_;
    entry->confirmedAt_ = wire_->now();
    const bool isOld = entry->state_ == ArpState::reachable && work.asked == 0;
    if (isOld && entry->mac_ == mac) {
        return;  // The timer will see it.
    }
    work.asked = 0;
    drawInterval(entry);
    arm(entry, work.intervalSeconds);
    stateIs(entry, ArpState::reachable, mac);
    sendQueue(entry);
}

void ArpResolver::learn(const SenderInfo& sender) {
    Mox::Ptr<ArpEntry> entry = find(sender.address);
    if (!entry && (!sender.mayAdd || !(entry = add(sender.address, /*isWanted=*/false)))) {
        return;
    }
    const bool isOther = hasMac(entry->state_) && entry->mac_ != sender.mac;
    const bool isLocked = wire_->now() < entry->updatedAt_ + wire_->settings.lockSeconds;
    if (entry->state_ == ArpState::permanent || (isOther && isLocked && !sender.isAnnouncement)) {
        return;
    }
    entry->updatedAt_ = wire_->now();
    if (sender.isConfirmation) {
        confirmed(entry.ptr(), sender.mac);
    } else if (!hasMac(entry->state_) || isOther) {
        unconfirmedMacIs(entry.ptr(), sender.mac);
    } else {
        updateRemovable(entry.ptr());  // It is the last to be removed now.
    }
}

// A MAC that nothing has confirmed yet.
void ArpResolver::unconfirmedMacIs(ArpEntry* entry, EthAddr mac) {
    if (entry->work_->refreshSeconds) {
        beginProbing(entry, mac);
    } else if (!entry->work_->queue.empty()) {
        beginDelay(entry, mac);
    } else {
        entry->work_->timer.expiryIs(Mox::Clock::idle);
        stateIs(entry, ArpState::stale, mac);
    }
    sendQueue(entry);
}

void ArpResolver::send(Mox::Ptr<Pkt> pkt, IpAddr neighbour, uint16_t etherType) {
    if (neighbour.isMulticast()) {
        transmit(std::move(pkt), neighbour.mcastEtherAddress(), etherType);
        return;
    }
    if (neighbour.isBroadcast()) {
        transmit(std::move(pkt), EthAddr(0xffff, 0xffff, 0xffff), etherType);
        return;
    }
    const Mox::Ptr<ArpEntry> entry = use(neighbour);
    if (!entry) {
        return;  // Counted as `tableFull`.
    }
    if (hasMac(entry->state_)) {
        transmit(std::move(pkt), entry->mac_, etherType);
    } else {
        enqueue(entry.ptr(), std::move(pkt), etherType);
    }
}

void ArpResolver::enqueue(ArpEntry* entry, Mox::Ptr<Pkt> pkt, uint16_t etherType) {
    if (pkt->references() != 1) {
        pkt = globalPktManager()->newShallowCopy(pkt);  // The caller may change its own meanwhile.
    }
    auto& queue = entry->work_->queue;
    queue.push_back({std::move(pkt), etherType});
    if (queue.size() > wire_->settings.maxQueuedPkts) {
        queue.erase(queue.begin());
        ++entry->queueDrops_;
        ++wire_->counters.queueDrops;
    }
}

void ArpResolver::sendQueue(ArpEntry* entry) {
    for (ArpWork::Waiting& each : std::exchange(entry->work_->queue, {})) {
        transmit(std::move(each.pkt), entry->mac_, each.etherType);
    }
}

void ArpResolver::dropQueue(ArpEntry* entry) {
    const auto dropped = static_cast<uint32_t>(std::exchange(entry->work_->queue, {}).size());
    entry->queueDrops_ += dropped;
    wire_->counters.queueDrops += dropped;
}

// The bytes that the caller's packets share are left alone: the header is private to this one.
void ArpResolver::transmit(Mox::Ptr<Pkt> pkt, EthAddr dst, uint16_t etherType) {
    if (pkt->references() != 1) {
        pkt = globalPktManager()->newShallowCopy(pkt);
    }
    if (pkt->firstIoVec() == 0 && pkt->frontBytes() + sizeof(EthHdr) > Pkt::privateAreaBytes) {
        pkt = copyWithHeadRoom(*pkt);
    }
    auto* header = reinterpret_cast<EthHdr*>(pkt->newPrivateHeadData(sizeof(EthHdr)));
    header->dstIs(dst);
    header->srcIs(wire_->config.mac);
    header->typeIs(etherType);
    wire_->send(std::move(pkt));
}

}  // namespace Pavo
