#include <cstdint>
#include <cstring>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Pavo/EthHdr.h"
#include "Pavo/Icmp6Hdr.h"
#include "Pavo/IcmpHdr.h"
#include "Pavo/Ip6Hdr.h"
#include "Pavo/IpHdr.h"
#include "packet/GuardedPkt.h"
#include "packet/HdrLaws.h"
#include "support/Errors.h"

namespace Pavo {
namespace {

// An IPv4 header with its checksum, and 8 bytes of ICMP: an echo request with its checksum.
constexpr uint8_t echoRequest[28] = {0x45, 0x00, 0x00, 0x1c, 0x12, 0x34, 0x40, 0x00, 0x40, 0x01,
                                     0x14, 0xab, 0x0a, 0x00, 0x00, 0x01, 0x0a, 0x00, 0x00, 0x02,
                                     0x08, 0x00, 0xf6, 0xf5, 0x00, 0x01, 0x01, 0x09};

TEST(HdrWrapperDeath, BindsAtTheLastGoodOffsetAndDiesAtTheNext) {
    expectBindsToTheLastByte<EthHdrWrapper, EthHdr>(ethHdrWrapperFactory);
    expectBindsToTheLastByte<IpHdrWrapper, IpHdr>(ipHdrWrapperFactory);
    expectBindsToTheLastByte<IcmpHdrWrapper, IcmpHdr>(icmpHdrWrapperFactory);
    expectBindsToTheLastByte<IcmpEchoHdrWrapper, IcmpEchoHdr>(icmpEchoHdrWrapperFactory);
    expectBindsToTheLastByte<Eth8021QHdrWrapper, Eth8021QHdr>(eth8021QHdrWrapperFactory);
    expectBindsToTheLastByte<IpHdrOptionCommonWrapper, IpHdrOptionCommon>(
        ipHdrOptionCommonWrapperFactory);
    expectBindsToTheLastByte<IpHdrRouterAlertOptionWrapper, IpHdrRouterAlertOption>(
        ipHdrRouterAlertOptionWrapperFactory);
    expectBindsToTheLastByte<Ip6HdrWrapper, Ip6Hdr>(ip6HdrWrapperFactory);
    expectBindsToTheLastByte<Ip6HdrOptionCommonWrapper, Ip6HdrOptionCommon>(
        ip6HdrOptionCommonWrapperFactory);
    expectBindsToTheLastByte<Ip6HdrPad1Wrapper, Ip6HdrPad1>(ip6HdrPad1WrapperFactory);
    expectBindsToTheLastByte<Ip6HdrPadNWrapper, Ip6HdrPadN>(ip6HdrPadNWrapperFactory);
    expectBindsToTheLastByte<Ip6HdrRouterAlertOptionWrapper, Ip6HdrRouterAlertOption>(
        ip6HdrRouterAlertOptionWrapperFactory);
    expectBindsToTheLastByte<Icmp6HdrWrapper, Icmp6Hdr>(icmp6HdrWrapperFactory);
    expectBindsToTheLastByte<Icmp6EchoHdrWrapper, Icmp6EchoHdr>(icmp6EchoHdrWrapperFactory);
}

TEST(HdrWrapper, HoldsItsPacket) {
    auto pkt = pktOf(echoRequest, sizeof(echoRequest));
    const auto wrapper = ipHdrWrapperFactory(pkt, 0);
    pkt = nullptr;
    EXPECT_EQ(wrapper->header()->id(), 0x1234);
}

TEST(IpHdr, ChangesTheBitsOfOneFieldOnly) {
    const FieldBits<IpHdr> cases[] = {
        {"version", [](IpHdr& h) { h.versionIs(15); }, [](IpHdr& h) { h.versionIs(0); }, 0, {0xf0}},
        {"headerLen",
         [](IpHdr& h) { h.headerLenIs(15); },
         [](IpHdr& h) { h.headerLenIs(0); },
         0,
         {0x0f}},
        {"headerBytes",
         [](IpHdr& h) { h.headerBytesIs(60); },
         [](IpHdr& h) { h.headerBytesIs(0); },
         0,
         {0x0f}},
        {"tos", [](IpHdr& h) { h.tosIs(0xff); }, [](IpHdr& h) { h.tosIs(0); }, 1, {0xff}},
        {"totalLen",
         [](IpHdr& h) { h.totalLenIs(0xffff); },
         [](IpHdr& h) { h.totalLenIs(0); },
         2,
         {0xff, 0xff}},
        {"id", [](IpHdr& h) { h.idIs(0xffff); }, [](IpHdr& h) { h.idIs(0); }, 4, {0xff, 0xff}},
        {"flags", [](IpHdr& h) { h.flagsIs(7); }, [](IpHdr& h) { h.flagsIs(0); }, 6, {0xe0}},
        {"reservedFragFlag",
         [](IpHdr& h) { h.reservedFragFlagIs(true); },
         [](IpHdr& h) { h.reservedFragFlagIs(false); },
         6,
         {0x80}},
        {"dontFrag",
         [](IpHdr& h) { h.dontFragIs(true); },
         [](IpHdr& h) { h.dontFragIs(false); },
         6,
         {0x40}},
        {"moreFrag",
         [](IpHdr& h) { h.moreFragIs(true); },
         [](IpHdr& h) { h.moreFragIs(false); },
         6,
         {0x20}},
        {"fragmentOffset",
         [](IpHdr& h) { h.fragmentOffsetIs(0x1fff); },
         [](IpHdr& h) { h.fragmentOffsetIs(0); },
         6,
         {0x1f, 0xff}},
        {"ttl", [](IpHdr& h) { h.ttlIs(255); }, [](IpHdr& h) { h.ttlIs(0); }, 8, {0xff}},
        {"protocol",
         [](IpHdr& h) { h.protocolIs(255); },
         [](IpHdr& h) { h.protocolIs(0); },
         9,
         {0xff}},
        {"protocolNum",
         [](IpHdr& h) { h.protocolNumIs(IpProtocolNumber::reserved); },
         [](IpHdr& h) { h.protocolNumIs(IpProtocolNumber::hopopt); },
         9,
         {0xff}},
        {"checksum",
         [](IpHdr& h) { h.checksumIs(IpChecksum(0xffff)); },
         [](IpHdr& h) { h.checksumIs({}); },
         10,
         {0xff, 0xff}},
        {"src",
         [](IpHdr& h) { h.srcIs(IpAddr(0xffffffff)); },
         [](IpHdr& h) { h.srcIs({}); },
         12,
         {0xff, 0xff, 0xff, 0xff}},
        {"dst",
         [](IpHdr& h) { h.dstIs(IpAddr(0xffffffff)); },
         [](IpHdr& h) { h.dstIs({}); },
         16,
         {0xff, 0xff, 0xff, 0xff}},
    };
    for (const auto& c : cases) {
        expectChangesItsBitsOnly(c);
    }
}

TEST(IpHdr, ReadsTheFieldsOfAPacket) {
    const auto pkt = pktOf(echoRequest, sizeof(echoRequest));
    const IpHdr& ip = *ipHdrWrapperFactory(pkt, 0)->header();
    EXPECT_EQ(ip.version(), 4);
    EXPECT_EQ(ip.headerBytes(), 20);
    EXPECT_EQ(ip.payloadLen(), 8);
    EXPECT_EQ(ip.flags(), 2);
    EXPECT_TRUE(ip.dontFrag());
    EXPECT_FALSE(ip.moreFrag() || ip.reservedFragFlag() || ip.hasOptions());
    EXPECT_EQ(ip.ttl(), 64);
    EXPECT_EQ(ip.protocolNum(), IpProtocolNumber::icmp);
    std::ostringstream text;
    text << ip << " " << 16;  // The stream is left as it was.
    EXPECT_EQ(text.str(),
              " src: 10.0.0.1 dst: 10.0.0.2 proto: icmp len: 28 header len 20 id: 4660 ttl: 64"
              " checksum: 0x14ab computed checksum: 0x0000 16");
}

TEST(IpHdr, RefusesLengthsThatAreNoWholeWords) {
    IpHdr ip;
    ip.headerBytesIs(24);
    EXPECT_TRUE(ip.hasOptions());
    EXPECT_EQ(rangeErrorOf([&] { ip.headerBytesIs(64); }),
              "IpHdrLen::value < 0 or > 15 not allowed");
    EXPECT_EQ(rangeErrorOf([&] { ip.fragmentOffsetIs(0x2000); }),
              "IpFragmentOffset::value < 0 or > 8191 not allowed");
    EXPECT_EQ(ip.headerBytes(), 24);
    EXPECT_DEATH(ip.headerBytesIs(22), "\\(b % 4\\) == 0");
}

TEST(IpHdr, ReadsAProtocolThatIsNotAssignedAs255) {
    IpHdr ip;
    for (uint32_t byte = 0; byte < 256; ++byte) {
        ip.protocolIs(static_cast<uint8_t>(byte));
        const bool assigned = byte <= 146 || byte >= 253;
        EXPECT_EQ(static_cast<uint32_t>(ip.protocolNum()), assigned ? byte : 255) << byte;
    }
}

TEST(IpHdr, SumsToZeroOnceItsChecksumIsFilledIn) {
    std::mt19937 random(791);
    for (uint16_t words = 5; words <= 15; ++words) {
        uint8_t frame[60];
        for (auto& byte : frame) {
            byte = static_cast<uint8_t>(random());
        }
        GuardedPkt guarded(frame, words * 4u);
        IpHdr* ip = ipHdrWrapperFactory(guarded.pkt(), 0)->header();
        ip->headerLenIs(words);
        ip->checksumIs({});
        ip->checksumIs(ip->computedChecksum());
        EXPECT_EQ(ip->computedChecksum(), IpChecksum(0));
        guarded.pkt()->frontData()[words * 4 - 1] ^= 1;
        EXPECT_NE(ip->computedChecksum(), IpChecksum(0));
    }
}

TEST(HdrView, TellsWhatIsWrongWithAnIpHeaderWithoutTouchingMore) {
    uint8_t frame[64] = {};
    for (uint32_t bytes = 0; bytes <= 60; ++bytes) {
        for (uint8_t words = 0; words < 16; ++words) {
            for (const uint32_t totalLen : {bytes, bytes + 1, words * 4u, words * 4u - 1}) {
                IpHdr ip;
                ip.versionIs(4);
                ip.headerLenIs(words);
                ip.totalLenIs(static_cast<uint16_t>(totalLen));
                std::memcpy(frame, &ip, sizeof(ip));
                const GuardedPkt guarded(frame, bytes);
                const auto view = tryIpHdr(guarded.pkt(), 0);
                const uint16_t held = ip.totalLen();
                const bool fits = words >= 5 && words * 4 <= held && held <= bytes;
                const PktErrors expected = bytes < 20 ? PktErrors::pktTooShort
                                           : fits     ? PktErrors::noError
                                                      : PktErrors::badIpPayloadLen;
                ASSERT_EQ(view.error(), expected) << bytes << " " << int{words} << " " << held;
                ASSERT_EQ(bool(view), fits && bytes >= 20);
                if (view) {  // All that the lengths promise may be read.
                    (void)view->computedChecksum();
                    (void)ipChecksumCalc(view.ptr(), view->totalLen(), 0);
                }
            }
        }
    }
}

TEST(HdrView, ActsAsACheckedPointer) {
    const auto pkt = pktOf(echoRequest, sizeof(echoRequest));
    const auto ip = tryIpHdr(pkt, 0);
    ASSERT_TRUE(ip);
    const auto icmp = ip ? tryIcmpHdr(pkt, ip->headerBytes()) : nullptr;
    ASSERT_TRUE(icmp);
    EXPECT_EQ(icmp->type(), IcmpType::echoRequest);

    pkt->frontData()[0] = 0x65;
    const auto six = tryIpHdr(pkt, 0);
    EXPECT_FALSE(six);
    EXPECT_EQ(six.error(), PktErrors::nonIpHdr);
    const auto none = six ? tryIcmpHdr(pkt, 0) : nullptr;
    EXPECT_FALSE(none);
    EXPECT_NE(none.error(), PktErrors::noError);

    const struct {
        PktErrors found, expected;
        const char* what;
    } ends[] = {
        {tryEthHdr(pkt, 14).error(), PktErrors::noError, "Ethernet, last"},
        {tryEthHdr(pkt, 15).error(), PktErrors::pktTooShort, "Ethernet, past"},
        {tryIcmpHdr(pkt, 24).error(), PktErrors::noError, "ICMP, last"},
        {tryIcmpHdr(pkt, 25).error(), PktErrors::pktTooShort, "ICMP, past"},
        {tryIcmpEchoHdr(pkt, 20).error(), PktErrors::noError, "echo, last"},
        {tryIcmpEchoHdr(pkt, 21).error(), PktErrors::pktTooShort, "echo, past"},
        {tryIcmpHdr(pkt, 0xfffffffe).error(), PktErrors::pktTooShort, "offset and size wrap"},
        {tryIcmpHdr(Mox::make<Pkt>(), 0).error(), PktErrors::pktTooShort, "no data"},
    };
    for (const auto& c : ends) {
        EXPECT_EQ(c.found, c.expected) << c.what;
    }
}

TEST(EthHdr, LiesAsItIsSent) {
    EthHdr eth;
    eth.dstIs(EthAddr(0x0102, 0x0304, 0x0506));
    eth.srcIs(EthAddr(0x1112, 0x1314, 0x1516));
    eth.typeIs(EthType::ip6);
    EXPECT_EQ(imageOf(eth),
              (Mox::Bytes{1, 2, 3, 4, 5, 6, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x86, 0xdd}));
}

TEST(Eth8021QHdr, ChangesTheBitsOfOneFieldOnly) {
    const FieldBits<Eth8021QHdr> cases[] = {
        {"tci",
         [](Eth8021QHdr& h) { h.tciIs(0xffff); },
         [](Eth8021QHdr& h) { h.tciIs(0); },
         0,
         {0xff, 0xff}},
        {"vlanId, of which the low 12 bits count",
         [](Eth8021QHdr& h) { h.vlanIdIs(0xffff); },
         [](Eth8021QHdr& h) { h.vlanIdIs(0xf000); },
         0,
         {0x0f, 0xff}},
        {"priority, of which the low 3 bits count",
         [](Eth8021QHdr& h) { h.priorityIs(0xff); },
         [](Eth8021QHdr& h) { h.priorityIs(0xf8); },
         0,
         {0xe0}},
        {"dropEligible",
         [](Eth8021QHdr& h) { h.dropEligibleIs(true); },
         [](Eth8021QHdr& h) { h.dropEligibleIs(false); },
         0,
         {0x10}},
        {"type",
         [](Eth8021QHdr& h) { h.typeIs(0xffff); },
         [](Eth8021QHdr& h) { h.typeIs(0); },
         2,
         {0xff, 0xff}},
    };
    for (const auto& c : cases) {
        expectChangesItsBitsOnly(c);
    }
    Eth8021QHdr tag;
    tag.tciIs(0xb123);
    EXPECT_EQ(tag.priority(), 5);
    EXPECT_TRUE(tag.dropEligible());
    EXPECT_EQ(tag.vlanId(), 0x123);
}

TEST(EthHdr, FindsTheIpHeaderByTypesAlone) {
    const struct {
        const char* what;
        std::vector<uint16_t> types;  // Each but the last begins a tag.
        uint32_t offset;
        uint32_t fromTag;  // From the record behind the first type on.
    } cases[] = {
        {"IPv4", {0x0800}, 14, 0},
        {"IPv6", {0x86dd}, 14, 0},
        {"ARP", {0x0806}, 0, 0},
        {"LLC frame", {0x05ff}, 0, 0},
        {"LLC frame of length 0", {0}, 0, 0},
        {"one tag", {0x8100, 0x0800}, 18, 4},
        {"two tags", {0x8100, 0x8100, 0x86dd}, 22, 8},
        {"five tags", {0x8100, 0x8100, 0x8100, 0x8100, 0x8100, 0x0800}, 34, 20},
        {"service tag outside", {0x88a8, 0x0800}, 0, 4},
        {"service tag inside", {0x8100, 0x88a8, 0x0800}, 0, 0},
        {"LLC frame behind a tag", {0x8100, 0x0100}, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<uint8_t> frame(12, 0x81);
        for (const uint16_t type : c.types) {
            frame.resize(frame.size() + (frame.size() == 12 ? 0 : 2), 0x81);
            frame.insert(frame.end(),
                         {static_cast<uint8_t>(type >> 8), static_cast<uint8_t>(type)});
        }
        const auto whole = static_cast<uint32_t>(frame.size());
        for (uint32_t bytes = 0; bytes <= whole; ++bytes) {  // Right up to a page not to be read.
            const GuardedPkt guarded(frame.data(), bytes);
            const auto& pkt = guarded.pkt();
            const auto* eth = reinterpret_cast<const EthHdr*>(pkt->frontData());
            const uint32_t expected = bytes < whole ? 0 : c.offset;
            EXPECT_EQ(ipHdrOffset(eth, bytes), expected) << bytes;
            if (bytes >= 14) {
                EXPECT_EQ(ethHdrWrapperFactory(pkt, 0)->ipHdrOffset(), expected) << bytes;
            }
            if (bytes >= 18) {
                EXPECT_EQ(eth8021QHdrWrapperFactory(pkt, 14)->ipHdrOffset(),
                          bytes < whole ? 0 : c.fromTag)
                    << bytes;
            }
        }
    }
    // From the wrapper's own offset, also once the packet has become shorter than that.
    const auto pkt = pktOf(std::string(24, '\x08').c_str(), 24);
    std::memcpy(pkt->frontData() + 22, "\x86\xdd", 2);
    const auto wrapper = ethHdrWrapperFactory(pkt, 10);
    EXPECT_EQ(wrapper->ipHdrOffset(), 14u);
    pkt->delSharedTailData(1);
    EXPECT_EQ(wrapper->ipHdrOffset(), 0u);
    pkt->delSharedTailData(23);
    EXPECT_EQ(wrapper->ipHdrOffset(), 0u);
}

TEST(IpHdrOption, LiesAsItIsSent) {
    uint8_t bytes[4] = {0xff, 0xff, 0xff, 0xff};
    const auto pkt = pktOf(bytes, sizeof(bytes));
    const auto alert = ipHdrRouterAlertOptionWrapperFactory(pkt, 0);
    EXPECT_EQ(alert->raHeader()->value(), 0xffff);
    alert->raHeaderInstantiate()->valueIs(0x0102);
    EXPECT_EQ(pkt->bytesValue(), (Mox::Bytes{148, 4, 1, 2}));
    const IpHdrOptionCommon* common = alert->header();
    EXPECT_EQ(common->type(), 148);
    ipHdrOptionCommonWrapperFactory(pkt, 2)->header()->typeIs(1);
    EXPECT_EQ(pkt->bytesValue(), (Mox::Bytes{148, 4, 1, 2}));
}

TEST(IpHdrOption, IsViewedWhenItsLengthFits) {
    for (uint32_t bytes = 0; bytes <= 6; ++bytes) {
        for (uint8_t length = 0; length <= 8; ++length) {
            const uint8_t option[6] = {148, length, 0, 0, 0, 0};
            const GuardedPkt guarded(option, bytes);
            const auto expected = [&](uint32_t least) {
                return bytes < least                        ? PktErrors::pktTooShort
                       : length >= least && length <= bytes ? PktErrors::noError
                                                            : PktErrors::badIpPayloadLen;
            };
            EXPECT_EQ(tryIpHdrOptionCommon(guarded.pkt(), 0).error(), expected(2));
            EXPECT_EQ(tryIpHdrRouterAlertOption(guarded.pkt(), 0).error(), expected(4));
        }
    }
}

TEST(IcmpHdr, LiesAsItIsSentAndKnowsItsChecksum) {
    const auto pkt = globalPktManager()->newPkt();
    pkt->newSharedTailData(8);
    const auto echo = icmpEchoHdrWrapperFactory(pkt, 0);
    *echo->header() = IcmpEchoHdr();
    echo->typeIs(IcmpType::echoRequest);
    echo->header()->idIs(1);
    echo->header()->sequenceNumberIs(0x0109);
    echo->checksumIs(echo->computedChecksum(8));
    EXPECT_EQ(pkt->bytesValue(), Mox::Bytes(echoRequest + 20, 8));
    EXPECT_EQ(echo->computedChecksum(8), IpChecksum(0));
    echo->codeIs(0xfe);
    EXPECT_EQ(pkt->bytesValue()[1], 0xfe);

    EXPECT_DEATH((void)echo->computedChecksum(9), "\\( offset_ \\+ bytes \\) <= pkt_->frontBytes");
    EXPECT_DEATH((void)icmpHdrWrapperFactory(pkt, 4)->computedChecksum(5),
                 "\\( offset_ \\+ bytes \\) <= pkt_->frontBytes");
}

TEST(IcmpHdr, ReadsATypeWithoutANameAsItsNumber) {
    IcmpHdr icmp;
    icmp.typeIs(static_cast<IcmpType>(200));
    EXPECT_EQ(stringValue(icmp.type()), "200");
    EXPECT_EQ(IcmpTypeInstance("echoReply"), IcmpType::echoReply);
    EXPECT_EQ(rangeErrorOf([] { (void)IcmpTypeInstance(200); }), "Invalid IcmpType");
}

TEST(PktErrors, HasOneNameForEachNumber) {
    std::set<PktErrors> seen;
    for (const auto& member : Mox::enumTable<PktErrors>.members) {
        EXPECT_TRUE(seen.insert(member.value).second) << member.name;
    }
    const struct {
        const char* name;
        int32_t number;
    } fixed[] = {{"noError", 0},
                 {"pktTooShort", -1},
                 {"wrongEthType", -2},
                 {"badIpHdrChecksum", -50},
                 {"badIpPayloadLen", -51},
                 {"nonIpHdr", -52},
                 {"nonIp6Hdr", -101},
                 {"badIp6PayloadLen", -102},
                 {"nextHdrIsNotIcmp6", -200},
                 {"badIcmp6Checksum", -201}};
    for (const auto& c : fixed) {
        EXPECT_EQ(PktErrorsInstance(c.name), PktErrorsInstance(static_cast<uint32_t>(c.number)));
        EXPECT_EQ(stringValue(PktErrorsInstance(static_cast<uint32_t>(c.number))), c.name);
    }
    EXPECT_EQ(rangeErrorOf([] { (void)PktErrorsInstance(1); }), "Invalid PktErrors");
}

}  // namespace
}  // namespace Pavo
