// The client and server machines: timing, failures, and interfering observers.
#include "Pavo/TcpClientServer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Pavo/TcpPduPam.h"
#include "support/FailSyscall.h"
#include "tcp/TcpMachines.h"

namespace Pavo {
namespace {

using PavoTest::addressOf;
using PavoTest::failEachSyscall;
using PavoTest::FailSyscall;
using PavoTest::openDescriptors;
using PavoTest::Status;
using PavoTest::TestClient;
using PavoTest::TestServer;

constexpr double idle = std::numeric_limits<double>::infinity();
constexpr uint16_t closedPort = 4009;  // No test listens there.
const NamespaceName nowhere("nowhere");

class TcpClientServerTest : public PavoTest::TcpTest {
  protected:
    void SetUp() override {
        TcpTest::SetUp();
        globalPktManager();  // Made once, at the latest here.
        countExisting();
    }
    void countExisting() {
        descriptors_ = openDescriptors();
        objects_ = Mox::liveObjects();
    }
    void expectNothingLeft() const {
        EXPECT_EQ(openDescriptors(), descriptors_);
        EXPECT_EQ(Mox::liveObjects(), objects_);
    }

    std::map<int, std::string> descriptors_;
    uint32_t objects_ = 0;
};

TEST_F(TcpClientServerTest, DelaysDoubleAfterEachFailedAttemptAndStartAgain) {
    const struct {
        uint32_t retryInterval, backoff;
        std::vector<uint32_t> delays;
    } cases[] = {
        {2, 3, {2, 4, 8, 2, 4}},
        {2, 0, {2, 2, 2}},
        {3, 1, {3, 3}},
        {0x40000000, 4, {0x40000000, 0x80000000, 0xffffffff, 0xffffffff, 0x40000000}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.retryInterval << " " << c.backoff);
        const TestClient client(&byHand_, &wheel_, "127.0.0.1", closedPort);
        client.config->retryIntervalIs(c.retryInterval);
        client.config->exponentialBackoffRetriesIs(c.backoff);
        client.sm->startConnection();
        uint32_t attempts = 1;
        for (const uint32_t delay : c.delays) {
            ASSERT_EQ(client.status->connectionStatus(), Status::connecting);
            EXPECT_EQ(client.status->retryTimerInterval(), 20u);
            clock_.advance(1);
            deliver(client);
            const std::string count = std::to_string(attempts) + "/" + std::to_string(attempts);
            EXPECT_EQ(client.summary(), "failed Connect (Connection refused) " + count + "/0");
            EXPECT_EQ(client.status->retryTimerInterval(), delay);
            EXPECT_EQ(client.status->retryTimerNext(), clock_.now() + delay);
            clock_.advance(delay - 0.25);
            EXPECT_EQ(client.status->connectionAttemptCount(), attempts);
            clock_.advance(0.25);
            EXPECT_EQ(client.status->connectionAttemptCount(), ++attempts);
            EXPECT_EQ(client.sm->retryTimes(), attempts - 1);
        }
        // A start or stop by the owner resets the count.
        client.config->kernelTcpTimeoutIs(3);
        client.sm->startConnection();
        EXPECT_EQ(client.sm->retryTimes(), 0u);
        clock_.advance(3);  // An attempt that never ends is replaced by the next.
        EXPECT_EQ(client.sm->retryTimes(), 1u);
        EXPECT_EQ(openDescriptors().size(), descriptors_.size() + 1);
        client.sm->stopConnection();
        EXPECT_EQ(client.sm->retryTimes(), 0u);
        EXPECT_EQ(client.status->retryTimerNext(), idle);
        EXPECT_EQ(client.status->connectionStatus(), Status::idle);
    }
    expectNothingLeft();
}

TEST_F(TcpClientServerTest, TheOverallTimeOutBoundsAllAttempts) {
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", closedPort);
    client.config->timeoutIs(5.5);
    client.config->retryIntervalIs(2);
    for (uint32_t start = 1; start <= 2; ++start) {  // Attempts after 0, 2 and 4 seconds.
        client.sm->startConnection();
        for (const double pause : {2.0, 2.0, 1.25}) {
            deliver(client);
            clock_.advance(pause);
        }
        EXPECT_EQ(client.status->connectionStatus(), Status::failed);
        clock_.advance(0.25);
        EXPECT_EQ(client.status->connectionStatus(), Status::timedout);
        clock_.advance(100);
        EXPECT_EQ(client.status->connectionAttemptCount(), 3 * start);
    }

    // A connection has no time-out any more; a listener still has one.
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient other(&byHand_, &wheel_, "127.0.0.1", 4001);
    server.config->timeoutIs(3);
    other.config->timeoutIs(3);
    ASSERT_TRUE(server.sm->startListener());
    meet(other, server);
    clock_.advance(103);
    EXPECT_EQ(other.summary(), "connected  1/0/1");
    EXPECT_EQ(server.summary(), "-Listening 1/1/0");
    EXPECT_EQ(server.status->serverTimedOutTimes(), 1u);
}

TEST_F(TcpClientServerTest, BothSidesHandTheConnectionToTheirOwner) {
    {
        const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
        const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
        client.config->edgeTriggeredFileDescriptorIs(true);
        client.config->clientIpAddrIs(addressOf("127.0.0.5"));
        EXPECT_EQ(server.summary(), "-Not started 0/0/0");
        ASSERT_TRUE(server.sm->startListener());
        EXPECT_TRUE(server.sm->startListener());
        EXPECT_EQ(server.summary(), "+Listening 1/0/0");
        server.sm->fd()->handleReadable();  // No connection waits.
        EXPECT_EQ(server.status->serverEagainEintrTimes(), 1u);
        client.sm->startConnection();
        const auto registration = client.sm->fd();
        deliver(client);
        deliver(server);
        EXPECT_EQ(client.summary(), "connected  1/0/1");
        EXPECT_EQ(client.sm->fd(), nullptr);
        EXPECT_FALSE(registration->enabled());
        EXPECT_EQ(client.status->retryTimerNext(), idle);

        const TcpConnSocket near = client.status->connSocket();
        const TcpConnSocket far = server.status->getConnSocket();
        EXPECT_TRUE(near.fileDescriptor()->edgeTriggered());
        EXPECT_EQ(fcntl(far.fileDescriptor()->descriptor(), F_GETFD), FD_CLOEXEC);
        EXPECT_NE(fcntl(far.fileDescriptor()->descriptor(), F_GETFL) & O_NONBLOCK, 0);
        EXPECT_FALSE(far.fileDescriptor()->edgeTriggered());
        EXPECT_EQ(near.dstPort(), Port(4001));
        EXPECT_EQ(near, TcpConnSocket(near.fileDescriptor(), far.dstIpAddr(), far.dstPort(),
                                      far.srcIpAddr(), far.srcPort(), 0));
        EXPECT_EQ(TcpConnSocket(tcpFileDescriptorFactory(-1, false), addressOf("192.0.2.1"), 179,
                                addressOf("fd00::1"), 4, 0)
                      .toStrep(),
                  "192.0.2.1 port 179 -> fd00::1 port 4 fd -1");
        EXPECT_EQ(valueToStrep(TcpConnSocket()),
                  "Value('Pavo::TcpConnSocket', ** {'fileDescriptor': Value(''), 'srcIpAddr': ::, "
                  "'srcPort': 0, 'dstIpAddr': ::, 'dstPort': 0, 'ifIndex': 0})");
        client.sm->stopConnection();
        ASSERT_EQ(send(near.fileDescriptor()->descriptor(), "x", 1, 0), 1);  // Still open.
    }
    expectNothingLeft();
}

TEST_F(TcpClientServerTest, WaitingConnectionsAreTakenInTheOrderOfTheirIndices) {
    const auto status = tcpServerStatusFactory();
    std::string notified;
    const Mox::Watch<TcpServerStatus> queue(
        status, TcpServerStatus::connSocketAttr,
        [&notified](uint32_t index) { notified += std::to_string(index); });
    const auto connection = [](uint32_t n) {
        return TcpConnSocket(nullptr, IpGenAddr(), 0, IpGenAddr(), 0, n);
    };
    for (const uint32_t n : {10, 11, 12, 13}) {
        status->connSocketEnq(connection(n));
    }
    status->connSocketIs(2, connection(22));
    status->connSocketIs(2, connection(22));
    status->connSocketDel(1);
    status->connSocketDel(1);
    EXPECT_EQ(status->connSocketFront(), connection(10));
    EXPECT_EQ(status->connSocketDeq(), connection(10));
    EXPECT_EQ(status->connSocketDeq(), connection(22));
    EXPECT_EQ(status->connSocketBack(), connection(13));
    status->connSocketIs(7, connection(17));
    EXPECT_EQ(status->connSocketEnq(connection(18)), 8u);
    EXPECT_EQ(status->connSocket(7), connection(17));
    status->connSocketDelAll();
    EXPECT_EQ(status->getConnSocket(), TcpConnSocket());
    EXPECT_EQ(notified, "0123210278378");
}

TEST_F(TcpClientServerTest, AListenerNeedsAPortAndWaitsForOneInUse) {
    const TestServer holder(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestServer portless(&byHand_, &wheel_, "127.0.0.1", 0);
    ASSERT_TRUE(holder.sm->startListener());
    EXPECT_FALSE(server.sm->startListener());
    EXPECT_FALSE(portless.sm->startListener());
    clock_.advance(10);
    EXPECT_EQ(server.summary(), "-Bind (Address already in use) 11/0/0");
    EXPECT_EQ(server.sm->retryTimes(), 10u);
    holder.sm->stopListener();
    clock_.advance(1);
    EXPECT_EQ(server.summary(), "+Listening 12/0/0");
    EXPECT_EQ(server.sm->retryTimerExpireTime(), idle);
    EXPECT_EQ(portless.summary(), "-Listening port is 0 0/0/0");
}

TEST_F(TcpClientServerTest, AListenerThatKeepsFailingWaitsBetweenAttempts) {
    const TestServer server(byLoop_.ptr(), &wheel_, "127.0.0.1", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    server.config->retryIntervalIs(2);
    const auto turn = [&](double seconds, const char* failingCall) {
        const FailSyscall fail(1, EMFILE, failingCall);
        clock_.advance(seconds);
        client.sm->startConnection();
        loop_.turn(0);
    };
    ASSERT_TRUE(server.sm->startListener());
    turn(0, "accept4");
    EXPECT_EQ(server.summary(), "-Accept (Too many open files) 1/0/0");
    EXPECT_EQ(server.sm->retryTimerExpireTime(), clock_.now());  // The first restart is immediate.
    for (int tenths = 0; tenths < 100; ++tenths) {
        turn(0.1, "accept4");
    }
    EXPECT_EQ(server.summary(), "-Accept (Too many open files) 6/0/0");

    // After an accepted connection the next restart is immediate again.
    turn(2, "none");
    EXPECT_EQ(server.status->connSocketCount(), 1u);
    server.sm->failApplySocketOptionsInTestIs(true);
    turn(0, "none");
    EXPECT_EQ(server.status->reason(), "Setsockopt (Invalid argument)");
    EXPECT_FALSE(server.sm->failApplySocketOptionsInTest());
    EXPECT_EQ(server.sm->retryTimerExpireTime(), clock_.now());
    EXPECT_EQ(server.status->connSocketMembers(), 0u);
}

TEST_F(TcpClientServerTest, APortServesAllPeersButItself) {
    const auto portsAre = [](const char* range) {
        std::ofstream("/proc/sys/net/ipv4/ip_local_port_range") << range << std::flush;
    };
    portsAre("40001 40001");
    const TestServer server(&byHand_, &wheel_, "0.0.0.0", 4001);
    ASSERT_TRUE(server.sm->startListener());
    const TestClient one(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient other(&byHand_, &wheel_, "127.0.0.2", 4001);
    meet(one, server);
    meet(other, server);
    EXPECT_EQ(other.summary(), "connected  1/0/1");

    // Without a listener there, the kernel connects the client with itself.
    const TestClient itself(&byHand_, &wheel_, "127.0.0.3", 40001);
    itself.config->clientIpAddrIs(addressOf("127.0.0.3"));
    itself.sm->startConnection();
    deliver(itself);
    EXPECT_EQ(itself.summary(), "failed Connect (Connection refused) 1/1/0");
    portsAre("32768 60999");
}

// A call that failed, and the reason in the status.
std::string reported(const FailSyscall& fail, const Mox::String& reason) {
    const std::string text(reason);
    return std::string(fail.name()) + ":" +
           text.substr(0, text.find(" (No buffer space available)"));
}

template <class Machine>
void optionsAre(const Machine& machine) {
    machine.config->optionsIs(optionTxTtl | optionMd5Auth);
    machine.config->txTtlIs(9);
    machine.config->md5AuthIs(IpGenAddrWithMask(addressOf("fd00::1")), "key");
}

TEST_F(TcpClientServerTest, EachFailingCallOfAClientIsReportedAndRetried) {
    const TestServer server(&byHand_, &wheel_, "::1", 4001);
    server.sm->backlogIs(100);
    ASSERT_TRUE(server.sm->startListener());
    countExisting();
    std::optional<TestClient> client;
    std::set<std::string> reasons;
    const auto begin = [&] {
        client.emplace(byLoop_.ptr(), &wheel_, "::1", 4001);
        optionsAre(*client);
        return client->sm->startConnection();
    };
    const auto check = [&](const FailSyscall& fail, bool, int) {
        reasons.insert(reported(fail, client->status->reason()));
        if (fail.argument(2) != IP_BIND_ADDRESS_NO_PORT) {  // This option is not essential.
            EXPECT_EQ(client->status->connectionStatus(), Status::failed);
            EXPECT_EQ(client->status->connectionErrorCount(), 1u);
            EXPECT_EQ(openDescriptors(), descriptors_);
            clock_.advance(1);
        }
        EXPECT_TRUE(turnUntil([&] { return bool(client->status->connSocket()); }));
        EXPECT_EQ(client->sm->retryTimes(), 0u);
        client.reset();
        expectNothingLeft();
    };
    failEachSyscall(ENOBUFS, begin, check);
    for (const char* call : {"getsockopt", "getsockname"}) {  // Once there is an answer.
        const auto completion = [&] {
            FailSyscall off(0, 0, "none of these");
            begin();
            await(*client);
            off.disarm();
            client->sm->fd()->handleWritable();
            return true;
        };
        failEachSyscall(ENOBUFS, completion, check, call);
    }
    EXPECT_EQ(reasons,
              (std::set<std::string>{"stat:Socket", "socket:Socket", "setsockopt:Setsockopt",
                                     "setsockopt:", "getsockopt:Setsockopt", "bind:Bind",
                                     "connect:Connect", "fcntl:Socket", "epoll_ctl:Socket",
                                     "getsockopt:Getsockopt", "getsockname:Getsockname"}));
}

TEST_F(TcpClientServerTest, EachFailingCallOfAServerIsReportedAndRetried) {
    const TestClient client(&byHand_, &wheel_, "::1", 4001);
    countExisting();
    std::optional<TestServer> server;
    std::set<std::string> reasons;
    const auto begin = [&] {
        server.reset();
        server.emplace(byLoop_.ptr(), &wheel_, "::1", 4001);
        optionsAre(*server);
        return server->sm->startListener();
    };
    const auto check = [&](const FailSyscall& fail, bool isListening, int) {
        if (isListening) {  // `listen` failed, and an accept reports it.
            loop_.turn(0);
        }
        reasons.insert(reported(fail, server->status->reason()));
        if (!server->status->listening()) {
            clock_.advance(1);
            EXPECT_EQ(server->summary(), "+Listening 2/0/0");
        } else {
            EXPECT_EQ(server->summary(), "+Listening 1/0/0");
        }
        client.sm->stopConnection();
        server.reset();
        expectNothingLeft();
    };
    failEachSyscall(ENOBUFS, begin, check);
    const auto accept = [&] {
        FailSyscall off(0, 0, "none of these");
        begin();
        client.sm->startConnection();
        await(*server);
        off.disarm();
        server->sm->fd()->handleReadable();
        return false;
    };
    failEachSyscall(ENOBUFS, accept, check);
    EXPECT_EQ(reasons,
              (std::set<std::string>{
                  "stat:Socket", "socket:Socket", "setsockopt:Setsockopt(REUSE)",
                  "getsockopt:Setsockopt(REUSE)", "setsockopt:Setsockopt", "getsockopt:Setsockopt",
                  "setsockopt:Setsockopt(V6OONLY)", "getsockopt:Setsockopt(V6OONLY)", "bind:Bind",
                  "fcntl:Socket", "epoll_ctl:Socket", "listen:Accept (Invalid argument)",
                  "accept4:Accept", "getpeername:Listening", "getsockname:Listening"}));
}

bool startOf(TcpClientSm& sm) {
    return sm.startConnection();
}
bool startOf(TcpServerSm& sm) {
    return sm.startListener();
}

// "+" starts, "-" stops, "!" throws.
template <class Sm>
void perform(Sm& sm, const char* acts) {
    for (const char* act = acts; *act != '\0'; ++act) {
        if (*act == '!') {
            throw std::runtime_error("from an observer");
        }
        *act == '+' ? void(startOf(sm)) : sm.cleanup();
    }
}

// A machine and the steps of its owner.
template <class Agent>
struct Life {
    std::function<void(std::optional<Agent>&)> make;
    std::vector<std::function<void(Agent&)>> steps;
    std::function<void(const Agent&)> expectOrder;
    std::function<void(Agent&)> recover;
};

// Takes the steps with an observer that performs `acts` at the n-th change of the status; "d" drops
// the machine and "D" also its configuration and status, which ends the steps. Order is checked
// after each step, up to an exception, a stop lasts, and in the end a remaining machine can start.
// Returns whether there was an n-th change.
template <class Agent>
bool interfere(const Life<Agent>& life, const char* acts, unsigned n) {
    SCOPED_TRACE(testing::Message() << acts << " at " << n);
    std::optional<Agent> agent;
    life.make(agent);
    unsigned changes = 0;
    Mox::Watch watch(agent->status, Mox::allAttributes, [&](const Mox::Change&) {
        if (++changes != n) {
            return;
        }
        if (*acts == 'd') {
            agent->sm = nullptr;
        } else if (*acts == 'D') {
            agent.reset();
        } else {
            perform(*agent->sm, acts);
        }
    });
    const auto isAlive = [&agent] { return agent && agent->sm; };
    for (std::size_t i = 0; i < life.steps.size() && isAlive(); ++i) {
        SCOPED_TRACE(testing::Message() << "step " << i);
        const bool isPending = changes < n;
        try {
            life.steps[i](*agent);
        } catch (const std::runtime_error&) {
        }
        if (isAlive() && (*acts != '!' || changes < n)) {
            life.expectOrder(*agent);
        }
        if (isAlive() && isPending && changes >= n && std::string_view(acts).ends_with('-')) {
            EXPECT_FALSE(agent->sm->fd());
            EXPECT_EQ(agent->sm->retryTimerExpireTime(), idle);
        }
    }
    watch.hasNotificationActiveIs(false);
    if (isAlive()) {
        agent->sm->cleanup();
        life.recover(*agent);
        EXPECT_TRUE(startOf(*agent->sm));
    }
    return changes >= n;
}

template <class Agent>
void interfereEverywhere(const Life<Agent>& life) {
    for (const char* acts : {"-", "+", "-+", "+-", "d", "D", "!"}) {
        unsigned n = 1;
        for (; interfere(life, acts, n); ++n) {
        }
        EXPECT_GT(n, 20u);
    }
}

TEST_F(TcpClientServerTest, AClientStaysInOrderWhateverItsObserversDo) {
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    countExisting();
    const auto writable = [](TestClient& c) { deliver(c); };
    const Life<TestClient> life{
        [&](std::optional<TestClient>& c) {
            server.sm->stopListener();
            c.emplace(&byHand_, &wheel_, "127.0.0.1", 4001);
        },
        {
            [](TestClient& c) { c.sm->startConnection(); },
            writable,  // Refused.
            [&](TestClient&) { clock_.advance(1); },
            [&](TestClient&) { server.sm->startListener(); },
            [&](TestClient&) { clock_.advance(20); },
            writable,
            [](TestClient& c) { c.config->optionsIs(optionTxTtl); },  // 0, which is refused.
            [](TestClient& c) { c.config->networkNamespaceIs(nowhere); },
            [&](TestClient&) { clock_.advance(1); },
            [](TestClient& c) { c.sm->handleTimeout(); },
            [](TestClient& c) { c.sm->stopConnection(); },
        },
        [](const TestClient& c) {
            const Status status = c.status->connectionStatus();
            EXPECT_EQ(c.sm->fd() != nullptr, status == Status::connecting) << c.summary();
            if (status == Status::connecting || status == Status::failed) {
                EXPECT_LT(c.sm->retryTimerExpireTime(), idle);
            }
            if (status == Status::timedout || status == Status::connected) {
                EXPECT_EQ(c.sm->retryTimerExpireTime(), idle);
            }
            if (status != Status::connecting) {  // A new start keeps the old connection.
                EXPECT_EQ(bool(c.status->connSocket()), status == Status::connected);
            }
        },
        [](TestClient& c) {
            c.config->networkNamespaceIs(NamespaceName());
            c.config->optionsIs({});
        },
    };
    interfereEverywhere(life);
    server.sm->stopListener();
    expectNothingLeft();
}

TEST_F(TcpClientServerTest, AServerStaysInOrderWhateverItsObserversDo) {
    const TestServer holder(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    countExisting();
    const auto accept = [&client](TestServer& s) {
        client.sm->startConnection();
        deliver(s);
    };
    const auto turn = [this](TestServer&) { clock_.advance(1); };
    const Life<TestServer> life{
        [&](std::optional<TestServer>& s) {
            holder.sm->startListener();
            s.emplace(&byHand_, &wheel_, "127.0.0.1", 4001);
        },
        {
            [](TestServer& s) { s.sm->startListener(); },  // The port is in use.
            [&](TestServer&) { holder.sm->stopListener(); },
            turn,
            accept,
            accept,
            [](TestServer& s) { s.config->optionsIs(optionTxTtl); },  // 0, which is refused.
            [](TestServer& s) { s.config->optionsIs({}); },
            turn,
            [](TestServer& s) { s.config->md5AuthIs(IpGenAddrWithMask(addressOf("::1")), "key"); },
            turn,
            [](TestServer& s) { s.sm->failApplySocketOptionsInTestIs(true); },
            accept,
            turn,
            [](TestServer& s) { s.sm->handleTimeout(); },
            [](TestServer& s) { s.sm->stopListener(); },
        },
        [](const TestServer& s) {
            EXPECT_EQ(s.sm->fd() != nullptr, s.status->listening()) << s.summary();
        },
        [&](TestServer& s) {
            holder.sm->stopListener();
            s.config->optionsIs({});
        },
    };
    interfereEverywhere(life);
    holder.sm->stopListener();
    client.sm->stopConnection();
    expectNothingLeft();
}

TEST_F(TcpClientServerTest, AConnectionIsHandedOverCompletelyWhenAnObserverThrows) {
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    ASSERT_TRUE(server.sm->startListener());
    const Mox::Watch<TcpClientStatus> watch(client.status, TcpClientStatus::connSocketAttr,
                                            [] { throw std::runtime_error("from an observer"); });
    ASSERT_TRUE(client.sm->startConnection());
    EXPECT_THROW(deliver(client), std::runtime_error);
    EXPECT_EQ(client.summary(), "connected  1/0/1");
    EXPECT_TRUE(client.status->connSocket());
    EXPECT_EQ(client.status->retryTimerNext(), idle);
}

// Sends a message, and takes the peer's.
struct Talker {
    Talker(const TcpConnSocket& connection, TcpFileDescriptorEventRegistrationFactory* by)
        : pam(simpleTcpPduPamFactory(connection.fileDescriptor(), by)),
          readable(pam, Pam::readableCountAttr, [this] { taken += pam->rxPkt() != nullptr; }) {
        pam->enableModeIs(tcpEnableModeReadWrite);
        const std::string_view message("\0\0\0\x14----------------", SimpleTcpPduPam::headerBytes);
        const Mox::Ptr<Pkt> pkt = globalPktManager()->newPkt();
        pkt->stringValueIs(Mox::String(message), /*atTail=*/false);
        pam->txPktIs(pkt);
    }

    Mox::Ptr<SimpleTcpPduPam> pam;
    uint32_t taken = 0;
    Mox::Watch<SimpleTcpPduPam> readable;
};

TEST_F(TcpClientServerTest, AThousandConnectionsAtOnceAllMoveMessages) {
    constexpr uint32_t many = 1000;
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 2 * many + 200);
    limit.rlim_max = std::max(limit.rlim_max, limit.rlim_cur);  // Takes root, where it matters.
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    {
        const TestServer server(byLoop_.ptr(), &wheel_, "127.0.0.1", 4001);
        server.sm->backlogIs(many);
        ASSERT_TRUE(server.sm->startListener());
        std::deque<TestClient> clients;
        for (uint32_t i = 0; i < many; ++i) {
            clients.emplace_back(byLoop_.ptr(), &wheel_, "127.0.0.1", 4001);
            ASSERT_TRUE(clients.back().sm->startConnection()) << clients.back().summary();
        }
        EXPECT_TRUE(turnUntil([&] { return server.status->connSocketCount() == many; }));
        std::deque<Talker> talkers;
        for (const TestClient& client : clients) {
            ASSERT_EQ(client.summary(), "connected  1/0/1");
            talkers.emplace_back(client.status->connSocket(), byLoop_.ptr());
        }
        while (const TcpConnSocket connection = server.status->getConnSocket()) {
            talkers.emplace_back(connection, byLoop_.ptr());
        }
        ASSERT_EQ(talkers.size(), 2 * many);
        EXPECT_TRUE(turnUntil([&talkers] {
            return std::all_of(talkers.begin(), talkers.end(),
                               [](const Talker& talker) { return talker.taken == 1; });
        }));
    }
    expectNothingLeft();
}

TEST_F(TcpClientServerTest, RoundsOfConnectingAndClosingLeaveNothingBehind) {
    constexpr uint32_t rounds = 10000;
    {
        const TestServer server(byLoop_.ptr(), &wheel_, "127.0.0.1", 4001);
        const TestClient client(byLoop_.ptr(), &wheel_, "127.0.0.1", 4001);
        ASSERT_TRUE(server.sm->startListener());
        const auto descriptors = openDescriptors();
        for (uint32_t round = 1; round <= rounds; ++round) {
            ASSERT_TRUE(client.sm->startConnection()) << client.summary();
            ASSERT_TRUE(turnUntil([&] {
                return client.status->connSocket() && server.status->connSocketMembers() == 1;
            })) << client.summary();
            client.sm->stopConnection();  // First, so that the port is the client's to wait for.
            ASSERT_TRUE(server.status->getConnSocket());
        }
        EXPECT_EQ(openDescriptors(), descriptors);
        EXPECT_EQ(server.status->connSocketCount(), rounds);
        EXPECT_EQ(client.status->connectionErrorCount(), 0u);
    }
    expectNothingLeft();
}

}  // namespace
}  // namespace Pavo
