#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

#include "Pavo/Icmp6Hdr.h"
#include "Pavo/Ip6Hdr.h"
#include "packet/GuardedPkt.h"
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
    const std::vector<uint8_t> address(16, 0xff);
    const Ip6Addr ones(~uint64_t{0}, ~uint64_t{0});
    const FieldBits<Ip6Hdr> cases[] = {
        {"version",
         [](Ip6Hdr& h) { h.versionIs(15); },
         [](Ip6Hdr& h) { h.versionIs(0); },
         0,
         {0xf0}},
        {"trafficClass",
         [](Ip6Hdr& h) { h.trafficClassIs(0xff); },
         [](Ip6Hdr& h) { h.trafficClassIs(0); },
         0,
         {0x0f, 0xf0}},
        {"flowLabel",
         [](Ip6Hdr& h) { h.flowLabelIs(0xfffff); },
         [](Ip6Hdr& h) { h.flowLabelIs(0); },
         1,
         {0x0f, 0xff, 0xff}},
        {"payloadLen",
         [](Ip6Hdr& h) { h.payloadLenIs(0xffff); },
         [](Ip6Hdr& h) { h.payloadLenIs(0); },
         4,
         {0xff, 0xff}},
        {"nextHeader",
         [](Ip6Hdr& h) { h.nextHeaderIs(0xff); },
         [](Ip6Hdr& h) { h.nextHeaderIs(0); },
         6,
         {0xff}},
        {"protocolNum",
         [](Ip6Hdr& h) { h.protocolNumIs(IpProtocolNumber::reserved); },
         [](Ip6Hdr& h) { h.protocolNumIs(IpProtocolNumber::hopopt); },
         6,
         {0xff}},
        {"hopLimit",
         [](Ip6Hdr& h) { h.hopLimitIs(0xff); },
         [](Ip6Hdr& h) { h.hopLimitIs(0); },
         7,
         {0xff}},
        {"src", [&](Ip6Hdr& h) { h.srcIs(ones); }, [](Ip6Hdr& h) { h.srcIs({}); }, 8, address},
        {"dst", [&](Ip6Hdr& h) { h.dstIs(ones); }, [](Ip6Hdr& h) { h.dstIs({}); }, 24, address},
    };
    for (const auto& c : cases) {
        expectChangesItsBitsOnly(c);
    }
    EXPECT_EQ(imageOf(Ip6Hdr()), Mox::Bytes(std::vector<uint8_t>(40).data(), 40));
}

TEST(Ip6Hdr, ShowsItsFields) {
    Ip6Hdr ip6 = ip6With(200, 11);
    EXPECT_EQ(ip6.protocolNum(), IpProtocolNumber::reserved);  // 200 is not assigned.
    ip6.nextHeaderIs(58);
    ip6.trafficClassIs(0xb8);
    ip6.flowLabelIs(0xabcde);
    ip6.hopLimitIs(64);
    EXPECT_EQ(ip6.protocolNum(), IpProtocolNumber::ipv6Icmp);
    EXPECT_EQ(ip6.trafficClass(), 0xb8);
    EXPECT_EQ(ip6.flowLabel(), 0xabcde);
    std::ostringstream text;
    text << ip6;
    EXPECT_EQ(text.str(),
              " src: fe80::1 dst: ff02::2 version: 6 trafficClass: 184 flowLabel: 703710"
              " Payload len 11 nextHeader: ipv6Icmp hopLimit: 64");
}

TEST(Ip6Hdr, IsViewedWhenItsPayloadFits) {
    for (uint32_t bytes = 0; bytes <= 60; ++bytes) {
        for (const uint32_t payloadLen : {0u, bytes - 40, bytes - 39, 0xffffu}) {
            Ip6Hdr ip6 = ip6With(58, static_cast<uint16_t>(payloadLen));
            uint8_t frame[60] = {};
            std::memcpy(frame, &ip6, sizeof(ip6));
            const GuardedPkt guarded(frame, bytes);
            EXPECT_EQ(tryIp6Hdr(guarded.pkt(), 0).error(), bytes < 40 ? PktErrors::pktTooShort
                                                           : ip6.payloadLen() > bytes - 40
                                                               ? PktErrors::badIp6PayloadLen
                                                               : PktErrors::noError)
                << bytes << " " << ip6.payloadLen();
            if (bytes >= 40) {
                guarded.pkt()->frontData()[0] = 0x45;
                EXPECT_EQ(tryIp6Hdr(guarded.pkt(), 0).error(), PktErrors::nonIp6Hdr);
            }
        }
    }
}

// The offset of what is found in the first `len` of `bytes`, in front of a page that must not be
// read, or -1.
int32_t found(const std::vector<uint8_t>& bytes, uint32_t proto, uint32_t len) {
    static const GuardedBuffer memory(128);
    const auto readable = std::min<std::size_t>(bytes.size(), len);
    char* const start = memory.data() + memory.size() - readable;
    std::memcpy(start, bytes.data(), readable);
    char untouched;
    char* out = &untouched;
    const int result = getNextProtoHdr(reinterpret_cast<Ip6Hdr*>(start), proto, &out, len);
    if (result == 0) {
        return static_cast<int32_t>(out - start);
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(out, &untouched);
    return -1;
}

TEST(NextProtoHdr, FollowsExtensionHeadersToTheOneThatIsWanted) {
    const struct {
        const char* what;
        uint8_t first;
        uint16_t payloadLen;
        std::vector<uint8_t> payload;
        uint32_t proto;
        uint32_t len;
        int32_t offset;
    } cases[] = {
        {"at once", 58, 8, {}, 58, 48, 40},
        {"at once, without payload", 58, 0, {}, 58, 40, 40},
        {"at once, in a header cut short", 58, 8, {}, 58, 39, -1},
        {"no header at all", 58, 8, {}, 58, 0, -1},
        {"another header", 17, 8, {58, 0, 0, 0, 0, 0, 0, 0}, 58, 48, -1},
        {"behind hop-by-hop options", 0, 9, {58, 0, 0, 0, 0, 0, 0, 0, 1}, 58, 49, 48},
        {"at the very end", 0, 8, {58, 0, 0, 0, 0, 0, 0, 0}, 58, 48, 48},
        {"one byte behind the end", 0, 8, {58, 0, 0, 0, 0, 0, 0, 0}, 58, 47, -1},
        {"an extension without payload", 0, 0, {58, 0, 0, 0, 0, 0, 0, 0}, 58, 48, -1},
        {"half of the two bytes", 0, 1, {58, 0}, 58, 41, -1},
        {"an extension itself", 0, 8, {43, 0, 0, 0, 0, 0, 0, 0}, 43, 48, 48},
        {"a length byte past the end", 0, 8, {58, 255, 0, 0, 0, 0, 0, 0}, 58, 48, -1},
        {"authentication on the way", 51, 8, {58, 0, 0, 0, 0, 0, 0, 0}, 58, 48, -1},
        {"a number no byte can be", 58, 8, {}, 256 + 58, 48, -1},
        {"the end of a length that wraps", 58, 0xffff, {}, 58, 0xffffffff, 40},
    };
    for (const auto& c : cases) {
        const Ip6Hdr ip6 = ip6With(c.first, c.payloadLen);
        std::vector<uint8_t> bytes(40);
        std::memcpy(bytes.data(), &ip6, sizeof(ip6));
        bytes.insert(bytes.end(), c.payload.begin(), c.payload.end());
        EXPECT_EQ(found(bytes, c.proto, c.len), c.offset) << c.what;
    }
}

// Chains of up to three headers out of five kinds and two lengths, cut off at every byte, by the
// readable length and by the payload length.
TEST(NextProtoHdr, FindsItsWayInEveryChain) {
    struct Header {
        uint8_t number;
        uint32_t offset;
    };
    const uint8_t kinds[] = {0, 43, 44, 60, 51};
    for (uint32_t chain = 0; chain < 11 * 11 * 11; ++chain) {
        std::vector<Header> headers;
        std::vector<uint8_t> bytes(40);
        uint32_t code = chain;
        for (int depth = 0; depth < 3 && code % 11 != 0; ++depth, code /= 11) {
            const uint32_t kind = code % 11 - 1;
            const auto units = static_cast<uint8_t>(kind / 5);
            headers.push_back({kinds[kind % 5], static_cast<uint32_t>(bytes.size())});
            bytes.resize(bytes.size() + units * 8 + 8);
            bytes[headers.back().offset + 1] = units;
        }
        if (code != 0) {
            continue;  // Another code stands for this chain.
        }
        headers.push_back({58, static_cast<uint32_t>(bytes.size())});
        Ip6Hdr ip6 = ip6With(headers[0].number, 0xffff);
        for (std::size_t i = 1; i < headers.size(); ++i) {
            bytes[headers[i - 1].offset] = headers[i].number;
        }
        const auto expected = [&](uint32_t proto, uint32_t limit) -> int32_t {
            for (const Header& header : headers) {
                if (header.offset > limit) {
                    return -1;
                }
                if (header.number == proto) {
                    return static_cast<int32_t>(header.offset);
                }
                if (header.number == 51) {
                    return -1;
                }
            }
            return -1;
        };
        const auto whole = static_cast<uint32_t>(bytes.size());
        for (uint32_t limit = 40; limit <= whole; ++limit) {
            for (const uint32_t proto : {58u, 44u, 51u}) {
                ip6.payloadLenIs(0xffff);
                std::memcpy(bytes.data(), &ip6, sizeof(ip6));
                ASSERT_EQ(found(bytes, proto, limit), expected(proto, limit)) << chain;
                ip6.payloadLenIs(static_cast<uint16_t>(limit - 40));
                std::memcpy(bytes.data(), &ip6, sizeof(ip6));
                ASSERT_EQ(found(bytes, proto, whole), expected(proto, limit)) << chain;
            }
        }
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
    EXPECT_EQ(tryIp6HdrOptionCommon(pkt, 0)->nextHdrNum(), 58);

    padding->paddingIs(1);
    *ip6HdrPad1WrapperFactory(pkt, 0)->header() = Ip6HdrPad1();
    EXPECT_EQ(pkt->bytesValue(), (Mox::Bytes{0, 0, 5, 2, 0, 0, 1, 1, 0}));
    EXPECT_DEATH(padding->paddingIs(2),
                 "sizeof\\( Ip6HdrPadN \\) \\+ zeros \\) <= pkt_->frontBytes");
}

TEST(Ip6HdrOption, IsViewedWhenItsLengthFits) {
    const struct {
        const char* what;
        std::vector<uint8_t> bytes;
        PktErrors header, alert, padding;
    } cases[] = {
        {"one byte", {1}, PktErrors::pktTooShort, PktErrors::pktTooShort, PktErrors::pktTooShort},
        {"two bytes",
         {1, 0},
         PktErrors::badIp6PayloadLen,
         PktErrors::pktTooShort,
         PktErrors::noError},
        {"one byte short of eight",
         {0, 0, 5, 2, 0, 0, 1},
         PktErrors::badIp6PayloadLen,
         PktErrors::badIp6PayloadLen,
         PktErrors::noError},
        {"eight bytes",
         {0, 0, 5, 2, 0, 0, 1, 0},
         PktErrors::noError,
         PktErrors::noError,
         PktErrors::noError},
        {"a length up to the end",
         {0, 6, 5, 2, 0, 0, 1, 0},
         PktErrors::badIp6PayloadLen,
         PktErrors::badIp6PayloadLen,
         PktErrors::noError},
        {"a length past the end",
         {0, 7, 5, 2, 0, 0, 1, 0},
         PktErrors::badIp6PayloadLen,
         PktErrors::badIp6PayloadLen,
         PktErrors::badIp6PayloadLen},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const GuardedPkt guarded(c.bytes.data(), static_cast<uint32_t>(c.bytes.size()));
        EXPECT_EQ(tryIp6HdrOptionCommon(guarded.pkt(), 0).error(), c.header);
        EXPECT_EQ(tryIp6HdrRouterAlertOption(guarded.pkt(), 0).error(), c.alert);
        EXPECT_EQ(tryIp6HdrPadN(guarded.pkt(), 0).error(), c.padding);
    }
    EXPECT_EQ(Ip6HdrOptionTypeInstance(0xc2), Ip6HdrOptionTypeInstance("jumboPayload"));
    EXPECT_EQ(rangeErrorOf([] { (void)Ip6HdrOptionTypeInstance(2); }), "Invalid Ip6HdrOptionType");
}

TEST(Icmp6Hdr, LiesAsItIsSentAndKnowsItsChecksum) {
    // Summed outside of this library.
    const Mox::Bytes sent{0x80, 0x00, 0xbc, 0xc7, 0x01, 0x02, 0x00, 0x07, 'a', 'b', 'c'};
    const auto pkt = globalPktManager()->newPkt();
    std::memcpy(pkt->newSharedTailData(11) + 8, "abc", 3);
    const auto echo = icmp6EchoHdrWrapperFactory(pkt, 0);
    *echo->header() = Icmp6EchoHdr();
    echo->typeIs(Icmp6Type::echoRequest);
    echo->header()->idIs(0x0102);
    echo->header()->sequenceNumberIs(7);
    echo->checksumIs(echo->computedChecksum(src, dst, 11));
    EXPECT_EQ(pkt->bytesValue(), sent);
    EXPECT_EQ(echo->computedChecksum(src, dst, 11), IpChecksum());
    EXPECT_NE(echo->computedChecksum(src, dst, 10), IpChecksum());
    EXPECT_NE(echo->computedChecksum(dst, dst, 11), IpChecksum());
    EXPECT_DEATH((void)echo->computedChecksum(src, dst, 12),
                 "\\( offset_ \\+ bytes \\) <= pkt_->frontBytes");
    EXPECT_EQ(tryIcmp6Hdr(pkt, 8).error(), PktErrors::pktTooShort);
    EXPECT_EQ(tryIcmp6EchoHdr(pkt, 3).error(), PktErrors::noError);
    EXPECT_EQ(rangeErrorOf([] { (void)Icmp6TypeInstance(5); }), "Invalid Icmp6Type");
    EXPECT_EQ(Icmp6TypeInstance(135), Icmp6TypeInstance("neighborSolicitation"));
}

}  // namespace
}  // namespace Pavo
