// From 1 to 10,000 ready descriptors to their handlers, beside a bare epoll loop; and a turn that
// finds nothing among 10,000 descriptors, beside one with a single descriptor.

#include <benchmark/benchmark.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "Mox/EventLoop.h"

namespace {

// Room for that many descriptors; false where so many are not allowed.
bool allow(rlim_t count) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur >= count + 100;
}

// Ready for ever, since it is not read, with a value of 1, and never with 0.
int descriptor(unsigned value) {
    return eventfd(value, EFD_NONBLOCK | EFD_CLOEXEC);
}

class Reactor : public Mox::Notifiee {
  public:
    explicit Reactor(const Mox::Ptr<Mox::FileDescriptor>& fd)
        : Notifiee(fd, Mox::FileDescriptor::readableCountAttr) {}
    void handleChange(const Mox::Change&) override { benchmark::DoNotOptimize(++calls_); }

  private:
    uint32_t calls_ = 0;
};

class Handler {
  public:
    virtual ~Handler() = default;
    virtual void handleReadable() { benchmark::DoNotOptimize(++calls_); }

  private:
    uint32_t calls_ = 0;
};

void readyPavo(benchmark::State& state, uint32_t descriptors) {
    if (!allow(descriptors)) {
        state.SkipWithError("too few descriptors are allowed");
        return;
    }
    Mox::EventLoop loop;
    std::vector<Mox::Ptr<Reactor>> reactors;
    for (uint32_t i = 0; i < descriptors; ++i) {
        const auto fd = Mox::fileDescriptorFactory(descriptor(1));
        fd->watchingIs(Mox::FileDescriptor::Watching::level);
        reactors.push_back(Mox::make<Reactor>(fd));
        fd->notifyOnReadableIs(true);
    }
    uint32_t reports = 0;
    for (auto _ : state) {
        reports += loop.turn(0);
    }
    if (reports != static_cast<uint32_t>(state.iterations()) * descriptors) {
        state.SkipWithError("a turn missed a descriptor");
    }
    state.SetItemsProcessed(state.iterations() * descriptors);
}

void readyEpoll(benchmark::State& state, uint32_t descriptors) {
    if (!allow(descriptors)) {
        state.SkipWithError("too few descriptors are allowed");
        return;
    }
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    std::vector<std::unique_ptr<Handler>> handlers;
    std::vector<int> fds;
    std::vector<epoll_event> events(descriptors);
    for (uint32_t i = 0; i < descriptors; ++i) {
        handlers.push_back(std::make_unique<Handler>());
        fds.push_back(descriptor(1));
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.ptr = handlers.back().get();
        epoll_ctl(epoll, EPOLL_CTL_ADD, fds.back(), &event);
    }
    for (auto _ : state) {
        const int count = epoll_wait(epoll, events.data(), static_cast<int>(events.size()), 0);
        for (uint32_t i = 0; i < static_cast<uint32_t>(count); ++i) {
            static_cast<Handler*>(events[i].data.ptr)->handleReadable();
        }
    }
    for (const int fd : fds) {
        close(fd);
    }
    close(epoll);
    state.SetItemsProcessed(state.iterations() * descriptors);
}

void idlePavo(benchmark::State& state, rlim_t count) {
    if (!allow(count)) {
        state.SkipWithError("too few descriptors are allowed");
        return;
    }
    Mox::EventLoop loop;
    std::vector<Mox::Ptr<Mox::FileDescriptor>> idle;
    for (rlim_t i = 0; i < count; ++i) {
        idle.push_back(Mox::fileDescriptorFactory(descriptor(0)));
        idle.back()->notifyOnReadableIs(true);
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(loop.turn(0));
    }
}

const bool registered = [] {
    for (const uint32_t count : {1u, 64u, 1000u, 10000u}) {
        const std::string line = "Ready" + std::to_string(count);
        benchmark::RegisterBenchmark((line + "/pavo").c_str(), readyPavo, count);
        benchmark::RegisterBenchmark((line + "/epoll").c_str(), readyEpoll, count);
    }
    return true;
}();
BENCHMARK_CAPTURE(idlePavo, tenThousand, 10000)->Name("Idle10000/pavo");
BENCHMARK_CAPTURE(idlePavo, one, 1)->Name("Idle10000/one");

}  // namespace
