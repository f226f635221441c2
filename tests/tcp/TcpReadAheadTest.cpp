/// @file
/// Framings as data, and streams that are read ahead.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "Mox/Exception.h"
#include "Pavo/FramedTcpPduPam.h"
#include "support/Errors.h"
#include "support/RandomProgram.h"
#include "support/SandboxTest.h"

namespace Pavo {
namespace {

using Mox::Ptr;
using Strings = std::vector<std::string>;

constexpr char closed[] = "Connection closed by peer";

// A stream of two sockets: of TCP where a reset is to come.
std::pair<Ptr<TcpFileDescriptor>, Ptr<TcpFileDescriptor>> newStream(bool isTcp, bool isEdge) {
    int ends[2] = {-1, -1};
    if (isTcp) {
        sockaddr_in name{};
        name.sin_family = AF_INET;
        name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(name);
        auto* address = reinterpret_cast<sockaddr*>(&name);
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ends[0] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_TRUE(bind(listener, address, length) == 0 && listen(listener, 1) == 0 &&
                    getsockname(listener, address, &length) == 0 &&
                    connect(ends[0], address, length) == 0);
        ends[1] = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        ::close(listener);
    } else {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    }
    return {tcpFileDescriptorFactory(ends[0], false), tcpFileDescriptorFactory(ends[1], isEdge)};
}

TEST(TcpFraming, IsRefusedWithAFault) {
    const std::pair<TcpFraming, const char*> rows[] = {
        {{.lengthBytes = 0}, "TcpFraming::lengthBytes: not 1 to 4"},
        {{.headerBytes = 5, .lengthBytes = 5}, "TcpFraming::lengthBytes: not 1 to 4"},
        {{.lengthAt = 1}, "TcpFraming::headerBytes: the length ends after them"},
        {{.max = 65536}, "TcpFraming::max > 65535 not allowed"},
        {{.min = 9, .max = 8}, "TcpFraming::max: less than the shortest message"},
        {{.max = 1}, "TcpFraming::max: less than the shortest message"},
    };
    const auto stream = newStream(/*isTcp=*/false, /*isEdge=*/false).first;
    const auto factory = tcpFileDescriptorEventRegistrationFactoryMoxcFactory();
    for (const auto& row : rows) {
        EXPECT_EQ(rangeErrorOf([&] { framedTcpPduPamFactory(stream, factory, row.first); }),
                  row.second);
    }
}

// One message of a framing.
std::string messageOf(const TcpFraming& framing, uint64_t bytes, uint32_t seed) {
    std::string message(static_cast<std::size_t>(std::max<uint64_t>(bytes, framing.headerBytes)),
                        '\0');
    for (uint32_t i = 0; i < message.size(); ++i) {
        message[i] = static_cast<char>(seed + i * 7 + (i >> 8));
    }
    uint64_t length = bytes - (framing.lengthIncludesHeader ? 0 : framing.headerBytes);
    for (uint32_t i = framing.lengthBytes; i > 0; --i, length >>= 8) {
        message[framing.lengthAt + i - 1] = static_cast<char>(length);
    }
    return message;
}

TEST(TcpFraming, TakesAndRefusesWhatTheProtocolsSay) {
    constexpr uint64_t wraps = 0x100000003;  // 3 in 32 bits.
    const char marker[] = "BGP marker not all ones";
    const char tooBig[] = "PDU length too big";
    const char tooSmall[] = "PDU length too small";
    const struct {
        TcpFraming framing;
        std::string start;
        uint64_t bytes;
        const char* reason;  // `closed` for a message that is taken.
    } rows[] = {
        {bgpFraming, std::string(16, '\xff'), 19, closed},
        {bgpFraming, std::string(16, '\xff'), 4096, closed},
        {bgpFraming, std::string(16, '\xff'), 18, tooSmall},
        {bgpFraming, std::string(16, '\xff'), 4097, tooBig},
        {bgpFraming, std::string(15, '\xff') + '\xfe', 19, marker},
        {ldpFraming, std::string("\0\1", 2), 10, closed},
        {ldpFraming, std::string("\0\1", 2), 4100, closed},
        {ldpFraming, std::string("\0\1", 2), 9, tooSmall},
        {ldpFraming, std::string("\0\1", 2), 4101, tooBig},
        {ldpFraming, std::string("\1\0", 2), 10, "LDP version not 1"},
        {rpkiRtrFraming, "", 8, closed},
        {rpkiRtrFraming, "", 7, tooSmall},
        {rpkiRtrFraming, "", 65536 + 20, tooBig},
        {length16Framing, "", 2, closed},
        {length16Framing, "", 65535, closed},
        {length16Framing, "", 65536, tooBig},
        {length32Framing, "", 4, closed},
        {length32Framing, "", 65535, closed},
        {length32Framing, "", wraps, tooBig},
    };
    for (const auto& row : rows) {
        for (const uint32_t ahead : {0u, 65536u}) {
            SCOPED_TRACE(testing::Message() << &row - rows << ", " << ahead);
            Mox::EventLoop loop;
            auto [far, near] = newStream(/*isTcp=*/false, /*isEdge=*/true);
            const auto factory = tcpFileDescriptorEventRegistrationFactoryMoxcFactory();
            const auto pam = framedTcpPduPamFactory(near, factory, row.framing);
            pam->readAheadBytesIs(ahead);
            pam->enabledIs(true);
            std::string bytes = messageOf(row.framing, std::min<uint64_t>(row.bytes, 65535), 1);
            bytes.replace(row.framing.lengthAt, row.framing.lengthBytes,
                          messageOf(row.framing, row.bytes & 0xffffffff, 1), row.framing.lengthAt,
                          row.framing.lengthBytes);
            bytes.replace(0, row.start.size(), row.start);
            for (const auto& each : {bytes, bytes}) {
                send(far->descriptor(), each.data(), each.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            }
            far = nullptr;
            uint32_t taken = 0;
            for (Ptr<Pkt> pkt; (pkt = pam->rxPkt()); ++taken) {
                EXPECT_EQ(pkt->stringValue(), bytes);
            }
            EXPECT_EQ(pam->rxErrorReason(), row.reason);
            EXPECT_EQ(taken, row.reason == closed ? 2u : 0u);
        }
    }
}

// Plain writes at one end, in pieces, and an endpoint at the other.
struct Way {
    TcpFraming framing;
    Ptr<TcpFileDescriptor> from;
    std::string unsent;
    Strings messages;  // All, sent or not.
    Ptr<TcpPduPam> pam;
    Mox::Watch<TcpPduPam> watch;
    std::vector<Ptr<Pkt>> taken;  // Some are dropped, and null then.
    uint32_t reports = 0;         // In this turn.
};

struct World : PavoTest::RandomProgram {
    using RandomProgram::RandomProgram;

    // Both ways of one stream.
    void open(Way& way, const Ptr<TcpFileDescriptor>& from, const Ptr<TcpFileDescriptor>& to) {
        const auto factory = tcpFileDescriptorEventRegistrationFactoryMoxcFactory();
        const int few = oneIn(2) ? 20000 : 100000;
        setsockopt(from->descriptor(), SOL_SOCKET, SO_SNDBUF, &few, sizeof(few));
        way.from = from;
        if (oneIn(3)) {
            way.framing = {.headerBytes = 20, .lengthAt = 2};
            way.pam = simpleTcpPduPamFactory(to, factory);
        } else {
            way.framing.lengthBytes = static_cast<uint8_t>(1 + below(4));
            way.framing.lengthAt = static_cast<uint16_t>(below(12));
            way.framing.headerBytes =
                static_cast<uint16_t>(way.framing.lengthAt + way.framing.lengthBytes + below(9));
            way.framing.lengthIncludesHeader = oneIn(2);
            way.pam = framedTcpPduPamFactory(to, factory, way.framing);
        }
        way.pam->maxPduLengthIs(65000);
        way.pam->enabledIs(true);
        way.watch = {way.pam, Pam::readableCountAttr, [this, &way](const Mox::Change&) {
                         EXPECT_LE(++way.reports, 32u) << "in one turn";
                         for (uint32_t left = isAtRest ? 1 : any(takings); left > 0; --left) {
                             take(way);
                         }
                         oneIn(4) ? respond() : void();
                     }};
    }
    void take(Way& way) {
        const Ptr<Pkt> pkt = way.pam->rxPkt();
        if (!pkt) {
            return;
        }
        ASSERT_LT(way.taken.size(), way.messages.size());
        EXPECT_EQ(pkt->numIovecs(), 1u);
        EXPECT_TRUE(pkt->stringValue() == way.messages[way.taken.size()]);
        way.taken.push_back(oneIn(3) ? pkt : nullptr);
    }
    void add(Way& way) {
        const uint32_t limit = way.framing.lengthBytes == 1 ? 200 : any(limits);
        const uint32_t bytes = way.framing.headerBytes + below(limit);
        way.messages.push_back(messageOf(way.framing, bytes, below(1000)));
        way.unsent += way.messages.back();
    }
    void write(Way& way, size_t bytes) {
        const size_t piece = std::min(bytes, way.unsent.size());
        const int flags = MSG_NOSIGNAL | MSG_DONTWAIT;
        const ssize_t sent = send(way.from->descriptor(), way.unsent.data(), piece, flags);
        way.unsent.erase(0, static_cast<size_t>(std::max<ssize_t>(sent, 0)));
    }
    void onlyOne(Way& way) {
        const bool isAhead = way.pam->readAheadBytes() + way.pam->rxBufferedBytes() != 0;
        const std::string error = rangeErrorOf([&] { way.pam->readOnePktOnlyIs(true); });
        EXPECT_EQ(error, isAhead ? conflict : "");
    }
    void ahead(Way& way, uint32_t bytes) {
        const bool isRefused = way.pam->readOnePktOnly() && bytes != 0;
        const std::string error = rangeErrorOf([&] { way.pam->readAheadBytesIs(bytes); });
        EXPECT_EQ(error, isRefused ? conflict : "");
    }
    void beginTurn() {
        for (Way& way : ways) {
            way.reports = 0;
        }
    }
    // What has not arrived, or null.
    const char* missing() {
        beginTurn();
        for (Way& way : ways) {
            write(way, 65536);
        }
        for (const Way& way : ways) {
            if (way.taken.size() != way.messages.size()) {
                return "a message";
            }
        }
        return nullptr;
    }
    void checkAtRest() {
        isAtRest = true;
        for (Way& way : ways) {
            way.pam->readOnePktOnlyIs(false);
            way.pam->enableModeIs(tcpEnableModeReadWrite);
            way.pam->readable() ? take(way) : void();  // What was announced before.
        }
        settle(loop, [this] { return missing(); });
        isAtRest = false;
    }
    void run();
    void checkEnd(bool isTcp);

    static constexpr uint32_t takings[] = {0, 1, 1, 2, 1000};
    static constexpr uint32_t limits[] = {1, 30, 300, 2000, 12000, 60000};
    static constexpr uint32_t aheads[] = {0, 1, 50, 700, 9000, 65536, 65536};
    static constexpr char conflict[] = "TcpPduPam::readOnePktOnly not allowed with read-ahead";
    Mox::EventLoop loop;
    Way ways[2];
    bool isAtRest = false;
};

void World::run() {
    const bool isTcp = oneIn(2);
    {
        const auto [near, far] = newStream(isTcp, oneIn(2));
        open(ways[0], near, far);
        open(ways[1], far, near);
    }
    const auto way = [this](auto act) { return [=, this] { act(any(ways)); }; };
    perform(
        {
            {
                {"add", way([this](Way& w) { add(w); })},
                {"write", way([this](Way& w) { write(w, 1 + below(any(limits) * 2)); })},
                {"many", way([this](Way& w) {
                     for (uint32_t left = below(100); left > 0; --left) {
                         add(w);
                     }
                 })},
                {"write all", way([this](Way& w) { write(w, 1 << 20); })},
                {"take", way([this](Way& w) { take(w); })},
            },
            {
                {"ahead", way([this](Way& w) { ahead(w, any(aheads)); })},
                {"mode", way([this](Way& w) {
                     w.pam->enableModeIs(static_cast<TcpPduPamEnableMode>(below(4)));
                 })},
                {"enable", way([](Way& w) { w.pam->enabledIs(true); })},
                {"only one", way([this](Way& w) { onlyOne(w); })},
                {"not only one", way([](Way& w) { w.pam->readOnePktOnlyIs(false); })},
            },
        },
        [this] {
            beginTurn();
            loop.turn(0);
        },
        [this] { checkAtRest(); });
    checkEnd(isTcp);
}

// After whole messages comes a refused one, the end in a message, or a reset.
void World::checkEnd(bool isTcp) {
    isAtRest = true;
    Way& way = ways[0];
    const uint32_t kind = below(3);
    add(way);
    if (kind == 0) {
        way.pam->maxPduLengthIs(200);
        const uint8_t lengthBytes = way.framing.lengthBytes;
        way.unsent.replace(way.framing.lengthAt, lengthBytes, lengthBytes, '\xff');
        way.unsent.resize(way.framing.headerBytes + 5);
    } else if (kind == 1) {
        way.unsent.pop_back();
    } else {
        add(way);
        const linger reset{1, 0};
        setsockopt(way.from->descriptor(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    }
    settle(loop, [&] {
        write(way, 1 + below(9000));
        return kind == 2 || way.unsent.empty() ? nullptr : "room";
    });
    ways[1] = {};
    way.from = nullptr;
    settle(loop, [&] { return way.pam->rxErrors() == 0 ? "the end" : nullptr; });
    const char* const end = kind == 0             ? "PDU length too big"
                            : kind == 1 || !isTcp ? closed
                                                  : "Recv failed with Connection reset by peer";
    EXPECT_EQ(way.pam->rxErrorReason(), end);
    EXPECT_EQ(way.pam->rxBufferedBytes(), 0u);
    EXPECT_TRUE(kind == 2 || way.taken.size() + 1 == way.messages.size());
    for (size_t i = 0; i < way.taken.size(); ++i) {
        EXPECT_TRUE(!way.taken[i] || way.taken[i]->stringValue() == way.messages[i]) << "changed";
    }
}

using TcpReadAhead = PavoTest::SandboxTest;

// Of which half of a buffer is left, or nothing, when there are more in the socket.
TEST_F(TcpReadAhead, ServesALimitedNumberOfMessagesATurn) {
    for (const uint32_t ahead : {3200u, 6400u, 65536u}) {
        Mox::EventLoop loop;
        const auto [far, near] = newStream(/*isTcp=*/false, /*isEdge=*/false);
        const auto factory = tcpFileDescriptorEventRegistrationFactoryMoxcFactory();
        const auto pam = framedTcpPduPamFactory(near, factory, length16Framing);
        uint32_t taken = 0;
        const Mox::Watch watch(pam, Pam::readableCountAttr, [&] { taken += pam->rxPkt() ? 1 : 0; });
        pam->readAheadBytesIs(ahead);
        pam->enabledIs(true);
        const std::string message = messageOf(length16Framing, 100, 1);
        for (uint32_t i = 0; i < 200; ++i) {
            send(far->descriptor(), message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        }
        for (const uint32_t expected : {32u, 64u, 96u, 128u, 160u, 192u, 200u}) {
            loop.turn(0);
            EXPECT_EQ(taken, expected) << ahead;
        }
    }
}

TEST_F(TcpReadAhead, EveryByteArrivesInOrderOrAnErrorIsCounted) {
    (void)globalPktManager();  // Lives from now on.
    PavoTest::runPrograms(200, PavoTest::runProgram<World>);
}

}  // namespace
}  // namespace Pavo
