#include "Mox/Clock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Mox {
namespace {

// Timers A, B and C, due in this order, which write down their names when they expire; A then acts.
struct Scene {
    Scene() {
        clock.advance(5);
        for (const char name : {'A', 'B', 'C'}) {
            timers.push_back(std::make_unique<Timer>(&clock, [this, name] {
                log += name;
                if (name == 'A' && action) {
                    std::exchange(action, nullptr)(*this);
                }
            }));
            timers.back()->expiryIs(name == 'A' ? 1 : 2);
        }
    }
    Timer& a() { return *timers[0]; }
    Timer& b() { return *timers[1]; }
    Timer& c() { return *timers[2]; }
    void armAndThrow() {
        a().expiryIs(0);
        throw std::runtime_error("A");
    }

    ManualClock clock;
    std::string log;
    std::function<void(Scene&)> action;
    std::vector<std::unique_ptr<Timer>> timers;
};

TEST(Clock, HandlersMayArmCancelAndDestroyAnybody) {
    const struct {
        const char* what;
        void (*action)(Scene& s);
        const char* heard;      // In the first `fire`, with "!" for an exception,
        const char* heardNext;  // and in the next one, at the same time.
    } cases[] = {
        {"arms itself for the past", [](Scene& s) { s.a().expiryIs(-1); }, "ABC", "A"},
        {"arms itself for later", [](Scene& s) { s.a().expiryIs(s.clock.now() + 1); }, "ABC", ""},
        {"cancels the next", [](Scene& s) { s.b().expiryIs(Clock::idle); }, "AC", ""},
        {"cancels the last", [](Scene& s) { s.c().expiryIs(Clock::idle); }, "AB", ""},
        {"arms the next again", [](Scene& s) { s.b().expiryIs(0); }, "AC", "B"},
        {"destroys itself", [](Scene& s) { s.timers.erase(s.timers.begin()); }, "ABC", ""},
        {"destroys all", [](Scene& s) { s.timers.clear(); }, "A", ""},
        {"fires", [](Scene& s) { EXPECT_EQ(s.clock.fire(), 2u); }, "ABC", ""},
        {"arms itself and throws", [](Scene& s) { s.armAndThrow(); }, "A!", "BCA"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Scene scene;
        scene.action = c.action;
        try {
            scene.clock.fire();
        } catch (const std::runtime_error&) {
            scene.log += '!';
        }
        EXPECT_EQ(scene.log, c.heard);
        scene.log.clear();
        scene.clock.fire();
        EXPECT_EQ(scene.log, c.heardNext);
    }
}

TEST(Clock, ATimerKeepsItsFunctionWhileThatDestroysIt) {
    ManualClock clock;
    std::string heard;
    const std::string text(100, 'x');  // Would be freed with the function that holds it.
    std::unique_ptr<Timer> timer = std::make_unique<Timer>(&clock, [&, text] {
        timer.reset();
        heard = text;
    });
    timer->expiryIs(0);
    clock.fire();
    EXPECT_EQ(heard, text);
}

TEST(ManualClock, StandsAtEachExpiryAndNeverGoesBack) {
    ManualClock clock;
    std::vector<double> times;
    Timer second(&clock, [&] {
        times.push_back(clock.now());
        clock.advance(10);
    });
    Timer first(&clock, [&] {
        times.push_back(clock.now());
        second.expiryIs(clock.now() + 1);
    });
    first.expiryIs(1);
    clock.advance(3);
    EXPECT_EQ(times, (std::vector<double>{1, 2}));
    EXPECT_EQ(clock.now(), 12);
    EXPECT_DEATH(clock.advance(-1), "assertion failed: seconds >= 0");
    EXPECT_DEATH(first.expiryIs(std::nan("")), "assertion failed: !isnan\\( expiry \\)");
}

// Arms, cancels and goes on at random, beside a list in the order of expiries and then of arming.
TEST(Clock, KeepsToASortedModel) {
    using Call = std::pair<double, uint32_t>;  // When, and which timer.
    constexpr uint32_t count = 50;
    ManualClock clock;
    std::vector<Call> model;
    std::vector<Call> fired;
    std::deque<Timer> timers;
    for (uint32_t i = 0; i < count; ++i) {
        timers.emplace_back(&clock, [&fired, &clock, i] { fired.emplace_back(clock.now(), i); });
    }
    std::minstd_rand random(1);
    std::size_t calls = 0;
    for (int step = 0; step < 10000; ++step) {
        SCOPED_TRACE(step);
        const auto i = static_cast<uint32_t>(random() % count);
        const auto kind = random() % 8;
        if (kind == 7) {
            const double target = clock.now() + static_cast<double>(random() % 5);
            const auto due = std::find_if(model.begin(), model.end(),
                                          [&](const Call& each) { return each.first > target; });
            fired.clear();
            clock.advance(target - clock.now());
            ASSERT_EQ(fired, std::vector<Call>(model.begin(), due));
            calls += fired.size();
            model.erase(model.begin(), due);
        } else {  // Whole numbers, so that many are equal.
            const double expiry =
                kind == 0 ? Clock::idle : clock.now() + static_cast<double>(random() % 30);
            timers[i].expiryIs(expiry);
            std::erase_if(model, [i](const Call& each) { return each.second == i; });
            if (kind != 0) {
                model.insert(std::find_if(model.begin(), model.end(),
                                          [&](const Call& each) { return each.first > expiry; }),
                             {expiry, i});
            }
        }
        ASSERT_EQ(clock.nextExpiry(), model.empty() ? Clock::idle : model.front().first);
    }
    EXPECT_GT(calls, 1000u);
}

}  // namespace
}  // namespace Mox
