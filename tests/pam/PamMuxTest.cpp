// Many endpoints over one.
#include "Pavo/PamMux.h"

#include <algorithm>
#include <cerrno>
#include <random>

#include "Mox/Clock.h"
#include "Pavo/BpfFilter.h"
#include "Pavo/BuildPkt.h"
#include "Pavo/PamConnector.h"
#include "Pavo/UdpPam.h"
#include "pam/PamFixture.h"
#include "support/Seeds.h"

namespace Pavo {
namespace {

using Mox::Ptr;
using Number = PamMuxMatch::Number;

// A packet whose last byte is its serial number, and what its maker knows of it: the numbers of the
// three kinds, -1 where it has none.
struct Made {
    Ptr<Pkt> pkt = nullptr;
    char serial = 0;
    std::array<int, 3> numbers{-1, -1, -1};
};

class Maker {
  public:
    explicit Maker(uint32_t seed) : random_(seed) {}

    uint32_t below(std::size_t limit) { return static_cast<uint32_t>(random_() % limit); }
    bool oneIn(uint32_t chances) { return below(chances) == 0; }

    Made make(CaptureLinkType linkType, char serial) {
        const bool isSix = oneIn(2);
        const int protocol = oneIn(3) ? 89 : 17;
        const uint32_t form = below(4);
        std::string upper(oneIn(6) ? 1 + below(7) : 8 + below(2), '\0');
        const auto port = static_cast<char>(below(4));
        upper[std::min<std::size_t>(3, upper.size() - 1)] = port;
        upper.back() = serial;
        const bool hasPort = protocol == 17 && upper.size() >= 8 && form != laterFragment;
        Made made{isSix ? ip6(form, protocol, upper) : ip4(form, protocol, upper),
                  serial,
                  {isSix ? EthType::ip6 : EthType::ip, protocol, hasPort ? port : -1}};
        if (linkType == CaptureLinkType::ethernet) {
            made.numbers = oneIn(6) ? std::array<int, 3>{EthType::arp, -1, -1} : made.numbers;
            made.pkt = frame(static_cast<uint16_t>(made.numbers[0]), *made.pkt);
        }
        if (oneIn(3)) {  // The first bytes move to the private piece.
            const uint32_t bytes = 1 + below(std::min(made.pkt->totalBytes() - 1, 63u));
            const std::string front(made.pkt->stringValue().view().substr(0, bytes));
            made.pkt->delSharedHeadData(bytes);
            std::copy(front.begin(), front.end(), made.pkt->newPrivateHeadData(bytes));
        }
        return made;
    }

  private:
    enum Form : uint32_t { withOptions, laterFragment, firstFragment };

    static Ptr<Pkt> ip4(uint32_t form, int protocol, const std::string& upper) {
        static constexpr uint8_t options[] = {1, 1, 1, 1};
        return buildPkt(Ip{.protocol = IpProtocolNumber(protocol),
                           .fragmentOffset = form == laterFragment ? 3u : 0u,
                           .options = std::span(options).first(form == withOptions ? 4 : 0)},
                        Payload(upper));
    }
    static Ptr<Pkt> ip6(uint32_t form, int protocol, const std::string& upper) {
        const auto next = static_cast<char>(protocol);
        std::string extensions;
        if (form == withOptions) {  // Hop-by-hop and destination options, of 8 and 16 bytes.
            extensions = {60, 0, 1, 4, 0, 0, 0, 0, next, 1, 1, 12};
            extensions.resize(24);
        } else if (form <= firstFragment) {
            extensions = {next, 0, 0, static_cast<char>(form == laterFragment ? 9 : 1), 1, 2, 3, 4};
        }
        const int first = form == withOptions ? 0 : form <= firstFragment ? 44 : protocol;
        return buildPkt(Ip6{.nextHeader = IpProtocolNumber(first)}, Payload(extensions + upper));
    }
    // With up to two tags.
    Ptr<Pkt> frame(uint16_t type, const Pkt& packet) {
        const std::string payload(packet.stringValue());
        const Vlan outer{.tpid = EthType::dot1Ad}, tag{.type = type};
        const uint32_t tags = below(3);
        return tags == 0   ? buildPkt(Eth{.type = type}, payload)
               : tags == 1 ? buildPkt(Eth{}, tag, payload)
                           : buildPkt(Eth{}, outer, tag, payload);
    }

    std::mt19937 random_;
};

// What a client gets, by a walk over all of them.
struct Model {
    int age = 0;
    Ptr<PamMuxPam> client = nullptr;
    std::string waiting = {};
    uint32_t drops = 0;
};

bool wants(const PamMuxPam& client, const Made& made) {
    const PamMuxMatch& match = client.match();
    return match.function()
               ? made.serial % 3 == 0
               : made.numbers[static_cast<std::size_t>(match.number())] == match.value();
}

PamMuxMatch randomMatch(Maker& maker) {
    const PamMuxMatch matches[] = {
        PamMuxMatch::etherType(maker.oneIn(2) ? EthType::arp : EthType::ip6),
        PamMuxMatch::ipProtocol(IpProtocolNumber(maker.oneIn(2) ? 89 : 17)),
        PamMuxMatch::udpPort(maker.below(4)),
        PamMuxMatch::function([](const Ptr<Pkt>& pkt, const RxInfo&) {
            return pkt->stringValue().view().back() % 3 == 0;
        })};
    return matches[maker.below(std::size(matches))];
}

// Returns whether a client takes it.
bool distribute(std::vector<Model>& models, const Made& made) {
    std::sort(models.begin(), models.end(), [](const Model& a, const Model& b) {
        return std::pair(a.client->place(), a.age) < std::pair(b.client->place(), b.age);
    });
    bool isClaimed = false;
    for (Model& each : models) {
        if (!wants(*each.client, made)) {
            continue;
        }
        isClaimed = true;
        const bool fits = each.waiting.size() < each.client->maxWaiting();
        fits ? each.waiting.push_back(made.serial) : (void)++each.drops;
        if (!each.client->takesCopies()) {
            break;
        }
    }
    return isClaimed;
}

std::string serialsOf(PamMuxPam& client, bool inBatches) {
    std::string serials;
    readAll(client, inBatches,
            [&](const Pkt& pkt, const RxInfo&) { serials += pkt.stringValue().view().back(); });
    return serials;
}

void changeClients(Maker& maker, PamMux* mux, std::vector<Model>* models, int name) {
    if (models->empty() || !maker.oneIn(3)) {
        Model model{name, mux->clientIs(std::to_string(name), randomMatch(maker))};
        model.client->takesCopiesIs(maker.oneIn(3));
        model.client->maxWaitingIs(maker.oneIn(3) ? 2 : 1024);
        model.client->bulkReadLimitIs(1 + maker.below(3));
        models->push_back(model);
    }
    Model& any = (*models)[maker.below(models->size())];
    any.client->placeIs(static_cast<int32_t>(maker.below(3)) - 1);
    if (maker.oneIn(3)) {
        mux->clientDel(any.client->name());
        models->erase(models->begin() + (&any - models->data()));
    }
}

TEST(PamMux, GivesEachPacketToTheFirstClientThatWantsIt) {
    for (const uint32_t seed : PavoTest::Seeds(400)) {
        SCOPED_TRACE(seed);
        Maker maker(seed);
        Mox::ManualClock clock;
        const auto wire = pamConnectorFactory(&clock);
        const auto linkType = maker.oneIn(2) ? CaptureLinkType::ethernet : CaptureLinkType::rawIp;
        const auto mux = pamMuxFactory("mux", wire->pam("pam1"), &clock, linkType);
        mux->enabledIs(true);
        std::vector<Model> models;
        uint64_t unclaimed = 0;
        char serial = 0;
        for (int round = 0; round < 12; ++round) {
            changeClients(maker, mux.ptr(), &models, round);
            for (int i = 0; i < 8; ++i) {
                const Made made = maker.make(linkType, ++serial);
                unclaimed += distribute(models, made) ? 0 : 1;
                wire->pam("pam0")->txPktIs(made.pkt);
            }
            clock.advance(1);
            EXPECT_EQ(mux->unclaimedPkts(), unclaimed);
            for (Model& each : models) {
                EXPECT_EQ(serialsOf(*each.client, maker.oneIn(2)), each.waiting);
                EXPECT_EQ(each.client->rxDrops(), each.drops);
                each.waiting.clear();
            }
        }
    }
}

// An endpoint that reads batches of serial numbers, and has room for some packets.
class BatchPam : public Pam {
  public:
    BatchPam() : Pam("batch") { slotsFill(newSlots(1, 64)); }

    void arrive(const std::string& serials) {
        pending_ = serials;
        readableCountInc(1);
    }
    void doGetRxPkt() override {}
    int32_t doGetBulkRxPkt() override {
        std::vector<Ptr<Pkt>> pkts;
        for (const char each : std::exchange(pending_, {})) {
            pkts.push_back(pktOf(std::string(1, each)));
        }
        return slotsPublish(&pkts, std::vector<RxInfo>(pkts.size()), [] {});
    }
    void txPktIsImpl(Ptr<Pkt> pkt) override {
        const bool isSent = room != 0;
        room -= isSent ? 1 : 0;
        sent += isSent ? std::string(pkt->stringValue()) : "";
        txErrnoIs(isSent ? 0 : EAGAIN);
        txErrorsInc(isSent ? 0 : 1);
    }

    uint32_t room = 0;
    std::string sent;

  private:
    std::string pending_;
};

PamMuxMatch bytesFrom(char first, char last) {
    return PamMuxMatch::function([=](const Ptr<Pkt>& pkt, const RxInfo&) {
        const char byte = pkt->stringValue().view()[0];
        return first <= byte && byte <= last;
    });
}

struct MuxScene : PamFixture {
    Ptr<PamMuxPam> newClient(const char* name, char first, char last) {
        const auto client = mux->clientIs(name, bytesFrom(first, last));
        watches.emplace_back(client, Pam::readableCountAttr,
                             [this, client = client.ptr()] { onReport(client); });
        return client;
    }

    Ptr<BatchPam> lower = Mox::make<BatchPam>();
    Ptr<PamMux> mux = pamMuxFactory("mux", lower, loop_.clock());
    std::string log;
    std::vector<Mox::Watch<PamMuxPam>> watches;
    std::function<void(PamMuxPam*)> onReport = [this](PamMuxPam* client) {
        log += client->rxPkt()->stringValue().c_str();
    };
};

TEST_F(MuxScene, ReportsEachClientOnceATurnWhileItLeavesPackets) {
    const auto letters = newClient("letters", 'a', 'z');
    const auto digits = newClient("digits", '0', '9');
    mux->enabledIs(true);
    const auto turn = [&](const char* arriving) {
        log.clear();
        loop_.defer([this, arriving] { lower->arrive(arriving); });
        loop_.turn(0);
        return log;
    };
    EXPECT_EQ(turn("ab1cd2!"), "a1");
    EXPECT_EQ(turn(""), "b2");
    EXPECT_EQ(turn(""), "c");
    EXPECT_EQ(turn("e3"), "d3");  // The letters have been reported in this turn.
    EXPECT_EQ(turn(""), "e");
    EXPECT_EQ(turn("f"), "f");
    EXPECT_EQ(mux->unclaimedPkts(), 1u);
    onReport = [](auto) {};  // Nobody reads: no second report, and nothing to do.
    turn("ghi");
    turn("jkl");
    EXPECT_LT(turnsUntilQuiet(), 10u);
    const uint32_t reports = letters->readableCount();
    EXPECT_EQ(letters->rxPkt()->stringValue(), "g");  // From here on it is reported again.
    loop_.turn(0);
    EXPECT_EQ(letters->readableCount(), reports + 1);
    EXPECT_EQ(reports, 7u);
}

TEST_F(MuxScene, AnnouncesRoomInTurnToThoseThatWait) {
    std::vector<Mox::Watch<PamMuxPam>> writable;
    std::vector<Ptr<PamMuxPam>> clients;
    mux->enabledIs(true);
    for (const char* name : {"a", "b", "c"}) {
        clients.push_back(newClient(name, 'a', 'a'));
        PamMuxPam* const client = clients.back().ptr();
        writable.emplace_back(clients.back(), Pam::writableCountAttr, [client] {
            do {
                client->txPktIs(pktOf(client->name().view()));
            } while (client->txErrno() == 0);
        });
        client->txPktIs(pktOf(name));
        EXPECT_EQ(client->txErrno(), EAGAIN);
    }
    for (int i = 0; i < 4; ++i) {
        lower->room = 2;
        lower->writableCountInc(1);
    }
    EXPECT_EQ(lower->sent, "aabbccaa");
    EXPECT_EQ(clients[2]->txErrors(), 2u);
    lower->room = 2;
    EXPECT_EQ(clients[0]->txPktsIs(std::vector(3, pktOf("x"))), 2u);
    EXPECT_EQ(clients[0]->txErrno(), EAGAIN);
    mux->enabledIs(false);
    clients[1]->txPktIs(pktOf("b"));
    EXPECT_EQ(clients[1]->txErrno(), ENETDOWN);
    mux = nullptr;
    clients[1]->txPktIs(pktOf("b"));
    EXPECT_EQ(clients[1]->txErrno(), ENOTCONN);
}

TEST_F(MuxScene, LosesNothingWhenAnObserverThrows) {
    const auto letters = newClient("letters", 'a', 'z');
    const auto digits = newClient("digits", '0', '9');
    mux->clientIs("bad", PamMuxMatch::function([](auto&, auto&) -> bool { throw 1; }))->placeIs(-1);
    const Mox::Watch<BatchPam> slots(lower, Pam::savedPacketRxAttr, [](uint32_t) { throw 2; });
    const Mox::Watch<PamMux> unclaimed(mux, PamMux::unclaimedPktsAttr, [] { throw 3; });
    mux->enabledIs(true);
    onReport = [](auto) { throw 4; };
    EXPECT_THROW(lower->arrive("a1!b2"), int);
    EXPECT_EQ(serialsOf(*letters, false) + serialsOf(*digits, true), "ab12");
    EXPECT_EQ(mux->unclaimedPkts(), 1u);
}

TEST_F(MuxScene, KnowsOfRemovedHeadersAndAsksFilters) {
    const auto udp = udpPamFactory("udp");
    udp->localAddrIs(addr("::1"));
    udp->enabledIs(true);
    udp->remoteIs({addr("::1"), udp->boundPort()});
    const auto filter = bpfFilterFactory("filter");
    ASSERT_EQ(filter->tryCompile("ether[0] = 0x41"), "");
    mux = pamMuxFactory("mux", udp, loop_.clock(), CaptureLinkType::rawIp);
    std::vector<Ptr<PamMuxPam>> clients;
    for (const PamMuxMatch& each :
         {PamMuxMatch::filter(filter), PamMuxMatch::udpPort(udp->boundPort()),
          PamMuxMatch::udpPort(0x4242), PamMuxMatch::ipProtocol(IpProtocolNumber::udp),
          PamMuxMatch::etherType(EthType::ip6)}) {
        clients.push_back(mux->clientIs(std::to_string(clients.size()), each));
        clients.back()->takesCopiesIs(true);
    }
    mux->enabledIs(true);
    clients[0]->txPktIs(pktOf("AAAAAAAAAAAAAAAA"));
    clients[0]->txPktIs(pktOf("BBBBBBBBBBBBBBBB"));  // "BB" is where a header has its port.
    turnsUntilQuiet();
    for (const uint32_t expected : {1u, 2u, 0u, 2u, 2u}) {
        EXPECT_EQ(clients.front()->waiting(), expected) << clients.size();
        clients.erase(clients.begin());
    }
}

}  // namespace
}  // namespace Pavo
