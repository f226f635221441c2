// Messages of 100 bytes over TCP connections of one loop. The other ends are bare sockets of a
// thread with descriptors of its own, which works between the measurements.

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

#include "Mox/EventLoop.h"
#include "Pavo/TcpPduPam.h"
#include "growth/Growth.h"
#include "tcp/Loopback.h"

namespace {

using PavoBench::check;
using Endpoint = Mox::Ptr<Pavo::SimpleTcpPduPam>;

constexpr uint32_t messageBytes = 100;

std::string message() {
    std::string bytes(messageBytes, '\0');
    bytes[3] = messageBytes;
    return bytes;
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

enum class What { sending, queueing, receiving };

class Connections : public PavoBench::Endpoints {
  public:
    Connections(uint32_t count, What what) : what_(what) {
        far_.run([this] { loopback_.emplace(); });
        std::vector<int> numbers(count);
        for (int& each : numbers) {
            each = loopback_->connectOne();
            PavoBench::Loopback::noDelay(each);
            far_.run([this] { farEnds_.push_back(loopback_->acceptOne()); });
        }
        near_.reserve(count);
        watches_.reserve(count);
        const double before = PavoBench::heapBytes();
        for (const int each : numbers) {
            add(each);
        }
        send(count);  // What is kept of traffic counts too.
        receive(count);
        bytesOfOne = (PavoBench::heapBytes() - before) / count;
    }
    ~Connections() override {
        far_.run([this] {
            std::for_each(farEnds_.begin(), farEnds_.end(), close);
            loopback_.reset();
        });
    }
    double work(uint32_t busy) override {
        return what_ == What::receiving ? receive(busy) : send(busy);
    }

  private:
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
        PavoBench::turnUntil(loop_, [&] { return received_ >= count; });
        const double seconds = PavoBench::threadSeconds() - start;
        return seconds;
    }

    void add(int fd) {
        const auto pam = Pavo::simpleTcpPduPamFactory(
            Pavo::tcpFileDescriptorFactory(fd, /*edgeTriggered=*/false), registrations_);
        pam->enabledIs(true);
        pam->txQueueBytesIs(what_ == What::queueing ? 65536 : 0);
        near_.push_back(pam);
        watches_.emplace_back(pam, Pavo::Pam::readableCountAttr,
                              [this, pam = pam.ptr()] { received_ += pam->rxPkt() ? 1 : 0; });
    }

    const What what_;
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
};

[[maybe_unused]] const bool registered = [] {
    const struct {
        const char* name;
        What what;
    } lines[] = {
        {"TcpSend", What::sending}, {"TcpQueue", What::queueing}, {"TcpReceive", What::receiving}};
    for (const auto& [name, what] : lines) {
        PavoBench::registerGrowth(name, [what = what](uint32_t count) {
            return std::make_unique<Connections>(count, what);
        });
    }
    return true;
}();

}  // namespace
