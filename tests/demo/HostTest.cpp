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

TEST(Host, AnswersWhatIsForItAndNothingElse) {
    Mox::ManualClock clock;
    const auto wire = pamConnectorFactory(&clock);
    const Host::Host host(config, wire->pam("pam0"), &clock);
    const Mox::Ptr<Pam> peer = wire->pam("pam1");
    const auto in = [](const auto&... layers) {
        return buildPkt(Eth{.dst = mac, .src = peerMac}, layers...);
    };
    const auto out = [](const auto&... layers) {
        return buildPkt(Eth{.dst = peerMac, .src = mac}, layers...);
    };
    const Ip ip{.src = peerIp, .dst = config.ip}, ipBack{.src = ip.dst, .dst = ip.src};
    const Ip6 ip6{.src = peerIp6, .dst = config.ip6}, ip6Back{.src = ip6.dst, .dst = ip6.src};
    const Ip6 near{.src = ip6.src, .dst = "ff02::1:ff00:1"_ip6, .hopLimit = 255};
    const Ip6 nearBack{.src = config.ip6, .dst = peerIp6, .hopLimit = 255};
    const Icmp ping{.id = 7}, badPing{.checksum = IpChecksum(1)};
    const Icmp6 ping6{.id = 7}, badPing6{.checksum = IpChecksum(1)};
    const Icmp6Ns forHost{.target = config.ip6};
    const NdLinkAddr own{.type = NdOptionType::targetLinkAddr, .mac = mac}, peers{.mac = peerMac};
    const Udp udp{.srcPort = 1024, .dstPort = 7}, udpBack{.srcPort = 7, .dstPort = 1024};
    const Udp noSum{.srcPort = 1024, .dstPort = 7, .checksum = IpChecksum()};
    const Udp badSum{.srcPort = 1024, .dstPort = 7, .checksum = IpChecksum(1)};
    const Arp arp{.senderMac = peerMac, .senderIp = peerIp, .targetIp = config.ip};
    const Arp arpBack{ArpOp::reply, mac, config.ip, peerMac, peerIp};
    const struct {
        const char* what;
        Mox::Ptr<Pkt> request;
        Mox::Ptr<Pkt> answer;
    } rows[] = {
        {"ARP", in(arp), out(arpBack)},
        {"an ARP reply", in(Arp{ArpOp::reply, peerMac, peerIp, mac, config.ip}), nullptr},
        {"ARP for another", in(Arp{.senderMac = peerMac, .targetIp = peerIp}), nullptr},
        {"solicitation", in(near, forHost, peers),
         out(nearBack, Icmp6Na{.target = config.ip6, .solicited = true}, own)},
        {"probe", in(Ip6{.dst = near.dst, .hopLimit = 255}, forHost),
         buildPkt(Eth{.dst = "33:33:00:00:00:01"_mac, .src = mac},
                  Ip6{.src = config.ip6, .dst = ip6AddrAllNodes, .hopLimit = 255},
                  Icmp6Na{.target = config.ip6}, own)},
        {"solicitation for another", in(near, Icmp6Ns{.target = peerIp6}, peers), nullptr},
        {"solicitation from afar", in(ip6, forHost, peers), nullptr},
        {"ping", in(ip, ping, "data"),
         out(ipBack, Icmp{.type = IcmpType::echoReply, .id = 7}, "data")},
        {"ping for another", in(ipBack, ping), nullptr},
        {"bad ping", in(ip, badPing), nullptr},
        {"ping of IPv6", in(ip6, ping6),
         out(ip6Back, Icmp6{.type = Icmp6Type::echoReply, .id = 7})},
        {"bad ping of IPv6", in(ip6, badPing6), nullptr},
        {"datagram", in(ip, udp, "data"), out(ipBack, udpBack, "data")},
        {"datagram of IPv6", in(ip6, udp), out(ip6Back, udpBack)},
        {"datagram without checksum", in(ip, noSum), out(ipBack, udpBack)},
        {"datagram of IPv6 without checksum", in(ip6, noSum), nullptr},
        {"datagram with a bad checksum", in(ip, badSum), nullptr},
        {"datagram to another port", in(ip, udpBack), nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        peer->txPktIs(row.request);
        clock.advance(0.1);
        const auto answer = peer->rxPkt();
        ASSERT_EQ(answer != nullptr, row.answer != nullptr);
        EXPECT_TRUE(!answer || answer->stringValue() == row.answer->stringValue())
            << describe(answer) << "\nexpected:\n"
            << describe(row.answer);
    }
    EXPECT_EQ(host.answers("icmp6"), 3u);
    EXPECT_EQ(host.ignored(), 1u);
}

}  // namespace
