#include "Pavo/KernelInfo.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Pavo/KernelInfoMgr.h"
#include "Pavo/KernelRequests.h"
#include "Pavo/LinkHandle.h"
#include "Pavo/ScopedNetNs.h"
#include "kernel/Followed.h"
#include "kernel/Shadow.h"

namespace Pavo {
namespace {

using namespace PavoTest;

class KernelInfoTest : public SandboxTest {};

// What `ip -o monitor label` shows, as in "[ADDR]Deleted 3: v0    inet 10.0.0.1/24 scope global".
class IpMonitor {
  public:
    explicit IpMonitor(Followed& ns) : ns_(ns) {
        EXPECT_TRUE(
            turnsUntil(ns_.loop, [this] { return isShown(); }));  // Silent when it is ready.
    }
    Comings comings() {
        EXPECT_TRUE(turnsUntil(ns_.loop, [this] { return isShown(); }));
        Comings comings;
        std::ifstream log(path_);
        for (std::string line; std::getline(log, line);) {
            const std::string kind = line.substr(0, line.find(']') + 1);
            std::istringstream words(line.substr(kind.size()));
            std::vector<std::string> word{std::istream_iterator<std::string>(words), {}};
            const bool isGone = !word.empty() && word[0] == "Deleted";
            word.erase(word.begin(), word.begin() + (isGone ? 1 : 0));
            if (kind == "[LINK]") {
                comings.note(joined("link", std::stoi(word.at(0))), !isGone);
            } else if (kind == "[ADDR]") {
                const std::string address = word.at(3).substr(0, word.at(3).find('/'));
                comings.note(joined("address", std::stoi(word.at(0)), address), !isGone);
            } else if (kind == "[NEIGH]" && word.at(0) != "dev") {  // Those have no IP address.
                comings.note(joined("neighbour", word.at(0)), !isGone);
            } else if (kind == "[ROUTE]") {
                const bool isFirst =
                    word.at(0) == "default" || word.at(0).find_first_of(".:") != word[0].npos;
                comings.note(joined("route", word.at(isFirst ? 0 : 1)), !isGone);
            }
        }
        return comings;
    }

  private:
    // Whether it shows a change that is made now.
    bool isShown() {
        ns_.ip("link set lo mtu " + std::to_string(++mtu_));
        std::ifstream file(path_);
        const std::string log{std::istreambuf_iterator<char>(file), {}};
        return log.find("mtu " + std::to_string(mtu_ - 1)) != std::string::npos;
    }

    Followed& ns_;
    int mtu_ = 2000;
    const std::string path_ = "/run/monitor";
    const Daemon ip_{
        ns_.netNs, {"ip", "-o", "monitor", "label", "link", "address", "neigh", "route"}, path_};
};

void expectSeenAllOf(const Comings& theirs, Comings ours) {
    EXPECT_GT(theirs.size(), 20u);
    for (const auto& [what, signs] : theirs) {
        // Entries for groups come in silence.
        std::size_t seen = signs[0] == '-' ? 1 : 0;
        for (const char each : ours[what]) {
            seen += seen < signs.size() && signs[seen] == each ? 1 : 0;
        }
        EXPECT_EQ(seen, signs.size()) << what << ' ' << signs << ' ' << ours[what];
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

class KernelRequestsTest : public KernelInfoTest {
  protected:
    int errorOf(const NetlinkMessage& message) { return ns_->ask(message).error; }
    // The first is done; the second, which asks for the same, is refused.
    void expectOnce(const NetlinkMessage& message, int error) {
        EXPECT_EQ(errorOf(message), 0);
        EXPECT_EQ(errorOf(message), error);
    }
    void changeLink(uint32_t index);
    void addAddresses(uint32_t index);
    void changeRoutes(uint32_t index);

    std::optional<Followed> ns_;
};

void KernelRequestsTest::changeLink(uint32_t index) {
    EXPECT_EQ(errorOf(linkUpRequest(index, true)), 0);
    EXPECT_EQ(errorOf(linkUpRequest(ns_->link("w0")->index(), true)), 0);
    EXPECT_EQ(errorOf(linkMtuRequest(index, 1400)), 0);
    EXPECT_EQ(errorOf(linkEthAddrRequest(index, EthAddr("02:00:00:00:00:01"))), 0);
    EXPECT_EQ(errorOf(linkEthAddrRequest(index, EthAddr("01:00:00:00:00:01"))), EADDRNOTAVAIL);
    EXPECT_EQ(ns_->ask(linkMtuRequest(index, 17)).text, "mtu less than device minimum");
    EXPECT_EQ(errorOf(linkNameRequest(index, "lo")), EEXIST);
}

void KernelRequestsTest::addAddresses(uint32_t index) {
    LinkAddress::Properties v4{{index, IpAddr("10.0.0.1")}, 24, {}, IpAddr("10.0.0.255"), 0, 0};
    LinkAddress::Properties peer{{index, IpAddr("10.9.0.1")}, 32, IpAddr("10.9.0.2"), {}, 0, 0};
    LinkAddress::Properties v6{{index, Ip6Addr("2001:db8::1")}, 64, {}, {}, 0, IFA_F_NODAD};
    for (const auto& each : {v4, peer, v6}) {
        expectOnce(addressAddRequest(each), EEXIST);
    }
    const NeighbourKey neighbour{index, IpAddr("10.0.0.9")};
    expectOnce(neighbourAddRequest(neighbour, EthAddr("02:00:00:00:00:09")), EEXIST);
    EXPECT_EQ(errorOf(neighbourReplaceRequest(neighbour, EthAddr("02:00:00:00:00:0a"))), 0);
    EXPECT_EQ(ns_->difference(), "");
    expectOnce(neighbourDelRequest(neighbour), ENOENT);
}

// At the end, three routes are there.
void KernelRequestsTest::changeRoutes(uint32_t index) {
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
        expectOnce(routeAddRequest(each), EEXIST);
    }
    EXPECT_EQ(ns_->difference(), "");
    for (const Route& each : routes) {
        EXPECT_EQ(ns_->info->routes()->route(each.key), std::vector<Route>{each});
        EXPECT_EQ(errorOf(routeReplaceRequest(each)), 0);
        expectOnce(routeDelRequest(each), ESRCH);
    }
    routes[0].source = IpAddr("10.0.0.1");
    routes[2].source = Ip6Addr("2001:db8::1");
    for (const Route& each : {routes[0], routes[1], routes[2]}) {
        EXPECT_EQ(errorOf(routeAddRequest(each)), 0);
    }
    EXPECT_EQ(ns_->difference(), "");
}

TEST_F(KernelRequestsTest, ChangeTheKernelAndAllThatIpMonitorShowsIsSeen) {
    ns_.emplace("changed");
    const Shadow shadow(ns_->info);
    ns_->ip("link add v0 type veth peer name w0");
    const auto link = ns_->link("v0");
    IpMonitor monitor(*ns_);
    changeLink(link->index());
    addAddresses(link->index());
    changeRoutes(link->index());
    // Of the routes that lose their source, that of the main table goes; without IPv4 addresses the
    // link loses the other one. Nothing of that is announced.
    for (const auto& [key, address] :
         std::map(ns_->info->address().begin(), ns_->info->address().end())) {
        if (key.ifIndex == link->index()) {
            EXPECT_EQ(errorOf(addressDelRequest(key, address->len())), 0);
            EXPECT_EQ(ns_->difference(), "");
        }
    }
    LinkStatistics counters;
    requestLinkStatistics(ns_->session, link->index(),
                          [&](const NetlinkAnswer&, const LinkStatistics& got) { counters = got; });
    EXPECT_TRUE(turnsUntil(ns_->loop, [&] { return counters.txPackets > 0; }));
    ns_->ip("link add br0 type bridge");
    expectOnce(linkDelRequest(link->index()), ENODEV);
    EXPECT_TRUE(turnsUntil(ns_->loop, [&] { return !link->exists(); }));
    expectSeenAllOf(monitor.comings(), shadow.comings);
}

TEST(KernelTexts, AreThoseOfIp) {
    const IpGenAddr v4("10.0.0.1");
    const IpGenAddr v6("2001:db8::1");
    const RouteKey key{IpGenPrefix("192.0.2.0/24"), 100, 20, 16};
    const RouteKey all{IpGenPrefix("::/0")};
    const std::pair<Mox::String, const char*> rows[] = {
        {NetlinkAnswer{0, ""}.stringValue(), "ok"},
        {NetlinkAnswer{0, "much"}.stringValue(), "ok: much"},
        {NetlinkAnswer{EEXIST, "ipv4: Address already assigned"}.stringValue(),
         "File exists: ipv4: Address already assigned"},
        {linkAddressKey(7, v4, 8).stringValue(), "10.0.0.1 of link 7 in 10.0.0.0/8"},
        {linkAddressKey(7, v6, 64).stringValue(), "2001:db8::1 of link 7"},
        {NeighbourKey{7, v6}.stringValue(), "2001:db8::1 of link 7"},
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
    const Mox::Watch<NamespaceStatusLocal> state(
        status->ns(blue), NamespaceStatusLocal::stateAttr,
        [&, one = status->ns(blue).ptr()] { order += stringValue(one->state()).c_str(); });
    const Mox::Watch<KernelInfo> objects(
        info, {KernelInfo::addressAttr, KernelInfo::linkByIndexAttr},
        [&](const Mox::Change& change) { order += std::string(" ") + change.attribute.name; });
    const Mox::Watch<KernelInfoMgr> infos(
        mgr, KernelInfoMgr::kernelInfoAttr,
        [&](const NamespaceName& name) { order += mgr->kernelInfo(name) ? " came" : " went"; });
    const Mox::Watch<NamespaceStatusLocalDir> names(
        status, NamespaceStatusLocalDir::nsAttr, [&](const NamespaceName&) { order += " name"; });
    ASSERT_EQ(netNsAddEvenIfPresent("blue"), 0);  // The loop has no turn between.
    EXPECT_TRUE(turnsUntil(loop, [&] { return isActive(blue) && mgr->kernelInfo(blue) != info; }));
    EXPECT_EQ(order,
              "deleting address address address linkByIndex linkByIndex linkByIndex went "
              "name name came");
    EXPECT_FALSE(handle->link());
    EXPECT_EQ(mgr->kernelInfo(blue)->linkByIndex().members(), 1u);
    ASSERT_EQ(netNsDelete("blue"), 0);
    EXPECT_TRUE(turnsUntil(loop, [&] { return !status->ns(blue) && !mgr->kernelInfo(blue); }));
    mgr->close();
    EXPECT_EQ(status->ns().members(), 0u);
}

// The kernel neither replaces its own route of a router advertisement nor joins others to it.
TEST_F(KernelInfoTest, KeepsTheRouteOfARouterAdvertisement) {
    Followed ns("advertised");
    for (const char* each :
         {"link add v0 type veth peer name w0", "link set v0 up", "link set w0 up",
          "-6 address add fe80::5/64 dev w0 nodad", "-6 address add 2001:db8::1/64 dev v0 nodad"}) {
        ns.ip(each);
    }
    run({"ip", "netns", "exec", ns.netNs, "sysctl", "-q", "-w",
         "net.ipv6.conf.v0.accept_ra_from_local=1"});
    const int w0 = static_cast<int>(ns.link("w0")->index());
    {
        const ScopedNetNs inside(ns.netNs.c_str());
        const int fd = socket(AF_INET6, SOCK_RAW, IPPROTO_ICMPV6);
        constexpr int hops = 255;
        setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof(hops));
        setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &w0, sizeof(w0));
        nd_router_advert advert{};
        advert.nd_ra_type = ND_ROUTER_ADVERT;
        advert.nd_ra_router_lifetime = htons(1800);
        sockaddr_in6 all{AF_INET6, 0, 0, {}, static_cast<uint32_t>(w0)};
        inet_pton(AF_INET6, "ff02::1", &all.sin6_addr);
        EXPECT_EQ(sendto(fd, &advert, sizeof(advert), 0, reinterpret_cast<const sockaddr*>(&all),
                         sizeof(all)),
                  static_cast<ssize_t>(sizeof(advert)));
        close(fd);
    }
    RouteKey key;
    key.prefix = IpGenPrefix("::/0");
    key.metric = 1024;
    const auto count = [&] { return ns.info->routes()->route(key).size(); };
    ASSERT_TRUE(turnsUntil(ns.loop, [&] { return count() == 1; }));
    ns.ip("-6 route append default via 2001:db8::6 metric 1024");
    ns.ip("-6 route replace default via 2001:db8::7 metric 1024");
    EXPECT_EQ(ns.difference(), "");
    EXPECT_EQ(count(), 2u);
}

}  // namespace
}  // namespace Pavo
