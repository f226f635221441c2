// Sending and receiving with a tap that writes to a file, beside the same without one.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "Mox/Clock.h"
#include "Pavo/PamConnector.h"
#include "Pavo/PamTap.h"

namespace {

constexpr int burst = 64;

// A file in a folder for such, gone at the end. What it has no room for costs less than what it
// has, so it has room for everything.
class Capture {
  public:
    Capture() {
        const int fd = mkstemp(path_);
        close(fd);
        file_ = Pavo::captureFileFactory(path_, {uint64_t{1} << 34, 64u << 20});
    }
    ~Capture() {
        file_ = nullptr;
        unlink(path_);
    }
    const Mox::Ptr<Pavo::CaptureFile>& file() const { return file_; }

  private:
    char path_[32] = "/tmp/pavo-tap-bench-XXXXXX";
    Mox::Ptr<Pavo::CaptureFile> file_;
};

void connectorPkts(benchmark::State& state, bool tapped) {
    Mox::ManualClock clock;
    const auto connector = Pavo::pamConnectorFactory(&clock);
    const auto sender = connector->pam("pam0");
    const auto receiver = connector->pam("pam1");
    Capture capture;
    if (tapped) {
        sender->tapIs(Pavo::pamTapFactory(capture.file(), "pam0"));
    }
    for (auto _ : state) {
        for (int i = 0; i < burst; ++i) {
            const Mox::Ptr<Pavo::Pkt> pkt = Pavo::globalPktManager()->newPkt();
            std::memset(pkt->newSharedTailData(64), i, 64);
            sender->txPktIs(pkt);
        }
        clock.advance(1);
        while (receiver->rxPkt()) {
        }
    }
    // The disk may be slower than a loop without a pause; an agent that hands over as much for as
    // long would lose the rest.
    state.counters["dropped"] = static_cast<double>(capture.file()->stats().drops);
    state.SetItemsProcessed(state.iterations() * burst);
}

BENCHMARK_CAPTURE(connectorPkts, pavo, true)->Name("TappedPkts/pavo");
BENCHMARK_CAPTURE(connectorPkts, untapped, false)->Name("TappedPkts/untapped");

}  // namespace
