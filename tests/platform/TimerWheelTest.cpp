#include "Keel/TimerWheel.h"

#include <gtest/gtest.h>

#include <cmath>
#include <deque>
#include <random>
#include <utility>
#include <vector>

namespace {

using Firing = std::pair<uint32_t, double>;  // Which timer, and when.

// A clock's own notifiees are the model of the wheel's: the same calls make both fire the same.
TEST(TimerWheel, FiresLikeTheNotifieesOfItsClock) {
    std::mt19937 random(20261121);
    Mox::ManualClock clock;
    clock.advance(0.3);  // A start between two ticks.
    Keel::TimerWheel wheel(&clock);
    std::vector<Firing> fired[2];
    std::deque<Keel::Timer> timers;
    std::deque<Mox::Timer> models;
    constexpr uint32_t count = 200;
    std::vector<uint32_t> calls[2] = {std::vector<uint32_t>(count), std::vector<uint32_t>(count)};
    // Two calls of three arm the timer again, some of them for the same time.
    const auto handler = [&](uint32_t i, uint32_t side, auto& own) {
        return [&, i, side] {
            fired[side].emplace_back(i, clock.now());
            if (++calls[side][i] % 3 != 0) {
                own[i].expiryIs(clock.now() + i % 4 * i * 1e-4);
            }
        };
    };
    for (uint32_t i = 0; i < count; ++i) {
        timers.emplace_back(&wheel, handler(i, 0, timers));
        models.emplace_back(&clock, handler(i, 1, models));
    }
    const auto draw = [&random](double from, double to) {
        return std::uniform_real_distribution<double>(from, to)(random);
    };
    for (uint32_t step = 0; step < 100000; ++step) {
        const auto which = static_cast<uint32_t>(random() % count);
        double expiry = Keel::TimerWheel::idle;
        switch (random() % 8) {
            case 0:
                break;
            case 1:
                expiry = clock.now();
                break;
            case 2:
                expiry = std::round(clock.now() + draw(0, 8));  // Many at the same time.
                break;
            default:  // From microseconds to years.
                expiry = clock.now() + std::pow(10, draw(-6, 8));
        }
        timers[which].expiryIs(expiry);
        models[which].expiryIs(expiry);
        ASSERT_EQ(timers[which].expiry(), models[which].expiry());
        if (random() % 4 == 0) {
            clock.advance(std::pow(10, draw(-5, random() % 100 == 0 ? 7 : 1)));
        }
    }
    EXPECT_GT(fired[0].size(), 20000u);
    ASSERT_EQ(fired[0].size(), fired[1].size());
    for (size_t i = 0; i < fired[0].size(); ++i) {
        ASSERT_EQ(fired[0][i], fired[1][i]) << "firing " << i;
    }
}

TEST(TimerWheel, WakesItsClockOnlyWhenATimerIsDue) {
    for (const double seconds : {0.0001, 0.5, 20.0, 3600.0, 1e7, 1e13}) {
        Mox::ManualClock clock;
        Keel::TimerWheel wheel(&clock);
        std::vector<double> calls;
        Keel::Timer timer(&wheel, [&] { calls.push_back(clock.now()); });
        timer.expiryIs(seconds);
        EXPECT_EQ(clock.nextExpiry(), seconds);
        clock.advance(std::nextafter(seconds, 0));
        EXPECT_EQ(clock.nextExpiry(), seconds);
        EXPECT_TRUE(calls.empty());
        clock.advance(seconds);
        EXPECT_EQ(calls, std::vector<double>{seconds});
        EXPECT_EQ(clock.nextExpiry(), Keel::TimerWheel::idle);
    }
}

}  // namespace
