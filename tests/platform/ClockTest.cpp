// The timers of a clock, and those of a wheel on it, to which the same may be done.
#include "Mox/Clock.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "Keel/TimerWheel.h"

namespace Mox {
namespace {

// Timers A, B and C, due in this order, which write down their names when they expire; A then acts.
template <class AnyTimer>
struct Scene {
    Scene() {
        clock.advance(5);
        for (const char name : {'A', 'B', 'C'}) {
            // The text would be freed with the function that holds it.
            timers.push_back(
                std::make_unique<AnyTimer>(source(), [this, text = std::string(100, name)] {
                    const std::string before = text;
                    log += text.front();
                    if (text.front() == 'A' && action) {
                        std::exchange(action, nullptr)(*this);
                    }
                    EXPECT_EQ(text, before);
                }));
            timers.back()->expiryIs(name == 'A' ? 1 : 2);
        }
    }
    auto source() {
        if constexpr (std::is_same_v<AnyTimer, Timer>) {
            return &clock;
        } else {
            return &wheel;
        }
    }
    AnyTimer& a() { return *timers[0]; }
    AnyTimer& b() { return *timers[1]; }
    AnyTimer& c() { return *timers[2]; }
    void armAndThrow() {
        a().expiryIs(0);
        throw std::runtime_error("A");
    }

    ManualClock clock;
    Keel::TimerWheel wheel{&clock};
    std::string log;
    std::function<void(Scene&)> action;
    std::vector<std::unique_ptr<AnyTimer>> timers;
};

template <class AnyTimer>
class ClockTest : public testing::Test {};

using Timers = testing::Types<Timer, Keel::Timer>;
TYPED_TEST_SUITE(ClockTest, Timers);

TYPED_TEST(ClockTest, HandlersMayArmCancelAndDestroyAnybody) {
    using S = Scene<TypeParam>;
    const struct {
        const char* what;
        void (*action)(S& s);
        const char* heard;      // In the first `fire`, with "!" for an exception,
        const char* heardNext;  // and in the next one, at the same time.
    } cases[] = {
        {"arms itself for the past", [](S& s) { s.a().expiryIs(-1); }, "ABC", "A"},
        {"arms itself for later", [](S& s) { s.a().expiryIs(s.clock.now() + 1); }, "ABC", ""},
        {"cancels the next", [](S& s) { s.b().expiryIs(Clock::idle); }, "AC", ""},
        {"cancels the last", [](S& s) { s.c().expiryIs(Clock::idle); }, "AB", ""},
        {"arms the next again", [](S& s) { s.b().expiryIs(0); }, "AC", "B"},
        {"destroys itself", [](S& s) { s.timers.erase(s.timers.begin()); }, "ABC", ""},
        {"destroys the next", [](S& s) { s.timers.erase(s.timers.begin() + 1); }, "AC", ""},
        {"destroys all", [](S& s) { s.timers.clear(); }, "A", ""},
        {"fires", [](S& s) { s.clock.fire(); }, "ABC", ""},
        // A clock then keeps to the order of arming, a wheel to that of the times.
        {"arms itself and throws", [](S& s) { s.armAndThrow(); }, "A!",
         std::is_same_v<TypeParam, Timer> ? "BCA" : "ABC"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        S scene;
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
    EXPECT_DEATH(S().a().expiryIs(std::nan("")), "assertion failed: !isnan\\( expiry \\)");
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
}

}  // namespace
}  // namespace Mox
