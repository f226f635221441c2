// The features that only the IPv6 endpoints have.
#include "Pavo/Ip6Pam.h"

#include <netinet/in.h>

#include <cerrno>

#include "Pavo/Ip6HdrInclSocketPam.h"
#include "pam/PamFixture.h"

namespace Pavo {
namespace {

const IpGenAddr loopback(ip6AddrLoopback);
const Ip6Addr rightLinkLocal(0xfe80000000000000, 2);

using Ip6PamTest = PamFixture;

TEST_F(Ip6PamTest, ChecksumsNeedTheirPlace) {
    const auto pam = ip6SocketPamFactory("sums", protocol, NamespaceName());
    pam->enabledIs(true);
    for (const int offset : {-1, 3}) {
        pam->checksumOffsetIs(offset);
        EXPECT_EQ(errorOf([&] { pam->optionsIs(ipv6Checksum); }),
                  thrown("IPV6_CHECKSUM option must be supplied with a valid offset", EINVAL));
    }
}

TEST_F(Ip6PamTest, PacketsWithTheirOwnHeadersGoThroughTheInnerEndpoint) {
    const auto before = PavoTest::openDescriptors();
    const auto pam = ip6HdrInclSocketPamFactory("test", protocol, NamespaceName());
    pam->optionsIs(ipRecvTTL | ipPriority);
    pam->priorityIs(tcPrioControl);
    // The second socket, this endpoint's own, refuses: both are closed.
    EXPECT_EQ(errorOfFailing(4, EPERM, [&] { pam->enabledIs(true); }),
              thrown("setsockopt(SO_PRIORITY)", EPERM));
    EXPECT_EQ(PavoTest::openDescriptors(), before);
    pam->enabledIs(true);

    const IpGenAddr stranger =
        addr("2001:db8::7");  // No address of this host; it is sent as it is.
    const auto pkt = pktWithHeader("mine!", 33, stranger, loopback);
    pam->txDstIpAddrIs(loopback);
    pam->txPktIs(pkt);
    EXPECT_EQ(payload(receive(pam)), "mine!");
    EXPECT_EQ(pam->rxInfo().ttl, 33);
    EXPECT_EQ(pam->rxSrcIpAddr(), stranger);
    EXPECT_EQ(pam->txPktCount(), 1u);

    pam->optionsIs(ipFreeBind);
    EXPECT_EQ(optionOf(*pam->txPam(), IPPROTO_IPV6, IPV6_FREEBIND), 1);
    // When the inner socket, which comes second here, refuses, both are closed.
    EXPECT_EQ(errorOfFailing(2, EPERM, [&] { pam->optionsIs(none); }),
              thrown("setsockopt(IPV6_FREEBIND)", EPERM));
    EXPECT_FALSE(pam->enabled() || pam->txPam()->enabled());
    EXPECT_EQ(PavoTest::openDescriptors(), before);
}

TEST_F(Ip6PamTest, AnIcmp6EndpointReportsFromTheStartAndCountsWhatIsMissing) {
    const auto pam = ip6PamFactory("ping", Ip6Pam::Mode::icmp6, NamespaceName());
    pam->enabledIs(true);
    pam->txDstIpAddrIs(loopback);
    pam->txTOSIs(0x20);
    const auto ping = [&] {
        pam->txPktIs(pktOf(std::string("\x80\0\0\0\0\1\0\2", 8)));
        EXPECT_EQ(receive(pam)->frontData()[0], 128);
        return receive(pam)->frontData()[0];
    };
    EXPECT_EQ(ping(), 129);  // The answer of the kernel.
    EXPECT_EQ(rxAttributes(*pam), textOf(loopback, loopback, {}, 1, 0x20, 64));
    EXPECT_EQ(pam->numRecvMsgErrors() + pam->numCmsgDataErrors(), 0u);
    pam->rxFlagsIs(MSG_OOB);
    EXPECT_EQ(pam->rxPkt(), nullptr);
    pam->rxFlagsIs(0);
    EXPECT_EQ(pam->numRecvMsgErrors(), 1u);
    pam->optionsIs(pam->options() | ipRecvOrigDstAddr);
    optionIs(*pam, SO_TIMESTAMP, 1);  // Takes the last one's room.
    EXPECT_EQ(ping(), 129);
    EXPECT_EQ(pam->numCmsgDataErrors(), 2u);
}

TEST(Ip6PamInATest, NeedsNoSocket) {
    const auto pam = ip6PamFactory("test", Ip6Pam::Mode::test, NamespaceName());
    Texts seen;
    const Mox::Watch<Ip6Pam> readable(pam, Pam::readableCountAttr, [&] {
        const auto pkt = pam->rxPkt();
        seen.push_back(pkt ? pkt->stringValue().c_str() : "none");
    });
    const Ip6Addr router(0xfe80000000000000, 9);
    pam->testBuffPush(Ip6Pam::TestBuff::rx, {pktOf("early"), router, ip6AddrVrrp, 3, 255, 0xc0});
    pam->enabledIs(true);
    pam->testBuffPush(Ip6Pam::TestBuff::rx, {pktOf("late"), router, ip6AddrAllNodes, 4, 1, 0});
    EXPECT_EQ(seen, (Texts{"early", "late"}));
    EXPECT_EQ(textOf(pam->rxInfo()), textOf(router, ip6AddrAllNodes, {}, 4, 0, 1));
    EXPECT_EQ(rxAttributes(*pam), textOf(pam->rxInfo()));
    EXPECT_EQ(pam->rxPkts(), 2u);

    pam->doJoinMcastGroup(4, IpGenAddr(ip6AddrVrrp));  // There is no socket to join with.
    pam->txTTLIs(255);
    pam->txIfIndexIs(4);
    const auto pkt = pktOf("sent");
    pam->txPktIs(pkt);
    EXPECT_EQ(pam->txErrno(), EDESTADDRREQ);
    pam->txDstIpAddrIs(ip6AddrVrrp);
    pam->txPktIs(pkt);
    *pkt->newSharedTailData(1) = '!';  // The record is a copy.
    const Ip6PktInfo sent = pam->testBuffPop(Ip6Pam::TestBuff::tx);
    EXPECT_EQ(sent.pkt->stringValue(), "sent");
    EXPECT_EQ(sent.dst, ip6AddrVrrp);
    EXPECT_EQ(sent.ifIndex, 4u);
    EXPECT_EQ(sent.hopLimit, 255);
    EXPECT_EQ(pam->testBuffPop(Ip6Pam::TestBuff::tx).pkt, nullptr);
}

TEST_F(Ip6PamTest, AVrrpEndpointIsAMemberOnItsInterface) {
    const Wire wire;
    const Ip6Addr other(0xff02000000000000, 0x112);
    const auto left = ip6PamVrrpFactory("left", wire.index("left"), NamespaceName("left"));
    const auto right = ip6PamVrrpFactory("right", wire.index("right"), NamespaceName("right"));
    left->enabledIs(true);
    right->enabledIs(true);
    // Sends to both groups and to the right one, which receives the packets to `member` and itself.
    const auto expectReceives = [&](const Ip6Addr& member) {
        for (const Ip6Addr& group : {ip6AddrVrrp, other, rightLinkLocal}) {
            left->txDstIpAddrIs(group);
            left->txPktIs(pktOf("advertisement"));
        }
        for (const Ip6Addr& destination : {member, rightLinkLocal}) {
            receive(right);
            EXPECT_EQ(right->rxInfo().dstIpAddr, IpGenAddr(destination));
            EXPECT_EQ(right->rxInfo().ttl, 255);
            EXPECT_EQ(right->rxInfo().ifIndex, right->ifIndex());
        }
    };
    expectReceives(ip6AddrVrrp);
    EXPECT_EQ(errorOf([&] { right->mcastGroupIs(rightLinkLocal); }),
              thrown("setsockopt(IPV6_JOIN_GROUP)", EINVAL));
    EXPECT_EQ(errorOfFailing(2, ENOBUFS, [&] { right->mcastGroupIs(other); }),
              thrown("setsockopt(IPV6_LEAVE_GROUP)", ENOBUFS));
    EXPECT_EQ(right->mcastGroup(), ip6AddrVrrp);
    expectReceives(ip6AddrVrrp);
    right->mcastGroupIs(other);
    EXPECT_EQ(right->txDstIpAddr(), IpGenAddr(other));
    expectReceives(other);
}

}  // namespace
}  // namespace Pavo
