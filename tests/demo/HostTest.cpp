// The host of examples/host, at one end of a connector; the test is its peer.
#include "host/Host.h"

#include <gtest/gtest.h>

#include "Pavo/BuildPkt.h"
#include "Pavo/Describe.h"
#include "Pavo/Literals.h"
#include "Pavo/PamConnector.h"

namespace {

using namespace Pavo;
using namespace Pavo::literals;

constexpr EthAddr mac = "02:00:00:00:00:01"_mac;
constexpr EthAddr peerMac = "02:00:00:00:00:02"_mac;
const Host::Config config{.mac = mac, .ip = "192.0.2.1"_ip, .ip6 = "2001:db8::1"_ip6};
constexpr IpAddr peerIp = "192.0.2.2"_ip;
constexpr Ip6Addr peerIp6 = "2001:db8::2"_ip6;

// What the answers contain is judged by the kernel, which the demonstration has as the peer.
TEST(Host, AnswersWhatIsForItAndNothingElse) {
    Mox::ManualClock clock;
    const auto wire = pamConnectorFactory(&clock);
    const Host::Host host(config, wire->pam("pam0"), &clock);
    const Mox::Ptr<Pam> peer = wire->pam("pam1");
    const auto in = [](const auto&... layers) {
        return buildPkt(Eth{.dst = mac, .src = peerMac}, layers...);
    };
    const Ip ip{.src = peerIp, .dst = config.ip};
    const Ip6 ip6{.src = peerIp6, .dst = config.ip6};
    const Ip6 near{.src = ip6.src, .dst = "ff02::1:ff00:1"_ip6, .hopLimit = 255};
    const IpChecksum bad(1), none;
    const Udp udp{.srcPort = 1024, .dstPort = 7};
    const Udp noSum{.srcPort = 1024, .dstPort = 7, .checksum = none};
    const Icmp6Ns forHost{.target = config.ip6};
    const NdLinkAddr peers{.mac = peerMac};
    const struct {
        const char* what;
        Mox::Ptr<Pkt> request;
        const char* answer = nullptr;  // A part of its description.
    } rows[] = {
        {"ARP", in(Arp{.senderMac = peerMac, .senderIp = peerIp, .targetIp = config.ip}), "Reply"},
        {"an ARP reply", in(Arp{ArpOp::reply, peerMac, peerIp, mac, config.ip})},
        {"ARP for another", in(Arp{.senderMac = peerMac, .targetIp = peerIp})},
        {"solicitation", in(near, forHost, peers), "Flags [solicited, override]"},
        {"probe", in(Ip6{.dst = near.dst, .hopLimit = 255}, forHost), "> ff02::1\n"},
        {"solicitation for another", in(near, Icmp6Ns{.target = peerIp6}, peers)},
        {"solicitation from afar", in(ip6, forHost, peers)},
        {"ping", in(ip, Icmp(), "data"), "echo reply"},
        {"ping for another", in(Ip{.src = ip.dst, .dst = ip.src}, Icmp())},
        {"ping to another station", buildPkt(Eth{.dst = peerMac}, ip, Icmp())},
        {"ping from a group", in(Ip{.src = "224.0.0.5"_ip, .dst = ip.dst}, Icmp())},
        {"bad ping", in(ip, Icmp{.checksum = bad})},
        {"ping of IPv6", in(ip6, Icmp6()), "echo reply"},
        {"bad ping of IPv6", in(ip6, Icmp6{.checksum = bad})},
        {"datagram", in(ip, udp, "data"), "[udp sum ok] length 4"},
        {"datagram of IPv6", in(ip6, udp), "[udp sum ok] length 0"},
        {"datagram without checksum", in(ip, noSum), "[udp sum ok] length 0"},
        {"datagram of IPv6 without checksum", in(ip6, noSum)},
        {"bad datagram", in(ip, Udp{.srcPort = 1024, .dstPort = 7, .checksum = bad})},
        {"datagram of another such host", in(ip, Udp{.srcPort = 7, .dstPort = 7})},
        {"datagram to another port", in(ip, Udp{.srcPort = 1024, .dstPort = 8})},
    };
    for (const auto& row : rows) {
        peer->txPktIs(row.request);
        clock.advance(0.1);
        const auto answer = peer->rxPkt();
        const std::string text(answer ? describe(answer).c_str() : "");
        EXPECT_EQ(answer != nullptr, row.answer != nullptr) << row.what << text;
        EXPECT_NE(text.find(row.answer ? row.answer : ""), text.npos) << row.what << text;
    }
    EXPECT_EQ(host.answers("icmp6"), 3u);
    EXPECT_EQ(host.ignored(), 1u);
}

}  // namespace
