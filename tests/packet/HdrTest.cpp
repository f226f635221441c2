// Headers as they lie in packets.

#include <cstdint>
#include <functional>
#include <sstream>
#include <utility>

#include <gtest/gtest.h>

#include "Mox/Hash.h"

#include "Pavo/EthHdr.h"
#include "Pavo/Icmp6Hdr.h"
#include "Pavo/IcmpHdr.h"
#include "Pavo/Ip6Hdr.h"
#include "Pavo/IpHdr.h"
#include "Pavo/MplsHdr.h"
#include "Pavo/NetOrder.h"
#include "Pavo/SctpHdr.h"
#include "Pavo/TcpHdr.h"
#include "Pavo/UdpHdr.h"
#include "fuzz/Frames.h"
#include "support/Errors.h"

namespace Pavo {
namespace {

// A packet with these bytes in one iovec, at the end of memory of their own.
Mox::Ptr<Pkt> pktOf(const void* bytes, uint32_t length) {
    return fuzz::pktOf({static_cast<const char*>(bytes), length}, /*privateBytes=*/0);
}

template <class Record>
Mox::Bytes imageOf(const Record& record) {
    return Mox::Bytes(&record, sizeof(record));
}

TEST(NetU, LiesInMemoryLogAndHashAsItIsSent) {
    const NetU64 value(0x0102030405060708);
    const Mox::Bytes image{1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(imageOf(value), image);
    EXPECT_EQ(valueToStrep(value),
              "Value('Pavo::NetU64', ** {'v0': 1, 'v1': 2, 'v2': 3, 'v3': 4, 'v4': 5, "
              "'v5': 6, 'v6': 7, 'v7': 8})");
    Mox::NboAttrLog::Out log;
    log << TcpPort(0x0102) << value;
    EXPECT_EQ(log.bytes, (Mox::Bytes{1, 2, 1, 2, 3, 4, 5, 6, 7, 8}));
    Mox::Hash hash(7);
    for (const uint8_t byte : image) {
        hash.mix(byte);
    }
    EXPECT_EQ(value.hash(7), hash.result());
    EXPECT_LT(NetU64(0xff), NetU64(0x100));  // By value.
}

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
    text << *ipHdrWrapperFactory(pktOf(cut, sizeof(cut)), 0)->header();
    EXPECT_TRUE(text.str().ends_with(" computed checksum: unknown"));
}

TEST(Hdr, RefusesWhatItsFieldsCannotHold) {
    IpHdr ip;
    ip.headerBytesIs(24);
    EXPECT_TRUE(ip.hasOptions());
    EXPECT_EQ(rangeErrorOf([&] { ip.headerBytesIs(64); }),
              "IpHdrLen::value < 0 or > 15 not allowed");
    EXPECT_EQ(rangeErrorOf([&] { ip.fragmentOffsetIs(0x2000); }),
              "IpFragmentOffset::value < 0 or > 8191 not allowed");
    EXPECT_EQ(rangeErrorOf([] { TcpHdr().dataOffsetIs(16); }),
              "TcpDataOffset::value < 0 or > 15 not allowed");
    EXPECT_EQ(ip.headerBytes(), 24);
    ip.moreFragIs(true);
    EXPECT_EQ(imageOf(ip)[6], 0x20);
    ip.protocolIs(200);
    EXPECT_EQ(ip.protocolNum(), IpProtocolNumber::reserved);  // It is not assigned.
    EXPECT_DEATH(ip.headerBytesIs(22), "\\(b % 4\\) == 0");
}

const Ip6Addr nodeLocal(0xfe80000000000000, 1), group(0xff02000000000000, 2);

TEST(Ip6Hdr, PrintsItsFieldsOnOneLine) {
    Ip6Hdr ip6;
    ip6.versionIs(6);
    ip6.srcIs(nodeLocal);
    ip6.dstIs(group);
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
        {viewError<IpHdr>, 0x45, 3, 21, 20, badIpPayloadLen},
        {viewError<IpHdr>, 0x44, 3, 28, 28, badIpPayloadLen},
        {viewError<IpHdr>, 0x46, 3, 24, 24, noError},
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
        {viewError<TcpHdr>, 0, 12, 0x6f, 24, noError},
        {viewError<UdpHdr>, 0, 5, 8, 8, noError},
        {viewError<UdpHdr>, 0, 5, 7, 8, badIpPayloadLen},
    };
    for (const auto& c : cases) {
        uint8_t frame[60] = {c.first};
        frame[c.at] |= c.length;
        EXPECT_EQ(c.view(pktOf(frame, c.bytes)), c.error) << "row " << &c - cases;
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

TEST(MplsHdr, ReadsAndWritesWhatLiesInThePacket) {
    const uint8_t wire[] = {0x12, 0x34, 0x5a, 0x40};
    const auto pkt = pktOf(wire, sizeof(wire));
    const auto mpls = mplsHdrWrapperFactory(pkt, 0);
    EXPECT_EQ(mpls->label(), MplsLabel(0x12345));
    EXPECT_EQ(mpls->cos(), 5);
    EXPECT_EQ(rangeErrorOf([&] { mpls->labelIs(0x100000); }),
              "MplsHdrWrapper::label < MplsHdrWrapper::min or > MplsHdrWrapper::null not allowed");
    EXPECT_EQ(rangeErrorOf([&] { mpls->cosIs(8); }), "MplsHdrWrapper::cos > 7 not allowed");
    EXPECT_EQ(pkt->bytesValue(), imageOf(wire));
    mpls->bosIs(true);
    mpls->ttlIs(255);
    EXPECT_EQ(pkt->bytesValue(), (Mox::Bytes{0x12, 0x34, 0x5b, 0xff}));
}

TEST(IpHdrOption, IsInWireFormat) {
    const auto pkt = pktOf("\xff\xff\xff\xff", 4);
    const auto alert = ipHdrRouterAlertOptionWrapperFactory(pkt, 0);
    EXPECT_EQ(alert->raHeader()->value(), 0xffff);
    alert->raHeaderInstantiate()->valueIs(0x0102);
    EXPECT_EQ(pkt->bytesValue(), (Mox::Bytes{148, 4, 1, 2}));
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

    EXPECT_DEATH((void)echo->computedChecksum(9), "\\( offset_ \\+ bytes \\) <= pkt_->frontBytes");
}

// Headers with checksum field zero, followed by data. The checksums were computed in Python, the
// sums as one number modulo 65535 and the CRC bit by bit. tshark accepts packets with them, except
// the one over IPv6 that covers only 12 bytes of the pseudo header.
constexpr uint8_t tcpSegment[27] = {0x30, 0x39, 0x00, 0xb3, 0x01, 0x02, 0x03, 0x04, 0xf0,
                                    0xe0, 0xd0, 0xc0, 0x50, 0x18, 0xfa, 0xf0, 0,    0,
                                    0x0a, 0x0b, 'o',  'd',  'd',  ' ',  'l',  'e',  'n'};
constexpr uint8_t udpDatagram[15] = {0x30, 0x39, 0x00, 0x35, 0x00, 0x0f, 0,  0,
                                     'o',  'd',  'd',  ' ',  'l',  'e',  'n'};
constexpr uint8_t sctpInit[32] = {0x30, 0x39, 0x0b, 0x58, 0,    0,    0,    0,    0,    0,    0,
                                  0,    0x01, 0x00, 0x00, 0x14, 0x12, 0x34, 0x56, 0x78, 0x00, 0x01,
                                  0xa0, 0x00, 0x00, 0x0a, 0x00, 0x0a, 0x9a, 0xbc, 0xde, 0xf0};

const IpAddr src(0xc0000201), dst(0xc6336407);
const Ip6Addr src6(0x20010db800000000, 1), dst6(0x20010db800070000, 2);

TEST(TcpHdr, HasEachFlagInItsBit) {
    const std::pair<void (TcpHdr::*)(bool), uint16_t> flags[] = {
        {&TcpHdr::nsIs, 0x100}, {&TcpHdr::cwrIs, 0x80}, {&TcpHdr::eceIs, 0x40},
        {&TcpHdr::urgIs, 0x20}, {&TcpHdr::ackIs, 0x10}, {&TcpHdr::pshIs, 0x08},
        {&TcpHdr::rstIs, 0x04}, {&TcpHdr::synIs, 0x02}, {&TcpHdr::finIs, 0x01}};
    for (const auto& [flagIs, bit] : flags) {
        TcpHdr tcp;
        (tcp.*flagIs)(true);
        EXPECT_EQ(loadNet<uint16_t>(imageOf(tcp).begin() + 12), bit);
    }
}

TEST(TransportHdr, SumsPseudoHeaderHeaderAndDataOfOddLength) {
    const auto segment = pktOf(tcpSegment, sizeof(tcpSegment));
    const auto datagram = pktOf(udpDatagram, sizeof(udpDatagram));
    const auto tcp = tcpHdrWrapperFactory(segment, 0);
    const auto tcp6 = tcpHdrWrapperIpv6Factory(segment, 0);
    const auto udp = udpHdrWrapperFactory(datagram, 0);
    const auto udp6 = udpHdrWrapperIpv6Factory(datagram, 0);
    const auto addresses = [](const auto& wrapper, const auto& from, const auto& to) {
        wrapper->srcIs(from);
        wrapper->dstIs(to);
    };
    addresses(tcp, src, dst);
    addresses(tcp6, src6, dst6);
    addresses(udp, src, dst);
    addresses(udp6, src6, dst6);
    tcp->tcpLenIs(sizeof(tcpSegment));
    tcp6->tcpLenIs(sizeof(tcpSegment));
    const TcpPseudoHdrIpv6 longTcp(src6, dst6, 0x10000 + sizeof(tcpSegment));
    const UdpPseudoHdrIpv6 longUdp(src6, dst6, 0x10000 + sizeof(udpDatagram));

    uint8_t* const inTcp = segment->frontData() + 16;
    uint8_t* const inUdp = datagram->frontData() + 6;
    const struct {
        const char* what;
        std::function<uint16_t()> computed;
        uint8_t* field;
        uint16_t checksum;
        uint16_t whenRight;
    } cases[] = {
        {"TCP", [&] { return tcp->computedChecksum(); }, inTcp, 0x1a0f, 0},
        {"TCP, 12 of 40", [&] { return tcp6->computedChecksum(); }, inTcp, 0xd8b3, 0},
        {"TCP, 40", [&] { return tcp6->computedChecksumRfc8200(); }, inTcp, 0xaacf, 0},
        {"TCP, low 16 bits of the length",
         [&] { return tcp6->header()->computedChecksumRfc8200U16(longTcp); }, inTcp, 0xaace, 0},
        {"UDP", [&] { return udp->computedChecksum(); }, inUdp, 0x353b, 0xffff},
        {"UDP, 40", [&] { return udp6->computedChecksum(); }, inUdp, 0xc5fb, 0xffff},
        {"UDP, low 16 bits of the length are read",
         [&] { return udp6->header()->computedChecksumIpv6U16(longUdp); }, inUdp, 0xc5fa, 0xffff},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.computed(), c.checksum);
        storeNet<uint16_t>(c.field, c.checksum);
        EXPECT_EQ(c.computed(), c.whenRight);
        storeNet<uint16_t>(c.field, 0);
    }
}

TEST(SctpHdr, ComputesItsChecksumWhateverTheFieldHolds) {
    const auto init = pktOf(sctpInit, sizeof(sctpInit));
    const auto sctp = sctpHdrWrapperFactory(init, 0);
    const uint8_t sent[4] = {0x71, 0x78, 0xfd, 0x04};  // The CRC is 0x04fd7871.
    EXPECT_EQ(imageOf(sctp->computedChecksum(sizeof(sctpInit))), imageOf(sent));
    sctp->header()->checksumIs(SctpChecksum(0x7178fd04));
    EXPECT_EQ(imageOf(sctp->computedChecksum(sizeof(sctpInit))), imageOf(sent));
    EXPECT_DEATH((void)sctp->computedChecksum(11), "bytes >= sizeof\\( SctpHdr \\)");
}

}  // namespace
}  // namespace Pavo
