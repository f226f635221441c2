// The raw endpoints of both families: each test runs for IPv4 and for IPv6.
#include "Mox/Trace.h"
#include "Pavo/IpSocketPam.h"

#include <gmock/gmock.h>
#include <linux/filter.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "Pavo/Ip6HdrInclSocketPam.h"
#include "pam/PamFixture.h"

namespace Pavo {
namespace {

const IpFilter acceptAll(BPF_RET | BPF_K, 0, 0, 0xffff);
const IpFilter dropAll(BPF_RET | BPF_K, 0, 0, 0);

#define NAMED(option) option, #option

// What enabling sets, in its order, for each family: number and name, none where there is nothing.
// Where an option has a bit, what it reads while on and off; `notRead` where it cannot be read.
constexpr int notRead = -2;
constexpr struct Setting {
    uint32_t bit;
    int four;
    const char* fourName;
    int six;
    const char* sixName;
    int on = 1;
    int off = 0;
} settings[] = {
    {ipHdrIncl, NAMED(IP_HDRINCL), NAMED(IPV6_HDRINCL)},
    {ipPktInfo, NAMED(IP_PKTINFO), NAMED(IPV6_RECVPKTINFO)},
    {ipFreeBind, NAMED(IP_FREEBIND), NAMED(IPV6_FREEBIND)},
    {ipMulticastLoop, NAMED(IP_MULTICAST_LOOP), NAMED(IPV6_MULTICAST_LOOP)},
    {ipRecvErr, NAMED(IP_RECVERR), NAMED(IPV6_RECVERR)},
    {ipRecvOrigDstAddr, IP_RECVORIGDSTADDR, "IP_RECVORIGDSTADD", NAMED(IPV6_RECVORIGDSTADDR)},
    {ipRecvTOS, NAMED(IP_RECVTOS), NAMED(IPV6_RECVTCLASS)},
    {ipRecvTTL, NAMED(IP_RECVTTL), NAMED(IPV6_RECVHOPLIMIT)},
    // A change that is none would fail (EADDRINUSE, ENOBUFS).
    {ipRouterAlert, NAMED(IP_ROUTER_ALERT), NAMED(IPV6_ROUTER_ALERT), notRead},
    {ipv6Checksum, 0, nullptr, NAMED(IPV6_CHECKSUM), 2, -1},
    {none, NAMED(SO_ATTACH_FILTER), NAMED(SO_ATTACH_FILTER)},
    {ipRcvBuf, SO_RCVBUF, "SO_RCVBUFFORCE", SO_RCVBUF, "SO_RCVBUFFORCE", 400000, 2304},
    {none, NAMED(IP_TOS), NAMED(IPV6_TCLASS)},
    {none, NAMED(IP_TTL), NAMED(IPV6_UNICAST_HOPS)},
    {none, 0, nullptr, NAMED(IPV6_MULTICAST_HOPS)},
    {ipTransparent, NAMED(IP_TRANSPARENT), NAMED(IPV6_TRANSPARENT)},
    {ipPriority, NAMED(SO_PRIORITY), NAMED(SO_PRIORITY), tcPrioControl},
    {none, NAMED(IP_OPTIONS), NAMED(IPV6_HOPOPTS)},
};

class RawIpPamTest : public PamFixture, public testing::WithParamInterface<AddressFamily> {
  protected:
    static bool isV6() { return GetParam() == ipv6; }
    template <class T>
    static T pick(T four, T six) {
        return isV6() ? six : four;
    }
    static IpGenAddr loopback() { return addr(pick("127.0.0.1", "::1")); }
    // Of the header that a packet is received with.
    static uint32_t headerBytes() { return pick(20, 0); }
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
        pam->rxFilterIs(0, acceptAll);
        pam->rxBufIs(200000);
        pam->priorityIs(tcPrioControl);
        if (isV6()) {
            static_cast<Ip6SocketPam&>(*pam).checksumOffsetIs(2);
        }
        pam->optionsIs(options);
        return pam;
    }
    static Mox::Ptr<RawIpPam> openIn(const char* netNs, uint32_t options) {
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
    // One whose packets begin with their own header; of IPv6 with a socket more inside.
    static Mox::Ptr<RawIpPam> newHeaderPam() {
        if (isV6()) {
            return ip6HdrInclSocketPamFactory("test", protocol, NamespaceName());
        }
        const auto pam = newPam();
        pam->optionsIs(ipHdrIncl);
        return pam;
    }
    static void sendAll(const Mox::Ptr<RawIpPam>& pam, const Texts& texts) {
        for (const std::string& text : texts) {
            pam->txPktIs(pktOf(text));
        }
    }
    void expectNoEvents() {
        for (int i = 0; i < 100; ++i) {
            ASSERT_EQ(loop_.turn(0), 0u);
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Family, RawIpPamTest, testing::Values(ipv4, ipv6),
                         [](const auto& info) { return info.param == ipv4 ? "ipv4" : "ipv6"; });

TEST_P(RawIpPamTest, AppliesEachOptionWhenEnabledAndWhenChanged) {
    for (const Setting& s : settings) {
        const std::string name = pick(s.fourName, s.sixName) ? pick(s.fourName, s.sixName) : "";
        if (s.bit == none || name.empty()) {
            continue;
        }
        SCOPED_TRACE(name);
        const auto pam = newPamForOptions(s.bit);
        const auto expectValue = [&](int value) {
            const int where = name.starts_with("SO_") ? SOL_SOCKET : level();
            if (s.on != notRead) {
                EXPECT_EQ(optionOf(*pam, where, pick(s.four, s.six)), value);
            }
        };
        pam->enabledIs(true);
        expectValue(s.on);
        for (const bool on : {false, true}) {
            pam->optionsIs(on ? s.bit : none);
            expectValue(on ? s.on : s.off);
        }
    }
}

TEST_P(RawIpPamTest, AFailedEnablingLeavesNothingAndTheNextOneSucceeds) {
    const auto before = PavoTest::openDescriptors();
    uint32_t all = ipAttachFilter;
    Texts texts;
    for (const Setting& s : settings) {
        all |= s.bit;
        if (const char* name = pick(s.fourName, s.sixName)) {
            texts.emplace_back(name);
        }
    }
    const auto pam = newPamForOptions(all);
    pam->txTOSIs(0x10);
    pam->txTTLIs(9);
    pam->ipPktOptionIs(ipPktRouterAlert, true);
    EXPECT_THAT(failedEnablings(pam), testing::IsSupersetOf(texts));
    pam->enabledIs(false);
    EXPECT_EQ(PavoTest::openDescriptors(), before);
}

TEST_P(RawIpPamTest, ReportsAMissingNamespaceOrFilter) {
    const auto lost = newPam(protocol, "nowhere");
    EXPECT_EQ(errorOf([&] { lost->enabledIs(true); }), thrown("socketAt", ENOENT));

    const auto pam = openPam();
    EXPECT_EQ(errorOf([&] { pam->optionsIs(ipPktInfo | ipAttachFilter); }),
              thrown("SO_ATTACH_FILTER option must be supplied with a valid filter", EINVAL));
    EXPECT_EQ(pam->options(), ipPktInfo);  // The one that came before is on.
    pam->rxFilterIs(0, dropAll);
    pam->optionsIs(ipAttachFilter);
    pam->txPktIs(pktOf("dropped"));
    EXPECT_EQ(errorOfFailing(1, ENOMEM, [&] { pam->optionsIs(none); }),
              thrown("setsockopt(SO_DETACH_FILTER)", ENOMEM));
    pam->optionsIs(none);
    pam->txPktIs(pktOf("passed"));
    EXPECT_EQ(payload(receive(pam)), "passed");
}

TEST_P(RawIpPamTest, ReportsTheMetadataOfEachPacketOverAWire) {
    const Wire wire;
    const auto left = openIn("left", none);
    const auto right = openIn("right", ipPktInfo | ipRecvTTL | ipRecvTOS | ipRecvOrigDstAddr);
    struct Case {
        AddressFamily family;
        const char *source, *destination;
        uint8_t ttl;  // As received.
    } static const cases[] = {
        {ipv4, "192.0.2.1", "192.0.2.2", 77},
        // To IPv4 groups the kernel sends with a TTL of its own.
        {ipv4, "192.0.2.1", "224.0.0.251", 1},
        {ipv6, "2001:db8::1", "2001:db8::2", 77},
        {ipv6, "fe80::1", "ff02::fb", 77},
        {ipv6, "fe80::1", "fe80::2", 77},
    };
    right->doJoinMcastGroup(wire.index("right"), addr(pick("224.0.0.251", "ff02::fb")));
    left->txIfNameIs("veth-left");  // A name of that namespace, not of this one.
    left->txTOSIs(0xb9);            // The two congestion bits too.
    left->txTTLIs(77);
    for (const Case& c : cases) {
        if (c.family != GetParam()) {
            continue;
        }
        left->txSrcIpAddrIs(addr(c.source));
        left->txDstIpAddrIs(addr(c.destination));
        left->txPktIs(pktOf("hello"));
        const auto pkt = receive(right);
        EXPECT_EQ(payload(pkt), "hello");
        EXPECT_EQ(pkt->totalBytes(), headerBytes() + 5);
        EXPECT_EQ(textOf(rxInfo(*right)),
                  textOf({addr(c.source), addr(c.destination), addr(c.destination),
                          wire.index("right"), 0xb9, c.ttl}));
    }
    EXPECT_EQ(right->rxPktCount(), left->txPktCount());

    // Metadata that the next packet does not carry is unchanged, except that a link-local sender
    // gives the interface.
    const RxPacketInfo before = rxInfo(*right);
    right->optionsIs(none);
    left->txTTLIs(0);
    EXPECT_EQ(optionOf(*left, level(), pick(IP_TTL, IPV6_UNICAST_HOPS)), 64);
    right->rxIfIndexIs(isV6() ? 4711 : before.ifIndex);
    left->txPktIs(pktOf("again"));
    EXPECT_EQ(payload(receive(right)), "again");
    EXPECT_EQ(textOf(rxInfo(*right)), textOf(before));
}

TEST_P(RawIpPamTest, ReceivesFromAGroupWhileItIsAMember) {
    const Wire wire;
    const auto left = openIn("left", none);
    const auto right = openIn("right", none);
    const uint32_t index = wire.index("right");
    const IpGenAddr group = addr(pick("224.0.1.99", "ff0e::99"));
    left->txIfIndexIs(wire.index("left"));
    // The marker goes to the host's own address, after the packet to the group.
    const auto expectReceives = [&](bool fromGroup) {
        left->txDstIpAddrIs(group);
        left->txPktIs(pktOf("group"));
        left->txDstIpAddrIs(addr(pick("192.0.2.2", "2001:db8::2")));
        left->txPktIs(pktOf("marker"));
        EXPECT_EQ(payload(receive(right)), fromGroup ? "group" : "marker");
        EXPECT_EQ(fromGroup ? payload(receive(right)) : "marker", "marker");
    };
    const auto expectNotJoined = [&](uint32_t ifIndex, const IpGenAddr& each, int error) {
        EXPECT_EQ(
            errorOf([&] { right->doJoinMcastGroup(ifIndex, each); }),
            thrown(pick("setsockopt(IP_ADD_MEMBERSHIP)", "setsockopt(IPV6_JOIN_GROUP)"), error));
    };
    expectReceives(false);
    right->doJoinMcastGroup(index, group);
    expectReceives(true);
    right->doLeaveMcastGroup(index, group);
    expectReceives(false);
    EXPECT_EQ(errorOf([&] { right->doLeaveMcastGroup(index, group); }),
              thrown(pick("setsockopt(IP_DROP_MEMBERSHIP)", "setsockopt(IPV6_LEAVE_GROUP)"),
                     EADDRNOTAVAIL));
    expectNotJoined(4711, group, ENODEV);
    expectNotJoined(index, addr(pick("ff02::1", "224.0.0.1")), EAFNOSUPPORT);
    right->doJoinMcastGroup(index, group);
    right->enabledIs(false);
    EXPECT_DEATH(right->doJoinMcastGroup(index, group), "enabled\\(\\)");
    right->enabledIs(true);  // Memberships end with the socket.
    expectReceives(false);
}

Texts traced;

TEST_P(RawIpPamTest, CountsAReadWithoutAPacketAsAnError) {
    const auto pam = openPam();
    EXPECT_EQ(pam->rxPkt(), nullptr);
    EXPECT_EQ(pam->rxErrors(), 1u);
    EXPECT_EQ(pam->rxPktCount(), 0u);

    pam->maxRxPktDataIs(headerBytes() + 4);  // A longer packet is cut off there.
    sendAll(pam, {"longer than that", ""});
    EXPECT_EQ(payload(receive(pam)), "long");
    EXPECT_EQ(receive(pam)->totalBytes(), headerBytes());

    // An unexpected control message takes the room of the last one, which is then missing.
    pam->optionsIs(ipPktInfo | ipRecvTTL | ipRecvTOS | ipRecvOrigDstAddr);
    optionIs(*pam, SO_TIMESTAMP, 1);
    pam->txTTLIs(33);
    pam->txPktIs(pktOf("stamped"));
    EXPECT_EQ(payload(receive(pam)), "stam");
    EXPECT_EQ(textOf(rxInfo(*pam)), textOf({loopback(), loopback(), IpGenAddr(), 1, 0, 33}));
    pam->maxRxPktDataIs(1537);
    EXPECT_DEATH(pam->rxPkt(), "maxSize >= maxRxPktData\\(\\)");
    pam->enabledIs(false);
    EXPECT_DEATH(pam->txPktIs(pktOf("x")), "enabled\\(\\)");

    Mox::traceSettingsIs("Pavo::*/1");
    Mox::traceSinkIs([](const char* from, int, std::string_view message) {
        traced = {from, std::string(message)};
    });
    EXPECT_EQ(pam->rxPkt(), nullptr);
    Mox::traceSinkIs(nullptr);
    Mox::traceSettingsIs("Pavo::*/");
    const std::string name = pick("IpSocketPam", "Ip6SocketPam");
    EXPECT_EQ(traced, (Texts{"Pavo::" + name, name + " not enabled. Aborting action"}));
}

TEST_P(RawIpPamTest, ReadsBatchesWithTheMetadataOfEachPacket) {
    const auto pam = openPam(ipRecvTTL);
    pam->socketReadLimitIs(3);
    pam->enableBulkReadIs(true);
    EXPECT_EQ(pam->savedPacket().members(), 3u);
    for (const char* text : {"1", "2", "3", "4"}) {
        pam->txTTLIs(*text);
        pam->txPktIs(pktOf(text));
    }
    EXPECT_EQ(pam->rxPktBulk(), 3);
    const Mox::Ptr<Pkt> kept = pam->savedPacket(0);
    const Pkt* const second = pam->savedPacket(1).ptr();
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(pam->savedPacketRx(i));
        EXPECT_EQ(payload(pam->savedPacket(i)), std::to_string(i + 1));
        EXPECT_EQ(pam->savedPacketInfo(i).ttl, '1' + i);
        EXPECT_EQ(pam->savedPacketInfo(i).srcIpAddr, loopback());
    }
    EXPECT_EQ(pam->rxTTL(), '3');
    EXPECT_EQ(pam->rxPktBulk(), 1);
    EXPECT_EQ(payload(pam->savedPacket(0)), "4");
    EXPECT_EQ(payload(kept), "1");
    EXPECT_EQ(pam->savedPacket(1).ptr(), second);  // It was not held, so it is read into again.
    EXPECT_EQ(second->maxSharedData(), Pkt::Manager::defaultBufferSize);
    EXPECT_FALSE(pam->savedPacketRx(1));
    EXPECT_EQ(pam->rxPktBulk(), 0);
    EXPECT_EQ(pam->rxErrors(), 1u);
    EXPECT_EQ(pam->rxPktCount(), 4u);
    pam->enableBulkReadIs(false);
    EXPECT_EQ(pam->savedPacket().members(), 0u);
}

TEST_P(RawIpPamTest, ReadsABatchWhileObserversRemoveSlotsOrDisable) {
    const auto pam = openPam();
    pam->socketReadLimitIs(3);
    pam->enableBulkReadIs(true);
    const Mox::Watch<RawIpPam> taken(pam, Pam::savedPacketRxAttr,
                                     [&pam](uint32_t) { pam->savedPacketDelAll(); });
    for (int round = 0; round < 3; ++round) {
        sendAll(pam, {"a", "b", "c"});
        EXPECT_EQ(pam->rxPktBulk(), 3);
        pam->savedPacketDelAll();
    }
    const Mox::Watch<RawIpPam> closed(pam, IpPam::rxPktCountAttr,
                                      [&pam] { pam->enabledIs(false); });
    pam->txPktIs(pktOf("last"));
    EXPECT_EQ(pam->rxPktBulk(), 1);
    EXPECT_FALSE(pam->enabled());
    EXPECT_EQ(pam->rxPktBulk(), 0);
    EXPECT_FALSE(pam->savedPacketRx(0));
}

TEST_P(RawIpPamTest, CountsEverySendThatFailsAndSendsPacketsOfTwoPieces) {
    const auto pam = openPam();
    const IpGenAddr other = addr(pick("::1", "127.0.0.1"));
    const struct {
        IpGenAddr destination, source;
        uint32_t ifIndex;
        const char* ifName;
        int error;
    } cases[] = {
        {addr(pick("198.51.100.1", "2001:db8:1::1")), {}, 0, "", ENETUNREACH},
        {other, {}, 0, "", EAFNOSUPPORT},
        {loopback(), other, 0, "", EAFNOSUPPORT},
        {loopback(), addr(pick("8.8.8.8", "2001:db8::8")), 0, "", pick(ENETUNREACH, EINVAL)},
        {loopback(), {}, 4711, "lo", ENODEV},
        {loopback(), {}, 0, "nowhere0", ENODEV},
        {loopback(), {}, 0, "a-name-that-is-too-long", ENODEV},
    };
    uint32_t errors = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(errors);
        pam->txDstIpAddrIs(c.destination);
        pam->txSrcIpAddrIs(c.source);
        pam->txIfIndexIs(c.ifIndex);
        pam->txIfNameIs(c.ifName);
        pam->txPktIs(pktOf("x"));
        EXPECT_EQ(pam->txErrno(), c.error);
        EXPECT_EQ(pam->txErrors(), ++errors);
        EXPECT_EQ(pam->txPktCount(), 0u);
    }
    pam->txIfNameIs("lo");
    const auto pieces = pktOf("rear");
    std::copy_n("front ", 6, pieces->newPrivateHeadData(6));
    pam->txPktIs(pieces);
    EXPECT_EQ(pam->txErrno(), 0);
    EXPECT_EQ(pam->txPktCount(), 1u);
    EXPECT_EQ(payload(receive(pam)), "front rear");
}

TEST_P(RawIpPamTest, KeepsItsPriorityAndItsValuesWhenTheyCannotBeSet) {
    const auto pam = newPam();
    pam->priorityIs(tcPrioControl);
    pam->optionsIs(ipPriority);
    pam->enabledIs(true);
    pam->txTOSIs(0x10);  // With which the kernel of IPv4 overwrites the priority.
    EXPECT_EQ(optionOf(*pam, SOL_SOCKET, SO_PRIORITY), tcPrioControl);
    const auto expectError = [](const std::string& option, auto change) {
        EXPECT_EQ(errorOfFailing(1, EPERM, change), thrown("setsockopt(" + option + ")", EPERM));
    };
    expectError(pick("IP_TOS", "IPV6_TCLASS"), [&] { pam->txTOSIs(0x20); });
    expectError(pick("IP_TTL", "IPV6_UNICAST_HOPS"), [&] { pam->txTTLIs(9); });
    expectError(pick("IP_OPTIONS", "IPV6_HOPOPTS"),
                [&] { pam->ipPktOptionIs(ipPktRouterAlert, true); });
    EXPECT_EQ(pam->txTOS(), IpDscp(0x10));
    EXPECT_EQ(pam->txTTL(), IpTtl(0));
    EXPECT_FALSE(pam->ipPktOption(ipPktRouterAlert));
    expectError("SO_RCVBUFFIRCE", [&] { pam->optionsIs(ipPriority | ipRcvBuf); });
    EXPECT_TRUE(pam->enabled());
    // A socket is closed when this option cannot be changed.
    expectError(pick("IP_TRANSPARENT", "IPV6_TRANSPARENT"),
                [&] { pam->optionsIs(ipPriority | ipTransparent); });
    EXPECT_FALSE(pam->enabled());
    EXPECT_EQ(pam->options(), ipPriority);
}

TEST_P(RawIpPamTest, ForwardedPacketsWithTheAlertReachTheRouterThatEnabledIt) {
    const Wire wire;
    const char* const forwarding = pick("net.ipv4.ip_forward=1", "net.ipv6.conf.all.forwarding=1");
    {
        const ScopedNetNs inside("right");
        PavoTest::run({"sysctl", "-qw", forwarding});
    }
    const char* const beyond = pick("198.51.100.0/24", "2001:db8:9::/64");
    const char* const router = pick("192.0.2.2", "2001:db8::2");
    PavoTest::run({"ip", "-n", "left", "route", "add", beyond, "via", router});
    PavoTest::run({"ip", "-n", "right", "route", "add", beyond, "dev", "veth-right"});
    const auto left = openIn("left", none);
    left->txDstIpAddrIs(addr(pick("198.51.100.9", "2001:db8:9::9")));
    // For IPv6 the kernel needs a protocol other than that of the packets.
    const auto right = newPam(pick(protocol, IpProtocolNumber::reserved), "right");
    right->optionsIs(ipRouterAlert);
    right->enabledIs(true);
    left->txPktIs(pktOf("plain"));
    left->ipPktOptionIs(ipPktRouterAlert, true);
    left->txPktIs(pktOf("alert"));
    EXPECT_TRUE(receive(right)->stringValue().view().ends_with("alert"));
    right->optionsIs(none);
    left->txPktIs(pktOf("forwarded"));
    left->ipPktOptionDelAll();
    EXPECT_EQ(right->rxPkt(), nullptr);
    EXPECT_EQ(errorOf([&] { left->optionsIs(ipRouterAlert); }),
              isV6() ? thrown("setsockopt(IPV6_ROUTER_ALERT)", ENOPROTOOPT) : "");
}

TEST_P(RawIpPamTest, IsNotifiedWhilePacketsWaitAndCausesNoOtherEvents) {
    const auto pam = openPam();
    (void)pam->rxPkt();
    expectNoEvents();
    pam->txPktIs(pktOf("unread"));
    EXPECT_EQ(loop_.turn(0), 1u);
    expectNoEvents();  // Nothing is read.
    EXPECT_EQ(pam->readableCount(), 2u);
    EXPECT_EQ(pam->writableCount(), 1u);

    Texts seen = {payload(receive(pam))};
    const Mox::Watch<RawIpPam> readable(pam, Pam::readableCountAttr, [&] {
        const auto pkt = pam->rxPkt();
        seen.push_back(pkt ? payload(pkt) : "nothing");
    });
    sendAll(pam, {"a", "b", "c"});
    while (loop_.turn(0) == 1) {
        seen.push_back("-");
    }
    EXPECT_EQ(seen, (Texts{"unread", "a", "-", "b", "-", "c", "-", "nothing", "-"}));
    expectNoEvents();
}

TEST_P(RawIpPamTest, NotifiesOnceWhenThereIsRoomAgain) {
    const auto pam = openPam();
    uint32_t count = pam->writableCount();
    for (const int error : {ENOBUFS, EAGAIN}) {  // With IP_HDRINCL it is EAGAIN.
        {
            const PavoTest::FailSyscall fail(1, error, "sendmsg");
            pam->txPktIs(pktOf("x"));
        }
        EXPECT_EQ(pam->txErrno(), error);
        EXPECT_EQ(pam->writableCount(), count);
        EXPECT_EQ(loop_.turn(0), 1u);
        EXPECT_EQ(pam->writableCount(), ++count);
        expectNoEvents();
    }
}

TEST_P(RawIpPamTest, MayBeDisabledOrDroppedFromInsideANotification) {
    const auto before = PavoTest::openDescriptors();
    (void)globalPktManager();  // It stays, and must not be counted as a leak.
    const uint32_t objects = Mox::liveObjects();
    enum class Act { disable, reopen, drop, fail };
    for (const Act act : {Act::disable, Act::reopen, Act::drop, Act::fail}) {
        for (const bool atEnabling : {true, false}) {
            SCOPED_TRACE(testing::Message() << static_cast<int>(act) << " " << atEnabling);
            Mox::Ptr<RawIpPam> pam = newHeaderPam();
            pam->txDstIpAddrIs(loopback());
            bool armed = atEnabling;
            Mox::Watch<RawIpPam> watch(pam, Pam::readableCountAttr, [&] {
                if (!std::exchange(armed, false)) {
                    return;
                }
                if (act == Act::fail) {
                    throw Mox::InternalException("agent");
                }
                pam->enabledIs(false);
                pam->enabledIs(act == Act::reopen);
                pam = act == Act::drop ? nullptr : pam;
            });
            const auto notify = [&] {
                pam->enabledIs(true);
                if (!atEnabling) {
                    armed = true;
                    pam->txPktIs(pktWithHeader("x", 9, loopback(), loopback()));
                    loop_.turn(1);
                }
            };
            EXPECT_EQ(errorOf(notify), act == Act::fail ? "agent" : "");
            if (pam) {
                const bool open = act == Act::reopen || (act == Act::fail && !atEnabling);
                EXPECT_EQ(pam->enabled(), open);
                EXPECT_EQ(pam->fdSm() != nullptr, open);
                EXPECT_EQ(pam->fileDesc() != nullptr, open);
            }
            loop_.turn(0);
        }
    }
    EXPECT_EQ(PavoTest::openDescriptors(), before);
    EXPECT_EQ(Mox::liveObjects(), objects);
}

TEST_P(RawIpPamTest, TheErrorQueueIsDrainedAndCounted) {
    const Wire wire;
    const auto left = openIn("left", ipRecvErr);
    left->txDstIpAddrIs(addr(pick("192.0.2.2", "2001:db8::2")));
    const Mox::Watch<RawIpPam> readable(left, Pam::readableCountAttr,
                                        [&left] { (void)left->rxPkt(); });
    sendAll(left, Texts(3, "nobody speaks this"));  // Answered "protocol unreachable".
    loop_.turn(2);
    for (int i = 0; i < 10; ++i) {
        loop_.turn(0);
    }
    EXPECT_GE(left->rxErrors(), 4u);  // Three errors, and at least one read that met them.
    EXPECT_EQ(left->rxPktCount(), 0u);
    expectNoEvents();
}

}  // namespace
}  // namespace Pavo
