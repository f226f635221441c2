#include <cstdint>
#include <cstring>
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
    expectBindsToTheLastByte(ethHdrWrapperFactory);
    expectBindsToTheLastByte(eth8021QHdrWrapperFactory);
    expectBindsToTheLastByte(ipHdrWrapperFactory);
    expectBindsToTheLastByte(ipHdrOptionCommonWrapperFactory);
    expectBindsToTheLastByte(ipHdrRouterAlertOptionWrapperFactory);
    expectBindsToTheLastByte(icmpHdrWrapperFactory);
    expectBindsToTheLastByte(icmpEchoHdrWrapperFactory);
    expectBindsToTheLastByte(ip6HdrWrapperFactory);
    expectBindsToTheLastByte(ip6HdrOptionCommonWrapperFactory);
    expectBindsToTheLastByte(ip6HdrPad1WrapperFactory);
    expectBindsToTheLastByte(ip6HdrPadNWrapperFactory);
    expectBindsToTheLastByte(ip6HdrRouterAlertOptionWrapperFactory);
    expectBindsToTheLastByte(icmp6HdrWrapperFactory);
    expectBindsToTheLastByte(icmp6EchoHdrWrapperFactory);
}

TEST(IpHdr, ChangesTheBitsOfOneFieldOnly) {
    expectChangesItsBitsOnly<IpHdr>({
        {"version", [](IpHdr& h, bool on) { h.versionIs(on ? 15 : 0); }, 0, {0xf0}},
        {"headerLen", [](IpHdr& h, bool on) { h.headerLenIs(on ? 15 : 0); }, 0, {0x0f}},
        {"headerBytes", [](IpHdr& h, bool on) { h.headerBytesIs(on ? 60 : 0); }, 0, {0x0f}},
        {"tos", [](IpHdr& h, bool on) { h.tosIs(on ? 255 : 0); }, 1, {0xff}},
        {"totalLen", [](IpHdr& h, bool on) { h.totalLenIs(on ? 0xffff : 0); }, 2, {0xff, 0xff}},
        {"id", [](IpHdr& h, bool on) { h.idIs(on ? 0xffff : 0); }, 4, {0xff, 0xff}},
        {"flags", [](IpHdr& h, bool on) { h.flagsIs(on ? 7 : 0); }, 6, {0xe0}},
        {"reserved", [](IpHdr& h, bool on) { h.reservedFragFlagIs(on); }, 6, {0x80}},
        {"dontFrag", [](IpHdr& h, bool on) { h.dontFragIs(on); }, 6, {0x40}},
        {"moreFrag", [](IpHdr& h, bool on) { h.moreFragIs(on); }, 6, {0x20}},
        {"offset", [](IpHdr& h, bool on) { h.fragmentOffsetIs(on ? 8191 : 0); }, 6, {0x1f, 0xff}},
        {"ttl", [](IpHdr& h, bool on) { h.ttlIs(on ? 255 : 0); }, 8, {0xff}},
        {"protocol", [](IpHdr& h, bool on) { h.protocolIs(on ? 255 : 0); }, 9, {0xff}},
        {"checksum",
         [](IpHdr& h, bool on) { h.checksumIs(IpChecksum(on ? 0xffff : 0)); },
         10,
         {0xff, 0xff}},
        {"src",
         [](IpHdr& h, bool on) { h.srcIs(IpAddr(on ? ~0u : 0)); },
         12,
         {0xff, 0xff, 0xff, 0xff}},
        {"dst",
         [](IpHdr& h, bool on) { h.dstIs(IpAddr(on ? ~0u : 0)); },
         16,
         {0xff, 0xff, 0xff, 0xff}},
    });
}

TEST(IpHdr, PrintsTheFieldsOfAPacketOnOneLine) {
    const auto pkt = pktOf(echoRequest, sizeof(echoRequest));
    const IpHdr& ip = *ipHdrWrapperFactory(pkt, 0)->header();
    EXPECT_EQ(ip.payloadLen(), 8);
    EXPECT_EQ(ip.flags(), 2);
    EXPECT_TRUE(ip.dontFrag());
    EXPECT_FALSE(ip.moreFrag() || ip.reservedFragFlag() || ip.hasOptions());
    std::ostringstream text;
    text << ip << " " << 16;  // The stream is left as it was.
    EXPECT_EQ(text.str(),
              " src: 10.0.0.1 dst: 10.0.0.2 proto: icmp len: 28 header len 20 id: 4660 ttl: 64"
              " checksum: 0x14ab computed checksum: 0x0000 16");
}

TEST(IpHdr, RefusesWhatItsFieldsCannotHold) {
    IpHdr ip;
    ip.headerBytesIs(24);
    EXPECT_TRUE(ip.hasOptions());
    EXPECT_EQ(rangeErrorOf([&] { ip.headerBytesIs(64); }),
              "IpHdrLen::value < 0 or > 15 not allowed");
    EXPECT_EQ(rangeErrorOf([&] { ip.fragmentOffsetIs(0x2000); }),
              "IpFragmentOffset::value < 0 or > 8191 not allowed");
    EXPECT_EQ(ip.headerBytes(), 24);
    ip.protocolIs(200);
    EXPECT_EQ(ip.protocolNum(), IpProtocolNumber::reserved);  // It is not assigned.
    EXPECT_DEATH(ip.headerBytesIs(22), "\\(b % 4\\) == 0");
}

TEST(HdrView, TellsWhatIsWrongWithAnIpHeader) {
    const struct {
        uint8_t first;  // Version and header length.
        uint8_t totalLen;
        uint32_t bytes;
        PktErrors error;
    } cases[] = {
        {0x45, 20, 20, PktErrors::noError},         {0x45, 20, 19, PktErrors::pktTooShort},
        {0x45, 21, 20, PktErrors::badIpPayloadLen}, {0x45, 19, 20, PktErrors::badIpPayloadLen},
        {0x44, 28, 28, PktErrors::badIpPayloadLen}, {0x46, 24, 24, PktErrors::noError},
        {0x46, 23, 24, PktErrors::badIpPayloadLen}, {0x46, 24, 23, PktErrors::badIpPayloadLen},
        {0x65, 20, 20, PktErrors::nonIpHdr},
    };
    for (const auto& c : cases) {
        const uint8_t frame[28] = {c.first, 0, 0, c.totalLen};
        const GuardedPkt guarded(frame, c.bytes);
        EXPECT_EQ(tryIpHdr(guarded.pkt(), 0).error(), c.error)
            << &c - cases << ": " << stringValue(c.error);
    }
}

TEST(HdrView, ActsAsACheckedPointer) {
    const auto pkt = pktOf(echoRequest, sizeof(echoRequest));
    const auto ip = tryIpHdr(pkt, 0);
    ASSERT_TRUE(ip);
    const auto icmp = ip ? tryIcmpHdr(pkt, ip->headerBytes()) : nullptr;
    EXPECT_EQ(icmp->type(), IcmpType::echoRequest);
    const auto six = tryIp6Hdr(pkt, 0);
    const auto none = six ? tryIcmpHdr(pkt, 0) : nullptr;
    EXPECT_FALSE(none);
    EXPECT_NE(none.error(), PktErrors::noError);

    EXPECT_EQ(tryIcmpHdr(pkt, 24).error(), PktErrors::noError);
    EXPECT_EQ(tryIcmpHdr(pkt, 25).error(), PktErrors::pktTooShort);
    EXPECT_EQ(tryIcmpHdr(pkt, 0xfffffffe).error(), PktErrors::pktTooShort);  // The sum wraps.
    EXPECT_EQ(tryIcmpHdr(Mox::make<Pkt>(), 0).error(), PktErrors::pktTooShort);
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
    using Tag = Eth8021QHdr;
    expectChangesItsBitsOnly<Tag>({
        {"tci", [](Tag& h, bool on) { h.tciIs(on ? 0xffff : 0); }, 0, {0xff, 0xff}},
        {"low 12 bits", [](Tag& h, bool on) { h.vlanIdIs(on ? 0xffff : 0xf000); }, 0, {0x0f, 0xff}},
        {"low 3 bits", [](Tag& h, bool on) { h.priorityIs(on ? 0xff : 0xf8); }, 0, {0xe0}},
        {"dropEligible", [](Tag& h, bool on) { h.dropEligibleIs(on); }, 0, {0x10}},
        {"type", [](Tag& h, bool on) { h.typeIs(on ? 0xffff : 0); }, 2, {0xff, 0xff}},
    });
    Tag tag;
    tag.tciIs(0xb123);
    EXPECT_EQ(tag.priority(), 5);
    EXPECT_TRUE(tag.dropEligible());
    EXPECT_EQ(tag.vlanId(), 0x123);
}

TEST(EthHdr, FindsTheIpHeaderFromTheWrappersOwnOffsetInWhatIsLeftOfThePacket) {
    const GuardedPkt guarded(std::vector<uint8_t>(24, 0x08).data(), 24);
    const auto& pkt = guarded.pkt();
    std::memcpy(pkt->frontData() + 22, "\x86\xdd", 2);
    const auto wrapper = ethHdrWrapperFactory(pkt, 10);
    EXPECT_EQ(wrapper->ipHdrOffset(), 14u);
    pkt->delSharedTailData(1);
    EXPECT_EQ(wrapper->ipHdrOffset(), 0u);
    pkt->delSharedTailData(23);
    EXPECT_EQ(wrapper->ipHdrOffset(), 0u);
}

TEST(IpHdrOption, LiesAsItIsSentAndIsViewedWhenItsLengthFits) {
    const auto pkt = pktOf("\xff\xff\xff\xff", 4);
    const auto alert = ipHdrRouterAlertOptionWrapperFactory(pkt, 0);
    EXPECT_EQ(alert->raHeader()->value(), 0xffff);
    alert->raHeaderInstantiate()->valueIs(0x0102);
    EXPECT_EQ(pkt->bytesValue(), (Mox::Bytes{148, 4, 1, 2}));

    for (uint32_t bytes = 0; bytes <= 6; ++bytes) {
        for (uint8_t length = 0; length <= 8; ++length) {
            const uint8_t option[6] = {148, length};
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
    const auto pkt = pktOf("\0\0\0\0\0\0\0\0", 8);
    const auto echo = icmpEchoHdrWrapperFactory(pkt, 0);
    echo->typeIs(IcmpType::echoRequest);
    echo->header()->idIs(1);
    echo->header()->sequenceNumberIs(0x0109);
    echo->checksumIs(echo->computedChecksum(8));
    EXPECT_EQ(pkt->bytesValue(), Mox::Bytes(echoRequest + 20, 8));
    EXPECT_EQ(echo->computedChecksum(8), IpChecksum(0));
    echo->codeIs(0xfe);
    EXPECT_EQ(pkt->bytesValue()[1], 0xfe);

    const char* const tooShort = "\\( offset_ \\+ bytes \\) <= pkt_->frontBytes";
    EXPECT_DEATH((void)echo->computedChecksum(9), tooShort);
    EXPECT_DEATH((void)icmpHdrWrapperFactory(pkt, 4)->computedChecksum(5), tooShort);
    EXPECT_EQ(stringValue(static_cast<IcmpType>(200)), "200");
    EXPECT_EQ(rangeErrorOf([] { (void)IcmpTypeInstance(200); }), "Invalid IcmpType");
}

TEST(PktErrors, HasItsNumbers) {
    const struct {
        const char* name;
        int32_t number;
    } cases[] = {{"noError", 0},
                 {"pktTooShort", -1},
                 {"wrongEthType", -2},
                 {"badIpHdrChecksum", -50},
                 {"badIpPayloadLen", -51},
                 {"nonIpHdr", -52},
                 {"nonIp6Hdr", -101},
                 {"badIp6PayloadLen", -102},
                 {"nextHdrIsNotIcmp6", -200},
                 {"badIcmp6Checksum", -201}};
    for (const auto& c : cases) {
        EXPECT_EQ(static_cast<int32_t>(PktErrorsInstance(c.name)), c.number);
        EXPECT_EQ(stringValue(PktErrorsInstance(static_cast<uint32_t>(c.number))), c.name);
    }
    EXPECT_EQ(rangeErrorOf([] { (void)PktErrorsInstance(1); }), "Invalid PktErrors");
}

}  // namespace
}  // namespace Pavo
