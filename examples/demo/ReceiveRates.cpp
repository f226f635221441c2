#include "demo/ReceiveRates.h"

#include <stdexcept>

#include "Mox/Clock.h"
#include "Pavo/IpSocketPam.h"

namespace Demo {

namespace {

constexpr uint32_t bursts = 100;
constexpr uint32_t burstPackets = 128;  // Fit into a receive buffer as the kernel makes it.
constexpr uint32_t payloadBytes = 64;

// Reads a burst and returns how many packets came before there were none.
uint32_t readBurst(const Mox::Ptr<Pavo::IpSocketPam>& pam) {
    uint32_t packets = 0;
    if (pam->enableBulkRead()) {
        while (const int32_t batch = pam->rxPktBulk()) {
            packets += static_cast<uint32_t>(batch);
        }
    } else {
        while (pam->rxPkt()) {
            ++packets;
        }
    }
    return packets;
}

}  // namespace

ReceiveRates measureReceiveRates(const Pavo::NamespaceName& from, const Pavo::NamespaceName& at,
                                 const Pavo::IpAddr& address) {
    constexpr auto protocol = Pavo::IpProtocolNumber::experiment1;
    const auto sender = Pavo::ipSocketPamFactory("sender", protocol, from);
    sender->txDstIpAddrIs(address);
    sender->enabledIs(true);
    const auto receiver = Pavo::ipSocketPamFactory("receiver", protocol, at);
    receiver->optionsIs(Pavo::ipPktInfo | Pavo::ipRecvTTL | Pavo::ipRecvTOS);
    receiver->enabledIs(true);

    const Mox::MonotonicClock clock;
    double seconds[2] = {};
    for (uint32_t burst = 0; burst < 2 * bursts; ++burst) {
        receiver->enableBulkReadIs(burst % 2 == 1);
        for (uint32_t i = 0; i < burstPackets; ++i) {
            const auto pkt = Pavo::globalPktManager()->newPkt();
            pkt->newSharedHeadData(payloadBytes);
            sender->txPktIs(pkt);
        }
        const double start = clock.now();
        const uint32_t packets = readBurst(receiver);
        seconds[burst % 2] += clock.now() - start;
        if (packets != burstPackets) {
            throw std::runtime_error("a burst arrived incomplete");
        }
    }
    constexpr double packets = bursts * burstPackets;
    return {packets / seconds[0], packets / seconds[1]};
}

}  // namespace Demo
