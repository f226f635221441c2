// The BFD agent, in virtual time.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <optional>
#include <random>
#include <vector>

#include "Mox/Clock.h"
#include "Pavo/BuildPkt.h"
#include "Pavo/IpHost.h"
#include "bfd/BfdAgent.h"
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

    static BfdHdr pktOf(State state, uint32_t discr = 7) {
        BfdHdr pkt;
        pkt.stateIs(state);
        pkt.detectMultIs(3);
        pkt.myDiscrIs(9);
        pkt.yourDiscrIs(discr);
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

// The observer of a change drops the session.
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
            State changed = own;
            Mox::Watch<BfdSession> watch;
            watch = {lone.session, BfdSession::stateAttr, [&] {
                         changed = lone.session->state();
                         EXPECT_EQ(lone.session->diag(),
                                   changed == down ? Diag::signaledDown : Diag::none);
                         EXPECT_EQ(lone.sent.back().state(), changed);  // Sent at once.
                         watch = {};
                         lone.session = nullptr;
                     }};
            EXPECT_TRUE(lone.receive(received));
            EXPECT_EQ(changed, next[static_cast<int>(own)][static_cast<int>(received)]);
            EXPECT_EQ(lone.sent.size(), changed == own ? 0u : 1u);
        }
    }
}

// Version, authentication, multipoint, multiplier, lengths, and discriminators: none, of another
// session, and of none in a packet that is up.
TEST(BfdSession, RefusesWhatIsNotValid) {
    constexpr uint8_t rows[][2] = {{0, 0x40}, {1, 0xc4}, {1, 0xc1}, {2, 0}, {3, 23},
                                   {3, 25},   {7, 0},    {8, 1},    {11, 0}};
    for (const auto& [offset, value] : rows) {
        Lone lone;
        lone.reach(init);
        BfdHdr pkt = Lone::pktOf(up);
        reinterpret_cast<uint8_t*>(&pkt)[offset] = value;
        const bool isWhole = pkt.check(sizeof(pkt)) == Pavo::PktErrors::noError;
        EXPECT_FALSE(isWhole && lone.session->receive(pkt)) << +offset;
        EXPECT_EQ(lone.session->state(), init) << +offset;
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
    Mox::Watch<BfdSession> watch;
    watch = {lone.session, BfdSession::stateAttr, [&] {
                 EXPECT_EQ(lone.session->diag(), Diag::timeExpired);
                 watch = {};
                 lone.session = nullptr;
             }};
    lone.clock.advance(0.2);
    EXPECT_EQ(lone.session, nullptr);
}

// A host with an agent, on one end of a link.
struct Side {
    Side(const SessionConfig& wanted, const char* local, const char* peer,
         const Mox::Ptr<Pavo::PamConnectorPam>& end, Mox::Clock* clock)
        : config(wanted), host(Pavo::ipHostFactory(local, end, clock)), state() {
        host->addressIs(Pavo::IpAddr(local));
        agent.emplace(Place{Pavo::IpAddr(local), Pavo::IpAddr(peer)}, config,
                      Endpoints{host->attach(Pavo::udpPamFactory("rx")),
                                host->attach(Pavo::udpPamFactory("tx"))},
                      clock);
        state = {agent->session(), BfdSession::stateAttr, [this, clock] {
                     ++changes;
                     silentSeconds = clock->now() - agent->session()->lastRxSeconds();
                 }};
    }

    const BfdSession& session() const { return *agent->session(); }
    void expectUp(const Side& other) const {
        EXPECT_EQ(session().state(), up);
        EXPECT_FALSE(session().isPolling());
        const uint32_t micros = std::max(config.desiredMinTx, other.config.requiredMinRx);
        EXPECT_DOUBLE_EQ(session().txIntervalSeconds(), micros / 1e6);
        EXPECT_DOUBLE_EQ(other.session().detectionSeconds(), config.detectMult * micros / 1e6);
    }

    SessionConfig config;
    Mox::Ptr<Pavo::IpHost> host;
    std::optional<BfdAgent> agent;
    Mox::Watch<BfdSession> state;
    uint32_t changes = 0;
    double silentSeconds = 0;
};

TEST(BfdAgent, TwoComeUpAndGoDownOverABadWire) {
    for (const uint32_t seed : PavoTest::Seeds(25)) {
        SCOPED_TRACE(seed);
        Mox::ManualClock clock;
        Guide::LinkFaults faults{.duplication = 0.1,
                                 .reordering = 0.1,
                                 .heldBackSeconds = 0.02,
                                 .maxDelaySeconds = 0.01};
        Guide::LossyLink link(&clock, faults, seed);
        std::mt19937 random(seed);
        const auto draw = [&random](uint32_t discr) -> SessionConfig {
            constexpr uint32_t intervals[] = {50'000, 100'000, 300'000, 1'500'000};
            return {discr, intervals[random() % 4], intervals[random() % 4],
                    static_cast<uint8_t>(2 + random() % 4)};
        };
        Side left(draw(1), "192.0.2.1", "192.0.2.2", link.left(), &clock);
        Side right(draw(2), "192.0.2.2", "192.0.2.1", link.right(), &clock);
        const auto advance = [&](double seconds, double loss) {
            faults.loss = loss;
            link.faultsIs(faults);
            clock.advance(seconds);
        };
        const auto expectUp = [&] {
            advance(40, 0);
            left.expectUp(right);
            right.expectUp(left);
        };
        advance(20, /*loss=*/0.3);
        expectUp();

        left.changes = right.changes = 0;
        std::vector<double> sent;
        const Mox::Watch<Pavo::PamConnectorPam> trace(link.left(),
                                                      Pavo::PamConnectorPam::peekPktCountAttr,
                                                      [&] { sent.push_back(clock.now()); });
        advance(10, 0);
        EXPECT_EQ(left.changes + right.changes, 0u);
        std::adjacent_difference(sent.begin(), sent.end(), sent.begin());
        const auto [least, most] = std::minmax_element(sent.begin() + 1, sent.end());
        const double interval = left.session().txIntervalSeconds();
        EXPECT_GE(*least, 0.75 * interval - 1e-9);
        EXPECT_LE(*most, interval + 1e-9);
        EXPECT_LT(*least + 0.05 * interval, *most);

        const double detection = left.session().detectionSeconds();
        advance(60, /*loss=*/1);
        EXPECT_NEAR(left.silentSeconds, detection, 1e-9);
        EXPECT_EQ(left.session().diag(), Diag::timeExpired);
        EXPECT_EQ(right.session().diag(), Diag::timeExpired);
        expectUp();
    }
}

TEST(BfdAgent, ReceivesFromItsNeighbourOnly) {
    Mox::ManualClock clock;
    const auto wire = Pavo::pamConnectorFactory(&clock);
    const Side left({.localDiscr = 1}, "192.0.2.1", "192.0.2.2", wire->pam("pam0"), &clock);
    const auto stateAfter = [&](const char* source, uint8_t ttl) {
        const BfdHdr hdr = Lone::pktOf(down, /*discr=*/1);
        const auto* const bytes = reinterpret_cast<const uint8_t*>(&hdr);
        wire->pam("pam1")->txPktIs(Pavo::buildPkt(
            Pavo::Ip{.src = Pavo::IpAddr(source), .dst = Pavo::IpAddr("192.0.2.1"), .ttl = ttl},
            Pavo::Udp{.srcPort = 49152, .dstPort = BfdAgent::port},
            Pavo::Payload(std::span(bytes, sizeof(hdr)))));
        clock.advance(0.1);
        return left.session().state();
    };
    EXPECT_EQ(stateAfter("192.0.2.2", 254), down);
    EXPECT_EQ(left.agent->rxDiscards(), 0u);  // The kernel drops it.
    EXPECT_EQ(stateAfter("192.0.2.3", 255), down);
    EXPECT_EQ(left.agent->rxDiscards(), 1u);
    EXPECT_EQ(stateAfter("192.0.2.2", 255), init);
}

}  // namespace
}  // namespace Bfd
