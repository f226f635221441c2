/// @file
/// Random programs, in which everything that is notified acts, and the rules of notification.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "Mox/EventLoop.h"
#include "Mox/Exception.h"
#include "Mox/Ptr.h"
#include "sandbox/Sandbox.h"
#include "support/Seeds.h"

namespace PavoTest {

/// Actions that are performed at random, also by observers while they are notified. The program
/// knows which observers a change has to reach. Observers are numbers here; one that moves to
/// another entity, or returns to the same, gets a new number.
class RandomProgram {
  public:
    using Actions = std::vector<std::pair<const char*, std::function<void()>>>;
    struct Thrown {};  // By an action.

    RandomProgram(uint32_t seed, bool prints) : random_(seed), prints_(prints) {}

    uint32_t below(size_t limit) { return static_cast<uint32_t>(random_() % limit); }
    bool oneIn(uint32_t chances) { return below(chances) == 0; }
    template <class Items>
    auto& any(Items& items) {
        return items[below(std::size(items))];
    }
    void print(const std::string& text) const {
        if (prints_) {
            std::cerr << std::string(2 * notifications_.size(), ' ') << text << '\n';
        }
    }

    /// Performs an action while the budget lasts and no rule is broken. May throw `Thrown`.
    void act() {
        if (budget > 0 && !testing::Test::HasFailure()) {
            --budget;
            const auto& [name, action] = any(actions);
            print(name);
            action();
        }
    }
    void actSafely() {
        try {
            act();
        } catch (const Thrown&) {
            print("caught");
        }
    }
    /// What an observer does when it is notified.
    void respond() {
        for (uint32_t count = below(3); count > 0; --count) {
            oneIn(2) ? act() : actSafely();
        }
    }

    /// Performs a program with few actions of few kinds: it goes further than one that has all of
    /// them. The first two of each kind are the most frequent; they are performed at the start.
    /// Between the actions `advance` brings time and events on. `checkAtRest` comes now and then,
    /// and last; nothing acts then.
    void perform(const std::vector<Actions>& kinds, const std::function<void()>& advance,
                 const std::function<void()>& checkAtRest) {
        actions = {{"throw", [] { throw Thrown(); }}};
        for (uint32_t theme = below(kinds.size()), i = 0; i < kinds.size(); ++i) {
            for (uint32_t count = i == theme || oneIn(3) ? 6 : 0; count > 0; --count) {
                kinds[i][count % 2].second();
                actions.insert(actions.end(), {kinds[i][below(2)], any(kinds[i])});
            }
        }
        for (uint32_t steps = 10 + below(30); steps > 0 && !testing::Test::HasFailure(); --steps) {
            budget = 10;
            try {
                !oneIn(4) ? act() : advance();
            } catch (const Thrown&) {
                print("caught");
            } catch (const std::exception& error) {
                ADD_FAILURE() << "not thrown by an observer: " << error.what();
            }
            budget = 0;
            if (oneIn(8) || steps == 1) {
                checkAtRest();
            }
        }
    }

    /// What is configured may be refused; traffic never throws.
    template <class Act>
    static void configure(Act act) {
        try {
            act();
        } catch (const Mox::ErrnoException&) {
        }
    }

    /// Makes turns until nothing happens any more. `missing` describes what has arrived and should
    /// have been announced, or gives null; more may arrive at any time.
    static void settle(Mox::EventLoop& loop, const std::function<const char*()>& missing) {
        uint32_t turns = 0;
        const char* what = nullptr;
        while (turns < 300 && (loop.turn((what = missing()) ? 0.01 : 0) != 0 || what)) {
            ++turns;
        }
        EXPECT_STREQ(what, nullptr) << "was not announced";
        EXPECT_LT(turns, 300u) << "the loop spins";
    }

    /// A new observer of the attributes whose bits are set.
    uint32_t observe(const void* entity, uint64_t attributes, bool isActive = true) {
        observers_[++lastObserver_] = {entity, attributes, isActive};
        return lastObserver_;
    }
    void leave(uint32_t observer) { observers_.erase(observer); }
    void leaveAll(const void* entity) {
        std::erase_if(observers_, [&](const auto& each) { return each.second.entity == entity; });
    }
    void activeIs(uint32_t observer, bool isActive) {
        observers_[observer].isActive = isActive;
        for (Notification* each : notifications_) {
            if (each->pending_.count(observer) != 0) {
                each->pending_[observer] = false;
            }
        }
    }
    /// The library notifies an observer.
    void called(uint32_t observer, uint32_t attribute, uint32_t key) {
        print("observer " + std::to_string(observer));
        const auto it = observers_.find(observer);
        ASSERT_TRUE(it != observers_.end()) << "an observer that was removed";
        EXPECT_TRUE(it->second.isActive);
        const auto innermost = std::find_if(
            notifications_.rbegin(), notifications_.rend(),
            [&](const Notification* each) { return each->entity_ == it->second.entity; });
        ASSERT_TRUE(innermost != notifications_.rend());
        EXPECT_EQ((*innermost)->what_, std::pair(attribute, key));
        EXPECT_EQ((*innermost)->pending_.erase(observer), 1u)
            << "a second time, without a change, or of a change before it came";
    }

    /// One change: made before the library notifies of it, completed when the library returns. An
    /// exception leaves it incomplete and demands nothing.
    class Notification {
      public:
        Notification(RandomProgram& program, const void* entity, uint32_t attribute, uint32_t key,
                     bool isChange = true)
            : program_(program), entity_(entity), what_(attribute, key) {
            for (const auto& [number, each] : program.observers_) {
                if (isChange && each.entity == entity && (each.attributes >> attribute & 1) != 0) {
                    pending_[number] = each.isActive;
                }
            }
            program.notifications_.push_back(this);
        }
        ~Notification() { program_.notifications_.pop_back(); }
        void complete() const {
            for (const auto& [number, isDemanded] : pending_) {
                EXPECT_FALSE(isDemanded && program_.observers_.count(number) != 0)
                    << "observer " << number << " was there, active, and is not notified";
            }
        }

      private:
        friend class RandomProgram;

        RandomProgram& program_;
        const void* entity_;
        std::pair<uint32_t, uint32_t> what_;  // The attribute and the key.
        std::map<uint32_t, bool> pending_;  // Observers not notified yet, true if they have to be.
    };

    Actions actions;
    uint32_t budget = 0;

  private:
    struct Observer {
        const void* entity = nullptr;
        uint64_t attributes = 0;
        bool isActive = true;
    };

    std::mt19937 random_;
    const bool prints_;
    std::map<uint32_t, Observer> observers_;
    std::vector<Notification*> notifications_;  // The innermost one last.
    uint32_t lastObserver_ = 0;
};

/// Runs a program for each of `count` seeds. They run in a child process, so that the seed of a
/// crash or a hang is known. One that is asked for alone runs here, and prints what it does.
inline void runPrograms(uint32_t count, void (*run)(uint32_t seed, bool prints)) {
    const Seeds seeds(count);
    if (seeds.rounds() == 1) {
        for (const uint32_t seed : seeds) {
            run(seed, true);
        }
        return;
    }
    const auto runAll = [&] {
        for (const uint32_t seed : seeds) {
            alarm(60);
            run(seed, false);
        }
        const auto* result = testing::UnitTest::GetInstance()->current_test_info()->result();
        for (int i = 0; i < result->total_part_count(); ++i) {
            std::cerr << result->GetTestPartResult(i).message() << '\n';  // Not shown by a child.
        }
        exit(testing::Test::HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(runAll(), testing::ExitedWithCode(0), "");
}

/// Runs one program in a `World` of its own, and expects that it leaves nothing.
template <class World>
void runProgram(uint32_t seed, bool prints) {
    const auto descriptors = PavoSandbox::openDescriptors();
    const uint32_t objects = Mox::liveObjects();
    std::make_unique<World>(seed, prints)->run();
    EXPECT_EQ(PavoSandbox::openDescriptors(), descriptors);
    EXPECT_EQ(Mox::liveObjects(), objects);
}

}  // namespace PavoTest
