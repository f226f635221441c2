/// @file
/// The seeds of random tests: the one place that decides how many rounds a test makes.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <new>

namespace PavoTest {

/// The seeds 1 to `rounds`, each of which is one round of a random test:
///
///     for (const uint32_t seed : PavoTest::Seeds(4000)) {
///         std::mt19937 random(seed);
///
/// In the environment PAVO_TEST_ROUNDS replaces the number of rounds, and PAVO_TEST_SEED is the
/// first seed; alone, it asks for that one round. The rounds end with the first that fails, and its
/// seed is printed. Rounds may run in a child process: the count of those that passed is shared.
class Seeds {
  public:
    explicit Seeds(uint32_t rounds)
        : first_(number("PAVO_TEST_SEED", 1)),
          rounds_(number("PAVO_TEST_ROUNDS", getenv("PAVO_TEST_SEED") != nullptr ? 1 : rounds)),
          passed_(newCount()) {}
    ~Seeds() {
        if (testing::Test::HasFailure()) {
            std::cerr << "Run the round that failed alone: PAVO_TEST_SEED=" << first_ + *passed_
                      << '\n';
        }
        if (getenv("PAVO_TEST_ROUNDS") != nullptr) {
            std::cout << *passed_ << " rounds passed, from seed " << first_ << std::endl;
        }
        munmap(passed_, sizeof(Count));
    }
    Seeds(const Seeds&) = delete;
    Seeds& operator=(const Seeds&) = delete;

    uint32_t rounds() const { return rounds_; }

    struct End {};
    class Iterator {
      public:
        explicit Iterator(const Seeds* seeds) : seeds_(seeds) {}
        uint32_t operator*() const { return seeds_->first_ + *seeds_->passed_; }
        Iterator& operator++() {
            *seeds_->passed_ += testing::Test::HasFailure() ? 0 : 1;
            return *this;
        }
        bool operator!=(End) const {
            return !testing::Test::HasFailure() && *seeds_->passed_ < seeds_->rounds_;
        }

      private:
        const Seeds* seeds_;
    };
    Iterator begin() const { return Iterator(this); }
    End end() const { return {}; }

  private:
    using Count = std::atomic<uint32_t>;

    static Count* newCount() {
        void* const memory =
            mmap(nullptr, sizeof(Count), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        return new (memory) Count(0);
    }
    static uint32_t number(const char* variable, uint32_t otherwise) {
        const char* const text = getenv(variable);
        return text == nullptr ? otherwise : static_cast<uint32_t>(strtoul(text, nullptr, 10));
    }

    const uint32_t first_;
    const uint32_t rounds_;
    Count* const passed_;
};

}  // namespace PavoTest
