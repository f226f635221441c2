#include "Pavo/KernelInfo.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Mox/EventLoop.h"
#include "Pavo/KernelInfoMgr.h"
#include "Pavo/KernelRequests.h"
#include "Pavo/LinkHandle.h"
#include "Pavo/NetnsUtils.h"
#include "kernel/KernelText.h"
#include "support/SandboxTest.h"
#include "support/Seeds.h"

namespace Pavo {
namespace {

using namespace PavoTest;

// Turns the loop until `done`, for a bounded time.
bool reaches(Mox::EventLoop& loop, const std::function<bool()>& done, int tenths = 100) {
    const double end = loop.clock()->now() + tenths / 10.0;
    while (!done()) {
        if (loop.clock()->now() > end) {
            return false;
        }
        loop.turn(0.02);
    }
    return true;
}

// A namespace that is followed.
struct Followed {
    explicit Followed(const std::string& name, uint32_t rcvBufBytes = 0) : netNs(name) {
        EXPECT_EQ(netNsAddEvenIfPresent(name.c_str()), 0);
        session->rcvBufBytesIs(rcvBufBytes);
        info->followsRoutesIs(true);
        session->enabledIs(true);
    }
    ~Followed() {
        info->close();
        session->enabledIs(false);
        netNsDelete(netNs.c_str());
    }
    void ip(const std::string& command) {
        std::istringstream words("ip -n " + netNs + " " + command);
        run({std::istream_iterator<std::string>(words), {}});
    }
    bool isInSync() {
        return reaches(loop, [this] { return info->isInSync(); });
    }
    // What still differs after a while, when no message is left to be read.
    std::string difference() {
        std::string text;
        reaches(
            loop,
            [&] {
                for (int turns = 0; loop.turn(0.02) != 0 && turns < 100'000; ++turns) {
                }
                text = info->isInSync() ? differenceOf(linesOf(*info), IpLines(netNs).lines())
                                        : "not in sync";
                return text.empty();
            },
            /*tenths=*/300);
        return text;
    }
    // The answer to a request.
    NetlinkAnswer ask(const NetlinkMessage& message) {
        NetlinkAnswer got{-1, {}};
        session->requestIs(message, [&](const NetlinkAnswer& answer) { got = answer; });
        EXPECT_TRUE(reaches(loop, [&] { return got.error != -1; }));
        return got;
    }
    Mox::Ptr<Link> link(const char* name) {
        EXPECT_TRUE(reaches(loop, [&] { return info->linkByName(name) != nullptr; })) << name;
        return info->linkByName(name);
    }

    const std::string netNs;
    Mox::EventLoop loop;
    Mox::Ptr<NetlinkSession> session =
        netlinkSessionFactory(netNs, NamespaceName(netNs), loop.clock());
    Mox::Ptr<KernelInfo> info = kernelInfoFactory(netNs, session, loop.clock());
};

// What observers alone know. A notification of a collection is one change, and of the net
// difference: what has come was not there, and what has gone was.
class Shadow {
  public:
    explicit Shadow(const Mox::Ptr<KernelInfo>& info)
        : info_(info),
          links_(info, KernelInfo::linkByIndexAttr,
                 [this](uint32_t index) { member(index, info_->linkByIndex(index), &linkLines_); }),
          names_(info, KernelInfo::linkByNameAttr,
                 [this](const Mox::String& name) { nameIs(name); }),
          addresses_(info, KernelInfo::addressesAttr,
                     [this](const LinkAddressKey& key) {
                         member(key, info_->address(key), &addressLines_);
                     }),
          neighbours_(info, KernelInfo::neighboursAttr,
                      [this](const NeighbourKey& key) {
                          member(key, info_->neighbour(key), &neighbourLines_);
                      }),
          routes_(info->routes(), RouteTable::routesAttr,
                  [this](const RouteKey& key) { routesIs(key); }) {}

    Lines lines() const {
        Lines all;
        add(linkLines_, &all);
        add(addressLines_, &all);
        add(neighbourLines_, &all);
        for (const auto& [key, lines] : routeLines_) {
            all.insert(lines.begin(), lines.end());
        }
        return all;
    }
    const std::map<Mox::String, uint32_t>& names() const { return byName_; }
    uint64_t notifications() const { return notifications_; }

  private:
    template <class T>
    struct Known {
        std::string line;
        Mox::Ptr<T> object;
        Mox::Watch<T> watch;
    };
    template <class Key, class T>
    using Members = std::map<Key, Known<T>>;

    template <class Key, class T>
    static void add(const Members<Key, T>& members, Lines* lines) {
        for (const auto& [key, each] : members) {
            if constexpr (std::is_same_v<T, Neighbour>) {
                if (each.object->state() == NeighbourState::noArp ||
                    each.object->state() == NeighbourState::none) {
                    continue;
                }
            }
            lines->insert(each.line);
        }
    }
    template <class Key, class T>
    void member(const Key& key, const Mox::Ptr<T>& object, Members<Key, T>* members) {
        ++notifications_;
        const bool wasThere = members->erase(key) != 0;
        EXPECT_NE(wasThere, object != nullptr);
        if (object) {
            Known<T>& known = (*members)[key];
            known.line = lineOf(*object);
            known.object = object;
            known.watch =
                Mox::Watch<T>(object, Mox::allAttributes, [this, &known](const Mox::Change&) {
                    ++notifications_;
                    known.line = lineOf(*known.object);
                });
        }
    }
    void nameIs(const Mox::String& name) {
        const auto link = info_->linkByName(name);
        link ? byName_[name] = link->index() : byName_.erase(name);
    }
    void routesIs(const RouteKey& key) {
        ++notifications_;
        std::vector<std::string> lines;
        for (const Route& each : info_->routes()->routes(key)) {
            lines.push_back(lineOf(each));
        }
        EXPECT_NE(lines, routeLines_[key]) << "no difference";
        routeLines_[key] = lines;
    }

    Mox::Ptr<KernelInfo> info_;
    Members<uint32_t, Link> linkLines_;
    Members<LinkAddressKey, LinkAddress> addressLines_;
    Members<NeighbourKey, Neighbour> neighbourLines_;
    std::map<Mox::String, uint32_t> byName_;
    std::map<RouteKey, std::vector<std::string>> routeLines_;
    uint64_t notifications_ = 0;
    Mox::Watch<KernelInfo> links_;
    Mox::Watch<KernelInfo> names_;
    Mox::Watch<KernelInfo> addresses_;
    Mox::Watch<KernelInfo> neighbours_;
    Mox::Watch<RouteTable> routes_;
};

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

class KernelInfoTest : public SandboxTest {
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
TEST_F(KernelInfoTest, IsExactAfterAStorm) {
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
        std::map<Mox::String, uint32_t> names;
        for (const auto& [index, link] : ns.info->linkByIndex()) {
            names[link->name()] = index;
        }
        EXPECT_EQ(shadow.names(), names);
        EXPECT_EQ(ns.session->overflows() > 0, isLossy);
        std::cout << ns.session->overflows() << " overflows, " << shadow.notifications()
                  << " notifications, " << ns.info->routes()->members() << " routes\n";
    }
}

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
