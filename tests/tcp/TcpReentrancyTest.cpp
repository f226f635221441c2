/// @file
/// Random programs of message endpoints and of TCP machines, whose observers act.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tcp/TcpMachines.h"
#include "tcp/TcpRandomStreams.h"

namespace Pavo {
namespace {

using Mox::Change;
using Mox::Ptr;
using Mox::Watch;
using PavoTest::addressOf;

// What an owner has decided last: unknown where it has done only a part of starting or stopping.
enum class Wish { unknown, stopped, started };

template <class Agent, class Status>
struct Machine : Agent {
    Watch<Status> watch;
    Wish wish = Wish::unknown;
};
using Client = Machine<PavoTest::TestClient, TcpClientStatus>;
using Server = Machine<PavoTest::TestServer, TcpServerStatus>;

struct State {
    bool isWatching, isIdle, hasEnded, isConnected;
};
State stateOf(const Client& client) {
    using Status = TcpClientStatus::ConnectionStatus;
    const Status status = client.status->connectionStatus();
    return {status == Status::connecting, status == Status::idle && !client.status->connSocket(),
            status == Status::connected || status == Status::timedout, status == Status::connected};
}
State stateOf(const Server& server) {
    const bool isListening = server.status->listening();
    return {isListening, !isListening && server.status->connSocketMembers() == 0, isListening,
            false};
}

struct World : RandomStreams {
    using RandomStreams::RandomStreams;

    // On a connection that client and server have made.
    void openTcp(Client& client, Server& server) {
        if (!client.sm || !server.sm) {
            return;
        }
        const TcpConnSocket near = client.status->connSocket();
        const TcpConnSocket far = server.status->getConnSocket();
        if (near && far && near.srcPort() == far.dstPort() && client.sm) {
            open(near.fileDescriptor(), far.fileDescriptor());
            streams.back()->isSpoilt = isConfigured;  // Its socket may drop segments.
            client.wish = Wish::stopped;
            client.sm->stopConnection();
        }
    }
    void make(PavoTest::TestClient& client, uint32_t i) {
        client = {factory.ptr(), &wheel, i == 1 ? "::1" : "127.0.0.1", i == 2 ? noPort : port};
    }
    void make(PavoTest::TestServer& server, uint32_t i) {  // The last has the port of the first.
        server = {factory.ptr(), &wheel, i == 1 ? "::1" : "127.0.0.1", port};
    }
    // One that was dropped is made again when it is needed.
    template <class Machine>
    Machine& anyOf(Machine (&all)[3]) {
        const uint32_t i = below(3);
        Machine& machine = all[i];
        if (!machine.sm) {
            machine = {};
            make(machine, i);
            const auto notified = [this, &machine] {
                machine.sm ? check(machine) : void();
                machine.sm ? respond() : actSafely();  // No exception may leave a destructor.
            };
            machine.watch = {machine.status, Mox::allAttributes,
                             [notified](const Change&) { notified(); }};
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
        EXPECT_TRUE(state.isWatching || state.isConnected ||
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
    TcpConfigBase& anyConfig() {
        isConfigured = true;
        return oneIn(2) ? *anyOf(clients).config
                        : static_cast<TcpConfigBase&>(*anyOf(servers).config);
    }
    void key(bool six) {
        TcpConfigBase& config = anyConfig();
        for (Server& each : servers) {
            each.wish = Wish::unknown;  // A key that changes starts it.
        }
        const IpGenAddrWithMask peer(addressOf(six ? "::1" : "127.0.0.1"), six ? 128 : 32);
        oneIn(2) ? config.md5AuthDel(peer) : config.md5AuthIs(peer, "key");
    }
    void peerTtl(bool six) {
        TcpServerConfig& config = *anyOf(servers).config;
        isConfigured = true;
        const IpGenAddrWithMask peer(addressOf(six ? "::1" : "127.0.0.1"), six ? 128 : 32);
        oneIn(2) ? config.peerRxMinTtlDel(peer) : config.peerRxMinTtlIs(peer, oneIn(2) ? 255 : 64);
    }
    std::vector<Actions> kinds();
    void run();
    void checkAtRest();
    void checkWishes() const;
    void checkStart(Client& client, Server& server);

    Mox::ManualClock clock;
    Keel::TimerWheel wheel{&clock};
    static constexpr uint16_t noPort = 9;
    // Another one for each program: what is left of old connections in the kernel refuses new ones.
    const uint16_t port = static_cast<uint16_t>(1024 + below(30000));
    Client clients[3];
    Server servers[3];
    bool isConfigured = false;
};

std::vector<World::Actions> World::kinds() {
    using enum Wish;
    return {
        streamActions(),
        {
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
            {"stream", [this] { openTcp(clients[0], servers[0]); }},
            {"options", [this] { anyConfig().optionsIs(TcpSocketOptions(below(128) & 0x7f)); }},
            {"TTL", [this] { anyConfig().txTtlIs(oneIn(2) ? 0 : 64); }},
            {"least TTL", [this] { anyConfig().rxMinTtlIs(oneIn(2) ? 0 : 255); }},
            {"peer's TTL", [this] { peerTtl(oneIn(2)); }},
            {"interval", [this] { anyConfig().retryIntervalIs(below(3)); }},
            {"edge", [this] { anyConfig().edgeTriggeredFileDescriptorIs(oneIn(2)); }},
            {"key", [this] { key(oneIn(2)); }},
            {"time-out", [this] { anyOf(clients).config->timeoutIs(below(3)); }},
            {"back off", [this] { anyOf(clients).config->exponentialBackoffRetriesIs(below(4)); }},
            {"let fail", [this] { anyOf(servers).sm->failApplySocketOptionsInTestIs(true); }},
        },
    };
}

void World::run() {
    perform(
        kinds(),
        [this] {
            oneIn(2) ? (void)loop.turn(0) : clock.advance(oneIn(8) ? 25 : 0.5 * below(3));
            checkWishes();
        },
        [this] { checkAtRest(); });
    for (uint32_t i = 0; i < 2 && !testing::Test::HasFailure(); ++i) {
        checkStart(clients[i], servers[i]);
    }
}

void World::checkWishes() const {
    for (uint32_t i = 0; i < 3; ++i) {
        checkWish(clients[i]);
        checkWish(servers[i]);
    }
}

void World::checkAtRest() {
    print("at rest");
    checkWishes();
    checkStreamsAtRest();
}

// With nothing in the way both machines come up; stopped, they leave nothing.
void World::checkStart(Client& client, Server& server) {
    if (!client.sm || !server.sm) {
        return;
    }
    server.sm->failApplySocketOptionsInTestIs(false);
    for (const Ptr<TcpConfigBase>& config :
         {Ptr<TcpConfigBase>(client.config), Ptr<TcpConfigBase>(server.config)}) {
        config->optionsIs(TcpSocketOptions());
        config->timeoutIs(0);
        config->retryIntervalIs(1);
    }
    server.config->peerRxMinTtlDelAll();
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

using TcpReentrancy = PavoTest::SandboxTest;

TEST_F(TcpReentrancy, ObserversOfEndpointsAndMachinesMayDoAnything) {
    (void)globalPktManager();  // Lives from now on.
    PavoTest::runPrograms(2000, PavoTest::runProgram<World>);
}

}  // namespace
}  // namespace Pavo
