/// @file
/// The routes of a namespace.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "Mox/Entity.h"
#include "Mox/String.h"

#include "Pavo/base/Export.h"
#include "Pavo/kernel/Route.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

class KernelInfo;

/// All routes of a namespace, of all tables and both families, as messages of the kernel describe
/// them. `KernelInfo` has one and passes the messages to it.
///
/// The table is made for a million routes: an IPv4 route takes about 45 bytes and an IPv6 route
/// about 80, without memory of its own unless it has several next hops. Routes are therefore no
/// entities: an observer is notified with the key of the routes that changed, or their order, and
/// reads them here. The table is complete and consistent whenever observers are notified, and they
/// may read it.
///
/// Some changes are not announced by the kernel. Routes that go with their link, when it is set
/// down, deleted or left without an IPv4 address, or with their preferred source, are removed here
/// by the kernel's own rules.
///
/// Routes over next-hop objects (ip-nexthop(8)) that change or go are correct only after the next
/// dump. So is, where another process than the kernel adds the routes of router advertisements, one
/// of these that is replaced by a route of the same metric. Preferred sources of IPv6 routes may be
/// wrong until then, after such an address or a next hop went. Of two equal IPv6 routes one may be
/// missing after a dump during which routes were added.
class PAVO_EXPORT RouteTable : public Mox::EntityOf<RouteTable> {
  public:
    static constexpr Mox::Attribute<RouteTable, RouteKey> routeAttr{0, "route"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::RouteTable", Mox::attribute(routeAttr));
    }

    explicit RouteTable(Mox::String name);
    ~RouteTable() override;

    Mox::String name() const override { return name_; }

    /// How many routes there are.
    uint32_t members() const;
    /// The memory that they take.
    uint64_t memoryBytes() const;
    /// The routes with that key, in the kernel's order, of which it uses the first; most keys have
    /// one route.
    std::vector<Route> route(const RouteKey& key) const;
    /// Calls `call` for each route, in no order. `call` must not turn the event loop, which may
    /// change the table.
    void forEach(const std::function<void(const Route&)>& call) const;

  private:
    friend class KernelInfo;
    struct Stores;
    using IsAlive = std::function<bool(uint32_t ifIndex, AddressFamily family)>;

    // A message of the type RTM_NEWROUTE or RTM_DELROUTE, of a dump (NLM_F_MULTI) or not. Returns
    // false for a malformed one.
    bool messageIs(const nlmsghdr& message);
    // A dump begins: all routes follow, until `dumpEnd`. With `isAgain` it makes up for what the
    // one before may have left out.
    void dumpBegin(bool isAgain);
    // The routes that did not come since `dumpBegin` are removed. With false they were not, since
    // routes were deleted during the dump, which may then have skipped others: see `DumpTrust`.
    bool dumpEnd();
    // A link was set down. `isAlive` says of other links whether their next hops are used.
    void linkDown(uint32_t ifIndex, const IsAlive& isAlive);
    // A link does not carry IPv6 any more, since its MTU is too small.
    void linkWithoutIp6(uint32_t ifIndex, const IsAlive& isAlive);
    // False when no route that may go with an address has it as its source.
    bool mayUseSource(const IpGenAddr& address) const;
    // A link has lost its last IPv4 address.
    void linkWithoutIp(uint32_t ifIndex, const IsAlive& isAlive);
    // A link was deleted.
    void linkGone(uint32_t ifIndex);
    // An address was deleted that no other link has. The IPv4 routes of the link are in `table`.
    void addressGone(const IpGenAddr& address, uint32_t table);
    // Removes all.
    void clear();

    std::vector<RouteKey>* changes();
    void announce();

    Mox::String name_;
    std::unique_ptr<Stores> stores_;
    std::vector<RouteKey> changed_;
};

}  // namespace Pavo
