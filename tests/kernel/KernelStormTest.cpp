// Links, addresses, neighbours and routes that change as fast as ip(8) can change them.
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Pavo/KernelInfo.h"
#include "kernel/Followed.h"
#include "kernel/Shadow.h"
#include "support/Seeds.h"

namespace Pavo {
namespace {

using namespace PavoTest;

// Scripts for `ip -batch`, many of whose lines fail.
class Storm {
  public:
    explicit Storm(uint32_t seed) : random_(seed) {}

    static std::string setUp() {
        std::string script = "link add br0 type bridge\nlink set br0 up\n";
        for (int i = 0; i < links; ++i) {
            script += linkAdd(i);
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
                scripts.back() += other();
                scripts.emplace_back();
            }
        }
        scripts.push_back("link set lo mtu " + std::to_string(++lastMtu) + "\n");
        return scripts;
    }

    uint32_t lastMtu = 1280;  // Of lo, after all lines of the last script.

  private:
    static constexpr int links = 6;

    static std::string linkAdd(int i) {
        const std::string number = std::to_string(i);
        return "link add v" + number + " type veth peer name w" + number + "\nlink set w" + number +
               " up\nlink set v" + number + " up\naddress add 10.200." + number + ".1/24 dev v" +
               number + "\naddress add 10.201." + number + ".1/24 dev v" + number +
               "\naddress add 2001:db8:" + number + "::1/64 dev v" + number + " nodad\n";
    }
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }
    std::string number(uint32_t limit) { return std::to_string(below(limit)); }
    std::string anyOf(const std::vector<std::string>& texts) {
        return texts[below(static_cast<uint32_t>(texts.size()))];
    }

    std::string hop(bool isV6) {
        const std::string link = number(links);
        return (isV6 ? "via 2001:db8:" + link + "::" : "via 10.200." + link + ".") +
               std::to_string(2 + below(5));
    }
    std::string route(uint32_t routes) {
        const bool isV6 = below(4) == 0;
        const uint32_t prefix = below(isV6 ? routes / 8 + 1 : routes);
        // The kernel's dump of IPv6 passes over routes without a gateway that were added between
        // two next hops of a route of the same key, and ip(8) shows it so.
        const bool hasGateway = isV6 ? prefix % 4 != 0 : below(4) != 0;
        std::string line = isV6 ? "2001:" + std::to_string(prefix / 1000) + ":" +
                                      std::to_string(prefix % 1000) + "::/48"
                                : "10." + std::to_string(prefix / 256 % 190) + "." +
                                      std::to_string(prefix % 256) + ".0/24";
        line += anyOf({"", "", " metric 7", " table 100"}) + " ";
        if (hasGateway) {
            const std::string way = hop(isV6);
            line += anyOf({way, way, way, "nexthop " + way + " nexthop " + hop(isV6),
                           way + (isV6 ? "" : " src 10.201." + number(links) + ".1")});
        } else if (!isV6 || below(2) == 0) {
            line = "blackhole " + line;
        } else {
            line += "dev v" + number(links);
        }
        return "route " + anyOf({"add ", "add ", "replace ", "append ", "prepend ", "del "}) +
               line + "\n";
    }
    std::string other() {
        const std::string link = number(links);
        const std::string dev = " dev " + anyOf({"v", "w"}) + link;
        switch (below(9)) {
            case 0:
            case 1:
                return "link set v" + link + " " + anyOf({"up", "down", "up", "down", "mtu 1400"}) +
                       "\n";
            case 2:
                return "link set v" + link + " " +
                       anyOf({"master br0", "nomaster", "address 02:00:00:00:00:0" + link}) + "\n";
            case 3:
                return "link del v" + link + "\n" + linkAdd(static_cast<int>(below(links)));
            case 4:
                return "link set v" + link + " name x" + link + "\nlink set x" + number(links) +
                       " name v" + number(links) + "\n";
            case 5:
                return "address " + anyOf({"add", "del"}) + " 10.201." + link + ".1/24" +
                       anyOf({dev, " dev v" + link, " dev v" + number(links)}) + "\n";
            case 6:
                return "address " + anyOf({"add", "del"}) + " 2001:db8:f" + number(3) + "::1/64" +
                       dev + anyOf({"", " nodad"}) + "\n";
            default: {  // A batch ends where there is none to delete.
                const std::string neighbour =
                    anyOf({" 10.200." + link + ".", " 2001:db8::"}) + number(50) + dev;
                return "neigh replace" + neighbour +
                       " lladdr 02:00:00:00:01:" + std::to_string(10 + below(80)) +
                       " nud permanent\n" + anyOf({"", "neigh del" + neighbour + "\n"});
            }
        }
    }

    std::mt19937 random_;
};

uint32_t stormRoutes() {
    const char* const text = getenv("PAVO_STORM_ROUTES");
    return text == nullptr ? 2000 : static_cast<uint32_t>(strtoul(text, nullptr, 10));
}

class KernelStorm : public SandboxTest {
  protected:
    // Most lines of a storm may fail; some end their batch.
    static void batch(const std::string& netNs, const std::vector<std::string>& scripts) {
        for (const std::string& each : scripts) {
            std::ofstream("/run/storm") << each;
            try {
                run({"ip", "-n", netNs, "-force", "-batch", "/run/storm"});
            } catch (const std::runtime_error&) {
            }
        }
    }
};

// First the loop turns meanwhile, then it does not, so that a small socket overflows in any case.
// With a large one nothing is lost, and no dump corrects what was made of the messages.
TEST_F(KernelStorm, IsExactAfterAStorm) {
    for (const uint32_t seed : PavoTest::Seeds(3)) {
        const bool isLossy = seed % 2 == 1;
        Followed ns("storm", isLossy ? 4096 : 1 << 28);
        Shadow shadow(ns.info);
        batch(ns.netNs, {Storm::setUp()});
        ASSERT_TRUE(ns.isInSync());
        Storm storm(seed);
        std::atomic<bool> isOver = false;
        std::thread blowing([&, scripts = storm.scripts(stormRoutes() / 2)] {
            batch("storm", scripts);
            isOver = true;
        });
        reaches(
            ns.loop, [&] { return isOver.load(); }, /*tenths=*/6000);
        blowing.join();
        EXPECT_EQ(ns.difference(), "");
        EXPECT_EQ(ns.link("lo")->mtu(), storm.lastMtu);
        batch(ns.netNs, storm.scripts(stormRoutes() / 2));
        EXPECT_EQ(ns.difference(), "");
        EXPECT_EQ(ns.link("lo")->mtu(), storm.lastMtu);
        EXPECT_EQ(differenceOf(shadow.lines(), linesOf(*ns.info)), "");
        Shadow::Names names;
        for (const auto& [index, link] : ns.info->linkByIndex()) {
            names[link->name()] = index;
        }
        EXPECT_EQ(shadow.names, names);
        EXPECT_EQ(ns.session->overflows() > 0, isLossy);
        std::cout << ns.session->overflows() << " overflows, " << shadow.notifications
                  << " notifications, " << ns.info->routes()->members() << " routes\n";
    }
}

}  // namespace
}  // namespace Pavo
