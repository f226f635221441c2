// What a message costs among many connections, and what a connection costs: messages of 100 bytes
// on one connection ("one") or on each of them ("all"), one message at a time, sent or received by
// endpoints of one loop. The memory is that of an endpoint with nothing to send or to read, without
// the kernel's. The other ends are bare sockets of a thread with descriptors of its own, which
// works between the measurements.

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <poll.h>
#include <sched.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Loopback.h"
#include "Mox/EventLoop.h"
#include "Pavo/TcpPduPam.h"

namespace {

using PavoBench::check;
using Endpoint = Mox::Ptr<Pavo::SimpleTcpPduPam>;

constexpr uint32_t messageBytes = 100;

std::string message() {
    std::string bytes(messageBytes, '\0');
    bytes[3] = messageBytes;
    return bytes;
}

double heapBytes() {
    const auto info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
}

// A thread that makes the calls that it is given, with its own table of descriptors: one table may
// be too small for both ends.
class FarThread {
  public:
    FarThread() {
        run([] { check(unshare(CLONE_FILES) == 0, "unshare"); });
    }
    ~FarThread() {
        run([this] { ends_ = true; });
        thread_.join();
    }
    void run(std::function<void()> call) {
        std::unique_lock lock(mutex_);
        call_ = std::move(call);
        changed_.notify_all();
        changed_.wait(lock, [this] { return call_ == nullptr; });
    }

  private:
    void serve() {
        std::unique_lock lock(mutex_);
        while (!ends_) {
            changed_.wait(lock, [this] { return call_ != nullptr; });
            call_();
            call_ = nullptr;
            changed_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::function<void()> call_;
    bool ends_ = false;
    std::thread thread_{[this] { serve(); }};
};

class Connections {
  public:
    Connections(uint32_t count, uint32_t txQueueBytes) {
        far_.run([this] { loopback_.emplace(); });
        std::vector<int> numbers(count);
        for (int& each : numbers) {
            each = loopback_->connectOne();
            PavoBench::Loopback::noDelay(each);
            far_.run([this] { farEnds_.push_back(loopback_->acceptOne()); });
        }
        near_.reserve(count);
        watches_.reserve(count);
        const double before = heapBytes();
        for (const int each : numbers) {
            add(each, txQueueBytes);
        }
        send(count);  // What is kept of traffic counts too.
        receive(count);
        bytesOfOne_ = (heapBytes() - before) / count;
    }
    ~Connections() {
        far_.run([this] {
            std::for_each(farEnds_.begin(), farEnds_.end(), close);
            loopback_.reset();
        });
    }
    double bytesOfOne() const { return bytesOfOne_; }

    // A message on each of the first connections. Both return the seconds.
    double send(uint32_t count) {
        const double start = PavoBench::threadSeconds();
        for (uint32_t i = 0; i < count; ++i) {
            const auto pkt = Pavo::globalPktManager()->newPkt(messageBytes);
            std::memcpy(pkt->newSharedHeadData(messageBytes), text_.data(), messageBytes);
            near_[i]->txPktIs(pkt);
        }
        loop_.turn(0);
        const double seconds = PavoBench::threadSeconds() - start;
        far_.run([this, count] {
            char bytes[messageBytes];
            for (uint32_t i = 0; i < count; ++i) {
                pollfd readable{farEnds_[i], POLLIN, 0};
                check(poll(&readable, 1, 1000) == 1, "poll");
                check(recv(farEnds_[i], bytes, sizeof(bytes), 0) == messageBytes, "recv");
            }
        });
        return seconds;
    }
    double receive(uint32_t count) {
        far_.run([this, count] {
            for (uint32_t i = 0; i < count; ++i) {
                PavoBench::Loopback::noDelay(farEnds_[i]);
                check(::send(farEnds_[i], text_.data(), messageBytes, 0) == messageBytes, "send");
            }
        });
        received_ = 0;
        const double start = PavoBench::threadSeconds();
        for (uint32_t i = 0; i < 100'000 && received_ < count; ++i) {
            loop_.turn(0);
        }
        const double seconds = PavoBench::threadSeconds() - start;
        check(received_ == count, "a message is lost");
        return seconds;
    }

  private:
    void add(int fd, uint32_t txQueueBytes) {
        const auto pam = Pavo::simpleTcpPduPamFactory(
            Pavo::tcpFileDescriptorFactory(fd, /*edgeTriggered=*/false), registrations_);
        pam->enabledIs(true);
        pam->txQueueBytesIs(txQueueBytes);
        near_.push_back(pam);
        watches_.emplace_back(pam, Pavo::Pam::readableCountAttr,
                              [this, pam = pam.ptr()] { received_ += pam->rxPkt() ? 1 : 0; });
    }

    const std::string text_ = message();
    FarThread far_;
    std::optional<PavoBench::Loopback> loopback_;
    std::vector<int> farEnds_;
    Mox::EventLoop loop_;
    const Mox::Ptr<Pavo::TcpFileDescriptorEventRegistrationFactory> registrations_ =
        Pavo::tcpFileDescriptorEventRegistrationFactoryMoxcFactory();
    std::vector<Endpoint> near_;
    std::vector<Mox::Watch<Pavo::SimpleTcpPduPam>> watches_;
    uint32_t received_ = 0;
    double bytesOfOne_ = 0;
};

enum class What { sending, queueing, receiving };

void growth(benchmark::State& state, What what, uint32_t count, bool all) {
    Connections connections(count, what == What::queueing ? 65536 : 0);
    const uint32_t busy = all ? count : 1;
    for (auto _ : state) {
        const double seconds =
            what == What::receiving ? connections.receive(busy) : connections.send(busy);
        state.SetIterationTime(seconds / busy);
    }
    state.counters["bytes/connection"] = connections.bytesOfOne();
}

[[maybe_unused]] const bool registered = [] {
    const struct {
        const char* name;
        What what;
    } lines[] = {{"Send", What::sending}, {"Queue", What::queueing}, {"Receive", What::receiving}};
    for (const auto& [name, what] : lines) {
        for (const bool all : {false, true}) {
            for (const uint32_t count : {1u, 100u, 1000u, 10'000u}) {
                const std::string line = std::string("PduGrowth") + name +
                                         (all ? "/all/" : "/one/") + std::to_string(count);
                benchmark::RegisterBenchmark(line.c_str(), growth, what, count, all)
                    ->UseManualTime()
                    ->Iterations(all ? 200'000 / static_cast<int>(std::max(count, 100u)) : 2000);
            }
        }
    }
    return true;
}();

}  // namespace
