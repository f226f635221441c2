#include "Pavo/kernel/KernelInfo.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "Pavo/base/FirstException.h"
#include "Pavo/kernel/DumpTrust.h"
#include "Pavo/kernel/NetlinkAttributes.h"

namespace Pavo {

namespace {

constexpr uint32_t minMtuOfIp6 = 1280;  // RFC 8200, 5.

bool isFamilyKept(uint8_t family) {
    return family == AF_INET || family == AF_INET6;
}

}  // namespace

// Objects that are in no collection any more, and whose observers are not notified yet.
struct KernelInfo::Removed {
    std::vector<Mox::Ptr<Neighbour>> neighbours;
    std::vector<Mox::Ptr<LinkAddress>> addresses;
    std::vector<Mox::Ptr<Link>> links;
    std::vector<Mox::String> names;
    std::vector<uint32_t> withoutIp;  // Links that have lost their last IPv4 address.
};

KernelInfo::KernelInfo(Mox::String name, Mox::Ptr<NetlinkSession> session)
    : name_(std::move(name)),
      session_(std::move(session)),
      isInSync_(session_ == nullptr),
      neighbourTrust_(std::make_unique<DumpTrust>()),
      routes_(Mox::make<RouteTable>(name_)) {
    if (session_ == nullptr) {
        return;
    }
    try {
        session_->followIs(RTM_GETLINK, {RTNLGRP_LINK}, this);
        session_->followIs(RTM_GETADDR, {RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR}, this);
        session_->followIs(RTM_GETNEIGH, {RTNLGRP_NEIGH}, this);
        sessionWatch_ = Mox::Watch<NetlinkSession>(session_, NetlinkSession::isInSyncAttr,
                                                   [this](const Mox::Change&) { handleSync(); });
    } catch (...) {
        session_->followDel(this);
        throw;
    }
}

KernelInfo::~KernelInfo() {
    if (session_) {
        session_->followDel(this);
    }
}

void KernelInfo::followsRoutesIs(bool follows) {
    if (follows == followsRoutes_) {
        return;
    }
    const Mox::Ptr<KernelInfo> hold(this);
    if (session_ && follows) {
        session_->followIs(RTM_GETROUTE, {RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_ROUTE}, this);
    } else if (session_) {
        session_->followDel(this, RTM_GETROUTE);
    }
    followsRoutes_ = follows;
    FirstException exception;
    exception.collect([&] { handleSync(); });
    if (!follows) {
        exception.collect([&] { routes_->clear(); });
    }
    exception.collect([&] { notify(followsRoutesAttr); });
    exception.rethrow();
}

void KernelInfo::close() {
    const Mox::Ptr<KernelInfo> hold(this);
    sessionWatch_ = {};
    if (session_) {
        session_->followDel(this);
        session_ = nullptr;
    }
    Removed removed;
    while (links_.objects.members() != 0) {
        remove(uint32_t{links_.objects.begin()->first}, &removed);
    }
    while (addresses_.objects.members() != 0) {  // Of links that were not known.
        removeAll(addresses_, addresses_.objects.begin()->first.ifIndex, &removed);
    }
    while (neighbours_.objects.members() != 0) {
        removeAll(neighbours_, neighbours_.objects.begin()->first.ifIndex, &removed);
    }
    FirstException exception;
    exception.collect([&] { attributeIs(isInSync_, false, isInSyncAttr); });
    exception.collect([&] { routes_->clear(); });
    exception.collect([&] { announce(removed); });
    exception.rethrow();
}

void KernelInfo::callback(nlmsghdr* message) {
    const Mox::Ptr<KernelInfo> hold(this);
    switch (message->nlmsg_type) {
        case RTM_NEWLINK:
        case RTM_DELLINK:
            handleLink(*message);
            break;
        case RTM_NEWADDR:
        case RTM_DELADDR:
            handleAddress(*message);
            break;
        case RTM_NEWNEIGH:
        case RTM_DELNEIGH:
            handleNeighbour(*message);
            break;
        case RTM_NEWROUTE:
        case RTM_DELROUTE:
            if (followsRoutes_ && !routes_->messageIs(*message)) {
                malformedInc();
            }
            break;
        default:
            break;
    }
}

void KernelInfo::handleDumpBegin(uint16_t getType) {
    switch (getType) {
        case RTM_GETLINK:
            ++links_.generation;
            break;
        case RTM_GETADDR:
            ++addresses_.generation;
            break;
        case RTM_GETNEIGH:
            ++neighbours_.generation;
            neighbourTrust_->begin(/*isAgain=*/false);
            break;
        case RTM_GETROUTE:
            routes_->dumpBegin(/*isAgain=*/false);
            break;
        default:
            break;
    }
}

// The generation stays, so that what was named before counts as named.
void KernelInfo::handleDumpAgain(uint16_t getType) {
    if (getType == RTM_GETNEIGH) {
        neighbourTrust_->begin(/*isAgain=*/true);
    } else if (getType == RTM_GETROUTE) {
        routes_->dumpBegin(/*isAgain=*/true);
    }
}

bool KernelInfo::handleDumpEnd(uint16_t getType) {
    const Mox::Ptr<KernelInfo> hold(this);
    switch (getType) {
        case RTM_GETLINK:
            delUnseen(links_);
            return true;
        case RTM_GETADDR:
            delUnseen(addresses_);
            return true;
        case RTM_GETNEIGH:
            if (!neighbourTrust_->end(neighbours_.objects.members())) {
                return false;
            }
            delUnseen(neighbours_);
            return true;
        case RTM_GETROUTE:
            return routes_->dumpEnd();
        default:
            return true;
    }
}

// The objects that no dump of the generation has named.
template <class Key, class T>
void KernelInfo::delUnseen(const Table<Key, T>& table) {
    std::vector<Key> keys;
    for (const auto& [key, object] : table.objects) {
        if (object->generation_ != table.generation) {
            keys.push_back(key);
        }
    }
    Removed removed;
    for (const Key& each : keys) {
        remove(each, &removed);
    }
    announce(removed);
}

template <class Key>
void KernelInfo::del(const Key& key) {
    Removed removed;
    remove(key, &removed);
    announce(removed);
}

void KernelInfo::handleLink(const nlmsghdr& message) {
    const auto* const body = netlinkBody<ifinfomsg>(message);
    const std::optional<Link::Properties> properties = Link::read(message);
    if (properties && message.nlmsg_type == RTM_NEWLINK) {
        linkIs(*properties);
    } else if (properties) {
        del(properties->index);
    } else if (body == nullptr || body->ifi_family == AF_UNSPEC) {
        malformedInc();
    }
}

// Where the observers of the end of another link close this, nothing is added.
void KernelInfo::linkIs(const Link::Properties& properties) {
    const Mox::Ptr<Link> link = linkByIndex(properties.index);
    if (link && link->kind() == properties.kind) {
        linkChange(link, properties);
        return;
    }
    const Mox::Ptr<NetlinkSession> session = session_;
    FirstException exception;
    exception.collect([&] { del(properties.index); });
    if (session_ == session && linkByIndex(properties.index) == nullptr) {
        exception.collect([&] { linkAdd(properties); });
    }
    exception.rethrow();
}

void KernelInfo::linkChange(const Mox::Ptr<Link>& link, const Link::Properties& properties) {
    link->generation_ = links_.generation;
    const bool wasUp = link->isUp();
    const bool hadIp6 = link->mtu() >= minMtuOfIp6;
    const Mox::String before = link->name();
    const uint64_t changed = link->commit(properties);
    link->isWithoutIp_ = link->isWithoutIp_ && (wasUp || !link->isUp());
    const bool isRenamed =
        before != properties.name && linkByName(before) == link && names_.del(before);
    const bool isNamed = names_.is(properties.name, link);
    FirstException exception;
    exception.collect([&] { link->announce(changed); });
    if (isRenamed) {
        exception.collect([&] { notify(linkByNameAttr, before); });
    }
    if (isNamed) {
        exception.collect([&] { notify(linkByNameAttr, properties.name); });
    }
    if (wasUp && (properties.flags & IFF_UP) == 0) {
        exception.collect([&] { routes_->linkDown(properties.index, isAlive()); });
    } else if (hadIp6 && properties.mtu < minMtuOfIp6) {
        exception.collect([&] { routes_->linkWithoutIp6(properties.index, isAlive()); });
    }
    exception.rethrow();
}

void KernelInfo::linkAdd(const Link::Properties& properties) {
    const auto link = Mox::make<Link>(properties);
    link->generation_ = links_.generation;
    links_.objects.is(properties.index, link);
    names_.is(properties.name, link);
    FirstException exception;
    exception.collect([&] { notify(linkByIndexAttr, properties.index); });
    exception.collect([&] { notify(linkByNameAttr, properties.name); });
    exception.rethrow();
}

void KernelInfo::handleAddress(const nlmsghdr& message) {
    const auto* const body = netlinkBody<ifaddrmsg>(message);
    const std::optional<LinkAddress::Properties> properties = LinkAddress::read(message);
    if (properties && message.nlmsg_type == RTM_NEWADDR) {
        addressIs(*properties);
    } else if (properties) {
        del(properties->key);
    } else if (body == nullptr || isFamilyKept(body->ifa_family)) {
        malformedInc();
    }
}

void KernelInfo::addressIs(const LinkAddress::Properties& properties) {
    if (const auto known = address(properties.key)) {
        known->generation_ = addresses_.generation;
        known->announce(known->commit(properties));
        return;
    }
    const auto made = Mox::make<LinkAddress>(properties);
    made->generation_ = addresses_.generation;
    addresses_.objects.is(properties.key, made);
    if (const auto link = linkByIndex(made->ifIndex()); link && made->address().af() == ipv4) {
        link->isWithoutIp_ = false;
    }
    notify(addressAttr, properties.key);
}

void KernelInfo::handleNeighbour(const nlmsghdr& message) {
    const auto* const body = netlinkBody<ndmsg>(message);
    const std::optional<Neighbour::Properties> properties = Neighbour::read(message);
    if (properties && message.nlmsg_type == RTM_NEWNEIGH) {
        neighbourIs(*properties, (message.nlmsg_flags & NLM_F_MULTI) != 0);
    } else if (properties) {
        neighbourTrust_->deleted();
        del(properties->key);
    } else if (body == nullptr ||
               (isFamilyKept(body->ndm_family) && (body->ndm_flags & NTF_PROXY) == 0)) {
        malformedInc();
    }
}

void KernelInfo::neighbourIs(const Neighbour::Properties& properties, bool isOfDump) {
    if (const auto known = neighbour(properties.key)) {
        known->generation_ = neighbours_.generation;
        known->announce(known->commit(properties));
        return;
    }
    isOfDump ? void() : neighbourTrust_->deleted();  // It may take the place of one.
    const auto made = Mox::make<Neighbour>(properties);
    made->generation_ = neighbours_.generation;
    neighbours_.objects.is(properties.key, made);
    notify(neighbourAttr, properties.key);
}

// A link without any IPv4 address loses its IPv4 routes.
void KernelInfo::remove(const LinkAddressKey& key, Removed* removed) {
    const auto object = address(key);
    if (!object) {
        return;
    }
    object->exists_ = false;
    addresses_.objects.del(key);
    removed->addresses.push_back(object);
    const Mox::Ptr<Link> link = linkByIndex(key.ifIndex);
    const auto next = addresses_.objects.lowerBound({key.ifIndex, {}});  // IPv4 comes first.
    const bool hasIp = next != addresses_.objects.end() && next->first.ifIndex == key.ifIndex &&
                       next->first.address.af() == ipv4;
    if (link && key.address.af() == ipv4 && !hasIp) {
        link->isWithoutIp_ = true;
        removed->withoutIp.push_back(key.ifIndex);
    }
}

void KernelInfo::remove(const NeighbourKey& key, Removed* removed) {
    if (const auto object = neighbour(key)) {
        object->exists_ = false;
        neighbours_.objects.del(key);
        removed->neighbours.push_back(object);
    }
}

// With what is on the link.
void KernelInfo::remove(uint32_t index, Removed* removed) {
    const Mox::Ptr<Link> link = linkByIndex(index);
    if (!link) {
        return;
    }
    removeAll(neighbours_, index, removed);
    removeAll(addresses_, index, removed);
    link->exists_ = false;
    links_.objects.del(index);
    if (linkByName(link->name()) == link) {
        names_.del(link->name());
        removed->names.push_back(link->name());
    }
    removed->links.push_back(link);
}

// All of a link.
template <class Key, class T>
void KernelInfo::removeAll(const Table<Key, T>& table, uint32_t ifIndex, Removed* removed) {
    const Key first{ifIndex, {}};
    for (auto it = table.objects.lowerBound(first);
         it != table.objects.end() && it->first.ifIndex == ifIndex;
         it = table.objects.lowerBound(first)) {
        remove(Key(it->first), removed);
    }
}

// Children before their parents; each is in no collection any more.
void KernelInfo::announce(const Removed& removed) {
    const Mox::Ptr<KernelInfo> hold(this);
    FirstException exception;
    const auto each = [&](const auto& object, const auto& attribute, const auto& key) {
        exception.collect([&] { object->announceEnd(); });
        exception.collect([&] { notify(attribute, key); });
    };
    for (const auto& link : removed.links) {
        exception.collect([&] { routes_->linkGone(link->index()); });
    }
    for (const uint32_t index : removed.withoutIp) {
        exception.collect([&] { routes_->linkWithoutIp(index, isAlive()); });
    }
    for (const auto& address : removed.addresses) {
        exception.collect([&] { routesOfAddressDel(*address); });
    }
    for (const auto& neighbour : removed.neighbours) {
        each(neighbour, neighbourAttr, neighbour->key());
    }
    for (const auto& address : removed.addresses) {
        each(address, addressAttr, address->key());
    }
    for (const auto& link : removed.links) {
        each(link, linkByIndexAttr, link->index());
    }
    for (const Mox::String& name : removed.names) {
        exception.collect([&] { notify(linkByNameAttr, name); });
    }
    exception.rethrow();
}

// An address may be on several links: routes keep it as their source until the last one goes, of
// IPv4 the last one of their table. IPv6 addresses that go since their link is set down or deleted
// stay the sources of routes over other links.
void KernelInfo::routesOfAddressDel(const LinkAddress& address) {
    const Mox::Ptr<Link> own = linkByIndex(address.ifIndex());
    const bool goesWithLink = address.address().af() == ipv6 && !(own && own->isUp());
    if (goesWithLink || !routes_->mayUseSource(address.address())) {
        return;
    }
    const uint32_t table = tableOf(address.ifIndex());
    const auto hasAddress = [&](const auto& link) {
        const auto it = addresses_.objects.lowerBound({link.first, address.address()});
        return it != addresses_.objects.end() && it->first.ifIndex == link.first &&
               it->first.address == address.address() &&
               (it->first.address.af() == ipv6 || tableOf(link.first) == table);
    };
    if (std::none_of(links_.objects.begin(), links_.objects.end(), hasAddress)) {
        routes_->addressGone(address.address(), table);
    }
}

// A link of a VRF has the VRF's table.
uint32_t KernelInfo::tableOf(uint32_t ifIndex) const {
    const Mox::Ptr<Link> link = linkByIndex(ifIndex);
    const Mox::Ptr<Link> master = link ? linkByIndex(link->master()) : nullptr;
    const uint32_t table = link && link->vrfTable() != 0 ? link->vrfTable()
                           : master                      ? master->vrfTable()
                                                         : 0;
    return table != 0 ? table : uint32_t{RT_TABLE_MAIN};
}

Mox::Ptr<KernelInfo> kernelInfoFactory(Mox::String name, Mox::Ptr<NetlinkSession> session) {
    return Mox::make<KernelInfo>(std::move(name), std::move(session));
}

}  // namespace Pavo
