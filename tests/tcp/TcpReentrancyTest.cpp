/// @file
/// Random programs of message endpoints and of TCP machines, whose observers act.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Pavo/FramedTcpPduPam.h"
#include "Pavo/TcpPduPam.h"
#include "support/RandomProgram.h"
#include "tcp/TcpMachines.h"

namespace Pavo {
namespace {

using Mox::Change;
using Mox::Ptr;
using Mox::Watch;
using PavoTest::addressOf;

// A message of at least 20 bytes in two pieces, with its number in bytes 4 to 7 and in each of the
// later ones.
Ptr<Pkt> messageOf(uint32_t number, uint32_t bytes) {
    std::string text(bytes, static_cast<char>(number));
    text[2] = static_cast<char>(bytes >> 8);
    text[3] = static_cast<char>(bytes);
    std::memcpy(text.data() + 4, &number, sizeof(number));
    const Ptr<Pkt> pkt = globalPktManager()->newPkt(bytes);
    std::memcpy(pkt->newPrivateHeadData(20), text.data(), 20);
    pkt->stringValueIs(text.substr(20), /*atTail=*/true);
    return pkt;
}
struct StreamEnd {
    Ptr<TcpFileDescriptor> fd;  // Null after it was closed, as is the endpoint.
    Ptr<TcpPduPam> pam;
    Watch<TcpPduPam> watch;
    std::set<uint32_t> unarrived;  // Messages by number.
    uint32_t lastArrived = 0;
    bool isClosing = false;  // What the other end sends may not arrive.
    bool hasClosed = false;
};
struct Stream {
    StreamEnd ends[2];
    bool isSpoilt = false;  // Other bytes may arrive than those of whole messages.
    uint32_t calls = 0;     // Reads and sends that have not returned, as those that threw.
    bool isOrdered = true;  // No call was made inside one.
};

// What an owner has decided last: unknown where it has done only a part of starting or stopping.
enum class Wish { unknown, stopped, started };

template <class Agent, class Status>
struct Machine : Agent {
    Watch<Status> watch;
    Wish wish = Wish::unknown;
};
using Client = Machine<PavoTest::TestClient, TcpClientStatus>;
using Server = Machine<PavoTest::TestServer, TcpServerStatus>;

struct State {
    bool isWatching, isIdle, hasEnded, isConnected;
};
State stateOf(const Client& client) {
    using Status = TcpClientStatus::ConnectionStatus;
    const Status status = client.status->connectionStatus();
    return {status == Status::connecting, status == Status::idle && !client.status->connSocket(),
            status == Status::connected || status == Status::timedout, status == Status::connected};
}
State stateOf(const Server& server) {
    const bool isListening = server.status->listening();
    return {isListening, !isListening && server.status->connSocketMembers() == 0, isListening,
            false};
}

struct World : PavoTest::RandomProgram {
    using RandomProgram::RandomProgram;
    ~World() { streams.clear(); }

    void open(const Ptr<TcpFileDescriptor>& near, const Ptr<TcpFileDescriptor>& far) {
        Stream* stream = streams.emplace_back(std::make_unique<Stream>()).get();
        for (StreamEnd& end : stream->ends) {
            end.fd = &end == stream->ends ? near : far;
            end.pam = oneIn(2) ? Ptr<TcpPduPam>(simpleTcpPduPamFactory(end.fd, factory))
                               : framedTcpPduPamFactory(end.fd, factory, framing);
            end.pam->txQueueBytesIs(oneIn(2) ? 0 : below(30000));
            const auto notified = [=, this, &end, pam = end.pam.ptr()](const Change& change) {
                EXPECT_EQ(pam->readable(), pam->rxPktHolderShadow() && !pam->rxRemainingLength());
                EXPECT_FALSE(pam->writable() && pam->txQueuedBytes() > pam->txQueueBytes() / 2);
                EXPECT_FALSE(pam->writable() &&
                             pam->pendingEnableReadOnlyOrWriteOnlyMode() == tcpEnableModeReadOnly);
                EXPECT_FALSE(change.is(TcpPduPam::closedAttr) && end.hasClosed) << "twice";
                end.hasClosed |= change.is(TcpPduPam::closedAttr);
                const bool isReport = change.is(Pam::readableCountAttr);
                isReport&& isAtRest ? read(*stream, end) : respond();
            };
            end.watch = {end.pam, Mox::allAttributes, notified};
        }
    }
    void openPair() {
        int numbers[2];
        const int few = 4608;
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, numbers), 0);
        setsockopt(numbers[0], SOL_SOCKET, SO_SNDBUF, &few, sizeof(few));
        const auto near = tcpFileDescriptorFactory(numbers[0], oneIn(2));
        open(near, tcpFileDescriptorFactory(numbers[1], oneIn(2)));
    }
    // On a connection that client and server have made.
    void openTcp(Client& client, Server& server) {
        if (!client.sm || !server.sm) {
            return;
        }
        const TcpConnSocket near = client.status->connSocket();
        const TcpConnSocket far = server.status->getConnSocket();
        if (near && far && near.srcPort() == far.dstPort() && client.sm) {
            open(near.fileDescriptor(), far.fileDescriptor());
            streams.back()->isSpoilt = isConfigured;  // Its socket may drop segments.
            client.wish = Wish::stopped;
            client.sm->stopConnection();
        }
    }
    static void modeIs(Ptr<TcpPduPam> pam, uint32_t mode) {
        configure([&] { pam->enableModeIs(static_cast<TcpPduPamEnableMode>(mode)); });
    }
    void send(Stream& stream, StreamEnd& end, uint32_t bytes) {
        if (end.pam->writable() || end.pam->txQueueBytes() != 0 || end.isClosing) {
            stream.isOrdered &= stream.calls++ == 0;
            end.unarrived.insert(++messages);
            end.pam->txPktIs(messageOf(messages, bytes));
            --stream.calls;
        }
    }
    // Some of them in a batch, of which those that are not taken are the agent's again.
    void sendMany(Stream& stream, StreamEnd& end) {
        std::vector<Ptr<Pkt>> pkts(1 + below(40));
        const uint32_t first = messages + 1;
        for (Ptr<Pkt>& each : pkts) {
            end.unarrived.insert(++messages);
            each = messageOf(messages, 20 + below(oneIn(4) ? 9000 : 200));
        }
        stream.isOrdered &= stream.calls++ == 0;
        const uint32_t taken = end.pam->txPktsIs(pkts);
        --stream.calls;
        for (uint32_t i = taken; end.pam && i < pkts.size(); ++i) {
            EXPECT_EQ(end.unarrived.erase(first + i), 1u) << "it was not taken, and has arrived";
        }
    }
    void closeAfterTx(StreamEnd& end) {
        end.isClosing = true;
        end.pam->closeAfterTx(below(3), &limits);
    }
    static void read(Stream& stream, StreamEnd& end) {
        const bool isHeld = end.pam && end.pam->readable();
        stream.isOrdered &= stream.calls++ == 0;
        const Ptr<Pkt> pkt = end.pam ? end.pam->rxPkt() : nullptr;
        --stream.calls;
        EXPECT_TRUE(pkt || !isHeld || !stream.isOrdered) << "`readable` without a message";
        if (!pkt || stream.isSpoilt) {
            return;
        }
        const Mox::String text = pkt->stringValue();
        uint32_t number = 0;
        std::memcpy(&number, text.view().data() + 4, sizeof(number));
        EXPECT_TRUE(text == messageOf(number, text.bytes())->stringValue()) << "it is not whole";
        EXPECT_EQ(stream.ends[&end == stream.ends].unarrived.erase(number), 1u) << "it came twice";
        EXPECT_TRUE(number > end.lastArrived || !stream.isOrdered) << "it is out of order";
        end.lastArrived = number;
    }
    static int spoil(Stream& stream, const StreamEnd& end) {
        stream.isSpoilt = true;
        return end.fd->descriptor();
    }

    void make(PavoTest::TestClient& client, uint32_t i) {
        client = {factory.ptr(), &wheel, i == 1 ? "::1" : "127.0.0.1", i == 2 ? noPort : port};
    }
    void make(PavoTest::TestServer& server, uint32_t i) {  // The last has the port of the first.
        server = {factory.ptr(), &wheel, i == 1 ? "::1" : "127.0.0.1", port};
    }
    // One that was dropped is made again when it is needed.
    template <class Machine>
    Machine& anyOf(Machine (&all)[3]) {
        const uint32_t i = below(3);
        Machine& machine = all[i];
        if (!machine.sm) {
            machine = {};
            make(machine, i);
            const auto notified = [this, &machine] {
                machine.sm ? check(machine) : void();
                machine.sm ? respond() : actSafely();  // No exception may leave a destructor.
            };
            machine.watch = {machine.status, Mox::allAttributes,
                             [notified](const Change&) { notified(); }};
        }
        return machine;
    }
    // The machine, for what the owner has decided.
    template <class Machine>
    auto& decide(Wish wish, Machine (&all)[3]) {
        Machine& machine = anyOf(all);
        machine.wish = wish;
        return *machine.sm;
    }
    template <class Machine>
    static void check(const Machine& machine) {
        const State state = stateOf(machine);
        EXPECT_EQ(state.isWatching, machine.sm->fd() != nullptr) << "it is half changed";
        EXPECT_TRUE(state.isWatching || state.isConnected ||
                    machine.sm->lastOptionsApplied() == TcpSocketOptions());
    }
    template <class Machine>
    static void checkWish(const Machine& machine) {
        const auto isUnarmed = [](double expiry) { return expiry == Mox::Clock::idle; };
        if (machine.sm && machine.wish == Wish::started) {
            EXPECT_TRUE(stateOf(machine).hasEnded || machine.sm->fd() ||
                        !isUnarmed(machine.sm->retryTimerExpireTime()))
                << "a start is lost";
        } else if (machine.sm && machine.wish == Wish::stopped) {
            EXPECT_TRUE(stateOf(machine).isIdle && !machine.sm->fd() &&
                        isUnarmed(machine.sm->retryTimerExpireTime()) &&
                        isUnarmed(machine.sm->timeoutTimerExpireTime()))
                << "a stop is lost";
        }
    }
    TcpConfigBase& anyConfig() {
        isConfigured = true;
        return oneIn(2) ? *anyOf(clients).config
                        : static_cast<TcpConfigBase&>(*anyOf(servers).config);
    }
    void key(bool six) {
        TcpConfigBase& config = anyConfig();
        for (Server& each : servers) {
            each.wish = Wish::unknown;  // A key that changes starts it.
        }
        const IpGenAddrWithMask peer(addressOf(six ? "::1" : "127.0.0.1"), six ? 128 : 32);
        oneIn(2) ? config.md5AuthDel(peer) : config.md5AuthIs(peer, "key");
    }
    void peerTtl(bool six) {
        TcpServerConfig& config = *anyOf(servers).config;
        isConfigured = true;
        const IpGenAddrWithMask peer(addressOf(six ? "::1" : "127.0.0.1"), six ? 128 : 32);
        oneIn(2) ? config.peerRxMinTtlDel(peer) : config.peerRxMinTtlIs(peer, oneIn(2) ? 255 : 64);
    }
    std::vector<Actions> kinds();
    void run();
    void checkAtRest();
    const char* missing() const;
    void checkWishes() const;
    void checkStart(Client& client, Server& server);

    Mox::EventLoop loop;
    Mox::ManualClock clock;
    Mox::ManualClock limits;
    Keel::TimerWheel wheel{&clock};
    const Ptr<TcpFileDescriptorEventRegistrationFactory> factory =
        tcpFileDescriptorEventRegistrationFactoryMoxcFactory();
    std::vector<std::unique_ptr<Stream>> streams;
    static constexpr TcpFraming framing{.headerBytes = 20, .lengthAt = 2};
    static constexpr uint16_t noPort = 9;
    // Another one for each program: what is left of old connections in the kernel refuses new ones.
    const uint16_t port = static_cast<uint16_t>(1024 + below(30000));
    Client clients[3];
    Server servers[3];
    uint32_t messages = 0;
    bool isConfigured = false;
    bool isAtRest = false;  // Only readers act: they read once when they are notified.
};

std::vector<World::Actions> World::kinds() {
    const auto end = [this](auto act) {
        return [=, this] {
            streams.empty() || oneIn(16) ? openPair() : void();
            Stream& stream = *any(streams);
            StreamEnd& each = stream.ends[below(2)];
            each.pam ? act(stream, each) : void();
        };
    };
    using enum Wish;
    return {
        {
            {"send", end([this](auto& s, auto& e) { send(s, e, 20 + below(100)); })},
            {"read", end([](auto& s, auto& e) { read(s, e); })},
            {"send much", end([this](auto& s, auto& e) { send(s, e, 20 + below(9580)); })},
            {"enable", end([](auto&, auto& e) { modeIs(e.pam, tcpEnableModeReadWrite); })},
            {"mode", end([this](auto&, auto& e) { modeIs(e.pam, below(4)); })},
            {"only one", end([this](auto&, auto& e) {
                 const bool may = e.pam->readAheadBytes() + e.pam->rxBufferedBytes() == 0;
                 e.pam->readOnePktOnlyIs(may && oneIn(2));
             })},
            {"ahead", end([this](auto&, auto& e) {
                 e.pam->readAheadBytesIs(e.pam->readOnePktOnly() || oneIn(4) ? 0 : 1 + below(9000));
             })},
            {"longest",
             end([this](auto&, auto& e) { e.pam->maxPduLengthIs(oneIn(2) ? 5000 : 9600); })},
            {"send many", end([this](auto& s, auto& e) { sendMany(s, e); })},
            {"queue", end([this](auto&, auto& e) { e.pam->txQueueBytesIs(below(30000)); })},
            {"no queue", end([](auto&, auto& e) { e.pam->txQueueBytesIs(0); })},
            {"close after", end([this](auto&, auto& e) { closeAfterTx(e); })},
            {"limit", [this] { limits.advance(1); }},
            {"close", end([](auto& s, auto& e) { spoil(s, e), e = {}; })},
            {"half close", end([this](auto& s, auto& e) {
                 shutdown(spoil(s, e), oneIn(2) ? SHUT_RD : SHUT_WR);
             })},
            {"other bytes",
             end([](auto& s, auto& e) { ::send(spoil(s, e), "other", 5, MSG_NOSIGNAL); })},
        },
        {
            {"listen", [this] { decide(started, servers).startListener(); }},
            {"connect", [this] { decide(started, clients).startConnection(); }},
            {"stop listening", [this] { decide(stopped, servers).stopListener(); }},
            {"stop", [this] { decide(stopped, clients).stopConnection(); }},
            {"restart", [this] { decide(started, servers).restartListener(); }},
            {"restart later", [this] { decide(started, servers).restartListenerDeferred(); }},
            {"server fails", [this] { decide(unknown, servers).handleServerError("Test", "x"); }},
            {"client fails", [this] { decide(unknown, clients).handleClientError("Test", "x"); }},
            {"server's timer", [this] { decide(unknown, servers).restartRetryTimer(); }},
            {"client's timer", [this] { decide(unknown, clients).stopRetryTimer(); }},
            {"take", [this] { (void)anyOf(servers).status->getConnSocket(); }},
            {"let go", [this] { anyOf(clients).status->resetConnSocket(); }},
            {"drop server", [this] { anyOf(servers).sm = nullptr; }},
            {"drop client", [this] { anyOf(clients).sm = nullptr; }},
            {"stream", [this] { openTcp(clients[0], servers[0]); }},
            {"options", [this] { anyConfig().optionsIs(TcpSocketOptions(below(128) & 0x7f)); }},
            {"TTL", [this] { anyConfig().txTtlIs(oneIn(2) ? 0 : 64); }},
            {"least TTL", [this] { anyConfig().rxMinTtlIs(oneIn(2) ? 0 : 255); }},
            {"peer's TTL", [this] { peerTtl(oneIn(2)); }},
            {"interval", [this] { anyConfig().retryIntervalIs(below(3)); }},
            {"edge", [this] { anyConfig().edgeTriggeredFileDescriptorIs(oneIn(2)); }},
            {"key", [this] { key(oneIn(2)); }},
            {"time-out", [this] { anyOf(clients).config->timeoutIs(below(3)); }},
            {"back off", [this] { anyOf(clients).config->exponentialBackoffRetriesIs(below(4)); }},
            {"let fail", [this] { anyOf(servers).sm->failApplySocketOptionsInTestIs(true); }},
        },
    };
}

void World::run() {
    perform(
        kinds(),
        [this] {
            oneIn(2) ? (void)loop.turn(0) : clock.advance(oneIn(8) ? 25 : 0.5 * below(3));
            checkWishes();
        },
        [this] { checkAtRest(); });
    for (uint32_t i = 0; i < 2 && !testing::Test::HasFailure(); ++i) {
        checkStart(clients[i], servers[i]);
    }
}

void World::checkWishes() const {
    for (uint32_t i = 0; i < 3; ++i) {
        checkWish(clients[i]);
        checkWish(servers[i]);
    }
}

void World::checkAtRest() {
    print("at rest");
    checkWishes();
    isAtRest = true;
    for (const auto& stream : streams) {
        for (StreamEnd& end : stream->ends) {
            if (!end.pam) {
                continue;
            }
            end.pam->readOnePktOnly() ? end.pam->readOnePktOnlyIs(false) : void();
            if (end.pam->enableMode() != tcpEnableModeReadWrite ||
                end.pam->pendingEnableReadOnlyOrWriteOnlyMode() != tcpEnableModeNone) {
                modeIs(end.pam, tcpEnableModeReadWrite);
            }
            end.pam->readable() ? read(*stream, end) : void();  // Was announced before.
        }
    }
    settle(loop, [this] { return missing(); });
    limits.advance(3);
    for (const auto& stream : streams) {
        for (const StreamEnd& end : stream->ends) {
            EXPECT_TRUE(!end.isClosing || !end.pam || (end.pam->closed() && end.hasClosed));
        }
    }
    settle(loop, [this] { return missing(); });
    isAtRest = false;
}

// What has arrived and should have been announced, or null.
const char* World::missing() const {
    for (const auto& stream : streams) {
        for (const StreamEnd& end : stream->ends) {
            const StreamEnd& peer = stream->ends[&end == stream->ends];
            if (!end.pam) {
                continue;
            }
            if (!peer.fd && end.pam->rxErrors() == 0 && !end.isClosing) {
                return "the end of a stream";
            }
            if (stream->isSpoilt || peer.isClosing || end.pam->txErrors() != 0) {
                continue;
            }
            const bool isEnd = peer.pam->rxErrorReason() == "Connection closed by peer";
            if (peer.pam->rxErrors() == 0 || (end.isClosing && isEnd)) {
                if (stream->calls == 0 && end.unarrived.size() != end.pam->txDrops()) {
                    return "a message";
                }
                if (!end.pam->writable() && !end.isClosing) {
                    return "room";
                }
            }
        }
    }
    return nullptr;
}

// With nothing in the way both machines come up; stopped, they leave nothing.
void World::checkStart(Client& client, Server& server) {
    if (!client.sm || !server.sm) {
        return;
    }
    server.sm->failApplySocketOptionsInTestIs(false);
    for (const Ptr<TcpConfigBase>& config :
         {Ptr<TcpConfigBase>(client.config), Ptr<TcpConfigBase>(server.config)}) {
        config->optionsIs(TcpSocketOptions());
        config->timeoutIs(0);
        config->retryIntervalIs(1);
    }
    server.config->peerRxMinTtlDelAll();
    servers[2] = {};
    server.sm->stopListener();
    server.sm->startListener();
    client.sm->startConnection();
    const uint32_t accepted = server.status->connSocketCount();
    const auto isUp = [&] {
        return stateOf(client).hasEnded && server.status->connSocketCount() > accepted;
    };
    for (uint32_t turns = 0; turns < 100 && !isUp(); ++turns) {
        loop.turn(0.01);
        clock.advance(turns % 10 == 9 ? 0.5 : 0);
    }
    EXPECT_TRUE(isUp()) << client.status->reason() << ", " << server.status->reason();
    client.wish = server.wish = Wish::stopped;
    client.sm->stopConnection();
    server.sm->stopListener();
    checkWishes();
}

using TcpReentrancy = PavoTest::SandboxTest;

TEST_F(TcpReentrancy, ObserversOfEndpointsAndMachinesMayDoAnything) {
    (void)globalPktManager();  // Lives from now on.
    PavoTest::runPrograms(2000, PavoTest::runProgram<World>);
}

}  // namespace
}  // namespace Pavo
