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

// Timers A, B and C, which write down their names when they expire; A then acts.
struct Scene {
    Scene() {
        for (const char name : {'A', 'B', 'C'}) {
            timers.push_back(std::make_unique<Timer>(&clock, [this, name] {
                log += name;
                if (name == 'A' && action) {
                    std::exchange(action, nullptr)(*this);
                }
            }));
        }
    }
    Timer& a() { return *timers[0]; }
    Timer& b() { return *timers[1]; }
    Timer& c() { return *timers[2]; }

    ManualClock clock;
    std::string log;
    std::function<void(Scene&)> action;
    std::vector<std::unique_ptr<Timer>> timers;
};

TEST(Clock, CallsInTheOrderOfExpiriesThenOfArming) {
    Scene s;
    s.c().expiryIs(1);
    s.a().expiryIs(2);
    s.b().expiryIs(1);
    EXPECT_EQ(s.clock.nextExpiry(), 1);
    s.clock.advance(0.999);
    EXPECT_EQ(s.log, "");
    s.clock.advance(2);
    EXPECT_EQ(s.log, "CBA");
    s.log.clear();
    s.b().expiryIs(5);
    s.a().expiryIs(5);
    s.b().expiryIs(5);  // Armed again, and so behind the other.
    s.c().expiryIs(-1);
    EXPECT_EQ(s.clock.fire(), 1u);
    EXPECT_EQ(s.log, "C");
    EXPECT_TRUE(s.c().isIdle());
    s.clock.advance(10);
    EXPECT_EQ(s.log, "CAB");
    EXPECT_EQ(s.clock.nextExpiry(), Clock::idle);
    EXPECT_EQ(s.clock.fire(), 0u);
}

TEST(Clock, HandlersMayArmCancelAndDestroyAnybody) {
    const struct {
        const char* what;
        void (*action)(Scene& s);  // By A, which is due with B and C, called before them.
        const char* heard;         // In this `fire`, with "!" for an exception,
        const char* heardNext;     // and in the next one, at the same time.
    } cases[] = {
        {"nothing", [](Scene&) {}, "ABC", ""},
        {"arms itself for now", [](Scene& s) { s.a().expiryIs(s.clock.now()); }, "ABC", "A"},
        {"arms itself for the past", [](Scene& s) { s.a().expiryIs(-1); }, "ABC", "A"},
        {"arms itself for later", [](Scene& s) { s.a().expiryIs(s.clock.now() + 1); }, "ABC", ""},
        {"cancels the next", [](Scene& s) { s.b().expiryIs(Clock::idle); }, "AC", ""},
        {"cancels the last", [](Scene& s) { s.c().expiryIs(Clock::idle); }, "AB", ""},
        {"arms the next again", [](Scene& s) { s.b().expiryIs(0); }, "AC", "B"},
        {"destroys the next", [](Scene& s) { s.timers.erase(s.timers.begin() + 1); }, "AC", ""},
        {"destroys the last", [](Scene& s) { s.timers.pop_back(); }, "AB", ""},
        {"destroys itself", [](Scene& s) { s.timers.erase(s.timers.begin()); }, "ABC", ""},
        {"destroys all", [](Scene& s) { s.timers.clear(); }, "A", ""},
        {"fires", [](Scene& s) { EXPECT_EQ(s.clock.fire(), 2u); }, "ABC", ""},
        {"throws", [](Scene&) { throw std::runtime_error("A"); }, "A!", "BC"},
        {"arms itself and throws",
         [](Scene& s) {
             s.a().expiryIs(0);
             throw std::runtime_error("A");
         },
         "A!", "BCA"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Scene scene;
        scene.clock.advance(5);
        scene.a().expiryIs(1);
        scene.b().expiryIs(2);
        scene.c().expiryIs(2);
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
    std::unique_ptr<Timer> timer;
    std::string heard;
    const std::string text(100, 'x');  // Would be freed with the function that holds it.
    timer = std::make_unique<Timer>(&clock, [&, text] {
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
    Timer* self = nullptr;
    Timer timer(&clock, [&] {
        times.push_back(clock.now());
        if (times.size() == 2) {
            clock.advance(10);
        } else if (times.size() == 1) {
            self->expiryIs(clock.now() + 1);
        }
    });
    self = &timer;
    timer.expiryIs(1);
    clock.advance(3);
    EXPECT_EQ(times, (std::vector<double>{1, 2}));
    EXPECT_EQ(clock.now(), 12);
    EXPECT_DEATH(clock.advance(-1), "assertion failed: seconds >= 0");
    EXPECT_DEATH(timer.expiryIs(std::nan("")), "assertion failed: !isnan\\( expiry \\)");
}

// Arms, cancels and goes on at random, beside a model that keeps the armed in a sorted list.
TEST(Clock, KeepsToASortedModel) {
    struct Armed {
        double expiry;
        uint32_t timer;
    };
    constexpr uint32_t count = 50;
    ManualClock clock;
    std::vector<Armed> model;  // In the order in which they are to be called.
    std::vector<std::pair<double, uint32_t>> fired;
    std::deque<Timer> timers;
    for (uint32_t i = 0; i < count; ++i) {
        timers.emplace_back(&clock, [&fired, &clock, i] { fired.emplace_back(clock.now(), i); });
    }
    const auto cancel = [&](uint32_t i) {
        timers[i].expiryIs(Clock::idle);
        std::erase_if(model, [&](const Armed& each) { return each.timer == i; });
    };
    std::minstd_rand random(1);
    uint64_t calls = 0;
    for (int step = 0; step < 10000; ++step) {
        const auto i = static_cast<uint32_t>(random() % count);
        const auto kind = random() % 8;
        if (kind == 0) {
            cancel(i);
        } else if (kind < 7) {
            cancel(i);
            // Whole numbers, so that many are equal.
            const double expiry = clock.now() + static_cast<double>(random() % 30);
            timers[i].expiryIs(expiry);
            model.insert(std::upper_bound(
                             model.begin(), model.end(), expiry,
                             [](double value, const Armed& each) { return value < each.expiry; }),
                         {expiry, i});
        } else {
            const double target = clock.now() + static_cast<double>(random() % 5);
            fired.clear();
            clock.advance(target - clock.now());
            for (const auto& [when, timer] : fired) {
                ASSERT_FALSE(model.empty()) << "step " << step;
                ASSERT_EQ(when, model.front().expiry) << "step " << step;
                ASSERT_EQ(timer, model.front().timer) << "step " << step;
                ASSERT_TRUE(timers[timer].isIdle());
                model.erase(model.begin());
            }
            calls += fired.size();
            ASSERT_TRUE(model.empty() || model.front().expiry > target) << "step " << step;
        }
        ASSERT_EQ(clock.nextExpiry(), model.empty() ? Clock::idle : model.front().expiry);
    }
    EXPECT_GT(calls, 1000u);
}

}  // namespace
}  // namespace Mox
