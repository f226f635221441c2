// The courses of the machines: timing, failures, and what observers do to them.
#include "Pavo/TcpClientServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "Pavo/TcpPduPam.h"
#include "support/FailSyscall.h"
#include "support/TestEntity.h"
#include "tcp/TcpMachines.h"

namespace Pavo {
namespace {

using PavoTest::addressOf;
using PavoTest::Status;
using PavoTest::TestClient;
using PavoTest::TestServer;

constexpr double idle = std::numeric_limits<double>::infinity();
constexpr uint16_t nobody = 4009;  // No test listens there.

class TcpClientServerTest : public PavoTest::TcpTest {
  protected:
    void SetUp() override {
        TcpTest::SetUp();
        descriptors_ = PavoTest::openDescriptors();
        globalPktManager();  // Made once, at the latest here.
        objects_ = Mox::liveObjects();
    }
    void expectNothingLeft() const {
        EXPECT_EQ(PavoTest::openDescriptors(), descriptors_);
        EXPECT_EQ(Mox::liveObjects(), objects_);
    }

    std::map<int, std::string> descriptors_;
    uint32_t objects_ = 0;
};

TEST_F(TcpClientServerTest, DelaysAfterFailedAttemptsClimbAndBeginAnew) {
    const struct {
        uint32_t retryInterval, backoff;
        std::vector<uint32_t> delays;
    } cases[] = {
        {2, 3, {2, 4, 8, 2, 4}},
        {2, 0, {2, 2, 2}},
        {1, 4, {1, 2, 4, 8, 1, 2}},
        {3, 1, {3, 3}},
        {0x40000000, 4, {0x40000000, 0x80000000, 0xffffffff, 0xffffffff, 0x40000000}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.retryInterval << " " << c.backoff);
        const TestClient client(&byHand_, &wheel_, "127.0.0.1", nobody);
        client.config->retryIntervalIs(c.retryInterval);
        client.config->exponentialBackoffRetriesIs(c.backoff);
        client.sm->startConnection();
        uint32_t attempts = 1;
        for (const uint32_t delay : c.delays) {
            ASSERT_EQ(client.status->connectionStatus(), Status::connecting);
            EXPECT_EQ(client.status->retryTimerInterval(), 20u);
            clock_.advance(1);
            tell(client);
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
        // The owner's start begins the count anew, and so does its stop.
        client.sm->startConnection();
        EXPECT_EQ(client.sm->retryTimes(), 0u);
        clock_.advance(20);
        EXPECT_EQ(client.sm->retryTimes(), 1u);
        client.sm->stopConnection();
        EXPECT_EQ(client.sm->retryTimes(), 0u);
        EXPECT_EQ(client.status->retryTimerNext(), idle);
        EXPECT_EQ(client.status->connectionStatus(), Status::idle);
    }
    expectNothingLeft();
}

TEST_F(TcpClientServerTest, AnAttemptThatNeverEndsIsGivenUpForTheNext) {
    for (const uint32_t limit : {TcpClientConfig::kernelTcpTimeoutDefault, 3u}) {
        const TestClient client(&byHand_, &wheel_, "127.0.0.1", nobody);
        client.config->kernelTcpTimeoutIs(limit);
        client.sm->startConnection();
        for (uint32_t attempts = 1; attempts < 4; ++attempts) {
            clock_.advance(limit - 0.5);
            EXPECT_EQ(client.summary(), "connecting  " + std::to_string(attempts) + "/0/0");
            EXPECT_EQ(PavoTest::openDescriptors().size(), descriptors_.size() + 1);
            clock_.advance(0.5);
        }
    }
    expectNothingLeft();
}

TEST_F(TcpClientServerTest, TheOverallTimeOutBoundsAllAttempts) {
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", nobody);
    client.config->timeoutIs(5.5);
    client.config->retryIntervalIs(2);
    for (uint32_t start = 1; start <= 2; ++start) {  // Attempts after 0, 2 and 4 seconds.
        client.sm->startConnection();
        for (int attempt = 0; attempt < 3; ++attempt) {
            tell(client);
            clock_.advance(attempt < 2 ? 2 : 1.25);
        }
        EXPECT_EQ(client.status->connectionStatus(), Status::failed);
        clock_.advance(0.25);
        EXPECT_EQ(client.status->connectionStatus(), Status::timedout);
        clock_.advance(100);
        EXPECT_EQ(client.status->connectionAttemptCount(), 3 * start);
        EXPECT_EQ(client.sm->retryTimerExpireTime(), idle);
        EXPECT_EQ(client.sm->timeoutTimerExpireTime(), idle);
    }

    // What is listening, or connected, has no time-out any more: a listener has.
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient other(&byHand_, &wheel_, "127.0.0.1", 4001);
    server.config->timeoutIs(3);
    other.config->timeoutIs(3);
    ASSERT_TRUE(server.sm->startListener());
    meet(other, server);
    clock_.advance(3);
    EXPECT_EQ(other.summary(), "connected  1/0/1");
    EXPECT_EQ(server.summary(), "-Listening 1/1/0");
    EXPECT_EQ(server.status->serverTimedOutTimes(), 1u);
    clock_.advance(100);
    EXPECT_EQ(server.status->serverStartTimes(), 1u);
}

TEST_F(TcpClientServerTest, AConnectionIsTheOwnersOnBothSides) {
    {
        const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
        const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
        client.config->edgeTriggeredFileDescriptorIs(true);
        EXPECT_EQ(server.summary(), "-Not started 0/0/0");
        ASSERT_TRUE(server.sm->startListener());
        EXPECT_TRUE(server.sm->startListener());
        EXPECT_EQ(server.summary(), "+Listening 1/0/0");
        server.sm->fd()->handleReadable();  // Nobody is there.
        EXPECT_EQ(server.status->serverEagainEintrTimes(), 1u);
        client.sm->startConnection();
        const auto registration = client.sm->fd();
        tell(client);
        tell(server);
        EXPECT_EQ(client.summary(), "connected  1/0/1");
        EXPECT_EQ(client.sm->fd(), nullptr);
        EXPECT_FALSE(registration->enabled());
        EXPECT_EQ(client.sm->retryTimerExpireTime(), idle);
        EXPECT_EQ(client.status->retryTimerNext(), idle);

        const TcpConnSocket near = client.status->connSocket();
        const TcpConnSocket far = server.status->getConnSocket();
        EXPECT_FALSE(server.status->getConnSocket());
        EXPECT_TRUE(near.fileDescriptor()->edgeTriggered());
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
        ASSERT_EQ(send(near.fileDescriptor()->descriptor(), "x", 1, 0), 1);  // Ours still.
    }
    expectNothingLeft();
}

TEST_F(TcpClientServerTest, WaitingConnectionsLeaveInTheOrderOfTheirIndices) {
    const auto status = tcpServerStatusFactory();
    std::string told;
    const Mox::Watch<TcpServerStatus> queue(
        status, TcpServerStatus::connSocketAttr,
        [&told](uint32_t index) { told += std::to_string(index); });
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
    EXPECT_EQ(told, "0123210278378");
}

TEST_F(TcpClientServerTest, AClientSaysWhatFailed) {
    const auto listener = TcpFileDescriptor::socket(ipv4, NamespaceName(), false);
    const struct {
        const char* summary;
        const char* server;
        std::function<void(TcpClientConfig&)> configure;
    } cases[] = {
        {"failed Socket (No such file or directory) 0/1/0", "127.0.0.1",
         [](auto& c) { c.networkNamespaceIs(NamespaceName("nowhere")); }},
        {"failed Bind (Cannot assign requested address) 1/1/0", "127.0.0.1",
         [](auto& c) { c.clientIpAddrIs(addressOf("192.0.2.9")); }},
        {"failed Bind (Invalid argument) 1/1/0", "::1",
         [](auto& c) { c.clientIpAddrIs(addressOf("127.0.0.1")); }},
        {"failed Setsockopt (Invalid argument) 1/1/0", "127.0.0.1",
         [](auto& c) { c.optionsIs(optionTxTtl); }},
        {"failed Connect (Network is unreachable) 1/1/0", "198.51.100.1", [](auto&) {}},
        {"connecting  1/0/0", "127.0.0.1", [](auto& c) { c.clientIpAddrIs(IpGenAddr(ipv4)); }},
        {"connecting  1/0/0", "::1", [](auto& c) { c.clientIpAddrIs(addressOf("::1")); }},
    };
    for (const auto& c : cases) {
        const TestClient client(&byHand_, &wheel_, c.server, nobody);
        c.configure(*client.config);
        const bool isUnderWay = client.sm->startConnection();
        EXPECT_EQ(client.summary(), c.summary);
        EXPECT_EQ(isUnderWay, client.sm->fd() != nullptr);
        EXPECT_EQ(client.sm->lastOptionsApplied(), TcpSocketOptions());
        EXPECT_EQ(client.sm->retryTimerExpireTime(), clock_.now() + (isUnderWay ? 20 : 1));
    }
    const auto without =
        tcpClientSmFactory(&byHand_, &wheel_, 1, nullptr, tcpClientStatusFactory());
    EXPECT_FALSE(without->startConnection());
    EXPECT_EQ(without->pathMtuDiscovery(), false);
}

TEST_F(TcpClientServerTest, AServerSaysWhatFailedAndTriesAgain) {
    auto holder = std::make_unique<TestServer>(&byHand_, &wheel_, "127.0.0.1", 4001);
    ASSERT_TRUE(holder->sm->startListener());
    const struct {
        const char* summary;
        const char* address;
        uint16_t port;
        std::function<void(TcpServerConfig&)> configure;
        double retry;  // Seconds, +infinity for never.
    } cases[] = {
        {"-Listening port is 0 0/0/0", "127.0.0.1", 0, [](auto&) {}, idle},
        {"-Socket (No such file or directory) 1/0/0", "127.0.0.1", 4002,
         [](auto& c) { c.networkNamespaceIs(NamespaceName("nowhere")); }, 3},
        {"-Setsockopt (Invalid argument) 1/0/0", "127.0.0.1", 4002,
         [](auto& c) { c.optionsIs(optionTxTtl); }, 3},
        {"-Bind (Cannot assign requested address) 1/0/0", "192.0.2.9", 4002, [](auto&) {}, 3},
        {"-Bind (Address already in use) 1/0/0", "127.0.0.1", 4001, [](auto&) {}, 3},
    };
    for (const auto& c : cases) {
        const TestServer server(&byHand_, &wheel_, c.address, c.port);
        server.config->retryIntervalIs(3);
        c.configure(*server.config);
        EXPECT_FALSE(server.sm->startListener());
        EXPECT_EQ(server.summary(), c.summary);
        EXPECT_EQ(server.sm->retryTimerExpireTime(), clock_.now() + c.retry);
    }
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    EXPECT_FALSE(server.sm->startListener());
    clock_.advance(10);
    EXPECT_EQ(server.summary(), "-Bind (Address already in use) 11/0/0");
    EXPECT_EQ(server.sm->retryTimes(), 10u);
    holder = nullptr;
    clock_.advance(1);
    EXPECT_EQ(server.summary(), "+Listening 12/0/0");
    EXPECT_EQ(server.sm->retryTimerExpireTime(), idle);
}

TEST_F(TcpClientServerTest, AListenerThatFailsAgainAndAgainWaitsInBetween) {
    const struct {
        const char* call;
        int error;
        const char* reason;
    } cases[] = {
        {"accept4", EMFILE, "Accept (Too many open files)"},
        {"listen", EADDRINUSE, "Accept (Invalid argument)"},  // Another one took the port.
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.call);
        const TestServer server(byLoop_.ptr(), &wheel_, "127.0.0.1", 4001);
        const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
        server.config->retryIntervalIs(2);
        // Each accept and each listen fails, whenever there is one.
        const auto turn = [&](double seconds) {
            PavoTest::FailSyscall fail(1, c.error, c.call);
            clock_.advance(seconds);
            client.sm->startConnection();
            loop_.turn(0);
        };
        {
            PavoTest::FailSyscall fail(1, c.error, c.call);
            ASSERT_TRUE(server.sm->startListener());
        }
        turn(0);
        EXPECT_EQ(server.summary(), "-" + std::string(c.reason) + " 1/0/0");
        EXPECT_EQ(server.sm->retryTimerExpireTime(), clock_.now());  // The first time, at once.
        for (int tenths = 0; tenths < 100; ++tenths) {
            turn(0.1);
        }
        EXPECT_EQ(server.summary(), "-" + std::string(c.reason) + " 6/0/0");

        // As soon as a connection has come in, the next failure is a first one again.
        clock_.advance(2);
        client.sm->startConnection();
        loop_.turn(0);
        EXPECT_EQ(server.status->connSocketCount(), 1u);
        server.sm->failApplySocketOptionsInTestIs(true);
        client.sm->startConnection();
        loop_.turn(0);
        EXPECT_EQ(server.status->reason(), "Setsockopt (Invalid argument)");
        EXPECT_FALSE(server.sm->failApplySocketOptionsInTest());
        EXPECT_EQ(server.sm->retryTimerExpireTime(), clock_.now());
        EXPECT_EQ(server.status->connSocketMembers(), 0u);
    }
    expectNothingLeft();
}

TEST_F(TcpClientServerTest, APeerThatIsGoneAgainLeavesTheListenerAlone) {
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    ASSERT_TRUE(server.sm->startListener());
    {
        const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
        client.sm->startConnection();
        tell(client);
        const linger reset{/*l_onoff=*/1, /*l_linger=*/0};
        ASSERT_EQ(
            setsockopt(client.sm->getClientSocket(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset)),
            0);
    }
    tell(server);
    EXPECT_EQ(server.summary(), "+Listening 1/0/0");
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
    EXPECT_EQ(other.status->connSocket().srcPort(), one.status->connSocket().srcPort());

    // Nobody listens there: the kernel connects the client with itself.
    const TestClient itself(&byHand_, &wheel_, "127.0.0.3", 40001);
    itself.config->clientIpAddrIs(addressOf("127.0.0.3"));
    itself.sm->startConnection();
    tell(itself);
    EXPECT_EQ(itself.summary(), "failed Connect (Connection refused) 1/1/0");
    portsAre("32768 60999");
}

// What a failing call is to be reported as.
std::string stepOf(const PavoTest::FailSyscall& fail, bool isServer) {
    const std::string call = fail.name();
    if (call == "setsockopt" || call == "getsockopt") {
        const bool isReuse = fail.argument(1) == SOL_SOCKET && fail.argument(2) == SO_REUSEADDR;
        const bool isV6Only = fail.argument(1) == IPPROTO_IPV6 && fail.argument(2) == IPV6_V6ONLY;
        const bool isError = fail.argument(1) == SOL_SOCKET && fail.argument(2) == SO_ERROR;
        return isError               ? "Getsockopt"
               : isV6Only            ? "Setsockopt(V6OONLY)"
               : isServer && isReuse ? "Setsockopt(REUSE)"
                                     : "Setsockopt";
    }
    return call == "bind"          ? "Bind"
           : call == "connect"     ? "Connect"
           : call == "getsockname" ? "Getsockname"
           : call == "accept4"     ? "Accept"
                                   : "Socket";  // Also what the event loop needs.
}

TEST_F(TcpClientServerTest, EachFailingCallOfAClientIsReportedAndTriedAgain) {
    const TestServer server(&byHand_, &wheel_, "::1", 4001);
    server.sm->backlogIs(100);
    ASSERT_TRUE(server.sm->startListener());
    const auto descriptors = PavoTest::openDescriptors();
    const uint32_t objects = Mox::liveObjects();
    std::optional<TestClient> client;
    const auto begin = [&] {
        client.emplace(byLoop_.ptr(), &wheel_, "::1", 4001);
        client->config->optionsIs(optionTxTtl | optionRxMinTtl | optionMd5Auth);
        client->config->txTtlIs(9);
        client->config->md5AuthIs(IpGenAddrWithMask(addressOf("fd00::1")), "key");
    };
    const auto check = [&](const PavoTest::FailSyscall& fail, bool, int) {
        if (fail.argument(2) == IP_BIND_ADDRESS_NO_PORT) {
            EXPECT_EQ(client->summary(), "connecting  1/0/0");  // It only was a better port.
        } else {
            EXPECT_EQ(client->status->reason(),
                      stepOf(fail, false) + " (No buffer space available)");
            EXPECT_EQ(client->status->connectionStatus(), Status::failed);
            EXPECT_EQ(client->status->connectionErrorCount(), 1u);
            EXPECT_EQ(PavoTest::openDescriptors(), descriptors);
            clock_.advance(1);
        }
        EXPECT_TRUE(turnUntil([&] { return bool(client->status->connSocket()); }));
        EXPECT_EQ(client->sm->retryTimes(), 0u);
        client.reset();
        EXPECT_EQ(PavoTest::openDescriptors(), descriptors);
        EXPECT_EQ(Mox::liveObjects(), objects);
    };
    const auto attempt = [&] {
        begin();
        return client->sm->startConnection();
    };
    EXPECT_GE(PavoTest::failEachSyscall(ENOBUFS, attempt, check), 12u);
    for (const char* call : {"getsockopt", "getsockname"}) {  // Once there is an answer.
        const auto completion = [&] {
            PavoTest::FailSyscall off(0, 0, "none of these");
            begin();
            client->sm->startConnection();
            await(*client);
            off.disarm();
            client->sm->fd()->handleWritable();
            return true;
        };
        EXPECT_EQ(PavoTest::failEachSyscall(ENOBUFS, completion, check, call), 1u);
    }
}

TEST_F(TcpClientServerTest, EachFailingCallOfAServerIsReportedAndTriedAgain) {
    const TestClient client(&byHand_, &wheel_, "::1", 4001);
    const auto descriptors = PavoTest::openDescriptors();
    const uint32_t objects = Mox::liveObjects();
    std::optional<TestServer> server;
    const auto begin = [&] {
        server.reset();
        server.emplace(byLoop_.ptr(), &wheel_, "::1", 4001);
        server->config->optionsIs(optionTxTtl | optionRxMinTtl | optionMd5Auth);
        server->config->txTtlIs(9);
        server->config->md5AuthIs(IpGenAddrWithMask(addressOf("fd00::1")), "key");
    };
    const auto end = [&] {
        server.reset();
        EXPECT_EQ(PavoTest::openDescriptors(), descriptors);
        EXPECT_EQ(Mox::liveObjects(), objects);
    };
    const unsigned starts = PavoTest::failEachSyscall(
        ENOBUFS,
        [&] {
            begin();
            return server->sm->startListener();
        },
        [&](const PavoTest::FailSyscall& fail, bool isListening, int) {
            const bool isListen = std::string("listen") == fail.name();
            EXPECT_EQ(isListening, isListen);
            if (!isListen) {
                EXPECT_EQ(server->summary(),
                          "-" + stepOf(fail, true) + " (No buffer space available) 1/0/0");
                EXPECT_EQ(PavoTest::openDescriptors(), descriptors);
            } else {
                loop_.turn(0);
                EXPECT_EQ(server->summary(), "-Accept (Invalid argument) 1/0/0");
            }
            clock_.advance(1);
            EXPECT_EQ(server->summary(), "+Listening 2/0/0");
            end();
        });
    EXPECT_GE(starts, 14u);

    const unsigned accepts = PavoTest::failEachSyscall(
        ENOBUFS,
        [&] {
            PavoTest::FailSyscall off(0, 0, "none of these");
            begin();
            server->sm->startListener();
            client.sm->startConnection();
            await(*server);
            off.disarm();
            server->sm->fd()->handleReadable();
            return true;
        },
        [&](const PavoTest::FailSyscall& fail, bool, int) {
            const std::string call = fail.name();
            if (call == "getpeername" || call == "getsockname") {
                EXPECT_EQ(server->summary(), "+Listening 1/0/0");
            } else if (call != "epoll_ctl") {  // The kernel drops a closed descriptor by itself.
                EXPECT_EQ(server->summary(),
                          "-" + stepOf(fail, true) + " (No buffer space available) 1/0/0");
                clock_.advance(0);
                EXPECT_EQ(server->summary(), "+Listening 2/0/0");
            }
            client.sm->stopConnection();
            end();
        });
    EXPECT_GE(accepts, 6u);
}

template <class Sm>
bool startOf(Sm& sm) {
    if constexpr (std::is_same_v<Sm, TcpClientSm>) {
        return sm.startConnection();
    } else {
        return sm.startListener();
    }
}

template <class Sm>
void perform(Sm& sm, const char* acts) {
    for (const char* act = acts; *act != '\0'; ++act) {
        if (*act == '!') {
            throw std::runtime_error("meddled");
        }
        *act == '+' ? void(startOf(sm)) : sm.cleanup();
    }
}

template <class Sm>
void startQuietly(Sm& sm) {
    try {
        EXPECT_FALSE(startOf(sm));
    } catch (const std::runtime_error&) {
    }
}

TEST_F(TcpClientServerTest, StartsFromInsideAFailingStartWaitTheirTurn) {
    const NamespaceName nowhere("nowhere");  // Every start fails before it returns.
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", nobody);
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    client.config->networkNamespaceIs(nowhere);
    server.config->networkNamespaceIs(nowhere);
    std::function<void()> ofClient, ofServer;
    const Mox::Watch<TcpClientStatus> clientErrors(
        client.status, TcpClientStatus::connectionErrorCountAttr, [&] { ofClient(); });
    const Mox::Watch<TcpServerStatus> serverStarts(
        server.status, TcpServerStatus::serverStartTimesAttr, [&] { ofServer(); });
    const struct {
        const char* acts;  // "+" starts, "-" stops, "!" throws.
        double next;       // The next try after one at time 0.
    } cases[] = {{"+", 1}, {"-+", 1}, {"+-", idle}, {"-+-", idle}, {"!", 1}, {"+!", 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.acts);
        ofClient = [&] { perform(*client.sm, c.acts); };
        ofServer = [&] { perform(*server.sm, c.acts); };
        const uint32_t errors = client.status->connectionErrorCount();
        const uint32_t starts = server.status->serverStartTimes();
        startQuietly(*client.sm);
        startQuietly(*server.sm);
        EXPECT_EQ(client.status->connectionErrorCount(), errors + 1);
        EXPECT_EQ(server.status->serverStartTimes(), starts + 1);
        EXPECT_EQ(client.sm->retryTimerExpireTime(), clock_.now() + c.next);
        EXPECT_EQ(server.sm->retryTimerExpireTime(), clock_.now() + c.next);
    }
}

// What an observer does to the machine that it hears of: as above, or "d" drops the machine, and
// "D" all of it.
template <class Agent>
void meddle(const char* acts, std::optional<Agent>& agent) {
    if (*acts == 'd') {
        agent->sm = nullptr;
    } else if (*acts == 'D') {
        agent.reset();
    } else {
        perform(*agent->sm, acts);
    }
}

// Lets an observer meddle at the first change of the status, then at the second, and so on, until a
// run of `steps` has no more of them, and gives their number. Steps end once the machine is gone.
// After each one `expectOrder(agent)` looks, up to an exception; in the end the machine, where
// there is one, has to start after `recover(agent)`.
template <class Agent>
struct Meddling {
    std::function<void(std::optional<Agent>&)> make;
    std::vector<std::function<void(Agent&)>> steps;
    std::function<void(const Agent&)> expectOrder;
    std::function<void(Agent&)> recover;

    unsigned everywhere(const char* acts) const {
        for (unsigned n = 1;; ++n) {
            SCOPED_TRACE(testing::Message() << acts << " at " << n);
            const unsigned changes = run(acts, n);
            if (changes < n) {
                return changes;
            }
        }
    }

  private:
    unsigned run(const char* acts, unsigned n) const {
        std::optional<Agent> agent;
        make(agent);
        unsigned changes = 0;
        Mox::Watch watch(agent->status, Mox::AttributeSet::all(), [&](const Mox::Change&) {
            if (++changes == n) {
                meddle(acts, agent);
            }
        });
        const auto isAlive = [&agent] { return agent && agent->sm; };
        for (std::size_t i = 0; i < steps.size() && isAlive(); ++i) {
            SCOPED_TRACE(testing::Message() << "step " << i);
            try {
                steps[i](*agent);
            } catch (const std::runtime_error&) {
            }
            if (isAlive() && (*acts != '!' || changes < n)) {
                expectOrder(*agent);
            }
        }
        watch.hasNotificationActiveIs(false);
        if (isAlive()) {
            agent->sm->cleanup();
            recover(*agent);
            EXPECT_TRUE(startOf(*agent->sm));
        }
        return changes;
    }
};

constexpr const char* everyAct[] = {"-", "+", "-+", "d", "D", "!"};

TEST_F(TcpClientServerTest, AClientSurvivesWhatItsObserversDo) {
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    descriptors_ = PavoTest::openDescriptors();
    objects_ = Mox::liveObjects();
    const auto writable = [](TestClient& c) { tell(c); };
    Meddling<TestClient> meddling;
    meddling.make = [&](std::optional<TestClient>& c) {
        server.sm->stopListener();
        c.emplace(&byHand_, &wheel_, "127.0.0.1", 4001);
    };
    meddling.steps = {
        [](TestClient& c) { c.sm->startConnection(); },
        writable,  // Refused.
        [&](TestClient&) { clock_.advance(1); },
        [&](TestClient&) { server.sm->startListener(); },
        [&](TestClient&) { clock_.advance(20); },
        writable,
        [](TestClient& c) { c.config->optionsIs(optionTxTtl); },  // 0, which is refused.
        [](TestClient& c) { c.config->networkNamespaceIs(NamespaceName("nowhere")); },
        [&](TestClient&) { clock_.advance(1); },
        [](TestClient& c) { c.sm->handleTimeout(); },
        [](TestClient& c) { c.sm->stopConnection(); },
    };
    meddling.expectOrder = [](const TestClient& c) {
        const Status status = c.status->connectionStatus();
        EXPECT_EQ(c.sm->fd() != nullptr, status == Status::connecting) << c.summary();
        if (status == Status::connecting || status == Status::failed) {
            EXPECT_LT(c.sm->retryTimerExpireTime(), idle);
        }
        if (status == Status::timedout || status == Status::connected) {
            EXPECT_EQ(c.sm->retryTimerExpireTime(), idle);
        }
        if (status != Status::connecting) {  // A new start leaves the old connection be.
            EXPECT_EQ(bool(c.status->connSocket()), status == Status::connected);
        }
    };
    meddling.recover = [](TestClient& c) {
        c.config->networkNamespaceIs(NamespaceName());
        c.config->optionsIs({});
    };
    for (const char* acts : everyAct) {
        EXPECT_GE(meddling.everywhere(acts), 20u);
    }
    server.sm->stopListener();
    expectNothingLeft();
}

TEST_F(TcpClientServerTest, AServerSurvivesWhatItsObserversDo) {
    const TestServer holder(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    descriptors_ = PavoTest::openDescriptors();
    objects_ = Mox::liveObjects();
    const auto accept = [&client](TestServer& s) {
        client.sm->startConnection();
        tell(s);
    };
    const auto turn = [this](TestServer&) { clock_.advance(1); };
    Meddling<TestServer> meddling;
    meddling.make = [&](std::optional<TestServer>& s) {
        holder.sm->startListener();
        s.emplace(&byHand_, &wheel_, "127.0.0.1", 4001);
    };
    meddling.steps = {
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
    };
    meddling.expectOrder = [](const TestServer& s) {
        EXPECT_EQ(s.sm->fd() != nullptr, s.status->listening()) << s.summary();
    };
    meddling.recover = [&](TestServer& s) {
        holder.sm->stopListener();
        s.config->optionsIs({});
    };
    for (const char* acts : everyAct) {
        EXPECT_GE(meddling.everywhere(acts), 20u);
    }
    holder.sm->stopListener();
    client.sm->stopConnection();
    expectNothingLeft();
}

TEST_F(TcpClientServerTest, AConnectionIsHandedOverWholeWhenAnObserverThrows) {
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    ASSERT_TRUE(server.sm->startListener());
    const Mox::Watch<TcpClientStatus> watch(client.status, TcpClientStatus::connSocketAttr,
                                            [] { throw std::runtime_error("from an observer"); });
    ASSERT_TRUE(client.sm->startConnection());
    EXPECT_THROW(tell(client), std::runtime_error);
    EXPECT_EQ(client.summary(), "connected  1/0/1");
    EXPECT_TRUE(client.status->connSocket());
    EXPECT_EQ(client.status->retryTimerNext(), Keel::TimerWheel::idle);
}

// Sends back what it gets, or sends the next message when it gets one.
class Talker {
  public:
    static constexpr uint32_t messages = 10;

    Talker(const TcpConnSocket& connection, TcpFileDescriptorEventRegistrationFactory* factory,
           bool begins)
        : pam_(simpleTcpPduPamFactory(connection.fileDescriptor(), factory)),
          readable_(pam_, Pam::readableCountAttr, [this] { take(); }) {
        pam_->enableModeIs(tcpEnableModeReadWrite);
        if (begins) {
            const Mox::Ptr<Pkt> pkt = globalPktManager()->newPkt();
            uint8_t* header = pkt->newSharedHeadData(SimpleTcpPduPam::headerBytes);
            std::memset(header, 0, SimpleTcpPduPam::headerBytes);
            header[3] = SimpleTcpPduPam::headerBytes;
            pam_->txPktIs(pkt);
        }
    }

    uint32_t taken() const { return taken_; }

  private:
    void take() {
        const Mox::Ptr<Pkt> pkt = pam_->rxPkt();
        if (pkt && ++taken_ <= messages) {
            pam_->txPktIs(pkt);
        }
    }

    Mox::Ptr<SimpleTcpPduPam> pam_;
    uint32_t taken_ = 0;
    Mox::Watch<SimpleTcpPduPam> readable_;
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
            talkers.emplace_back(client.status->connSocket(), byLoop_.ptr(), /*begins=*/true);
        }
        while (const TcpConnSocket connection = server.status->getConnSocket()) {
            talkers.emplace_back(connection, byLoop_.ptr(), /*begins=*/false);
        }
        ASSERT_EQ(talkers.size(), 2 * many);
        EXPECT_TRUE(turnUntil([&talkers] {
            return std::all_of(talkers.begin(), talkers.end(), [](const Talker& talker) {
                return talker.taken() >= Talker::messages;
            });
        }));
    }
    expectNothingLeft();
}

TEST_F(TcpClientServerTest, RoundsOfConnectingAndClosingLeaveNothingBehind) {
    const uint32_t rounds = getenv("PAVO_LONG_TESTS") != nullptr ? 100000 : 10000;
    {
        const TestServer server(byLoop_.ptr(), &wheel_, "127.0.0.1", 4001);
        const TestClient client(byLoop_.ptr(), &wheel_, "127.0.0.1", 4001);
        ASSERT_TRUE(server.sm->startListener());
        const auto descriptors = PavoTest::openDescriptors();
        const uint32_t objects = Mox::liveObjects();
        for (uint32_t round = 1; round <= rounds; ++round) {
            ASSERT_TRUE(client.sm->startConnection()) << client.summary();
            ASSERT_TRUE(turnUntil([&] {
                return client.status->connSocket() && server.status->connSocketMembers() == 1;
            })) << client.summary();
            client.sm->stopConnection();  // First, so that the port is the client's to wait for.
            ASSERT_TRUE(server.status->getConnSocket());
        }
        EXPECT_EQ(PavoTest::openDescriptors(), descriptors);
        EXPECT_EQ(Mox::liveObjects(), objects);
        EXPECT_EQ(server.status->connSocketCount(), rounds);
        EXPECT_EQ(client.status->connectionErrorCount(), 0u);
    }
    expectNothingLeft();
}

}  // namespace
}  // namespace Pavo
