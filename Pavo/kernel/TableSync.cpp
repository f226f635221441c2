#include "Pavo/kernel/TableSync.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace Pavo {

namespace {

constexpr double leastSeconds = 0.01;
constexpr double mostSeconds = 1;

struct About {
    uint16_t getType;
    std::vector<uint32_t> groups;
};

// By the number of the table.
const About& aboutOf(uint32_t table) {
    static const About all[] = {{RTM_GETLINK, {RTNLGRP_LINK}},
                                {RTM_GETADDR, {RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR}},
                                {RTM_GETNEIGH, {RTNLGRP_NEIGH}},
                                {RTM_GETROUTE, {RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_ROUTE}}};
    return all[table];
}

constexpr uint32_t bitOf(uint32_t table) {
    return 1u << table;
}

}  // namespace

TableSync::Table TableSync::tableOf(uint16_t getType) {
    for (const Table each : {links, addresses, neighbours, routes}) {
        if (aboutOf(each).getType == getType) {
            return each;
        }
    }
    return none;
}

TableSync::TableSync(Mox::Ptr<NetlinkSession> session, Mox::Clock* clock, NetlinkFollower* follower,
                     NetlinkFollower* routeFollower)
    : session_(std::move(session)),
      clock_(clock),
      follower_(follower),
      routeFollower_(routeFollower),
      followed_(bitOf(links) | bitOf(addresses) | bitOf(neighbours)),
      pending_(followed_),
      waitSeconds_(leastSeconds) {
    if (session_) {
        timer_.emplace(clock_, [this] { dumpAgain(); });
        try {
            for (const Table each : {links, addresses, neighbours}) {
                follow(each);
            }
        } catch (...) {
            session_->followDel(follower_);
            throw;
        }
    }
}

TableSync::~TableSync() {
    if (session_) {
        session_->followDel(follower_);
        session_->followDel(routeFollower_);
    }
}

void TableSync::routesFollow(bool follows) {
    if (follows) {
        follow(routes);
        followed_ |= bitOf(routes);
        pending_ |= bitOf(routes);
        return;
    }
    followed_ &= ~bitOf(routes);
    pending_ &= ~bitOf(routes);
    askAgain_ &= ~bitOf(routes);
    if (session_) {
        session_->followDel(routeFollower_);
    }
}

void TableSync::dumpBegin(Table table) {
    ++generations_[table];
    askAgain_ &= ~bitOf(table);
    pending_ |= bitOf(table) & followed_;
}

void TableSync::dumpEnd(Table table, bool isSure) {
    if (isSure) {
        pending_ &= ~bitOf(table);
        waitSeconds_ = askAgain_ == 0 ? leastSeconds : waitSeconds_;
        return;
    }
    askAgain_ |= bitOf(table);
    if (timer_ && timer_->isIdle()) {
        timer_->expiryIs(clock_->now() + waitSeconds_);
        waitSeconds_ = std::min(2 * waitSeconds_, mostSeconds);
    }
}

void TableSync::lost() {
    pending_ = followed_;
}

// To follow again what is followed is to ask for a dump.
void TableSync::follow(Table table) {
    if (session_) {
        const About& about = aboutOf(table);
        session_->followIs(about.getType, about.groups,
                           table == routes ? routeFollower_ : follower_);
    }
}

void TableSync::dumpAgain() {
    const uint32_t again = std::exchange(askAgain_, 0u);
    for (const Table each : {neighbours, routes}) {
        if ((again & bitOf(each)) != 0) {
            follow(each);
        }
    }
}

}  // namespace Pavo
