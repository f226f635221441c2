#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

#include "Pavo/Icmp6Hdr.h"
#include "Pavo/Ip6Hdr.h"
#include "packet/HdrLaws.h"
#include "support/Errors.h"
#include "support/GuardedText.h"

namespace Pavo {
namespace {

const Ip6Addr src(0xfe80000000000000, 1);
const Ip6Addr dst(0xff02000000000000, 2);

Ip6Hdr ip6With(uint8_t nextHeader, uint16_t payloadLen) {
    Ip6Hdr ip6;
    ip6.versionIs(6);
    ip6.nextHeaderIs(nextHeader);
    ip6.payloadLenIs(payloadLen);
    ip6.srcIs(src);
    ip6.dstIs(dst);
    return ip6;
}

TEST(Ip6Hdr, ChangesTheBitsOfOneFieldOnly) {
    using Ip6 = Ip6Hdr;
    expectChangesItsBitsOnly<Ip6>({
        {"version", [](Ip6& h, bool on) { h.versionIs(on ? 15 : 0); }, 0, {0xf0}},
        {"class", [](Ip6& h, bool on) { h.trafficClassIs(on ? 0xff : 0); }, 0, {0x0f, 0xf0}},
        {"flow", [](Ip6& h, bool on) { h.flowLabelIs(on ? 0xfffff : 0); }, 1, {0x0f, 0xff, 0xff}},
    });
}

TEST(Ip6Hdr, PrintsItsFieldsOnOneLine) {
    Ip6Hdr ip6 = ip6With(200, 11);
    EXPECT_EQ(ip6.protocolNum(), IpProtocolNumber::reserved);  // 200 is not assigned.
    ip6.protocolNumIs(IpProtocolNumber::ipv6Icmp);
    ip6.trafficClassIs(0xb8);
    ip6.flowLabelIs(0xabcde);
    ip6.hopLimitIs(64);
    std::ostringstream text;
    text << ip6;
    EXPECT_EQ(text.str(),
              " src: fe80::1 dst: ff02::2 version: 6 trafficClass: 184 flowLabel: 703710"
              " Payload len 11 nextHeader: ipv6Icmp hopLimit: 64");
}

// The bytes end at a page that must not be read.
TEST(NextProtoHdr, FollowsExtensionHeadersToTheRequestedOne) {
    const struct {
        const char* what;
        uint8_t first;
        uint16_t payloadLen;
        std::vector<uint8_t> payload;
        uint32_t proto;
        uint32_t len;
        int32_t offset;  // -1 where there is none.
    } cases[] = {
        {"at once", 58, 0, {}, 58, 40, 40},
        {"in a header cut short", 58, 8, {}, 58, 39, -1},
        {"no header at all", 58, 8, {}, 58, 0, -1},
        {"another header", 17, 8, {58, 0, 0, 0, 0, 0, 0, 0}, 58, 48, -1},
        {"after hop-by-hop options", 0, 9, {58, 0, 0, 0, 0, 0, 0, 0, 1}, 58, 49, 48},
        {"after two", 43, 16, {60, 0, 0, 0, 0, 0, 0, 0, 58, 0, 0, 0, 0, 0, 0, 0}, 58, 56, 56},
        {"after a long one", 44, 16, {58, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 58, 56, 56},
        {"at the very end", 0, 8, {58, 0, 0, 0, 0, 0, 0, 0}, 58, 48, 48},
        {"one byte after the end", 0, 8, {58, 0, 0, 0, 0, 0, 0, 0}, 58, 47, -1},
        {"one byte after the payload", 0, 7, {58, 0, 0, 0, 0, 0, 0, 0}, 58, 48, -1},
        {"half of the two bytes", 0, 1, {58}, 58, 41, -1},
        {"an extension itself", 0, 8, {43, 0, 0, 0, 0, 0, 0, 0}, 43, 48, 48},
        {"a length byte past the end", 0, 8, {58, 255, 0, 0, 0, 0, 0, 0}, 58, 48, -1},
        {"an authentication header before it", 51, 8, {58, 0, 0, 0, 0, 0, 0, 0}, 58, 48, -1},
        {"a number above 255", 58, 8, {}, 256 + 58, 40, -1},
    };
    for (const auto& c : cases) {
        const auto readable = static_cast<uint32_t>(40 + c.payload.size());
        const GuardedBuffer memory(std::min(readable, c.len));
        const Ip6Hdr ip6 = ip6With(c.first, c.payloadLen);
        std::memcpy(memory.data(), &ip6, std::min(c.len, 40u));
        std::copy_n(c.payload.begin(), memory.size() - std::min(c.len, 40u), memory.data() + 40);
        char* out = memory.data() - 1;  // Unchanged where there is none.
        EXPECT_EQ(getNextProtoHdr(reinterpret_cast<Ip6Hdr*>(memory.data()), c.proto, &out, c.len),
                  c.offset < 0 ? -1 : 0)
            << c.what;
        EXPECT_EQ(out - memory.data(), c.offset) << c.what;
    }
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
