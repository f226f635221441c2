// Hosts inside the process, compared with the kernel: random programs run on endpoints of two
// namespaces and on those of two hosts.
#include "Pavo/IpHost.h"

#include <poll.h>

#include <fstream>
#include <random>
#include <type_traits>

#include "Pavo/Ip6SocketPam.h"
#include "Pavo/IpSocketPam.h"
#include "pam/PamFixture.h"
#include "support/Seeds.h"

namespace Pavo {
namespace {

using Mox::Ptr;

// One endpoint on a socket, and its counterpart on a host.
template <class Endpoint>
struct Twin {
    int side;
    Ptr<Endpoint> real;
    Ptr<Endpoint> sim;
};

template <class Endpoint>
class TwinWorld {
  public:
    static constexpr bool isUdp = std::is_same_v<Endpoint, UdpPam>;

    TwinWorld(uint32_t seed, const Wire& wire, Mox::EventLoop& loop)
        : random_(seed), six_(oneIn(2)), loop_(loop) {
        for (const int side : {0, 1}) {
            index_[side] = wire.index(side == 0 ? "left" : "right");
            hosts_[side] = ipHostFactory("host", link_->pam(side == 0 ? "pam0" : "pam1"), &clock_);
            for (const char* text : {"192.0.2.", "2001:db8::", "fe80::"}) {
                hosts_[side]->addressIs(addr((text + std::to_string(side + 1)).c_str()));
            }
        }
    }

    void run() {
        for (int steps = 0; steps < 60 && !testing::Test::HasFailure(); ++steps) {
            if (twins_.size() < 4 || oneIn(12)) {
                twins_.push_back(newTwin());
            }
            Twin<Endpoint>& twin = twins_[below(twins_.size())];
            const uint32_t action = below(12);
            SCOPED_TRACE("step " + std::to_string(steps) + ", action " + std::to_string(action));
            if (action == 0 && oneIn(4)) {
                std::swap(twin, twins_.back());
                twins_.pop_back();
            } else if (twin.real->enabled() && action < 7) {
                send(twin);
            } else if (twin.real->enabled() && action < 9) {
                join(twin);
            } else if (action < 10) {
                enable(twin);
            } else {
                configure(twin);
            }
            clock_.advance(0.01);
            compareReceived();
        }
    }

  private:
    uint32_t below(std::size_t limit) { return static_cast<uint32_t>(random_() % limit); }
    bool oneIn(uint32_t chances) { return below(chances) == 0; }
    IpGenAddr pick(const char* four, const char* six) const { return addr(six_ ? six : four); }
    IpGenAddr host(int side) const {
        return side == 0 ? pick("192.0.2.1", "2001:db8::1") : pick("192.0.2.2", "2001:db8::2");
    }
    IpGenAddr group() {
        return oneIn(2) ? pick("239.1.1.1", "ff02::99") : pick("239.1.1.2", "ff05::7");
    }
    IpGenAddr anyAddress() {
        switch (below(6)) {
            case 0:
                return group();
            case 1:
                return pick("127.0.0.1", "::1");
            case 2:
                return IpGenAddr(six_ ? ipv6 : ipv4);
            default:
                return host(static_cast<int>(below(2)));
        }
    }

    Twin<Endpoint> newTwin() {
        const int side = static_cast<int>(below(2));
        const NamespaceName netNs(side == 0 ? "left" : "right");
        const auto make = [&]() -> Ptr<Endpoint> {
            constexpr IpProtocolNumber protocol = IpProtocolNumber::experiment1;
            if constexpr (isUdp) {
                return udpPamFactory("udp", netNs);
            } else if (six_) {
                return ip6SocketPamFactory("raw", protocol, netNs);
            } else {
                return ipSocketPamFactory("raw", protocol, netNs);
            }
        };
        Twin<Endpoint> twin{side, make(), hosts_[side]->attach(make())};
        configure(twin);
        enable(twin);
        return twin;
    }
    // What the two throw has to be the same. An action knows the index of the interface; what it
    // draws is the same for both.
    template <class Act>
    void both(const Twin<Endpoint>& twin, Act act) {
        const std::mt19937 before = random_;
        const std::string expected = errorOf([&] { act(*twin.real, index_[twin.side]); });
        random_ = before;
        EXPECT_EQ(errorOf([&] { act(*twin.sim, IpHost::ethIfIndex); }), expected) << of(twin);
    }
    static std::string of(const Twin<Endpoint>& twin) {
        std::ostringstream out;
        if constexpr (isUdp) {
            out << twin.sim->mode() << " " << twin.sim->localAddr() << " to "
                << twin.sim->remoteAddr() << " port " << twin.sim->boundPort() << " on '"
                << twin.sim->device().c_str() << "'";
        }
        out << " options " << ipSocketOptionsText(twin.sim->options()).c_str();
        return out.str();
    }

    uint32_t randomOptions() {
        uint32_t options = ipPktInfo | ipRecvDrops;
        for (const uint32_t bit : {ipNoMulticastLoop, ipRecvOrigDstAddr, ipReuseAddr, ipBroadcast,
                                   ipRecvTTL, ipRecvTOS}) {
            options |= oneIn(3) ? bit : none;
        }
        options |= (isUdp || !six_) && oneIn(4) ? ipAttachFilter : none;
        const uint32_t rawOption = six_ ? ipv6Checksum : sendsAlerts_ ? none : ipHdrIncl;
        return options | (!isUdp && oneIn(3) ? rawOption : none);
    }
    void configure(const Twin<Endpoint>& twin) {
        both(twin, [&](auto& pam, uint32_t eth) {
            // The port, or the TTL: at least so large.
            const IpFilter filter[] = {{0x30, 0, 0, isUdp ? 3u : 8u},
                                       {0x35, 0, 1, isUdp ? 5001u % 256 : 210u},
                                       {0x06, 0, 0, 0xffff},
                                       {0x06, 0, 0, 0}};
            for (uint8_t i = 0; i < std::size(filter); ++i) {
                pam.rxFilterIs(i, filter[i]);
            }
            pam.maxRxPktDataIs(oneIn(3) ? 30 + below(20) : 1536);
            pam.enableBulkReadIs(oneIn(2));
            const IpTtl ttl = oneIn(2) ? 0u : 200 + below(50);
            const IpTtl groupTtl = oneIn(2) ? 0u : 1 + below(254);
            const IpDscp tos = 4 * below(64);
            const bool isClient = oneIn(3);
            if constexpr (isUdp) {
                pam.optionsIs(randomOptions());
                pam.txTtlIs(ttl);
                pam.txMcastTtlIs(groupTtl);
                pam.txTosIs(tos);
                pam.txMcastIfIndexIs(eth);
                pam.rxMinTtlIs(oneIn(3) ? 220u : 0u);
                const char* const names[] = {"veth-left", "veth-right"};
                const bool isSim = &pam == twin.sim.ptr();
                pam.deviceIs(isClient || !oneIn(4) ? "" : isSim ? "eth0" : names[twin.side]);
                pam.localAddrIs(anyAddress());
                pam.localPortIs(oneIn(4) ? 0 : static_cast<uint16_t>(5000 + below(3)));
                pam.modeIs(isClient ? UdpPam::Mode::client : UdpPam::Mode::server);
                pam.remoteIs({anyAddress(), 5001});
            } else {
                six_ ? static_cast<Ip6SocketPam&>(pam).checksumOffsetIs(2)
                     : static_cast<IpSocketPam&>(pam).txMcastTTLIs(groupTtl);
                pam.optionsIs(randomOptions());
                pam.txTOSIs(tos);
                pam.txTTLIs(ttl);
                pam.ipPktOptionIs(ipPktRouterAlert, sendsAlerts_ && oneIn(3));
            }
        });
    }
    void enable(const Twin<Endpoint>& twin) {
        const bool enables = !twin.real->enabled();
        both(twin, [&](auto& pam, uint32_t) { pam.enabledIs(enables); });
    }
    void join(const Twin<Endpoint>& twin) {
        both(twin, [&](auto& pam, uint32_t eth) {
            const IpGenAddr chosen = group();
            const IpGenAddr source = host(static_cast<int>(below(2)));
            const bool joins = !oneIn(3);
            if constexpr (isUdp) {
                if (oneIn(3)) {
                    joins ? pam.doJoinMcastGroup(eth, chosen, source)
                          : pam.doLeaveMcastGroup(eth, chosen, source);
                    return;
                }
            }
            joins ? pam.doJoinMcastGroup(eth, chosen) : pam.doLeaveMcastGroup(eth, chosen);
        });
    }
    void send(const Twin<Endpoint>& twin) {
        const std::string text(oneIn(6) ? 0 : below(60), static_cast<char>('a' + below(26)));
        const IpGenAddr to = anyAddress();
        const IpGenAddr from = oneIn(3) ? host(oneIn(4) ? 1 - twin.side : twin.side) : IpGenAddr();
        const IpGenAddr inHdr = from.af() == ipunknown ? IpGenAddr(ipv4) : from;
        const IpGenAddr toHdr = to.address().isZero() ? addr("127.0.0.1") : to;
        const auto port = static_cast<uint16_t>(5000 + below(3));
        const bool isNamed = !isUdp && to.isMulticast();
        const bool isBatch = oneIn(4);
        const auto sendTo = [&](Endpoint& pam, uint32_t eth) {
            pam.txSrcIpAddrIs(from);
            pam.txIfIndexIs(isNamed ? eth : 0);
            if constexpr (isUdp) {
                pam.remoteIs({to, port});
            } else {
                pam.txDstIpAddrIs(to);
            }
            const bool hasHdr = !isUdp && (pam.options() & ipHdrIncl) != 0;
            const Ptr<Pkt> pkt = hasHdr ? pktWithHeader(text, 77, inHdr, toHdr) : pktOf(text);
            isBatch ? (void)pam.txPktsIs(std::vector(2, pkt)) : pam.txPktIs(pkt);
        };
        for (int times = oneIn(2) ? 2 : 1; times != 0; --times) {
            sendTo(*twin.sim, IpHost::ethIfIndex);
            if (twin.sim->txErrno() == ECONNREFUSED) {  // On a busy machine it may come later.
                pollfd error{twin.real->fileDesc()->descriptor(), 0, 0};
                poll(&error, 1, 500);
            }
            sendTo(*twin.real, index_[twin.side]);
            EXPECT_EQ(twin.sim->txErrno(), twin.real->txErrno())
                << of(twin) << ", to " << to << " port " << port << " from " << from;
            clock_.advance(0.01);  // An ICMP error comes back until then.
        }
    }

    static std::string describe(const Pkt& pkt, const RxInfo& info, uint32_t eth) {
        const uint32_t ifIndex = info.ifIndex == eth ? IpHost::ethIfIndex : info.ifIndex;
        std::string bytes(pkt.stringValue());
        if (!isUdp && bytes[0] >> 4 == 4) {  // The identification is any, and so the checksum.
            for (const std::size_t i : {4u, 5u, 10u, 11u}) {
                bytes[i] = '-';
            }
        }
        return bytes + " " +
               textOf(info.srcIpAddr, info.dstIpAddr, info.origDstIpAddr, ifIndex, info.tos,
                      info.ttl) +
               (isUdp ? " " + std::to_string(info.dstPort.value()) : "") + " " +
               std::to_string(info.origDstPort.value()) + (info.truncated ? " truncated" : "");
    }
    static void read(Endpoint& pam, uint32_t eth, Texts* texts) {
        readAll(pam, pam.enableBulkRead(), [&](const Pkt& pkt, const RxInfo& info) {
            texts->push_back(describe(pkt, info, eth));
        });
    }
    void compareReceived() {
        for (const Twin<Endpoint>& twin : twins_) {
            if (!twin.real->enabled()) {
                continue;
            }
            Texts expected, received;
            read(*twin.sim, IpHost::ethIfIndex, &received);
            for (int turns = 0; turns < 20; ++turns) {
                read(*twin.real, index_[twin.side], &expected);
                if (expected.size() >= received.size()) {
                    break;
                }
                loop_.turn(0.05);
            }
            EXPECT_EQ(received, expected) << of(twin);
            EXPECT_EQ(twin.sim->rxTruncatedPkts(), twin.real->rxTruncatedPkts());
        }
    }

    std::mt19937 random_;
    bool six_;
    // The kernel refuses alerts in headers of packets, also on a socket that had the option once.
    bool sendsAlerts_ = !six_ && oneIn(2);
    Mox::EventLoop& loop_;
    Mox::ManualClock clock_;
    Ptr<PamConnector> link_ = pamConnectorFactory(&clock_);
    Ptr<IpHost> hosts_[2];
    uint32_t index_[2];
    std::vector<Twin<Endpoint>> twins_;
};

class IpHostTest : public PamFixture {
  protected:
    template <class Endpoint>
    void runTwins() {
        const Wire wire;
        for (const char* netNs : {"left", "right"}) {  // Every error is sent.
            const ScopedNetNs inside(netNs);
            for (const std::string file :
                 {"4/icmp_ratelimit", "4/icmp_ratemask", "6/icmp/ratelimit", "4/icmp_msgs_per_sec",
                  "4/icmp_msgs_burst"}) {
                const bool isLimit = file.find("msgs") != std::string::npos;
                std::ofstream("/proc/sys/net/ipv" + file) << (isLimit ? 1'000'000 : 0);
            }
        }
        for (const uint32_t seed : PavoTest::Seeds(200)) {
            SCOPED_TRACE(seed);
            TwinWorld<Endpoint>(seed, wire, loop_).run();
        }
    }
};

TEST_F(IpHostTest, UdpEndpointsDoWhatTheKernelDoes) {
    runTwins<UdpPam>();
}

TEST_F(IpHostTest, RawEndpointsDoWhatTheKernelDoes) {
    runTwins<RawIpPam>();
}

}  // namespace
}  // namespace Pavo
