#include "Mox/Ptr.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace Mox {
namespace {

class Shared : public PtrInterface {};

// What two threads do to one object, and to objects of their own.
void copyAndDrop(const Ptr<Shared>& shared) {
    for (int i = 0; i < 20000; ++i) {
        const Ptr<Shared> copy = shared;
        const Ptr<PtrInterface> another = copy;
        if (i % 100 == 0) {
            (void)make<Shared>();
        }
    }
}

TEST(Ptr, CountsRightWhenThreadsShareAnObject) {
    PtrInterface::threadSafePointersIs(true);
    const uint32_t before = liveObjects();
    Ptr<Shared> shared = make<Shared>();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&shared] { copyAndDrop(shared); });
    }
    for (std::thread& each : threads) {
        each.join();
    }
    EXPECT_EQ(shared->references(), 1u);
    EXPECT_EQ(liveObjects(), before + 1);

    // The last reference may go on any of them.
    std::thread dropper([gone = std::move(shared)] {});
    dropper.join();
    EXPECT_EQ(liveObjects(), before);
    PtrInterface::threadSafePointersIs(false);
}

}  // namespace
}  // namespace Mox
