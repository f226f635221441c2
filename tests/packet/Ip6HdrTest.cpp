#include <cstdint>
#include <sstream>

#include <gtest/gtest.h>

#include "Pavo/Icmp6Hdr.h"
#include "Pavo/Ip6Hdr.h"
#include "packet/HdrLaws.h"
#include "support/Errors.h"

namespace Pavo {
namespace {

const Ip6Addr src(0xfe80000000000000, 1);
const Ip6Addr dst(0xff02000000000000, 2);

TEST(Ip6Hdr, PrintsItsFieldsOnOneLine) {
    Ip6Hdr ip6;
    ip6.versionIs(6);
    ip6.srcIs(src);
    ip6.dstIs(dst);
    ip6.payloadLenIs(11);
    ip6.nextHeaderIs(200);
    EXPECT_EQ(ip6.protocolNum(), IpProtocolNumber::reserved);  // 200 is not assigned.
    ip6.protocolNumIs(IpProtocolNumber::ipv6Icmp);
    ip6.trafficClassIs(0xb8);
    ip6.flowLabelIs(0xabcde);
    ip6.hopLimitIs(64);
    EXPECT_EQ(Mox::Bytes(&ip6, 4), (Mox::Bytes{0x6b, 0x8a, 0xbc, 0xde}));
    std::ostringstream text;
    text << ip6;
    EXPECT_EQ(text.str(),
              " src: fe80::1 dst: ff02::2 version: 6 trafficClass: 184 flowLabel: 703710"
              " Payload len 11 nextHeader: ipv6Icmp hopLimit: 64");
}

TEST(Ip6HdrOption, MakesAHopByHopHeader) {
    const auto pkt = pktOf("\xff\xff\xff\xff\xff\xff\xff\xff\xff", 9);
    const auto alert = ip6HdrRouterAlertOptionWrapperFactory(pkt, 0);
    EXPECT_EQ(alert->raHeader()->value(), 0xffff);
    EXPECT_EQ(alert->raHeaderInstantiate(), alert->header());
    alert->header()->nextHdrNumIs(58);
    const auto padding = ip6HdrPadNWrapperFactory(pkt, 6);
    padding->paddingIs(0);
    EXPECT_EQ(pkt->bytesValue(), (Mox::Bytes{58, 0, 5, 2, 0, 0, 1, 0, 0xff}));
    padding->paddingIs(1);
    *ip6HdrPad1WrapperFactory(pkt, 0)->header() = Ip6HdrPad1();
    EXPECT_EQ(pkt->bytesValue(), (Mox::Bytes{0, 0, 5, 2, 0, 0, 1, 1, 0}));
    EXPECT_DEATH(padding->paddingIs(2),
                 "sizeof\\( Ip6HdrPadN \\) \\+ zeros \\) <= pkt_->frontBytes");
}

TEST(Icmp6Hdr, IsInWireFormatAndComputesItsChecksum) {
    // The checksum was computed by another program.
    const Mox::Bytes sent{0x80, 0x00, 0xbc, 0xc7, 0x01, 0x02, 0x00, 0x07, 'a', 'b', 'c'};
    const auto pkt = pktOf("\0\0\0\0\0\0\0\0abc", 11);
    const auto echo = icmp6EchoHdrWrapperFactory(pkt, 0);
    echo->typeIs(Icmp6Type::echoRequest);
    echo->header()->idIs(0x0102);
    echo->header()->sequenceNumberIs(7);
    echo->checksumIs(echo->computedChecksum(src, dst, 11));
    EXPECT_EQ(pkt->bytesValue(), sent);
    EXPECT_EQ(echo->computedChecksum(src, dst, 11), IpChecksum());
    EXPECT_DEATH((void)echo->computedChecksum(src, dst, 12),
                 "\\( offset_ \\+ bytes \\) <= pkt_->frontBytes");
    EXPECT_EQ(rangeErrorOf([] { (void)Icmp6TypeInstance(5); }), "Invalid Icmp6Type");
    EXPECT_EQ(Icmp6TypeInstance(135), Icmp6TypeInstance("neighborSolicitation"));
}

}  // namespace
}  // namespace Pavo
