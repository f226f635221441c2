#include "Pavo/kernel/KernelInfo.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <utility>

#include "Pavo/base/FirstException.h"
#include "Pavo/kernel/NetlinkAttributes.h"
#include "Pavo/kernel/TableSync.h"

namespace Pavo {

namespace {

bool isFamilyKept(uint8_t family) {
    return family == AF_INET || family == AF_INET6;
}

}  // namespace

// The routes are followed by a follower of their own, so that they can be left alone.
struct KernelInfo::RouteFollower : NetlinkFollower {
    explicit RouteFollower(KernelInfo* owner) : info(owner) {}

    void callback(nlmsghdr* message) override { info->callback(message); }
    void handleDumpBegin(uint16_t getType) override { info->handleDumpBegin(getType); }
    void handleDumpEnd(uint16_t getType) override { info->handleDumpEnd(getType); }
    void handleDumpRefused(uint16_t getType, const NetlinkAnswer& answer) override {
        info->handleDumpRefused(getType, answer);
    }

    KernelInfo* const info;
};

// Objects that are in no collection any more, and of which nobody is notified yet.
struct KernelInfo::Gone {
    std::vector<Mox::Ptr<Neighbour>> neighbours;
    std::vector<Mox::Ptr<LinkAddress>> addresses;
    std::vector<Mox::Ptr<Link>> links;
    std::vector<Mox::String> names;
};

KernelInfo::KernelInfo(Mox::String name, Mox::Ptr<NetlinkSession> session, Mox::Clock* clock)
    : name_(std::move(name)),
      session_(std::move(session)),
      routes_(Mox::make<RouteTable>(name_)),
      routeFollower_(std::make_unique<RouteFollower>(this)),
      sync_(std::make_unique<TableSync>(session_, clock, this, routeFollower_.get())),
      sessionWatch_(session_, {NetlinkSession::enabledAttr, NetlinkSession::overflowsAttr},
                    [this](const Mox::Change&) { handleSession(); }) {}

KernelInfo::~KernelInfo() = default;

void KernelInfo::followsRoutesIs(bool follows) {
    if (follows == followsRoutes_) {
        return;
    }
    const Mox::Ptr<KernelInfo> hold(this);
    sync_->routesFollow(follows);
    followsRoutes_ = follows;
    FirstException thrown;
    thrown.collect([&] { syncIs(); });
    if (!follows) {
        thrown.collect([&] { routes_->clear(); });
    }
    thrown.collect([&] { notify(followsRoutesAttr); });
    thrown.rethrow();
}

void KernelInfo::close() {
    const Mox::Ptr<KernelInfo> hold(this);
    sessionWatch_ = {};
    sync_ = std::make_unique<TableSync>(nullptr, nullptr, this, nullptr);
    session_ = nullptr;
    Gone gone;
    while (links_.members() != 0) {
        take(uint32_t{links_.begin()->first}, &gone);
    }
    while (addresses_.members() != 0) {  // Of links that were not known.
        take(LinkAddressKey(addresses_.begin()->first), &gone);
    }
    while (neighbours_.members() != 0) {
        take(NeighbourKey(neighbours_.begin()->first), &gone);
    }
    FirstException thrown;
    thrown.collect([&] { syncIs(); });
    thrown.collect([&] { routes_->clear(); });
    thrown.collect([&] { announce(gone); });
    thrown.rethrow();
}

// In an overflow the session asks for dumps of all tables, after a while.
void KernelInfo::handleSession() {
    if (!session_->enabled() || !session_->isInSync()) {
        sync_->lost();
        syncIs();
    }
}

void KernelInfo::syncIs() {
    attributeIs(isInSync_, sync_->isInSync(), isInSyncAttr);
}

void KernelInfo::malformedInc() {
    attributeInc(malformedMessages_, 1, malformedMessagesAttr);
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
            if (followsRoutes_) {
                routes_->messageIs(*message);
            }
            break;
        default:
            break;
    }
}

void KernelInfo::handleDumpBegin(uint16_t getType) {
    const TableSync::Table table = TableSync::tableOf(getType);
    if (table == TableSync::none) {
        return;
    }
    sync_->dumpBegin(table);
    if (table == TableSync::neighbours) {
        isNeighbourDumpSure_ = true;
    } else if (table == TableSync::routes) {
        routes_->dumpBegin();
    }
    syncIs();
}

// The kernel lists neighbours and IPv6 routes by counting: when some came or went meanwhile, others
// may have been left out. Such a dump adds what it names but proves nothing gone.
void KernelInfo::handleDumpEnd(uint16_t getType) {
    const Mox::Ptr<KernelInfo> hold(this);
    const TableSync::Table table = TableSync::tableOf(getType);
    if (table == TableSync::none) {
        return;
    }
    FirstException thrown;
    bool isSure = table != TableSync::neighbours || isNeighbourDumpSure_;
    if (table == TableSync::routes) {
        thrown.collect([&] {
            isSure = false;
            routes_->dumpEnd(&isSure);
        });
    } else if (isSure) {
        thrown.collect([&] { sweep(table); });
    }
    sync_->dumpEnd(table, isSure);
    thrown.collect([&] { syncIs(); });
    thrown.rethrow();
}

// A table that this kernel does not have is empty.
void KernelInfo::handleDumpRefused(uint16_t getType, const NetlinkAnswer&) {
    handleDumpEnd(getType);
}

// The objects that a dump has not named.
template <class Key, class T>
void KernelInfo::takeUnseen(const Mox::Map<Key, Mox::Ptr<T>>& map, uint32_t generation,
                            Gone* gone) {
    std::vector<Key> keys;
    for (const auto& [key, object] : map) {
        if (object->generation_ != generation) {
            keys.push_back(key);
        }
    }
    for (const Key& each : keys) {
        take(each, gone);
    }
}

void KernelInfo::sweep(uint32_t table) {
    Gone gone;
    const uint32_t generation = sync_->generation(static_cast<TableSync::Table>(table));
    if (table == TableSync::links) {
        takeUnseen(links_, generation, &gone);
    } else if (table == TableSync::addresses) {
        takeUnseen(addresses_, generation, &gone);
    } else {
        takeUnseen(neighbours_, generation, &gone);
    }
    announce(gone);
}

void KernelInfo::handleLink(const nlmsghdr& message) {
    const auto* const body = netlinkBody<ifinfomsg>(message);
    const std::optional<Link::Facts> facts = linkFactsOf(message);
    if (facts && message.nlmsg_type == RTM_NEWLINK) {
        linkIs(*facts);
    } else if (facts) {
        linkDel(facts->index);
    } else if (body == nullptr || body->ifi_family == AF_UNSPEC) {
        malformedInc();
    }
}

void KernelInfo::linkIs(const Link::Facts& facts) {
    Mox::Ptr<Link> link = linkByIndex(facts.index);
    if (link && link->kind() != facts.kind) {  // Another one, which took the index.
        linkDel(facts.index);
        link = linkByIndex(facts.index);
    }
    if (!link) {
        linkAdd(facts);
        return;
    }
    link->generation_ = sync_->generation(TableSync::links);
    const bool wasUp = link->isUp();
    const Mox::String before = link->name();
    const uint64_t changed = link->commit(facts);
    link->isWithoutIp_ = link->isWithoutIp_ && (wasUp || !link->isUp());
    const bool isRenamed = before != facts.name && linkByName(before) == link && names_.del(before);
    const bool isNamed = names_.is(facts.name, link);
    FirstException thrown;
    thrown.collect([&] { link->announce(changed); });
    if (isRenamed) {
        thrown.collect([&] { notify(linkByNameAttr, before); });
    }
    if (isNamed) {
        thrown.collect([&] { notify(linkByNameAttr, facts.name); });
    }
    if (wasUp && (facts.flags & IFF_UP) == 0 && followsRoutes_) {
        thrown.collect([&] {
            routes_->linkDown(facts.index, [this](uint32_t index) { return isAlive(index); });
        });
    }
    thrown.rethrow();
}

void KernelInfo::linkAdd(const Link::Facts& facts) {
    const auto link = Mox::make<Link>(facts);
    link->generation_ = sync_->generation(TableSync::links);
    links_.is(facts.index, link);
    names_.is(facts.name, link);
    FirstException thrown;
    thrown.collect([&] { notify(linkByIndexAttr, facts.index); });
    thrown.collect([&] { notify(linkByNameAttr, facts.name); });
    thrown.rethrow();
}

void KernelInfo::linkDel(uint32_t index) {
    Gone gone;
    take(index, &gone);
    announce(gone);
}

void KernelInfo::handleAddress(const nlmsghdr& message) {
    const auto* const body = netlinkBody<ifaddrmsg>(message);
    const std::optional<LinkAddress::Facts> facts = linkAddressFactsOf(message);
    if (facts && message.nlmsg_type == RTM_NEWADDR) {
        addressIs(*facts);
    } else if (facts) {
        addressDel(facts->key);
    } else if (body == nullptr || isFamilyKept(body->ifa_family)) {
        malformedInc();
    }
}

void KernelInfo::addressIs(const LinkAddress::Facts& facts) {
    if (const auto known = address(facts.key)) {
        known->generation_ = sync_->generation(TableSync::addresses);
        known->announce(known->commit(facts));
        return;
    }
    const auto made = Mox::make<LinkAddress>(facts);
    made->generation_ = sync_->generation(TableSync::addresses);
    addresses_.is(facts.key, made);
    if (const auto link = linkByIndex(made->ifIndex()); link && made->address().af() == ipv4) {
        link->isWithoutIp_ = false;
    }
    notify(addressesAttr, facts.key);
}

void KernelInfo::addressDel(const LinkAddressKey& key) {
    Gone gone;
    take(key, &gone);
    announce(gone);
}

void KernelInfo::handleNeighbour(const nlmsghdr& message) {
    const auto* const body = netlinkBody<ndmsg>(message);
    const std::optional<Neighbour::Facts> facts = neighbourFactsOf(message);
    if (facts && message.nlmsg_type == RTM_NEWNEIGH) {
        neighbourIs(*facts, (message.nlmsg_flags & NLM_F_MULTI) != 0);
    } else if (facts) {
        neighbourDel(facts->key);
    } else if (body == nullptr ||
               (isFamilyKept(body->ndm_family) && (body->ndm_flags & NTF_PROXY) == 0)) {
        malformedInc();
    }
}

void KernelInfo::neighbourIs(const Neighbour::Facts& facts, bool isOfDump) {
    if (const auto known = neighbour(facts.key)) {
        known->generation_ = sync_->generation(TableSync::neighbours);
        known->announce(known->commit(facts));
        return;
    }
    isNeighbourDumpSure_ = isNeighbourDumpSure_ && isOfDump;
    const auto made = Mox::make<Neighbour>(facts);
    made->generation_ = sync_->generation(TableSync::neighbours);
    neighbours_.is(facts.key, made);
    notify(neighboursAttr, facts.key);
}

void KernelInfo::neighbourDel(const NeighbourKey& key) {
    isNeighbourDumpSure_ = false;
    Gone gone;
    take(key, &gone);
    announce(gone);
}

void KernelInfo::take(const LinkAddressKey& key, Gone* gone) {
    if (const auto object = address(key)) {
        object->exists_ = false;
        addresses_.del(key);
        gone->addresses.push_back(object);
    }
}

void KernelInfo::take(const NeighbourKey& key, Gone* gone) {
    if (const auto object = neighbour(key)) {
        object->exists_ = false;
        neighbours_.del(key);
        gone->neighbours.push_back(object);
    }
}

// With what is on the link.
void KernelInfo::take(uint32_t index, Gone* gone) {
    const Mox::Ptr<Link> link = linkByIndex(index);
    if (!link) {
        return;
    }
    for (auto it = neighbours_.lowerBound({index, {}});
         it != neighbours_.end() && it->first.ifIndex == index;
         it = neighbours_.lowerBound({index, {}})) {
        take(NeighbourKey(it->first), gone);
    }
    for (auto it = addresses_.lowerBound({index, {}});
         it != addresses_.end() && it->first.ifIndex == index;
         it = addresses_.lowerBound({index, {}})) {
        take(LinkAddressKey(it->first), gone);
    }
    link->exists_ = false;
    links_.del(index);
    if (linkByName(link->name()) == link) {
        names_.del(link->name());
        gone->names.push_back(link->name());
    }
    gone->links.push_back(link);
}

// Children before their parents; each is in no collection any more.
void KernelInfo::announce(const Gone& gone) {
    const Mox::Ptr<KernelInfo> hold(this);
    FirstException thrown;
    const auto each = [&](const auto& object, const auto& attribute, const auto& key) {
        thrown.collect([&] { object->announceEnd(); });
        thrown.collect([&] { notify(attribute, key); });
    };
    for (const auto& link : gone.links) {
        thrown.collect([&] { routes_->linkGone(link->index()); });
    }
    for (const auto& address : gone.addresses) {
        thrown.collect([&] { routesLoseAddress(*address); });
    }
    for (const auto& neighbour : gone.neighbours) {
        each(neighbour, neighboursAttr, neighbour->key());
    }
    for (const auto& address : gone.addresses) {
        each(address, addressesAttr, address->key());
    }
    for (const auto& link : gone.links) {
        each(link, linkByIndexAttr, link->index());
    }
    for (const Mox::String& name : gone.names) {
        thrown.collect([&] { notify(linkByNameAttr, name); });
    }
    thrown.rethrow();
}

// An IPv4 address may be on several links: routes keep it as their source until the last one goes.
// Without any IPv4 address, a link loses its IPv4 routes.
void KernelInfo::routesLoseAddress(const LinkAddress& address) {
    if (routes_->members() == 0) {
        return;
    }
    const uint32_t ifIndex = address.ifIndex();
    const uint32_t table = tableOf(ifIndex);
    bool isElsewhere = false;
    bool hasOther = false;
    for (const auto& [key, each] : addresses_) {
        isElsewhere =
            isElsewhere || (key.address == address.address() && tableOf(key.ifIndex) == table);
        hasOther = hasOther || (key.ifIndex == ifIndex && key.address.af() == ipv4);
    }
    const bool isV4 = address.address().af() == ipv4;
    const Mox::Ptr<Link> link = linkByIndex(ifIndex);
    if (isV4 && !hasOther && link) {
        link->isWithoutIp_ = true;
        routes_->linkWithoutIp(ifIndex, [this](uint32_t index) { return isAlive(index); });
    }
    if (!isV4 || !isElsewhere) {
        routes_->addressGone(address.address(), ifIndex, table);
    }
}

// Whether the kernel counts on next hops over the link.
bool KernelInfo::isAlive(uint32_t ifIndex) const {
    const Mox::Ptr<Link> link = linkByIndex(ifIndex);
    return link && link->isUp() && !link->isWithoutIp_;
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

Mox::Ptr<KernelInfo> kernelInfoFactory(Mox::String name, Mox::Ptr<NetlinkSession> session,
                                       Mox::Clock* clock) {
    return Mox::make<KernelInfo>(std::move(name), std::move(session), clock);
}

}  // namespace Pavo
