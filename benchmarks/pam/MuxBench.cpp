// Packets of 16 UDP ports from one raw endpoint, given to 16 agents: by a multiplexer, and by a
// switch in the endpoint's observer. Bursts are sent and then received by turns of the event loop;
// the receiving half is timed. The `main` of RawIpBench.cpp makes the wire.

#include <benchmark/benchmark.h>

#include <functional>
#include <memory>
#include <vector>

#include "Mox/EventLoop.h"
#include "Pavo/IpHdr.h"
#include "Pavo/IpSocketPam.h"
#include "Pavo/PamMux.h"
#include "Pavo/UdpHdr.h"
#include "Pavo/UdpPam.h"

namespace {

constexpr uint32_t burst = 64;
constexpr uint16_t firstPort = 4000;
constexpr uint16_t ports = 16;
const Pavo::IpGenAddr left{Pavo::IpAddr(0xc0000201)};
const Pavo::IpGenAddr right{Pavo::IpAddr(0xc0000202)};

// How the endpoint is read.
enum class Way { single, batch };

// Called once for each packet, in whatever manner it was found.
struct Agent {
    void take(const Mox::Ptr<Pavo::Pkt>& pkt) { bytes += pkt->totalBytes(); }

    uint64_t bytes = 0;
};

Mox::Ptr<Pavo::IpSocketPam> newEndpoint(Way way) {
    const auto pam =
        Pavo::ipSocketPamFactory("udp", Pavo::IpProtocolNumber::udp, Pavo::NamespaceName("right"));
    pam->socketReadLimitIs(burst);
    pam->enableBulkReadIs(way == Way::batch);
    pam->enabledIs(true);
    return pam;
}

class Mux {
  public:
    explicit Mux(Way way) : pam_(newEndpoint(way)) {
        for (uint16_t i = 0; i < ports; ++i) {
            const auto client =
                mux_->clientIs(std::to_string(i), Pavo::PamMuxMatch::udpPort(firstPort + i));
            watches_.emplace_back(client, Pavo::Pam::readableCountAttr,
                                  [client = client.ptr(), agent = &agents_[i]] {
                                      while (const auto pkt = client->rxPkt()) {
                                          agent->take(pkt);
                                      }
                                  });
        }
        mux_->enabledIs(true);
    }

    uint64_t bytes() const {
        uint64_t sum = 0;
        for (const Agent& each : agents_) {
            sum += each.bytes;
        }
        return sum;
    }
    Mox::EventLoop& loop() { return loop_; }

  private:
    Mox::EventLoop loop_;
    Mox::Ptr<Pavo::IpSocketPam> pam_;
    Mox::Ptr<Pavo::PamMux> mux_ =
        Pavo::pamMuxFactory("mux", pam_, loop_.clock(), Pavo::CaptureLinkType::rawIp);
    Agent agents_[ports];
    std::vector<Mox::Watch<Pavo::PamMuxPam>> watches_;
};

class Switch {
  public:
    explicit Switch(Way way) : way_(way), pam_(newEndpoint(way)) {
        readable_ = {pam_, Pavo::Pam::readableCountAttr, [this] { read(); }};
    }

    uint64_t bytes() const { return sum_; }
    Mox::EventLoop& loop() { return loop_; }

  private:
    void read() {
        if (way_ == Way::single) {
            if (const auto pkt = pam_->rxPkt()) {
                dispatch(pkt);
            }
            return;
        }
        const auto packets = static_cast<uint32_t>(pam_->rxPktBulk());
        for (uint32_t slot = 0; slot < packets; ++slot) {
            dispatch(pam_->savedPacket(slot));
        }
    }
    void dispatch(const Mox::Ptr<Pavo::Pkt>& pkt) {
        const auto ip = Pavo::tryHdr<Pavo::IpHdr>(pkt, 0);
        if (!ip || ip->protocolNum() != Pavo::IpProtocolNumber::udp) {
            return;
        }
        const auto udp = Pavo::tryHdr<Pavo::UdpHdr>(pkt, ip->headerBytes());
        const uint32_t agent = udp ? udp->dstPort() - uint32_t{firstPort} : ports;
        if (agent < ports) {
            agents_[agent](pkt);
        }
    }

    Mox::EventLoop loop_;
    Way way_;
    Mox::Ptr<Pavo::IpSocketPam> pam_;
    uint64_t sum_ = 0;
    std::vector<std::function<void(const Mox::Ptr<Pavo::Pkt>&)>> agents_{
        ports, [this](const Mox::Ptr<Pavo::Pkt>& pkt) { sum_ += pkt->totalBytes(); }};
    Mox::Watch<Pavo::Pam> readable_;
};

template <class Receiver>
void rounds(benchmark::State& state, Way way) {
    constexpr uint32_t payloadBytes = 64;
    constexpr uint64_t burstBytes = uint64_t{burst} * (20 + 8 + payloadBytes);
    Receiver receiver(way);
    const auto sender = Pavo::udpPamFactory("sender", Pavo::NamespaceName("left"));
    sender->localAddrIs(left);
    sender->enabledIs(true);
    const auto pkt = Pavo::globalPktManager()->newPkt();
    pkt->newSharedHeadData(payloadBytes);
    const Mox::MonotonicClock clock;
    uint64_t expected = receiver.bytes();
    for (auto _ : state) {
        for (uint16_t i = 0; i < burst; ++i) {
            sender->remoteIs({right, static_cast<uint16_t>(firstPort + i * 7 % ports)});
            sender->txPktIs(pkt);
        }
        expected += burstBytes;
        const double start = clock.now();
        for (uint32_t turns = 0; receiver.bytes() < expected && turns < 10 * burst; ++turns) {
            receiver.loop().turn(0);
        }
        state.SetIterationTime(clock.now() - start);
        if (receiver.bytes() != expected) {
            state.SkipWithError("a burst arrived incomplete");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * burst);
}

void registerLines() {
    const auto line = [](const char* name, auto function, Way way) {
        benchmark::RegisterBenchmark(name, function, way)->UseManualTime();
    };
    line("MuxReceive/pavo", rounds<Mux>, Way::single);
    line("MuxReceive/switch", rounds<Switch>, Way::single);
    line("MuxReceiveBulk/pavo", rounds<Mux>, Way::batch);
    line("MuxReceiveBulk/switch", rounds<Switch>, Way::batch);
}

[[maybe_unused]] const bool isRegistered = (registerLines(), true);

}  // namespace
