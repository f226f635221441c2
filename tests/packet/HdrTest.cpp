#include <cstdint>
#include <cstring>
#include <sstream>
#include <utility>

#include <gtest/gtest.h>

#include "Pavo/EthHdr.h"
#include "Pavo/Icmp6Hdr.h"
#include "Pavo/IcmpHdr.h"
#include "Pavo/Ip6Hdr.h"
#include "Pavo/IpHdr.h"
#include "Pavo/SctpHdr.h"
#include "Pavo/TcpHdr.h"
#include "Pavo/UdpHdr.h"
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

TEST(IpHdr, HasEachFlagInItsBit) {
    const std::pair<void (IpHdr::*)(bool), uint8_t> flags[] = {
        {&IpHdr::reservedFragFlagIs, 0x80}, {&IpHdr::dontFragIs, 0x40}, {&IpHdr::moreFragIs, 0x20}};
    for (const auto& [flagIs, bit] : flags) {
        IpHdr ip;
        (ip.*flagIs)(true);
        EXPECT_EQ(imageOf(ip)[6], bit);
        EXPECT_EQ(ip.flags(), bit >> 5);
    }
}

TEST(IpHdr, PrintsTheFieldsOfAPacketOnOneLine) {
    const auto pkt = pktOf(echoRequest, sizeof(echoRequest));
    const IpHdr& ip = *ipHdrWrapperFactory(pkt, 0)->header();
    EXPECT_EQ(ip.version(), 4);
    EXPECT_EQ(ip.payloadLen(), 8);
    EXPECT_TRUE(ip.dontFrag());
    EXPECT_FALSE(ip.moreFrag() || ip.reservedFragFlag() || ip.hasOptions());
    std::ostringstream text;
    text << ip << " " << 16;  // The stream is left as it was.
    EXPECT_EQ(text.str(),
              " src: 10.0.0.1 dst: 10.0.0.2 proto: icmp len: 28 header len 20 id: 4660 ttl: 64"
              " checksum: 0x14ab computed checksum: 0x0000 16");

    const uint8_t cut[20] = {0x4f};  // Options that are not there are not read.
    const GuardedPkt guarded(cut, sizeof(cut));
    text << *ipHdrWrapperFactory(guarded.pkt(), 0)->header();
    EXPECT_TRUE(text.str().ends_with(" computed checksum: unknown"));
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

template <class Hdr>
PktErrors viewError(const Mox::Ptr<Pkt>& pkt) {
    return tryHdr<Hdr>(pkt, 0).error();
}

// One byte of each header holds its length; all bytes but that one and the first are zero.
TEST(HdrView, IsGivenWhenTheHeaderFitsAndElseTheFirstFault) {
    constexpr auto good = PktErrors::noError;
    constexpr auto tooShort = PktErrors::pktTooShort;
    constexpr auto badLen = PktErrors::badIpPayloadLen;
    constexpr auto badLen6 = PktErrors::badIp6PayloadLen;
    const auto ip = viewError<IpHdr>;
    const auto option = viewError<IpHdrOptionCommon>;
    const auto alert = viewError<IpHdrRouterAlertOption>;
    const auto ip6 = viewError<Ip6Hdr>;
    const auto option6 = viewError<Ip6HdrOptionCommon>;
    const auto alert6 = viewError<Ip6HdrRouterAlertOption>;
    const auto padN = viewError<Ip6HdrPadN>;
    const auto tcp = viewError<TcpHdr>;
    const auto udp = viewError<UdpHdr>;
    const struct {
        PktErrors (*view)(const Mox::Ptr<Pkt>&);
        uint8_t first;
        uint32_t at;
        uint8_t length;
        uint32_t bytes;
        PktErrors error;
    } cases[] = {
        // clang-format off
        {ip, 0x45, 3, 20, 20, good}, {ip, 0x45, 3, 20, 19, tooShort}, {ip, 0x45, 3, 21, 20, badLen},
        {ip, 0x44, 3, 28, 28, badLen}, {ip, 0x46, 3, 24, 24, good}, {ip, 0x46, 3, 23, 24, badLen},
        {ip, 0x65, 3, 20, 20, PktErrors::nonIpHdr},
        {option, 148, 1, 1, 2, badLen}, {option, 148, 1, 2, 2, good}, {option, 148, 1, 3, 2, badLen},
        {alert, 148, 1, 3, 4, badLen}, {alert, 148, 1, 4, 4, good}, {alert, 148, 1, 5, 4, badLen},
        {alert, 149, 1, 4, 4, PktErrors::wrongIpOption},
        {ip6, 0x60, 5, 0, 39, tooShort}, {ip6, 0x60, 5, 0, 40, good}, {ip6, 0x60, 5, 1, 40, badLen6},
        {ip6, 0x40, 5, 21, 60, PktErrors::nonIp6Hdr},
        {option6, 58, 1, 0, 7, badLen6}, {option6, 58, 1, 0, 8, good}, {option6, 58, 1, 1, 16, good},
        {alert6, 58, 1, 0, 7, badLen6}, {alert6, 58, 2, 5, 8, PktErrors::wrongIp6Option},
        {padN, 1, 1, 6, 8, good}, {padN, 1, 1, 7, 8, badLen6},
        {tcp, 0, 12, 0x50, 20, good}, {tcp, 0, 12, 0x40, 20, badLen},
        {tcp, 0, 12, 0x6f, 23, badLen}, {tcp, 0, 12, 0x6f, 24, good},
        {udp, 0, 5, 8, 8, good}, {udp, 0, 5, 7, 8, badLen}, {udp, 0, 5, 9, 8, badLen},
        // clang-format on
    };
    for (const auto& c : cases) {
        uint8_t frame[60] = {c.first};
        frame[c.at] |= c.length;
        const GuardedPkt guarded(frame, c.bytes);
        EXPECT_EQ(c.view(guarded.pkt()), c.error) << "row " << &c - cases;
    }
    const uint8_t routerAlert6[] = {58, 0, 5, 2, 0, 0, 1, 0};
    EXPECT_EQ(alert6(pktOf(routerAlert6, sizeof(routerAlert6))), good);
}

TEST(Eth8021QHdr, TakesTheLowBitsOfAFieldThatIsTooLarge) {
    Eth8021QHdr tag;
    tag.tciIs(0xb123);
    EXPECT_EQ(tag.priority(), 5);
    EXPECT_TRUE(tag.dropEligible());
    EXPECT_EQ(tag.vlanId(), 0x123);
    tag.vlanIdIs(0xf456);
    tag.priorityIs(0xfa);
    EXPECT_EQ(tag.tci(), 0x5456);
}

TEST(IpHdrOption, IsInWireFormat) {
    const auto pkt = pktOf("\xff\xff\xff\xff", 4);
    const auto alert = ipHdrRouterAlertOptionWrapperFactory(pkt, 0);
    EXPECT_EQ(alert->raHeader()->value(), 0xffff);
    alert->raHeaderInstantiate()->valueIs(0x0102);
    EXPECT_EQ(pkt->bytesValue(), (Mox::Bytes{148, 4, 1, 2}));
}

TEST(IcmpHdr, IsInWireFormatAndComputesItsChecksum) {
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

}  // namespace
}  // namespace Pavo
