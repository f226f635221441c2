#include "testing/LossyLink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Pavo/NetOrder.h"

namespace Guide {
namespace {

TEST(LossyLink, DoesWhatItsFaultsSayAndCountsIt) {
    constexpr uint32_t frames = 500;
    const struct {
        const char* name;
        LinkFaults faults;
        bool inOrder;
        double maxSeconds;  // From send to arrival.
    } cases[] = {
        {"nothing", {}, true, 0.001},
        {"loss", {.loss = 0.5}, true, 0.001},
        {"duplication", {.duplication = 0.5}, true, 0.001},
        {"reordering", {.reordering = 0.5, .heldBackSeconds = 0.2}, false, 0.201},
        {"delay", {.maxDelaySeconds = 0.3}, true, 0.3},
        {"duplication and delay", {.duplication = 0.5, .maxDelaySeconds = 0.3}, true, 0.3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Mox::ManualClock clock;
        LossyLink link(&clock, c.faults, /*seed=*/1);
        const auto receiver = link.left();
        std::vector<uint32_t> received;
        double slowest = 0;
        const Mox::Watch<Pavo::Pam> readable(receiver, Pavo::Pam::readableCountAttr, [&] {
            received.push_back(Pavo::loadNet<uint32_t>(receiver->rxPkt()->frontData()));
            slowest = std::max(slowest, clock.now() - received.back() * 0.01);
        });
        for (uint32_t number = 0; number < frames; ++number) {
            clock.advance(number * 0.01 - clock.now());
            const auto pkt = Pavo::globalPktManager()->newPkt();
            Pavo::storeNet(pkt->newSharedHeadData(sizeof(number)), number);
            link.right()->txPktIs(pkt);
        }
        clock.advance(10);

        const auto& counters = link.counters();
        EXPECT_EQ(counters.taken, frames);
        EXPECT_EQ(received.size(), frames - counters.lost + counters.duplicated);
        const auto isHalf = [](uint32_t count) { return count > 200 && count < 300; };
        EXPECT_TRUE(c.faults.loss == 0 ? counters.lost == 0 : isHalf(counters.lost));
        EXPECT_TRUE(c.faults.duplication == 0 ? counters.duplicated == 0
                                              : isHalf(counters.duplicated));
        EXPECT_TRUE(c.faults.reordering == 0 ? counters.heldBack == 0 : isHalf(counters.heldBack));
        EXPECT_EQ(std::is_sorted(received.begin(), received.end()), c.inOrder);
        // The connectors on the way add a delivery each, and an event may serve two arrivals.
        EXPECT_NEAR(slowest, c.maxSeconds + 2 * Pavo::PamConnector::deliverySeconds, 0.005);
    }
}

}  // namespace
}  // namespace Guide
