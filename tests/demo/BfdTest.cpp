// The machine of the BFD agent, in virtual time.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <vector>

#include "Mox/Clock.h"
#include "bfd/BfdSession.h"
#include "support/Seeds.h"
#include "testing/LossyLink.h"

namespace Bfd {
namespace {

using enum State;

// A session whose peer is the test.
struct Lone {
    Mox::ManualClock clock;
    std::vector<BfdHdr> sent;
    std::function<void()> waiting = [] {};
    Mox::Ptr<BfdSession> session = Mox::make<BfdSession>(
        SessionConfig{.localDiscr = 7}, &clock, [this](const BfdHdr& pkt) { sent.push_back(pkt); },
        [this] { waiting(); });

    static BfdHdr pktOf(State state) {
        BfdHdr pkt;
        pkt.stateIs(state);
        pkt.detectMultIs(3);
        pkt.myDiscrIs(9);
        pkt.yourDiscrIs(7);
        pkt.desiredMinTxIs(50'000);
        pkt.requiredMinRxIs(50'000);
        return pkt;
    }
    bool receive(State state) { return session->receive(pktOf(state)); }
    void reach(State state) {
        session->isAdminDownIs(state == adminDown);
        if (state == init || state == up) {
            receive(down);
        }
        if (state == up) {
            receive(up);
        }
        ASSERT_EQ(session->state(), state);
    }
};

TEST(BfdSession, FollowsTheTableOfStates) {
    constexpr State states[] = {adminDown, down, init, up};
    constexpr State next[4][4] = {// Received: adminDown, down, init, up.
                                  {adminDown, adminDown, adminDown, adminDown},
                                  {down, init, up, down},
                                  {down, init, up, up},
                                  {down, down, up, up}};
    for (const State own : states) {
        for (const State received : states) {
            SCOPED_TRACE(stringValue(own) + " receives " + stringValue(received));
            Lone lone;
            lone.reach(own);
            lone.sent.clear();
            EXPECT_TRUE(lone.receive(received));
            const State expected = next[static_cast<int>(own)][static_cast<int>(received)];
            EXPECT_EQ(lone.session->state(), expected);
            ASSERT_EQ(lone.sent.size(), expected == own ? 0u : 1u);  // A new state is sent at once.
            if (expected != own) {
                EXPECT_EQ(lone.sent[0].state(), expected);
                EXPECT_EQ(lone.session->diag(), expected == down ? Diag::signaledDown : Diag::none);
            }
        }
    }
}

TEST(BfdSession, RefusesWhatIsNotValid) {
    const struct {
        const char* what;
        size_t offset;
        uint8_t value;
    } rows[] = {
        {"version 2", 0, 0x40}, {"authenticated", 1, 0xc4},       {"multipoint", 1, 0xc1},
        {"multiplier 0", 2, 0}, {"shorter than a header", 3, 23}, {"longer than it is", 3, 25},
        {"nobody's", 7, 0},     {"of another session", 8, 1},     {"of none, but up", 11, 0},
    };
    for (const auto& row : rows) {
        Lone lone;
        lone.reach(init);
        BfdHdr pkt = Lone::pktOf(up);
        reinterpret_cast<uint8_t*>(&pkt)[row.offset] = row.value;
        const bool isWhole = pkt.check(sizeof(pkt)) == Pavo::PktErrors::noError;
        EXPECT_FALSE(isWhole && lone.session->receive(pkt)) << row.what;
        EXPECT_EQ(lone.session->state(), init) << row.what;
    }
}

TEST(BfdSession, CountsWhatWaitsBeforeItGoesDown) {
    Lone lone;
    lone.reach(up);
    lone.waiting = [&] { lone.receive(up); };
    lone.clock.advance(0.2);
    EXPECT_EQ(lone.session->state(), up);
    EXPECT_EQ(lone.session->lastRxSeconds(), 0.15);
    lone.waiting = [] {};
    lone.clock.advance(0.2);
    EXPECT_EQ(lone.session->diag(), Diag::timeExpired);
}

TEST(BfdSession, MayBeDroppedByItsObserver) {
    const std::function<void(Lone*)> ways[] = {
        [](Lone* lone) { lone->receive(down); },
        [](Lone* lone) { lone->session->isAdminDownIs(true); },
        [](Lone* lone) { lone->clock.advance(1); },
    };
    for (const auto& way : ways) {
        Lone lone;
        lone.reach(up);
        Mox::Watch<BfdSession> watch;
        watch = Mox::Watch<BfdSession>(lone.session, BfdSession::stateAttr, [&] {
            watch = {};
            lone.session = nullptr;
        });
        way(&lone);
        EXPECT_EQ(lone.session, nullptr);
    }
}

// One end of a link, which loses what it sends with some chance.
struct Side {
    Side(const SessionConfig& wanted, const Mox::Ptr<Pavo::Pam>& end, Mox::Clock* clock)
        : config(wanted),
          random(wanted.localDiscr),
          pam(end),
          session(Mox::make<BfdSession>(
              config, clock, [this, clock](const BfdHdr& pkt) { send(pkt, clock->now()); }, [] {})),
          readable(pam, Pavo::Pam::readableCountAttr,
                   [this] { session->receive(*Pavo::tryHdr<BfdHdr>(pam->rxPkt(), 0)); }),
          state(session, BfdSession::stateAttr, [this, clock] {
              ++changes;
              silentSeconds = clock->now() - session->lastRxSeconds();
          }) {}

    void send(const BfdHdr& pkt, double now) {
        sent.push_back(now);
        if (std::uniform_real_distribution<>()(random) >= loss) {
            const auto out = Pavo::globalPktManager()->newPkt();
            new (out->newSharedHeadData(sizeof(pkt))) BfdHdr(pkt);
            pam->txPktIs(out);
        }
    }
    void expectUp(const Side& other) const {
        EXPECT_EQ(session->state(), up);
        EXPECT_FALSE(session->isPolling());
        const uint32_t micros = std::max(config.desiredMinTx, other.config.requiredMinRx);
        EXPECT_DOUBLE_EQ(session->txIntervalSeconds(), micros / 1e6);
        EXPECT_DOUBLE_EQ(other.session->detectionSeconds(), config.detectMult * micros / 1e6);
    }

    SessionConfig config;
    std::mt19937 random;
    double loss = 0;
    std::vector<double> sent;
    uint32_t changes = 0;
    double silentSeconds = 0;
    Mox::Ptr<Pavo::Pam> pam;
    Mox::Ptr<BfdSession> session;
    Mox::Watch<Pavo::Pam> readable;
    Mox::Watch<BfdSession> state;
};

TEST(BfdSession, TwoComeUpAndGoDownOverABadWire) {
    for (const uint32_t seed : PavoTest::Seeds(50)) {
        SCOPED_TRACE(seed);
        Mox::ManualClock clock;
        Guide::LossyLink link(&clock,
                              {.duplication = 0.1,
                               .reordering = 0.1,
                               .heldBackSeconds = 0.02,
                               .maxDelaySeconds = 0.01},
                              seed);
        std::mt19937 random(seed);
        const auto draw = [&random](uint32_t discr) -> SessionConfig {
            constexpr uint32_t intervals[] = {50'000, 100'000, 300'000, 1'500'000};
            return {discr, intervals[random() % 4], intervals[random() % 4],
                    static_cast<uint8_t>(2 + random() % 4)};
        };
        Side left(draw(1), link.left(), &clock);
        Side right(draw(2), link.right(), &clock);
        const auto expectUp = [&](double loss) {
            left.loss = right.loss = loss;
            clock.advance(20);
            left.loss = right.loss = 0;
            clock.advance(40);
            left.expectUp(right);
            right.expectUp(left);
        };
        expectUp(/*loss=*/0.3);

        left.sent.clear();
        left.changes = right.changes = 0;
        clock.advance(10);
        EXPECT_EQ(left.changes + right.changes, 0u);
        std::adjacent_difference(left.sent.begin(), left.sent.end(), left.sent.begin());
        const auto [least, most] = std::minmax_element(left.sent.begin() + 1, left.sent.end());
        const double interval = left.session->txIntervalSeconds();
        EXPECT_GE(*least, 0.75 * interval - 1e-9);
        EXPECT_LE(*most, interval + 1e-9);
        EXPECT_LT(*least + 0.05 * interval, *most);

        const double detection = left.session->detectionSeconds();
        left.loss = right.loss = 1;
        clock.advance(60);
        EXPECT_NEAR(left.silentSeconds, detection, 1e-9);
        EXPECT_EQ(left.session->diag(), Diag::timeExpired);
        EXPECT_EQ(right.session->diag(), Diag::timeExpired);
        expectUp(/*loss=*/0);

        left.session->isAdminDownIs(true);
        clock.advance(60);
        EXPECT_EQ(right.session->state(), down);
        EXPECT_EQ(right.session->remoteState(), adminDown);
        EXPECT_EQ(right.session->diag(), Diag::signaledDown);
        left.session->isAdminDownIs(false);
        expectUp(/*loss=*/0);
    }
}

}  // namespace
}  // namespace Bfd
