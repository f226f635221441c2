/// @file
/// Random programs of endpoints of both families, on sockets and on a host inside the process, and
/// of a multiplexer. All observers act.
#include <poll.h>
#include <sys/socket.h>

#include <memory>
#include <type_traits>
#include <vector>

#include "Pavo/BuildPkt.h"
#include "Pavo/EthDevPam.h"
#include "Pavo/Ip6SocketPam.h"
#include "Pavo/IpHost.h"
#include "Pavo/IpSocketPam.h"
#include "Pavo/PamMux.h"
#include "Pavo/RawTxPam.h"
#include "Pavo/TapPam.h"
#include "Pavo/UdpPam.h"
#include "Pavo/deferClose.h"
#include "pam/PamFixture.h"
#include "support/RandomProgram.h"

namespace Pavo {
namespace {

using Mox::Change;
using Mox::Ptr;
using Mox::Watch;

// As a frame, it goes to the host that sends it.
const std::string packet = std::string(12, '\0') + "\x88\xb5 a packet";

// A tap endpoint, and one that sends to it. Attributes of other endpoints change its device.
struct TestTap : Mox::EntityOf<TestTap, TapPam> {
    explicit TestTap(const char* device) : EntityOf("tap", device, NamespaceName()) {
        raw->bypassesQdiscIs(true);
        raw->enabledIs(true);
    }
    static constexpr auto description() { return Mox::classRecord("Pavo::TestTap"); }

    // They persist, so that opening one takes little time.
    static constexpr const char* devices[] = {"tap0", "tap1", "tap2", "tap3", "tap4", "tap5"};
    void sendToItself(uint32_t packets) {
        const auto frame = buildPkt(Eth{.dst = EthAddr(0xffff, 0xffff, 0xffff), .type = 0x88b5});
        enabled() ? raw->txPktsIs(ifIndex(), std::vector(packets, frame)) : 0;
    }
    int32_t doGetBulkRxPkt() override { return rxPkt() ? 0 : 0; }

    bool enableBulkRead() const { return false; }
    uint8_t socketReadLimit() const { return 0; }
    int rxFlags() const { return 0; }
    void enableBulkReadIs(bool) { isUpIs(true); }
    void optionsIs(uint32_t bits) { bits == ipHdrIncl ? isUpIs(false) : mtuIs(1000 + bits); }
    void socketReadLimitIs(uint8_t low) { macIs(EthAddr(0x0200, 0, low)); }
    void rxFlagsIs(int flags) { raw->bypassesQdiscIs(flags == 0); }

    const Ptr<RawTxPam> raw = rawTxPamFactory("raw");
};

template <class Endpoint>
struct End {
    // Else every read fails, or takes nothing.
    bool canRead() const {
        bool isRefused = false;
        if constexpr (!std::is_same_v<Endpoint, EthDevPam>) {  // Frames have no flags.
            isRefused = (pam->rxFlags() & MSG_OOB) != 0;
        }
        return !isRefused && (!pam->enableBulkRead() || slots != 0);
    }
    bool hasData() const {
        if (!pam->fileDesc()) {
            return false;  // A host does not say.
        }
        pollfd ready{pam->fileDesc()->descriptor(), POLLIN, 0};
        return poll(&ready, 1, 0) == 1 && (ready.revents & POLLIN) != 0;
    }

    Ptr<Endpoint> pam;
    Watch<Endpoint> watch;
    Watch<RawTxPam> rawWatch;
    uint32_t slots = 0;      // Of a bulk read.
    bool hasTried = false;   // To read, since the last report.
    bool wasInVain = false;  // That could not take anything.
    uint32_t reports = 0;    // What `readableCount` has to reach.
};

template <class Endpoint, bool isOnHost>
struct World : PavoTest::RandomProgram {
    using RandomProgram::RandomProgram;
    using RawEnd = End<Endpoint>;
    static constexpr bool isUdp = std::is_same_v<Endpoint, UdpPam>;
    static constexpr bool isEth = std::is_same_v<Endpoint, EthDevPam>;
    static constexpr bool isTap = std::is_same_v<Endpoint, TestTap>;
    ~World() { raws.clear(); }

    static IpGenAddr self(bool six) { return addr(six ? "::1" : "127.0.0.1"); }
    Ptr<Endpoint> newRaw(bool six) {
        Ptr<Endpoint> pam;
        if constexpr (isUdp) {
            pam = udpPamFactory("udp");
            pam->localAddrIs(self(six));
        } else if constexpr (isEth) {  // With a ring, or without.
            pam = ethDevPamFactory("eth");
            pam->deviceIs("lo");
            pam->etherTypeIs(0x88b5);
            pam->rxRingBlocksIs(six ? 64 : 0);  // A full ring reports no new frame.
            pam->rxRingBlockBytesIs(4096);
            pam->rxRingTimeoutMsIs(1);
        } else if constexpr (isTap) {
            static uint32_t next = 0;
            pam = Mox::make<TestTap>(TestTap::devices[next++ % std::size(TestTap::devices)]);
            configure([&] { pam->enabledIs(true); });  // Another one may have the device.
            return pam;
        } else {
            constexpr IpProtocolNumber protocol = IpProtocolNumber::experiment1;
            pam = six ? Ptr<RawIpPam>(ip6SocketPamFactory("six", protocol, {}))
                      : Ptr<RawIpPam>(ipSocketPamFactory("four", protocol, {}));
            pam->txDstIpAddrIs(self(six));
        }
        if constexpr (isOnHost) {
            (void)host->attach(pam);
        }
        pam->enabledIs(true);
        return pam;
    }
    void advance() { isOnHost ? clock.advance(0.002) : (void)loop.turn(0); }
    void settleAll() {
        if (!isOnHost) {
            settle(loop, [this] { return missing(); });
            return;
        }
        clock.advance(1);
        EXPECT_STREQ(missing(), nullptr) << "was not announced";
        EXPECT_EQ(clock.nextExpiry(), Mox::Clock::idle) << "the clock is kept busy";
    }
    // Has an endpoint until it is dropped.
    std::shared_ptr<RawEnd> anyRaw() {
        if (raws.empty() || oneIn(8)) {
            RawEnd* raw = raws.emplace_back(std::make_shared<RawEnd>()).get();
            raw->pam = newRaw(oneIn(2));
            const auto notified = [this, raw, pam = raw->pam.ptr()](const Change& change) {
                EXPECT_TRUE(isOnHost || pam->enabled() == (pam->fileDesc() != nullptr))
                    << "it is half changed";
                if (change.is(Pam::readableCountAttr)) {
                    raw->hasTried = false;
                    isAtRest ? readRaw(*raw, pam->enableBulkRead()) : void();
                }
                respond();
            };
            raw->watch = {raw->pam, Mox::allAttributes, notified};
            if constexpr (isTap) {
                raw->rawWatch = {raw->pam->raw, Mox::allAttributes,
                                 [this](const Change&) { respond(); }};
            }
        }
        return any(raws);
    }
    static void readRaw(RawEnd& raw, bool inBulk) {
        raw.hasTried = raw.pam->enabled();
        raw.wasInVain = !raw.canRead() || (inBulk && !raw.pam->enableBulkRead());
        inBulk ? (void)raw.pam->rxPktBulk() : (void)raw.pam->rxPkt();
    }
    // To every endpoint of its family.
    void sendTo(Endpoint& sender) {
        if constexpr (isUdp) {
            for (const auto& each : raws) {
                sender.remoteIs({each->pam->localAddr(), each->pam->boundPort()});
                sender.txPktIs(pktOf(packet));
            }
        } else if constexpr (isTap) {
            for (const auto& each : raws) {
                each->pam->isUpIs(true);
                each->pam->raw->bypassesQdiscIs(true);
                each->pam->sendToItself(1);
            }
        } else {
            sender.txPktIs(pktOf(packet));
        }
    }
    static void switchBulk(RawEnd& raw) {
        raw.slots = raw.pam->socketReadLimit();  // For as long as it is on.
        raw.pam->enableBulkReadIs(!raw.pam->enableBulkRead());
    }
    // To itself.
    static void sendRaw(Endpoint& pam, uint32_t packets) {
        if constexpr (isUdp) {
            pam.remoteIs({pam.localAddr(), pam.boundPort()});
        } else if constexpr (isTap) {
            pam.sendToItself(packets);
        }
        if (pam.enabled() && packets == 1) {
            pam.txPktIs(pktOf(packet));
        } else if (pam.enabled()) {
            pam.txPktsIs(std::vector(packets, pktOf(packet)));
        }
    }
    void dropRaw(RawEnd& raw) {
        std::erase_if(raws, [&](const auto& each) { return each.get() == &raw; });
        raw.pam = nullptr;
    }

    std::vector<Actions> kinds();
    void run() {
        perform(
            kinds(), [this] { advance(); }, [this] { checkAtRest(); });
    }
    void checkAtRest();
    const char* missing() const;

    // Last, after the endpoints have passed their descriptors on.
    const std::unique_ptr<void, void (*)(void*)> closed{this, [](void*) { deferCloseWait(); }};
    Mox::EventLoop loop;
    Mox::ManualClock clock;
    const Ptr<PamConnector> link = pamConnectorFactory(&clock);
    const Ptr<IpHost> host = ipHostFactory("host", link->pam("pam0"), &clock);
    const Ptr<Endpoint> senders[2] = {newRaw(false), newRaw(true)};
    std::vector<std::shared_ptr<RawEnd>> raws;
    bool isAtRest = false;  // Only readers act: they read once when they are notified.
};

template <class Endpoint, bool isOnHost>
std::vector<PavoTest::RandomProgram::Actions> World<Endpoint, isOnHost>::kinds() {
    const auto raw = [this](auto act) {
        return [=, this] {
            const std::shared_ptr<RawEnd> each = anyRaw();
            configure([&] { act(*each, *each->pam); });
        };
    };
    return {{
        {"read raw", [this] { readRaw(*anyRaw(), oneIn(2)); }},
        {"send raw", [this] { sendRaw(*Ptr(anyRaw()->pam), 1 + 2 * below(2)); }},
        {"enable", raw([this](auto&, auto& pam) { pam.enabledIs(!oneIn(4)); })},
        {"options", raw([this](auto&, auto& pam) { pam.optionsIs(1u << below(11)); })},
        {"bulk", raw([this](auto&, auto& pam) { pam.enableBulkReadIs(oneIn(2)); })},
        {"limit", raw([this](auto&, auto& pam) { pam.socketReadLimitIs(oneIn(2)); })},
        {"flags", raw([this](auto&, auto& pam) {
             if constexpr (isEth) {
                 pam.promiscuousIs(oneIn(2));
             } else {
                 pam.rxFlagsIs(oneIn(3) ? MSG_OOB : 0);
             }
         })},
        {"size", raw([this](auto&, auto& pam) { pam.maxRxPktDataIs(40 + below(1497)); })},
        {"drop raw", raw([this](auto& each, auto&) { dropRaw(each); })},
    }};
}

template <class Endpoint, bool isOnHost>
void World<Endpoint, isOnHost>::checkAtRest() {
    print("at rest");
    isAtRest = true;
    for (const auto& each : raws) {
        if (each->pam->enabled() && !each->hasTried) {
            readRaw(*each, each->pam->enableBulkRead());  // Else it would not be reported.
        }
    }
    settleAll();
    for (const auto& each : raws) {
        each->reports = each->pam->enabled() ? each->pam->readableCount() + 1 : 0;
    }
    for (const Ptr<Endpoint>& sender : senders) {
        sendTo(*sender);
    }
    settleAll();
    isAtRest = false;
}

// What has arrived and should have been announced, or null.
template <class Endpoint, bool isOnHost>
const char* World<Endpoint, isOnHost>::missing() const {
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

// A multiplexer over an endpoint of a host.
struct MuxWorld : PavoTest::RandomProgram {
    using RandomProgram::RandomProgram;
    struct Client {
        Ptr<PamMuxPam> pam;
        Watch<PamMuxPam> watch;
    };
    static constexpr uint16_t port = 7;

    Ptr<UdpPam> newEnd(uint16_t local) {
        const auto pam = host->attach(udpPamFactory("udp"));
        pam->localAddrIs(addr("127.0.0.1"));
        pam->localPortIs(local);
        pam->remoteIs({addr("127.0.0.1"), port});
        pam->enabledIs(true);
        return pam;
    }
    // Is made again after it was dropped.
    Ptr<PamMux> anyMux() {
        Ptr<PamMux> held = mux;
        if (!held) {
            mux = held = pamMuxFactory("mux", lower, &clock, CaptureLinkType::rawIp);
            watch = {held, Mox::allAttributes, [this](const Change&) { respond(); }};
            held->enabledIs(true);  // An observer may drop it.
        }
        return held;
    }
    PamMuxMatch anyMatch() {
        const auto function = [this](const Ptr<Pkt>&, const RxInfo&) {
            return oneIn(3) && !isAtRest ? throw Thrown() : oneIn(2);
        };
        const PamMuxMatch matches[] = {PamMuxMatch::udpPort(port), PamMuxMatch::all(),
                                       PamMuxMatch::ipProtocol(IpProtocolNumber::udp),
                                       PamMuxMatch::function(function)};
        return matches[below(std::size(matches))];
    }
    void addClient() {
        const auto pam = anyMux()->clientIs(std::to_string(below(4)), anyMatch());
        const auto notified = [this, pam = pam.ptr()](const Change& change) {
            if (isAtRest && change.is(Pam::readableCountAttr)) {
                pam->rxPkt();
            }
            respond();
        };
        clients.push_back(std::make_shared<Client>());
        clients.back()->pam = pam;
        clients.back()->watch = {pam, Mox::allAttributes, notified};
    }
    std::shared_ptr<Client> anyClient() {
        if (clients.empty()) {
            addClient();
        }
        return any(clients);
    }

    std::vector<Actions> kinds() {
        const auto client = [this](auto act) { return [=, this] { act(*Ptr(anyClient()->pam)); }; };
        return {{
            {"arrive", [this] { sender->txPktIs(pktOf("a packet")); }},
            {"read", client([](auto& pam) { pam.rxPkt(); })},
            {"read batch", client([](auto& pam) { pam.rxPktBulk(); })},
            {"send", client([](auto& pam) { pam.txPktIs(pktOf("a packet")); })},
            {"send batch", client([](auto& pam) { pam.txPktsIs(std::vector(3, pktOf("x"))); })},
            {"add", [this] { addClient(); }},
            {"delete", [this] { anyMux()->clientDel(std::to_string(below(4))); }},
            {"forget", [this] { std::erase(clients, anyClient()); }},
            {"place", client([this](auto& pam) { pam.placeIs(static_cast<int>(below(3))); })},
            {"copies", client([this](auto& pam) { pam.takesCopiesIs(!oneIn(3)); })},
            {"limit", client([this](auto& pam) { pam.maxWaitingIs(below(4)); })},
            {"enable", [this] { anyMux()->enabledIs(!oneIn(4)); }},
            {"bulk", [this] { lower->enableBulkReadIs(oneIn(2)); }},
            {"drop", [this] { watch = {}, mux = nullptr; }},
        }};
    }
    void run() {
        perform(
            kinds(), [this] { clock.advance(0.002); }, [this] { checkAtRest(); });
    }
    // A client that reads one packet for each report receives all.
    void checkAtRest() {
        print("at rest");
        isAtRest = true;
        for (int packets = 0; packets < 3; ++packets) {
            sender->txPktIs(pktOf("a packet"));
        }
        for (const auto& each : clients) {
            each->pam->rxPkt();  // Else it would not be reported.
        }
        clock.advance(1);
        for (const auto& each : clients) {
            const bool isServed = each->pam->mux() != nullptr && each->pam->mux()->enabled();
            EXPECT_TRUE(!isServed || each->pam->waiting() == 0) << "was not announced";
        }
        EXPECT_EQ(clock.nextExpiry(), Mox::Clock::idle) << "the clock is kept busy";
        isAtRest = false;
    }

    Mox::ManualClock clock;
    const Ptr<PamConnector> link = pamConnectorFactory(&clock);
    const Ptr<IpHost> host = ipHostFactory("host", link->pam("pam0"), &clock);
    const Ptr<UdpPam> lower = newEnd(port);
    const Ptr<UdpPam> sender = newEnd(0);
    Ptr<PamMux> mux;
    Watch<PamMux> watch;
    std::vector<std::shared_ptr<Client>> clients;
    bool isAtRest = false;
};

class PamReentrancy : public PavoTest::SandboxTest {
  protected:
    template <class World>
    static void run(uint32_t programs) {
        (void)globalPktManager();  // Lives from now on.
        PavoTest::runPrograms(programs, PavoTest::runProgram<World>);
    }
};

TEST_F(PamReentrancy, ObserversOfEndpointsMayDoAnything) {
    run<World<RawIpPam, false>>(1000);
    run<World<UdpPam, false>>(1000);
}

TEST_F(PamReentrancy, ObserversOfEndpointsOnAHostMayDoAnything) {
    run<World<RawIpPam, true>>(1000);
    run<World<UdpPam, true>>(1000);
    run<MuxWorld>(2000);
}

TEST_F(PamReentrancy, ObserversOfEndpointsOfFramesMayDoAnything) {
    run<World<EthDevPam, false>>(20);  // Closing takes long.
    for (const char* each : TestTap::devices) {
        PavoTest::run({"ip", "tuntap", "add", "dev", each, "mode", "tap"});
    }
    run<World<TestTap, false>>(100);
    for (const char* each : TestTap::devices) {
        PavoTest::run({"ip", "link", "del", each});
    }
}

}  // namespace
}  // namespace Pavo
