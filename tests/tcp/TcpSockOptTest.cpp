// Socket options that the machines set, as the kernel reports them.
#include "Pavo/TcpSockOpt.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "Pavo/ScopedNetNs.h"
#include "support/FailSyscall.h"
#include "support/ValueLaws.h"
#include "tcp/TcpMachines.h"

namespace Pavo {
namespace {

using PavoTest::addressOf;
using PavoTest::TestClient;
using PavoTest::TestServer;

int optionOf(const Mox::Ptr<TcpFileDescriptor>& fd, int level, int optname) {
    int value = -1;
    socklen_t length = sizeof(value);
    EXPECT_EQ(getsockopt(fd->descriptor(), level, optname, &value, &length), 0);
    return value;
}

class TcpSockOptTest : public PavoTest::TcpTest {};

TEST_F(TcpSockOptTest, EachOptionReachesItsSocketAndLeavesItAgain) {
    const int lo = static_cast<int>(htonl(1));
    const struct {
        AddressFamily af;
        TcpSocketOption option;
        int level, optname;
        int set, cleared;  // The value, and that after the option has been turned off.
    } cases[] = {
        {ipv4, optionTxTtl, IPPROTO_IP, IP_TTL, 33, 64},
        {ipv6, optionTxTtl, IPPROTO_IPV6, IPV6_UNICAST_HOPS, 33, 64},
        {ipv4, optionTxDs, IPPROTO_IP, IP_TOS, 44, 0},  // Without the bits of ECN.
        {ipv6, optionTxDs, IPPROTO_IPV6, IPV6_TCLASS, 44, 0},
        {ipv4, optionRxMinTtl, IPPROTO_IP, IP_MINTTL, 17, 0},
        {ipv6, optionRxMinTtl, IPPROTO_IPV6, IPV6_MINHOPCOUNT, 17, 0},
        {ipv4, optionSockMaxSegSize, IPPROTO_TCP, TCP_MAXSEG, 700, 536},
        {ipv6, optionSockMaxSegSize, IPPROTO_TCP, TCP_MAXSEG, 700, 536},
        {ipv4, optionPathMtuDiscovery, IPPROTO_IP, IP_MTU_DISCOVER, 2, 0},
        {ipv6, optionPathMtuDiscovery, IPPROTO_IPV6, IPV6_MTU_DISCOVER, 2, 0},
        {ipv4, optionDontRoute, SOL_SOCKET, SO_DONTROUTE, 1, 0},
        {ipv6, optionDontRoute, IPPROTO_IPV6, IPV6_UNICAST_IF, lo, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(tcpOptionsToStrep(c.option) + " " + stringValue(c.af));
        const char* address = c.af == ipv4 ? "127.0.0.1" : "::1";
        const TestServer server(&byHand_, &wheel_, address, 4001);
        const TestClient client(&byHand_, &wheel_, address, 4001);
        for (const Mox::Ptr<TcpConfigBase>& config :
             {server.sm->tcpConfig(), client.sm->tcpConfig()}) {
            config->txTtlIs(33);
            config->txDsIs(46);
            config->rxMinTtlIs(17);
            config->sockMaxSegSizeIs(700);
            config->dstIntfIfIndexIs(1);
            config->optionsIs(c.option);
        }
        ASSERT_TRUE(server.sm->startListener());
        meet(client, server);
        const auto listening = server.sm->fd()->fileDescriptor();
        const auto accepted = server.status->getConnSocket().fileDescriptor();
        const auto connected = client.status->connSocket().fileDescriptor();
        ASSERT_TRUE(accepted && connected);
        // The handshake settles the size; 12 bytes of it go to time stamps.
        const bool isSize = c.option == optionSockMaxSegSize;
        const int setOnConnected = isSize ? 688 : c.set;
        EXPECT_EQ(optionOf(listening, c.level, c.optname), c.set);
        EXPECT_EQ(optionOf(accepted, c.level, c.optname), setOnConnected);
        EXPECT_EQ(optionOf(connected, c.level, c.optname), setOnConnected);
        EXPECT_EQ(server.sm->lastOptionsApplied(), TcpSocketOptions(c.option));

        server.config->optionsIs({});
        client.config->optionsIs({});
        EXPECT_EQ(optionOf(listening, c.level, c.optname), c.cleared);
        EXPECT_EQ(optionOf(accepted, c.level, c.optname), setOnConnected);
        EXPECT_EQ(optionOf(connected, c.level, c.optname), isSize ? 688 : c.cleared);
        EXPECT_EQ(server.sm->lastOptionsApplied(), TcpSocketOptions());
        EXPECT_EQ(client.sm->lastOptionsApplied(), TcpSocketOptions());
    }
}

TEST_F(TcpSockOptTest, AValueThatChangesReachesTheLiveSocketWhileItsOptionIsOn) {
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    ASSERT_TRUE(server.sm->startListener());
    client.config->optionsIs(optionTxTtl | optionPathMtuDiscovery);
    client.config->txTtlIs(9);
    meet(client, server);
    const auto fd = client.status->connSocket().fileDescriptor();
    client.config->txTtlIs(10);
    client.config->rxMinTtlIs(5);  // Its option is off.
    client.config->pathMtuDiscoveryIs(false);
    EXPECT_EQ(optionOf(fd, IPPROTO_IP, IP_TTL), 10);
    EXPECT_EQ(optionOf(fd, IPPROTO_IP, IP_MINTTL), 0);
    EXPECT_EQ(optionOf(fd, IPPROTO_IP, IP_MTU_DISCOVER), 0);

    // A call for each change, and for nothing else: the option that goes is one of the two.
    PavoTest::FailSyscall calls("setsockopt");
    client.config->optionsIs(optionPathMtuDiscovery);
    EXPECT_EQ(calls.count(), 2u);
    client.config->optionsIs(optionPathMtuDiscovery);
    EXPECT_EQ(calls.count(), 2u);
    calls.disarm();
    EXPECT_EQ(optionOf(fd, IPPROTO_IP, IP_TTL), 64);

    // An accepted socket keeps its options, also after those of the listener changed.
    server.config->txTtlIs(9);
    server.config->optionsIs(optionTxTtl);
    server.sm->hasNotificationActiveIs(false);
    server.config->optionsIs({});
    EXPECT_EQ(server.sm->applySocketOptions(fd->descriptor(), TcpSmBase::sdAccepted), 0);
    EXPECT_EQ(server.sm->lastOptionsApplied(), TcpSocketOptions(optionTxTtl));
    // An inactive machine gets no events of its next socket either.
    ASSERT_TRUE(server.sm->restartListener());
    EXPECT_FALSE(server.sm->fd()->enabled());
    server.sm->hasNotificationActiveIs(true);
    EXPECT_TRUE(server.sm->fd()->enabled());

    // A failure on a live socket ends the connection.
    client.config->txTtlIs(0);
    client.config->optionsIs(optionTxTtl);
    EXPECT_EQ(client.summary(), "failed Setsockopt (Invalid argument) 1/1/1");
    EXPECT_EQ(client.status->retryTimerNext(), 1.0);
}

TEST_F(TcpSockOptTest, AListenerOfIp6AcceptsIp4UnlessV6Only) {
    for (const bool v6Only : {true, false}) {
        const TestServer server(&byHand_, &wheel_, "::", 4001);
        const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
        server.sm->v6OnlyIs(v6Only);
        ASSERT_TRUE(server.sm->startListener());
        client.sm->startConnection();
        deliver(client);
        if (v6Only) {
            EXPECT_EQ(client.summary(), "failed Connect (Connection refused) 1/1/0");
            continue;
        }
        deliver(server);
        const TcpConnSocket accepted = server.status->getConnSocket();
        EXPECT_EQ(IpGenAddr::getMappedV4Addr(accepted.dstIpAddr()), addressOf("127.0.0.1"));
        EXPECT_EQ(accepted.dstPort(), client.status->connSocket().srcPort());
    }
}

TEST_F(TcpSockOptTest, WrongUseStopsTheProcess) {
    EXPECT_DEATH(setSockOptTxTtl(ipunknown, 0, true, 1), "Unexpected af");
    sockaddr_in6 room{};
    EXPECT_DEATH(constructSockAddr(reinterpret_cast<sockaddr*>(&room), IpGenAddr()), "Unknown af");
    const IpGenAddrWithMask peer(addressOf("192.0.2.1"));
    EXPECT_DEATH(setSockMd5AuthOption(0, peer, std::string(80, 'k')), "key.bytes\\(\\) < 80");
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    server.config->optionsIs(optionMd5Auth);
    server.config->md5AuthIs(peer, "");
    EXPECT_DEATH(server.sm->startListener(), "!key.empty\\(\\)");
}

TEST(TcpSocketOptions, KeepTheValueLaws) {
    expectValueLaws<TcpSocketOptions>({TcpSocketOptions(), optionTxTtl, optionTxTtl | optionTxDs,
                                       optionDontRoute, TcpSocketOptions(TcpSocketOptions::all)});
    EXPECT_EQ(rangeErrorOf([] { TcpSocketOptions(uint8_t{0x80}); }), "Invalid TcpSocketOptions");
    EXPECT_EQ(tcpOptionsToStrep(optionTxTtl | optionMd5Auth), "TxTtl|Md5Auth");
    EXPECT_EQ(valueToStrep(TcpSocketOptions(optionMd5Auth)),
              "Value('Pavo::TcpSocketOptions', ** {'optionTxTtl': false, 'optionTxDs': false, "
              "'optionRxMinTtl': false, 'optionMd5Auth': true, 'optionSockMaxSegSize': false, "
              "'optionPathMtuDiscovery': false, 'optionDontRoute': false})");
}

// A counter of TCP extensions in the calling thread's namespace.
long md5Counter(const std::string& name) {
    std::ifstream netstat("/proc/thread-self/net/netstat");
    for (std::string names, values; getline(netstat, names) && getline(netstat, values);) {
        std::istringstream nameWords(names), valueWords(values);
        for (std::string word, value; nameWords >> word && valueWords >> value;) {
            if (word == name) {
                return std::stol(value);
            }
        }
    }
    return -1;
}

using PavoTest::WireTest;

TEST_F(WireTest, AnInterfaceIsTheScopeOfLinkLocalAddresses) {
    uint32_t link = 0;
    {
        const ScopedNetNs left("left");
        link = if_nametoindex("veth-left");
    }
    ASSERT_NE(link, 0u);
    const TestServer server(byLoop_.ptr(), &wheel_, "::", 4001);
    server.config->networkNamespaceIs(NamespaceName("right"));
    ASSERT_TRUE(server.sm->startListener());
    const struct {
        const char *server, *client;
        uint32_t ifIndex, scope;
        const char* reason;  // "" where the connection is made.
    } cases[] = {
        {"fe80::2", "::", link, link, ""},
        {"fe80::2", "fe80::1", link, link, ""},
        {"fe80::2", "::", 0, 0, "Connect (Invalid argument)"},
        {"fe80::2", "fe80::1", 0, 0, "Bind (Invalid argument)"},
        {"2001:db8::2", "2001:db8::1", 9999, 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.server << " " << c.client << " " << c.ifIndex);
        const TestClient client(byLoop_.ptr(), &wheel_, c.server, 4001);
        client.config->networkNamespaceIs(NamespaceName("left"));
        client.config->clientIpAddrIs(addressOf(c.client));
        client.config->ifIndexIs(c.ifIndex);
        client.sm->startConnection();
        EXPECT_EQ(client.status->reason(), c.reason);
        if (*c.reason == '\0') {
            EXPECT_TRUE(turnUntil([&] { return bool(client.status->connSocket()); }));
            EXPECT_EQ(client.status->connSocket().ifIndex(), c.scope);
        }
    }
}

TEST_F(WireTest, AKeyLetsTheRightPeerInAndKeepsAWrongOneOut) {
    const Mox::String good("secret"), bad("Secret");
    using Keys = std::vector<std::pair<const char*, Mox::String>>;
    const char* const in = "";
    const struct {
        const char* server;
        Keys serverKeys, clientKeys;
        const char* dropped;   // The server's counter that goes up; "" where the peer gets in.
        bool cleared = false;  // The listener's option has been turned off again.
    } cases[] = {
        {"192.0.2.2", {{"192.0.2.1/32", good}}, {{"192.0.2.2/32", good}}, in},
        {"192.0.2.2",
         {{"192.0.2.0/24", bad}, {"192.0.2.15/28", good}, {"2001:db8::/64", bad}},
         {{"192.0.2.0/30", good}, {"2001:db8::2/128", bad}},
         in},
        {"2001:db8::2", {{"2001:db8::/64", good}}, {{"2001:db8::2/128", good}}, in},
        {"192.0.2.2", {{"192.0.2.2/32", good}}, {}, in},  // A key for another peer.
        {"192.0.2.2", {{"192.0.2.77/24", good}, {"192.0.2.1/32", good}}, {}, in, true},
        {"192.0.2.2", {{"0.0.0.0/0", good}}, {{"192.0.2.2/32", bad}}, "TCPMD5Failure"},
        {"192.0.2.2", {{"192.0.2.0/24", good}}, {}, "TCPMD5NotFound"},
        {"192.0.2.2", {}, {{"192.0.2.2/32", good}}, "TCPMD5Unexpected"},
        {"2001:db8::2", {{"2001:db8::1/128", good}}, {{"2001:db8::2/128", bad}}, "TCPMD5Failure"},
    };
    const ScopedNetNs right("right");  // For the counters.
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << (&c - cases) << " " << c.dropped);
        const TestServer server(byLoop_.ptr(), &wheel_, c.server, 4001);
        const TestClient client(byLoop_.ptr(), &wheel_, c.server, 4001);
        server.config->networkNamespaceIs(NamespaceName("right"));
        client.config->networkNamespaceIs(NamespaceName("left"));
        for (const auto& [peer, key] : c.serverKeys) {
            server.config->md5AuthIs(Mox::fromText<IpGenAddrWithMask>(peer), key);
        }
        for (const auto& [peer, key] : c.clientKeys) {
            client.config->md5AuthIs(Mox::fromText<IpGenAddrWithMask>(peer), key);
        }
        server.config->optionsIs(optionMd5Auth);
        client.config->optionsIs(optionMd5Auth);
        ASSERT_TRUE(server.sm->startListener());
        server.config->optionsIs(c.cleared ? TcpSocketOptions() : optionMd5Auth);
        const long before = md5Counter(c.dropped);
        client.sm->startConnection();
        if (c.dropped == in) {
            EXPECT_TRUE(turnUntil([&] {
                return client.status->connSocket() && server.status->connSocketMembers() == 1;
            })) << client.summary();
        } else {
            EXPECT_TRUE(turnUntil([&] { return md5Counter(c.dropped) > before; }));
            EXPECT_EQ(client.summary(), "connecting  1/0/0");
            EXPECT_EQ(server.summary(), "+Listening 1/0/0");
        }
    }
}

TEST_F(TcpSockOptTest, KeysOfIp4FitMappedPeersAndLengthsUpTo32) {
    const IpGenAddr v4 = addressOf("10.0.0.9"), mapped = addressOf("::ffff:10.0.0.9");
    const auto fd = TcpFileDescriptor::socket(ipv4, NamespaceName(), false);
    const auto fd6 = TcpFileDescriptor::socket(ipv6, NamespaceName(), false);
    EXPECT_EQ(setSockMd5AuthOption(fd->descriptor(), {v4, 24}, ""), 0);  // Removes an absent key.
    EXPECT_EQ(setSockMd5AuthOption(fd6->descriptor(), {mapped, 120}, "key"), 0);
    for (const uint32_t len : {33u, 256u}) {
        EXPECT_EQ(setSockMd5AuthOption(fd->descriptor(), {v4, len}, "key"), -1);
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST_F(TcpSockOptTest, AChangedKeyRestartsTheListenerAndLeavesAClientAlone) {
    const IpGenAddrWithMask peer(addressOf("127.0.0.1"));
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    ASSERT_TRUE(server.sm->startListener());
    meet(client, server);
    server.config->md5AuthIs(peer, "secret");
    server.config->md5AuthIs(peer, "other");
    EXPECT_EQ(server.summary(), "-Listening 1/1/0");  // The waiting connection is dropped.
    clock_.advance(0);
    EXPECT_EQ(server.summary(), "+Listening 2/1/0");

    client.config->md5AuthIs(peer, "secret");
    client.config->md5AuthDelAll();
    EXPECT_EQ(client.summary(), "connected  1/0/1");

    // Changes are never delayed, since none of them is a failure.
    const std::function<void()> changes[] = {
        [&] { server.config->md5AuthIs(peer, "a"); }, [&] { server.config->md5AuthDel(peer); },
        [&] { server.config->md5AuthIs(peer, "b"); }, [&] { server.config->md5AuthDelAll(); }};
    for (const auto& change : changes) {
        change();
        EXPECT_FALSE(server.status->listening());
        clock_.advance(0);
        change();  // No change any more.
        EXPECT_TRUE(server.status->listening());
    }
}

}  // namespace
}  // namespace Pavo
