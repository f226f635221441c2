// What the observers of the kernel's objects may do while they are notified.
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "Pavo/KernelInfo.h"
#include "Pavo/KernelRequests.h"
#include "support/RandomProgram.h"

namespace Pavo {
namespace {

// Messages and dumps at random, and observers that feed more of them, leave, close and drop what
// they observe, and throw.
struct ObserversWorld : PavoTest::RandomProgram {
    using RandomProgram::RandomProgram;

    // One that was dropped is made again. An observer may drop it, since nobody else holds it.
    KernelInfo* known() {
        if (!info) {
            info = kernelInfoFactory("known", nullptr);
            info->followsRoutesIs(true);
        }
        return info.ptr();
    }
    uint16_t anyTable() {
        const uint16_t tables[] = {RTM_GETLINK, RTM_GETADDR, RTM_GETNEIGH, RTM_GETROUTE};
        return any(tables);
    }
    void feed() {
        const uint16_t table = anyTable();
        NetlinkMessage message = messageOf(table, 1 + below(3));
        message.header()->nlmsg_type = static_cast<uint16_t>(table - 2 + below(3) / 2);
        message.header()->nlmsg_flags = oneIn(2) ? NLM_F_MULTI : 0;
        known()->callback(message.header());
    }
    NetlinkMessage messageOf(uint16_t table, uint32_t index) {
        const IpAddr address(0x0a000000 + below(3));
        if (table == RTM_GETLINK) {
            NetlinkMessage link = linkUpRequest(index, oneIn(2));
            link.attributeIs(IFLA_IFNAME, "v" + std::to_string(below(3)));
            return link;
        }
        if (table == RTM_GETADDR) {
            return addressAddRequest({{index, address}, 24, {}, {}, 0, below(2)});
        }
        if (table == RTM_GETNEIGH) {
            return neighbourReplaceRequest({index, address},
                                           EthAddr(0, 0, static_cast<uint16_t>(below(2))));
        }
        Route route;
        route.key.prefix = IpGenPrefix(IpGenAddr(address));
        route.hops.resize(1 + below(2), {IpGenAddr(address), index, 1, false});
        return routeAddRequest(route);
    }
    template <class T>
    void watch(const Mox::Ptr<T>& object) {
        watches.push_back(std::make_shared<Mox::Watch<T>>(
            object, Mox::allAttributes, [this](const Mox::Change&) { respond(); }));
    }
    void checkAtRest() {
        std::size_t named = 0;
        for (const auto& [index, link] : known()->linkByIndex()) {
            EXPECT_TRUE(link->exists());
            named += info->linkByName(link->name()) == link ? 1 : 0;
        }
        EXPECT_EQ(named, info->linkByName().members());
        uint32_t routes = 0;
        info->routes()->forEach([&](const Route& route) {
            ++routes;
            const auto all = info->routes()->route(route.key);
            EXPECT_NE(std::find(all.begin(), all.end(), route), all.end());
        });
        EXPECT_EQ(routes, info->routes()->members());
    }
    void run() {
        perform(
            {{{"message", [this] { feed(); }},
              {"another message", [this] { feed(); }},
              {"begin", [this] { known()->handleDumpBegin(anyTable()); }},
              {"end", [this] { known()->handleDumpEnd(anyTable()); }}},
             {{"watch", [this] { watch(Mox::Ptr<KernelInfo>(known())); }},
              {"watch routes", [this] { watch(Mox::Ptr<RouteTable>(known()->routes())); }},
              {"watch link", [this] { watch(known()->linkByIndex(1 + below(3))); }},
              {"leave", [this] { watches.clear(); }},
              {"drop", [this] { info = nullptr; }}}},
            [this] { feed(); }, [this] { checkAtRest(); });
    }

    Mox::Ptr<KernelInfo> info;
    std::vector<std::shared_ptr<void>> watches;
};

TEST(KernelInfoObservers, MayDoWhatTheyWant) {
    PavoTest::runPrograms(1000, PavoTest::runProgram<ObserversWorld>);
}

// Of two objects the first is deleted during a dump that names neither of them.
TEST(KernelInfo, ADumpThatWasDisturbedProvesNothingGone) {
    const auto info = kernelInfoFactory("known", nullptr);
    info->followsRoutesIs(true);
    const auto request = [](bool isRoute, uint16_t i) {
        const RouteKey key{IpGenPrefix(IpGenAddr(Ip6Addr(0x20010db800000000, i)))};
        return isRoute ? routeAddRequest({key, RTN_BLACKHOLE, RTPROT_STATIC, 0, {}, {}})
                       : neighbourReplaceRequest({1, IpAddr(i)}, EthAddr(0, 0, i));
    };
    for (const bool isRoute : {false, true}) {
        NetlinkMessage first = request(isRoute, 1);
        const uint16_t type = first.header()->nlmsg_type;
        info->callback(first.header());
        info->callback(request(isRoute, 2).header());
        first.header()->nlmsg_type = static_cast<uint16_t>(type + 1);
        for (const uint32_t left : {1u, 0u}) {  // Only the first dump is disturbed.
            info->handleDumpBegin(static_cast<uint16_t>(type + 2));
            left == 1 ? info->callback(first.header()) : void();
            info->handleDumpEnd(static_cast<uint16_t>(type + 2));
            EXPECT_EQ(info->neighbour().members() + info->routes()->members(), left);
        }
    }
}

}  // namespace
}  // namespace Pavo
