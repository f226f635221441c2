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
#include "Pavo/TcpPduPam.h"
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

struct SockOpt {
    int level, optname;

    int of(const Mox::Ptr<TcpFileDescriptor>& fd) const {
        int value = -1;
        socklen_t length = sizeof(value);
        EXPECT_EQ(getsockopt(fd->descriptor(), level, optname, &value, &length), 0);
        return value;
    }
};
constexpr SockOpt minTtlOf[] = {{IPPROTO_IP, IP_MINTTL}, {IPPROTO_IPV6, IPV6_MINHOPCOUNT}};

IpGenAddrWithMask peerOf(const std::string& text) {
    return Mox::fromText<IpGenAddrWithMask>(text);
}

using TcpSockOptTest = PavoTest::TcpTest;

TEST_F(TcpSockOptTest, SocketsAreNonBlockingAndClosedByTheirLastHolder) {
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
}

TEST_F(TcpSockOptTest, EachOptionReachesItsSocketAndLeavesItAgain) {
    const int lo = static_cast<int>(htonl(1));
    const struct {
        TcpSocketOption option;
        SockOpt v4, v6;
        int set, cleared;  // The value, and that after the option has been turned off.
    } cases[] = {
        {optionTxTtl, {IPPROTO_IP, IP_TTL}, {IPPROTO_IPV6, IPV6_UNICAST_HOPS}, 33, 64},
        {optionTxDs, {IPPROTO_IP, IP_TOS}, {IPPROTO_IPV6, IPV6_TCLASS}, 44, 0},  // Without ECN.
        {optionRxMinTtl, minTtlOf[0], minTtlOf[1], 17, 0},
        {optionSockMaxSegSize, {IPPROTO_TCP, TCP_MAXSEG}, {IPPROTO_TCP, TCP_MAXSEG}, 700, 536},
        {optionPathMtuDiscovery, {0, IP_MTU_DISCOVER}, {IPPROTO_IPV6, IPV6_MTU_DISCOVER}, 2, 0},
        {optionDontRoute, {SOL_SOCKET, SO_DONTROUTE}, {IPPROTO_IPV6, IPV6_UNICAST_IF}, lo, 0},
    };
    const char* const families[][2] = {
        {"127.0.0.1", "127.0.0.1"}, {"::1", "::1"}, {"::", "127.0.0.1"}, {"::", "::1"}};
    for (const auto& c : cases) {
        for (const auto& [listen, connect] : families) {
            const bool isBoth = listen != std::string(connect);
            const bool isFour = addressOf(connect).af() == ipv4;
            const bool isDontRoute = c.option == optionDontRoute;
            if (isDontRoute && isBoth) {
                continue;
            }
            SCOPED_TRACE(tcpOptionsToStrep(c.option) + " " + listen + " " + connect);
            const TestServer server(&byHand_, &wheel_, listen, 4001);
            const TestClient client(&byHand_, &wheel_, connect, 4001);
            server.sm->v6OnlyIs(!isBoth);
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
            const auto connected = client.status->connSocket().fileDescriptor();
            const SockOpt& option = isFour ? c.v4 : c.v6;
            const int set = isDontRoute && isFour ? 1 : c.set;
            // The handshake agrees on the size; 12 bytes of it are for time stamps.
            const bool isSize = c.option == optionSockMaxSegSize;
            EXPECT_EQ(option.of(listening), set);
            EXPECT_EQ(option.of(connected), isSize ? 688 : set);
            server.config->optionsIs({});
            client.config->optionsIs({});
            EXPECT_EQ(option.of(listening), c.cleared);
            EXPECT_EQ(option.of(connected), isSize ? 688 : c.cleared);
        }
    }
}

TEST_F(TcpSockOptTest, AnEndpointAppliesKeepaliveAndCountsWhatFails) {
    const auto fd = TcpFileDescriptor::socket(ipv4, NamespaceName(), /*edgeTriggered=*/false);
    const auto pam = simpleTcpPduPamFactory(fd, loopTcpRegistrationFactory());
    const SockOpt enabled{SOL_SOCKET, SO_KEEPALIVE};
    const SockOpt numbers[] = {
        {IPPROTO_TCP, TCP_KEEPIDLE}, {IPPROTO_TCP, TCP_KEEPINTVL}, {IPPROTO_TCP, TCP_KEEPCNT}};
    pam->keepaliveOptsIs({40000, 12, 13});  // The first is above what Linux takes.
    EXPECT_EQ(pam->tcpOptErrors(), 1u);
    EXPECT_EQ(pam->tcpOptErrorReason(), "Setsockopt failed with Invalid argument");
    EXPECT_EQ(enabled.of(fd), 1);
    pam->keepaliveOptsIs({11, 12, 13});
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(numbers[i].of(fd), 11 + i);
    }
    pam->keepaliveOptsIs(TcpKeepaliveOptions::keepaliveDisabled);
    EXPECT_EQ(enabled.of(fd), 0);
}

TEST_F(TcpSockOptTest, WrongUseFailsOrStopsTheProcess) {
    EXPECT_DEATH(TcpFileDescriptor::socket(ipunknown, NamespaceName(), false), "Unknown af");
    EXPECT_DEATH(setSockOptTxTtl(ipunknown, 0, true, 1), "Unexpected af");
    EXPECT_EQ(rangeErrorOf([] { TcpSocketOptions(uint8_t{0x80}); }), "Invalid TcpSocketOptions");
    EXPECT_EQ(tcpOptionsToStrep(optionTxTtl | optionMd5Auth), "TxTtl|Md5Auth");
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

// A counter of TCP extensions in the calling thread's namespace; -1 for an unknown one.
long tcpCounter(const std::string& name) {
    const std::string line = PavoTest::run({"nstat", "-asz", "TcpExt" + name});
    const std::size_t at = line.find(name);
    return at == std::string::npos ? -1 : std::stol(line.substr(at + name.size()));
}

TEST_F(TcpSockOptTest, AnAttemptWithoutAnswerSaysWhatItsNamespaceHasDropped) {
    const TestServer picky(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient other(&byHand_, &wheel_, "127.0.0.1", 4001);
    client.config->rxMinTtlIs(1);
    client.config->optionsIs(optionRxMinTtl);
    picky.config->rxMinTtlIs(65);
    picky.config->optionsIs(optionRxMinTtl);
    client.config->md5AuthIs(peerOf("127.0.0.1/32"), "key");
    const std::string ignored = "keys in md5Auth are ignored while optionMd5Auth is off";
    ASSERT_TRUE(picky.sm->startListener());
    client.sm->startConnection();
    EXPECT_EQ(client.status->diagnosis(), ignored);
    clock_.advance(0.25);
    const long before = tcpCounter("TCPMinTTLDrop");
    other.sm->startConnection();
    EXPECT_TRUE(turnsUntil(loop_, [&] { return tcpCounter("TCPMinTTLDrop") > before; }));
    clock_.advance(19.75);
    EXPECT_THAT(std::string(client.status->diagnosis()),
                MatchesRegex(ignored + "; hint: no answer within 20 s to [0-9]+ segments?; this "
                                       "namespace counted [0-9]+ segments? with too small a TTL "
                                       "meanwhile"));
    EXPECT_EQ(client.summary(), "connecting  2/0/0");
}

TEST_F(TcpSockOptTest, AConnectionWhoseSynIsNotKnownIsRefused) {
    const TestServer server(&byHand_, &wheel_, "127.0.0.1", 4001);
    const TestClient client(&byHand_, &wheel_, "127.0.0.1", 4001);
    ASSERT_TRUE(server.sm->startListener());
    client.sm->startConnection();
    await(server);
    server.config->peerRxMinTtlIs(peerOf("127.0.0.1/32"), 1);
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

TEST_F(TcpSockOptTest, KeysAndTtlsLetTheRightPeerInAndKeepOthersOut) {
    const PavoTest::Wire wire;
    const char* const in = "";
    const std::string refused = "refused [:.0-9a-f]+: its SYN had TTL 199, at least .* asked for";
    const std::map<std::string, std::string> wordsOf = {
        {"TCPMD5Unexpected", "with a signature but no key for it"},
        {"TCPMD5Failure", "with a wrong signature"},
        {"TCPMD5NotFound", "without the signature of a key"},
        {"TCPMinTTLDrop", "with too small a TTL"},
    };
    const struct {
        const char *listen, *connect;
        const char* dropped;  // The server's counter that goes up; "" where the peer gets in.
        const char *serverKeys, *clientKeys;  // Peers, each followed by its key.
        const char* ttls = "";                // Likewise, by its least TTL.
        uint8_t minTtl = 0;                   // That of the listener.
        uint8_t ttl = 64;                     // That of the client.
        int least = 0;                        // That of the accepted socket.
        bool cleared = false;                 // The listener's options have been turned off again.
    } cases[] = {
        {"192.0.2.2", "192.0.2.2", in, "192.0.2.0/24 B 192.0.2.15/28 A ::/0 B", "192.0.2.0/30 A"},
        {"192.0.2.2", "192.0.2.2", "TCPMD5Unexpected", "", "192.0.2.2/32 A"},
        {"2001:db8::2", "2001:db8::2", "TCPMD5Failure", "::/0 A", "2001:db8::2/128 B"},
        {"192.0.2.2", "192.0.2.2", in, "", "", "192.0.2.0/24 255", 0, 255, 255},
        {"192.0.2.2", "192.0.2.2", "refused", "", "", "192.0.2.0/24 200", 0, 199},
        {"192.0.2.2", "192.0.2.2", in, "", "", "192.0.2.1/32 64 192.0.2.0/24 255", 0, 64, 64},
        {"192.0.2.2", "192.0.2.2", in, "", "", "192.0.2.1/32 0 192.0.2.0/24 255", 0, 1},
        {"192.0.2.2", "192.0.2.2", in, "", "", "192.0.2.3/32 255 ::/0 255", 0, 1},
        {"192.0.2.2", "192.0.2.2", in, "", "", "192.0.2.1/32 100", 200, 255, 200},
        {"2001:db8::2", "2001:db8::2", in, "", "", "2001:db8::1/128 255", 0, 255, 255},
        {"2001:db8::2", "2001:db8::2", "refused", "", "", "::/0 200", 0, 199},
        // Listeners for both families.
        {"::", "192.0.2.2", in, "192.0.2.1/32 A", "192.0.2.2/32 A", "", 64, 64, 64},
        {"::", "192.0.2.2", in, "0.0.0.0/0 B 192.0.2.77/24 A", "192.0.2.2/32 A"},
        {"::", "2001:db8::2", in, "192.0.2.0/24 A", "", "", 64, 64, 64},
        {"::", "192.0.2.2", in, "192.0.2.77/24 A 192.0.2.1/32 A", "", "", 65, 64, 0, true},
        {"::", "192.0.2.2", "TCPMD5Failure", "192.0.2.0/24 A", "192.0.2.2/32 B"},
        {"::", "192.0.2.2", "TCPMD5NotFound", "192.0.2.1/32 A", ""},
        {"::", "192.0.2.2", "TCPMinTTLDrop", "", "", "", 65},
        {"::", "192.0.2.2", in, "", "", "192.0.2.1/32 200 ::/0 255", 0, 200, 200},
        {"::", "192.0.2.2", "refused", "", "", "192.0.2.1/32 200", 0, 199},
        {"::", "2001:db8::2", in, "", "", "2001:db8::1/128 200 0.0.0.0/0 255", 0, 200, 200},
    };
    const auto forEachPeer = [](const char* text, const auto& apply) {
        std::istringstream words(text);
        for (std::string peer, value; words >> peer >> value;) {
            apply(peerOf(peer), value);
        }
    };
    const auto keysIs = [&](TcpConfigBase& config, const char* text) {
        forEachPeer(text, [&](auto peer, const auto& key) { config.md5AuthIs(peer, key); });
    };
    const ScopedNetNs right("right");  // For the counters.
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << (&c - cases) << " " << c.dropped);
        const TestServer server(byLoop_.ptr(), &wheel_, c.listen, 4001, "right");
        const TestClient client(byLoop_.ptr(), &wheel_, c.connect, 4001, "left");
        const bool isBoth = c.listen != std::string(c.connect);
        const bool setsLive = (&c - cases) % 2 != 0;
        server.sm->v6OnlyIs(!isBoth);
        keysIs(*server.config, c.serverKeys);
        keysIs(*client.config, c.clientKeys);
        server.config->rxMinTtlIs(c.minTtl);
        server.config->optionsIs(optionMd5Auth | optionRxMinTtl);
        client.config->txTtlIs(c.ttl);
        client.config->optionsIs(optionMd5Auth | optionTxTtl);
        setsLive ? (void)server.sm->startListener() : void();
        forEachPeer(c.ttls, [&](auto peer, const auto& ttl) {
            server.config->peerRxMinTtlIs(peer, static_cast<uint8_t>(std::stoi(ttl)));
        });
        ASSERT_TRUE(server.sm->startListener());
        c.cleared ? server.config->optionsIs({}) : void();
        const bool isCounted = wordsOf.count(c.dropped) != 0;
        const long before = isCounted ? tcpCounter(c.dropped) : 0;
        client.sm->startConnection();
        EXPECT_TRUE(turnsUntil(loop_, [&] {
            return isCounted ? tcpCounter(c.dropped) > before
                             : client.status->connSocket() &&
                                   server.status->connSocketCount() +
                                           server.status->connSocketRefusedCount() !=
                                       0;
        })) << client.summary();
        if (c.dropped == in) {
            const bool isSix = addressOf(c.connect).af() == ipv6;
            EXPECT_EQ(minTtlOf[isSix].of(server.status->getConnSocket().fileDescriptor()), c.least);
            continue;
        }
        EXPECT_EQ(server.summary(), "+Listening 1/0/0");
        EXPECT_EQ(client.summary(), isCounted ? "connecting  1/0/0" : "connected  1/0/1");
        clock_.advance(20);
        EXPECT_THAT(std::string(server.status->diagnosis()),
                    MatchesRegex(isCounted ? "hint: this namespace counted [0-9]+ segments? " +
                                                 wordsOf.at(c.dropped) + " since the start"
                                           : refused));
    }
}

}  // namespace
}  // namespace Pavo
