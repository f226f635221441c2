// Links, addresses, neighbours and routes that change as fast as ip(8) can change them.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Pavo/KernelInfo.h"
#include "Pavo/LinkHandle.h"
#include "kernel/Followed.h"
#include "support/Seeds.h"

namespace Pavo {
namespace {

using namespace PavoTest;

// Scripts for `ip -batch`, many of whose lines fail.
class Storm {
  public:
    explicit Storm(uint32_t seed) : random_(seed) {}

    std::string setUp() {
        std::string script = "link add br0 type bridge\nlink set br0 up\n";
        for (uint32_t link = 0; link < links; ++link) {
            script += filled(linkAdd, link);
        }
        return script;
    }
    // Routes, and among them a hundred changes of what they depend on. A batch ends with each of
    // these, since ip(8) keeps the names of links that it has met.
    std::vector<std::string> scripts(uint32_t routes) {
        std::vector<std::string> scripts(1);
        for (uint32_t i = 0; i < routes; ++i) {
            scripts.back() += route(routes);
            if (below(routes) < 100) {
                scripts.back() += filled(anyOf(changes), below(links));
                scripts.emplace_back();
            }
        }
        scripts.push_back("link set lo mtu " + std::to_string(++lastMtu) + "\n");
        return scripts;
    }

    uint32_t lastMtu = 1280;  // Of lo, after all lines of the last script.

  private:
    static constexpr uint32_t links = 6;
    // '#' is the number of a link, '@' that of any, '$' a digit that is the same in all places.
    static constexpr const char* linkAdd =
        "link add v# type veth peer name w#\nlink set w# up\nlink set v# up\n"
        "address add 10.200.#.1/24 dev v#\naddress add 10.201.#.1/24 dev v#\n"
        "address add 2001:db8:#::1/64 dev v# nodad";
    using Texts = std::vector<std::string>;
    static inline const Texts changes = {
        "link set v# up", "link set v# up", "link set v# down", "link set v# down",
        "link set v# mtu 1400", "link set v# master br0", "link set v# nomaster",
        "link set v# address 02:00:00:00:00:0#", std::string("link del v@\n") + linkAdd,
        std::string("link del v#\n") + linkAdd, "link set v# name x#\nlink set x@ name v@",
        "link set v# name x#\nlink set x# name v@", "address add 10.201.#.1/24 dev v#",
        "address add 10.201.#.1/24 dev w@", "address del 10.201.#.1/24 dev v#",
        "address del 10.201.#.1/24 dev v@", "address add 2001:db8:f#::1/64 dev v@ nodad",
        "address add 2001:db8:f#::1/64 dev w@", "address del 2001:db8:f#::1/64 dev v@",
        "neigh replace 10.200.#.1$ lladdr 02:00:00:00:01:$@ dev v# nud permanent",
        "neigh replace 2001:db8::$ lladdr 02:00:00:00:01:$@ dev w# nud permanent",
        // A batch ends where there is none to delete.
        "neigh replace 10.200.#.2$ lladdr 02:00:00:00:01:$@ dev v# nud permanent\n"
        "neigh del 10.200.#.2$ dev v#\nneigh del 10.200.#.1$ dev v#"};
    // '%' is the prefix.
    static inline const Texts ways4 = {
        "% via 10.200.@.1@", "% via 10.200.@.1@", "% via 10.200.#.1@ src 10.201.#.1",
        "% nexthop via 10.200.@.1@ nexthop via 10.200.@.1@", "blackhole %"};
    // Without preferred sources: see RouteTable.h.
    static inline const Texts ways6 = {"% via 2001:db8:@::@",
                                       "% nexthop via 2001:db8:@::@ nexthop via 2001:db8:@::@"};
    static inline const Texts ways6WithoutGateway = {"% dev v@", "blackhole %"};

    uint32_t below(std::size_t limit) { return static_cast<uint32_t>(random_() % limit); }
    const std::string& anyOf(const Texts& texts) { return texts[below(texts.size())]; }
    std::string filled(std::string text, uint32_t link) {
        const uint32_t digit = below(10);
        for (char& each : text) {
            const uint32_t number = each == '#' ? link : each == '$' ? digit : below(links);
            each = std::strchr("#@$", each) != nullptr ? static_cast<char>('0' + number) : each;
        }
        return text + "\n";
    }
    std::string route(uint32_t routes) {
        const uint32_t number = below(routes);
        std::string prefix = "10." + std::to_string(number / 256 % 190) + "." +
                             std::to_string(number % 256) + ".0/24";
        const Texts* ways = &ways4;
        if (below(4) == 0) {
            prefix = "2001:" + std::to_string(number / 8) + "::/48";
            // The kernel's dump of IPv6 passes over routes without a gateway that were added
            // between two next hops of a route of the same key, and ip(8) shows it so.
            ways = number / 8 % 4 == 0 ? &ways6WithoutGateway : &ways6;
        }
        std::string way = filled(anyOf(*ways), below(links));
        way.replace(way.find('%'), 1, prefix + anyOf({"", "", " metric 7", " table 100"}));
        return "route " + anyOf({"add ", "add ", "replace ", "append ", "prepend ", "del "}) + way;
    }

    std::mt19937 random_;
};

uint32_t stormRoutes() {
    const char* const text = getenv("PAVO_STORM_ROUTES");
    return text == nullptr ? 2000 : static_cast<uint32_t>(strtoul(text, nullptr, 10));
}

// Most lines of a storm may fail; some end their batch.
void batch(const std::string& netNs, const std::vector<std::string>& scripts) {
    for (const std::string& each : scripts) {
        std::ofstream("/run/storm") << each;
        try {
            run({"ip", "-n", netNs, "-force", "-batch", "/run/storm"});
        } catch (const std::runtime_error&) {
        }
    }
}

using KernelStorm = SandboxTest;

// First the loop turns meanwhile, then it does not, so that a small socket overflows in any case.
// With a large one nothing is lost, and no dump corrects what was made of the messages.
TEST_F(KernelStorm, IsExactAfterAStorm) {
    for (const uint32_t seed : PavoTest::Seeds(3)) {
        const bool isLossy = seed % 2 == 1;
        Followed ns("storm", isLossy ? 4096 : 1 << 28);
        std::vector<Mox::Ptr<LinkHandle>> handles;
        for (const char* name :
             {"lo", "v0", "v1", "v2", "v3", "v4", "v5", "w0", "w1", "x0", "x1"}) {
            handles.push_back(linkFactory(ns.info, name));
        }
        Storm storm(seed);
        batch(ns.netNs, {storm.setUp()});
        ASSERT_EQ(ns.difference(), "");
        std::atomic<bool> isOver = false;
        std::thread blowing([&, scripts = storm.scripts(stormRoutes() / 2)] {
            batch("storm", scripts);
            isOver = true;
        });
        const auto isBlown = [&] {
            EXPECT_TRUE(ns.session->isInSync() || !ns.info->isInSync());
            return isOver.load();
        };
        EXPECT_TRUE(turnsUntil(ns.loop, isBlown, /*seconds=*/600));
        blowing.join();
        EXPECT_EQ(ns.difference(), "");
        batch(ns.netNs, storm.scripts(stormRoutes() / 2));
        EXPECT_EQ(ns.difference(), "");
        EXPECT_EQ(ns.link("lo")->mtu(), storm.lastMtu);
        for (const auto& handle : handles) {
            EXPECT_EQ(handle->link(), ns.info->linkByName(handle->name())) << handle->name();
        }
        EXPECT_EQ(ns.session->overflows() > 0, isLossy);
    }
}

}  // namespace
}  // namespace Pavo
