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
#include "Pavo/MplsHdr.h"
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
    const auto pkt = pktOf(echoRequest, 28);
    const auto wrapper = ipHdrWrapperFactory(pkt, 8);
    EXPECT_EQ(reinterpret_cast<uint8_t*>(wrapper->header()), pkt->frontData() + 8);
    EXPECT_EQ(wrapper->fwkType()->name, "Pavo::IpHdrWrapper");
    EXPECT_EQ(pkt->references(), 2u);
    const char* const text = "\\( offset_ \\+ sizeof\\( IpHdr \\) \\) <= pkt_->frontBytes\\(\\)";
    EXPECT_DEATH(ipHdrWrapperFactory(pkt, 9), text);
    EXPECT_DEATH(ipHdrWrapperFactory(pkt, 0xffffffff), text);  // With its size, a small number.
    uint8_t* front = pkt->newSharedHeadData(4);
    wrapper->handleHeader();  // The same offset, four bytes further to the front.
    EXPECT_EQ(reinterpret_cast<uint8_t*>(wrapper->header()), front + 8);
    expectNamesOfWrappers<EthHdrWrapper, Eth8021QHdrWrapper, MplsHdrWrapper, IpHdrWrapper,
                          IpHdrOptionCommonWrapper, IpHdrRouterAlertOptionWrapper, IcmpHdrWrapper,
                          IcmpEchoHdrWrapper, Ip6HdrWrapper, Ip6HdrOptionCommonWrapper,
                          Ip6HdrPad1Wrapper, Ip6HdrPadNWrapper, Ip6HdrRouterAlertOptionWrapper,
                          Icmp6HdrWrapper, Icmp6EchoHdrWrapper, TcpHdrWrapper, UdpHdrWrapper,
                          SctpHdrWrapper>();
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
    using enum PktErrors;
    const struct {
        PktErrors (*view)(const Mox::Ptr<Pkt>&);
        uint8_t first;
        uint32_t at;
        uint8_t length;
        uint32_t bytes;
        PktErrors error;
    } cases[] = {
        {viewError<IpHdr>, 0x45, 3, 20, 20, noError},
        {viewError<IpHdr>, 0x45, 3, 20, 19, pktTooShort},
        {viewError<IpHdr>, 0x45, 3, 21, 20, badIpPayloadLen},
        {viewError<IpHdr>, 0x44, 3, 28, 28, badIpPayloadLen},
        {viewError<IpHdr>, 0x46, 3, 24, 24, noError},
        {viewError<IpHdr>, 0x46, 3, 23, 24, badIpPayloadLen},
        {viewError<IpHdrOptionCommon>, 148, 1, 2, 2, noError},
        {viewError<IpHdrOptionCommon>, 148, 1, 1, 2, badIpPayloadLen},
        {viewError<IpHdrRouterAlertOption>, 148, 1, 4, 4, noError},
        {viewError<IpHdrRouterAlertOption>, 148, 1, 3, 4, badIpPayloadLen},
        {viewError<IpHdrRouterAlertOption>, 149, 1, 4, 4, wrongIpOption},
        {viewError<Ip6Hdr>, 0x60, 5, 1, 41, noError},
        {viewError<Ip6Hdr>, 0x60, 5, 1, 40, badIp6PayloadLen},
        {viewError<Ip6HdrOptionCommon>, 58, 1, 1, 16, noError},
        {viewError<Ip6HdrOptionCommon>, 58, 1, 1, 15, badIp6PayloadLen},
        {viewError<Ip6HdrRouterAlertOption>, 58, 2, 5, 8, wrongIp6Option},
        {viewError<Ip6HdrPadN>, 1, 1, 6, 8, noError},
        {viewError<Ip6HdrPadN>, 1, 1, 7, 8, badIp6PayloadLen},
        {viewError<TcpHdr>, 0, 12, 0x4f, 20, badIpPayloadLen},
        {viewError<TcpHdr>, 0, 12, 0x6f, 23, badIpPayloadLen},
        {viewError<TcpHdr>, 0, 12, 0x6f, 24, noError},
        {viewError<UdpHdr>, 0, 5, 8, 8, noError},
        {viewError<UdpHdr>, 0, 5, 7, 8, badIpPayloadLen},
        {viewError<UdpHdr>, 0, 5, 9, 8, badIpPayloadLen},
    };
    for (const auto& c : cases) {
        uint8_t frame[60] = {c.first};
        frame[c.at] |= c.length;
        const GuardedPkt guarded(frame, c.bytes);
        EXPECT_EQ(c.view(guarded.pkt()), c.error) << "row " << &c - cases;
    }
    const uint8_t routerAlert6[] = {58, 0, 5, 2, 0, 0, 1, 0};
    EXPECT_EQ(viewError<Ip6HdrRouterAlertOption>(pktOf(routerAlert6, 8)), noError);
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
