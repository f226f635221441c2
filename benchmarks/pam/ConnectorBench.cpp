// Packets through a connector, beside a plain deque with the same clock. A batch is sent, one event
// of the clock announces it, and the receiver, a function known at run time, takes each packet and
// drops it. Packets are new each time, as a protocol machine makes them.

#include <benchmark/benchmark.h>

#include <deque>
#include <functional>

#include "Mox/Clock.h"
#include "Pavo/PamConnector.h"

namespace {

constexpr uint32_t batch = 64;
constexpr uint32_t frameBytes = 64;

Mox::Ptr<Pavo::Pkt> newFrame() {
    Mox::Ptr<Pavo::Pkt> pkt = Pavo::globalPktManager()->newPkt();
    pkt->newSharedHeadData(frameBytes)[0] = 1;
    return pkt;
}

class Deque {
  public:
    explicit Deque(Mox::Clock* clock) : clock_(clock) {}

    void send(Mox::Ptr<Pavo::Pkt> pkt) {
        queue_.push_back(std::move(pkt));
        if (delivery_.isIdle()) {
            delivery_.expiryIs(clock_->now() + Pavo::PamConnector::deliverySeconds);
        }
    }
    uint32_t received() const { return received_; }

  private:
    void deliver() {
        for (auto count = queue_.size(); count != 0; --count) {
            readable_();
        }
    }
    void take() {
        const Mox::Ptr<Pavo::Pkt> pkt = std::move(queue_.front());
        queue_.pop_front();
        received_ += pkt->totalBytes() / frameBytes;
    }

    Mox::Clock* clock_;
    std::deque<Mox::Ptr<Pavo::Pkt>> queue_;
    uint32_t received_ = 0;
    std::function<void()> readable_ = [this] { take(); };
    Mox::Timer delivery_{clock_, [this] { deliver(); }};
};

class Connector {
  public:
    explicit Connector(Mox::Clock* clock) : connector_(Pavo::pamConnectorFactory(clock)) {}

    void send(Mox::Ptr<Pavo::Pkt> pkt) { sender_->txPktIs(std::move(pkt)); }
    uint32_t received() const { return received_; }

  private:
    void take() { received_ += receiver_->rxPkt()->totalBytes() / frameBytes; }

    Mox::Ptr<Pavo::PamConnector> connector_;
    Mox::Ptr<Pavo::Pam> sender_ = connector_->pam("pam0");
    Mox::Ptr<Pavo::Pam> receiver_ = connector_->pam("pam1");
    uint32_t received_ = 0;
    Mox::Watch<Pavo::Pam> readable_{receiver_, Pavo::Pam::readableCountAttr, [this] { take(); }};
};

template <class Way>
void exchange(benchmark::State& state) {
    Mox::ManualClock clock;
    Way way(&clock);
    uint32_t sent = 0;
    for (auto _ : state) {
        for (uint32_t i = 0; i < batch; ++i) {
            way.send(newFrame());
        }
        clock.advance(2 * Pavo::PamConnector::deliverySeconds);
        sent += batch;
    }
    if (way.received() != sent) {
        state.SkipWithError("packets were lost");
    }
    state.SetItemsProcessed(state.iterations() * batch);
}

BENCHMARK_TEMPLATE(exchange, Connector)->Name("ConnectorPkts/pavo");
BENCHMARK_TEMPLATE(exchange, Deque)->Name("ConnectorPkts/deque");

}  // namespace
