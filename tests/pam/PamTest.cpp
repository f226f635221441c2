// What is common to all endpoints, and the connector of two.
#include "Pavo/PamConnector.h"

#include <unistd.h>

#include <functional>
#include <optional>
#include <string>

#include "Pavo/Ip6Pam.h"
#include "Pavo/IpSocketPam.h"
#include "Pavo/PamFdSm.h"
#include "pam/PamFixture.h"

using namespace std::string_literals;

namespace Pavo {
namespace {

// An endpoint that logs the calls of its handlers.
class FakePam : public Pam {
  public:
    explicit FakePam(Texts* log) : Pam("fake"), log_(log) {}

    void handleReadableCount() override { log_->push_back("readable"); }
    void handleWritableCount() override { log_->push_back("writable"); }
    void doGetRxPkt() override {}

  private:
    Texts* log_;
};

class PamTest : public testing::Test {
  protected:
    Texts log_;
    Mox::Ptr<FakePam> pam_ = Mox::make<FakePam>(&log_);
};

TEST_F(PamTest, TheHandlerRunsBeforeObserversOfTheCount) {
    const Mox::Watch<FakePam> readable(pam_, Pam::readableCountAttr,
                                       [this] { log_.push_back("observer"); });
    pam_->readableCountIs(0);
    EXPECT_EQ(log_, Texts());
    EXPECT_EQ(pam_->readableCountInc(2), 2u);
    EXPECT_EQ(log_, (Texts{"readable", "observer"}));
}

TEST_F(PamTest, TheMachineIncrementsBothCountsAtCreationAndOnEachReport) {
    Mox::EventLoop loop;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    const auto descriptor = Mox::fileDescriptorFactory(ends[0]);
    const auto peer = Mox::fileDescriptorFactory(ends[1]);
    const Mox::Ptr<PamFdSm> machine = PamFdSmIs(descriptor, pam_.ptr());
    const Mox::Ptr<PamFdSm> idle = PamFdSmIs(nullptr, pam_.ptr());
    EXPECT_EQ(log_, (Texts{"readable", "writable"}));
    EXPECT_EQ(loop.turn(0), 0u);
    EXPECT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(loop.turn(0), 1u);
    descriptor->writeMetNoRoom();
    EXPECT_EQ(loop.turn(0), 1u);
    EXPECT_EQ(log_, (Texts{"readable", "writable", "readable", "writable"}));
}

TEST_F(PamTest, MisuseStopsTheProcess) {
    EXPECT_DEATH(pam_->rxPktBulk(), "0 && \"Need to implement doGetBulkRxPkt in a derived class\"");
    const auto ip = ipPamFactory("ip", IpProtocolNumber::icmp, NamespaceName());
    EXPECT_DEATH(ip->rxPkt(), "!\"IpPam doesn't use this interface.\"");
    const auto raw = ipSocketPamFactory("raw", IpProtocolNumber::icmp, NamespaceName());
    EXPECT_DEATH(raw->enabledIs(true), "enabling needs an event loop on this thread");
}

TEST_F(PamTest, GivesOptionsAsText) {
    EXPECT_EQ(ipSocketOptionsText(ipRecvTTL | ipPktInfo), "ipPktInfo|ipRecvTTL");
    EXPECT_EQ(ipSocketOptionsText(none), "none");
    EXPECT_EQ(ipSocketOptionsText(ipRecvDrops | 0x300000), "ipRecvDrops|3145728");
}

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
}

}  // namespace
}  // namespace Pavo
