#include <cstdint>
#include <functional>
#include <utility>

#include <gtest/gtest.h>

#include "Pavo/NetOrder.h"
#include "Pavo/SctpHdr.h"
#include "Pavo/TcpHdr.h"
#include "Pavo/UdpHdr.h"
#include "packet/GuardedPkt.h"
#include "packet/HdrLaws.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

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
    EXPECT_EQ(rangeErrorOf([] { TcpHdr().dataOffsetIs(16); }),
              "TcpDataOffset::value < 0 or > 15 not allowed");
}

TEST(TransportHdr, IsInWireFormat) {
    TcpHdr tcp;
    tcp.srcPortIs(12345);
    tcp.dstPortIs(179);
    tcp.sequenceNumberIs(0x01020304);
    tcp.acknowledgementNumberIs(0xf0e0d0c0);
    tcp.dataOffsetIs(5);
    tcp.ackIs(true);
    tcp.pshIs(true);
    tcp.windowIs(0xfaf0);
    tcp.urgentPointerIs(0x0a0b);
    EXPECT_EQ(imageOf(tcp), Mox::Bytes(tcpSegment, 20));
    UdpHdr udp;
    udp.srcPortIs(12345);
    udp.dstPortIs(53);
    udp.udpLenIs(15);
    EXPECT_EQ(imageOf(udp), Mox::Bytes(udpDatagram, 8));
    SctpHdr sctp;
    sctp.srcPortIs(12345);
    sctp.dstPortIs(2904);
    sctp.verificationTagIs(0x01020304);
    EXPECT_EQ(imageOf(sctp), (Mox::Bytes{0x30, 0x39, 0x0b, 0x58, 1, 2, 3, 4, 0, 0, 0, 0}));
}

// The data ends at a page that must not be read.
TEST(TransportHdr, SumsPseudoHeaderHeaderAndDataOfOddLength) {
    const GuardedPkt segment(tcpSegment, sizeof(tcpSegment));
    const GuardedPkt datagram(udpDatagram, sizeof(udpDatagram));
    const auto tcp = tcpHdrWrapperFactory(segment.pkt(), 0);
    const auto tcp6 = tcpHdrWrapperIpv6Factory(segment.pkt(), 0);
    const auto udp = udpHdrWrapperFactory(datagram.pkt(), 0);
    const auto udp6 = udpHdrWrapperIpv6Factory(datagram.pkt(), 0);
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

    uint8_t* const inTcp = segment.pkt()->frontData() + 16;
    uint8_t* const inUdp = datagram.pkt()->frontData() + 6;
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
    const GuardedPkt init(sctpInit, sizeof(sctpInit));
    const auto sctp = sctpHdrWrapperFactory(init.pkt(), 0);
    const uint8_t sent[4] = {0x71, 0x78, 0xfd, 0x04};  // The CRC is 0x04fd7871.
    EXPECT_EQ(imageOf(sctp->computedChecksum(sizeof(sctpInit))), imageOf(sent));
    sctp->header()->checksumIs(SctpChecksum(0x7178fd04));
    EXPECT_EQ(imageOf(sctp->computedChecksum(sizeof(sctpInit))), imageOf(sent));
    EXPECT_DEATH((void)sctp->computedChecksum(33), "\\( offset_ \\+ bytes \\) <= pkt_->frontBytes");
    EXPECT_DEATH((void)sctp->computedChecksum(11), "bytes >= sizeof\\( SctpHdr \\)");
}

TEST(TransportHdr, KeepsTheValueLaws) {
    expectValueLaws<TcpPseudoHdr>({{}, {src, dst, 9}, {src, dst, 20}, {dst, src, 9}});
    expectValueLaws<TcpPseudoHdrIpv6>({{}, {src6, dst6, 9}, {src6, dst6, 20}, {dst6, src6, 9}});
    expectValueLaws<UdpPseudoHdr>({{}, {src, dst, 9}});
    expectValueLaws<UdpPseudoHdrIpv6>({{}, {src6, dst6, 9}});
    EXPECT_EQ(TcpPseudoHdr(src, dst, 20).stringValue(),
              "Value('Pavo::TcpPseudoHdr', ** {'src': 192.0.2.1, 'dst': 198.51.100.7, 'zero': 0, "
              "'protocol': 6, 'tcpLen': Value('Pavo::TcpLen', ** {'v0': 0, 'v1': 20})})");
}

}  // namespace
}  // namespace Pavo
