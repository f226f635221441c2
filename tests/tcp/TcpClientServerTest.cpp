// The client and server machines: timing, failures, and observers that act while they are notified.
#include "Pavo/TcpClientServer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "support/FailSyscall.h"
#include "tcp/TcpMachines.h"

namespace Pavo {
namespace {

using PavoTest::addressOf;
using PavoTest::FailSyscall;
using PavoTest::openDescriptors;
using PavoTest::TestClient;
using PavoTest::TestServer;
using PavoTest::turnsUntil;

const NamespaceName nowhere("nowhere");

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
            const std::string count = std::to_string(attempts) + "/" + std::to_string(attempts);
            EXPECT_EQ(client.summary(), "failed Connect (Connection refused) " + count + "/0");
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
    meet(client, server);
    EXPECT_EQ(server.summary(), "+Listening 1/1/1");
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

TEST_F(TcpClientServerTest, EachFailingCallIsReportedAndRetried) {
    const TestServer server(byLoop_.ptr(), &wheel_, "::1", 4001);
    const TestServer peer(&byHand_, &wheel_, "::1", 4002);
    const TestClient client(byLoop_.ptr(), &wheel_, "::1", 4002);
    peer.sm->startListener();
    const auto descriptors = openDescriptors();
    const auto reasonOf = [&](auto& agent, const char* call, unsigned n) {
        FailSyscall fail(n, ENOBUFS, call);
        agent.sm->handleRetry();
        EXPECT_TRUE(turnsUntil(loop_, [&fail] { return fail.happened(); }));
        fail.disarm();
        EXPECT_EQ(openDescriptors(), descriptors);
        const std::string text(agent.status->reason());
        return text.substr(0, text.find(" (No buffer space available)"));
    };
    EXPECT_EQ(reasonOf(client, "bind", 1), "Bind");
    EXPECT_EQ(reasonOf(client, "epoll_ctl", 1), "Socket");
    EXPECT_EQ(reasonOf(client, "getsockopt", 2), "Getsockopt");
    EXPECT_EQ(reasonOf(client, "getsockname", 1), "Getsockname");
    EXPECT_EQ(reasonOf(server, "setsockopt", 1), "Setsockopt(REUSE)");
    EXPECT_EQ(reasonOf(server, "setsockopt", 2), "Setsockopt(V6OONLY)");
    EXPECT_EQ(reasonOf(server, "epoll_ctl", 1), "Socket");
    clock_.advance(1);
    EXPECT_EQ(server.summary(), "+Listening 4/0/0");
    EXPECT_TRUE(turnsUntil(loop_, [&] { return client.status->connectionSuccessCount() == 1; }));
}

// What an owner does, and the changes of the status that follow.
template <class Agent>
struct Step {
    std::function<void(Agent&)> take;
    std::string changes;
};

template <class Agent>
void takeAll(const std::vector<Step<Agent>>& steps, Agent& agent) {
    std::string changes;
    const Mox::Watch watch(agent.status, Mox::allAttributes, [&](const Mox::Change& change) {
        changes += " " + std::string(change.attribute.name);
    });
    for (const Step<Agent>& step : steps) {
        changes.clear();
        step.take(agent);
        EXPECT_EQ(changes, step.changes) << "step " << &step - steps.data();
    }
}

TEST_F(TcpClientServerTest, AClientPublishesWholeStepsInTheirOrder) {
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    const std::string begun =
        " connectionAttemptCount connectionStatus retryTimerNext retryTimerInterval";
    const std::string failed =
        " connectionErrorCount connectionStatus retryTimerNext retryTimerInterval";
    const auto connect = [](TestClient& c) { deliver(c); };
    const auto second = [this](TestClient&) { clock_.advance(1); };
    const std::vector<Step<TestClient>> steps = {
        {[](auto& c) { c.sm->startConnection(); }, begun},
        {connect, " reason" + failed},
        {second, begun},
        {[&](auto&) { server.sm->startListener(); }, ""},
        {[&](auto&) { clock_.advance(20); },
         " connectionAttemptCount retryTimerNext connectionAbandonedCount diagnosis"},
        {connect, " retryTimerNext connSocket connectionSuccessCount connectionStatus diagnosis"},
        {[](auto& c) { c.config->optionsIs(optionTxTtl); }, " reason connSocket" + failed},  // 0.
        {[](auto& c) { c.config->networkNamespaceIs(nowhere); }, ""},
        {[](auto& c) { c.config->optionsIs(optionTxDs); }, ""},
        {second, " reason connectionErrorCount retryTimerNext"},
        {[](auto& c) { c.config->networkNamespaceIs(NamespaceName()); }, ""},
        {second, begun},
        {[this](auto&) { clock_.advance(28.75); },
         " connectionAttemptCount retryTimerNext connectionAbandonedCount diagnosis"},
        {[this](auto&) { clock_.advance(0.25); },
         " retryTimerNext connectionStatus connectionAbandonedCount diagnosis"},
        {[](auto& c) { c.sm->stopConnection(); }, " connectionStatus"},
    };
    TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    client.config->timeoutIs(30);
    client.config->optionsIs(optionTxDs);
    takeAll(steps, client);
    EXPECT_EQ(client.status->connectionAbandonedCount(), 3u);
    EXPECT_EQ(client.status->diagnosis().view().substr(0, 26), "hint: no answer within 9 s");
}

TEST_F(TcpClientServerTest, AServerPublishesWholeStepsInTheirOrder) {
    const TestServer holder(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    const std::string begun = " serverStartTimes listening reason";
    const auto second = [this](TestServer&) { clock_.advance(1); };
    const auto accept = [&client](TestServer& s) {
        client.sm->startConnection();
        deliver(s);
        client.sm->stopConnection();
    };
    const IpGenAddrWithMask peer(addressOf("::1"));
    const std::vector<Step<TestServer>> steps = {
        {[](auto& s) { s.sm->startListener(); }, " serverStartTimes reason"},  // The port is taken.
        {[&](auto&) { holder.sm->stopListener(); }, ""},
        {second, begun},
        {accept, " connSocket connSocketCount"},
        {accept, " connSocket connSocketCount"},
        {[](auto& s) { s.config->optionsIs(optionTxTtl); },  // 0, which is refused.
         " reason listening connSocket connSocket"},
        {[](auto& s) { s.config->optionsIs(optionTxDs); }, ""},
        {second, begun},
        {[&](auto& s) { s.config->md5AuthIs(peer, "key"); }, " listening"},
        {second, " serverStartTimes listening diagnosis"},  // The key is ignored.
        {[](auto& s) { s.config->optionsIs(optionMd5Auth); }, " diagnosis"},
        {[](auto& s) { s.config->optionsIs(optionTxDs); }, " diagnosis"},
        {[](auto& s) { s.sm->failApplySocketOptionsInTestIs(true); }, ""},
        {accept, " reason listening"},
        {second, begun},
        {[](auto& s) { s.sm->restartListener(); }, " serverStartTimes listening"},
        {[this](auto&) { clock_.advance(29.75); }, ""},
        {[this](auto&) { clock_.advance(0.25); }, " listening serverTimedOutTimes"},
        {[](auto& s) { s.sm->stopListener(); }, ""},
    };
    holder.sm->startListener();
    TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    server.config->timeoutIs(30);
    server.config->optionsIs(optionTxDs);
    takeAll(steps, server);
}

}  // namespace
}  // namespace Pavo
