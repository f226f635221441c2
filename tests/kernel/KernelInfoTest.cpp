#include "Pavo/KernelInfo.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Pavo/KernelInfoMgr.h"
#include "Pavo/KernelRequests.h"
#include "Pavo/LinkHandle.h"
#include "kernel/Followed.h"

namespace Pavo {
namespace {

using namespace PavoTest;

class KernelInfoTest : public SandboxTest {};

// Whether a line says that something has come or gone, by its kind and what identifies it.
using Comings = std::map<std::string, std::string>;  // "+-+" for what came, went and came.

// Further messages about what is there, or gone, are no change here.
void note(Comings* comings, const std::string& what, bool isThere) {
    std::string& signs = (*comings)[what];
    const char sign = isThere ? '+' : '-';
    if (signs.empty() || signs.back() != sign) {
        signs += sign;
    }
}

// Reads `ip -o monitor label`, as in "[ADDR]Deleted 3: v0    inet 10.0.0.1/24 scope global ...".
Comings comingsOf(std::istream& log) {
    Comings comings;
    for (std::string line; std::getline(log, line);) {
        const std::string kind = line.substr(0, line.find(']') + 1);
        std::istringstream words(line.substr(kind.size()));
        std::vector<std::string> word{std::istream_iterator<std::string>(words), {}};
        const bool isGone = !word.empty() && word[0] == "Deleted";
        word.erase(word.begin(), word.begin() + (isGone ? 1 : 0));
        if (kind == "[LINK]") {
            note(&comings, "link " + word.at(0), !isGone);
        } else if (kind == "[ADDR]") {
            note(&comings, "address " + word.at(0) + word.at(3).substr(0, word.at(3).find('/')),
                 !isGone);
        } else if (kind == "[NEIGH]" && word.at(0) != "dev") {  // Those have no IP address.
            note(&comings, "neighbour " + word.at(0), !isGone);
        } else if (kind == "[ROUTE]") {
            const bool hasType = word.at(0).find_first_of(".:") == std::string::npos;
            note(&comings, "route " + word.at(hasType ? 1 : 0), !isGone);
        }
    }
    return comings;
}

// The same from observers.
struct Monitor {
    explicit Monitor(KernelInfo& info)
        : links(&info, KernelInfo::linkByIndexAttr,
                [&](uint32_t index) {
                    note(&comings, "link " + std::to_string(index) + ":",
                         info.linkByIndex(index) != nullptr);
                }),
          addresses(&info, KernelInfo::addressesAttr,
                    [&](const LinkAddressKey& key) {
                        note(&comings,
                             "address " + std::to_string(key.ifIndex) + ":" + textOf(key.address),
                             info.address(key) != nullptr);
                    }),
          neighbours(&info, KernelInfo::neighboursAttr,
                     [&](const NeighbourKey& key) {
                         note(&comings, "neighbour " + textOf(key.address),
                              info.neighbour(key) != nullptr);
                     }),
          routes(info.routes(), RouteTable::routesAttr, [&](const RouteKey& key) {
              const bool isHost = key.prefix.len() == addressBits(key.prefix.af());
              note(&comings,
                   "route " + (isHost ? textOf(key.prefix.ipGenAddr())
                                      : std::string(key.prefix.stringValue().c_str())),
                   !info.routes()->routes(key).empty());
          }) {
        for (const auto& [index, link] : info.linkByIndex()) {
            note(&comings, "link " + std::to_string(index) + ":", true);
        }
    }

    Comings comings;
    Mox::Watch<KernelInfo> links;
    Mox::Watch<KernelInfo> addresses;
    Mox::Watch<KernelInfo> neighbours;
    Mox::Watch<RouteTable> routes;
};

TEST_F(KernelInfoTest, SeesAllThatIpMonitorShows) {
    const std::string path = "/run/monitor";
    Followed ns("watched");
    ns.ip("link add v0 type veth peer name w0");
    ASSERT_TRUE(ns.isInSync());
    Monitor monitor(*ns.info);
    const Daemon ip("watched",
                    {"ip", "-o", "monitor", "label", "link", "address", "neigh", "route"}, path);
    const auto shows = [&](const std::string& text) {
        std::ifstream file(path);
        const std::string log{std::istreambuf_iterator<char>(file), {}};
        return log.find(text) != std::string::npos;
    };
    int mtu = 2000;
    ASSERT_TRUE(reaches(ns.loop, [&] {  // It says nothing when it is ready.
        ns.ip("link set lo mtu " + std::to_string(++mtu));
        return shows("mtu");
    }));
    for (const char* each : {"link set v0 up",
                             "link set w0 up",
                             "address add 10.0.0.1/24 dev v0",
                             "address add 10.9.0.1 peer 10.9.0.2 dev v0",
                             "-6 address add 2001:db8::1/64 dev v0 nodad",
                             "neigh add 10.0.0.7 lladdr 02:00:00:00:00:07 dev v0 nud permanent",
                             "neigh add 2001:db8::7 lladdr 02:00:00:00:00:07 dev v0 nud stale",
                             "neigh replace 10.0.0.7 lladdr 02:00:00:00:00:08 dev v0",
                             "neigh del 10.0.0.7 dev v0",
                             "route add 10.1.0.0/24 via 10.0.0.5",
                             "route append 10.1.0.0/24 via 10.0.0.6",
                             "route replace 10.1.0.0/24 via 10.0.0.7",
                             "route del 10.1.0.0/24 via 10.0.0.7",
                             "route del 10.1.0.0/24",
                             "-6 route add 2001:db8:1::/48 via 2001:db8::5",
                             "-6 route append 2001:db8:1::/48 via 2001:db8::6",
                             "-6 route del 2001:db8:1::/48",
                             "address del 10.0.0.1/24 dev v0",
                             "link set v0 name x0",
                             "link add br0 type bridge",
                             "link set w0 down",
                             "link del x0",
                             "link set lo mtu 4711"}) {
        ns.ip(each);
    }
    ASSERT_TRUE(reaches(ns.loop, [&] { return shows("mtu 4711"); }));
    EXPECT_EQ(ns.difference(), "");
    std::ifstream log(path);
    const Comings theirs = comingsOf(log);
    EXPECT_GT(theirs.size(), 20u);
    for (const auto& [what, signs] : theirs) {
        // The kernel makes entries for groups in silence; it says only that they go.
        std::size_t seen = signs[0] == '-' ? 1 : 0;
        for (const char each : monitor.comings[what]) {
            seen += seen < signs.size() && signs[seen] == each ? 1 : 0;
        }
        EXPECT_EQ(seen, signs.size()) << what << ' ' << signs << ' ' << monitor.comings[what];
    }
}

// Through going, coming back, renaming and another one that takes the name.
TEST_F(KernelInfoTest, AHandleFollowsItsLink) {
    Followed ns("watched");
    const auto handle = linkFactory(ns.info, "v0");
    std::string seen;
    const Mox::Watch<LinkHandle> watch(handle, LinkHandle::linkAttr, [&] {
        seen += handle->link() ? handle->link()->name().c_str() : "null";
        seen += " ";
    });
    const auto steps = [&](std::initializer_list<const char*> commands) {
        for (const char* each : commands) {
            ns.ip(each);
        }
        EXPECT_EQ(ns.difference(), "");
        return std::exchange(seen, "");
    };
    EXPECT_EQ(steps({}), "");
    EXPECT_EQ(steps({"link add v0 type veth peer name w0"}), "v0 ");
    const auto first = handle->link();
    EXPECT_EQ(steps({"link set v0 mtu 1400", "link set v0 name x0"}), "null ");
    EXPECT_TRUE(first->exists());
    EXPECT_EQ(first->name(), "x0");
    EXPECT_EQ(steps({"link set w0 name v0"}), "v0 ");
    EXPECT_EQ(steps({"link del v0", "link add index 77 v0 type bridge"}), "null v0 ");
    EXPECT_FALSE(first->exists());
    EXPECT_EQ(handle->link()->kind(), "bridge");
}

TEST_F(KernelInfoTest, ChangesTheKernelAndSaysWhatItRefuses) {
    Followed ns("changed");
    ns.ip("link add v0 type veth peer name w0");
    const auto link = ns.link("v0");
    const uint32_t index = link->index();
    const auto errorOf = [&](const NetlinkMessage& message) { return ns.ask(message).error; };
    EXPECT_EQ(errorOf(linkUpRequest(index, true)), 0);
    EXPECT_EQ(errorOf(linkUpRequest(ns.link("w0")->index(), true)), 0);
    EXPECT_EQ(errorOf(linkMtuRequest(index, 1400)), 0);
    EXPECT_EQ(errorOf(linkEthAddrRequest(index, EthAddr("02:00:00:00:00:01"))), 0);
    EXPECT_EQ(errorOf(linkEthAddrRequest(index, EthAddr("01:00:00:00:00:01"))), EADDRNOTAVAIL);
    EXPECT_EQ(ns.ask(linkMtuRequest(index, 17)).text, "mtu less than device minimum");
    EXPECT_EQ(errorOf(linkMtuRequest(4711, 1400)), ENODEV);
    LinkAddress::Facts v4{{index, IpAddr("10.0.0.1")}, 24, {}, IpAddr("10.0.0.255"), 0, 0};
    LinkAddress::Facts peer{{index, IpAddr("10.9.0.1")}, 32, IpAddr("10.9.0.2"), {}, 0, 0};
    LinkAddress::Facts v6{{index, Ip6Addr("2001:db8::1")}, 64, {}, {}, 0, IFA_F_NODAD};
    for (const auto& each : {v4, peer, v6}) {
        EXPECT_EQ(errorOf(addressAddRequest(each)), 0);
        EXPECT_EQ(errorOf(addressAddRequest(each)), EEXIST);
    }
    const NeighbourKey neighbour{index, IpAddr("10.0.0.9")};
    EXPECT_EQ(errorOf(neighbourAddRequest(neighbour, EthAddr("02:00:00:00:00:09"))), 0);
    EXPECT_EQ(errorOf(neighbourAddRequest(neighbour, EthAddr("02:00:00:00:00:09"))), EEXIST);
    EXPECT_EQ(errorOf(neighbourRequest(neighbour, EthAddr("02:00:00:00:00:0a"))), 0);
    std::vector<Route> routes(5);
    routes[0].key.prefix = IpGenPrefix("10.1.0.0/16");
    routes[0].hops = {{IpAddr("10.0.0.5"), index, 3, false}, {IpAddr("10.0.0.6"), index, 1, false}};
    routes[1].key = {IpGenPrefix("10.2.0.0/16"), /*table=*/1000, /*metric=*/7, /*tos=*/4};
    routes[1].hops = {{IpAddr("172.16.0.1"), index, 1, true}};
    routes[1].source = IpAddr("10.0.0.1");
    routes[2].key = {IpGenPrefix("2001:db8:1::/48"), 254, 1024, 0};
    routes[2].hops = {{Ip6Addr("2001:db8::5"), index, 1, false}};
    routes[3].key.prefix = IpGenPrefix("0.0.0.0/0");
    routes[3].type = RTN_BLACKHOLE;
    routes[4].key.prefix = IpGenPrefix("10.3.0.0/16");
    routes[4].hops = {{Ip6Addr("fe80::5"), index, 1, false}};
    for (const Route& each : routes) {
        EXPECT_EQ(errorOf(routeAddRequest(each)), 0);
        EXPECT_EQ(errorOf(routeAddRequest(each)), EEXIST);
    }
    EXPECT_EQ(ns.difference(), "");
    for (const Route& each : routes) {
        EXPECT_EQ(ns.info->routes()->routes(each.key), std::vector<Route>{each});
        EXPECT_EQ(errorOf(routeReplaceRequest(each)), 0);
        EXPECT_EQ(errorOf(routeDelRequest(each)), 0);
        EXPECT_EQ(errorOf(routeDelRequest(each)), ESRCH);
    }
    EXPECT_EQ(errorOf(neighbourDelRequest(neighbour)), 0);
    EXPECT_EQ(errorOf(neighbourDelRequest(neighbour)), ENOENT);
    ASSERT_TRUE(reaches(ns.loop, [&] { return ns.info->neighbour(neighbour) == nullptr; }));
    routes[0].source = IpAddr("10.0.0.1");
    routes[2].source = Ip6Addr("2001:db8::1");
    for (const Route& each : {routes[0], routes[1], routes[2]}) {
        EXPECT_EQ(errorOf(routeAddRequest(each)), 0);
    }
    EXPECT_EQ(ns.difference(), "");
    // Of the routes that lose their source, that of the main table goes; without IPv4 addresses the
    // link loses the other one. Nothing of that is announced.
    for (const auto& [key, address] :
         std::map(ns.info->addresses().begin(), ns.info->addresses().end())) {
        if (key.ifIndex == index) {
            EXPECT_EQ(errorOf(addressDelRequest(key, address->len())), 0);
            EXPECT_EQ(ns.difference(), "");
        }
    }
    LinkStatistics counters;
    linkStatisticsIs(ns.session, index,
                     [&](const NetlinkAnswer&, const LinkStatistics& got) { counters = got; });
    EXPECT_TRUE(reaches(ns.loop, [&] { return counters.txPackets > 0; }));
    EXPECT_EQ(errorOf(linkNameRequest(index, "lo")), EEXIST);
    EXPECT_EQ(errorOf(linkDelRequest(index)), 0);
    EXPECT_TRUE(reaches(ns.loop, [&] { return !link->exists(); }));
}

// A name that comes, is given to another namespace at once, and goes, with what there is in it.
TEST_F(KernelInfoTest, AManagerFollowsNamesAndEndsWhatIsInThem) {
    netNsDelete("blue");
    Mox::EventLoop loop;
    const NamespaceName blue("blue");
    const auto status = namespaceStatusLocalDirFactory("status");
    const auto mgr = kernelInfoMgrFactory("mgr", status, loop.clock());
    const auto handle = linkFactory(mgr, blue, "v0");
    const auto isActive = [&](const NamespaceName& name) {
        const auto one = status->ns(name);
        return one && one->state() == NamespaceState::active;
    };
    EXPECT_TRUE(reaches(loop, [&] { return isActive(NamespaceName::defaultNamespace()); }));
    ASSERT_EQ(netNsAdd("blue"), 0);
    EXPECT_TRUE(reaches(loop, [&] { return isActive(blue); }));
    run({"ip", "-n", "blue", "link", "add", "v0", "type", "veth", "peer", "name", "w0"});
    run({"ip", "-n", "blue", "address", "add", "10.0.0.1/24", "dev", "v0"});
    const auto info = mgr->kernelInfo(blue);
    ASSERT_TRUE(info);
    EXPECT_TRUE(reaches(loop, [&] { return handle->link() && info->addresses().members() == 3; }));

    std::string order;
    const Mox::Watch<NamespaceStatusLocal> state(
        status->ns(blue), NamespaceStatusLocal::stateAttr,
        [&, one = status->ns(blue).ptr()] { order += stringValue(one->state()).c_str(); });
    const Mox::Watch<KernelInfo> objects(
        info, {KernelInfo::addressesAttr, KernelInfo::linkByIndexAttr},
        [&](const Mox::Change& change) { order += std::string(" ") + change.attribute.name; });
    const Mox::Watch<KernelInfoMgr> infos(
        mgr, KernelInfoMgr::kernelInfosAttr,
        [&](const NamespaceName& name) { order += mgr->kernelInfo(name) ? " came" : " went"; });
    const Mox::Watch<NamespaceStatusLocalDir> names(
        status, NamespaceStatusLocalDir::nsAttr, [&](const NamespaceName&) { order += " name"; });
    ASSERT_EQ(netNsAddEvenIfPresent("blue"), 0);  // The loop has no turn between.
    EXPECT_TRUE(reaches(loop, [&] { return isActive(blue) && mgr->kernelInfo(blue) != info; }));
    EXPECT_EQ(order,
              "deleting addresses addresses addresses linkByIndex linkByIndex linkByIndex went "
              "name name came");
    EXPECT_FALSE(handle->link());
    EXPECT_EQ(mgr->kernelInfo(blue)->linkByIndex().members(), 1u);
    ASSERT_EQ(netNsDelete("blue"), 0);
    EXPECT_TRUE(reaches(loop, [&] { return !status->ns(blue) && !mgr->kernelInfo(blue); }));
    mgr->close();
    EXPECT_EQ(status->ns().members(), 0u);
}

}  // namespace
}  // namespace Pavo
