/// @file
/// What leaves an endpoint on a stream: gathered, queued, and with its end.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "Mox/Clock.h"
#include "Mox/EventLoop.h"
#include "Pavo/TcpPduPam.h"
#include "support/FailSyscall.h"

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
struct Sender {
    explicit Sender(bool edgeTriggered = false) {
        const int listener = newSocket();
        sockaddr_in name{};
        name.sin_family = AF_INET;
        name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(name);
        auto* const address = reinterpret_cast<sockaddr*>(&name);
        EXPECT_EQ(bind(listener, address, length) + listen(listener, 1), 0);
        EXPECT_EQ(getsockname(listener, address, &length), 0);
        const int near = newSocket();
        EXPECT_EQ(connect(near, address, length), 0);
        far = tcpFileDescriptorFactory(accept4(listener, nullptr, nullptr, SOCK_NONBLOCK), false);
        close(listener);
        pam = simpleTcpPduPamFactory(tcpFileDescriptorFactory(near, edgeTriggered),
                                     tcpFileDescriptorEventRegistrationFactoryMoxcFactory());
        pam->enabledIs(true);
    }
    static int newSocket() {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int bytes = 16384;
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes));
        return fd;
    }
    void send(const Packets& packets) const {
        for (const auto& each : packets) {
            pam->txPktIs(each);
        }
    }
    // Makes turns and reads, until nothing has come for a while or the stream has ended.
    void read() {
        char bytes[4096];
        for (int idle = 0; idle < 10 && !isEnd;) {
            const uint32_t done = loop.turn(0.001);
            const ssize_t got = ::read(far->descriptor(), bytes, sizeof(bytes));
            isEnd = got == 0 || (got < 0 && errno != EAGAIN);
            arrived.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
            idle = got > 0 || done != 0 ? 0 : idle + 1;
        }
    }

    Mox::EventLoop loop;
    Mox::Ptr<TcpFileDescriptor> far;
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
        sender.read();
        EXPECT_EQ(sender.arrived, sent);
        EXPECT_EQ(calls.count(), txQueueBytes != 0 ? 1u : 2u);
        sender.send(packetsOf(2, 20, &sent));
        sender.pam = nullptr;  // Before the turn ends.
        sender.read();
        EXPECT_EQ(sender.arrived, sent);
    }
}

// Everything up to the first packet without room has been taken, and nothing after it.
TEST(TcpSend, GivesBackThePacketsOfABatchForWhichThereIsNoRoom) {
    for (const uint32_t bytes : {30u, 1000u, 50'000u}) {
        Sender sender;
        std::string sent;
        const Packets packets = packetsOf(20'000'000 / bytes / 20, bytes, &sent);
        uint32_t taken = sender.pam->txPktsIs(packets);
        EXPECT_LT(taken, packets.size());
        EXPECT_EQ(sender.pam->txErrno(), EAGAIN);
        EXPECT_EQ(sender.pam->txPktsIs(packets), 0u);
        EXPECT_LE(sender.pam->txQueuedBytes(), bytes);
        sender.read();
        EXPECT_EQ(sender.arrived, sent.substr(0, uint64_t{taken} * bytes));
        EXPECT_EQ(sender.pam->txErrors() + sender.pam->txDrops(), 0u);
    }
}

TEST(TcpSend, AQueueTakesUpToItsBoundAndIsWritableUpToHalf) {
    Sender sender;
    std::string sent;
    sender.pam->txQueueBytesIs(100'000);
    const Packets filling = packetsOf(10'000, 1000, &sent);
    const uint32_t taken = sender.pam->txPktsIs(filling);
    EXPECT_EQ(sender.pam->txQueuedBytes() / 1000, 50u);
    EXPECT_FALSE(sender.pam->writable());
    const uint32_t room = (100'000 - sender.pam->txQueuedBytes()) / 1000;
    sender.send(Packets(filling.begin() + taken, filling.begin() + taken + room + 3));
    EXPECT_EQ(sender.pam->txDrops(), 3u);
    EXPECT_EQ(sender.pam->txErrno(), ENOBUFS);
    EXPECT_EQ(sender.pam->writableCount(), 1u);
    sender.read();
    EXPECT_EQ(sender.arrived, sent.substr(0, (taken + room) * 1000));
    EXPECT_EQ(sender.pam->writableCount(), 2u);
}

// A class may see and change each message, and knows nothing of batches and queues.
class Numbered : public Mox::EntityOf<Numbered, SimpleTcpPduPam> {
  public:
    static constexpr auto description() { return Mox::classRecord("Numbered"); }

    Numbered(Mox::Ptr<TcpFileDescriptor> fd,
             Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> registrations)
        : EntityOf(std::move(fd), std::move(registrations)) {}

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
    sender.read();
    EXPECT_EQ(sender.arrived, "0aa1bb2cc3dd4ee");
}

// The peer sends on meanwhile, or has sent what nobody has taken: a descriptor with bytes to read
// would be reset when it is closed.
TEST(TcpSend, SendsAllBeforeItCloses) {
    const std::string pdu("\0\0\x07\xd0", 4);
    for (const bool hasEnded : {false, true}) {
        Sender sender(/*edgeTriggered=*/hasEnded);
        std::string sent;
        const auto write = [&] {
            (void)::send(sender.far->descriptor(), (pdu + std::string(4996, '\0')).data(), 5000,
                         MSG_NOSIGNAL);
        };
        write();
        if (hasEnded) {
            shutdown(sender.far->descriptor(), SHUT_WR);
        }
        sender.loop.turn(0);
        EXPECT_TRUE(sender.pam->readable());
        sender.pam->txQueueBytesIs(1'000'000);
        sender.send(packetsOf(400, 1000, &sent));
        Mox::ManualClock clock;
        uint32_t ends = 0;
        const Mox::Watch<TcpPduPam> watch(sender.pam, TcpPduPam::closedAttr, [&] {
            ++ends;
            sender.pam = nullptr;
        });
        sender.pam->closeAfterTx(5, &clock);
        std::string unsent;
        sender.send(packetsOf(1, 10, &unsent));
        EXPECT_EQ(sender.pam->txErrno(), ESHUTDOWN);
        for (int i = 0; i < 100 && !sender.isEnd; ++i) {
            write();
            sender.read();
        }
        EXPECT_EQ(sender.arrived, sent);
        EXPECT_EQ(ends, hasEnded ? 1u : 0u);
        sender.far = nullptr;
        sender.loop.turn(1);
        EXPECT_EQ(ends, 1u);
        clock.advance(10);
    }
}

TEST(TcpSend, GivesUpAtTheLimitAndCountsWhatIsLeft) {
    Sender sender;
    std::string sent;
    sender.pam->txQueueBytesIs(1'000'000);
    sender.send(packetsOf(900, 1000, &sent));
    Mox::ManualClock clock;
    sender.pam->closeAfterTx(5, &clock);
    sender.loop.turn(0);
    clock.advance(4.9);
    EXPECT_FALSE(sender.pam->closed());
    clock.advance(0.1);
    EXPECT_TRUE(sender.pam->closed());
    EXPECT_EQ(sender.pam->txErrno(), ETIMEDOUT);
    sender.pam->enabledIs(true);
    EXPECT_FALSE(sender.pam->enabled());
    sender.read();
    EXPECT_TRUE(sender.isEnd);
    EXPECT_EQ(sender.arrived.size() / 1000 + sender.pam->txDrops(), 900u);
}

// Sends and closes while something fails: every message arrives or is counted.
void expectAllCounted(const std::function<void(const std::function<void()>& send,
                                               const std::function<void()>& end)>& failing) {
    Sender sender;
    std::string sent;
    const Packets packets = packetsOf(200, 1000, &sent);
    Mox::ManualClock clock;
    sender.pam->enabledIs(false);
    sender.pam->enableModeIs(tcpEnableModeWriteOnly);  // Reading begins for the end alone.
    sender.pam->txQueueBytesIs(100'000);
    failing([&] { sender.send(packets); },
            [&] {
                sender.loop.turn(0);
                sender.pam->closeAfterTx(5, &clock);
                sender.read();
            });
    sender.read();
    EXPECT_TRUE(sender.pam->closed() || sender.pam->txErrors() == 0);
    clock.advance(5);
    EXPECT_TRUE(sender.pam->closed());
    sender.read();
    EXPECT_EQ(sender.arrived.size() / 1000 + sender.pam->txDrops() + sender.pam->txErrors(), 200u);
}

TEST(TcpSend, CountsWhatDoesNotLeaveWhateverFails) {
    for (const char* name : {"sendmsg", "epoll_ctl", "recv", ""}) {
        bool happened = true;
        for (unsigned n = 1; happened; ++n) {
            SCOPED_TRACE(name + std::to_string(n));
            ASSERT_LT(n, 1000u);
            expectAllCounted([&](const auto& send, const auto& end) {
                FailSyscall fail(n, ENOMEM, *name != '\0' ? name : "none", /*andAllAfter=*/true);
                newsUntilFailure = *name != '\0' ? 0 : n;
                send();
                happened = newsUntilFailure == 0;
                newsUntilFailure = 0;
                end();
                happened = *name != '\0' ? fail.happened() : happened;
            });
        }
    }
}

}  // namespace
}  // namespace Pavo
