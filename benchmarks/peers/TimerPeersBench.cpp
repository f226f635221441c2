// A hundred thousand timers are armed, armed anew for later, and fired when all are due: by a
// wheel, by a clock, by libev's heap and by a multimap. They become due in the order in which they
// are armed, as timers of one interval do, or in another one (Mixed).

#include <benchmark/benchmark.h>
#include <ev.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Keel/TimerWheel.h"
#include "Mox/Clock.h"

namespace {

constexpr uint32_t timers = 100000;
constexpr double step = 1e-7;  // From one timer to the next.
constexpr double interval = timers * step;

struct SetClock : Mox::Clock {
    double now() const override { return time; }
    double time = 1000;
};

struct Wheel {
    using Source = Keel::TimerWheel;
    SetClock clock;
    Keel::TimerWheel source{&clock};
};

struct Clock {
    using Source = Mox::Clock;
    SetClock clock;
    Mox::Clock& source = clock;
};

template <class Base>
class Pavo {
  public:
    Pavo() : all_(timers) {
        for (auto& each : all_) {
            each.emplace(&base_.source, &fired_);
        }
    }
    void arm(uint32_t which, double after) { all_[which]->expiryIs(base_.clock.time + after); }
    void rearm(uint32_t which, double after) { arm(which, after); }
    void pass(double seconds) { base_.clock.time += seconds; }
    uint32_t fire() {
        fired_ = 0;
        base_.clock.fire();
        return fired_;
    }

  private:
    class Timer : public Base::Source::Notifiee {
      public:
        Timer(typename Base::Source* source, uint32_t* fired)
            : Base::Source::Notifiee(source), fired_(fired) {}
        void handleExpiry() override { ++*fired_; }

      private:
        uint32_t* fired_;
    };

    Base base_;
    uint32_t fired_ = 0;
    std::vector<std::optional<Timer>> all_;  // Side by side, as those of the peers are.
};

class Libev {
  public:
    Libev() : all_(timers) {
        for (ev_timer& each : all_) {
            ev_timer_init(&each, handle, 0, 0);
        }
        ev_set_userdata(loop_.get(), &fired_);
    }
    void arm(uint32_t which, double after) {
        ev_timer_set(&all_[which], after, 0);
        ev_timer_start(loop_.get(), &all_[which]);
    }
    void rearm(uint32_t which, double after) {
        all_[which].repeat = after;
        ev_timer_again(loop_.get(), &all_[which]);
        all_[which].repeat = 0;
    }
    void pass(double seconds) {
        ev_now_update(loop_.get());
        const double until = ev_now(loop_.get()) + seconds;
        while (ev_now(loop_.get()) < until) {
            ev_now_update(loop_.get());
        }
    }
    uint32_t fire() {
        fired_ = 0;
        ev_run(loop_.get(), EVRUN_NOWAIT);
        return fired_;
    }

  private:
    struct End {
        void operator()(struct ev_loop* loop) const { ev_loop_destroy(loop); }
    };
    static void handle(struct ev_loop* loop, ev_timer*, int) {
        ++*static_cast<uint32_t*>(ev_userdata(loop));
    }

    std::unique_ptr<struct ev_loop, End> loop_{ev_loop_new(EVFLAG_AUTO)};
    uint32_t fired_ = 0;
    std::vector<ev_timer> all_;
};

class Multimap {
  public:
    Multimap() : all_(timers) {
        for (Timer& each : all_) {
            each.fired = &fired_;
        }
    }
    void arm(uint32_t which, double after) {
        all_[which].place = armed_.emplace(now_ + after, &all_[which]);
    }
    void rearm(uint32_t which, double after) {
        auto node = armed_.extract(all_[which].place);
        node.key() = now_ + after;
        all_[which].place = armed_.insert(std::move(node));
    }
    void pass(double seconds) { now_ += seconds; }
    uint32_t fire() {
        fired_ = 0;
        while (!armed_.empty() && armed_.begin()->first <= now_) {
            Callee* due = armed_.begin()->second;
            armed_.erase(armed_.begin());
            due->handleExpiry();
        }
        return fired_;
    }

  private:
    struct Callee {
        virtual ~Callee() = default;
        virtual void handleExpiry() = 0;
    };
    struct Timer : Callee {
        void handleExpiry() override { ++*fired; }
        std::multimap<double, Callee*>::iterator place;
        uint32_t* fired = nullptr;
    };

    double now_ = 1000;
    std::multimap<double, Callee*> armed_;
    uint32_t fired_ = 0;
    std::vector<Timer> all_;
};

enum class Phase { arm, rearm, fire };

// The delay of each timer from the first one.
enum class Delays { inOrder, mixed };
std::vector<double> delaysOf(Delays kind) {
    std::vector<double> delays(timers);
    for (uint32_t i = 0; i < timers; ++i) {
        delays[i] = i * step;
    }
    if (kind == Delays::mixed) {
        std::shuffle(delays.begin(), delays.end(), std::mt19937(1));
    }
    return delays;
}

// Each iteration goes through all phases, and the time of one is taken.
template <class Timers>
void run(benchmark::State& state, Delays kind, Phase timed) {
    const Mox::MonotonicClock real;
    const std::vector<double> delays = delaysOf(kind);
    Timers all;
    const auto take = [&](Phase phase, auto work) {
        const double begin = real.now();
        work();
        if (phase == timed) {
            state.SetIterationTime(real.now() - begin);
        }
    };
    for (auto _ : state) {
        take(Phase::arm, [&] {
            for (uint32_t i = 0; i < timers; ++i) {
                all.arm(i, interval + delays[i]);
            }
        });
        take(Phase::rearm, [&] {
            for (uint32_t i = 0; i < timers; ++i) {
                all.rearm(i, 2 * interval + delays[i]);
            }
        });
        all.pass(3 * interval);
        uint32_t fired = 0;
        take(Phase::fire, [&] { fired = all.fire(); });
        if (fired != timers) {
            state.SkipWithError("not all were called");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * timers);
}

// Lines named after the phase, such as TimerArm/libev.
template <class Timers>
void registerPhases(const std::string& line, const std::string& who) {
    const struct {
        const char* name;
        Phase phase;
    } phases[] = {{"Arm", Phase::arm}, {"Rearm", Phase::rearm}, {"Fire", Phase::fire}};
    for (const auto& each : phases) {
        for (const auto kind : {Delays::inOrder, Delays::mixed}) {
            const auto name = line + each.name + (kind == Delays::mixed ? "Mixed/" : "/") + who;
            benchmark::RegisterBenchmark(name.c_str(), run<Timers>, kind, each.phase)
                ->UseManualTime();
        }
    }
}

template <class Ours>
void registerLine(const std::string& line) {
    registerPhases<Pavo<Ours>>(line, "pavo");
    registerPhases<Libev>(line, "libev");
    registerPhases<Multimap>(line, "multimap");
}

const bool registered = [] {
    registerLine<Wheel>("Timer");
    registerLine<Clock>("Clock");
    return true;
}();

}  // namespace
