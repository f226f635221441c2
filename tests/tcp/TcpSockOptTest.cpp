// Socket options that the machines set, as the kernel reports them.
#include "Pavo/TcpSockOpt.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <sstream>
#include <string>

#include "Pavo/ScopedNetNs.h"
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
        for (const char* listen : {"127.0.0.1", "::1", "::"}) {  // The last one for both families.
            const bool isBoth = listen == std::string("::") && c.option != optionDontRoute;
            if (!isBoth && addressOf(listen).af() != c.af) {
                continue;
            }
            const char* address = c.af == ipv4 ? "127.0.0.1" : "::1";
            SCOPED_TRACE(tcpOptionsToStrep(c.option) + " " + listen + " " + address);
            const TestServer server(&byHand_, &wheel_, listen, 4001);
            const TestClient client(&byHand_, &wheel_, address, 4001);
            server.sm->v6OnlyIs(false);
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
            // The handshake agrees on the size; 12 bytes of it are for time stamps.
            const bool isSize = c.option == optionSockMaxSegSize;
            const int setOnConnected = isSize ? 688 : c.set;
            EXPECT_EQ(optionOf(listening, c.level, c.optname), c.set);
            EXPECT_EQ(optionOf(accepted, c.level, c.optname), setOnConnected);
            EXPECT_EQ(optionOf(connected, c.level, c.optname), setOnConnected);

            server.config->optionsIs({});
            client.config->optionsIs({});
            EXPECT_EQ(optionOf(listening, c.level, c.optname), c.cleared);
            EXPECT_EQ(optionOf(accepted, c.level, c.optname), setOnConnected);
            EXPECT_EQ(optionOf(connected, c.level, c.optname), isSize ? 688 : c.cleared);
            EXPECT_EQ(client.sm->lastOptionsApplied(), TcpSocketOptions());
        }
    }
}

TEST_F(TcpSockOptTest, AValueThatChangesReachesTheLiveSocketWhileItsOptionIsOn) {
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    ASSERT_TRUE(server.sm->startListener());
    client.config->optionsIs(optionTxTtl);
    client.config->txTtlIs(9);
    meet(client, server);
    const auto fd = client.status->connSocket().fileDescriptor();
    client.config->txTtlIs(10);
    client.config->rxMinTtlIs(5);  // Its option is off.
    EXPECT_EQ(optionOf(fd, IPPROTO_IP, IP_TTL), 10);
    EXPECT_EQ(optionOf(fd, IPPROTO_IP, IP_MINTTL), 0);
    // A failure on a live socket ends the connection.
    client.config->txTtlIs(0);
    EXPECT_EQ(client.summary(), "failed Setsockopt (Invalid argument) 1/1/1");

    // An accepted socket keeps its options, also after those of the listener changed.
    server.config->txTtlIs(9);
    server.config->optionsIs(optionTxTtl);
    server.sm->hasNotificationActiveIs(false);
    server.config->optionsIs({});
    EXPECT_EQ(server.sm->applySocketOptions(fd->descriptor(), TcpSmBase::sdAccepted), 0);
    EXPECT_EQ(server.sm->lastOptionsApplied(), TcpSocketOptions(optionTxTtl));
}

TEST_F(TcpSockOptTest, AListenerOfIp6RefusesIp4WhileV6Only) {
    const TestServer server(&byHand_, &wheel_, "::", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    ASSERT_TRUE(server.sm->startListener());
    client.sm->startConnection();
    deliver(client);
    EXPECT_EQ(client.summary(), "failed Connect (Connection refused) 1/1/0");
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

// A counter of TCP extensions in the calling thread's namespace; -1 for an unknown one.
long tcpCounter(const std::string& name) {
    const std::string line = PavoTest::run({"nstat", "-asz", "TcpExt" + name});
    const std::size_t at = line.find(name);
    return at == std::string::npos ? -1 : std::stol(line.substr(at + name.size()));
}

using PavoTest::WireTest;

TEST_F(WireTest, AnInterfaceIsTheScopeOfLinkLocalAddresses) {
    const uint32_t link = [] {
        const ScopedNetNs left("left");
        return if_nametoindex("veth-left");
    }();
    const TestServer server(byLoop_.ptr(), &wheel_, "::", 4001);
    server.config->networkNamespaceIs(NamespaceName("right"));
    ASSERT_TRUE(server.sm->startListener());
    const struct {
        const char *server, *client;
        uint32_t ifIndex, scope;
        const char* reason;  // "" where the connection is made.
    } cases[] = {
        {"fe80::2", "fe80::1", link, link, ""},
        {"fe80::2", "::", 0, 0, "Connect (Invalid argument)"},
        {"fe80::2", "fe80::1", 0, 0, "Bind (Invalid argument)"},
        {"2001:db8::2", "2001:db8::1", 9999, 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        const TestClient client(byLoop_.ptr(), &wheel_, c.server, 4001);
        client.config->networkNamespaceIs(NamespaceName("left"));
        client.config->clientIpAddrIs(addressOf(c.client));
        client.config->ifIndexIs(c.ifIndex);
        client.sm->startConnection();
        EXPECT_EQ(client.status->reason(), c.reason);
        EXPECT_TRUE(*c.reason != '\0' ||
                    turnUntil([&] { return bool(client.status->connSocket()); }));
        EXPECT_EQ(client.status->connSocket().ifIndex(), c.scope);
    }
}

TEST_F(WireTest, KeysAndTheSmallestTtlLetTheRightPeerInAndKeepOthersOut) {
    const char* const in = "";
    const struct {
        const char *listen, *connect;
        const char *serverKeys, *clientKeys;  // Peers, each followed by its key.
        const char* dropped;   // The server's counter that goes up; "" where the peer gets in.
        uint8_t minTtl = 0;    // The client sends with 64.
        bool cleared = false;  // The listener's options have been turned off again.
    } cases[] = {
        {"192.0.2.2", "192.0.2.2", "192.0.2.0/24 B 192.0.2.15/28 A ::/0 B", "192.0.2.0/30 A", in},
        {"2001:db8::2", "2001:db8::2", "2001:db8::/64 A", "2001:db8::2/128 A ", in},
        {"192.0.2.2", "192.0.2.2", "192.0.2.0/24 A", "", "TCPMD5NotFound"},
        {"192.0.2.2", "192.0.2.2", "", "192.0.2.2/32 A", "TCPMD5Unexpected"},
        {"2001:db8::2", "2001:db8::2", "::/0 A", "2001:db8::2/128 B", "TCPMD5Failure"},
        {"192.0.2.2", "192.0.2.2", "", "", "TCPMinTTLDrop", 65},
        // Listeners for both families.
        {"::", "192.0.2.2", "192.0.2.1/32 A", "192.0.2.2/32 A", in, 64},
        {"::", "192.0.2.2", "0.0.0.0/0 B 192.0.2.77/24 A", "192.0.2.2/32 A", in},
        {"::", "2001:db8::2", "192.0.2.0/24 A", "", in, 64},
        {"::", "192.0.2.2", "192.0.2.77/24 A 192.0.2.1/32 A", "", in, 65, true},
        {"::", "192.0.2.2", "192.0.2.0/24 A", "192.0.2.2/32 B", "TCPMD5Failure"},
        {"::", "192.0.2.2", "192.0.2.1/32 A", "", "TCPMD5NotFound"},
        {"::", "192.0.2.2", "", "", "TCPMinTTLDrop", 65},
    };
    const auto keysIs = [](TcpConfigBase& config, const char* text) {
        std::istringstream words(text);
        for (std::string peer, key; words >> peer >> key;) {
            config.md5AuthIs(Mox::fromText<IpGenAddrWithMask>(peer), key);
        }
    };
    const ScopedNetNs right("right");  // For the counters.
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << (&c - cases) << " " << c.dropped);
        const TestServer server(byLoop_.ptr(), &wheel_, c.listen, 4001);
        const TestClient client(byLoop_.ptr(), &wheel_, c.connect, 4001);
        server.sm->v6OnlyIs(false);
        server.config->networkNamespaceIs(NamespaceName("right"));
        client.config->networkNamespaceIs(NamespaceName("left"));
        keysIs(*server.config, c.serverKeys);
        keysIs(*client.config, c.clientKeys);
        server.config->rxMinTtlIs(c.minTtl);
        server.config->optionsIs(optionMd5Auth | optionRxMinTtl);
        client.config->optionsIs(optionMd5Auth);
        ASSERT_TRUE(server.sm->startListener());
        if (c.cleared) {
            server.config->optionsIs({});
        }
        const long before = c.dropped == in ? 0 : tcpCounter(c.dropped);
        client.sm->startConnection();
        if (c.dropped == in) {
            EXPECT_TRUE(turnUntil([&] {
                return client.status->connSocket() && server.status->connSocketMembers() == 1;
            })) << client.summary();
        } else {
            EXPECT_TRUE(turnUntil([&] { return tcpCounter(c.dropped) > before; }));
            EXPECT_EQ(client.summary(), "connecting  1/0/0");
        }
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
    server.config->md5AuthIs(peer, "other");  // No change.
    EXPECT_EQ(server.summary(), "+Listening 2/1/0");
    client.config->md5AuthIs(peer, "secret");
    client.config->md5AuthDelAll();
    EXPECT_EQ(client.summary(), "connected  1/0/1");
    const int fd = client.status->connSocket().fileDescriptor()->descriptor();
    EXPECT_EQ(setSockMd5AuthOption(fd, peer, ""), 0);  // It has none.
    EXPECT_EQ(setSockMd5AuthOption(fd, {peer.ipGenAddr(), 256}, "key"), -1);
    EXPECT_EQ(errno, EINVAL);
}

}  // namespace
}  // namespace Pavo
