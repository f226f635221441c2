/// @file
/// Which tables of a namespace are in sync with the kernel.
#pragma once

#include <cstdint>
#include <optional>

#include "Mox/Clock.h"
#include "Mox/Ptr.h"

#include "Pavo/kernel/NetlinkSession.h"

namespace Pavo {

/// Follows tables of a session, and asks for another dump of those whose last one cannot be
/// trusted: after 10 ms, and after twice the time before, up to 1 s, until one can.
class TableSync {
  public:
    enum Table : uint32_t { links, addresses, neighbours, routes, none };

    /// The table with this type of request, RTM_GETLINK and the like; `none` for another one.
    static Table tableOf(uint16_t getType);

    /// Follows all but the routes. The routes have a follower of their own, so that they can be
    /// left alone. Without a session nothing is followed.
    TableSync(Mox::Ptr<NetlinkSession> session, Mox::Clock* clock, NetlinkFollower* follower,
              NetlinkFollower* routeFollower);
    ~TableSync();
    TableSync(const TableSync&) = delete;
    TableSync& operator=(const TableSync&) = delete;

    void routesFollow(bool follows);

    /// Nothing is pending.
    bool isInSync() const { return pending_ == 0; }
    /// The number of the last dump that began.
    uint32_t generation(Table table) const { return generations_[table]; }

    void dumpBegin(Table table);
    /// With false, the dump may have left objects out.
    void dumpEnd(Table table, bool isSure);
    /// No table is in sync any more, and the session dumps them again.
    void lost();

  private:
    void follow(Table table);
    void dumpAgain();

    Mox::Ptr<NetlinkSession> session_;
    Mox::Clock* clock_;
    NetlinkFollower* follower_;
    NetlinkFollower* routeFollower_;
    uint32_t followed_;      // Tables, as bits.
    uint32_t pending_;       // Those that are not in sync.
    uint32_t askAgain_ = 0;  // Those whose last dump cannot be trusted.
    double waitSeconds_;     // For the next time of asking again.
    uint32_t generations_[none] = {};
    std::optional<Mox::Timer> timer_;
};

}  // namespace Pavo
