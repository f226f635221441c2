#include "Pavo/KernelInfo.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "Pavo/KernelInfoMgr.h"
#include "Pavo/KernelRequests.h"
#include "Pavo/LinkHandle.h"
#include "Pavo/ScopedNetNs.h"
#include "kernel/Followed.h"

namespace Pavo {
namespace {

using namespace PavoTest;

using KernelInfoTest = SandboxTest;

// What `ip -o monitor label` shows, as in "[ADDR]Deleted 3: v0    inet 10.0.0.1/24 scope global".
struct IpMonitor {
    // With all that was changed before.
    std::string log() {
        std::string text;
        EXPECT_TRUE(turnsUntil(ns.loop, [&] {
            ns.ip("link set lo mtu " + std::to_string(++mtu));
            text = fileText(path);
            return text.find("mtu " + std::to_string(mtu - 1)) != text.npos;
        }));
        return text;
    }
    Comings comings() {
        static const std::regex shown(
            R"(\[(\w+)\](Deleted )?(?:(\d+): (?:\S+ +inet6? ([^/ ]+))?|(?:[a-z]+ )?(default|\S*[.:]\S*)).*)");
        Comings comings;
        std::istringstream lines(log());
        for (std::string line; std::getline(lines, line);) {
            if (std::smatch match; std::regex_match(line, match, shown)) {
                comings.note(match.format("$1 $3,$4$5"), !match[2].matched);
            }
        }
        return comings;
    }

    Followed& ns;
    int mtu = 2000;
    const std::string path = "/run/monitor";
    const Daemon ip{
        ns.netNs, {"ip", "-o", "monitor", "label", "link", "address", "neigh", "route"}, path};
};

struct Requests : Followed {
    using Followed::Followed;

    int errorOf(const NetlinkMessage& message) { return ask(message).error; }
    // The first is done; the second, which asks for the same, is refused.
    void expectOnce(const NetlinkMessage& message, int error) {
        EXPECT_EQ(errorOf(message), 0);
        EXPECT_EQ(errorOf(message), error);
    }
    void changeLink(uint32_t index) {
        EXPECT_EQ(errorOf(linkUpRequest(index, true)), 0);
        EXPECT_EQ(errorOf(linkUpRequest(link("w0")->index(), true)), 0);
        EXPECT_EQ(errorOf(linkMtuRequest(index, 1400)), 0);
        EXPECT_EQ(errorOf(linkEthAddrRequest(index, EthAddr("02:00:00:00:00:01"))), 0);
        EXPECT_EQ(errorOf(linkEthAddrRequest(index, EthAddr("01:00:00:00:00:01"))), EADDRNOTAVAIL);
        EXPECT_EQ(ask(linkMtuRequest(index, 17)).text, "mtu less than device minimum");
        EXPECT_EQ(errorOf(linkNameRequest(index, "lo")), EEXIST);
    }
    void addAddresses(uint32_t index) {
        LinkAddress::Properties v4{{index, IpAddr("10.0.0.1")}, 24, {}, IpAddr("10.0.0.255"), 0, 0};
        LinkAddress::Properties peer{{index, IpAddr("10.9.0.1")}, 32, IpAddr("10.9.0.2"), {}, 0, 0};
        LinkAddress::Properties v6{{index, Ip6Addr("2001:db8::1")}, 64, {}, {}, 0, IFA_F_NODAD};
        for (const auto& each : {v4, peer, v6}) {
            expectOnce(addressAddRequest(each), EEXIST);
        }
        const NeighbourKey neighbour{index, IpAddr("10.0.0.9")};
        expectOnce(neighbourAddRequest(neighbour, EthAddr("02:00:00:00:00:09")), EEXIST);
        EXPECT_EQ(errorOf(neighbourReplaceRequest(neighbour, EthAddr("02:00:00:00:00:0a"))), 0);
        EXPECT_EQ(difference(), "");
        expectOnce(neighbourDelRequest(neighbour), ENOENT);
    }
    // The kernel neither replaces its own route of a router advertisement nor joins others to it.
    void advertiseRoute() {
        ip("address add fe80::5/64 dev w0 nodad");
        {
            const ScopedNetNs inside(netNs.c_str());
            run({"python3", "-c",
                 "from socket import *\n"
                 "open('/proc/sys/net/ipv6/conf/v0/accept_ra_from_local', 'w').write('1')\n"
                 "advertiser = socket(AF_INET6, SOCK_RAW, IPPROTO_ICMPV6)\n"
                 "advertiser.setsockopt(IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 255)\n"
                 "advert = bytes([134, 0, 0, 0, 64, 0, 7, 8]) + bytes(8)\n"
                 "advertiser.sendto(advert, ('ff02::1%w0', 0))"});
        }
        const RouteKey key{IpGenPrefix("::/0"), RT_TABLE_MAIN, /*metric=*/1024};
        const auto count = [&] { return info->routes()->route(key).size(); };
        EXPECT_TRUE(turnsUntil(loop, [&] { return count() == 1; }));
        ip("-6 route append default via 2001:db8::6 metric 1024");
        ip("-6 route replace default via 2001:db8::7 metric 1024");
        EXPECT_EQ(difference(), "");
        EXPECT_EQ(count(), 2u);
    }
    // At the end, three routes are there.
    void changeRoutes(uint32_t index) {
        std::vector<Route> routes(5);
        routes[0].key.prefix = IpGenPrefix("10.1.0.0/16");
        routes[0].hops = {{IpAddr("10.0.0.5"), index, 3, false},
                          {IpAddr("10.0.0.6"), index, 1, false}};
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
            expectOnce(routeAddRequest(each), EEXIST);
        }
        EXPECT_EQ(difference(), "");
        for (const Route& each : routes) {
            EXPECT_EQ(info->routes()->route(each.key), std::vector<Route>{each});
            EXPECT_EQ(errorOf(routeReplaceRequest(each)), 0);
            expectOnce(routeDelRequest(each), ESRCH);
        }
        routes[0].source = IpAddr("10.0.0.1");
        routes[2].source = Ip6Addr("2001:db8::1");
        for (const Route& each : {routes[0], routes[1], routes[2]}) {
            EXPECT_EQ(errorOf(routeAddRequest(each)), 0);
        }
        EXPECT_EQ(difference(), "");
    }
};

TEST_F(KernelInfoTest, RequestsChangeTheKernelAndAllThatIpMonitorShowsIsSeen) {
    Requests ns("changed");
    ns.ip("link add v0 type veth peer name w0");
    const auto link = ns.link("v0");
    IpMonitor monitor{ns};
    monitor.log();  // It is ready.
    ns.changeLink(link->index());
    ns.addAddresses(link->index());
    ns.advertiseRoute();
    ns.changeRoutes(link->index());
    // Of the routes that lose their source, that of the main table goes; without IPv4 addresses the
    // link loses the other one. Nothing of that is announced.
    for (const auto& [key, address] :
         std::map(ns.info->address().begin(), ns.info->address().end())) {
        if (key.ifIndex == link->index()) {
            EXPECT_EQ(ns.errorOf(addressDelRequest(key, address->len())), 0);
            EXPECT_EQ(ns.difference(), "");
        }
    }
    LinkStatistics counters;
    requestLinkStatistics(ns.session, link->index(),
                          [&](const NetlinkAnswer&, const LinkStatistics& got) { counters = got; });
    EXPECT_TRUE(turnsUntil(ns.loop, [&] { return counters.txPackets > 0; }));
    ns.ip("link add br0 type bridge");
    ns.expectOnce(linkDelRequest(link->index()), ENODEV);
    EXPECT_TRUE(turnsUntil(ns.loop, [&] { return !link->exists(); }));
    const Comings shown = monitor.comings();
    EXPECT_GT(shown.size(), 20u);
    for (const auto& [what, signs] : shown) {
        // Entries for groups come in silence.
        const std::string wanted = signs.substr(signs[0] == '-' ? 1 : 0);
        EXPECT_NE(ns.shadow->comings[what].find(wanted), wanted.npos) << what << signs;
    }
}

TEST(KernelTexts, AreThoseOfIp) {
    const IpGenAddr v4("10.0.0.1");
    const IpGenAddr v6("2001:db8::1");
    const RouteKey key{IpGenPrefix("192.0.2.0/24"), 100, 20, 16};
    const RouteKey all{IpGenPrefix("::/0")};
    const std::pair<Mox::String, const char*> rows[] = {
        {NetlinkAnswer{0, "much"}.stringValue(), "ok: much"},
        {NetlinkAnswer{EEXIST, "ipv4: Address already assigned"}.stringValue(),
         "File exists: ipv4: Address already assigned"},
        {linkAddressKey(7, v4, 8).stringValue(), "10.0.0.1 of link 7 in 10.0.0.0/8"},
        {linkAddressKey(7, v6, 64).stringValue(), "2001:db8::1 of link 7"},
        {RouteKey().stringValue(), "no prefix"},
        {Route{key, RTN_PROHIBIT, RTPROT_BGP, 0, {}, {}}.stringValue(),
         "prohibit 192.0.2.0/24 table 100 metric 20 tos 16 proto bgp"},
        {Route{all, RTN_UNICAST, 77, 0, v6, {{v6, 7, 1, true}}}.stringValue(),
         "::/0 via 2001:db8::1 link 7 onlink proto 77 src 2001:db8::1"},
        {Route{all, 99, RTPROT_STATIC, RT_SCOPE_LINK, {}, {{{}, 7}, {v6, 8, 256}}}.stringValue(),
         "type 99 ::/0 nexthop link 7 weight 1 nexthop via 2001:db8::1 link 8 weight 256 proto "
         "static scope link"}};
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(text, expected);
    }
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
    EXPECT_TRUE(turnsUntil(loop, [&] { return isActive(NamespaceName::defaultNamespace()); }));
    EXPECT_TRUE(linkFactory(mgr, NamespaceName(), "lo")->link());
    const std::string file = "/var/run/netns/blue";
    std::ofstream(file).flush();  // A file first; then the name of a namespace.
    EXPECT_TRUE(turnsUntil(loop, [&] { return status->ns(blue) != nullptr; }));
    EXPECT_EQ(status->ns(blue)->lastError(), file + " is no network namespace");
    ASSERT_EQ(netNsAddEvenIfPresent("blue"), 0);
    EXPECT_TRUE(turnsUntil(loop, [&] { return isActive(blue); }));
    EXPECT_EQ(status->ns(blue)->lastError(), "");
    run({"ip", "-n", "blue", "link", "add", "v0", "type", "veth", "peer", "name", "w0"});
    run({"ip", "-n", "blue", "address", "add", "10.0.0.1/24", "dev", "v0"});
    const auto info = mgr->kernelInfo(blue);
    ASSERT_TRUE(info);
    EXPECT_TRUE(turnsUntil(loop, [&] { return handle->link() && info->address().members() == 3; }));

    std::string order;
    const auto note = [&order](const Mox::Change& change) {
        order += std::string(" ") + change.attribute.name;
    };
    const Mox::Watch<NamespaceStatusLocal> state(
        status->ns(blue), NamespaceStatusLocal::stateAttr,
        [&, one = status->ns(blue).ptr()] { order += stringValue(one->state()).c_str(); });
    const Mox::Watch<KernelInfo> objects(
        info, {KernelInfo::addressAttr, KernelInfo::linkByIndexAttr}, note);
    const Mox::Watch<KernelInfoMgr> infos(mgr, Mox::allAttributes, note);
    const Mox::Watch<NamespaceStatusLocalDir> names(status, Mox::allAttributes, note);
    ASSERT_EQ(netNsAddEvenIfPresent("blue"), 0);  // The loop has no turn between.
    EXPECT_TRUE(turnsUntil(loop, [&] { return isActive(blue) && mgr->kernelInfo(blue) != info; }));
    EXPECT_EQ(order,
              "deleting address address address linkByIndex linkByIndex linkByIndex kernelInfo "
              "ns ns kernelInfo");
    EXPECT_FALSE(handle->link());
    EXPECT_EQ(mgr->kernelInfo(blue)->linkByIndex().members(), 1u);
    ASSERT_EQ(netNsDelete("blue"), 0);
    EXPECT_TRUE(turnsUntil(loop, [&] { return !status->ns(blue) && !mgr->kernelInfo(blue); }));
    mgr->close();
    EXPECT_EQ(status->ns().members(), 0u);
}

}  // namespace
}  // namespace Pavo
