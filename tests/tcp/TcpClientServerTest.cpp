// The client and server machines: timing, failures, and random programs whose observers act.
#include "Pavo/TcpClientServer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <type_traits>
#include <vector>

#include "support/FailSyscall.h"
#include "support/RandomProgram.h"
#include "tcp/TcpMachines.h"

namespace Pavo {
namespace {

using PavoTest::addressOf;
using PavoTest::FailSyscall;
using PavoTest::TestClient;
using PavoTest::TestServer;

using TcpClientServerTest = PavoTest::TcpTest;

TEST_F(TcpClientServerTest, DelaysDoubleAfterEachFailedAttemptAndStartAgain) {
    const struct {
        uint32_t retryInterval, backoff;
        std::vector<uint32_t> delays;
    } cases[] = {
        {2, 3, {2, 4, 8, 2, 4}},
        {2, 0, {2, 2, 2}},
        {0x40000000, 4, {0x40000000, 0x80000000, 0xffffffff, 0xffffffff, 0x40000000}},
    };
    for (const auto& c : cases) {
        const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4009);
        client.config->retryIntervalIs(c.retryInterval);
        client.config->exponentialBackoffRetriesIs(c.backoff);
        client.sm->startConnection();
        uint32_t attempts = 1;
        for (const uint32_t delay : c.delays) {
            EXPECT_EQ(client.status->retryTimerInterval(), 20u);
            deliver(client);
            EXPECT_EQ(client.status->connectionErrorCount(), attempts);
            EXPECT_EQ(client.status->reason(), "Connect (Connection refused)");
            EXPECT_EQ(client.status->retryTimerInterval(), delay);
            clock_.advance(delay - 0.25);
            EXPECT_EQ(client.status->connectionAttemptCount(), attempts);
            clock_.advance(0.25);
            EXPECT_EQ(client.sm->retryTimes(), attempts++);
        }
        client.sm->startConnection();
        EXPECT_EQ(client.sm->retryTimes(), 0u);
    }
}

TEST_F(TcpClientServerTest, BothSidesHandTheConnectionToTheirOwner) {
    const TestServer portless(&byHand_, &wheel_, "127.0.0.1", 0);
    EXPECT_FALSE(portless.sm->startListener());
    EXPECT_EQ(portless.summary(), "-Listening port is 0 0/0/0");
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    client.config->edgeTriggeredFileDescriptorIs(true);
    client.config->clientIpAddrIs(addressOf("127.0.0.5"));
    EXPECT_EQ(server.summary(), "-Not started 0/0/0");
    EXPECT_TRUE(server.sm->startListener());
    EXPECT_TRUE(server.sm->startListener());
    server.sm->fd()->handleReadable();  // No connection waits.
    EXPECT_EQ(server.status->serverEagainEintrTimes(), 1u);
    std::string changes;
    const Mox::Watch watch(client.status, Mox::allAttributes, [&](const Mox::Change& change) {
        changes += std::string(change.attribute.name) + " " + client.summary() + "\n";
    });
    meet(client, server);
    EXPECT_EQ(server.summary(), "+Listening 1/1/1");
    EXPECT_EQ(changes,
              "connectionAttemptCount connecting  1/0/0\nconnectionStatus connecting  1/0/0\n"
              "retryTimerNext connecting  1/0/0\nretryTimerInterval connecting  1/0/0\n"
              "retryTimerNext connected  1/0/1\nconnSocket connected  1/0/1\n"
              "connectionSuccessCount connected  1/0/1\nconnectionStatus connected  1/0/1\n");
    const TcpConnSocket near = client.status->connSocket();
    const TcpConnSocket far = server.status->getConnSocket();
    EXPECT_TRUE(near.fileDescriptor()->edgeTriggered());
    EXPECT_EQ(near, TcpConnSocket(near.fileDescriptor(), addressOf("127.0.0.5"), far.dstPort(),
                                  addressOf("127.0.0.1"), 4001, 0));
    EXPECT_EQ(far, TcpConnSocket(far.fileDescriptor(), near.dstIpAddr(), near.dstPort(),
                                 near.srcIpAddr(), near.srcPort(), 0));
    client.sm->stopConnection();
    EXPECT_EQ(send(near.fileDescriptor()->descriptor(), "x", 1, 0), 1);  // Still open.
}

TEST_F(TcpClientServerTest, WaitingConnectionsAreTakenInTheOrderOfTheirIndices) {
    const auto status = tcpServerStatusFactory();
    std::string changed;
    const Mox::Watch<TcpServerStatus> queue(
        status, TcpServerStatus::connSocketAttr,
        [&changed](uint32_t index) { changed += std::to_string(index); });
    const auto connection = [](uint32_t n) {
        return TcpConnSocket(nullptr, IpGenAddr(), 0, IpGenAddr(), 0, n);
    };
    for (const uint32_t n : {1u, 2u, 3u, 4u}) {
        status->connSocketEnq(connection(n));
    }
    status->connSocketIs(2, connection(5));
    status->connSocketDel(1);
    status->connSocketDel(1);
    status->connSocketIs(7, connection(6));
    EXPECT_EQ(status->connSocketEnq(connection(7)), 8u);
    EXPECT_EQ(status->connSocketDeq(), connection(1));
    EXPECT_EQ(status->connSocketFront(), connection(5));
    EXPECT_EQ(status->connSocketBack(), connection(7));
    status->connSocketDelAll();
    EXPECT_EQ(status->getConnSocket(), TcpConnSocket());
    EXPECT_EQ(changed, "0123217802378");
}

TEST_F(TcpClientServerTest, AListenerThatKeepsFailingWaitsBetweenAttempts) {
    const TestServer server(byLoop_.ptr(), &wheel_, "127.0.0.1", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    server.config->retryIntervalIs(2);
    const auto summaryAfter = [&](double seconds, const char* failingCall) {
        const FailSyscall fail(1, EMFILE, failingCall);
        clock_.advance(seconds);
        client.sm->startConnection();
        loop_.turn(0);
        return server.summary();
    };
    server.sm->startListener();
    EXPECT_EQ(summaryAfter(0, "accept4"), "-Accept (Too many open files) 1/0/0");
    EXPECT_EQ(server.sm->retryTimerExpireTime(), clock_.now());  // The first restart is immediate.
    for (int tenths = 1; tenths < 100; ++tenths) {
        summaryAfter(0.1, "accept4");
    }
    EXPECT_EQ(summaryAfter(0.1, "accept4"), "-Accept (Too many open files) 6/0/0");
    // After an accepted connection the next restart is immediate again.
    EXPECT_EQ(summaryAfter(2, "none"), "+Listening 7/1/1");
    server.sm->failApplySocketOptionsInTestIs(true);
    EXPECT_EQ(summaryAfter(0, "none"), "-Setsockopt (Invalid argument) 7/1/0");
    EXPECT_EQ(summaryAfter(0, "none"), "+Listening 8/2/1");
}

TEST_F(TcpClientServerTest, AClientDoesNotConnectToItself) {
    const auto portsAre = [](const char* range) {
        std::ofstream("/proc/sys/net/ipv4/ip_local_port_range") << range << std::flush;
    };
    portsAre("40001 40001");
    const TestClient client(&byHand_, &wheel_, "127.0.0.3", 40001);
    client.config->clientIpAddrIs(addressOf("127.0.0.3"));
    client.sm->startConnection();
    deliver(client);
    EXPECT_EQ(client.summary(), "failed Connect (Connection refused) 1/1/0");
    portsAre("32768 60999");
}

TEST_F(TcpClientServerTest, AClientGoesOnAfterEachFailure) {
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    server.sm->startListener();
    meet(client, server);
    client.config->timeoutIs(30);
    client.config->optionsIs(optionTxTtl);  // 0, which is refused.
    EXPECT_EQ(client.summary(), "failed Setsockopt (Invalid argument) 1/1/1");
    EXPECT_FALSE(client.status->connSocket());
    client.config->networkNamespaceIs(NamespaceName("nowhere"));
    clock_.advance(1);
    EXPECT_EQ(client.summary(), "failed Socket (No such file or directory) 1/2/1");
    client.config->networkNamespaceIs(NamespaceName());
    client.config->optionsIs({});
    clock_.advance(1);
    EXPECT_EQ(client.summary(), "connecting Socket (No such file or directory) 2/2/1");
    clock_.advance(28.75);
    EXPECT_EQ(client.status->connectionAbandonedCount(), 1u);
    clock_.advance(0.25);
    EXPECT_EQ(client.summary(), "timedout Socket (No such file or directory) 3/2/1");
    EXPECT_EQ(client.status->connectionAbandonedCount(), 2u);
    EXPECT_EQ(client.status->diagnosis().view().substr(0, 26), "hint: no answer within 9 s");
}

TEST_F(TcpClientServerTest, AServerGoesOnAfterEachFailure) {
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    server.config->timeoutIs(30);
    server.sm->startListener();
    meet(client, server);
    EXPECT_EQ(server.summary(), "+Listening 1/1/1");
    server.config->optionsIs(optionTxTtl);  // 0, which is refused.
    EXPECT_EQ(server.summary(), "-Setsockopt (Invalid argument) 1/1/0");
    server.config->optionsIs(optionTxDs);
    clock_.advance(1);
    EXPECT_EQ(server.summary(), "+Listening 2/1/0");
    server.config->md5AuthIs(IpGenAddrWithMask(addressOf("::1")), "key");
    EXPECT_EQ(server.summary(), "-Listening 2/1/0");
    clock_.advance(0);
    EXPECT_EQ(server.summary(), "+Listening 3/1/0");
    EXPECT_FALSE(server.status->diagnosis().empty());  // The key is ignored.
    server.config->optionsIs(optionMd5Auth);
    EXPECT_EQ(server.status->diagnosis(), "");
    server.sm->restartListener();
    clock_.advance(29.75);
    EXPECT_EQ(server.summary(), "+Listening 4/1/0");
    clock_.advance(0.25);
    EXPECT_EQ(server.summary(), "-Listening 4/1/0");
    EXPECT_EQ(server.status->serverTimedOutTimes(), 1u);
}

// What an owner has decided last: unknown where it has done only a part of starting or stopping.
enum class Wish { unknown, stopped, started };

template <class Agent, class Status>
struct Machine : Agent {
    Mox::Watch<Status> watch;
    Wish wish = Wish::unknown;
};
using Client = Machine<PavoTest::TestClient, TcpClientStatus>;
using Server = Machine<PavoTest::TestServer, TcpServerStatus>;

struct State {
    bool isWatching, isIdle, hasEnded;
};
State stateOf(const Client& client) {
    using Status = TcpClientStatus::ConnectionStatus;
    const Status status = client.status->connectionStatus();
    return {status == Status::connecting, status == Status::idle && !client.status->connSocket(),
            status == Status::connected || status == Status::timedout};
}
State stateOf(const Server& server) {
    const bool isListening = server.status->listening();
    return {isListening, !isListening && server.status->connSocketMembers() == 0, isListening};
}

struct World : PavoTest::RandomProgram {
    using RandomProgram::RandomProgram;

    // One that was dropped is made again when it is needed. Nobody listens on the port of the last
    // client; the last server has the port of the first.
    template <class Machine>
    Machine& anyOf(Machine (&all)[3]) {
        const uint32_t i = below(3);
        Machine& machine = all[i];
        if (!machine.sm) {
            const bool isRefused = i == 2 && std::is_same_v<Machine, Client>;
            const char* const address = i == 1 ? "::1" : "127.0.0.1";
            machine = {{loopTcpRegistrationFactory().ptr(), &wheel, address,
                        isRefused ? uint16_t{9} : port},
                       {},
                       {}};
            const auto notified = [this, &machine] {
                machine.sm ? check(machine) : void();
                machine.sm ? respond() : actSafely();  // No exception may leave a destructor.
            };
            machine.watch = {machine.status, Mox::allAttributes,
                             [notified](const Mox::Change&) { notified(); }};
        }
        return machine;
    }
    // The machine, for what the owner has decided.
    template <class Machine>
    auto& decide(Wish wish, Machine (&all)[3]) {
        Machine& machine = anyOf(all);
        machine.wish = wish;
        return *machine.sm;
    }
    template <class Machine>
    static void check(const Machine& machine) {
        const State state = stateOf(machine);
        EXPECT_EQ(state.isWatching, machine.sm->fd() != nullptr) << "it is half changed";
        EXPECT_TRUE(state.isWatching || state.hasEnded ||
                    machine.sm->lastOptionsApplied() == TcpSocketOptions());
    }
    template <class Machine>
    static void checkWish(const Machine& machine) {
        const auto isUnarmed = [](double expiry) { return expiry == Mox::Clock::idle; };
        if (machine.sm && machine.wish == Wish::started) {
            EXPECT_TRUE(stateOf(machine).hasEnded || machine.sm->fd() ||
                        !isUnarmed(machine.sm->retryTimerExpireTime()))
                << "a start is lost";
        } else if (machine.sm && machine.wish == Wish::stopped) {
            EXPECT_TRUE(stateOf(machine).isIdle && !machine.sm->fd() &&
                        isUnarmed(machine.sm->retryTimerExpireTime()) &&
                        isUnarmed(machine.sm->timeoutTimerExpireTime()))
                << "a stop is lost";
        }
    }
    void checkWishes() const {
        for (uint32_t i = 0; i < 3; ++i) {
            checkWish(clients[i]);
            checkWish(servers[i]);
        }
    }
    TcpConfigBase& anyConfig() {
        return oneIn(2) ? *anyOf(clients).config
                        : static_cast<TcpConfigBase&>(*anyOf(servers).config);
    }
    IpGenAddrWithMask anyPeer() {
        return IpGenAddrWithMask(addressOf(oneIn(2) ? "::1" : "127.0.0.1"));
    }
    void key() {
        TcpConfigBase& config = anyConfig();
        for (Server& each : servers) {
            each.wish = Wish::unknown;  // A key that changes starts it.
        }
        oneIn(2) ? config.md5AuthDel(anyPeer()) : config.md5AuthIs(anyPeer(), "key");
    }
    void peerTtl() {
        TcpServerConfig& config = *anyOf(servers).config;
        oneIn(2) ? config.peerRxMinTtlDel(anyPeer())
                 : config.peerRxMinTtlIs(anyPeer(), oneIn(2) ? 255 : 64);
    }
    Actions anyActions();
    void run();
    void checkStart(Client& client, Server& server);

    Mox::EventLoop loop;
    Mox::ManualClock clock;
    Keel::TimerWheel wheel{&clock};
    // Another one for each program: what is left of old connections in the kernel refuses new ones.
    const uint16_t port = static_cast<uint16_t>(1024 + below(30000));
    Client clients[3];
    Server servers[3];
};

World::Actions World::anyActions() {
    using enum Wish;
    return {
        {"listen", [this] { decide(started, servers).startListener(); }},
        {"connect", [this] { decide(started, clients).startConnection(); }},
        {"stop listening", [this] { decide(stopped, servers).stopListener(); }},
        {"stop", [this] { decide(stopped, clients).stopConnection(); }},
        {"restart", [this] { decide(started, servers).restartListener(); }},
        {"restart later", [this] { decide(started, servers).restartListenerDeferred(); }},
        {"server fails", [this] { decide(unknown, servers).handleServerError("Test", "x"); }},
        {"client fails", [this] { decide(unknown, clients).handleClientError("Test", "x"); }},
        {"server's timer", [this] { decide(unknown, servers).restartRetryTimer(); }},
        {"client's timer", [this] { decide(unknown, clients).stopRetryTimer(); }},
        {"take", [this] { (void)anyOf(servers).status->getConnSocket(); }},
        {"let go", [this] { anyOf(clients).status->resetConnSocket(); }},
        {"drop server", [this] { anyOf(servers).sm = nullptr; }},
        {"drop client", [this] { anyOf(clients).sm = nullptr; }},
        {"options", [this] { anyConfig().optionsIs(TcpSocketOptions(below(128) & 0x7f)); }},
        {"TTL", [this] { anyConfig().txTtlIs(oneIn(2) ? 0 : 64); }},
        {"least TTL", [this] { anyConfig().rxMinTtlIs(oneIn(2) ? 0 : 255); }},
        {"peer's TTL", [this] { peerTtl(); }},
        {"interval", [this] { anyConfig().retryIntervalIs(below(3)); }},
        {"edge", [this] { anyConfig().edgeTriggeredFileDescriptorIs(oneIn(2)); }},
        {"key", [this] { key(); }},
        {"time-out", [this] { anyOf(clients).config->timeoutIs(below(3)); }},
        {"back off", [this] { anyOf(clients).config->exponentialBackoffRetriesIs(below(4)); }},
        {"let fail", [this] { anyOf(servers).sm->failApplySocketOptionsInTestIs(true); }},
    };
}

void World::run() {
    perform(
        {anyActions()},
        [this] {
            oneIn(2) ? (void)loop.turn(0) : clock.advance(oneIn(8) ? 25 : 0.5 * below(3));
            checkWishes();
        },
        [] {});
    for (uint32_t i = 0; i < 2 && !testing::Test::HasFailure(); ++i) {
        clients[i].sm&& servers[i].sm ? checkStart(clients[i], servers[i]) : void();
    }
}

// With nothing in the way both machines come up; stopped, they leave nothing.
void World::checkStart(Client& client, Server& server) {
    server.sm->failApplySocketOptionsInTestIs(false);
    server.config->peerRxMinTtlDelAll();
    for (const Mox::Ptr<TcpConfigBase>& config : {client.sm->tcpConfig(), server.sm->tcpConfig()}) {
        config->optionsIs(TcpSocketOptions());
        config->timeoutIs(0);
        config->retryIntervalIs(1);
    }
    servers[2] = {};
    server.sm->stopListener();
    server.sm->startListener();
    client.sm->startConnection();
    const uint32_t accepted = server.status->connSocketCount();
    const auto isUp = [&] {
        return stateOf(client).hasEnded && server.status->connSocketCount() > accepted;
    };
    for (uint32_t turns = 0; turns < 100 && !isUp(); ++turns) {
        loop.turn(0.01);
        clock.advance(turns % 10 == 9 ? 0.5 : 0);
    }
    EXPECT_TRUE(isUp()) << client.status->reason() << ", " << server.status->reason();
    client.wish = server.wish = Wish::stopped;
    client.sm->stopConnection();
    server.sm->stopListener();
    checkWishes();
}

TEST(TcpClientServer, ObserversMayDoAnything) {
    SANDBOX_OR_SKIP();
    PavoTest::runPrograms(1200, PavoTest::runProgram<World>);
}

}  // namespace
}  // namespace Pavo
