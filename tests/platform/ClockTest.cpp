// The timers of a clock, and those of a wheel on it, which behave alike.
#include "Mox/Clock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Keel/TimerWheel.h"
#include "support/Seeds.h"

namespace Mox {
namespace {

// A clock that stands wherever it is put, also past an expiry.
struct SetClock : Clock {
    double now() const override { return time; }
    double time = 1000.3;  // Not exact in binary, as most times are not.
};
template <class AnyClock>
struct OfClock {
    using Timer = Mox::Timer;
    AnyClock clock;
    AnyClock* source() { return &clock; }
};
template <class AnyClock>
struct OfWheel {
    using Timer = Keel::Timer;
    AnyClock clock;
    std::optional<Keel::TimerWheel> wheel;  // Begins with its first timer, between two ticks.
    Keel::TimerWheel* source() { return &(wheel ? *wheel : wheel.emplace(&clock)); }
};

// Which timers a program from a seed calls, and when; -1 for an exception. With `cancels` it
// cancels, postpones and replaces timers, otherwise it arms them also for the past: a clock also
// stops where a timer of a wheel was cancelled, and then calls those that are overdue.
template <class Source>
std::vector<std::pair<int, double>> callsOfProgram(uint32_t seed, bool cancels) {
    std::mt19937 random(seed);
    const auto draw = [&](double from, double to) {
        return std::uniform_real_distribution<double>(from, to)(random);
    };
    Source at;
    at.clock.advance(draw(0, 1));
    std::vector<std::pair<int, double>> calls;
    std::vector<std::optional<typename Source::Timer>> timers(50);
    const auto arm = [&](std::size_t which) {
        if (!cancels && !timers[which]->isIdle()) {
            return;
        }
        const double now = at.clock.now();
        const double atTheSameTime = std::round(now + 0.5 + draw(0, 8));
        const double expiries[] = {atTheSameTime, cancels ? Clock::idle : now, now - !cancels};
        const auto kind = random() % 10;  // Mostly from microseconds to years.
        timers[which]->expiryIs(
            kind < 3 && (kind != 2 || !cancels) ? expiries[kind] : now + std::pow(10, draw(-6, 8)));
    };
    const std::function<void(std::size_t)> replace = [&](std::size_t which) {
        timers[which].emplace(at.source(), [&, which] {
            calls.emplace_back(which, at.clock.now());
            const auto kind = random() % 8;
            if (kind < 4) {
                arm(kind < 3 ? which : random() % timers.size());
            }
            if (kind == 0) {
                throw std::runtime_error("thrown");
            }
            if (kind == 4 && cancels) {
                replace(random() % timers.size());  // Last, since this one may end with it.
            }
        });
    };
    for (std::size_t which = 0; which < timers.size(); ++which) {
        replace(which);
    }
    Timer outside(&at.clock, [&] { arm(random() % timers.size()); });  // In no call of a wheel.
    for (int step = 0; step < 5000; ++step) {
        outside.expiryIs(at.clock.now() + std::pow(10, draw(-5, 1)));
        arm(random() % timers.size());
        if (random() % 4 == 0) {
            try {
                at.clock.advance(std::pow(10, draw(-5, random() % 100 == 0 ? 7 : 1)));
                for (const auto& each : timers) {
                    EXPECT_TRUE(!cancels || each->expiry() > at.clock.now()) << "passed over";
                }
            } catch (const std::runtime_error&) {
                calls.emplace_back(-1, at.clock.now());
            }
        }
    }
    return calls;
}

TEST(DueQueue, KeepsTheOrderOfASet) {
    for (const uint32_t seed : PavoTest::Seeds(30)) {
        std::mt19937 random(seed);
        const uint32_t inOrder = seed % 3 * 5;  // Of ten timers, those armed for the same interval.
        std::vector<Due> timers(seed % 2 == 0 ? 400 : 7);
        std::set<std::pair<double, uint64_t>> model;
        DueQueue queue;
        double now = 0;
        const auto remove = [&](Due* due) {
            model.erase({due->seconds, due->armedAs});
            queue.remove(due);
        };
        for (uint64_t step = 1; step <= 20000; ++step) {
            Due* due = &timers[random() % timers.size()];
            const auto kind = random() % 10;
            const bool moves = kind < 4;
            if (moves) {
                model.erase({due->seconds, due->armedAs});
            } else {
                remove(due);
            }
            if (kind < 7) {
                const bool usual = random() % 10 < inOrder;
                const Due place = {now + (usual ? 50 : static_cast<double>(random() % 100)), step};
                model.emplace(place.seconds, place.armedAs);
                if (moves) {
                    queue.move(due, place);
                } else {
                    *due = place;
                    queue.push(due);
                }
            } else if (kind < 9 && !model.empty()) {
                now = std::max(now, queue.first()->seconds);
                remove(queue.first());
            }
            ASSERT_EQ(queue.first() == nullptr, model.empty());
            ASSERT_TRUE(model.empty() || queue.first()->armedAs == model.begin()->second) << seed;
            const auto later = model.upper_bound({now, UINT64_MAX});
            ASSERT_EQ(queue.firstAfter(now), later == model.end() ? Clock::idle : later->first);
        }
    }
}

TEST(TimerWheel, CallsItsTimersLikeTheClockItsOwn) {
    for (const uint32_t seed : PavoTest::Seeds(30)) {
        const bool cancels = seed % 2 == 0;
        const auto ofClock = callsOfProgram<OfClock<ManualClock>>(seed, cancels);
        ASSERT_EQ(callsOfProgram<OfWheel<ManualClock>>(seed, cancels), ofClock) << seed;
        ASSERT_GT(ofClock.size(), 50u);  // As many as there are timers.
    }
}

TEST(TimerWheel, WakesItsClockOnlyWhenATimerIsDue) {
    for (const double seconds : {0.0001, 0.5, 20.0, 3600.0, 1e7, 1e13}) {
        ManualClock clock;
        Keel::TimerWheel wheel(&clock);
        Keel::Timer timer(&wheel, [&] { EXPECT_EQ(clock.now(), seconds); });
        timer.expiryIs(seconds);
        EXPECT_EQ(clock.nextExpiry(), seconds);
        clock.advance(std::nextafter(seconds, 0));
        EXPECT_EQ(clock.nextExpiry(), seconds);
        clock.advance(seconds);
        EXPECT_EQ(clock.nextExpiry(), Clock::idle);
    }
}

TEST(ManualClock, MakesOneRoundAtEachStopAndNeverGoesBack) {
    ManualClock clock;
    std::vector<double> times;
    Timer always(&clock, [&] {
        times.push_back(clock.now());
        always.expiryIs(0);
    });
    Timer other(&clock, [&] { times.push_back(-clock.now()); });
    always.expiryIs(0);
    other.expiryIs(3);
    clock.advance(5);
    clock.advance(0);
    EXPECT_EQ(times, (std::vector<double>{0, 3, -3, 5, 5}));
    Timer moves(&clock, [&] { clock.advance(10); });
    moves.expiryIs(6);
    clock.advance(2);
    EXPECT_EQ(clock.now(), 16);
    EXPECT_DEATH(clock.advance(-1), "assertion failed: seconds >= 0");
}

template <class Source>
class TimerTest : public testing::Test {};
using Sources = testing::Types<OfClock<SetClock>, OfWheel<SetClock>>;
TYPED_TEST_SUITE(TimerTest, Sources);

TYPED_TEST(TimerTest, RepeatsAtMultiplesOfItsPeriodWithoutDriftAndSkipsThoseThatPassed) {
    TypeParam at;
    std::vector<double> dues;
    std::optional<typename TypeParam::Timer> timer;
    timer.emplace(at.source(), [&] {
        dues.push_back(timer->due());
        if (dues.size() == 3) {
            throw std::runtime_error("thrown");  // It goes on all the same.
        }
    });
    timer->every(0.1);
    const double first = at.clock.time + 0.1;
    const struct {
        double round;       // Its time, in periods after the first call,
        std::size_t calls;  // the calls until then,
        double due, next;   // when the last one was due, and the next one is.
    } rounds[] = {
        {0.2, 1, 0, 1}, {0.9, 1, 0, 1},       {1.0, 2, 1, 2},
        {7.5, 3, 2, 8}, {8888.5, 4, 8, 8889}, {8889.2, 5, 8889, 8890},
    };
    for (const auto& c : rounds) {
        SCOPED_TRACE(c.round);
        at.clock.time = first + c.round * 0.1;
        try {
            at.clock.fire();
            at.clock.fire();
        } catch (const std::runtime_error&) {
        }
        ASSERT_EQ(dues.size(), c.calls);
        EXPECT_EQ(dues.back(), first + c.due * 0.1);
        EXPECT_EQ(timer->expiry(), first + c.next * 0.1);
    }
    for (int periods = 8890; periods < 9000; ++periods) {  // Exactly on time.
        at.clock.time = first + periods * 0.1;
        at.clock.fire();
        EXPECT_EQ(dues.back(), at.clock.time);
        EXPECT_EQ(at.clock.fire(), 0u);
    }
    timer->expiryIs(0);  // Ends the period; a past expiry is due in the round after it.
    at.clock.fire();
    EXPECT_EQ(dues.back(), at.clock.time);
    EXPECT_TRUE(timer->isIdle());
    EXPECT_DEATH(timer->expiryIs(std::nan("")), "assertion failed: !isnan\\( expiry \\)");
}

TYPED_TEST(TimerTest, OutlivesItsClock) {
    std::optional<TypeParam> at(std::in_place);
    typename TypeParam::Timer idle(at->source(), [] {});
    typename TypeParam::Timer armed(at->source(), [] {});
    typename TypeParam::Timer late(at->source(), [&] {
        late.expiryIs(0);
        EXPECT_DEATH(at.reset(), "assertion failed: !(firing_|turning)");
    });
    late.expiryIs(0);
    armed.expiryIs(7000);
    at->clock.fire();
    at.reset();
    for (auto* each : {&idle, &armed, &late}) {
        EXPECT_TRUE(each->isIdle() && each->clock() == nullptr);
        each->expiryIs(Clock::idle);
        EXPECT_DEATH(each->expiryIs(8), "assertion failed: clock\\(\\)");
    }
}

}  // namespace
}  // namespace Mox
