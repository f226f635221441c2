// Frames of control protocols and tunnels, judged by scapy and tshark, and hostile ones, judged by
// plain checks of their bytes.

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Pavo/BuildPkt.h"
#include "Pavo/CaptureFile.h"
#include "Pavo/Describe.h"
#include "Pavo/Literals.h"
#include "fuzz/HdrChecks.h"
#include "support/Errors.h"
#include "support/Seeds.h"
#include "support/Tshark.h"

namespace Pavo {
namespace {

using namespace Pavo::literals;

struct Frame {
    std::string name;
    Mox::Ptr<Pkt> pkt;
    std::string text;  // A part of its description.
    std::string sums;  // For each checksum what tshark finds: 1 is right, 0 wrong.
};

const auto mac = "00:00:5e:00:53:01"_mac, mac2 = "00:00:5e:00:53:02"_mac;
const auto a = "192.0.2.1"_ip, b = "192.0.2.2"_ip;
const auto linkLocal = "fe80::1"_ip6, linkLocal2 = "fe80::2"_ip6;
const IpAddr both[] = {a, b};
const Eth eth{.dst = mac2, .src = mac};
const auto inner = [](const auto&... outer) {
    return buildPkt(outer..., Eth{.dst = mac, .src = mac2}, Ip{.src = b, .dst = a},
                    Udp{.srcPort = 1024, .dstPort = 40000}, "data");
};

Ip ip(const IpAddr& dst, uint8_t ttl, uint8_t tos = 0) {
    return {.src = a, .dst = dst, .ttl = ttl, .tos = tos};
}
Ip6 ip6(const Ip6Addr& dst) {
    return {.src = linkLocal, .dst = dst, .hopLimit = 255};
}

std::vector<Frame> frames() {
    const auto vrrpGroup = "224.0.0.18"_ip, group = "239.1.2.3"_ip;
    const IgmpRecord records[] = {{.type = IgmpRecordType::toExclude, .group = group},
                                  {.type = 1, .group = "232.1.2.3"_ip, .sources = both}};
    const std::string hello("\0\1\0\2\0\x69", 6);
    std::string bytes(59, '\0');
    std::generate(bytes.begin(), bytes.end(), [n = char{0}]() mutable { return n++; });
    return {
        {"arp.request", buildPkt(eth, Arp{.senderMac = mac, .senderIp = a, .targetIp = b}),
         "ARP, Request who-has 192.0.2.2 tell 192.0.2.1, length 28", ""},
        {"vrrp2",
         buildPkt(eth, ip(vrrpGroup, 255),
                  Vrrp{.version = 2, .vrid = 7, .priority = 200, .interval = 3, .addresses = both}),
         "VRRPv2, Advertisement, vrid 7, prio 200, authtype none, intvl 3s, length 24, addrs: "
         "192.0.2.1,192.0.2.2",
         "11"},
        {"vrrp3",
         buildPkt(eth, ip(vrrpGroup, 255),
                  Vrrp{.vrid = 7, .priority = 200, .interval = 300, .addresses = both}),
         "VRRPv3, Advertisement, vrid 7, prio 200, intvl 300cs, length 16, addrs: ", "11"},
        {"vrrp6",
         buildPkt(eth, ip6(ip6AddrVrrp),
                  Vrrp{.vrid = 7,
                       .priority = 200,
                       .interval = 300,
                       .addresses6 = std::span(&linkLocal2, 1)}),
         "intvl 300cs, length 24, addrs: fe80::2", "1"},
        {"igmp1.query", buildPkt(eth, ip("224.0.0.1"_ip, 1), Igmp()), "IGMP length 8: query v1",
         "11"},
        {"igmp2.report",
         buildPkt(eth, ip(group, 1), Igmp{.type = IgmpType::report2, .group = group}),
         "IGMP length 8: v2 report 239.1.2.3", "11"},
        {"igmp3.query",
         buildPkt(eth, ip(group, 1, 0xc0),
                  Igmp3Query{.group = group, .suppress = true, .sources = both}),
         "query v3 [max resp time 10.0s] [gaddr 239.1.2.3] { 192.0.2.1,192.0.2.2 }", "11"},
        {"igmp3.report", buildPkt(eth, ip("224.0.0.22"_ip, 1, 0xc0), Igmp3Report{records}),
         "v3 report, 2 group record(s) [gaddr 239.1.2.3 to_ex] [gaddr 232.1.2.3 is_in { "
         "192.0.2.1,192.0.2.2 }]",
         "11"},
        {"pim.hello", buildPkt(eth, ip("224.0.0.13"_ip, 1), Pim(), hello),
         "PIMv2, Hello, length 10", "11"},
        {"gre",
         buildPkt(eth, ip(b, 64), Gre(), Ip{.src = b, .dst = a},
                  Udp{.srcPort = 1024, .dstPort = 40000}),
         "GREv0, Flags [none], ethertype IPv4 (0x0800), length 32\nIP (tos", "111"},
        {"gre.words",
         inner(eth, ip(b, 64), Gre{.hasChecksum = true, .key = 0x12345678, .sequenceNumber = 9}),
         "key=0x12345678, seq 9, ethertype TEB (0x6558), length 62\n00:00:5e:00:53:02 > ", "1111"},
        {"vxlan", inner(eth, ip(b, 64), Udp{.srcPort = 49152, .dstPort = 4789}, Vxlan{0xabcdef}),
         "VXLAN, flags [I], vni 11259375\n00:00:5e:00:53:02 > ", "1111"},
        {"cw", buildPkt(eth, Mpls{.label = 100}, ControlWord{.sequenceNumber = 7}, bytes),
         "MPLS (label 100, tc 0, [S], ttl 64)", ""},
        {"mim", inner(eth, Mim{.serviceId = 0xabcdef, .priority = 5, .dropEligible = true}),
         "I-TAG (isid 11259375, p 5, DEI)\n00:00:5e:00:53:02 > ", "11"},
        {"nd.rs", buildPkt(eth, ip6("ff02::2"_ip6), Icmp6Rs(), NdLinkAddr{.mac = mac}),
         "[icmp6 sum ok] ICMP6, router solicitation, length 16, source link-address option (1), "
         "length 8 (1): 00:00:5e:00:53:01",
         "1"},
        {"nd.ra",
         buildPkt(eth, ip6("ff02::1"_ip6),
                  Icmp6Ra{.managed = true,
                          .otherConfig = true,
                          .preference = 1,
                          .reachableMs = 5,
                          .retransMs = 6},
                  NdMtu{9000}, NdPrefix{.prefix = "2001:db8::"_ip6}),
         "hop limit 64, Flags [managed, other stateful], pref high, router lifetime 1800s, "
         "reachable time 5ms, retrans timer 6ms, mtu option (5), length 8 (1): 9000, prefix info "
         "option (3), length 32 (4): 2001:db8::/64, Flags [onlink, auto], valid time 2592000s, "
         "pref. time 604800s",
         "1"},
        {"nd.ns",
         buildPkt(eth, ip6("ff02::1:ff00:2"_ip6), Icmp6Ns{linkLocal2}, NdLinkAddr{.mac = mac}),
         "neighbor solicitation, length 32, who has fe80::2, source link", "1"},
        {"nd.na",
         buildPkt(eth, ip6(linkLocal2),
                  Icmp6Na{.target = linkLocal, .router = true, .solicited = true},
                  NdLinkAddr{.type = 2, .mac = mac}),
         "tgt is fe80::1, Flags [router, solicited, override], destination link", "1"},
        {"nd.redirect", buildPkt(eth, ip6(linkLocal2), Icmp6Redirect{linkLocal, "2001:db8::1"_ip6}),
         "redirect, length 40, 2001:db8::1 to fe80::1", "1"},
        // scapy does not make these.
        {"vrrp3 without pseudo header",
         buildPkt(eth, ip(vrrpGroup, 255), Vrrp{.addresses = both, .sum = VrrpSum::message}),
         "intvl 100cs, length 16, addrs", "10"},
        {"pim6.hello", buildPkt(eth, ip6(ip6AddrPimRouters), Pim(), hello), "length 10", "1"},
        {"pim.register",
         buildPkt(eth, ip(b, 64), PimRegister{.border = true}, Ip{.src = a, .dst = group}, Udp(),
                  "data"),
         "PIMv2, Register, length 40, Flags [ Border ]\nIP ", "1111"},
        {"pim6.register",
         buildPkt(eth, ip6(linkLocal2), PimRegister(), Ip6{.src = linkLocal, .dst = linkLocal2},
                  Udp(), "data"),
         "PIMv2, Register, length 60, Flags [none]\nIP6 ", "11"},
        {"nd.dad",  // With an option that is not known to the library, a nonce.
         buildPkt(eth, Ip6{.dst = "ff02::1:ff00:2"_ip6, .hopLimit = 255}, Icmp6Ns{linkLocal2},
                  NdLinkAddr{.type = 14}),
         "who has fe80::2, type-14 option (14), length 8 (1)", "1"},
    };
}

std::string hexOf(const Mox::Ptr<Pkt>& pkt) {
    std::ostringstream hex;
    for (const uint8_t byte : pkt->span()) {
        hex << "0123456789abcdef"[byte >> 4] << "0123456789abcdef"[byte & 15];
    }
    return hex.str();
}

TEST(Frames, AreTheImagesThatScapyMakes) {
    std::istringstream in(PavoSandbox::run({"/usr/bin/python3", PAVO_SCAPY_FRAMES}));
    std::map<std::string, std::string> images;
    for (std::string name, image; in >> name >> image;) {
        images[name] = image;
    }
    for (const Frame& frame : frames()) {
        if (const auto image = images.extract(frame.name)) {
            EXPECT_EQ(hexOf(frame.pkt), image.mapped()) << frame.name;
        }
    }
    EXPECT_TRUE(images.empty());
}

TEST(Frames, AreGoodToTsharkAndDescribed) {
    const PavoTest::TempFolder folder;
    const std::string path = folder.path + "/frames.pcapng";
    const auto file = captureFileFactory(path, {});
    const uint32_t interface = file->newInterface("built", CaptureLinkType::ethernet);
    std::vector<std::string> sums;
    for (const Frame& frame : frames()) {
        sums.push_back(frame.sums);
        const CaptureFile::Piece piece{frame.pkt->frontData(), frame.pkt->frontBytes()};
        file->pktIs(interface, CaptureDirection::outbound, &piece, 1);
        const std::string text(describe(frame.pkt).view());
        EXPECT_THAT(text, testing::HasSubstr(frame.text)) << frame.name;
        EXPECT_THAT(text, testing::Not(testing::ContainsRegex("bad |wrong|stopped"))) << text;
    }
    file->flush();
    const std::vector<std::string> fields{"_ws.malformed",        "ip.checksum.status",
                                          "udp.checksum.status",  "vrrp.checksum.status",
                                          "igmp.checksum.status", "pim.cksum.status",
                                          "gre.checksum.status",  "icmpv6.checksum.status"};
    EXPECT_EQ(PavoTest::tshark(path, fields, /*isDivided=*/false), sums);
}

// A few bytes changed, cut or added. Many have right lengths and sums all the same.
std::string hostile(std::mt19937& random, std::string bytes) {
    constexpr uint8_t often[] = {0, 0xff, 1, 0xe0, 0x20, 0x80, 44, 60};
    for (uint32_t changes = random() % 4; changes != 0; --changes) {
        const std::size_t at = random() % (random() % 2 == 0 ? bytes.size() : 64);
        const auto byte = static_cast<uint8_t>(random());
        bytes[at % bytes.size()] = static_cast<char>(byte % 3 == 0 ? often[byte % 8] : byte);
    }
    if (random() % 4 == 0) {
        bytes.resize(1 + random() % (bytes.size() + 12));
    }
    return bytes;
}

TEST(Frames, AreRefusedAsPlainChecksDo) {
    const std::map<std::string, uint32_t> recordOffsets = {
        {"arp", 14}, {"cw", 18}, {"mim", 14}, {"vxl", 42}};
    std::map<std::string, std::vector<std::string>> kinds;  // By the first letters of the names.
    for (const Frame& frame : frames()) {
        kinds[frame.name.substr(0, 3)].emplace_back(frame.pkt->stringValue().view());
    }
    EXPECT_EQ(kinds.size(), 9u);
    // Faults that changes of good messages do not meet often.
    const Ip6 toAll = ip6("ff02::1"_ip6), fromNobody{.dst = "ff02::1"_ip6, .hopLimit = 255};
    for (const auto& pkt :
         {buildPkt(eth, fromNobody, Icmp6Rs(), NdLinkAddr()),
          buildPkt(eth, toAll, Icmp6Ns{"ff02::1"_ip6}),
          buildPkt(eth, toAll, Icmp6Na{"ff02::1"_ip6}),
          buildPkt(eth, toAll, Icmp6Na{.target = linkLocal, .solicited = true}),
          buildPkt(eth, toAll, Icmp6Redirect{.target = linkLocal, .destination = "ff02::1"_ip6})}) {
        kinds["nd."].emplace_back(pkt->stringValue().view());
    }
    std::set<PktErrors> seen;
    const PavoTest::Seeds seeds(20000);
    for (const uint32_t seed : seeds) {
        std::mt19937 random(seed);
        for (const auto& [kind, frames] : kinds) {
            const std::string& frame = frames[random() % frames.size()];
            const auto split = static_cast<uint32_t>(random() % 4 == 0 ? random() % 70 : 0);
            const auto record = recordOffsets.find(kind);
            if (record != recordOffsets.end()) {
                fuzz::checkRecords(hostile(random, frame.substr(record->second)), split);
            } else {
                const std::string packet = hostile(random, frame.substr(14));
                const bool isRepaired = random() % 4 != 0;
                seen.insert(fuzz::checkIpMsg(isRepaired ? fuzz::repaired(packet) : packet, split));
            }
        }
    }
    // Each fault that the checks of these kinds name was met, and no fault.
    EXPECT_TRUE(seen.size() == 43 || seeds.rounds() < 20000) << seen.size();
}

TEST(Frames, OfAVirtualRouterComeFromItsMac) {
    EthHdr hdr;
    hdr.srcIs("00:00:5e:00:02:07"_mac);
    EXPECT_EQ(checkVrrpMac(hdr, ipv6, 7), PktErrors::noError);
    EXPECT_EQ(checkVrrpMac(hdr, ipv6, 8), PktErrors::vrrpVridMacMismatch);
    EXPECT_EQ(checkVrrpMac(hdr, ipv4, 7), PktErrors::nonVrrpMac);
}

}  // namespace
}  // namespace Pavo
