// Sockets, and the options that the machines set, as the kernel reports them.
#include "Pavo/TcpSockOpt.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <map>
#include <sstream>
#include <string>

#include "Pavo/ScopedNetNs.h"
#include "support/Errors.h"
#include "support/FailSyscall.h"
#include "tcp/TcpMachines.h"

namespace Pavo {
namespace {

using PavoTest::addressOf;
using PavoTest::TestClient;
using PavoTest::TestServer;
using PavoTest::turnsUntil;
using testing::MatchesRegex;

TEST(TcpFd, OpensNonBlockingSocketsThatTheLastHolderCloses) {
    const auto before = PavoTest::openDescriptors();
    for (const AddressFamily af : {ipv4, ipv6}) {
        const auto fd = TcpFileDescriptor::socket(af, NamespaceName(), /*edgeTriggered=*/true);
        ASSERT_TRUE(fd);
        EXPECT_NE(fcntl(fd->descriptor(), F_GETFL) & O_NONBLOCK, 0);
        EXPECT_EQ(fcntl(fd->descriptor(), F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(fd->stringValue(), "Value('Pavo::TcpFileDescriptor', ** {'descriptor': " +
                                         Mox::String(std::to_string(fd->descriptor())) +
                                         ", 'edgeTriggered': true})");
    }
    EXPECT_EQ(PavoTest::openDescriptors(), before);
    EXPECT_FALSE(TcpFileDescriptor::socket(ipv4, NamespaceName("nowhere"), false));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_DEATH(TcpFileDescriptor::socket(ipunknown, NamespaceName(), false), "Unknown af");
}

struct SockOpt {
    int level, optname;

    int of(int sd) const {
        int value = -1;
        socklen_t length = sizeof(value);
        EXPECT_EQ(getsockopt(sd, level, optname, &value, &length), 0);
        return value;
    }
};

using TcpSockOptTest = PavoTest::TcpTest;

TEST_F(TcpSockOptTest, EachOptionReachesItsSocketAndLeavesItAgain) {
    const int lo = static_cast<int>(htonl(1));
    const SockOpt v6Only{IPPROTO_IPV6, IPV6_V6ONLY};
    const struct {
        TcpSocketOption option;
        SockOpt v4, v6;
        int set, cleared;  // The value, and that after the option has been turned off.
    } cases[] = {
        {optionTxTtl, {IPPROTO_IP, IP_TTL}, {IPPROTO_IPV6, IPV6_UNICAST_HOPS}, 33, 64},
        {optionTxDs, {IPPROTO_IP, IP_TOS}, {IPPROTO_IPV6, IPV6_TCLASS}, 44, 0},  // Without ECN.
        {optionRxMinTtl, {IPPROTO_IP, IP_MINTTL}, {IPPROTO_IPV6, IPV6_MINHOPCOUNT}, 17, 0},
        {optionSockMaxSegSize, {IPPROTO_TCP, TCP_MAXSEG}, {IPPROTO_TCP, TCP_MAXSEG}, 700, 536},
        {optionPathMtuDiscovery, {0, IP_MTU_DISCOVER}, {IPPROTO_IPV6, IPV6_MTU_DISCOVER}, 2, 0},
        {optionDontRoute, {SOL_SOCKET, SO_DONTROUTE}, {IPPROTO_IPV6, IPV6_UNICAST_IF}, lo, 0},
    };
    const struct {
        const char *listen, *connect;
        bool isFour, isBoth;
    } families[] = {{"127.0.0.1", "127.0.0.1", true, false},
                    {"::1", "::1", false, false},
                    {"::", "127.0.0.1", true, true},
                    {"::", "::1", false, true}};
    for (const auto& c : cases) {
        for (const auto& f : families) {
            const bool isDontRoute = c.option == optionDontRoute;
            if (isDontRoute && f.isBoth) {
                continue;
            }
            SCOPED_TRACE(tcpOptionsToStrep(c.option) + " " + f.listen + " " + f.connect);
            const TestServer server(&byHand_, &wheel_, f.listen, 4001);
            const TestClient client(&byHand_, &wheel_, f.connect, 4001);
            server.sm->v6OnlyIs(!f.isBoth);
            for (TcpConfigBase* config :
                 {server.sm->tcpConfig().ptr(), client.sm->tcpConfig().ptr()}) {
                config->txTtlIs(33);
                config->txDsIs(46);
                config->rxMinTtlIs(17);
                config->sockMaxSegSizeIs(700);
                config->dstIntfIfIndexIs(1);
                config->optionsIs(c.option);
            }
            ASSERT_TRUE(server.sm->startListener());
            meet(client, server);
            const int listening = server.sm->fd()->fileDescriptor()->descriptor();
            const auto connection = client.status->connSocket().fileDescriptor();
            const int connected = connection->descriptor();
            const SockOpt& option = f.isFour ? c.v4 : c.v6;
            const int set = isDontRoute && f.isFour ? 1 : c.set;
            // The handshake agrees on the size; 12 bytes of it are for time stamps.
            const bool isSize = c.option == optionSockMaxSegSize;
            EXPECT_EQ(option.of(listening), set);
            EXPECT_TRUE(f.isBoth || server.sm->af() == ipv4 || v6Only.of(listening));
            EXPECT_EQ(option.of(connected), isSize ? 688 : set);
            server.config->optionsIs({});
            client.config->optionsIs({});
            EXPECT_EQ(option.of(listening), c.cleared);
            EXPECT_EQ(option.of(connected), isSize ? 688 : c.cleared);
        }
    }
}

TEST_F(TcpSockOptTest, WrongUseFailsOrStopsTheProcess) {
    EXPECT_DEATH(setSockOptTxTtl(ipunknown, 0, true, 1), "Unexpected af");
    const IpGenAddrWithMask peer(addressOf("192.0.2.1"));
    const auto fd = TcpFileDescriptor::socket(ipv4, NamespaceName(), false);
    EXPECT_EQ(setSockMd5AuthOption(fd->descriptor(), peer, ""), 0);  // Removes an absent key.
    EXPECT_EQ(setSockMd5AuthOption(fd->descriptor(), {peer.ipGenAddr(), 256}, "key"), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_DEATH(setSockMd5AuthOption(0, peer, std::string(80, 'k')), "key.bytes\\(\\) < 80");
    EXPECT_STREQ(checkMd5Key(std::string(80, 'k')), "key has more than 79 bytes");
    EXPECT_EQ(checkMd5Key(std::string(79, 'k')), nullptr);
    EXPECT_STREQ(checkMd5Key(""), "key is empty");
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    server.config->optionsIs(optionMd5Auth);
    server.config->md5AuthIs(peer, "");
    EXPECT_DEATH(server.sm->startListener(), "!key.empty\\(\\)");
}

TEST(TcpSocketOptions, HaveNamesAndNoOtherBits) {
    EXPECT_EQ(rangeErrorOf([] { TcpSocketOptions(uint8_t{0x80}); }), "Invalid TcpSocketOptions");
    EXPECT_EQ(tcpOptionsToStrep(optionTxTtl | optionMd5Auth), "TxTtl|Md5Auth");
}

// A counter of TCP extensions in the calling thread's namespace; -1 for an unknown one.
long tcpCounter(const std::string& name) {
    const std::string line = PavoTest::run({"nstat", "-asz", "TcpExt" + name});
    const std::size_t at = line.find(name);
    return at == std::string::npos ? -1 : std::stol(line.substr(at + name.size()));
}

TEST_F(TcpSockOptTest, AnInterfaceIsTheScopeOfLinkLocalAddresses) {
    const PavoTest::Wire wire;
    const TestServer server(byLoop_.ptr(), &wheel_, "::", 4001, "right");
    ASSERT_TRUE(server.sm->startListener());
    const ScopedNetNs left("left");
    for (const uint32_t ifIndex : {if_nametoindex("veth-left"), 0u}) {
        const TestClient client(byLoop_.ptr(), &wheel_, "fe80::2", 4001, "left");
        client.config->clientIpAddrIs(addressOf(ifIndex != 0 ? "fe80::1" : "::"));
        client.config->ifIndexIs(ifIndex);
        client.sm->startConnection();
        EXPECT_EQ(client.status->reason(), ifIndex != 0 ? "" : "Connect (Invalid argument)");
        EXPECT_TRUE(ifIndex == 0 ||
                    turnsUntil(loop_, [&] { return bool(client.status->connSocket()); }));
        EXPECT_EQ(client.status->connSocket().ifIndex(), ifIndex);
    }
}

std::string textOf(const Mox::String& text) {
    return std::string(text.view());
}
// Also what a listener in the client's namespace drops meanwhile.
TEST_F(TcpSockOptTest, AnAttemptWithoutAnswerSaysWhatItsNamespaceHasDropped) {
    const PavoTest::Wire wire;
    const TestServer silent(&byHand_, &wheel_, "192.0.2.2", 4001, "right");
    const TestServer picky(&byHand_, &wheel_, "192.0.2.1", 4002, "left");
    const TestClient client(&byHand_, &wheel_, "192.0.2.2", 4001, "left");
    const TestClient intruder(&byHand_, &wheel_, "192.0.2.1", 4002, "right");
    silent.config->md5AuthIs(Mox::fromText<IpGenAddrWithMask>("192.0.2.1/32"), "key");
    silent.config->optionsIs(optionMd5Auth);
    picky.config->rxMinTtlIs(65);
    picky.config->optionsIs(optionRxMinTtl);
    client.config->md5AuthIs(Mox::fromText<IpGenAddrWithMask>("192.0.2.2/32"), "key");
    const std::string ignored = "keys in md5Auth are ignored while optionMd5Auth is off";
    ASSERT_TRUE(silent.sm->startListener() && picky.sm->startListener());
    const ScopedNetNs left("left");
    client.sm->startConnection();
    EXPECT_EQ(client.status->diagnosis(), ignored);
    clock_.advance(0.25);
    const long before = tcpCounter("TCPMinTTLDrop");
    intruder.sm->startConnection();
    EXPECT_TRUE(turnsUntil(loop_, [&] { return tcpCounter("TCPMinTTLDrop") > before; }));
    intruder.sm->stopConnection();
    for (const char* cause :
         {"this namespace counted [0-9]+ segments? with too small a TTL meanwhile",
          "a peer that asks for a signature, or for a greater TTL, .*"}) {
        clock_.advance(20);
        EXPECT_THAT(
            textOf(client.status->diagnosis()),
            MatchesRegex(ignored + "; hint: no answer within 20 s to [0-9]+ segments?; " + cause));
    }
    EXPECT_EQ(client.summary(), "connecting  3/0/0");
}

TEST_F(TcpSockOptTest, AListenerLetsPeersInByTheTtlOfTheirSyn) {
    const struct {
        const char *listen, *connect;
        const char* peers;  // Each followed by its least TTL.
        uint8_t ttl;        // Of the client.
        int least;          // Of the accepted socket; -1 where it is refused.
        uint8_t listeners = 0;
    } cases[] = {
        {"127.0.0.1", "127.0.0.1", "127.0.0.0/8 255", 255, 255},
        {"127.0.0.1", "127.0.0.1", "127.0.0.0/8 255", 254, -1},
        {"127.0.0.1", "127.0.0.1", "127.0.0.1/32 64 127.0.0.0/8 255", 64, 64},
        {"127.0.0.1", "127.0.0.1", "127.0.0.1/32 0 127.0.0.0/8 255", 1, 0},
        {"127.0.0.1", "127.0.0.1", "127.0.0.2/32 255 ::/0 255", 1, 0},
        {"127.0.0.1", "127.0.0.1", "127.0.0.1/32 100", 255, 200, 200},
        {"::1", "::1", "::1/128 255", 255, 255},
        {"::1", "::1", "::/0 255", 254, -1},
        {"::", "127.0.0.1", "127.0.0.1/32 200 ::/0 255", 200, 200},
        {"::", "127.0.0.1", "127.0.0.1/32 200", 199, -1},
        {"::", "::1", "::1/128 200 0.0.0.0/0 255", 200, 200},
    };
    for (const auto& c : cases) {
        for (const bool setsLive : {false, true}) {
            SCOPED_TRACE(testing::Message() << c.peers << " " << +c.ttl << " " << setsLive);
            const TestServer server(&byHand_, &wheel_, c.listen, 4001);
            const TestClient client(&byHand_, &wheel_, c.connect, 4001);
            server.sm->v6OnlyIs(c.listen != std::string("::"));
            client.config->txTtlIs(c.ttl);
            client.config->optionsIs(optionTxTtl);
            server.config->rxMinTtlIs(c.listeners);
            server.config->optionsIs(optionRxMinTtl);
            setsLive ? (void)server.sm->startListener() : void();
            std::istringstream words(c.peers);
            int ttl = 0;
            for (std::string peer; words >> peer >> ttl;) {
                server.config->peerRxMinTtlIs(Mox::fromText<IpGenAddrWithMask>(peer),
                                              IpTtl(static_cast<uint8_t>(ttl)));
            }
            ASSERT_TRUE(server.sm->startListener());
            meet(client, server);
            const bool isIn = c.least >= 0;
            EXPECT_EQ(server.summary(), isIn ? "+Listening 1/1/1" : "+Listening 1/0/0");
            ASSERT_EQ(server.status->connSocketRefusedCount(), isIn ? 0u : 1u);
            if (isIn) {
                const bool isFour = addressOf(c.connect).af() == ipv4;
                const SockOpt least = isFour ? SockOpt{IPPROTO_IP, IP_MINTTL}
                                             : SockOpt{IPPROTO_IPV6, IPV6_MINHOPCOUNT};
                const auto accepted = server.status->getConnSocket();
                EXPECT_EQ(least.of(accepted.fileDescriptor()->descriptor()), c.least);
            } else {
                EXPECT_THAT(textOf(server.status->diagnosis()),
                            MatchesRegex("refused [:.0-9f]+: its SYN had TTL " +
                                         std::to_string(c.ttl) + ", at least .* is asked for"));
            }
        }
    }
}

TEST_F(TcpSockOptTest, AConnectionWhoseSynIsNotKnownIsRefused) {
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    const IpGenAddrWithMask peer(addressOf("127.0.0.1"));
    ASSERT_TRUE(server.sm->startListener());
    client.sm->startConnection();
    await(server);
    server.config->peerRxMinTtlIs(peer, 1);
    deliver(server);
    EXPECT_EQ(server.summary(), "+Listening 1/0/0");
    EXPECT_EQ(server.status->diagnosis(),
              "refused 127.0.0.1: the kernel has not kept its SYN, at least 1 is asked for");
    // A kernel that cannot.
    PavoTest::FailSyscall fail(2, ENOPROTOOPT, "setsockopt");
    EXPECT_FALSE(server.sm->restartListener());
    EXPECT_EQ(server.summary(), "-Setsockopt (Protocol not available) 2/0/0");
    EXPECT_EQ(server.status->diagnosis(), "the kernel keeps no SYN, by which peerRxMinTtl judges");
    fail.disarm();
    clock_.advance(1);
    EXPECT_EQ(server.summary(), "+Listening 3/0/0");
    EXPECT_EQ(server.status->diagnosis(), "");
}

TEST_F(TcpSockOptTest, KeysAndTheSmallestTtlLetTheRightPeerInAndKeepOthersOut) {
    const PavoTest::Wire wire;
    const char* const in = "";
    const std::map<std::string, std::string> wordsOf = {
        {"TCPMD5Unexpected", "with a signature but no key for it"},
        {"TCPMD5Failure", "with a wrong signature"},
        {"TCPMD5NotFound", "without the signature of a key"},
        {"TCPMinTTLDrop", "with too small a TTL"},
    };
    const struct {
        const char *listen, *connect;
        const char *serverKeys, *clientKeys;  // Peers, each followed by its key.
        const char* dropped;   // The server's counter that goes up; "" where the peer gets in.
        uint8_t minTtl = 0;    // The client sends with 64.
        bool cleared = false;  // The listener's options have been turned off again.
    } cases[] = {
        {"192.0.2.2", "192.0.2.2", "192.0.2.0/24 B 192.0.2.15/28 A ::/0 B", "192.0.2.0/30 A", in},
        {"192.0.2.2", "192.0.2.2", "", "192.0.2.2/32 A", "TCPMD5Unexpected"},
        {"2001:db8::2", "2001:db8::2", "::/0 A", "2001:db8::2/128 B", "TCPMD5Failure"},
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
        const TestServer server(byLoop_.ptr(), &wheel_, c.listen, 4001, "right");
        const TestClient client(byLoop_.ptr(), &wheel_, c.connect, 4001, "left");
        server.sm->v6OnlyIs(false);
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
            EXPECT_TRUE(turnsUntil(loop_, [&] {
                return client.status->connSocket() && server.status->connSocketMembers() == 1;
            })) << client.summary();
        } else {
            EXPECT_TRUE(turnsUntil(loop_, [&] { return tcpCounter(c.dropped) > before; }));
            EXPECT_EQ(client.summary(), "connecting  1/0/0");
            clock_.advance(20);
            EXPECT_THAT(textOf(server.status->diagnosis()),
                        MatchesRegex("hint: this namespace counted [0-9]+ segments? " +
                                     wordsOf.at(c.dropped) + " since the start"));
        }
    }
}

}  // namespace
}  // namespace Pavo
