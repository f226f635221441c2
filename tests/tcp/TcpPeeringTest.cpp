// Peers over TCP: random programs of many peers whose handlers act and throw, and the rules for
// collisions, back-off and reasons.
#include "Pavo/TcpPeering.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "Pavo/NetOrder.h"
#include "support/Errors.h"
#include "support/FailSyscall.h"
#include "support/RandomProgram.h"
#include "tcp/TcpMachines.h"

namespace Pavo {
namespace {

using PavoTest::addressOf;
using PavoTest::FailSyscall;

constexpr Port port(1790);
constexpr uint32_t hub = 0;
constexpr uint32_t ends = 4;  // The hub, and others, each of which has the hub as its only peer.

IpGenAddr addressOfEnd(uint32_t end) {
    return addressOf(("127.0.0." + std::to_string(end + 1)).c_str());
}

// Four peerings in one namespace. Time is that of the test; bytes pass the kernel.
struct World : PavoTest::RandomProgram {
    using RandomProgram::RandomProgram;
    ~World() {
        for (End& end : all) {
            end.peering = nullptr;
        }
        turn(0);
    }

    // What the agent of an end knows of a peer.
    struct Session {
        bool isUp = false;
        uint32_t sent = 0;
        uint32_t received = 0;
        Mox::Watch<FramedTcpPduPam> watch{};
    };
    struct End : TcpPeeringHandler {
        World* world = nullptr;
        Mox::Ptr<TcpPeering> peering;
        std::map<const TcpPeer*, Session> sessions;
        Mox::Watch<TcpServerStatus> listenerWatch;
        uint32_t number = 0;
        bool isSending = false;

        Mox::Ptr<TcpPeer> peer(uint32_t other) const { return peering->peer(addressOfEnd(other)); }
        void listen() {
            peering->listenIs(addressOfEnd(number), port);
            listenerWatch = {peering->listenerStatus(ipv4), TcpServerStatus::listeningAttr,
                             [this] { world->respond(); }};
        }

        void up(TcpPeer& peer) override {
            EXPECT_FALSE(std::exchange(sessions[&peer], {.isUp = true}).isUp);
            sessions[&peer].watch = {
                peer.pam(),
                {TcpPduPam::enableModeAttr, Pam::txDropsAttr, TcpPduPam::txQueueBytesAttr},
                [this](const Mox::Change&) { isSending ? void() : world->respond(); }};
            world->respond();
        }
        void message(TcpPeer& peer, const Mox::Ptr<Pkt>& pkt) override {
            Session& session = sessions[&peer];
            EXPECT_TRUE(session.isUp);
            EXPECT_EQ(loadNet<uint32_t>(pkt->frontData() + 2), session.received++);
            world->respond();
        }
        void down(TcpPeer& peer, const Mox::String& reason) override {
            EXPECT_TRUE(std::exchange(sessions[&peer], {}).isUp);
            EXPECT_FALSE(reason.empty());
            world->respond();
        }
        TcpCollision collision(TcpPeer& peer, const TcpPeerConnection& established,
                               const TcpPeerConnection& arriving) override {
            world->respond();
            return TcpPeeringHandler::collision(peer, established, arriving);
        }
    };

    // Of both ends of each session.
    template <class Visit>
    void forEachSession(Visit visit) {
        for (uint32_t other = 1; other < ends; ++other) {
            visit(all[hub], other);
            visit(all[other], hub);
        }
    }
    void turn(double seconds) {
        for (uint32_t turns = 0; turns < 4; ++turns) {
            try {
                loop.turn(0);
                clock.advance(std::exchange(seconds, 0));
            } catch (const Thrown&) {
                print("caught");
            }
        }
    }
    void start(End& end) {
        end.sessions.clear();
        end.peering = tcpPeeringFactory("end", NamespaceName(), length16Framing, &end, &wheel);
        forEachSession([&](End& each, uint32_t other) {
            &each == &end ? configureAlike(each, other) : void();
        });
    }
    static void configureAlike(End& end, uint32_t other) {
        end.listen();
        end.peering->peerIs(configOf(end.number, other));
    }
    static TcpPeerConfig configOf(uint32_t end, uint32_t other) {
        TcpPeerConfig config;
        config.address = addressOfEnd(other);
        config.localAddress = addressOfEnd(end);
        config.port = port;
        config.minUpSeconds = 1;
        config.minTtl = IpTtl(end == 1 || other == 1 ? 255u : 0u);
        config.connectRetryMaxSeconds = 4;
        return config;
    }
    TcpPeerConfig anyConfig(uint32_t end, uint32_t other) {
        TcpPeerConfig config = configOf(end, other);
        config.mode = static_cast<TcpPeerMode>(oneIn(2) ? 3 : below(4));
        config.md5Key = oneIn(3) ? "a key" : oneIn(6) ? "another key" : "";
        config.txQueueBytes = below(3) * 2000;
        config.readAheadBytes = below(2) * 4096;
        return config;
    }
    static void send(End& end, uint32_t other, uint32_t messages, uint32_t tooLarge = UINT32_MAX) {
        const auto peer = end.peer(other);
        if (!peer) {
            return;
        }
        std::vector<Mox::Ptr<Pkt>> pkts;
        for (uint32_t i = 0; i < messages; ++i) {
            const uint32_t number = end.sessions[peer.ptr()].sent + i;
            pkts.push_back(globalPktManager()->newPkt());
            storeNet(pkts[i]->newSharedTailData(2), static_cast<uint16_t>(4 + number % 900));
            storeNet(pkts[i]->newSharedTailData(4), number);
            pkts[i]->newSharedTailData(i == tooLarge ? 65'530 : number % 900);
        }
        const uint32_t drops = peer->txDrops();
        end.isSending = true;
        const uint32_t taken = peer->txPktsIs(pkts);
        end.isSending = false;
        EXPECT_LE(taken, std::min(messages, tooLarge));
        EXPECT_GE(peer->txDrops() - drops, messages - taken);
        end.sessions[peer.ptr()].sent += taken;
    }
    static void close(End& end, uint32_t other, bool isOrderly) {
        if (const auto peer = end.peer(other)) {
            peer->close("closed", isOrderly);
        }
    }
    Actions anyActions() {
        const auto on = [this](auto act) {
            return [=, this] {
                const uint32_t number = below(ends);
                act(all[number], number == hub ? 1 + below(ends - 1) : hub);
            };
        };
        return {
            {"send", on([this](End& e, uint32_t o) { send(e, o, below(20), below(200)); })},
            {"configure",
             on([this](End& e, uint32_t other) { e.peering->peerIs(anyConfig(e.number, other)); })},
            {"remove", on([](End& e, uint32_t o) { e.peering->peerDel(addressOfEnd(o)); })},
            {"restart", on([this](End& e, uint32_t) { e.peering = nullptr, start(e); })},
            {"listen", on([](End& e, uint32_t) { e.listen(); })},
            {"do not listen", on([](End& e, uint32_t) { e.peering->listenDel(ipv4); })},
            {"close", on([this](End& e, uint32_t other) { close(e, other, oneIn(2)); })},
        };
    }
    void run() {
        for (End& end : all) {
            end.world = this;
            end.number = static_cast<uint32_t>(&end - all);
            start(end);
        }
        const auto advance = [this] { turn(oneIn(3) ? below(8) * 0.25 : 0); };
        perform({anyActions()}, advance, [] {});
        comesToRest();
    }
    // Once all is configured alike, all come up and stay, and messages pass.
    void comesToRest() {
        forEachSession(configureAlike);
        for (uint32_t turns = 0; turns < 200; ++turns) {
            turn(0.25);
        }
        forEachSession([](End& end, uint32_t other) { send(end, other, 30); });
        turn(0);
        turn(0);
        forEachSession([this](End& end, uint32_t other) {
            const uint32_t sent = end.sessions[end.peer(other).ptr()].sent;
            EXPECT_GE(sent, 30u);
            EXPECT_EQ(all[other].sessions[all[other].peer(end.number).ptr()].received, sent);
        });
    }

    Mox::EventLoop loop;
    Mox::ManualClock clock;
    Keel::TimerWheel wheel{&clock};
    End all[ends];
};

TEST(TcpPeering, PeersThatComeGoAndChangeAreUpAgainInTheEnd) {
    SANDBOX_OR_SKIP();
    (void)globalPktManager();  // Lives for ever.
    PavoTest::runPrograms(400, PavoTest::runProgram<World>);
}

// An agent that writes down what it is notified of, and sends a message when a peer comes.
struct Agent : TcpPeeringHandler {
    Agent(const char* netNs, Keel::TimerWheel* wheel)
        : peering(tcpPeeringFactory("agent", NamespaceName(netNs), length16Framing, this, wheel)) {}

    void up(TcpPeer& peer) override {
        log += "up ";
        const auto pkt = globalPktManager()->newPkt();
        storeNet(pkt->newSharedTailData(2), uint16_t{5});
        pkt->stringValueIs("hello", /*atTail=*/true);
        EXPECT_TRUE(peer.txPktIs(pkt));
    }
    void message(TcpPeer&, const Mox::Ptr<Pkt>& pkt) override {
        log += std::string(pkt->stringValue()).substr(2) + " ";
    }
    void down(TcpPeer&, const Mox::String& reason) override {
        log += "down: " + std::string(reason) + " ";
    }

    Mox::Ptr<TcpPeering> peering;
    std::string log;
};

class TcpPeeringTest : public PavoTest::TcpTest {
  protected:
    bool awaits(const std::function<bool()>& done, double secondsATurn = 0) {
        return PavoTest::turnsUntil(loop_, [&] {
            clock_.advance(secondsATurn);
            return done();
        });
    }

    Agent near_{"", &wheel_};
    Agent far_{"", &wheel_};
};

TEST_F(TcpPeeringTest, OneConnectionStaysWhereBothEndsConnect) {
    const IpGenAddr lower = addressOf("127.0.0.1");
    const IpGenAddr greater = addressOf("127.0.0.2");
    near_.peering->listenIs(lower, port);
    far_.peering->listenIs(greater, port);
    const auto near =
        near_.peering->peerIs({.address = greater, .port = port, .localAddress = lower});
    const auto far =
        far_.peering->peerIs({.address = lower, .port = port, .localAddress = greater});
    EXPECT_TRUE(awaits([&] {
        return near->collisions() == 1 && far->collisions() == 1 &&
               near_.log.ends_with("up hello ") && far_.log.ends_with("up hello ");
    })) << near_.log
        << "/ " << far_.log;
    EXPECT_TRUE(near->connection().isAccepted);
    EXPECT_FALSE(far->connection().isAccepted);
    EXPECT_EQ(near->connection().socket.dstPort(), far->connection().socket.srcPort());
    // Whichever was first: that of the end with the greater number.
    for (const bool isGreater : {false, true}) {
        for (const bool accepts : {false, true}) {
            EXPECT_EQ(
                tcpCollisionByNumber(isGreater, {.isAccepted = !accepts}, {.isAccepted = accepts}),
                accepts == isGreater ? TcpCollision::established : TcpCollision::arriving);
        }
    }
    // A peer that connects again has lost the connection before.
    EXPECT_EQ(tcpCollisionByNumber(true, near->connection(), near->connection()),
              TcpCollision::arriving);
}

TEST_F(TcpPeeringTest, DelaysGrowUntilAConnectionLasts) {
    TcpPeerConfig config{.address = addressOf("127.0.0.1"),
                         .port = port,
                         .localAddress = addressOf("192.0.2.77"),
                         .connectRetrySeconds = 1,
                         .connectRetryMaxSeconds = 5};
    const auto peer = near_.peering->peerIs(config);
    for (const double delay : {1, 2, 4, 5, 5}) {
        EXPECT_EQ(peer->state(), TcpPeer::State::backingOff);
        EXPECT_EQ(peer->reason(), "Bind (Cannot assign requested address)");
        EXPECT_EQ(peer->nextAttempt() - clock_.now(), delay);
        clock_.advance(delay);
    }
    config.localAddress = addressOf("127.0.0.2");
    far_.peering->listenIs(addressOf("127.0.0.1"), port);
    far_.peering->peerIs({.address = config.localAddress, .mode = TcpPeerMode::passive});
    near_.peering->peerIs(config);
    const struct { double upSeconds, delay; } connections[] = {{9.75, 1}, {0, 2}, {10, 1}, {1, 2}};
    for (const auto& c : connections) {
        ASSERT_TRUE(awaits([&] { return near_.log == "up hello "; })) << near_.log;
        clock_.advance(c.upSeconds);
        far_.peering->peer(config.localAddress)->close("enough");
        ASSERT_TRUE(awaits([&] { return peer->state() == TcpPeer::State::backingOff; }));
        EXPECT_EQ(peer->nextAttempt() - clock_.now(), c.delay);
        clock_.advance(0);
        EXPECT_EQ(near_.log, "up hello down: Connection closed by peer ");
        near_.log = "";
        clock_.advance(c.delay);
    }
    EXPECT_TRUE(awaits([&] { return far_.peering->closing() == 0; }));
}

TEST_F(TcpPeeringTest, AReasonIsGivenForWhatDoesNotFit) {
    const IpGenAddr address = addressOf("127.0.0.2");
    const struct {
        const char *key, *otherKey;
        uint32_t otherMinTtl;
        const char* reason;  // A hint comes after 20 s without an answer.
    } cases[] = {
        {"", "", 0, "Connect (Connection refused)"},  // Nobody listens yet.
        {"a key", "another", 0,
         "; a peer without this key does not answer, nor does one that does not listen"},
        {"", "a key", 0,
         "; a peer that asks for a signature, or for a greater TTL, does not answer"},
        {"", "", 255, "Connection closed by peer"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        far_.peering->peerIs({.address = address,
                              .mode = TcpPeerMode::passive,
                              .md5Key = c.otherKey,
                              .minTtl = IpTtl(c.otherMinTtl)});
        clock_.advance(0);  // A listener with another key starts anew.
        const auto peer = near_.peering->peerIs({.address = addressOf("127.0.0.1"),
                                                 .port = port,
                                                 .localAddress = address,
                                                 .mode = TcpPeerMode::active,
                                                 .md5Key = c.key});
        loop_.turn(0);
        clock_.advance(*c.reason == ';' ? 20 : 0);
        ASSERT_TRUE(awaits([&] { return peer->state() == TcpPeer::State::backingOff; }));
        const std::string reason(peer->reason());
        // Whether the segment was counted before the attempt or during it depends on the machine.
        EXPECT_TRUE(reason.ends_with(c.reason) ||
                    (*c.key != 0 && reason.ends_with(" with a wrong signature meanwhile")))
            << reason;
        near_.peering->peerDelAll();
        far_.peering->listenIs(addressOf("127.0.0.1"), port);
    }
    EXPECT_EQ(far_.log, "");
}

TEST_F(TcpPeeringTest, LinkLocalPeersDifferByTheirInterface) {
    const PavoTest::Wire wire;
    Agent left("left", &wheel_);
    Agent right("right", &wheel_);
    TcpPeerConfig config{.address = addressOf("fe80::1"),
                         .port = port,
                         .ifIndex = wire.index("right"),
                         .mode = TcpPeerMode::passive,
                         .md5Key = "a key",
                         .minTtl = IpTtl::max};
    right.peering->listenIs(addressOf("::"), port);
    right.peering->peerIs(config);
    config.address = addressOf("fe80::2");
    config.ifIndex = wire.index("left");
    config.mode = TcpPeerMode::active;
    const auto peer = left.peering->peerIs(config);
    EXPECT_TRUE(awaits([&] { return left.log == "up hello " && right.log == "up hello "; }));
    EXPECT_EQ(peer->connection().socket.ifIndex(), config.ifIndex);
    EXPECT_EQ(right.peering->refused(), 0u);
    left.peering->peerDelAll();
    left.peering->peerIs(
        {.address = addressOf("2001:db8::2"), .port = port, .mode = TcpPeerMode::active});
    EXPECT_TRUE(awaits([&] { return right.peering->refused() == 1; }));  // No peer has the address.
}

TEST_F(TcpPeeringTest, EachFailingCallIsNamedAndOvercome) {
    const IpGenAddr address = addressOf("::1");
    far_.peering->peerIs({.address = address, .mode = TcpPeerMode::passive});
    std::set<std::string> reasons;
    const auto descriptors = PavoTest::openDescriptors();
    const auto start = [&] {
        far_.peering->listenIs(address, port);
        near_.peering->peerIs({.address = address, .port = port, .mode = TcpPeerMode::active});
        for (uint32_t turns = 0; turns < 10; ++turns) {
            loop_.turn(0);
            clock_.advance(0);
        }
        return 0;
    };
    const auto check = [&](const FailSyscall& fail, int, int) {
        for (const auto& text : {near_.peering->peer(address)->reason(),
                                 far_.peering->listenerStatus(ipv6)->reason()}) {
            const std::string reason(text);
            reasons.insert(fail.name() + (": " + reason.substr(0, reason.find(" (Cannot"))));
        }
        const auto isUp = [](const Agent& agent) { return agent.log.ends_with("up hello "); };
        EXPECT_TRUE(awaits([&] { return isUp(near_) && isUp(far_); }, 0.25))
            << near_.log << "/ " << far_.log;
        near_.peering->peerDelAll();
        EXPECT_TRUE(awaits([&] { return far_.log.ends_with("peer "); }));
        far_.peering->listenDel(ipv6);
        EXPECT_EQ(PavoTest::openDescriptors(), descriptors);
        near_.log = far_.log = "";
    };
    EXPECT_GT(PavoTest::failEachSyscall(ENOMEM, start, check, "!epoll_wait"), 10u);
    EXPECT_THAT(reasons,
                testing::IsSupersetOf(
                    {"socket: Socket", "setsockopt: Setsockopt", "bind: Bind", "connect: Connect",
                     "epoll_ctl: Socket", "getsockopt: Getsockopt", "getsockname: Getsockname",
                     "setsockopt: Setsockopt(REUSE)", "setsockopt: Setsockopt(V6OONLY)",
                     "recv: Recv failed with Cannot allocate memory"}));
}

TEST_F(TcpPeeringTest, ABadConfigurationChangesNothing) {
    const TcpPeerConfig good{.address = addressOf("127.0.0.9"), .mode = TcpPeerMode::passive};
    const auto peer = near_.peering->peerIs(good);
    const auto errorOf = [&](const auto& spoil) {
        TcpPeerConfig bad = good;
        spoil(bad);
        return rangeErrorOf([&] { near_.peering->peerIs(bad); });
    };
    EXPECT_EQ(errorOf([](auto& bad) { bad.md5Key = std::string(80, 'x').c_str(); }),
              "key has more than 79 bytes");
    EXPECT_EQ(errorOf([](auto& bad) { bad.mode = TcpPeerMode::both; }), "TcpPeerConfig: no port");
    EXPECT_EQ(errorOf([](auto& bad) { bad.address = addressOf("fe80::1"); }),
              "TcpPeerConfig: a link-local address needs an interface");
    EXPECT_EQ(errorOf([](auto& bad) { bad.connectRetrySeconds = std::nan(""); }),
              "TcpPeerConfig: times must be positive");
    EXPECT_EQ(peer->config(), good);
    EXPECT_DEATH(Agent("", nullptr), "wheel != nullptr");
}

}  // namespace
}  // namespace Pavo
