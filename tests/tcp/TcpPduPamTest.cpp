#include "Pavo/TcpPduPam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "pam/PamFixture.h"
#include "support/Errors.h"
#include "support/RandomProgram.h"
#include "tcp/TcpStreams.h"

namespace Pavo {
namespace {

constexpr auto readOnly = tcpEnableModeReadOnly;
constexpr auto writeOnly = tcpEnableModeWriteOnly;
constexpr auto both = tcpEnableModeReadWrite;

std::string pduOf(uint16_t length) {
    return messageOf(simpleFraming, length, length, length);
}

Mox::Ptr<TcpPduPam> newPam(const Mox::Ptr<TcpFileDescriptor>& stream, const TcpFraming& framing,
                           bool isFramed) {
    const auto loop = loopTcpRegistrationFactory();
    return isFramed ? Mox::Ptr<TcpPduPam>(framedTcpPduPamFactory(stream, loop, framing))
                    : simpleTcpPduPamFactory(stream, loop);
}

// For level- and edge-triggered descriptors, without read-ahead and with it, into buffers of which
// half is left after the messages of a turn, or nothing. One message is taken at each notification.
class TcpPduPamTest : public testing::TestWithParam<std::tuple<bool, uint32_t>> {
  protected:
    TcpPduPamTest() {
        pam_->readAheadBytesIs(std::get<1>(GetParam()));
        pam_->enableModeIs(both);
    }
    void send(std::string_view bytes) const { pam_->txPktIs(pktOf(bytes)); }
    void turns(const std::function<void()>& beforeEach = [] {}) {
        int left = 1000;
        do {
            beforeEach();
            ASSERT_GT(--left, 0) << "it spins";
        } while (loop_.turn(0) != 0);
    }

    Mox::EventLoop loop_;
    Stream stream_{std::get<0>(GetParam())};
    const Mox::Ptr<TcpPduPam> pam_ =
        newPam(stream_.near, simpleFraming, std::get<1>(GetParam()) != 0);
    std::vector<std::string> taken_;
    bool takes_ = true;
    const Mox::Watch<TcpPduPam> readable_{
        pam_, Pam::readableCountAttr, [this] {
            if (const Mox::Ptr<Pkt> pkt = takes_ ? pam_->rxPkt() : nullptr) {
                taken_.emplace_back(pkt->stringValue().view());
            }
        }};
};

INSTANTIATE_TEST_SUITE_P(EdgeAndAhead, TcpPduPamTest,
                         testing::Combine(testing::Bool(),
                                          testing::Values(0u, 3200u, 6400u, 65536u)));

TEST_P(TcpPduPamTest, ServesALimitedNumberOfPdusATurn) {
    for (uint32_t i = 0; i < 200; ++i) {
        stream_.write(pduOf(100));
    }
    std::vector<std::size_t> served;
    while (loop_.turn(0) != 0) {
        served.push_back(taken_.size());
    }
    EXPECT_THAT(served, testing::IsSupersetOf({32, 64, 96, 128, 160, 192, 200}));
}

TEST_P(TcpPduPamTest, APduThatIsNotTakenIsReportedOnce) {
    takes_ = false;
    stream_.write(pduOf(30) + pduOf(31));
    turns();
    EXPECT_EQ(pam_->readableCount(), 1u);
}

TEST_P(TcpPduPamTest, APacketWithoutRoomWaitsAndTheNextOneStopsTheProcess) {
    std::string pdu = pduOf(50000);  // It ends in the first of two pieces.
    SocketIovec pieces[] = {{pdu.data(), 40000}, {pdu.data() + 40000, 10000}};
    for (int left = 1000; pam_->writable() && left > 0; --left) {
        pam_->sendIov(pieces, 2);
    }
    EXPECT_FALSE(pam_->writable());
    EXPECT_EQ(loop_.turn(0), 0u);  // No spinning.
    EXPECT_LT(pam_->txRemainingLength(), pam_->writeLength());
    EXPECT_DEATH(send("x"), "!txPktHolderShadow\\(\\)");
    turns([&] { stream_.read(); });
    pam_->enableModeIs(readOnly);
    EXPECT_DEATH(send("x"), "\"?writable\\(\\)");
}

TEST_P(TcpPduPamTest, APacketThatNoCallCanSendIsAnErrorAfterWhichWritingGoesOn) {
    pam_->txPktIs(nullptr);
    pam_->txPktIs(Mox::make<Pkt>());
    EXPECT_EQ(pam_->txErrors(), 0u);
    send(std::string(65536, '?'));
    EXPECT_EQ(pam_->txErrno(), EMSGSIZE);
    char byte = 'x';
    std::vector<SocketIovec> pieces(IOV_MAX + 1, SocketIovec{&byte, 1});
    pam_->sendIov(pieces.data(), IOV_MAX + 1);
    EXPECT_EQ(pam_->txErrors(), 2u);
    EXPECT_EQ(pam_->txErrorReason(), "Send failed with Message too long");
    pam_->sendIov(pieces.data(), IOV_MAX);
    EXPECT_EQ(pam_->txErrno(), 0);
    EXPECT_EQ(stream_.read(), std::string(IOV_MAX, 'x'));
    pam_->enabledIs(false);
    pam_->sendIov(pieces.data(), 1);
    EXPECT_EQ(pam_->txDrops(), 1u);
}

TEST_P(TcpPduPamTest, AResetIsTheReasonOfBothDirections) {
    send("never read");
    stream_.write(pduOf(40).substr(0, 39));
    turns();
    EXPECT_EQ(pam_->rxRemainingLength(), 1u);
    pam_->enableModeIs(writeOnly);
    stream_.far = nullptr;
    turns();
    EXPECT_EQ(pam_->rxErrorReason(), "Recv failed with Connection reset by peer");
    EXPECT_EQ(pam_->rxErrors(), 1u);
    EXPECT_EQ(pam_->enableMode(), writeOnly);  // Pending until the end of the PDU.
    send("last words");
    EXPECT_EQ(pam_->txErrorReason(), "Send failed with Broken pipe");
    EXPECT_FALSE(pam_->writable());
}

TEST_P(TcpPduPamTest, MisuseStopsTheProcess) {
    EXPECT_DEATH(pam_->getPduSize(), "pkt");
    EXPECT_DEATH(pam_->enableModeIs(static_cast<TcpPduPamEnableMode>(4)), "Unexpected value");
    const auto bare = tcpPduPamFactory(stream_.near, pam_->fdFactory());
    EXPECT_DEATH(bare->getPduSize(), "Need to implement getRemainingLength in a derived class");
}

// Endpoints, both ends of whose streams are checked.
struct World : PavoTest::RandomProgram {
    using RandomProgram::RandomProgram;

    struct RandomStream {
        TcpFraming framing = simpleFraming;
        bool isSpoilt = false;  // Other bytes may arrive than those of whole messages.
        uint32_t calls = 0;     // Reads and sends that have not returned, as those that threw.
        bool isOrdered = true;  // No call was made inside one.
    };
    struct End {
        std::shared_ptr<RandomStream> stream;
        End* peer = nullptr;
        Mox::Ptr<TcpFileDescriptor> fd;  // Null after it was closed, as is the endpoint.
        Mox::Ptr<TcpPduPam> pam;
        Mox::Watch<TcpPduPam> watch;
        std::set<uint32_t> unarrived;      // Messages by number.
        std::vector<Mox::Ptr<Pkt>> taken;  // Some of them.
        uint32_t lastArrived = 0;
        bool isClosing = false;  // What the other end sends may not arrive.
        bool hasClosed = false;
        bool isReading = false;  // And has not been notified since.
    };

    ~World() { ends.clear(); }

    TcpFraming anyFraming() {
        TcpFraming framing{.lengthAt = static_cast<uint16_t>(below(12)),
                           .lengthBytes = static_cast<uint8_t>(1 + below(4)),
                           .lengthIncludesHeader = oneIn(2)};
        framing.headerBytes =
            static_cast<uint16_t>(framing.lengthAt + framing.lengthBytes + below(9));
        return framing;
    }
    void open() {
        int numbers[2];
        const int few = 4608;
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, numbers), 0);
        setsockopt(numbers[0], SOL_SOCKET, SO_SNDBUF, &few, sizeof(few));
        const auto stream = std::make_shared<RandomStream>();
        const bool isSimple = oneIn(2);
        stream->framing = isSimple ? simpleFraming : anyFraming();
        End* const pair[] = {&ends.emplace_back(), &ends.emplace_back()};
        for (uint32_t i = 0; i < 2; ++i) {
            End& end = *pair[i];
            end.stream = stream;
            end.peer = pair[1 - i];
            end.fd = tcpFileDescriptorFactory(numbers[i], oneIn(2));
            end.pam = newPam(end.fd, stream->framing, !isSimple || oneIn(2));
            end.pam->txQueueBytesIs(oneIn(2) ? 0 : below(30000));
            end.watch = {end.pam, Mox::allAttributes,
                         [this, &end, pam = end.pam.ptr()](const Mox::Change& change) {
                             handle(end, *pam, change);
                         }};
        }
    }
    // The number of a message follows its header.
    static std::string textOf(const TcpFraming& framing, uint32_t number, uint32_t bytes) {
        const uint32_t length = bytes - (framing.lengthIncludesHeader ? 0 : framing.headerBytes);
        std::string text = messageOf(framing, length, bytes, number);
        std::memcpy(text.data() + framing.headerBytes, &number, sizeof(number));
        return text;
    }
    // In two pieces.
    Mox::Ptr<Pkt> newPkt(End& end, uint32_t payload) {
        const TcpFraming& framing = end.stream->framing;
        const uint32_t head = framing.headerBytes;
        const uint32_t most = framing.lengthBytes == 1 ? 100 : 9500;
        end.unarrived.insert(++messages);
        const std::string text = textOf(framing, messages, head + 4 + std::min(payload, most));
        const Mox::Ptr<Pkt> pkt = globalPktManager()->newPkt(static_cast<uint32_t>(text.size()));
        std::memcpy(pkt->newPrivateHeadData(head), text.data(), head);
        pkt->stringValueIs(text.substr(head), /*atTail=*/true);
        return pkt;
    }
    // Its number.
    static uint32_t checked(const TcpFraming& framing, const Pkt& pkt) {
        const Mox::String text = pkt.stringValue();
        uint32_t number = 0;
        std::memcpy(&number, text.view().data() + framing.headerBytes, sizeof(number));
        EXPECT_TRUE(text.view() == textOf(framing, number, text.bytes())) << "it is not whole";
        EXPECT_EQ(pkt.numIovecs(), 1u);
        return number;
    }
    static void modeIs(Mox::Ptr<TcpPduPam> pam, uint32_t mode) {
        configure([&] { pam->enableModeIs(static_cast<TcpPduPamEnableMode>(mode)); });
    }
    // Of a batch those that are not taken are the agent's again.
    void send(End& end, uint32_t count, uint32_t bytes) {
        if (count == 1 && !end.pam->writable() && end.pam->txQueueBytes() == 0 && !end.isClosing) {
            return;
        }
        RandomStream& stream = *end.stream;
        std::vector<Mox::Ptr<Pkt>> pkts(count);
        const uint32_t first = messages + 1;
        for (auto& each : pkts) {
            each = newPkt(end, below(bytes));
        }
        uint32_t taken = 1;
        stream.isOrdered &= stream.calls++ == 0;
        count == 1 ? end.pam->txPktIs(pkts[0]) : void(taken = end.pam->txPktsIs(pkts));
        --stream.calls;
        for (uint32_t i = taken; end.pam && i < count; ++i) {
            EXPECT_EQ(end.unarrived.erase(first + i), 1u) << "it was not taken, and has arrived";
        }
    }
    bool read(End& end) {
        RandomStream& stream = *end.stream;
        const bool isHeld = end.pam && end.pam->readable();
        stream.isOrdered &= stream.calls++ == 0;
        end.isReading = true;
        const Mox::Ptr<Pkt> pkt = end.pam ? end.pam->rxPkt() : nullptr;
        end.isReading = false;
        --stream.calls;
        EXPECT_TRUE(pkt || !isHeld || !stream.isOrdered) << "`readable` without a message";
        if (pkt && !stream.isSpoilt) {
            const uint32_t number = checked(stream.framing, *pkt);
            EXPECT_EQ(end.peer->unarrived.erase(number), 1u) << "it came twice";
            EXPECT_TRUE(number > end.lastArrived || !stream.isOrdered) << "it is out of order";
            end.lastArrived = number;
            oneIn(3) ? end.taken.push_back(pkt) : void();
        }
        return pkt != nullptr;
    }
    static int spoil(const End& end) {
        end.stream->isSpoilt = true;
        return end.fd->descriptor();
    }
    static void close(End& end) {
        spoil(end);
        end.fd = nullptr;
        end.watch = {};
        end.pam = nullptr;
    }
    void closeAfterTx(End& end) {
        end.isClosing = true;
        end.pam->closeAfterTx(below(3), &limits);
    }
    static void setAhead(const Mox::Ptr<TcpPduPam>& pam, bool onlyOne, uint32_t bytes) {
        const bool isRefused = onlyOne ? pam->readAheadBytes() + pam->rxBufferedBytes() != 0
                                       : pam->readOnePktOnly() && bytes != 0;
        const std::string error = rangeErrorOf(
            [&] { onlyOne ? pam->readOnePktOnlyIs(true) : pam->readAheadBytesIs(bytes); });
        EXPECT_EQ(error, isRefused ? "TcpPduPam::readOnePktOnly not allowed with read-ahead" : "");
    }
    void handle(End& end, const TcpPduPam& pam, const Mox::Change& change) {
        EXPECT_EQ(pam.readable(), pam.rxPktHolderShadow() && !pam.rxRemainingLength());
        EXPECT_FALSE(pam.writable() && pam.txQueuedBytes() > pam.txQueueBytes() / 2);
        EXPECT_FALSE(pam.writable() && pam.pendingEnableReadOnlyOrWriteOnlyMode() == readOnly);
        EXPECT_TRUE(!std::exchange(end.isReading, false) || change.is(TcpPduPam::readableAttr))
            << "counted from inside a read";
        EXPECT_FALSE(change.is(TcpPduPam::closedAttr) && end.hasClosed) << "twice";
        end.hasClosed |= change.is(TcpPduPam::closedAttr);
        if (change.is(Pam::readableCountAttr)) {
            for (uint32_t left = isAtRest ? 1 : any(takings); left > 0 && read(end); --left) {
            }
        }
        respond();  // Nothing, at rest.
    }
    Actions anyActions();
    void run() {
        perform(
            {anyActions()}, [this] { loop.turn(0); }, [this] { checkAtRest(); });
    }
    void checkAtRest();
    const char* missing() const;
    static const char* missingFrom(const End& end);

    static constexpr uint32_t aheads[] = {0, 0, 1, 50, 700, 9000, 65536};
    static constexpr uint32_t takings[] = {0, 0, 1, 2, 1000};
    Mox::EventLoop loop;
    Mox::ManualClock limits;
    std::deque<End> ends;
    uint32_t messages = 0;
    bool isAtRest = false;  // Only readers act: they read once when they are notified.
};

World::Actions World::anyActions() {
    const auto end = [this](auto act) {
        return [=, this] {
            ends.empty() || oneIn(16) ? open() : void();
            End& each = any(ends);
            each.pam ? act(each) : void();
        };
    };
    return {
        {"send", end([this](End& e) { send(e, 1, 100); })},
        {"read", end([this](End& e) { read(e); })},
        {"send much", end([this](End& e) { send(e, 1, 9500); })},
        {"send many", end([this](End& e) { send(e, 2 + below(40), oneIn(4) ? 9000 : 200); })},
        {"send very many", end([this](End& e) { send(e, 400, 9); })},
        {"enable", end([](End& e) { modeIs(e.pam, both); })},
        {"mode", end([this](End& e) { modeIs(e.pam, below(4)); })},
        {"only one", end([](End& e) { setAhead(e.pam, true, 0); })},
        {"not only one", end([](End& e) { e.pam->readOnePktOnlyIs(false); })},
        {"ahead", end([this](End& e) { setAhead(e.pam, false, any(aheads)); })},
        {"longest", end([this](End& e) { e.pam->maxPduLengthIs(oneIn(2) ? 5000 : 9600); })},
        {"queue", end([this](End& e) { e.pam->txQueueBytesIs(below(30000)); })},
        {"no queue", end([](End& e) { e.pam->txQueueBytesIs(0); })},
        {"close after", end([this](End& e) { closeAfterTx(e); })},
        {"limit", [this] { limits.advance(1); }},
        {"close", end([](End& e) { close(e); })},
        {"half close", end([this](End& e) { shutdown(spoil(e), oneIn(2) ? SHUT_RD : SHUT_WR); })},
        {"other bytes", end([](End& e) { ::send(spoil(e), "other", 5, MSG_NOSIGNAL); })},
    };
}

// Everything that was sent has arrived, and every stream that was to end has.
void World::checkAtRest() {
    isAtRest = true;
    for (End& end : ends) {
        if (!end.pam) {
            continue;
        }
        end.pam->readOnePktOnly() ? end.pam->readOnePktOnlyIs(false) : void();
        if (end.pam->enableMode() != both ||
            end.pam->pendingEnableReadOnlyOrWriteOnlyMode() != tcpEnableModeNone) {
            modeIs(end.pam, both);
        }
        end.pam->readable() ? (void)read(end) : void();  // Was announced before.
    }
    settle(loop, [this] { return missing(); });
    limits.advance(3);
    for (const End& end : ends) {
        EXPECT_TRUE(!end.isClosing || !end.pam || (end.pam->closed() && end.hasClosed));
        for (const auto& each : end.taken) {
            checked(end.stream->framing, *each);
        }
    }
    settle(loop, [this] { return missing(); });
    isAtRest = false;
}

// What has arrived and should have been announced, or null.
const char* World::missing() const {
    const char* what = nullptr;
    for (auto end = ends.begin(); end != ends.end() && what == nullptr; ++end) {
        what = end->pam ? missingFrom(*end) : nullptr;
    }
    return what;
}

const char* World::missingFrom(const End& end) {
    const End& peer = *end.peer;
    if (!peer.fd && end.pam->rxErrors() == 0 && !end.isClosing) {
        return "the end of a stream";
    }
    if (end.stream->isSpoilt || peer.isClosing || end.pam->txErrors() != 0) {
        return nullptr;
    }
    const bool isEnd = peer.pam->rxErrorReason() == "Connection closed by peer";
    if (peer.pam->rxErrors() != 0 && !(end.isClosing && isEnd)) {
        return nullptr;
    }
    if (end.stream->calls == 0 && end.unarrived.size() != end.pam->txDrops()) {
        return "a message";
    }
    return end.pam->writable() || end.isClosing ? nullptr : "room";
}

TEST(TcpPduPam, ObserversMayDoAnything) {
    (void)globalPktManager();  // Lives from now on.
    PavoTest::runPrograms(2000, PavoTest::runProgram<World>);
}

}  // namespace
}  // namespace Pavo
