// Sessions over a model of the kernel, over the kernel, and over recordings.
#include "Pavo/NetlinkSession.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Mox/EventLoop.h"
#include "Mox/Exception.h"
#include "Pavo/NetlinkAttributes.h"
#include "Pavo/NetlinkRecorder.h"
#include "kernel/KernelModel.h"
#include "support/FailSyscall.h"
#include "support/RandomProgram.h"
#include "support/SandboxTest.h"

namespace Pavo {
namespace {

using PavoTest::Item;
using PavoTest::KernelModel;
using testing::ElementsAre;

// A table as its messages say that it is.
class Mirror : public NetlinkFollower {
  public:
    void callback(nlmsghdr* message) override {
        const std::size_t table = tableOf(message->nlmsg_type);
        const auto* const item = netlinkBody<Item>(*message);
        if (message->nlmsg_type % 4 == 0) {
            items[table][item->id] = item->value;
            named_[table].insert(item->id);
        } else {
            items[table].erase(item->id);
        }
        then();
    }
    void handleDumpBegin(uint16_t getType) override {
        named_[tableOf(getType)].clear();
        then();
    }
    void handleDumpEnd(uint16_t getType) override {
        const auto& named = named_[tableOf(getType)];
        std::erase_if(items[tableOf(getType)],
                      [&](const auto& each) { return named.count(each.first) == 0; });
        then();
    }

    KernelModel::Table items[2];
    std::function<void()> then = [] {};

  private:
    static std::size_t tableOf(uint16_t type) { return type / 4 == RTM_GETLINK / 4 ? 0 : 1; }

    std::set<uint32_t> named_[2];
};

NetlinkMessage itemMessage(std::size_t table, int operation, uint32_t id, uint32_t value) {
    NetlinkMessage message(static_cast<uint16_t>(KernelModel::types[table] + operation));
    message.bodyIs(Item{0, id, value});
    return message;
}

struct World : PavoTest::RandomProgram {
    using RandomProgram::RandomProgram;

    // What was asked, and what may come of it.
    struct Asked {
        uint32_t ends = 0;
        bool isForgotten = false;
        bool mayBeCancelled = false;
    };
    // A session with a kernel of its own, kept until the end, since a session that is dropped while
    // it calls goes on until it has called everything.
    struct Side {
        explicit Side(Mox::Clock* clock)
            : kernel(clock), session(netlinkSessionFactory("session", NamespaceName(), clock)) {
            session->portOpenerIs(kernel.opener());
        }
        KernelModel kernel;
        Mirror mirrors[2];
        Mox::Ptr<NetlinkSession> session;
        Mox::Watch<NetlinkSession> watch;
        bool follows[2] = {};
        bool isDropped = false;
        std::map<uint32_t, std::vector<Asked>> asked;  // By the number of the first.
    };

    Side& side() {
        if (sides.empty() || sides.back()->isDropped) {
            Side* const made = sides.emplace_back(std::make_unique<Side>(&clock)).get();
            made->watch = Mox::Watch<NetlinkSession>(made->session, Mox::allAttributes,
                                                     [this](const Mox::Change&) { respond(); });
            for (Mirror& each : made->mirrors) {
                each.then = [this] { respond(); };
            }
        }
        return *sides.back();
    }

    // The end of message `index`, which the kernel has handled as its results say.
    void ended(Side& on, uint32_t first, std::size_t index, const NetlinkAnswer& answer) {
        Asked& asked = on.asked[first][index];
        EXPECT_EQ(++asked.ends, 1u);
        EXPECT_FALSE(asked.isForgotten);
        const auto handled = on.kernel.results.find(first + static_cast<uint32_t>(index));
        const bool isLost =
            (answer.error == ENOBUFS || answer.error == ETIMEDOUT) && on.kernel.requestLosses != 0;
        if (answer.error == ECANCELED) {
            EXPECT_TRUE(asked.mayBeCancelled);
        } else if (!isLost && answer.error != EMSGSIZE) {
            ASSERT_TRUE(handled != on.kernel.results.end()) << answer.error << " from nobody";
            EXPECT_TRUE(answer.error == handled->second ||
                        handled->second == KernelModel::swallowed);
            EXPECT_EQ(answer.text, answer.error == EINVAL ? KernelModel::refusedText : "");
        }
        respond();
    }
    NetlinkMessage anyRequest() {
        return itemMessage(below(2), static_cast<int>(below(2)), below(12), 12 + below(3));
    }
    std::vector<Asked> newAsked(const Side& on, std::size_t count) {
        return std::vector<Asked>(count, Asked{.mayBeCancelled = !on.session->enabled()});
    }
    void request(bool isGet) {
        Side& on = side();
        const auto first = std::make_shared<uint32_t>();
        const uint32_t id = below(12);
        *first = on.session->requestIs(
            isGet ? itemMessage(0, 2, id, 0) : anyRequest(),
            [this, &on, first](const NetlinkAnswer& answer) { ended(on, *first, 0, answer); },
            [id](const nlmsghdr& message) { EXPECT_EQ(netlinkBody<Item>(message)->id, id); });
        on.asked[*first] = newAsked(on, 1);
    }
    void batch() {
        Side& on = side();
        const auto first = std::make_shared<uint32_t>();
        std::vector<NetlinkMessage> messages;
        for (uint32_t count = 1 + below(40); count > 0; --count) {
            messages.push_back(anyRequest());
        }
        *first = on.session->requestsAre(
            messages, [this, &on, first, next = std::size_t{0}](
                          std::size_t index, const NetlinkAnswer& answer) mutable {
                EXPECT_EQ(index, next++);
                ended(on, *first, index, answer);
            });
        on.asked[*first] = newAsked(on, messages.size());
    }
    // What comes of it is the table, at a time when it did not change.
    void dump() {
        Side& on = side();
        const auto got = std::make_shared<KernelModel::Table>();
        const auto first = std::make_shared<uint32_t>();
        *first = on.session->dumpIs(
            itemMessage(0, 2, 0, 0), [got] { got->clear(); },
            [got](const nlmsghdr& message) {
                const auto* const item = netlinkBody<Item>(message);
                EXPECT_TRUE(got->emplace(item->id, item->value).second);
            },
            [this, &on, first](const NetlinkAnswer& answer) {
                Asked& asked = on.asked[*first][0];
                EXPECT_EQ(++asked.ends, 1u);
                EXPECT_FALSE(asked.isForgotten);
                EXPECT_TRUE(answer.error == 0 || answer.error == EINTR ||
                            (answer.error == ECANCELED && asked.mayBeCancelled) ||
                            (on.kernel.requestLosses != 0))
                    << answer.error;
                respond();
            });
        on.asked[*first] = newAsked(on, 1);
    }
    void forget() {
        Side& on = side();
        if (!on.asked.empty()) {
            const auto it = std::next(on.asked.begin(), below(on.asked.size()));
            for (Asked& each : it->second) {
                each.isForgotten = each.ends == 0;
            }
            on.session->requestDel(it->first);
        }
    }
    void enable(bool enabled) {
        Side& on = side();
        for (auto& [first, all] : on.asked) {
            for (Asked& each : all) {
                each.mayBeCancelled |= !enabled;
            }
        }
        on.session->enabledIs(enabled);
    }
    void follow(std::size_t table, bool follows) {
        Side& on = side();
        on.follows[table] = follows;
        if (follows) {
            on.session->followIs(static_cast<uint16_t>(KernelModel::types[table] + 2),
                                 {KernelModel::groups[table]}, &on.mirrors[table]);
        } else {
            on.session->followDel(&on.mirrors[table]);
            on.mirrors[table].items[table].clear();
        }
    }
    void drop() {
        Side& on = side();
        on.isDropped = true;
        on.watch = {};
        on.session = nullptr;
    }
    void change() {
        for (uint32_t count = 1 + below(4); count > 0; --count) {
            (void)side().kernel.set(below(2), below(12), oneIn(3) ? 0 : 1 + below(9));
        }
    }
    void silence(bool isSilent) { side().kernel.isSilent = isSilent; }
    void checkAtRest() {
        Side& on = side();
        silence(false);
        on.kernel.room = 1000;
        for (int i = 0; i < 40; ++i) {
            clock.advance(1);
        }
        for (const auto& [first, all] : on.asked) {
            for (const Asked& each : all) {
                EXPECT_EQ(each.ends, each.isForgotten ? 0u : 1u) << "request " << first;
            }
        }
        EXPECT_EQ(on.session->isInSync(), on.session->enabled());
        for (std::size_t table = 0; table < 2 && on.session->enabled(); ++table) {
            if (on.follows[table]) {
                EXPECT_EQ(on.mirrors[table].items[table], on.kernel.tables[table]);
            }
        }
        EXPECT_EQ(clock.nextExpiry(), Mox::Clock::idle) << "the clock is kept busy";
    }
    void run() {
        perform(
            {{{"change", [this] { change(); }},
              {"request", [this] { request(false); }},
              {"get", [this] { request(true); }},
              {"batch", [this] { batch(); }},
              {"dump", [this] { dump(); }},
              {"forget", [this] { forget(); }}},
             {{"enable", [this] { enable(true); }},
              {"follow 0", [this] { follow(0, true); }},
              {"follow 1", [this] { follow(1, true); }},
              {"leave 0", [this] { follow(0, false); }},
              {"disable", [this] { enable(false); }},
              {"drop", [this] { drop(); }}},
             {{"enable", [this] { enable(true); }},
              {"change", [this] { change(); }},
              {"little room", [this] { side().kernel.room = 1 + below(6); }},
              {"small datagrams", [this] { side().kernel.sndBuf = 32 + 32 * below(4); }},
              {"silence", [this] { silence(true); }},
              {"answers", [this] { silence(false); }}}},
            [this] { clock.advance(oneIn(4) ? 3 : 0.001); }, [this] { checkAtRest(); });
        sides.clear();
    }

    Mox::ManualClock clock;
    std::vector<std::unique_ptr<Side>> sides;
};

TEST(NetlinkSession, EndsEachRequestOnceAndFollowsTablesWhateverIsCalledAndLost) {
    PavoTest::runPrograms(3000, PavoTest::runProgram<World>);
}

TEST(NetlinkSession, WaitsLongerBeforeEachFreshDumpOfAStorm) {
    Mox::ManualClock clock;
    KernelModel kernel(&clock);
    Mirror mirror;
    const auto session = netlinkSessionFactory("session", NamespaceName(), &clock);
    session->portOpenerIs(kernel.opener());
    session->followIs(RTM_GETLINK, {RTNLGRP_LINK}, &mirror);
    session->enabledIs(true);
    kernel.room = 2;
    uint32_t value = 0;
    const auto storm = [&](int milliseconds) {
        for (int i = 0; i < milliseconds; ++i) {
            for (uint32_t id = 0; id < 5; ++id) {
                (void)kernel.set(0, id, 1 + value++ % 9);
            }
            clock.advance(0.001);
        }
    };
    storm(5000);
    clock.advance(3);
    EXPECT_EQ(mirror.items[0], kernel.tables[0]);
    storm(20);
    std::vector<int64_t> waits;  // In hundredths of a second.
    for (std::size_t i = 1; i < kernel.dumpsAt.size(); ++i) {
        waits.push_back(std::lround((kernel.dumpsAt[i] - kernel.dumpsAt[i - 1]) * 100));
    }
    // The last one is from the end of the storm to 10 ms after the beginning of the next.
    EXPECT_THAT(waits, ElementsAre(1, 2, 4, 8, 16, 32, 64, 100, 100, 100, 100, 274));
    EXPECT_GT(session->overflows(), 4000u);
}

using NetlinkSessionKernelTest = PavoTest::SandboxTest;

// An agent on the sandbox's own namespace.
struct OnKernel {
    OnKernel() { session->enabledIs(true); }
    template <class Condition>
    void turnUntil(Condition condition) {
        for (int turns = 0; turns < 2000 && !condition(); ++turns) {
            loop.turn(0.1);
        }
        ASSERT_TRUE(condition());
    }

    Mox::EventLoop loop;
    Mox::Ptr<NetlinkSession> session =
        netlinkSessionFactory("session", NamespaceName(), loop.clock());
};

// The address 10.x.y.z/32 of `lo`.
NetlinkMessage addressMessage(uint16_t type, uint32_t number) {
    NetlinkMessage message(type, type == RTM_NEWADDR ? NLM_F_CREATE | NLM_F_EXCL : 0);
    auto& body = message.bodyIs<ifaddrmsg>();
    body.ifa_family = AF_INET;
    body.ifa_prefixlen = 32;
    body.ifa_index = 1;
    message.attributeIs(IFA_LOCAL, htonl(0x0a000000 + number));
    return message;
}

TEST_F(NetlinkSessionKernelTest, AnswersEachMessageOfALargeBatch) {
    OnKernel agent;
    std::vector<NetlinkMessage> batch;  // Every third address is there already, or not any more.
    for (const uint16_t type : {RTM_NEWADDR, RTM_DELADDR}) {
        for (uint32_t i = 0; i < 3000; ++i) {
            batch.push_back(addressMessage(type, i - (i % 3 == 2 ? 1 : 0)));
        }
    }
    std::vector<int> errors;
    std::string text;
    agent.session->requestsAre(batch, [&](std::size_t, const NetlinkAnswer& answer) {
        errors.push_back(answer.error);
        text = answer.error == 0 ? text : answer.text.c_str();
    });
    agent.turnUntil([&] { return errors.size() == batch.size(); });
    for (std::size_t i = 0; i < errors.size(); ++i) {
        ASSERT_EQ(errors[i], i % 3 != 2 ? 0 : i < 3000 ? EEXIST : EADDRNOTAVAIL) << i;
    }
    EXPECT_EQ(text, "ipv4: Address not found");
    EXPECT_EQ(agent.session->overflows() + agent.session->staleAnswers(), 0u);
}

TEST_F(NetlinkSessionKernelTest, KnowsAllAddressesAfterOverflows) {
    struct Addresses : NetlinkFollower {
        void callback(nlmsghdr* message) override {
            const NetlinkAttributes attributes(*message, sizeof(ifaddrmsg), IFA_MAX);
            uint32_t address = 0;
            ASSERT_TRUE(attributes.isSound() && attributes.read(IFA_LOCAL, &address));
            message->nlmsg_type == RTM_NEWADDR ? (void)known.insert(address)
                                               : (void)known.erase(address);
            message->nlmsg_type == RTM_NEWADDR ? (void)named.insert(address) : void();
        }
        void handleDumpBegin(uint16_t) override { named.clear(); }
        void handleDumpEnd(uint16_t) override { known = named; }
        std::set<uint32_t> known, named;
    } addresses;
    OnKernel agent;
    agent.session->enabledIs(false);
    agent.session->rcvBufBytesIs(2048);
    agent.session->followIs(RTM_GETADDR, {RTNLGRP_IPV4_IFADDR}, &addresses, AF_INET);
    agent.session->enabledIs(true);
    std::set<uint32_t> wanted = {htonl(INADDR_LOOPBACK)};
    std::size_t answers = 0;
    for (uint32_t i = 0; i < 400; ++i) {
        agent.session->requestIs(addressMessage(RTM_NEWADDR, i), [&](const NetlinkAnswer& answer) {
            EXPECT_EQ(answer.error, 0);
            ++answers;
        });
        wanted.insert(htonl(0x0a000000 + i));
        if (i % 50 == 0) {
            agent.loop.turn(0);
        }
    }
    agent.turnUntil([&] { return answers == 400 && agent.session->isInSync(); });
    EXPECT_EQ(addresses.known, wanted);
    EXPECT_GT(agent.session->overflows(), 0u);
    std::vector<NetlinkMessage> removals;
    for (uint32_t i = 0; i < 400; ++i) {
        removals.push_back(addressMessage(RTM_DELADDR, i));
    }
    agent.session->requestsAre(removals, [&](std::size_t, const NetlinkAnswer&) { --answers; });
    agent.turnUntil([&] { return answers == 0; });
}

TEST_F(NetlinkSessionKernelTest, DropsWhatOtherProcessesSend) {
    Mirror mirror;
    OnKernel agent;
    agent.session->enabledIs(false);
    std::vector<uint32_t> portIds;
    agent.session->portOpenerIs([&](NetlinkPortUse) {
        const auto port = netlinkSocketFactory(NamespaceName(), NETLINK_ROUTE, 0);
        portIds.push_back(port->portId());
        return port;
    });
    agent.session->followIs(RTM_GETNEXTHOP, {}, &mirror);
    agent.session->enabledIs(true);
    agent.turnUntil([&] { return agent.session->isInSync(); });
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    const NetlinkMessage forged = itemMessage(0, 0, 1, 1);
    for (const uint32_t portId : portIds) {
        sockaddr_nl to = {};
        to.nl_family = AF_NETLINK;
        to.nl_pid = portId;
        EXPECT_EQ(sendto(fd, forged.bytes().data(), forged.bytes().size(), 0,
                         reinterpret_cast<sockaddr*>(&to), sizeof(to)),
                  static_cast<ssize_t>(forged.bytes().size()));
    }
    close(fd);
    agent.turnUntil([&] { return agent.session->foreignDatagrams() == 2; });
    EXPECT_TRUE(mirror.items[0].empty());
}

TEST_F(NetlinkSessionKernelTest, NamesTheCallThatFailsAndLeavesNothingOpen) {
    Mirror mirror;
    OnKernel agent;
    agent.session->enabledIs(false);
    agent.session->rcvBufBytesIs(10000);
    agent.session->followIs(RTM_GETLINK, {RTNLGRP_LINK}, &mirror);
    const auto descriptors = PavoTest::openDescriptors();
    std::set<std::string> texts;
    const unsigned failures = PavoTest::failEachSyscall(
        ENOMEM,
        [&] {
            try {
                agent.session->enabledIs(true);
            } catch (const Mox::ErrnoException& error) {
                texts.insert(error.what());
            }
            return 0;
        },
        [&](const PavoTest::FailSyscall&, int, int) {
            // An option that an older kernel lacks is done without.
            EXPECT_TRUE(agent.session->enabled() || PavoTest::openDescriptors() == descriptors);
            agent.session->enabledIs(false);
        },
        "!setns");
    EXPECT_GT(failures, 10u);
    EXPECT_THAT(
        texts,
        ElementsAre("bind: Cannot allocate memory", "epoll_ctl: Cannot allocate memory",
                    "fcntl(F_GETFL): Cannot allocate memory", "getsockname: Cannot allocate memory",
                    "getsockopt(SO_RCVBUF): Cannot allocate memory",
                    "setsockopt(NETLINK_ADD_MEMBERSHIP): Cannot allocate memory",
                    "socketAt: Cannot allocate memory"));
    EXPECT_EQ(agent.session->netNs(), NamespaceName());
    agent.session->enabledIs(false);
    agent.session->netNsIs(NamespaceName(Mox::String("missing")));
    EXPECT_THROW(agent.session->enabledIs(true), Mox::ErrnoException);
}

// What an agent does and sees: follows a table, and asks for something. `turn` brings events on.
struct Exchange : NetlinkFollower {
    const char* name;  // And of the file of its recording.
    uint16_t getType;
    uint32_t group;
    std::vector<std::string> log = {};

    Exchange(const char* itsName, uint16_t itsGetType, uint32_t itsGroup)
        : name(itsName), getType(itsGetType), group(itsGroup) {}

    void callback(nlmsghdr* message) override {
        note(std::to_string(message->nlmsg_type), *message);
    }
    void handleDumpBegin(uint16_t) override { log.emplace_back("begin"); }
    void handleDumpEnd(uint16_t) override { log.emplace_back("end"); }
    // With the texts and the IPv4 addresses in it; the texts of the four tables differ.
    void note(std::string line, const nlmsghdr& message) {
        const std::size_t bodyBytes = getType == RTM_GETLINK   ? sizeof(ifinfomsg)
                                      : getType == RTM_GETADDR ? sizeof(ifaddrmsg)
                                                               : sizeof(rtmsg);
        static_assert(sizeof(rtmsg) == sizeof(ndmsg));
        const NetlinkAttributes attributes(message, bodyBytes, 3);
        line += attributes.isSound() ? "" : " unsound";
        if (getType == RTM_GETLINK) {
            line += ' ' + std::string(attributes.text(IFLA_IFNAME));
        } else if (const auto bytes = attributes.payload(1); bytes.size() == 4) {  // RTA_DST ...
            char text[INET_ADDRSTRLEN];
            line += ' ' + std::string(inet_ntop(AF_INET, bytes.data(), text, sizeof(text)));
        }
        log.push_back(std::move(line));
    }
    void noteEnd(const NetlinkAnswer& answer) {
        log.push_back("answer " + std::to_string(answer.error) + ' ' + answer.text.c_str());
    }

    void run(const Mox::Ptr<NetlinkSession>& session, const std::function<void()>& turn) {
        const auto until = [&](auto condition) {
            for (int turns = 0; turns < 200 && !condition(); ++turns) {
                turn();
            }
            EXPECT_TRUE(condition()) << name;
        };
        session->followIs(getType, {group}, this, AF_INET);
        session->enabledIs(true);
        until([&] { return session->isInSync(); });
        bool isDone = false;
        NetlinkMessage link(RTM_GETLINK);
        link.bodyIs<ifinfomsg>().ifi_index = 1;
        session->requestIs(
            link, [&](const NetlinkAnswer& answer) { noteEnd(answer); },
            [&](const nlmsghdr& message) {
                log.push_back("link " + std::to_string(message.nlmsg_type));
            });
        NetlinkMessage route(RTM_NEWROUTE, NLM_F_CREATE);
        route.bodyIs<rtmsg>() = {AF_INET, 8, 0, 0, RT_TABLE_MAIN, RTPROT_STATIC, 0, RTN_UNICAST, 0};
        route.attributeIs(RTA_DST, htonl(0x0a000001));
        session->requestIs(route, [&](const NetlinkAnswer& answer) {
            noteEnd(answer);
            isDone = true;
        });
        until([&] { return isDone; });
        session->enabledIs(false);
        session->followDel(this);
    }
};

std::vector<Exchange> exchanges() {
    return {{"links", RTM_GETLINK, RTNLGRP_LINK},
            {"addresses", RTM_GETADDR, RTNLGRP_IPV4_IFADDR},
            {"neighbours", RTM_GETNEIGH, RTNLGRP_NEIGH},
            {"routes", RTM_GETROUTE, RTNLGRP_IPV4_ROUTE}};
}

// The log of what comes of an exchange that is played back.
std::vector<std::string> played(Exchange exchange, const std::string& path) {
    exchange.log.clear();
    Mox::ManualClock clock;
    const auto player = netlinkPlayerFactory(path, &clock);
    const auto session = netlinkSessionFactory("played", NamespaceName(), &clock);
    session->portOpenerIs(player->opener());
    exchange.run(session, [&clock] { clock.advance(0.001); });
    EXPECT_EQ(player->difference(), "");
    EXPECT_TRUE(player->isAtEnd());
    return exchange.log;
}

TEST_F(NetlinkSessionKernelTest, RecordsExchangesThatPlayBackTheSame) {
    const PavoTest::Wire wire;
    PavoTest::run({"ip", "-n", "left", "neigh", "add", "192.0.2.9", "lladdr", "02:00:00:00:00:09",
                   "dev", "veth-left"});
    for (Exchange exchange : exchanges()) {
        const std::string path = testing::TempDir() + "netlink-" + exchange.name + ".pcapng";
        const NamespaceName left(Mox::String("left"));
        Mox::EventLoop loop;
        const auto file = captureFileFactory(path);
        const auto session = netlinkSessionFactory("recorded", left, loop.clock());
        session->portOpenerIs(netlinkRecorder(file, netlinkSocketOpener(left)));
        exchange.run(session, [&loop] { loop.turn(0.1); });
        file->flush();
        EXPECT_EQ(played(exchange, path), exchange.log);
        // The first requests of a session: the dump of the table, then the link and the route.
        const std::string shown = PavoTest::run(
            {"tshark", "-r", path, "-Y", "netlink-route && frame.packet_flags_direction == 2", "-T",
             "fields", "-e", "netlink-route.nltype"});
        EXPECT_THAT(shown, testing::EndsWith(std::to_string(exchange.getType) + "\n18\n24\n"));
        if (std::getenv("PAVO_KEEP_RECORDINGS") == nullptr) {
            EXPECT_EQ(unlink(path.c_str()), 0);
        }
    }
}

TEST(NetlinkSession, PlaysBackRecordingsWithoutAKernel) {
    const std::string refused = "answer 22 Invalid prefix for given prefix length";
    const std::vector<std::string> logs[] = {
        {"begin", "16 lo", "16 veth-left", "end", "link 16", "answer 0 ", refused},
        {"begin", "20 127.0.0.1", "20 192.0.2.1", "end", "link 16", "answer 0 ", refused},
        {"begin", "28 192.0.2.9", "end", "link 16", "answer 0 ", refused},
        {"begin", "24 192.0.2.0", "24 127.0.0.0", "24 127.0.0.1", "24 127.255.255.255",
         "24 192.0.2.1", "24 192.0.2.255", "end", "link 16", "answer 0 ", refused}};
    const std::vector<std::string>* log = logs;
    for (const Exchange& each : exchanges()) {
        EXPECT_EQ(played(each, std::string(PAVO_RECORDINGS "/") + each.name + ".pcapng"), *log++);
    }
}

}  // namespace
}  // namespace Pavo
