// A hundred thousand timers are armed, armed anew and fired, by a wheel on the event loop's clock
// and by libevent's heap. All are due within ten milliseconds, which arming alone takes: neither
// waits. Then the lateness of a single timer of 100 microseconds, for which both wait: the time
// that is reported is that between its expiry and its handler.

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <event2/event_struct.h>

#include <cstdint>
#include <deque>
#include <random>
#include <vector>

#include "Keel/TimerWheel.h"
#include "Mox/EventLoop.h"
#include "WordTimes.h"

namespace {

constexpr uint32_t timers = 100000;

// The delays of the first and the second arming, in seconds.
std::vector<double> delays() {
    std::mt19937 random(1);
    std::uniform_real_distribution<double> within(0, 0.01);
    std::vector<double> all(2 * timers);
    for (double& each : all) {
        each = within(random);
    }
    return all;
}

class WheelTimer : public Keel::TimerWheel::Notifiee {
  public:
    WheelTimer(Keel::TimerWheel* wheel, uint32_t* fired) : Notifiee(wheel), fired_(fired) {}
    void handleExpiry() override { ++*fired_; }

  private:
    uint32_t* fired_;
};

void BM_Timers(benchmark::State& state) {
    const std::vector<double> after = delays();
    uint32_t fired = 0;
    Mox::EventLoop loop;
    Keel::TimerWheel wheel(loop.clock());
    std::deque<WheelTimer> all;
    for (uint32_t i = 0; i < timers; ++i) {
        all.emplace_back(&wheel, &fired);
    }
    for (auto _ : state) {
        fired = 0;
        const double start = loop.clock()->now();
        for (uint32_t i = 0; i < 2 * timers; ++i) {
            all[i % timers].expiryIs(start + after[i]);
        }
        while (fired < timers) {
            loop.turn(0);
        }
    }
    state.SetItemsProcessed(state.iterations() * timers);
}
BENCHMARK(BM_Timers)->Name("Timers100000/pavo")->Unit(benchmark::kNanosecond)->UseRealTime();

void BM_LibeventTimers(benchmark::State& state) {
    const std::vector<double> after = delays();
    uint32_t fired = 0;
    event_base* base = event_base_new();
    std::vector<event> all(timers);
    for (event& each : all) {
        evtimer_assign(
            &each, base,
            [](evutil_socket_t, short, void* count) { ++*static_cast<uint32_t*>(count); }, &fired);
    }
    for (auto _ : state) {
        fired = 0;
        for (uint32_t i = 0; i < 2 * timers; ++i) {
            const PavoBench::WordTimeval delay{0, static_cast<long>(after[i] * 1e6)};
            evtimer_add(&all[i % timers], delay.get());
        }
        while (fired < timers) {
            event_base_loop(base, EVLOOP_NONBLOCK);
        }
    }
    state.SetItemsProcessed(state.iterations() * timers);
    event_base_free(base);
}
BENCHMARK(BM_LibeventTimers)
    ->Name("Timers100000/libevent")
    ->Unit(benchmark::kNanosecond)
    ->UseRealTime();

constexpr double shortDelaySeconds = 100e-6;

void BM_Lateness(benchmark::State& state) {
    Mox::EventLoop loop;
    double fired = 0;
    Mox::Timer timer(loop.clock(), [&] { fired = loop.clock()->now(); });
    for (auto _ : state) {
        timer.expiryIs(loop.clock()->now() + shortDelaySeconds);
        const double expiry = timer.expiry();
        while (!timer.isIdle()) {
            loop.turn();
        }
        state.SetIterationTime(fired - expiry);
    }
}
BENCHMARK(BM_Lateness)->Name("Late100us/pavo")->UseManualTime();

void BM_LibeventLateness(benchmark::State& state) {
    const Mox::MonotonicClock clock;
    event_base* base = event_base_new();
    double fired = 0;
    struct Context {
        const Mox::MonotonicClock& clock;
        double& fired;
    } context{clock, fired};
    event timer;
    evtimer_assign(
        &timer, base,
        [](evutil_socket_t, short, void* argument) {
            const auto* its = static_cast<Context*>(argument);
            its->fired = its->clock.now();
        },
        &context);
    for (auto _ : state) {
        const PavoBench::WordTimeval delay{0, static_cast<long>(shortDelaySeconds * 1e6)};
        const double expiry = clock.now() + shortDelaySeconds;
        evtimer_add(&timer, delay.get());
        event_base_loop(base, EVLOOP_ONCE);
        state.SetIterationTime(fired - expiry);
    }
    event_base_free(base);
}
BENCHMARK(BM_LibeventLateness)->Name("Late100us/libevent")->UseManualTime();

}  // namespace
