/// @file
/// What the kernel knows of a namespace, as entities that follow it.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <memory>

#include "Mox/Collections.h"
#include "Mox/Entity.h"
#include "Mox/Lifetime.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"

#include "Pavo/base/Export.h"
#include "Pavo/kernel/Link.h"
#include "Pavo/kernel/LinkAddress.h"
#include "Pavo/kernel/Neighbour.h"
#include "Pavo/kernel/NetlinkSession.h"
#include "Pavo/kernel/RouteTable.h"

namespace Pavo {

class DumpTrust;
class KernelInfoMgr;

/// The links, addresses, neighbours and, on request, routes of a network namespace. It follows the
/// tables of a session, and holds an entity for each object.
///
/// Each message is applied as a whole before observers are notified of it: of a link that goes,
/// first its routes, neighbours and addresses, then the link. A message about a link that took the
/// index of another one ends that one first. When the session has lost messages, it dumps the
/// tables again, and observers are notified of the differences only: an object that is unchanged
/// stays the same entity and notifies nobody.
///
/// The kernel lists neighbours and IPv6 routes by counting, so that a dump during which some of
/// them went may lack others. It is then made again, after at least as much time as it took, until
/// it is less likely than one in a million that all dumps lack the same one: a few times where some
/// go in each second, and without end only where hundreds go during each datagram of a dump.
///
/// While it is notified, an observer may do what `NotifieeList` says, and with the session what it
/// wants.
///
/// Without a session it is fed by hand through the functions of `NetlinkFollower`, as tests do, and
/// in sync. Objects that outlive it stay as they were seen last; the objects of a namespace that
/// `KernelInfoMgr` follows end with the namespace.
class PAVO_EXPORT KernelInfo : public Mox::EntityOf<KernelInfo>, public NetlinkFollower {
  public:
    static constexpr Mox::Attribute<KernelInfo> isInSyncAttr{0, "isInSync"};
    static constexpr Mox::Attribute<KernelInfo> followsRoutesAttr{1, "followsRoutes"};
    static constexpr Mox::Attribute<KernelInfo> malformedMessagesAttr{2, "malformedMessages"};
    static constexpr Mox::Attribute<KernelInfo, uint32_t> linkByIndexAttr{3, "linkByIndex"};
    static constexpr Mox::Attribute<KernelInfo, Mox::String> linkByNameAttr{4, "linkByName"};
    static constexpr Mox::Attribute<KernelInfo, LinkAddressKey> addressAttr{5, "address"};
    static constexpr Mox::Attribute<KernelInfo, NeighbourKey> neighbourAttr{6, "neighbour"};
    static constexpr auto description() {
        return Mox::classRecord(
            "Pavo::KernelInfo", Mox::attribute(isInSyncAttr, &KernelInfo::isInSync),
            Mox::attribute(followsRoutesAttr, &KernelInfo::followsRoutes),
            Mox::attribute(malformedMessagesAttr, &KernelInfo::malformedMessages),
            Mox::attribute(linkByIndexAttr), Mox::attribute(linkByNameAttr),
            Mox::attribute(addressAttr), Mox::attribute(neighbourAttr));
    }

    /// Follows the session, which may be enabled or not; null for nothing.
    /// @throws Mox::ErrnoException as `NetlinkSession::followIs`; nothing is then followed.
    KernelInfo(Mox::String name, Mox::Ptr<NetlinkSession> session);
    ~KernelInfo() override;

    Mox::String name() const override { return name_; }
    /// As it was made with. Requests go through it, such as those of `KernelRequests.h`.
    const Mox::Ptr<NetlinkSession>& session() const MOX_LIFETIME_BOUND { return session_; }

    /// All followed tables are as the kernel's, but for messages that are on their way: what
    /// `NetlinkSession::isInSync` says. False before the first dumps are complete, from an overflow
    /// until the fresh dumps are complete, and while the session is disabled; objects then stay as
    /// they were seen last.
    bool isInSync() const { return isInSync_; }
    /// Whether `routes()` is followed; at first it is not, and is empty.
    bool followsRoutes() const { return followsRoutes_; }
    /// Switched off, the table is emptied.
    /// @throws Mox::ErrnoException as `NetlinkSession::followIs`; nothing is then changed.
    void followsRoutesIs(bool follows);
    /// Messages about links, addresses, neighbours and routes that were not understood, without
    /// those of families and aspects that are not kept.
    uint32_t malformedMessages() const { return malformedMessages_; }

    /// All links. A link is notified when it comes and when it goes.
    const Mox::Map<uint32_t, Mox::Ptr<Link>>& linkByIndex() const MOX_LIFETIME_BOUND {
        return links_.objects;
    }
    /// The link, or null.
    Mox::Ptr<Link> linkByIndex(uint32_t index) const { return found(links_.objects, index); }
    /// All links by their present names. Notified when a name stands for another link, or for none,
    /// as for both names of a link that is renamed.
    const Mox::Map<Mox::String, Mox::Ptr<Link>>& linkByName() const MOX_LIFETIME_BOUND {
        return names_;
    }
    /// The link, or null.
    Mox::Ptr<Link> linkByName(const Mox::String& name) const { return found(names_, name); }

    /// All addresses, those of a link one after the other.
    const Mox::Map<LinkAddressKey, Mox::Ptr<LinkAddress>>& address() const MOX_LIFETIME_BOUND {
        return addresses_.objects;
    }
    /// The address, or null.
    Mox::Ptr<LinkAddress> address(const LinkAddressKey& key) const {
        return found(addresses_.objects, key);
    }
    /// All neighbours, those of a link one after the other.
    const Mox::Map<NeighbourKey, Mox::Ptr<Neighbour>>& neighbour() const MOX_LIFETIME_BOUND {
        return neighbours_.objects;
    }
    /// The neighbour, or null.
    Mox::Ptr<Neighbour> neighbour(const NeighbourKey& key) const {
        return found(neighbours_.objects, key);
    }
    /// The same object for life.
    const Mox::Ptr<RouteTable>& routes() const MOX_LIFETIME_BOUND { return routes_; }

    void callback(nlmsghdr* message) override;
    void handleDumpBegin(uint16_t getType) override;
    bool handleDumpEnd(uint16_t getType) override;
    void handleDumpAgain(uint16_t getType) override;

  private:
    friend class KernelInfoMgr;
    struct Removed;

    // The objects of a table of the kernel.
    template <class Key, class T>
    struct Table {
        Mox::Map<Key, Mox::Ptr<T>> objects;
        uint32_t generation = 0;  // The number of the last dump that began.
    };

    template <class Key, class T>
    static Mox::Ptr<T> found(const Mox::Map<Key, Mox::Ptr<T>>& map, const Key& key) {
        const auto* const value = map.find(key);
        return value == nullptr ? nullptr : *value;
    }

    // Leaves the session, and ends all objects in order: routes, neighbours and addresses, links.
    void close();
    void handleSync() {
        if (session_) {
            attributeIs(isInSync_, session_->isInSync(), isInSyncAttr);
        }
    }
    void malformedInc() { attributeInc(malformedMessages_, 1, malformedMessagesAttr); }

    void linkIs(const Link::Properties& properties);
    void linkAdd(const Link::Properties& properties);
    void linkChange(const Mox::Ptr<Link>& link, const Link::Properties& properties);
    void addressIs(const LinkAddress::Properties& properties);
    void neighbourIs(const Neighbour::Properties& properties, bool isOfDump);
    void handleLink(const nlmsghdr& message);
    void handleAddress(const nlmsghdr& message);
    void handleNeighbour(const nlmsghdr& message);

    template <class Key, class T>
    void delUnseen(const Table<Key, T>& table);
    template <class Key>
    void del(const Key& key);
    template <class Key, class T>
    void removeAll(const Table<Key, T>& table, uint32_t ifIndex, Removed* removed);
    void remove(const LinkAddressKey& key, Removed* removed);
    void remove(const NeighbourKey& key, Removed* removed);
    void remove(uint32_t index, Removed* removed);
    void announce(const Removed& removed);
    void routesOfAddressDel(const LinkAddress& address);
    // Says whether the kernel uses next hops over a link.
    auto isAlive() const {
        return [this](uint32_t ifIndex, AddressFamily family) {
            const Mox::Ptr<Link> link = linkByIndex(ifIndex);
            return link && link->isUp() && (family == ipv6 || !link->isWithoutIp_);
        };
    }
    uint32_t tableOf(uint32_t ifIndex) const;

    Mox::String name_;
    Mox::Ptr<NetlinkSession> session_;
    bool isInSync_;
    bool followsRoutes_ = false;
    uint32_t malformedMessages_ = 0;
    Table<uint32_t, Link> links_;
    Mox::Map<Mox::String, Mox::Ptr<Link>> names_;
    Table<LinkAddressKey, LinkAddress> addresses_;
    Table<NeighbourKey, Neighbour> neighbours_;
    std::unique_ptr<DumpTrust> neighbourTrust_;
    Mox::Ptr<RouteTable> routes_;
    Mox::Watch<NetlinkSession> sessionWatch_;
};

/// Follows `session`; see the constructor.
PAVO_EXPORT Mox::Ptr<KernelInfo> kernelInfoFactory(Mox::String name,
                                                   Mox::Ptr<NetlinkSession> session);

}  // namespace Pavo
