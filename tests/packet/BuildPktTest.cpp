// Packets of random layers, judged by `describe` and by tshark.

#include "Pavo/BuildPkt.h"

#include <algorithm>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Pavo/CaptureFile.h"
#include "Pavo/Describe.h"
#include "Pavo/NetOrder.h"
#include "support/Errors.h"
#include "support/Seeds.h"
#include "support/Tshark.h"

namespace Pavo {
namespace {

using Random = std::mt19937;
using Texts = std::vector<std::string>;

struct Built {
    Mox::Ptr<Pkt> pkt;
    long lines;        // Of its description.
    std::string sums;  // A status of 1, which is good, for each checksum.
};

template <class... Layers>
Built built(const std::string& payload, const Layers&... layers) {
    Built all{buildPkt(layers..., payload), int{sizeof...(layers)} + !payload.empty(), "1"};
    (all.sums.append(std::is_same_v<Layers, Ip>, '1'), ...);
    EXPECT_EQ(std::string(all.pkt->stringValue()).substr((layers.hdrBytes() + ...)), payload);
    EXPECT_EQ(all.pkt->sharedBuffer()->tailRoom(), 0u);
    return all;
}

uint16_t u16(Random& random) {
    return static_cast<uint16_t>(random());
}

uint16_t port(Random& random) {  // One that tshark gives no meaning.
    return static_cast<uint16_t>(40000 + random() % 256);
}

std::span<const uint8_t> nops(Random& random) {
    static constexpr uint8_t nops[12] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    return std::span(nops).first(random() % sizeof(nops));
}

template <class Echo, class... Outer>
Built withTransport(Random& random, const Echo& echo, const Outer&... outer) {
    std::string data(random() % 4 == 0 ? random() % 1400 : random() % 9, '\0');
    // No chunk of SCTP begins so: tshark would verify the packet that is inside a PKTDROP.
    std::generate(data.begin(), data.end(),
                  [&] { return static_cast<char>(0xe0 + random() % 31); });
    const auto with = [&](const auto& last) { return built(data, outer..., last); };
    switch (random() % 4) {
        case 0:
            return with(Udp{.srcPort = port(random), .dstPort = port(random)});
        case 1:
            return with(Tcp{.srcPort = port(random),
                            .dstPort = port(random),
                            .sequenceNumber = u16(random),
                            .psh = true,
                            .window = u16(random),
                            .options = nops(random)});
        case 2:
            return with(Sctp{.srcPort = 1, .dstPort = 2, .verificationTag = u16(random)});
        default:
            return with(echo);
    }
}

template <class... Outer>
Built withIp(Random& random, const Outer&... outer) {
    const Icmp echo{.id = u16(random), .sequenceNumber = u16(random)};
    const Icmp6 echo6{.id = u16(random)};
    const Ip ip{.src = IpAddr(0x0a000000 + u16(random)),
                .dst = IpAddr(0x0a010000 + u16(random)),
                .ttl = 1 + u16(random) % 255u,
                .tos = static_cast<uint8_t>(random()),
                .id = u16(random),
                .flags = 2,
                .options = nops(random)};
    const Ip6 ip6{.src = Ip6Addr(0x20010db800000000, u16(random)),
                  .dst = Ip6Addr(0x20010db800010000, u16(random)),
                  .flowLabel = u16(random)};
    switch (random() % 5) {
        case 0:
            return withTransport(random, echo, outer..., ip);
        case 1:
            return withTransport(random, echo6, outer..., ip6);
        case 2:
            return withTransport(random, echo, outer..., ip, ip);
        case 3:
            return withTransport(random, echo6, outer..., ip, ip6);
        default:
            return withTransport(random, echo, outer..., ip6, ip);
    }
}

Built randomPkt(Random& random) {
    const Eth eth{.dst = EthAddr(0, 1, 2), .src = EthAddr(0, 3, 4)};
    const Vlan vlan{.vlanId = static_cast<uint16_t>(random() % 4096), .priority = 5};
    const Vlan service{.vlanId = 7, .dropEligible = true, .tpid = EthType::dot1Ad};
    const Mpls mpls{.label = 16 + u16(random), .cos = 3, .ttl = 9};
    switch (random() % 4) {
        case 0:
            return withIp(random, eth);
        case 1:
            return withIp(random, eth, vlan);
        case 2:
            return withIp(random, eth, service, vlan);
        default:
            return withIp(random, eth, mpls, mpls);
    }
}

TEST(BuildPkt, FillsInWhatDescribeAndTsharkExpect) {
    const PavoTest::TempFolder folder;
    const std::string path = folder.path + "/built.pcapng";
    const auto file = captureFileFactory(path, {});
    const uint32_t interface = file->newInterface("built", CaptureLinkType::ethernet);
    Texts sums;
    for (const uint32_t seed : PavoTest::Seeds(400)) {
        Random random(seed);
        const Built built = randomPkt(random);
        const std::string text(describe(built.pkt).view());
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n') + 1, built.lines) << text;
        EXPECT_THAT(
            text,
            testing::Not(testing::ContainsRegex("bad (cksum|udp)|wrong icmp|incorrect|stopped")));
        const CaptureFile::Piece piece{built.pkt->frontData(), built.pkt->frontBytes()};
        file->pktIs(interface, CaptureDirection::outbound, &piece, 1);
        sums.push_back(built.sums);
    }
    file->flush();
    const Texts fields{"ip.checksum.status",   "tcp.checksum.status",  "udp.checksum.status",
                       "sctp.checksum.status", "icmp.checksum.status", "icmpv6.checksum.status"};
    EXPECT_EQ(PavoTest::tshark(path, fields, /*isDivided=*/false), sums);
}

TEST(BuildPkt, WritesWhatTheCallerSets) {
    const auto pkt = buildPkt(
        Eth{.type = 0x1234}, Vlan{.vlanId = 7, .priority = 2, .dropEligible = true, .type = 0x2345},
        Mpls{.bos = false},
        Ip{.protocol = IpProtocolNumber::gre,
           .version = 5,
           .headerLen = 15,
           .totalLen = 7,
           .checksum = IpChecksum(0x3456)},
        Ip6{.nextHeader = IpProtocolNumber::ah, .version = 7, .payloadLen = 9},
        Tcp{.srcPort = 21,
            .dstPort = 22,
            .sequenceNumber = 23,
            .acknowledgementNumber = 24,
            .ack = true,
            .fin = true,
            .window = 25,
            .urgentPointer = 26,
            .dataOffset = 3,
            .checksum = IpChecksum(0x4567)},
        Udp{.srcPort = 31, .dstPort = 32, .len = 11, .checksum = IpChecksum()},
        Icmp{.id = 41, .sequenceNumber = 42, .checksum = IpChecksum(0x5678)},
        Icmp6{.id = 51, .sequenceNumber = 52, .checksum = IpChecksum(0x6789)},
        Sctp{
            .srcPort = 61, .dstPort = 62, .verificationTag = 63, .checksum = SctpChecksum(0x789a)});
    const std::pair<uint32_t, uint16_t> fields[] = {
        {12, 0x1234}, {14, 0x5007}, {16, 0x2345},  {20, 0x0040}, {22, 0x5f00}, {24, 7},
        {30, 0x402f}, {32, 0x3456}, {42, 0x7000},  {46, 9},      {48, 0x3340}, {82, 21},
        {84, 22},     {88, 23},     {92, 24},      {94, 0x3011}, {96, 25},     {98, 0x4567},
        {100, 26},    {102, 31},    {104, 32},     {106, 11},    {108, 0},     {112, 0x5678},
        {114, 41},    {116, 42},    {120, 0x6789}, {122, 51},    {124, 52},    {126, 61},
        {128, 62},    {132, 63},    {134, 0},      {136, 0x789a}};
    for (const auto& [offset, value] : fields) {
        EXPECT_EQ(loadNet<uint16_t>(pkt->frontData() + offset), value) << offset;
    }
}

TEST(BuildPkt, PadsOptionsWithZeros) {
    (void)buildPkt(std::string(Pkt::Manager::defaultBufferSize, '\xff'));  // Used again below.
    const uint8_t option[] = {1};
    const auto pkt = buildPkt(Ip{.options = option}, Udp());
    EXPECT_EQ(loadNet<uint32_t>(pkt->frontData() + sizeof(IpHdr)), 0x01000000u);
}

TEST(BuildPkt, SendsAUdpChecksumOfZeroAsAllOnes) {
    const auto checksum = [](const Mox::Ptr<Pkt>& pkt) { return pkt->span().subspan(26, 2); };
    const auto zeros = buildPkt(Ip(), Udp(), std::string(2, '\0'));
    const auto pkt = buildPkt(Ip(), Udp(), checksum(zeros));
    EXPECT_EQ(loadNet<uint16_t>(checksum(pkt).data()), 0xffff);
}

TEST(BuildPkt, ThrowsForValuesThatDoNotFit) {
    const std::string most(65535 - 28, 'x');
    EXPECT_EQ(buildPkt(Ip(), Udp(), most)->totalBytes(), 65535u);
    const std::vector<uint8_t> options(41, 1);
    const struct {
        std::function<void()> build;
        const char* text;
    } cases[] = {
        {[] { buildPkt(Eth(), "data"); }, "Eth::type not set, and no layer follows that has one"},
        {[] { buildPkt(Ip(), "data"); }, "Ip::protocol not set, and no layer follows that has one"},
        {[] { buildPkt(Ip6(), "data"); },
         "Ip6::nextHeader not set, and no layer follows that has one"},
        {[&] { buildPkt(Ip(), Udp(), most, "x"); }, "Ip::totalLen > 65535 not allowed"},
        {[&] { buildPkt(Ip6(), Tcp(), most, "87654321x"); }, "Ip6::payloadLen > 65535 not allowed"},
        {[&] { buildPkt(Ip{.totalLen = 0}, Udp(), most, "01234567890123456789x"); },
         "Udp::len > 65535 not allowed"},
        {[&] { buildPkt(Ip{.options = options}, Udp()); },
         "IpHdrLen::value < 0 or > 15 not allowed"},
        {[] { buildPkt(Eth(), Vlan{.vlanId = 4096}, Ip(), Udp()); },
         "Vlan::vlanId > 4095 not allowed"},
        {[] { buildPkt(Eth(), Vlan{.priority = 8}, Ip(), Udp()); },
         "Vlan::priority > 7 not allowed"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(rangeErrorOf(c.build), c.text);
    }
}

TEST(Describe, SaysWhereItStoppedAndWhy) {
    const Ip ip{.src = IpAddr(0x0a000001), .dst = IpAddr(0x0a000002)};
    const auto udp = buildPkt(ip, Udp{.srcPort = 1, .dstPort = 2}, "data");
    udp->delSharedTailData(3);
    const struct {
        Mox::Ptr<Pkt> pkt;
        const char* end;
    } cases[] = {
        {udp,
         "length 32) 10.0.0.1 > 10.0.0.2, truncated-ip - 3 bytes missing!\nUDP 1 > 2: length "
         "4\npayload, length 1"},
        {buildPkt(Ip{.protocol = IpProtocolNumber::udp}, "short "),
         "stopped at byte 20: [|udp] 6 of 8 bytes"},
        {buildPkt(ip, Udp{.len = 13}, "data"), "stopped at byte 28: UDP length 13 of 12 bytes"},
        {buildPkt(ip, Udp{.checksum = IpChecksum(1)}),
         "[bad udp cksum 0x0001 -> 0xebdb!] length 0"},
        {buildPkt(Ip{.ttl = 1, .checksum = IpChecksum(1)}, Tcp{.dataOffset = 4}),
         "bad cksum 1 (->b9d1)!) 0.0.0.0 > 0.0.0.0\nTCP 0 > 0: Flags [none]\n"
         "stopped at byte 40: bad hdr length 16 - too short, < 20"},
        {buildPkt(Ip{.headerLen = 4}, Udp()), "stopped at byte 20: bad-hlen 16"},
        {buildPkt(Ip{.totalLen = 19}, Udp()), "stopped at byte 20: bad-len 19"},
        {buildPkt(Ip{.protocol = IpProtocolNumber::tcp, .fragmentOffset = 3}, "data"),
         "stopped at byte 20: fragment of TCP (6), length 4"},
        {buildPkt(Ip{.version = 5}, Udp()), "stopped at byte 0: IP version 5, length 28"},
        {buildPkt(Ip{.protocol = IpProtocolNumber::ospf}, "data", "more"),
         "stopped at byte 20: protocol OSPF (89) is not decoded, length 8"},
    };
    for (const auto& c : cases) {
        const Mox::String text = describe(c.pkt, 0, FirstHdr::ip);
        EXPECT_TRUE(text.view().ends_with(c.end)) << text;
    }
    std::string tags;
    for (int i = 0; i < 100; ++i) {
        tags += std::string("\0\0\x81\0", 4);
    }
    const auto tagged = buildPkt(Eth{.type = 0x8100}, tags);
    EXPECT_TRUE(describe(tagged).view().ends_with("stopped at byte 266: more than 64 layers"));
    EXPECT_EQ(describe(tagged, 500), "stopped at byte 414: [|ether] 0 of 14 bytes");
}

}  // namespace
}  // namespace Pavo
