// What the observers of the kernel's objects may do while they are notified.
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Pavo/KernelInfo.h"
#include "Pavo/KernelRequests.h"
#include "support/Seeds.h"

namespace Pavo {
namespace {

// Messages and dumps at random, and observers that feed more of them, leave, close and drop what
// they observe, and throw.
class Chaos {
  public:
    struct Thrown {};

    explicit Chaos(uint32_t seed) : random_(seed) {}

    void run() {
        for (int step = 0; step < 60; ++step) {
            if (!info_) {
                info_ = kernelInfoFactory("chaos", nullptr, nullptr);
                info_->followsRoutesIs(true);
            }
            watch();
            budget_ = 5;
            try {
                feed();
            } catch (const Thrown&) {
            }
            check();
        }
    }

  private:
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }

    // Nobody holds the entity but the member, which an observer may drop.
    void feed() {
        KernelInfo* const info = info_.ptr();
        const uint16_t tables[] = {RTM_GETLINK, RTM_GETADDR, RTM_GETNEIGH, RTM_GETROUTE};
        const uint16_t table = tables[below(4)];
        switch (below(6)) {
            case 0:
                return info->handleDumpBegin(table);
            case 1:
                return info->handleDumpEnd(table);
            default: {
                NetlinkMessage message = messageOf(table, 1 + below(3));
                message.header()->nlmsg_type = static_cast<uint16_t>(table - 2 + below(3) / 2);
                message.header()->nlmsg_flags = below(2) == 0 ? NLM_F_MULTI : 0;
                return info->callback(message.header());
            }
        }
    }
    NetlinkMessage messageOf(uint16_t table, uint32_t index) {
        const IpAddr address(0x0a000000 + below(3));
        if (table == RTM_GETLINK) {
            NetlinkMessage link = linkUpRequest(index, below(2) == 0);
            link.attributeIs(IFLA_IFNAME, "v" + std::to_string(below(3)));
            return link;
        }
        if (table == RTM_GETADDR) {
            return addressAddRequest({{index, address}, 24, {}, {}, 0, below(2)});
        }
        if (table == RTM_GETNEIGH) {
            return neighbourRequest({index, address},
                                    EthAddr(0, 0, static_cast<uint16_t>(below(2))));
        }
        Route route;
        route.key.prefix = IpGenPrefix(IpGenAddr(address));
        route.hops.resize(1 + below(2), {IpGenAddr(address), index, 1, false});
        return routeAddRequest(route);
    }
    void react() {
        if (budget_-- <= 0) {
            return;
        }
        switch (below(12)) {
            case 0:
                info_ = nullptr;
                break;
            case 1:
                watches_.clear();
                break;
            case 2:
                throw Thrown();
            case 3:
                info_ ? info_->close() : void();
                break;
            case 4:
            case 5:
                info_ ? feed() : void();
                break;
            default:
                break;
        }
    }
    void watch() {
        const auto reaction = [this](const Mox::Change&) { react(); };
        if (below(2) == 0) {
            watches_.push_back(
                std::make_shared<Mox::Watch<KernelInfo>>(info_, Mox::allAttributes, reaction));
            watches_.push_back(std::make_shared<Mox::Watch<RouteTable>>(
                info_->routes(), Mox::allAttributes, reaction));
        }
        if (const auto link = info_->linkByIndex(1 + below(3))) {
            watches_.push_back(
                std::make_shared<Mox::Watch<Link>>(link, Mox::allAttributes, reaction));
        }
    }
    void check() {
        if (!info_) {
            watches_.clear();
            return;
        }
        std::size_t named = 0;
        for (const auto& [index, link] : info_->linkByIndex()) {
            EXPECT_TRUE(link->exists());
            named += info_->linkByName(link->name()) == link ? 1 : 0;
        }
        EXPECT_EQ(named, info_->linkByName().members());
        uint32_t routes = 0;
        info_->routes()->forEach([&](const Route& route) {
            ++routes;
            const auto known = info_->routes()->routes(route.key);
            EXPECT_EQ(std::count(known.begin(), known.end(), route), 1);
        });
        EXPECT_EQ(routes, info_->routes()->members());
    }

    std::mt19937 random_;
    Mox::Ptr<KernelInfo> info_;
    std::vector<std::shared_ptr<void>> watches_;
    int budget_ = 0;
};

TEST(KernelInfoObservers, MayDoWhatTheyWant) {
    for (const uint32_t seed : PavoTest::Seeds(300)) {
        const uint32_t objects = Mox::liveObjects();
        std::make_unique<Chaos>(seed)->run();
        EXPECT_EQ(Mox::liveObjects(), objects);
    }
}

}  // namespace
}  // namespace Pavo
