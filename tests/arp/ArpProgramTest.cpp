// Random programs of machines on both ends of a wire, in one table. All observers act.
#include <map>
#include <vector>

#include "arp/ArpFixture.h"
#include "support/RandomProgram.h"

namespace Pavo {
namespace {

struct ArpWorld : PavoTest::RandomProgram, Lan {
    using RandomProgram::RandomProgram;
    // What the observers of an entry know.
    struct Known {
        ArpState state = ArpState::none;
        EthAddr mac;
        Mox::Watch<ArpEntry> watch;
    };

    // One that was dropped is made again.
    Mox::Ptr<ArpSm> anySm() {
        const uint32_t which = below(2);
        if (!machines[which]) {
            const auto made = newSm(which == 0 ? "pam0" : "pam1", which == 0 ? m1 : m2, ++made_);
            machines[which] = made;
            watches[which] = {made, Mox::allAttributes, [this](const Mox::Change&) { respond(); }};
            made->enabledIs(true);
            return made;
        }
        return machines[which];
    }
    void drop(uint32_t which) {
        const auto gone = machines[which];
        while (gone && gone->enabled()) {  // Observers may enable it again.
            gone->enabledIs(false);
        }
        if (machines[which] == gone) {
            machines[which] = nullptr;
            watches[which] = {};
        }
    }
    IpAddr address() { return IpAddr(0x0a000001 + below(6)); }
    void sendFrame() {
        const EthAddr macs[] = {m1, m2, m3, everyone};
        const Arp arp{static_cast<uint16_t>(1 + below(2)), any(macs),
                      oneIn(5) ? IpAddr() : address(), any(macs), address()};
        wire->pam(oneIn(2) ? "pam0" : "pam1")
            ->txPktIs(buildPkt(Eth{.dst = any(macs), .src = m3}, arp));
    }
    void monitor() {
        const auto hop = anySm()->nextHopIs(address(), 0.5 + below(2));
        hopWatches.emplace_back(hop, Mox::allAttributes, [this](const Mox::Change&) { respond(); });
    }
    void handleEntry(const ArpKey& key) {
        known.erase(key);
        if (const auto entry = table->entry(key)) {
            Known& of = known[key];
            of.state = entry->state();
            of.mac = entry->mac();
            of.watch = {entry, Mox::allAttributes, [=, this, held = entry.ptr()](const auto&) {
                            const auto found = known.find(key);
                            if (found != known.end() && table->entry(key) == held) {
                                found->second.state = held->state();
                                found->second.mac = held->mac();
                            }
                            respond();
                        }};
        }
        respond();
    }
    void checkAtRest() {
        clock.advance(100);  // Nothing waits for an answer any more, but what is used meanwhile.
        EXPECT_EQ(known.size(), table->entries());
        for (const auto& entry : table->entry()) {
            SCOPED_TRACE(entry->name());
            const Known& of = known[entry->key()];
            EXPECT_EQ(of.state, entry->state());
            EXPECT_EQ(of.mac, entry->mac());
            EXPECT_EQ(hasMac(entry->state()), entry->mac() != EthAddr());
            EXPECT_EQ(entry->queued(), 0u);
            // A refreshed one may be in `probe` for ever, where two hosts use an address.
            EXPECT_NE(entry->state(), ArpState::incomplete);
            EXPECT_NE(entry->state(), ArpState::delay);
        }
        for (const auto& machine : machines) {
            for (const auto& [address, hop] :
                 machine ? machine->nextHop() : Mox::Map<IpAddr, Mox::Ptr<MonitoredNextHop>>()) {
                const auto entry = table->entry(hop->key());
                EXPECT_EQ(machine->enabled(), entry != nullptr);
                const ArpState state = entry ? entry->state() : ArpState::none;
                EXPECT_TRUE(!hop->reachable() || hasMac(state)) << state;
                EXPECT_TRUE(hop->reachable() || state != ArpState::reachable) << state;
                EXPECT_TRUE(!hop->reachable() || hop->mac() == entry->mac());
            }
        }
    }

    void run() {
        sent = {wire->pam("pam0"), PamConnectorPam::peekPktCountAttr, [this] { respond(); }};
        perform(
            {{{"resolve", [this] { anySm()->resolve(address()); }},
              {"send", [this] { anySm()->txPktIs(pktOf("packet"), address()); }},
              {"confirm", [this] { anySm()->confirm(address()); }},
              {"delete", [this] { anySm()->entryDel(address()); }},
              {"bound", [this] { table->maxEntriesIs(2 + below(5)); }}},
             {{"frame", [this] { sendFrame(); }},
              {"address", [this] { anySm()->addressIs(address(), ArpClaim(below(3))); }},
              {"no address", [this] { anySm()->addressDel(address()); }},
              {"announce", [this] { anySm()->announce(address()); }},
              {"virtual", [this] { anySm()->proxy()->macIs(Prefix(address(), 32), vmac); }},
              {"own", [this] { anySm()->proxy()->macDel(Prefix(address(), 32)); }}},
             {{"monitor", [this] { monitor(); }},
              {"refresh", [this] { anySm()->refreshIs(address(), below(3)); }},
              {"no refresh", [this] { anySm()->refreshDel(address()); }},
              {"no monitor", [this] { anySm()->nextHopDel(address()); }},
              {"permanent", [this] { anySm()->permanentIs(address(), m3); }},
              {"not permanent", [this] { anySm()->permanentDel(address()); }}},
             {{"enable", [this] { anySm()->enabledIs(true); }},
              {"disable", [this] { anySm()->enabledIs(false); }},
              {"MAC", [this] { anySm()->macIs(oneIn(2) ? m1 : m2); }},
              {"drop", [this] { drop(below(2)); }}}},
            [this] { clock.advance(0.25 * (1 + below(20))); }, [this] { checkAtRest(); });
        for (const uint32_t which : {0u, 1u}) {  // As they are: nothing throws any more.
            machines[which] = nullptr;
            watches[which] = {};
        }
        clock.advance(200);  // The wheel may still look for timers that were cancelled.
        EXPECT_EQ(clock.nextExpiry(), Mox::Clock::idle) << "a timer has outlived its machine";
        EXPECT_EQ(table->entries(), 0u);
    }

    uint32_t made_ = 1;
    Mox::Ptr<ArpSm> machines[2];
    Mox::Watch<ArpSm> watches[2];
    std::map<ArpKey, Known> known;
    std::vector<Mox::Watch<MonitoredNextHop>> hopWatches;
    Mox::Watch<ArpTable> watch{table, ArpTable::entryAttr,
                               [this](const ArpKey& key) { handleEntry(key); }};
};

TEST(ArpProgram, ObserversMayDoAnything) {
    (void)globalPktManager();  // Lives on after the first round.
    PavoTest::runPrograms(500, PavoTest::runProgram<ArpWorld>);
}

}  // namespace
}  // namespace Pavo
