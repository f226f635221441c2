#include "Pavo/PamConnector.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>

#include "Mox/Trace.h"
#include "pam/PamFixture.h"

using namespace std::string_literals;

namespace Pavo {
namespace {

// A connector at whose ends somebody notes "0" or "1" when told, takes a packet, and then does what
// `action` says. In the end all objects have gone.
struct Scene {
    Scene() {
        for (const char digit : {'0', '1'}) {
            readable[digit - '0'].emplace(end[digit - '0'], Pam::readableCountAttr, [this, digit] {
                heard += digit;
                const Mox::Ptr<Pkt> pkt = end[digit - '0']->rxPkt();
                if (action) {
                    action(digit - '0');
                }
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
    // What is heard in the next event.
    std::string nextEvent() {
        heard.clear();
        clock.advance(clock.nextExpiry() - clock.now());
        return heard;
    }

    uint32_t before = (globalPktManager(), Mox::liveObjects());
    Mox::ManualClock clock;
    Mox::Ptr<PamConnector> connector = pamConnectorFactory(&clock);
    Mox::Ptr<PamConnectorPam> end[2] = {connector->pam("pam0"), connector->pam("pam1")};
    std::optional<Mox::Watch<PamConnectorPam>> readable[2];
    std::string heard;
    std::function<void(int)> action;
};

TEST(PamConnector, AFullQueueHoldsOneMoreThanItsBufferAndDropsTheRest) {
    Scene s;
    for (int i = 0; i < 1026; ++i) {
        EXPECT_EQ(s.end[1]->rxDrops(), 0u) << i;
        s.send(0);
    }
    EXPECT_EQ(s.end[1]->inputQueueMembers(), 1025u);
    EXPECT_EQ(s.end[1]->rxDrops(), 1u);
    EXPECT_EQ(s.end[0]->peekPktCount(), 1025u);
    EXPECT_EQ(s.end[0]->writableCount(), 1026u);
}

TEST(PamConnector, OneEventAnnouncesAllThatWasSentBefore) {
    Scene s;
    s.clock.advance(5);
    s.send(0);
    s.clock.advance(0.0005);
    s.send(0);
    s.send(1);
    EXPECT_EQ(s.heard, "");
    EXPECT_EQ(s.clock.nextExpiry(), 5.0009765625);
    EXPECT_EQ(s.nextEvent(), "011");
    EXPECT_EQ(s.clock.nextExpiry(), Mox::Clock::idle);

    s.readable[1].reset();  // Nobody takes a packet: it is announced again with the next one.
    for (const char* text : {"d", "e"}) {
        s.send(0, text);
        s.nextEvent();
    }
    EXPECT_EQ(s.end[1]->readableCount(), 5u);
    EXPECT_EQ(s.end[1]->rxPkt()->stringValue(), "d");
}

TEST(PamConnector, AnswersComeWithTheNextEvent) {
    Scene s;
    s.action = [&s](int i) { s.send(i); };
    s.send(0);
    for (const char* heard : {"1", "0", "1", "0"}) {
        EXPECT_EQ(s.nextEvent(), heard);
    }
}

TEST(PamConnector, ATagLeavesTheFrameWhereThatIsAskedFor) {
    const std::string macs = "\x02\0\0\0\0\1\x02\0\0\0\0\2"s;
    const std::string tag = "\x81\0\x20\x07"s;
    const std::string rest = "\x08\0data"s;
    Scene s;
    for (const bool separate : {false, true}) {
        s.connector->separateVlanTagHdrIs(separate);
        s.end[0]->txPktIs(pktOf(macs + tag + rest));
        const Mox::Ptr<Pkt> pkt = s.end[1]->rxPkt();
        EXPECT_EQ(pkt->stringValue(), separate ? macs + rest : macs + tag + rest);
        EXPECT_EQ(pkt->stringValueMaybeWithVlan(), macs + tag + rest);
    }
}

TEST(PamConnector, ReceiversMayTakeEverythingApart) {
    const struct {
        const char* what;
        void (*action)(Scene& s);  // At the first packet, which is at "pam0".
        const char* heard;         // Of two at each end.
    } cases[] = {
        {"drops the connector", [](Scene& s) { s.connector = nullptr; }, "0011"},
        {"drops its own end", [](Scene& s) { s.leave(0); }, "011"},
        {"takes its own end out", [](Scene& s) { s.connector->pamDel("pam0"); }, "011"},
        {"takes the other end out", [](Scene& s) { s.connector->pamDel("pam1"); }, "00"},
        {"takes both out", [](Scene& s) { s.connector->pamDelAll(); }, "0"},
        {"stops the clock", [](Scene& s) { s.connector->clockDel(); }, "0011"},
        {"drops all", [](Scene& s) { s.leave(0), s.leave(1), s.connector = nullptr; }, "0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Scene s;
        for (const int i : {0, 0, 1, 1}) {
            s.send(i);
        }
        s.action = [&](int) {
            if (s.heard == "0") {
                c.action(s);
            }
        };
        EXPECT_EQ(s.nextEvent(), c.heard);
    }
}

TEST(PamConnector, AnEndIsJoinedToNothingOnceItsOtherEndOrTheConnectorHasGone) {
    Scene s;
    auto& [end0, end1] = s.end;
    auto loose = Mox::make<PamConnectorPam>("loose", s.connector.ptr());
    loose->otherEndIs(end1);
    EXPECT_EQ(end1->otherEnd(), loose);
    EXPECT_EQ(end0->otherEnd(), nullptr);
    loose = nullptr;
    EXPECT_EQ(end1->otherEnd(), nullptr);

    end0->otherEndIs(end1);
    s.connector->pamIs(Mox::make<PamConnectorPam>("pam0", nullptr));  // In place of the other one.
    EXPECT_EQ(end0->connector(), nullptr);
    EXPECT_EQ(end1->otherEnd(), nullptr);
    end1->otherEndIs(s.connector->pam("pam0"));
    s.connector = nullptr;
    EXPECT_EQ(end1->connector(), nullptr);
    EXPECT_DEATH(end1->txPktIs(nullptr), "assertion failed: otherEnd\\(\\)");
}

TEST(PamConnector, SendingTakesAPacketAndAConnectorThatIsInitialized) {
    Scene s;
    EXPECT_DEATH(s.end[0]->txPktIs(nullptr), "assertion failed: pkt != __null");
    s.send(0);
    s.connector->initializedIs(false);
    EXPECT_DEATH(s.send(0), "assertion failed: initialized\\(\\)");
    EXPECT_EQ(s.nextEvent(), "");
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
    const Mox::Ptr<Pkt> pkt = pktOf("x");
    s.end[0]->txPktIs(pkt);
    EXPECT_EQ(seen, "peekPkt x0, peekPktCount x0, peekPkt -0, writableCount -1, ");
    EXPECT_EQ(pkt->references(), 2u);  // The queue's and this one.
}

TEST(PamConnector, TheQueueNumbersItsPackets) {
    Scene s;
    const auto& end = s.end[0];
    for (const char* text : {"a", "b", "c"}) {
        end->inputQueueEnq(pktOf(text));
    }
    end->inputQueueDel(1);
    EXPECT_EQ(end->inputQueue(1), nullptr);
    EXPECT_EQ(end->inputQueue(2), end->inputQueueBack());
    EXPECT_EQ(end->inputQueueDeq()->stringValue(), "a");
    EXPECT_EQ(end->inputQueueFront()->stringValue(), "c");
    end->inputQueueDelAll();
    EXPECT_EQ(end->inputQueueDeq(), nullptr);
    EXPECT_EQ(end->inputQueueEnq(pktOf("d")), 3u);
}

TEST(PamConnector, TracesWhatItDoes) {
    static Texts texts;
    const auto before =
        Mox::traceSinkIs([](const char*, int, std::string_view text) { texts.emplace_back(text); });
    Mox::traceSettingsIs("Pavo::PamConnector/0-9");
    {
        Scene s;
        s.end[0]->maxBufferIs(0);
        s.send(1);
        s.send(1);
        s.nextEvent();
    }
    Mox::traceSettingsIs("Pavo::PamConnector/");
    Mox::traceSinkIs(before);
    EXPECT_EQ(texts, (Texts{
                         "handleInitializedBase",
                         "PamConnector: enqueue, total packets: 1",
                         "Dropping packet",
                         "PamConnector: handleClock pam0, total packets: 1",
                         "PamConnector: handleClock pam0, remaining packets: 0",
                         "PamConnector: handleClock pam1, total packets: 0",
                     }));
}

}  // namespace
}  // namespace Pavo
