// The machine of ARP in virtual time.
#include <algorithm>
#include <vector>

#include "arp/ArpFixture.h"

namespace Pavo {
namespace {

struct ArpSmTest : testing::Test, Lan {
    ArpSmTest() {
        sm->addressIs(h1, ArpClaim::silent);
        sm->enabledIs(true);
    }
};

TEST_F(ArpSmTest, EntriesChangeAsThoseOfTheKernelDo) {
    sm->txPktIs(pktOf("lost"), h2);
    EXPECT_EQ(advance(3.5), "ask 10.0.0.2 at 0; ask 10.0.0.2 at 1; ask 10.0.0.2 at 2; ");
    EXPECT_EQ(stateOf(h2), "failed");
    const auto entry = table->entry({1, h2});
    EXPECT_EQ(entry->since(), 3);
    EXPECT_EQ(entry->queueDrops(), 1u);
    advance(6.5);
    sm->txPktIs(pktOf("a"), h2);
    sm->txPktIs(pktOf("b"), h2);
    EXPECT_EQ(log(), "ask 10.0.0.2 at 10; ");
    {
        const Mox::Watch<ArpEntry> watch(entry, ArpEntry::stateAttr, [this] { out << "known; "; });
        answer();
    }
    EXPECT_EQ(log(), "packet a m2 at 10; packet b m2 at 10; known; ");
    EXPECT_EQ(stateOf(h2), "reachable m2");

    EXPECT_EQ(advance(60), "");
    EXPECT_EQ(stateOf(h2), "stale m2");
    EXPECT_GE(entry->since() - entry->confirmedAt(), 15);
    EXPECT_LE(entry->since() - entry->confirmedAt(), 45);
    advance(80 - clock.now());
    sm->txPktIs(pktOf("c"), h2);
    EXPECT_EQ(stateOf(h2), "delay m2");
    EXPECT_EQ(advance(7.5),
              "packet c m2 at 80; ask 10.0.0.2 m2 at 85; ask 10.0.0.2 m2 at 86; "
              "ask 10.0.0.2 m2 at 87; ");
    EXPECT_EQ(stateOf(h2), "probe m2");
    answer();
    EXPECT_EQ(stateOf(h2), "reachable m2");

    // What is in use is probed when it is old, and not where the layer above confirms it.
    for (int i = 0; i < 100; ++i) {
        advance(3);
        sm->txPktIs(pktOf("e"), h2);
        i < 50 ? sm->confirm(h2) : stateOf(h2) == "probe m2" ? answer() : void();
        EXPECT_TRUE(i >= 50 || stateOf(h2) == "reachable m2");
    }
    EXPECT_EQ(sm->counters().failures, 1u);
    EXPECT_EQ(sm->counters().queueDrops, 1u);
}

TEST_F(ArpSmTest, LearnsOnlyFromWhatConcernsIt) {
    constexpr uint16_t ask = ArpOp::request, tell = ArpOp::reply;
    const struct {
        const char* what;
        const char* before;  // A state, and in it "old" where m2 was learned a long time ago.
        Arp arp;
        EthAddr dst;
        const char* after;
    } cases[] = {
        {"a request for the own address", "none", {ask, m3, h2, {}, h1}, everyone, "stale m3"},
        {"an announcement", "none", {ask, m3, h2, {}, h2}, everyone, "none"},
        {"an announcement", "incomplete", {ask, m3, h2, {}, h2}, everyone, "stale m3"},
        {"a reply to another host", "incomplete", {tell, m3, h2, m2, h3}, m2, "incomplete"},
        {"a reply to all", "incomplete", {tell, m3, h2, m1, h1}, everyone, "stale m3"},
        {"a reply", "stale", {tell, m2, h2, m1, h1}, m1, "reachable m2"},
        {"a second answer", "reachable", {tell, m3, h2, m1, h1}, m1, "reachable m2"},
        {"an announcement", "reachable", {ask, m3, h2, {}, h2}, everyone, "stale m3"},
        {"a request", "reachable", {ask, m2, h2, {}, h1}, everyone, "reachable m2"},
        {"another reply", "reachable old", {tell, m3, h2, m1, h1}, m1, "reachable m3"},
        {"another request", "reachable old", {ask, m3, h2, {}, h3}, everyone, "stale m3"},
        {"a reply", "permanent", {tell, m3, h2, m1, h1}, m1, "permanent m2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.before) + ": " + c.what);
        const std::string before = c.before;
        if (before == "stale") {
            receive({ask, m2, h2, {}, h1});
        } else if (before == "permanent") {
            sm->permanentIs(h2, m2);
        } else if (before != "none") {
            sm->resolve(h2);
            before == "incomplete" ? void() : answer();
        }
        before.ends_with("old") ? clock.advance(1) : void();
        receive(c.arp, c.dst);
        EXPECT_EQ(stateOf(h2), c.after);
        sm->permanentDel(h2);
        sm->entryDel(h2);
        EXPECT_EQ(table->entries(), 0u);
    }
}

// Whom it answers, and with which MAC, is the matter of the fuzz target and of arping.
TEST_F(ArpSmTest, ClaimsAddressesAndDefendsThem) {
    sm->addressIs(h2, ArpClaim::probed);
    EXPECT_EQ(advance(3), "probe 10.0.0.2 at 0; probe 10.0.0.2 at 1; probe 10.0.0.2 at 2; ");
    EXPECT_EQ(*sm->address().find(h2), ArpAddressState::probing);
    EXPECT_EQ(advance(6), "announce 10.0.0.2 at 4; announce 10.0.0.2 at 6; ");
    EXPECT_EQ(*sm->address().find(h2), ArpAddressState::usable);
    const Arp theirs{ArpOp::request, m3, h2, {}, h1};
    for (const char* expected : {"announce 10.0.0.2 at 9; ", "", "announce 10.0.0.2 at 21; "}) {
        receive(theirs);
        EXPECT_EQ(log(), expected);
        advance(6);
    }
    EXPECT_EQ(sm->conflicts(), 3u);
    EXPECT_EQ(sm->lastConflict().address, h2);
    EXPECT_EQ(sm->lastConflict().mac, m3);
    EXPECT_EQ(table->entries(), 0u);

    // Another host probes for the address too; one that has it is met in the guide.
    sm->addressIs(h3, ArpClaim::probed);
    advance(1.5);
    receive({ArpOp::request, m3, {}, {}, h3});
    EXPECT_EQ(*sm->address().find(h3), ArpAddressState::conflict);
    EXPECT_EQ(advance(9), "");
    EXPECT_EQ(sm->conflicts(), 4u);
    sm->addressIs(h3, ArpClaim::probed);
    advance(1.5);
    sm->addressDel(h3);
    EXPECT_EQ(advance(9), "");
    EXPECT_EQ(sm->address().find(h3), nullptr);
    sm->proxy()->macIs(Prefix(vip, 32), vmac);
    sm->announce(vip);
    EXPECT_EQ(log().substr(0, 18), "announce 10.0.0.9 ");
    settings.answers = false;  // The kernel does, for its own addresses.
    sm->settingsIs(settings);
    receive({ArpOp::request, m3, h3, {}, h1});
    receive({ArpOp::request, m3, h3, {}, vip});
    EXPECT_EQ(log(), "reply 10.0.0.9 m7 to m3 at 48; ");
    sm->proxy()->macDel(Prefix(vip, 32));  // Another router has taken over.
    EXPECT_EQ(advance(9), "");
}

TEST_F(ArpSmTest, PacketsWaitInOrderAndTheOldestIsDropped) {
    settings.maxQueuedPkts = 2;
    sm->settingsIs(settings);
    const auto kept = pktOf("kept");
    const auto full = Mox::make<Pkt>();  // Without room for a header.
    std::fill_n(full->newPrivateHeadData(64), 64, 'x');
    for (const auto& each : {pktOf("old"), kept, full}) {
        sm->txPktIs(each, h2);
    }
    EXPECT_EQ(log(), "ask 10.0.0.2 at 0; ");
    kept->stringValueIs(" and changed", /*atTail=*/true);  // What waits is a copy.
    answer();
    EXPECT_EQ(log(), "packet kept m2 at 0; packet " + std::string(64, 'x') + " m2 at 0; ");
    EXPECT_EQ(kept->stringValue(), "kept and changed");
    EXPECT_EQ(table->entry({1, h2})->queueDrops(), 1u);
    sm->txPktIs(pktOf("g"), IpAddr("224.0.0.5"));
    sm->txPktIs(pktOf("b"), IpAddr("255.255.255.255"));
    EXPECT_EQ(log(), "packet g m5 at 0; packet b at 0; ");
    sm->txPktIs(pktOf("waits"), h3);
    sm->enabledIs(false);
    EXPECT_EQ(sm->counters().queueDrops, 2u);
}

TEST_F(ArpSmTest, TenThousandAddressesStayReachable) {
    constexpr uint32_t many = 10'000;
    wire->pam("pam0")->maxBufferIs(many);
    wire->pam("pam1")->maxBufferIs(many);
    const auto peer = newSm("pam1", m2, 2);
    peer->proxy()->macIs(Prefix("10.1.0.0/16"), m3);
    peer->enabledIs(true);
    uint32_t changes = 0;
    std::vector<Mox::Watch<ArpEntry>> watches;
    for (uint32_t i = 0; i < many; ++i) {
        sm->refreshIs(IpAddr(0x0a010000 + i));
        watches.emplace_back(table->entry({1, IpAddr(0x0a010000 + i)}), ArpEntry::stateAttr,
                             [&changes] { ++changes; });
    }
    advance(120);
    EXPECT_EQ(changes, many);                         // Each became reachable, and nothing else.
    EXPECT_GT(sm->counters().txRequests, many * 3);   // At most 42 s after each other,
    EXPECT_LT(sm->counters().txRequests, many * 11);  // and 12 s at least.
}

TEST_F(ArpSmTest, AFullTableGivesUpTheOldestEntry) {
    constexpr uint32_t many = 10'000;
    table->maxEntriesIs(many);
    sm->permanentIs(h2, m2);
    sm->nextHopIs(h3);
    for (uint32_t i = 0; i < 2 * many; ++i) {
        receive({ArpOp::request, m2, IpAddr(0x0a010000 + i), {}, h1});
        i == many - 3 ? receive({ArpOp::request, m2, IpAddr(0x0a010000), {}, h1}) : void();
    }
    EXPECT_EQ(table->entries(), many);
    EXPECT_EQ(table->evictions(), many + 2);
    EXPECT_EQ(stateOf(h2), "permanent m2");
    EXPECT_EQ(stateOf(IpAddr(0x0a010000 + many + 1)), "none");
    EXPECT_EQ(stateOf(IpAddr(0x0a010000 + many + 2)), "stale m2");
    // Those that are being resolved stay.
    table->maxEntriesIs(3);
    EXPECT_NE(sm->resolve(IpAddr("10.2.0.1")), nullptr);
    EXPECT_EQ(sm->resolve(IpAddr("10.2.0.2")), nullptr);
    advance(4);  // One that has failed makes room.
    EXPECT_NE(sm->resolve(IpAddr("10.2.0.2")), nullptr);
    EXPECT_EQ(table->entries(), 3u);
    EXPECT_EQ(sm->counters().tableFull, 1u);
}

TEST_F(ArpSmTest, ANextHopIsLostAndBackInTime) {
    // How long it is reachable and lost decides where in a period that comes to an end.
    for (const double period : {0.2, 1.0, 3.7, 8.0}) {
        for (const double seconds : {20.0, 22.1, 25.7}) {
            const auto peer = newSm("pam1", m2, 2);
            peer->addressIs(h2, ArpClaim::silent);
            peer->enabledIs(true);
            const auto hop = sm->nextHopIs(h2, period);
            advance(seconds);
            EXPECT_EQ(hop->mac(), m2);
            const double off = clock.now();
            peer->enabledIs(false);
            // Announcements do not keep it.
            while (hop->reachable() && clock.now() < off + period + 3.01) {
                receive({ArpOp::request, m3, h2, {}, h2});
                advance(0.5);
            }
            EXPECT_FALSE(hop->reachable());
            EXPECT_GE(hop->since(), off + 2.9);
            advance(seconds - 20);
            peer->macIs(seconds == 20 ? m2 : m3);
            wire->pam("pam1")->inputQueueDelAll();  // It answers no request from before.
            peer->enabledIs(true);
            const double on = clock.now();
            advance(std::max(period, 1.0) + 0.01);
            EXPECT_TRUE(hop->reachable());
            EXPECT_GE(hop->since(), on);
            EXPECT_EQ(hop->mac(), peer->mac());
            sm->nextHopDel(h2);
            sm->entryDel(h2);
            peer->enabledIs(false);
        }
    }
}

}  // namespace
}  // namespace Pavo
