/// @file
/// Random programs of raw endpoints of both families, whose observers act.
#include <poll.h>
#include <sys/socket.h>

#include <memory>
#include <vector>

#include "Pavo/Ip6SocketPam.h"
#include "Pavo/IpSocketPam.h"
#include "pam/PamFixture.h"
#include "support/RandomProgram.h"

namespace Pavo {
namespace {

using Mox::Change;
using Mox::Ptr;
using Mox::Watch;

struct End {
    // Else every read fails, or takes nothing.
    bool canRead() const {
        return (pam->rxFlags() & MSG_OOB) == 0 && (!pam->enableBulkRead() || slots != 0);
    }
    bool hasData() const {
        pollfd ready{pam->fileDesc()->descriptor(), POLLIN, 0};
        return poll(&ready, 1, 0) == 1 && (ready.revents & POLLIN) != 0;
    }

    Ptr<RawIpPam> pam;
    Watch<RawIpPam> watch;
    uint32_t slots = 0;      // Of a bulk read.
    bool hasTried = false;   // To read, since the last report.
    bool wasInVain = false;  // That could not take anything.
    uint32_t reports = 0;    // What `readableCount` has to reach.
};

struct World : PavoTest::RandomProgram {
    using RandomProgram::RandomProgram;
    ~World() { raws.clear(); }

    static Ptr<RawIpPam> newRaw(bool six) {
        constexpr IpProtocolNumber protocol = IpProtocolNumber::experiment1;
        const Ptr<RawIpPam> pam = six ? Ptr<RawIpPam>(ip6SocketPamFactory("six", protocol, {}))
                                      : Ptr<RawIpPam>(ipSocketPamFactory("four", protocol, {}));
        pam->txDstIpAddrIs(addr(six ? "::1" : "127.0.0.1"));
        pam->enabledIs(true);
        return pam;
    }
    // Has an endpoint until it is dropped.
    std::shared_ptr<End> anyRaw() {
        if (raws.empty() || oneIn(8)) {
            End* raw = raws.emplace_back(std::make_shared<End>()).get();
            raw->pam = newRaw(oneIn(2));
            const auto notified = [this, raw, pam = raw->pam.ptr()](const Change& change) {
                EXPECT_EQ(pam->enabled(), pam->fileDesc() != nullptr) << "it is half changed";
                if (change.is(Pam::readableCountAttr)) {
                    raw->hasTried = false;
                    isAtRest ? readRaw(*raw, pam->enableBulkRead()) : void();
                }
                respond();
            };
            raw->watch = {raw->pam, Mox::allAttributes, notified};
        }
        return any(raws);
    }
    static void readRaw(End& raw, bool inBulk) {
        raw.hasTried = raw.pam->enabled();
        raw.wasInVain = !raw.canRead() || (inBulk && !raw.pam->enableBulkRead());
        inBulk ? (void)raw.pam->rxPktBulk() : (void)raw.pam->rxPkt();
    }
    static void switchBulk(End& raw) {
        raw.slots = raw.pam->socketReadLimit();  // For as long as it is on.
        raw.pam->enableBulkReadIs(!raw.pam->enableBulkRead());
    }
    static void sendRaw(RawIpPam& pam) { pam.enabled() ? pam.txPktIs(pktOf("a packet")) : void(); }
    void dropRaw(End& raw) {
        std::erase_if(raws, [&](const auto& each) { return each.get() == &raw; });
        raw.pam = nullptr;
    }

    std::vector<Actions> kinds();
    void run() {
        perform(
            kinds(), [this] { loop.turn(0); }, [this] { checkAtRest(); });
    }
    void checkAtRest();
    const char* missing() const;

    Mox::EventLoop loop;
    const Ptr<RawIpPam> senders[2] = {newRaw(false), newRaw(true)};
    std::vector<std::shared_ptr<End>> raws;
    bool isAtRest = false;  // Only readers act: they read once when they are notified.
};

std::vector<World::Actions> World::kinds() {
    const auto raw = [this](auto act) {
        return [=, this] {
            const std::shared_ptr<End> each = anyRaw();
            configure([&] { act(*each, *each->pam); });
        };
    };
    return {{
        {"read raw", [this] { readRaw(*anyRaw(), oneIn(2)); }},
        {"send raw", [this] { sendRaw(*anyRaw()->pam); }},
        {"enable", raw([this](auto&, auto& pam) { pam.enabledIs(!oneIn(4)); })},
        {"options", raw([this](auto&, auto& pam) { pam.optionsIs(1u << below(11)); })},
        {"bulk", raw([this](auto&, auto& pam) { pam.enableBulkReadIs(oneIn(2)); })},
        {"limit", raw([this](auto&, auto& pam) { pam.socketReadLimitIs(oneIn(2)); })},
        {"flags", raw([this](auto&, auto& pam) { pam.rxFlagsIs(oneIn(3) ? MSG_OOB : 0); })},
        {"size", raw([this](auto&, auto& pam) { pam.maxRxPktDataIs(40 + below(1497)); })},
        {"drop raw", raw([this](auto& each, auto&) { dropRaw(each); })},
    }};
}

void World::checkAtRest() {
    print("at rest");
    isAtRest = true;
    for (const auto& each : raws) {
        if (each->pam->enabled() && !each->hasTried) {
            readRaw(*each, each->pam->enableBulkRead());  // Else it would not be reported.
        }
    }
    settle(loop, [this] { return missing(); });
    for (const auto& each : raws) {
        each->reports = each->pam->enabled() ? each->pam->readableCount() + 1 : 0;
    }
    for (const Ptr<RawIpPam>& sender : senders) {
        sender->txPktIs(pktOf("a packet"));
    }
    settle(loop, [this] { return missing(); });
    isAtRest = false;
}

// What has arrived and should have been announced, or null.
const char* World::missing() const {
    for (const auto& each : raws) {
        if (each->pam->readableCount() < each->reports) {
            return "a new packet";
        }
        if (each->pam->enabled() && each->canRead() && !each->wasInVain && each->hasData()) {
            return "a packet";
        }
    }
    return nullptr;
}

using PamReentrancy = PavoTest::SandboxTest;

TEST_F(PamReentrancy, ObserversOfEndpointsMayDoAnything) {
    (void)globalPktManager();  // Lives from now on.
    PavoTest::runPrograms(1000, PavoTest::runProgram<World>);
}

}  // namespace
}  // namespace Pavo
