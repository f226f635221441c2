#include "Pavo/PamConnector.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>

#include "pam/PamFixture.h"

using namespace std::string_literals;

namespace Pavo {
namespace {

// A connector with an observer at each end, which appends "0" or "1" to `notified`, takes a packet
// and then runs `action`. In the end no object is left.
struct Scene {
    Scene() {
        for (const int i : {0, 1}) {
            readable[i].emplace(end[i], Pam::readableCountAttr, [this, i] {
                notified += std::to_string(i);
                end[i]->rxPkt();
                action(i);
            });
        }
    }
    ~Scene() {
        leave(0);
        leave(1);
        connector = nullptr;
        EXPECT_EQ(Mox::liveObjects(), before);
    }
    void leave(int i) {
        readable[i].reset();
        end[i] = nullptr;
    }
    void send(int i, const char* text = "x") { end[i]->txPktIs(pktOf(text)); }
    // The ends that the next event notifies.
    std::string nextEvent() {
        notified.clear();
        clock.advance(clock.nextExpiry() - clock.now());
        return notified;
    }

    uint32_t before = (globalPktManager(), Mox::liveObjects());
    Mox::ManualClock clock;
    Mox::Ptr<PamConnector> connector = pamConnectorFactory(&clock);
    Mox::Ptr<PamConnectorPam> end[2] = {connector->pam("pam0"), connector->pam("pam1")};
    std::optional<Mox::Watch<PamConnectorPam>> readable[2];
    std::string notified;
    std::function<void(int)> action = [](int) {};
};

TEST(PamConnector, AFullQueueHoldsOneMoreThanItsBufferAndDropsTheRest) {
    Scene s;
    for (int i = 0; i < 1026; ++i) {
        EXPECT_EQ(s.end[1]->rxDrops(), 0u);
        s.send(0);
    }
    EXPECT_EQ(s.end[1]->rxDrops(), 1u);
    EXPECT_EQ(s.end[1]->inputQueueMembers(), 1025u);
    EXPECT_EQ(s.end[0]->peekPktCount(), 1025u);
    EXPECT_EQ(s.end[0]->writableCount(), 1026u);
}

TEST(PamConnector, OneEventNotifiesOfAllPacketsSentBeforeAndTheNextOfTheAnswers) {
    Scene s;
    s.action = [&s](int i) { i == 0 ? s.send(0) : void(); };
    s.clock.advance(5);
    s.send(0);
    s.clock.advance(0.0005);
    s.send(0);
    s.send(1);
    EXPECT_EQ(s.notified, "");
    EXPECT_EQ(s.clock.nextExpiry(), 5.0009765625);
    EXPECT_EQ(s.nextEvent(), "011");
    EXPECT_EQ(s.nextEvent(), "1");
    EXPECT_EQ(s.clock.nextExpiry(), Mox::Clock::idle);
}

TEST(PamConnector, ATagLeavesTheFrameWhenSeparateTagsAreOn) {
    const std::string macs(12, '\2'), rest = "\x08\0data"s;
    const std::string tagged = macs + "\x81\0\x20\x07"s + rest;
    Scene s;
    for (const bool separate : {false, true}) {
        s.connector->separateVlanTagHdrIs(separate);
        s.end[0]->txPktIs(pktOf(tagged));
        const Mox::Ptr<Pkt> pkt = s.end[1]->rxPkt();
        EXPECT_EQ(pkt->stringValue(), separate ? macs + rest : tagged);
        EXPECT_EQ(pkt->stringValueMaybeWithVlan(), tagged);
    }
}

TEST(PamConnector, ObserversMayRemoveEndsAndTheConnector) {
    const struct {
        void (*action)(Scene& s);  // At the first packet, which arrives at "pam0".
        const char* notified;      // Of two packets at each end.
    } cases[] = {
        {[](Scene& s) { s.connector = nullptr; }, "0011"},
        {[](Scene& s) { s.leave(0); }, "011"},
        {[](Scene& s) { s.end[0]->otherEndIs(Mox::make<PamConnectorPam>("loose", nullptr)); },
         "0011"},
        {[](Scene& s) { s.connector->pamDel("pam1"); }, "00"},
        {[](Scene& s) { s.connector->clockDel(); }, "0011"},
        {[](Scene& s) { s.leave(0), s.leave(1), s.connector = nullptr; }, "0"},
    };
    for (const auto& c : cases) {
        Scene s;
        for (const int i : {0, 0, 1, 1}) {
            s.send(i);
        }
        s.action = [&](int) { s.notified == "0" ? c.action(s) : void(); };
        EXPECT_EQ(s.nextEvent(), c.notified);
    }
}

TEST(PamConnector, ObserversSeeEachPacketWhileItPasses) {
    Scene s;
    std::string seen;
    const Mox::Watch<PamConnectorPam> watch(
        s.end[0], Mox::allAttributes, [&](const Mox::Change& change) {
            const Mox::Ptr<Pkt> pkt = s.end[0]->peekPkt();
            seen += change.attribute.name + " "s + (pkt ? pkt->stringValue().c_str() : "-") +
                    std::to_string(s.end[1]->inputQueueMembers()) + ", ";
        });
    s.send(0);
    EXPECT_EQ(seen, "peekPkt x0, peekPktCount x0, peekPkt -0, writableCount -1, ");
    EXPECT_DEATH(s.end[0]->txPktIs(nullptr), "assertion failed: pkt != __null");
    EXPECT_DEATH((s.connector->pamDel("pam1"), s.send(0)), "otherEnd\\(\\)");
    s.connector->initializedIs(false);
    EXPECT_DEATH(s.send(0), "assertion failed: initialized\\(\\)");
    EXPECT_EQ(s.nextEvent(), "");
}

}  // namespace
}  // namespace Pavo
