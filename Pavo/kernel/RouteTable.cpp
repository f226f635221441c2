#include "Pavo/kernel/RouteTable.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "Mox/Ptr.h"

#include "Pavo/base/FirstException.h"
#include "Pavo/kernel/NetlinkAttributes.h"
#include "Pavo/kernel/RouteStore.h"

namespace Pavo {

namespace {

// The messages of one family. `*read` is used again, so that the next hops of a route take memory
// only once.
template <class Address>
bool apply(RouteStore<Address>* store, ReadRoute<Address>* read, const nlmsghdr& message,
           std::vector<RouteKey>* changes) {
    const RouteMessage kind = readRoute(message, read);
    if (kind != RouteMessage::route) {
        return kind == RouteMessage::other;
    }
    if (message.nlmsg_type == RTM_DELROUTE) {
        store->del(*read, changes);
    } else if ((message.nlmsg_flags & NLM_F_MULTI) != 0) {
        store->dumpItem(*read, changes);
    } else {
        store->add(*read, message.nlmsg_flags, changes);
    }
    return true;
}

template <class Address>
void collect(const RouteStore<Address>& store, const Address& prefix, const RouteKey& key,
             std::vector<Route>* routes) {
    RouteRecord<Address> record{};
    record.prefix = prefix;
    record.len = static_cast<uint8_t>(key.prefix.len());
    record.table = key.table;
    record.metric = key.metric;
    record.tos = key.tos;
    store.forKey(record, [&](const auto& each, const auto& hops) {
        routes->push_back(routeOf(each, hops));
    });
}

}  // namespace

struct RouteTable::Stores {
    RouteStore<IpAddr> v4;
    RouteStore<Ip6Addr> v6;
    ReadRoute<IpAddr> read4;
    ReadRoute<Ip6Addr> read6;
};

RouteTable::RouteTable(Mox::String name)
    : name_(std::move(name)), stores_(std::make_unique<Stores>()) {}

RouteTable::~RouteTable() = default;

uint32_t RouteTable::members() const {
    return stores_->v4.members() + stores_->v6.members();
}

uint64_t RouteTable::memoryBytes() const {
    return stores_->v4.memoryBytes() + stores_->v6.memoryBytes();
}

std::vector<Route> RouteTable::route(const RouteKey& key) const {
    std::vector<Route> routes;
    if (key.prefix.af() == ipv4) {
        collect(stores_->v4, key.prefix.ipGenAddr().v4Addr(), key, &routes);
    } else if (key.prefix.af() == ipv6) {
        collect(stores_->v6, key.prefix.ipGenAddr().v6Addr(), key, &routes);
    }
    return routes;
}

void RouteTable::forEach(const std::function<void(const Route&)>& call) const {
    const auto convert = [&](const auto& record, const auto& hops) { call(routeOf(record, hops)); };
    stores_->v4.forEach(convert);
    stores_->v6.forEach(convert);
}

bool RouteTable::messageIs(const nlmsghdr& message) {
    const auto* const body = netlinkBody<rtmsg>(message);
    bool isSound = body != nullptr;
    if (body != nullptr && body->rtm_family == AF_INET) {
        isSound = apply(&stores_->v4, &stores_->read4, message, changes());
    } else if (body != nullptr && body->rtm_family == AF_INET6) {
        isSound = apply(&stores_->v6, &stores_->read6, message, changes());
    }
    announce();
    return isSound;
}

void RouteTable::dumpBegin(bool isAgain) {
    stores_->v4.dumpBegin(isAgain);
    stores_->v6.dumpBegin(isAgain);
}

bool RouteTable::dumpEnd() {
    const bool isSure4 = stores_->v4.dumpEnd(changes());
    const bool isSure6 = stores_->v6.dumpEnd(changes());
    announce();
    return isSure4 && isSure6;
}

bool RouteTable::mayUseSource(const IpGenAddr& address) const {
    return address.af() == ipv4   ? stores_->v4.mayUseSource(address.v4Addr())
           : address.af() == ipv6 ? stores_->v6.mayUseSource(address.v6Addr())
                                  : false;
}

void RouteTable::linkDown(uint32_t ifIndex, const IsAlive& isAlive) {
    const auto isAlive4 = [&](uint32_t other) { return isAlive(other, ipv4); };
    stores_->v4.linkDown(ifIndex, isAlive4, /*hasAddress=*/true, changes());
    linkWithoutIp6(ifIndex, isAlive);
}

void RouteTable::linkWithoutIp6(uint32_t ifIndex, const IsAlive& isAlive) {
    const auto isAlive6 = [&](uint32_t other) { return isAlive(other, ipv6); };
    stores_->v6.linkDown(ifIndex, isAlive6, /*hasAddress=*/true, changes());
    announce();
}

void RouteTable::linkWithoutIp(uint32_t ifIndex, const IsAlive& isAlive) {
    const auto isAlive4 = [&](uint32_t other) { return isAlive(other, ipv4); };
    stores_->v4.linkDown(ifIndex, isAlive4, /*hasAddress=*/false, changes());
    announce();
}

void RouteTable::linkGone(uint32_t ifIndex) {
    stores_->v4.linkGone(ifIndex, changes());
    stores_->v6.linkGone(ifIndex, changes());
    announce();
}

void RouteTable::addressGone(const IpGenAddr& address, uint32_t table) {
    if (address.af() == ipv4) {
        stores_->v4.addressGone(address.v4Addr(), table, changes());
    } else if (address.af() == ipv6) {
        stores_->v6.addressGone(address.v6Addr(), table, changes());
    }
    announce();
}

void RouteTable::clear() {
    stores_->v4.clear(changes());
    stores_->v6.clear(changes());
    announce();
}

// Nobody needs the keys of a first dump that nobody observes.
std::vector<RouteKey>* RouteTable::changes() {
    return notifieeList()->empty() ? nullptr : &changed_;
}

// A sweep may remove several routes of a key.
void RouteTable::announce() {
    if (changed_.empty()) {
        return;
    }
    const Mox::Ptr<RouteTable> hold(this);
    std::vector<RouteKey> changed = std::exchange(changed_, {});
    if (changed.size() > 1) {
        std::sort(changed.begin(), changed.end());
        changed.erase(std::unique(changed.begin(), changed.end()), changed.end());
    }
    FirstException exception;
    for (const RouteKey& each : changed) {
        exception.collect([&] { notify(routeAttr, each); });
    }
    if (changed_.empty()) {  // The next ones need no memory of their own.
        changed.clear();
        changed_.swap(changed);
    }
    exception.rethrow();
}

}  // namespace Pavo
