// The raw endpoints of both families: each test runs for IPv4 and for IPv6.
#include "Pavo/IpSocketPam.h"

#include <linux/filter.h>
#include <netinet/in.h>

#include <cerrno>

#include "Pavo/Ip6HdrInclSocketPam.h"
#include "pam/PamFixture.h"

namespace Pavo {
namespace {

constexpr uint32_t allMetadata = ipPktInfo | ipRecvTTL | ipRecvTOS | ipRecvOrigDstAddr;

class RawIpPamTest : public FamilyFixture {
  protected:
    static int level() { return pick<int>(IPPROTO_IP, IPPROTO_IPV6); }

    static Mox::Ptr<RawIpPam> newPam(IpProtocolNumber number = protocol, const char* netNs = "") {
        if (isV6()) {
            return ip6SocketPamFactory("test", number, NamespaceName(netNs));
        }
        return ipSocketPamFactory("test", number, NamespaceName(netNs));
    }
    // One that takes every option there is.
    static Mox::Ptr<RawIpPam> newPamForOptions(uint32_t options) {
        const auto pam = newPam(pick(protocol, IpProtocolNumber::reserved));
        pam->rxFilterIs(0, {BPF_RET | BPF_K, 0, 0, 0xffff});
        pam->rxBufIs(200000);
        pam->priorityIs(tcPrioControl);
        if (isV6()) {
            static_cast<Ip6SocketPam&>(*pam).checksumOffsetIs(2);
        }
        pam->optionsIs(options);
        return pam;
    }
    static Mox::Ptr<RawIpPam> openIn(const char* netNs, uint32_t options = none) {
        const auto pam = newPam(protocol, netNs);
        pam->optionsIs(options);
        pam->enabledIs(true);
        return pam;
    }
    // An enabled endpoint that sends to itself.
    static Mox::Ptr<RawIpPam> openPam(uint32_t options = none) {
        const auto pam = openIn("", options);
        pam->txDstIpAddrIs(loopback());
        return pam;
    }
    static void sendAll(const Mox::Ptr<RawIpPam>& pam, const Texts& texts) {
        for (const std::string& text : texts) {
            pam->txPktIs(pktOf(text));
        }
    }
    static void sendTo(const Mox::Ptr<RawIpPam>& pam, const IpGenAddr& to, const char* text) {
        pam->txDstIpAddrIs(to);
        pam->txPktIs(pktOf(text));
    }
};

INSTANTIATE_TEST_SUITE_P(Family, RawIpPamTest, testing::Values(ipv4, ipv6), FamilyFixture::nameOf);

TEST_P(RawIpPamTest, AppliesEachOptionWhenEnabledAndWhenChanged) {
    constexpr int notRead = -2;
    const struct {
        uint32_t bit;
        int four, six;  // Of the family's level, or both the same, of SOL_SOCKET.
        int on = 1;
        int off = 0;
    } rows[] = {
        {ipHdrIncl, IP_HDRINCL, IPV6_HDRINCL},
        {ipPktInfo, IP_PKTINFO, IPV6_RECVPKTINFO},
        {ipFreeBind, IP_FREEBIND, IPV6_FREEBIND},
        {ipMulticastLoop, IP_MULTICAST_LOOP, IPV6_MULTICAST_LOOP},
        {ipNoMulticastLoop, IP_MULTICAST_LOOP, IPV6_MULTICAST_LOOP, 0, 1},
        {ipMulticastLoop | ipNoMulticastLoop, IP_MULTICAST_LOOP, IPV6_MULTICAST_LOOP, 0, 1},
        {ipRecvErr, IP_RECVERR, IPV6_RECVERR},
        {ipRecvOrigDstAddr, IP_RECVORIGDSTADDR, IPV6_RECVORIGDSTADDR},
        {ipRecvTOS, IP_RECVTOS, IPV6_RECVTCLASS},
        {ipRecvTTL, IP_RECVTTL, IPV6_RECVHOPLIMIT},
        {ipRouterAlert, notRead, notRead},  // A change that is none would fail.
        {ipv6Checksum, notRead, IPV6_CHECKSUM, 2, -1},
        {ipRcvBuf, SO_RCVBUF, SO_RCVBUF, 400000, 2304},
        {ipTransparent, IP_TRANSPARENT, IPV6_TRANSPARENT},
        {ipPriority, SO_PRIORITY, SO_PRIORITY, tcPrioControl},
        {ipRecvDrops, SO_RXQ_OVFL, SO_RXQ_OVFL},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(ipSocketOptionsText(row.bit));
        const auto pam = newPamForOptions(row.bit);
        pam->enabledIs(true);
        for (const bool on : {true, false, true}) {
            pam->optionsIs(on ? row.bit : none);
            if (pick(row.four, row.six) != notRead) {
                EXPECT_EQ(optionOf(*pam, row.four == row.six ? SOL_SOCKET : level(),
                                   pick(row.four, row.six)),
                          on ? row.on : row.off);
            }
        }
    }
}

TEST_P(RawIpPamTest, AFailedChangeLeavesOptionsAndValuesThatDescribeTheSocket) {
    const std::string noFilter = "SO_ATTACH_FILTER option must be supplied with a valid filter";
    const auto before = PavoTest::openDescriptors();
    EXPECT_EQ(errorOf([] { openPam(ipPktInfo | ipAttachFilter); }), thrown(noFilter, EINVAL));
    EXPECT_EQ(PavoTest::openDescriptors(), before);
    const auto pam = openPam();
    EXPECT_EQ(errorOf([&] { pam->optionsIs(ipPktInfo | ipAttachFilter); }),
              thrown(noFilter, EINVAL));
    EXPECT_EQ(pam->options(), ipPktInfo);  // The one that came before is on.
    pam->rxFilterIs(0, {BPF_RET | BPF_K, 0, 0, 0});
    pam->optionsIs(ipAttachFilter);
    sendAll(pam, {"dropped"});
    pam->priorityIs(tcPrioControl);
    pam->optionsIs(ipPriority);
    sendAll(pam, {"passed"});
    EXPECT_EQ(payload(receive(pam)), "passed");

    pam->txTOSIs(0x10);  // With which the kernel of IPv4 overwrites the priority.
    EXPECT_EQ(optionOf(*pam, SOL_SOCKET, SO_PRIORITY), tcPrioControl);
    const auto expectError = [](unsigned n, const std::string& option, auto change) {
        EXPECT_EQ(errorOfFailing(n, EPERM, change), thrown("setsockopt(" + option + ")", EPERM));
    };
    expectError(1, pick("IP_TOS", "IPV6_TCLASS"), [&] { pam->txTOSIs(0x20); });
    expectError(pick(1u, 2u), pick("IP_TTL", "IPV6_MULTICAST_HOPS"), [&] { pam->txTTLIs(9); });
    EXPECT_EQ(pam->txTOS(), IpDscp(0x10));
    EXPECT_EQ(pam->txTTL(), IpTtl(0));
    EXPECT_EQ(optionOf(*pam, level(), pick(IP_TTL, IPV6_UNICAST_HOPS)), 64);
    expectError(1, "SO_RCVBUFFIRCE", [&] { pam->optionsIs(ipPriority | ipRcvBuf); });
    EXPECT_TRUE(pam->enabled());
    // A socket is closed when this option cannot be changed.
    expectError(1, pick("IP_TRANSPARENT", "IPV6_TRANSPARENT"),
                [&] { pam->optionsIs(ipPriority | ipTransparent); });
    EXPECT_FALSE(pam->enabled());
    EXPECT_EQ(pam->options(), ipPriority);
}

TEST_P(RawIpPamTest, ReportsTheMetadataOfEachPacketOverAWire) {
    const Wire wire;
    const auto left = openIn("left");
    const auto right = openIn("right", allMetadata);
    const uint32_t index = wire.index("right");
    const std::string join = pick("setsockopt(IP_ADD_MEMBERSHIP)", "setsockopt(IPV6_JOIN_GROUP)");
    const IpGenAddr group = addr(pick("224.0.0.251", "ff02::fb"));
    const IpGenAddr foreign = addr(pick("ff02::1", "224.0.0.1"));
    EXPECT_EQ(errorOf([&] { right->doJoinMcastGroup(4711, group); }), thrown(join, ENODEV));
    EXPECT_EQ(errorOf([&] { right->doJoinMcastGroup(1, foreign); }), thrown(join, EAFNOSUPPORT));
    right->doJoinMcastGroup(index, group);
    left->txIfNameIs("veth-left");  // A name of that namespace, not of this one.
    left->txSrcIpAddrIs(addr(pick("192.0.2.1", "fe80::1")));
    left->txTOSIs(0xb9);  // The two congestion bits too.
    left->txTTLIs(77);
    for (const IpGenAddr& destination : {group, addr(pick("192.0.2.2", "fe80::2"))}) {
        sendTo(left, destination, "hello");
        EXPECT_EQ(payload(receive(right)), "hello");
        // To IPv4 groups the kernel sends with a TTL of its own.
        const int ttl = !isV6() && destination == group ? 1 : 77;
        const auto known = textOf(left->txSrcIpAddr(), destination, destination, index, 0xb9, ttl);
        EXPECT_EQ(rxAttributes(*right), known);
        EXPECT_EQ(textOf(right->rxInfo()), known);
    }
    // Attributes that the next packet does not carry are unchanged, except that a link-local sender
    // gives the interface; the packet's own description has nothing of the packet before.
    const std::string before = rxAttributes(*right);
    right->optionsIs(none);
    right->rxIfIndexIs(isV6() ? 4711 : index);
    sendAll(left, {"again"});
    (void)receive(right);
    EXPECT_EQ(rxAttributes(*right), before);
    EXPECT_EQ(textOf(right->rxInfo()), textOf(left->txSrcIpAddr(), {}, {}, pick(0u, index), 0, 0));
    (void)right->rxPkt();
    EXPECT_EQ(textOf(right->rxInfo()), textOf(RxInfo()));
}

TEST_P(RawIpPamTest, ReadsBatchesWithTheMetadataOfEachPacket) {
    const auto pam = openPam(ipRecvTTL);
    pam->socketReadLimitIs(3);
    pam->enableBulkReadIs(true);
    for (const char* text : {"1", "2", "3", "4"}) {
        pam->txTTLIs(static_cast<uint8_t>(*text));
        sendAll(pam, {text});
    }
    EXPECT_EQ(pam->rxPktBulk(), 3);
    const Mox::Ptr<Pkt> kept = pam->savedPacket(0);
    const Pkt* const second = pam->savedPacket(1).ptr();
    EXPECT_TRUE(pam->savedPacketRx(2));
    EXPECT_EQ(textOf(pam->savedPacketInfo(2)), textOf(loopback(), {}, {}, 0, 0, '3'));
    EXPECT_EQ(pam->rxTTL(), '3');
    EXPECT_EQ(pam->rxPktBulk(), 1);
    EXPECT_EQ(payload(pam->savedPacket(0)), "4");
    EXPECT_EQ(payload(kept), "1");
    EXPECT_EQ(pam->savedPacket(1).ptr(), second);  // It was not held, so it is read into again.
    EXPECT_FALSE(pam->savedPacketRx(1));
    EXPECT_EQ(textOf(pam->rxInfo(1)), textOf(RxInfo()));
    pam->savedPacketDelAll();
    sendAll(pam, {"5"});
    EXPECT_EQ(pam->rxPktBulk(), 1);
    EXPECT_EQ(payload(pam->savedPacket(0)), "5");
    EXPECT_EQ(pam->rxPktBulk(), 0);
    EXPECT_EQ(pam->rxErrors(), 1u);
    EXPECT_EQ(pam->rxPktCount(), 5u);
}

TEST_P(RawIpPamTest, CountsEverySendThatFails) {
    const auto pam = openPam();
    const IpGenAddr other = addr(pick("::1", "127.0.0.1"));
    const IpGenAddr self = loopback();
    const struct {
        IpGenAddr destination, source;
        uint32_t ifIndex;
        const char* ifName;
        int error;
    } cases[] = {
        {{}, {}, 0, "", EDESTADDRREQ},
        {addr(pick("198.51.100.1", "2001:db8:1::1")), {}, 0, "", ENETUNREACH},
        {other, {}, 0, "", EAFNOSUPPORT},
        {self, other, 0, "", EAFNOSUPPORT},
        {self, addr(pick("8.8.8.8", "2001:db8::8")), 0, "", pick(ENETUNREACH, EINVAL)},
        {self, {}, 4711, "lo", ENODEV},
        {self, {}, 0x80000000, "lo", ENODEV},
        {self, {}, 0, "nowhere0", ENODEV},
        {self, {}, 0, "a-name-that-is-too-long", ENODEV},
    };
    for (const auto& c : cases) {
        const uint32_t errors = pam->txErrors();
        SCOPED_TRACE(errors);
        pam->txSrcIpAddrIs(c.source);
        pam->txIfIndexIs(c.ifIndex);
        pam->txIfNameIs(c.ifName);
        sendTo(pam, c.destination, "x");
        EXPECT_EQ(pam->txErrno(), c.error);
        EXPECT_EQ(pam->txErrors(), errors + 1);
    }
    EXPECT_EQ(pam->txPktCount(), 0u);
    pam->txIfNameIs("lo");
    sendTo(pam, IpGenAddr(GetParam()), "self");  // The kernel sends 0.0.0.0 and :: to this host.
    EXPECT_EQ(payload(receive(pam)), "self");
    EXPECT_EQ(pam->txErrno(), 0);
    EXPECT_EQ(pam->txPktCount(), 1u);
    pam->maxRxPktDataIs(pam->rxBufferBytes() + 1);
    EXPECT_DEATH(pam->rxPkt(), "maxSize >= maxRxPktData\\(\\)");
    pam->enabledIs(false);
    EXPECT_DEATH(sendAll(pam, {"x"}), "enabled\\(\\)");
}

TEST_P(RawIpPamTest, ForwardedPacketsWithTheAlertReachTheRouterThatEnabledIt) {
    const Wire wire;
    PavoTest::run({"ip", "netns", "exec", "right", "sysctl", "-qw",
                   pick("net.ipv4.ip_forward=1", "net.ipv6.conf.all.forwarding=1")});
    const char* const beyond = pick("198.51.100.0/24", "2001:db8:9::/64");
    const char* const router = pick("192.0.2.2", "2001:db8::2");
    PavoTest::run({"ip", "-n", "left", "route", "add", beyond, "via", router});
    PavoTest::run({"ip", "-n", "right", "route", "add", beyond, "dev", "veth-right"});
    const auto left = openIn("left");
    left->txDstIpAddrIs(addr(pick("198.51.100.9", "2001:db8:9::9")));
    // For IPv6 the kernel needs a protocol other than that of the packets.
    const auto right = newPam(pick(protocol, IpProtocolNumber::reserved), "right");
    right->optionsIs(ipRouterAlert);
    right->enabledIs(true);
    sendAll(left, {"plain"});
    left->ipPktOptionIs(ipPktRouterAlert, true);
    sendAll(left, {"alert"});
    EXPECT_TRUE(receive(right)->stringValue().view().ends_with("alert"));
}

TEST_P(RawIpPamTest, NotifiesOnceWhenAFullSendBufferHasRoomAgain) {
    const Wire wire;
    // An address that nobody has: packets wait for its MAC address.
    const char* const text = pick("192.0.2.7", "2001:db8::7");
    const IpGenAddr nobody = addr(text);
    const auto outer = ip6HdrInclSocketPamFactory("test", protocol, NamespaceName("left"));
    outer->txPamIs();
    const auto pam = isV6() ? Mox::Ptr<RawIpPam>(outer) : newPam(protocol, "left");
    pam->enabledIs(true);
    optionIs(isV6() ? *outer->txPam() : *pam, SO_SNDBUF, 1);
    pam->txDstIpAddrIs(nobody);
    const auto pkt = isV6() ? pktWithHeader("x", 9, IpGenAddr(ipv6), nobody) : pktOf("x");
    for (int i = 0; i < 100 && pam->txErrors() == 0; ++i) {
        pam->txPktIs(pkt);
    }
    EXPECT_EQ(pam->txErrno(), pick(ENOBUFS, EAGAIN));  // The kernel's choice.
    EXPECT_EQ(turnsUntilQuiet(), 0u);
    EXPECT_EQ(pam->writableCount(), 1u);
    PavoTest::run({"ip", "-n", "left", "neigh", "replace", text, "lladdr", "02:00:00:00:00:77",
                   "dev", "veth-left", "nud", "permanent"});  // Now they leave.
    loop_.turn(2);
    EXPECT_EQ(pam->writableCount(), 2u);
    EXPECT_EQ(turnsUntilQuiet(), 0u);
}

}  // namespace
}  // namespace Pavo
