// The client and server machines: timing, failures, and observers that act while they are notified.
#include "Pavo/TcpClientServer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <vector>

#include "support/FailSyscall.h"
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
    const TestServer holder(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    server.config->timeoutIs(30);
    holder.sm->startListener();
    server.sm->startListener();
    EXPECT_EQ(server.summary(), "-Bind (Address already in use) 1/0/0");
    holder.sm->stopListener();
    clock_.advance(1);
    meet(client, server);
    EXPECT_EQ(server.summary(), "+Listening 2/1/1");
    server.config->optionsIs(optionTxTtl);  // 0, which is refused.
    EXPECT_EQ(server.summary(), "-Setsockopt (Invalid argument) 2/1/0");
    server.config->optionsIs(optionTxDs);
    clock_.advance(1);
    EXPECT_EQ(server.summary(), "+Listening 3/1/0");
    server.config->md5AuthIs(IpGenAddrWithMask(addressOf("::1")), "key");
    EXPECT_EQ(server.summary(), "-Listening 3/1/0");
    clock_.advance(0);
    EXPECT_EQ(server.summary(), "+Listening 4/1/0");
    EXPECT_FALSE(server.status->diagnosis().empty());  // The key is ignored.
    server.config->optionsIs(optionMd5Auth);
    EXPECT_EQ(server.status->diagnosis(), "");
    server.sm->restartListener();
    clock_.advance(29.75);
    EXPECT_EQ(server.summary(), "+Listening 5/1/0");
    clock_.advance(0.25);
    EXPECT_EQ(server.summary(), "-Listening 5/1/0");
    EXPECT_EQ(server.status->serverTimedOutTimes(), 1u);
}

}  // namespace
}  // namespace Pavo
