#include "Mox/Ptr.h"

#include <gtest/gtest.h>

#include <thread>
#include <utility>
#include <vector>

namespace Mox {
namespace {

// Makes references to itself at both ends of its life.
struct SelfHolder : PtrInterface {
    explicit SelfHolder(int* deaths) : deaths_(deaths) { const Ptr<SelfHolder> self(this); }
    ~SelfHolder() override {
        ++*deaths_;
        const Ptr<SelfHolder> self(this);
    }
    int* deaths_;
};

TEST(Ptr, ReferencesToItselfDeleteNothingAtBirthAndNothingTwiceAtDeath) {
    const uint32_t before = liveObjects();
    int deaths = 0;
    {
        Ptr<SelfHolder> made = make<SelfHolder>(&deaths);
        SelfHolder onStack(&deaths);
        const Ptr<SelfHolder> borrowed(&onStack);
        const Ptr<PtrInterface> converted = std::move(made);
        EXPECT_EQ(made, nullptr);
        EXPECT_EQ(converted->references(), 1u);
        EXPECT_EQ(deaths, 0);
    }
    EXPECT_EQ(deaths, 2);
    EXPECT_EQ(liveObjects(), before);
}

TEST(Ptr, IsWholeAgainBeforeTheOldObjectGoes) {
    struct LooksBack : PtrInterface {
        explicit LooksBack(const Ptr<LooksBack>* place) : place_(place) {}
        ~LooksBack() override { EXPECT_EQ(*place_, nullptr); }
        const Ptr<LooksBack>* place_;
    };
    Ptr<LooksBack> place = make<LooksBack>(&place);
    const Ptr<LooksBack>& same = place;
    place = same;
    EXPECT_TRUE(place);
    place = nullptr;
}

TEST(Ptr, CountsRightWhenThreadsShareAnObjectAndDropItLast) {
    class Shared : public PtrInterface {};
    PtrInterface::threadSafePointersIs(true);
    const uint32_t before = liveObjects();
    Ptr<Shared> shared = make<Shared>();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([held = shared] {
            for (int j = 0; j < 20000; ++j) {
                const Ptr<PtrInterface> copy = held;
                (void)make<Shared>();
            }
        });
    }
    shared = nullptr;
    for (std::thread& each : threads) {
        each.join();
    }
    EXPECT_EQ(liveObjects(), before);
    PtrInterface::threadSafePointersIs(false);
}

}  // namespace
}  // namespace Mox
