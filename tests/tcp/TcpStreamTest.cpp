/// @file
/// Endpoints on a stream: what leaves them, gathered, queued, and with its end; and framings as
/// data, which are refused, and which messages they take and refuse.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "Mox/Clock.h"
#include "Mox/EventLoop.h"
#include "support/Errors.h"
#include "support/FailSyscall.h"
#include "tcp/TcpStreams.h"

namespace {

thread_local unsigned newsUntilFailure = 0;  // 0: none fails.

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t bytes) {
    void* const memory =
        newsUntilFailure != 0 && --newsUntilFailure == 0 ? nullptr : std::malloc(bytes);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace Pavo {
namespace {

using PavoTest::FailSyscall;
using Packets = std::vector<Mox::Ptr<Pkt>>;

// Distinct bytes, so that one that is lost, doubled or out of order is seen.
Packets packetsOf(uint32_t count, uint32_t bytes, std::string* all) {
    Packets packets(count);
    for (uint32_t i = 0; i < count; ++i) {
        std::string text(bytes, static_cast<char>('a' + (all->size() / bytes) % 26));
        packets[i] = globalPktManager()->newPkt(bytes);
        packets[i]->stringValueIs(text, /*atTail=*/false);
        *all += text;
    }
    return packets;
}

// An endpoint on a TCP connection, with small buffers, whose other end is plain.
struct Sender : Stream {
    explicit Sender(bool edgeTriggered = false) : Stream(edgeTriggered, /*isTcp=*/true) {
        pam = simpleTcpPduPamFactory(near, loopTcpRegistrationFactory());
        near = nullptr;
        pam->enabledIs(true);
    }
    void send(const Packets& packets) const {
        for (const auto& each : packets) {
            pam->txPktIs(each);
        }
    }
    // Makes turns and reads, until nothing has come for a while or the stream has ended.
    void readAll() {
        for (int idle = 0; idle < 10 && !isEnd;) {
            const uint32_t done = loop.turn(0.001);
            const std::string got = read(&isEnd);
            arrived += got;
            idle = !got.empty() || done != 0 ? 0 : idle + 1;
        }
    }

    Mox::EventLoop loop;
    Mox::Ptr<TcpPduPam> pam;
    std::string arrived;
    bool isEnd = false;
};

TEST(TcpSend, GathersABatchOrATurnIntoOneCall) {
    for (const uint32_t txQueueBytes : {0u, 100'000u}) {
        Sender sender;
        sender.pam->txQueueBytesIs(txQueueBytes);
        std::string sent;
        const Packets packets = packetsOf(300, 20, &sent);
        const FailSyscall calls(~0u, 0, "sendmsg");
        if (txQueueBytes != 0) {
            sender.send(packets);
            packets[0]->frontData()[0] = '?';  // The agent's again.
        } else {
            EXPECT_EQ(sender.pam->txPktsIs(packets), 300u);
        }
        sender.readAll();
        EXPECT_EQ(sender.arrived, sent);
        EXPECT_EQ(calls.count(), txQueueBytes != 0 ? 1u : 2u);
        sender.send(packetsOf(2, 20, &sent));
        sender.pam = nullptr;  // Before the turn ends.
        sender.readAll();
        EXPECT_EQ(sender.arrived, sent);
    }
}

// A batch ends with the first packet that has to wait, or is above half of the queue. Then nobody
// reads any more.
TEST(TcpSend, TakesUpToItsBoundAndGivesUpAtTheLimit) {
    for (const uint32_t txQueueBytes : {0u, 100'000u}) {
        Sender sender;
        std::string sent;
        sender.pam->txQueueBytesIs(txQueueBytes);
        const Packets filling = packetsOf(10'000, 1000, &sent);
        uint32_t taken = sender.pam->txPktsIs(filling);
        EXPECT_EQ(sender.pam->txErrno(), EAGAIN);
        EXPECT_EQ((sender.pam->txQueuedBytes() - 1) / 1000, txQueueBytes / 2000);
        EXPECT_FALSE(sender.pam->writable());
        EXPECT_EQ(sender.pam->txPktsIs(filling), 0u);
        if (txQueueBytes != 0) {
            const uint32_t room = (txQueueBytes - sender.pam->txQueuedBytes()) / 1000;
            sender.send(Packets(filling.begin() + taken, filling.begin() + taken + room + 3));
            EXPECT_EQ(sender.pam->txDrops(), 3u);
            EXPECT_EQ(sender.pam->txErrno(), ENOBUFS);
            taken += room;
        }
        EXPECT_EQ(sender.pam->writableCount(), 1u);
        sender.readAll();
        EXPECT_EQ(sender.arrived, sent.substr(0, taken * 1000));
        EXPECT_EQ(sender.pam->writableCount(), 2u);
        const uint32_t drops = sender.pam->txDrops();
        taken += sender.pam->txPktsIs(filling);
        Mox::ManualClock clock;
        sender.pam->closeAfterTx(5, &clock);
        clock.advance(4.9);
        EXPECT_FALSE(sender.pam->closed());
        clock.advance(0.1);
        EXPECT_TRUE(sender.pam->closed());
        EXPECT_EQ(sender.pam->txErrno(), ETIMEDOUT);
        sender.pam->enabledIs(true);
        EXPECT_FALSE(sender.pam->enabled());
        sender.readAll();
        EXPECT_TRUE(sender.isEnd);
        EXPECT_EQ(sender.arrived.size() / 1000 + sender.pam->txDrops() - drops, taken);
    }
}

// A class may see and change each message, and knows nothing of batches and queues.
class Numbered : public Mox::EntityOf<Numbered, SimpleTcpPduPam> {
  public:
    static constexpr auto description() { return Mox::classRecord("Numbered"); }

    template <class... Args>
    explicit Numbered(Args&&... args) : EntityOf(std::forward<Args>(args)...) {}

    void sendIov(SocketIovec* iov, uint16_t iovLen) override {
        char number = static_cast<char>('0' + next_++);
        SocketIovec pieces[] = {{&number, 1}, iov[0]};
        EXPECT_EQ(iovLen, 1);
        SimpleTcpPduPam::sendIov(pieces, 2);
    }

  private:
    int next_ = 0;
};

TEST(TcpSend, ADerivedClassSeesEachMessage) {
    Sender sender;
    const auto pam = Mox::make<Numbered>(sender.pam->fileDescriptor(), sender.pam->fdFactory());
    sender.pam = pam;
    pam->enabledIs(true);
    std::string sent;
    EXPECT_EQ(pam->txPktsIs(packetsOf(3, 2, &sent)), 3u);
    pam->txQueueBytesIs(1000);
    sender.send(packetsOf(2, 2, &sent));
    sender.readAll();
    EXPECT_EQ(sender.arrived, "0aa1bb2cc3dd4ee");
}

// The peer sends on meanwhile, or has sent what nobody has taken: a descriptor with bytes to read
// would be reset when it is closed.
TEST(TcpSend, SendsAllBeforeItCloses) {
    const std::string pdu = messageOf(simpleFraming, 2000, 5000, 1);
    for (const bool hasEnded : {false, true}) {
        Sender sender(/*edgeTriggered=*/hasEnded);
        std::string sent;
        sender.write(pdu);
        if (hasEnded) {
            shutdown(sender.far->descriptor(), SHUT_WR);
        }
        sender.loop.turn(0);
        EXPECT_TRUE(sender.pam->readable());
        sender.pam->txQueueBytesIs(hasEnded ? 800'000 : 0);
        sent.resize(sender.pam->txPktsIs(packetsOf(1000, 1000, &sent)) * 1000);
        Mox::ManualClock clock;
        uint32_t ends = 0;
        const Mox::Watch<TcpPduPam> watch(sender.pam, TcpPduPam::closedAttr, [&] {
            ++ends;
            sender.pam = nullptr;
        });
        sender.pam->closeAfterTx(5, &clock);
        std::string unsent;
        EXPECT_EQ(sender.pam->txPktsIs(packetsOf(2, 10, &unsent)), 2u);  // Dropped and counted.
        EXPECT_EQ(sender.pam->txDrops(), 2u);
        EXPECT_EQ(sender.pam->txErrno(), ESHUTDOWN);
        for (int i = 0; i < 100 && !sender.isEnd; ++i) {
            sender.write(pdu);
            sender.readAll();
        }
        EXPECT_EQ(sender.arrived, sent);
        EXPECT_EQ(ends, hasEnded ? 1u : 0u);
        sender.far = nullptr;
        sender.loop.turn(1);
        EXPECT_EQ(ends, 1u);
        clock.advance(10);
    }
}

// Sends and closes while the n-th call of a name fails, as do all after it, or without a name the
// n-th allocation: every message arrives or is counted. False where nothing failed.
bool sendsWithFailure(const std::string& name, unsigned n) {
    Sender sender;
    std::string sent;
    const Packets packets = packetsOf(200, 1000, &sent);
    Mox::ManualClock clock;
    sender.pam->enabledIs(false);
    sender.pam->enableModeIs(tcpEnableModeWriteOnly);  // Reading begins for the end alone.
    sender.pam->txQueueBytesIs(100'000);
    FailSyscall fail(n, ENOMEM, name.empty() ? "none" : name, /*andAllAfter=*/true);
    newsUntilFailure = name.empty() ? n : 0;
    sender.send(packets);
    const bool hasFailed = name.empty() && std::exchange(newsUntilFailure, 0) == 0;
    sender.loop.turn(0);
    sender.pam->closeAfterTx(5, &clock);
    sender.readAll();
    fail.disarm();
    sender.readAll();
    EXPECT_TRUE(sender.pam->closed() || sender.pam->txErrors() == 0);
    EXPECT_TRUE(name != "epoll_ctl" || sender.pam->txErrors() == 0 ||
                sender.pam->txErrorReason() == "Epoll_ctl failed with Cannot allocate memory");
    clock.advance(5);
    EXPECT_TRUE(sender.pam->closed());
    sender.readAll();
    EXPECT_EQ(sender.arrived.size() / 1000 + sender.pam->txDrops() + sender.pam->txErrors(), 200u);
    return hasFailed || fail.happened();
}

TEST(TcpSend, CountsWhatDoesNotLeaveWhateverFails) {
    for (const char* name : {"sendmsg", "epoll_ctl", "recv", ""}) {
        unsigned n = 1;
        for (; n < 1000 && sendsWithFailure(name, n); ++n) {
            ASSERT_FALSE(HasFailure()) << name << n;
        }
        EXPECT_TRUE(n > 1 && n < 1000) << name << n;
    }
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
    const Stream stream(/*edgeTriggered=*/false);
    for (const auto& [framing, fault] : rows) {
        EXPECT_EQ(rangeErrorOf([&, framing = framing] {
                      framedTcpPduPamFactory(stream.near, loopTcpRegistrationFactory(), framing);
                  }),
                  fault);
    }
}

// How many messages of `bytes` bytes are taken, and why the stream has ended after two and a piece.
std::string outcomeOf(const TcpFraming& framing, const std::string& start, uint64_t bytes,
                      uint32_t ahead) {
    Mox::EventLoop loop;
    Stream stream(/*edgeTriggered=*/true);
    const auto pam = framedTcpPduPamFactory(stream.near, loopTcpRegistrationFactory(), framing);
    pam->readAheadBytesIs(ahead);
    pam->enabledIs(true);
    const uint64_t length = bytes - (framing.lengthIncludesHeader ? 0 : framing.headerBytes);
    const uint64_t size = std::clamp<uint64_t>(bytes, framing.headerBytes, 65535);
    std::string message = messageOf(framing, length, static_cast<uint32_t>(size), 1);
    message.replace(0, start.size(), start);
    stream.write(message);
    stream.write(message);
    stream.write(message.substr(0, std::min<size_t>(7, message.size() - 1)));
    stream.far = nullptr;
    uint32_t taken = 0;
    for (Mox::Ptr<Pkt> pkt; (pkt = pam->rxPkt()); ++taken) {
        EXPECT_EQ(pkt->stringValue(), message);
    }
    return std::to_string(taken) + " " + std::string(pam->rxErrorReason());
}

TEST(TcpFraming, TakesAndRefusesWhatTheProtocolsSay) {
    const std::string taken = "2 Connection closed by peer";
    const char tooSmall[] = "0 PDU length too small";
    const char tooBig[] = "0 PDU length too big";
    const struct {
        TcpFraming framing;
        std::string start;
        uint32_t least, most;
        const char* shorter;          // A length that does not count the header cannot be below it.
        const char* other = nullptr;  // Of another start.
    } rows[] = {
        {bgpFraming, std::string(16, '\xff'), 19, 4096, tooSmall, "0 BGP marker not all ones"},
        {ldpFraming, std::string("\0\1", 2), 10, 4100, tooSmall, "0 LDP version not 1"},
        {rpkiRtrFraming, "", 8, 65535, tooSmall},
        {length16Framing, "", 2, 65535, tooBig},
        {length32Framing, "", 4, 65535, tooBig},
    };
    for (const auto& row : rows) {
        for (const uint32_t ahead : {0u, 65536u}) {
            SCOPED_TRACE(testing::Message() << &row - rows << ", " << ahead);
            const auto outcome = [&](uint64_t bytes, const std::string& start) {
                return outcomeOf(row.framing, start, bytes, ahead);
            };
            EXPECT_EQ(outcome(row.least - 1, row.start), row.shorter);
            EXPECT_EQ(outcome(row.least, row.start), taken);
            EXPECT_EQ(outcome(row.most, row.start), taken);
            EXPECT_EQ(outcome(row.most + 1, row.start), tooBig);
            for (uint32_t i = 0; i < row.start.size(); ++i) {
                std::string start = row.start;
                start[i] = static_cast<char>(start[i] ^ 1);
                EXPECT_EQ(outcome(row.least, start), row.other);
            }
        }
    }
}

}  // namespace
}  // namespace Pavo
