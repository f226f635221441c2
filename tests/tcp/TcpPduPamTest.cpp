#include "Pavo/TcpPduPam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Mox/EventLoop.h"
#include "Mox/Trace.h"
#include "sandbox/Sandbox.h"
#include "support/FailSyscall.h"
#include "support/TestEntity.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

using Strings = std::vector<std::string>;
using testing::ElementsAre;

Strings traced;  // NOLINT: a sink has no context.

// A PDU whose length field says `length`, of `bytes` bytes that differ from their neighbours'.
std::string pduOf(uint16_t length, uint32_t bytes, uint8_t seed = 0) {
    std::string pdu(bytes, '\0');
    for (uint32_t i = 0; i < bytes; ++i) {
        pdu[i] = static_cast<char>(seed + i * 7 + (i >> 8));
    }
    pdu[2] = static_cast<char>(length >> 8);
    pdu[3] = static_cast<char>(length);
    return pdu;
}
std::string pduOf(uint16_t length) {
    return pduOf(length, length, static_cast<uint8_t>(length));
}

std::string joined(const Strings& pieces) {
    std::string all;
    for (const auto& each : pieces) {
        all += each;
    }
    return all;
}

Mox::Ptr<Pkt> pktOf(const std::string& bytes) {
    const Mox::Ptr<Pkt> pkt = Mox::make<Pkt>();
    pkt->sharedBufferIs(globalPktManager()->newSharedBuffer(static_cast<uint32_t>(bytes.size())));
    pkt->stringValueIs(Mox::String(std::string_view(bytes)), /*atTail=*/false);
    return pkt;
}

// A stream with an endpoint at one end and plain calls at the other. Local sockets deliver within
// the send.
struct Stream {
    enum Kind { local, tcp };

    explicit Stream(bool edgeTriggered, Kind kind = local) {
        int ends[2] = {-1, -1};
        if (kind == local) {
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
            const int bytes = 8192;  // So that a packet leaves in many pieces.
            EXPECT_EQ(setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes)), 0);
        } else {
            connectOverLoopback(ends);
        }
        near = tcpFileDescriptorFactory(ends[0], edgeTriggered);
        far = tcpFileDescriptorFactory(ends[1], false);
    }
    static void connectOverLoopback(int* ends) {
        sockaddr_in name{};
        name.sin_family = AF_INET;
        name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(name);
        auto* address = reinterpret_cast<sockaddr*>(&name);
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(listener, address, length) | listen(listener, 1), 0);
        EXPECT_EQ(getsockname(listener, address, &length), 0);
        ends[0] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(connect(ends[0], address, length), 0);
        ends[1] = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        close(listener);
    }

    void write(const std::string& bytes) const {
        EXPECT_EQ(send(far->descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // What has arrived at the far end.
    std::string read() const {
        std::string all(1 << 20, '\0');
        const ssize_t got = recv(far->descriptor(), all.data(), all.size(), MSG_DONTWAIT);
        all.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        return all;
    }
    int unread() const {
        int bytes = -1;
        EXPECT_EQ(ioctl(near->descriptor(), FIONREAD, &bytes), 0);
        return bytes;
    }

    Mox::Ptr<TcpFileDescriptor> near;
    Mox::Ptr<TcpFileDescriptor> far;
};

// For level- and edge-triggered descriptors.
class TcpPduPamTest : public testing::TestWithParam<bool> {
  protected:
    void SetUp() override { (void)globalPktManager(); }

    // Takes the PDU that it is told of, or with it all that there are.
    struct Reader {
        explicit Reader(const Mox::Ptr<SimpleTcpPduPam>& pam, bool takesAll = false)
            : watch(pam, Pam::readableCountAttr, [this, takesAll, pam = pam.ptr()] {
                  while (const auto pkt = pam->rxPkt()) {
                      pdus.emplace_back(pkt->stringValue().view());
                      if (!takesAll) {
                          return;
                      }
                  }
              }) {}
        Strings pdus;
        Mox::Watch<SimpleTcpPduPam> watch;
    };

    Mox::Ptr<SimpleTcpPduPam> open(const Stream& stream,
                                   TcpPduPamEnableMode mode = tcpEnableModeReadWrite) {
        const auto pam = simpleTcpPduPamFactory(stream.near, factory_);
        pam->enableModeIs(mode);
        return pam;
    }
    void turns() {
        for (int left = 1000; loop_.turn(0) != 0; --left) {
            ASSERT_GT(left, 0) << "it spins";
        }
    }
    void turnUntil(const std::function<bool()>& done) {
        for (int i = 0; i < 1000 && !done(); ++i) {
            loop_.turn(1.0);
        }
        EXPECT_TRUE(done());
    }
    // Sends until the socket takes no more; gives what was handed over.
    static std::string fill(const Mox::Ptr<SimpleTcpPduPam>& pam) {
        std::string sent;
        while (pam->writable() && sent.size() < 10000000) {
            const std::string pdu = pduOf(static_cast<uint16_t>(65535 - sent.size() % 40001));
            const auto pkt = pktOf(pdu);
            std::memcpy(pkt->newPrivateHeadData(20), pdu.data(), 20);
            pkt->delSharedHeadData(20);  // In two pieces.
            pam->txPktIs(pkt);
            sent += pdu;
            std::memset(pkt->sharedBuffer()->data(), 'x', pkt->sharedBuffer()->dataBytes());
        }
        EXPECT_FALSE(pam->writable());
        return sent;
    }

    Mox::EventLoop loop_;
    Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> factory_ =
        tcpFileDescriptorEventRegistrationFactoryMoxcFactory();
};

INSTANTIATE_TEST_SUITE_P(Watching, TcpPduPamTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "Edge" : "Level"; });

TEST_P(TcpPduPamTest, BelievesALengthOnlyWithinItsBounds) {
    const char* const tooSmall = "PDU length too small";
    const char* const tooBig = "PDU length too big";
    const struct {
        uint16_t length;
        uint16_t maxPduLength;
        uint32_t behindHeader;
        const char* reason;  // "" when the PDU comes out.
    } cases[] = {
        {0, 9600, 0, tooSmall},   {1, 9600, 0, tooSmall},     {19, 9600, 0, tooSmall},
        {20, 9600, 0, ""},        {21, 9600, 1, ""},          {9600, 9600, 9580, ""},
        {9601, 9600, 50, tooBig}, {65535, 9600, 0, tooBig},   {65535, 65535, 65515, ""},
        {1536, 1536, 1516, ""},   {1537, 1536, 1517, tooBig}, {20, 20, 0, ""},
        {20, 19, 0, tooBig},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.length) + " of " + std::to_string(c.maxPduLength));
        const Stream stream(GetParam());
        const auto pam = open(stream);
        Reader reader(pam);
        pam->maxPduLengthIs(c.maxPduLength);
        const std::string pdu = pduOf(c.length, 20 + c.behindHeader);
        stream.write(pdu);
        turns();
        const bool good = *c.reason == '\0';
        EXPECT_EQ(reader.pdus, good ? Strings{pdu} : Strings());
        EXPECT_EQ(pam->rxErrorReason(), c.reason);
        EXPECT_EQ(pam->rxErrors(), good ? 0u : 1u);
        EXPECT_EQ(pam->rxPktHolderShadow(), nullptr);
        EXPECT_EQ(pam->fd()->notifyOnReadable(), good);
        if (!good) {
            EXPECT_EQ(stream.unread(), c.maxPduLength < 20 ? 20 : int(c.behindHeader));
            EXPECT_EQ(pam->rxPkt(), nullptr);
            stream.write(pduOf(20));
            loop_.turn(0);  // Level-triggered interest ends with a last report.
            EXPECT_EQ(loop_.turn(0), 0u);
            pam->txPktIs(pktOf("still"));
            EXPECT_EQ(stream.read(), "still");
        }
    }
}

TEST_P(TcpPduPamTest, PutsPdusTogetherWhereverTheStreamIsCut) {
    const Strings pdus = {pduOf(20), pduOf(57), pduOf(21), pduOf(300)};
    const std::string bytes = joined(pdus);
    const Stream stream(GetParam());
    const auto pam = open(stream);
    Reader reader(pam);
    for (std::size_t cut = 1; cut < bytes.size(); ++cut) {
        reader.pdus.clear();
        stream.write(bytes.substr(0, cut));
        turns();
        stream.write(bytes.substr(cut));
        turns();
        ASSERT_EQ(reader.pdus, pdus) << cut;
    }
    reader.pdus.clear();
    for (const char byte : bytes) {
        stream.write(std::string(1, byte));
        EXPECT_EQ(loop_.turn(0), 1u);
    }
    turns();
    EXPECT_EQ(reader.pdus, pdus);
    EXPECT_EQ(pam->rxErrors(), 0u);
    EXPECT_EQ(pam->rxPktHolderShadow(), nullptr);  // An idle stream holds no buffer.
}

TEST_P(TcpPduPamTest, ServesManyPdusOfOneSegmentWithoutNewBytesAndWithinBounds) {
    const Stream stream(GetParam());
    const auto pam = open(stream);
    Reader reader(pam);
    std::string bytes;
    for (uint16_t i = 0; i < 100; ++i) {
        bytes += pduOf(static_cast<uint16_t>(20 + i));
    }
    stream.write(bytes);
    Strings served;
    while (loop_.turn(0) != 0) {
        served.push_back(std::to_string(reader.pdus.size()));
    }
    EXPECT_THAT(served, testing::IsSupersetOf({"32", "64", "96", "100"}));
    EXPECT_EQ(joined(reader.pdus), bytes);
    EXPECT_EQ(pam->readableCount(), 100u);
}

TEST_P(TcpPduPamTest, AnObserverThatThrowsLosesNoPdu) {
    const Stream stream(GetParam());
    const auto pam = open(stream);
    Strings pdus;
    const Mox::Watch<SimpleTcpPduPam> reader(pam, Pam::readableCountAttr, [&] {
        pdus.emplace_back(pam->rxPkt()->stringValue().view());
        if (pdus.size() == 1) {
            throw std::runtime_error("from an observer");
        }
    });
    stream.write(pduOf(20) + pduOf(21) + pduOf(22));
    EXPECT_THROW(loop_.turn(0), std::runtime_error);
    turns();
    EXPECT_EQ(pdus, (Strings{pduOf(20), pduOf(21), pduOf(22)}));
}

TEST_P(TcpPduPamTest, APduThatNobodyTakesWaitsAndLosesNothing) {
    const Stream stream(GetParam());
    const auto pam = open(stream);
    const Strings pdus = {pduOf(30), pduOf(31), pduOf(32), pduOf(33)};
    stream.write(pdus[0] + pdus[1]);
    turns();
    for (uint32_t i = 0; i < 2; ++i) {
        EXPECT_TRUE(pam->readable());
        EXPECT_EQ(pam->readableCount(), i + 1);
        EXPECT_EQ(pam->fd()->notifyOnReadable(), GetParam());
        EXPECT_EQ(loop_.turn(0), 0u);  // No spinning.
        EXPECT_EQ(pam->rxPkt()->stringValue(), pdus[i]);
        EXPECT_FALSE(pam->readable());
        EXPECT_TRUE(pam->fd()->notifyOnReadable());
        EXPECT_EQ(pam->readableCount(), i + 1);  // Not from inside rxPkt.
        turns();
    }
    EXPECT_FALSE(pam->readable());
    stream.write(pdus[2] + pdus[3].substr(0, 25));  // Read on demand, without any event.
    EXPECT_EQ(pam->rxPkt()->stringValue(), pdus[2]);
    EXPECT_EQ(pam->rxPkt(), nullptr);
    EXPECT_EQ(pam->rxRemainingLength(), 8u);
    stream.write(pdus[3].substr(25));
    EXPECT_EQ(pam->rxPkt()->stringValue(), pdus[3]);
    turns();
    EXPECT_EQ(pam->readableCount(), 2u);
    EXPECT_EQ(pam->rxPkt(), nullptr);
}

TEST_P(TcpPduPamTest, TellsOfAnErrorThatRxPktMetInTheNextTurn) {
    const uint32_t live = Mox::liveObjects();
    for (const bool dropped : {false, true}) {
        const Stream stream(GetParam());
        auto pam = open(stream);
        std::string told;
        Mox::Watch<SimpleTcpPduPam> watch(pam, Pam::rxErrorsAttr, [&] { told += "e"; });
        stream.write(pduOf(65535, 20));
        EXPECT_EQ(pam->rxPkt(), nullptr);
        EXPECT_EQ(pam->rxErrorReason(), "PDU length too big");
        EXPECT_EQ(pam->rxErrors(), 0u);
        if (dropped) {
            watch = {};
            pam = nullptr;
        }
        turns();
        EXPECT_EQ(told, dropped ? "" : "e");
    }
    EXPECT_EQ(Mox::liveObjects(), live);
}

TEST_P(TcpPduPamTest, WaitsForRoomWithOnePacketAndSendsEveryByteInOrder) {
    const Stream stream(GetParam());
    const auto pam = open(stream);
    EXPECT_EQ(pam->writableCount(), 1u);  // Enabling gave room.
    std::string sent;
    std::string received;
    for (uint32_t round = 2; round < 5; ++round) {
        sent += fill(pam);
        ASSERT_NE(pam->txPktHolderShadow(), nullptr);
        EXPECT_EQ(pam->txPktHolderShadow()->totalBytes(), pam->txRemainingLength());
        EXPECT_EQ(pam->txIovLenHolderShadow(), 1u);
        EXPECT_LT(pam->txRemainingLength(), pam->writeLength());
        EXPECT_EQ(loop_.turn(0), 0u);  // No spinning.
        EXPECT_DEATH(pam->txPktIs(pktOf("x")), "!txPktHolderShadow\\(\\)");
        turnUntil([&] {
            received += stream.read();
            return pam->writable();
        });
        EXPECT_EQ(pam->writableCount(), round);
        EXPECT_EQ(pam->txIovHolderShadow(), nullptr);
        EXPECT_FALSE(pam->fd()->notifyOnWritable());
    }
    received += stream.read();
    EXPECT_TRUE(received == sent) << received.size() << " of " << sent.size();
    EXPECT_EQ(pam->txErrors(), 0u);
    pam->enableModeIs(tcpEnableModeReadOnly);
    EXPECT_DEATH(pam->txPktIs(pktOf("x")), "\"?writable\\(\\)");
}

TEST_P(TcpPduPamTest, AnObserverThatThrowsLosesNoByteThatWaits) {
    const Stream stream(GetParam());
    const auto pam = open(stream);
    const std::string sent = fill(pam);
    pam->txErrnoIs(EAGAIN);  // What the next write takes back, and tells.
    bool throws = true;
    const Mox::Watch<SimpleTcpPduPam> watch(pam, Pam::txErrnoAttr, [&throws] {
        if (std::exchange(throws, false)) {
            throw std::runtime_error("from an observer");
        }
    });
    std::string arrived = stream.read();
    EXPECT_THROW(loop_.turn(1.0), std::runtime_error);
    turnUntil([&] {
        arrived += stream.read();
        return arrived.size() >= sent.size();
    });
    EXPECT_EQ(arrived, sent);
}

TEST_P(TcpPduPamTest, DropsAPacketInFrontOfWhichAnObserverSendsOneThatMustWait) {
    const Stream stream(GetParam());
    const auto pam = open(stream);
    pam->txPktIs(pktOf(std::string(65536, '?')));  // Too long: an error to take back.
    const std::string first = pduOf(60000);
    const Mox::Watch<SimpleTcpPduPam> watch(pam, Pam::txErrnoAttr,
                                            [&] { pam->txPktIs(pktOf(first)); });
    pam->txPktIs(pktOf(pduOf(50000)));
    EXPECT_EQ(pam->txDrops(), 1u);
    std::string arrived;
    turnUntil([&] {
        arrived += stream.read();
        return arrived.size() >= first.size();
    });
    EXPECT_EQ(arrived, first);
    EXPECT_TRUE(pam->writable());
}

TEST_P(TcpPduPamTest, SaysHowTheStreamEnded) {
    const struct {
        const char* how;
        std::function<void(Stream*)> end;
        const char* reason;
        const char* sendReason;  // Of the second packet sent afterwards, "" when there is none.
    } cases[] = {
        {"half-close", [](Stream* s) { shutdown(s->far->descriptor(), SHUT_WR); },
         "Connection closed by peer", ""},
        {"close", [](Stream* s) { s->far = nullptr; }, "Connection closed by peer",
         "Send failed with Broken pipe"},
        {"reset",
         [](Stream* s) {
             const linger hard{1, 0};
             setsockopt(s->far->descriptor(), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
             s->far = nullptr;
         },
         "Recv failed with Connection reset by peer", "Send failed with Broken pipe"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.how);
        Stream stream(GetParam(), Stream::tcp);
        const auto pam = open(stream);
        stream.write(pduOf(40).substr(0, 39));
        turnUntil([&] { return pam->rxRemainingLength() == 1; });
        c.end(&stream);
        turnUntil([&] { return pam->rxErrors() != 0; });
        EXPECT_EQ(pam->rxErrorReason(), c.reason);
        EXPECT_EQ(pam->rxPktHolderShadow(), nullptr);
        turns();
        for (int i = 0; i < 2 && pam->writable(); ++i) {
            pam->txPktIs(pktOf("last words"));
            turns();
        }
        EXPECT_EQ(pam->txErrorReason(), c.sendReason);
        EXPECT_EQ(pam->txErrno(), *c.sendReason == '\0' ? 0 : EPIPE);
        EXPECT_EQ(pam->writable(), *c.sendReason == '\0');
    }
}

TEST_P(TcpPduPamTest, EveryErrorOfACallEndsItsDirectionButThoseThatMeanLater) {
    const struct {
        int error;
        bool ends;
    } cases[] = {{EINTR, false},  {EAGAIN, false}, {ECONNRESET, true}, {ETIMEDOUT, true},
                 {ENOBUFS, true}, {EPIPE, true},   {ENOMEM, true},     {EHOSTUNREACH, true}};
    for (const auto& c : cases) {
        const std::string text = strerror(c.error);
        SCOPED_TRACE(text);
        const Stream stream(GetParam());
        const auto pam = open(stream);
        Reader reader(pam);
        stream.write(pduOf(40));
        {
            const PavoTest::FailSyscall fail(2, c.error, "recv");
            loop_.turn(0);
            EXPECT_TRUE(fail.happened());
        }
        EXPECT_EQ(pam->rxErrorReason(), c.ends ? "Recv failed with " + text : "");
        if (c.error == EAGAIN) {
            stream.write("");
            EXPECT_NE(pam->rxPkt(), nullptr);
        } else {
            EXPECT_EQ(reader.pdus.size(), c.ends ? 0u : 1u);
        }
        {
            const PavoTest::FailSyscall fail(1, c.error, "sendmsg");
            pam->txPktIs(pktOf("abc"));
            EXPECT_TRUE(fail.happened());
        }
        EXPECT_EQ(pam->txErrorReason(), c.ends ? "Send failed with " + text : "");
        EXPECT_EQ(pam->txErrors(), c.ends ? 1u : 0u);
        EXPECT_EQ(pam->txErrno(), c.ends ? c.error : 0);
        turns();
        EXPECT_EQ(stream.read(), c.ends ? "" : "abc");
        EXPECT_EQ(pam->writable(), !c.ends);
        pam->enabledIs(false);
        pam->enabledIs(true);  // What has ended stays so.
        EXPECT_EQ(pam->writable(), !c.ends);
        EXPECT_EQ(pam->fd()->notifyOnReadable(), !c.ends);
    }
}

TEST_P(TcpPduPamTest, RefusesAPacketAboveTheWritableLengthUnharmed) {
    const Stream stream(GetParam());
    const auto pam = open(stream);
    pam->txPktIs(pktOf(std::string(65536, 'x')));
    EXPECT_EQ(pam->txErrno(), EMSGSIZE);
    EXPECT_EQ(pam->txErrors(), 1u);
    pam->txPktIs(nullptr);
    pam->txPktIs(Mox::make<Pkt>());
    pam->txPktIs(pktOf(std::string(65535, 'y')));
    EXPECT_EQ(pam->txErrno(), 0);
    std::string received;
    turnUntil([&] {
        received += stream.read();
        return received.size() >= 65535;
    });
    EXPECT_TRUE(received == std::string(65535, 'y'));
}

TEST_P(TcpPduPamTest, ModesWaitForTransfersUnderWayInTheirOwnDirectionOnly) {
    const auto none = tcpEnableModeNone;
    const auto readOnly = tcpEnableModeReadOnly;
    const auto writeOnly = tcpEnableModeWriteOnly;
    const auto both = tcpEnableModeReadWrite;
    const struct {
        TcpPduPamEnableMode from, to;
        bool receiving, sending;
        TcpPduPamEnableMode meanwhile, pending, after;  // After the end of both transfers.
    } cases[] = {
        {both, readOnly, false, false, readOnly, none, readOnly},
        {both, readOnly, true, false, readOnly, none, readOnly},
        {both, readOnly, true, true, both, readOnly, readOnly},
        {writeOnly, readOnly, false, true, writeOnly, readOnly, readOnly},
        {both, writeOnly, false, true, writeOnly, none, writeOnly},
        {both, writeOnly, true, true, both, writeOnly, writeOnly},
        {readOnly, writeOnly, true, false, readOnly, writeOnly, writeOnly},
        {both, none, true, true, none, none, none},
        {readOnly, both, true, false, both, none, both},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        const Stream stream(GetParam());
        const auto pam = open(stream, c.from);
        Reader reader(pam, /*takesAll=*/true);
        const std::string pdu = pduOf(60);
        if (c.receiving) {
            stream.write(pdu.substr(0, 30));
            turns();
        }
        const std::string sent = c.sending ? fill(pam) : "";
        pam->enableModeIs(c.to);
        EXPECT_EQ(pam->enableMode(), c.meanwhile);
        EXPECT_EQ(pam->pendingEnableReadOnlyOrWriteOnlyMode(), c.pending);
        EXPECT_EQ(pam->fd()->enabled(), c.meanwhile != none);

        const auto finish = [&] {
            std::string received;
            do {
                received += stream.read();
            } while (loop_.turn(0) != 0);
            return received + stream.read();
        };
        stream.write(c.receiving ? pdu.substr(30) + pduOf(20) : pduOf(20));
        const std::string received = finish();
        EXPECT_EQ(pam->enableMode(), c.after);
        EXPECT_EQ(pam->pendingEnableReadOnlyOrWriteOnlyMode(), none);
        EXPECT_EQ(pam->writable(), c.after == writeOnly || c.after == both);
        if (c.pending == writeOnly) {
            EXPECT_EQ(reader.pdus, Strings{pdu});  // And not the one behind.
        }
        // What stood still goes on.
        pam->enableModeIs(both);
        EXPECT_TRUE(received + finish() == sent);
        const Strings all = c.receiving ? Strings{pdu, pduOf(20)} : Strings{pduOf(20)};
        EXPECT_EQ(reader.pdus, all);
        EXPECT_TRUE(pam->writable());
    }
}

TEST_P(TcpPduPamTest, APendingModeYieldsToALaterOneAndToAnError) {
    const Stream stream(GetParam());
    const auto pam = open(stream);
    stream.write(pduOf(60).substr(0, 30));
    turns();
    pam->enableModeIs(tcpEnableModeWriteOnly);
    pam->enableModeIs(tcpEnableModeReadWrite);
    EXPECT_EQ(pam->pendingEnableReadOnlyOrWriteOnlyMode(), tcpEnableModeNone);
    pam->enableModeIs(tcpEnableModeWriteOnly);
    shutdown(stream.far->descriptor(), SHUT_WR);
    turns();
    EXPECT_EQ(pam->enableMode(), tcpEnableModeWriteOnly);
    EXPECT_EQ(pam->rxErrorReason(), "Connection closed by peer");
}

TEST_P(TcpPduPamTest, StopsBehindOnePduWhenAsked) {
    const Stream stream(GetParam());
    const auto pam = open(stream);
    Reader reader(pam);
    pam->readOnePktOnlyIs(true);
    stream.write(pduOf(30) + pduOf(31) + pduOf(32));
    turns();
    EXPECT_THAT(reader.pdus, ElementsAre(pduOf(30)));
    EXPECT_EQ(pam->rxPkt(), nullptr);
    EXPECT_EQ(stream.unread(), 63);
    pam->readOnePktOnlyIs(false);
    turns();
    EXPECT_THAT(reader.pdus, ElementsAre(pduOf(30), pduOf(31), pduOf(32)));
}

TEST_P(TcpPduPamTest, AppliesKeepaliveAndCountsWhatFails) {
    const Stream stream(GetParam(), Stream::tcp);
    const auto pam = open(stream);
    const auto readBack = [&](int level, int option) {
        int value = -1;
        socklen_t length = sizeof(value);
        EXPECT_EQ(getsockopt(stream.near->descriptor(), level, option, &value, &length), 0);
        return value;
    };
    const auto all = [&] {
        return std::vector<int>{
            readBack(SOL_SOCKET, SO_KEEPALIVE), readBack(IPPROTO_TCP, TCP_KEEPIDLE),
            readBack(IPPROTO_TCP, TCP_KEEPINTVL), readBack(IPPROTO_TCP, TCP_KEEPCNT)};
    };
    traced.clear();
    const auto before = Mox::traceSinkIs(
        [](const char*, int, std::string_view text) { traced.emplace_back(text); });
    Mox::traceSettingsIs("Pavo::TcpPduPam/0-5");
    pam->keepaliveOptsIs({11, 12, 13});
    EXPECT_THAT(all(), ElementsAre(1, 11, 12, 13));
    pam->keepaliveOptsIs(TcpKeepaliveOptions::keepaliveDisabled);
    EXPECT_THAT(all(), ElementsAre(0, 11, 12, 13));
    EXPECT_THAT(traced, ElementsAre("Setsockopt(): TCP Keepalive enabled ( idletime: 11, "
                                    "probeinterval: 12, probetime: 13 )",
                                    "Setsockopt(): TCP Keepalive disabled"));
    uint32_t errors = 0;
    for (const char* option : {"SO_KEEPALIVE", "TCP_KEEPIDLE", "TCP_KEEPINTVL", "TCP_KEEPCNT"}) {
        traced.clear();
        const PavoTest::FailSyscall fail(++errors, ENOMEM, "setsockopt");
        pam->keepaliveOptsIs({20 + errors, 1, 1});
        EXPECT_EQ(fail.count(), 4u);
        EXPECT_EQ(pam->tcpOptErrors(), errors);
        EXPECT_EQ(pam->tcpOptErrorReason(), "Setsockopt failed with Cannot allocate memory");
        EXPECT_THAT(traced, ElementsAre("setsockopt() error while setting " + std::string(option) +
                                        ": Cannot allocate memory"));
    }
    pam->keepaliveOptsIs({40000, 1, 1});  // Above what Linux takes.
    EXPECT_EQ(pam->tcpOptErrorReason(), "Setsockopt failed with Invalid argument");
    Mox::traceSettingsIs("Pavo::TcpPduPam/");
    Mox::traceSinkIs(before);
}

TEST_P(TcpPduPamTest, ObserversMayDropOrDisableTheEndpointWhateverTheyAreToldOf) {
    using Pam = SimpleTcpPduPam;
    // Steps in a life that tells of everything; each is left out once the endpoint is gone.
    const auto send = [](Pam* p) {
        if (p->writable()) {
            p->txPktIs(pktOf(pduOf(9000)));
        }
    };
    const auto live = [&](Stream* stream, const Mox::Ptr<Pam>& pam) {
        const auto step = [&](const std::function<void(Pam*)>& act) {
            if (const Mox::Ptr<Pam> held = pam) {
                act(held.ptr());
            }
            loop_.turn(0);
        };
        step([](Pam* p) { p->keepaliveOptsIs({40000, 1, 1}); });
        step([](Pam* p) { p->maxPduLengthIs(100); });
        step([](Pam* p) { p->enabledIs(true); });
        stream->write(pduOf(30) + pduOf(31) + pduOf(32));
        for (int i = 0; i < 50; ++i) {
            step([](Pam* p) { p->rxPkt(); });
            step(send);
        }
        step([](Pam* p) { p->enableModeIs(tcpEnableModeReadOnly); });
        while (!stream->read().empty()) {
            step([](Pam*) {});
        }
        step([](Pam* p) { p->enableModeIs(tcpEnableModeReadWrite); });
        step([](Pam* p) { p->readOnePktOnlyIs(true); });
        step([](Pam* p) { p->readOnePktOnlyIs(false); });
        stream->far = nullptr;
        step(send);
        step([](Pam* p) { p->rxPkt(); });
        step([](Pam*) {});
    };
    std::vector<const Mox::AttributeBase*> attributes;
    for (const Mox::FwkType* type = &Pam::type; type != nullptr; type = type->base) {
        attributes.insert(attributes.end(), type->attributes.begin(), type->attributes.end());
    }
    EXPECT_EQ(PavoTest::attributeFault(Pam::type), "");
    const uint32_t objects = Mox::liveObjects();
    const auto descriptors = PavoSandbox::openDescriptors();
    Strings untold;
    for (const auto* attribute : attributes) {
        bool told = false;
        for (const int act : {0, 1, 2}) {
            SCOPED_TRACE(std::string(attribute->name) + " " + std::to_string(act));
            Stream stream(GetParam());
            auto pam = simpleTcpPduPamFactory(stream.near, factory_);
            Mox::Watch<Pam> watch;
            const std::function<void()> acts[] = {
                [&] { pam->rxPkt(); },
                [&] { pam->enableModeIs(tcpEnableModeNone); },
                [&] {
                    pam = nullptr;
                    watch = {};
                },
            };
            watch = {pam, *attribute, [&](const Mox::Change&) {
                         told = true;
                         acts[act]();
                     }};
            live(&stream, pam);
        }
        if (!told) {
            untold.emplace_back(attribute->name);
        }
    }
    EXPECT_THAT(untold, testing::UnorderedElementsAre("txDrops", "savedPacket", "savedPacketRx"));
    EXPECT_EQ(Mox::liveObjects(), objects);
    EXPECT_EQ(PavoSandbox::openDescriptors(), descriptors);
}

TEST_P(TcpPduPamTest, WorksOnInjectedEventsAndKeepsItsFramingToItself) {
    factory_ = Mox::make<TcpFileDescriptorEventRegistrationFactory>();
    const Stream stream(GetParam());
    const auto pam = open(stream);
    stream.write(pduOf(30) + pduOf(65535, 20));
    pam->fd()->handleReadable();
    EXPECT_TRUE(pam->readable());
    if (GetParam()) {
        pam->fd()->handleReadable();  // One more than there should be.
        EXPECT_EQ(pam->readableCount(), 1u);
    } else {
        EXPECT_DEATH(pam->fd()->handleReadable(), "notifyOnReadable\\(\\)");
    }
    EXPECT_EQ(pam->rxPkt()->stringValue(), pduOf(30));
    pam->fd()->handleReadable();
    EXPECT_EQ(pam->rxErrors(), 1u);
    EXPECT_EQ(pam->socketReadableCount(), GetParam() ? 3u : 2u);

    EXPECT_DEATH(pam->getPduSize(), "pkt");
    EXPECT_DEATH(pam->enableModeIs(static_cast<TcpPduPamEnableMode>(4)), "Unexpected value");
    const auto bare = tcpPduPamFactory(stream.near, factory_);
    EXPECT_DEATH(bare->getPduSize(), "Need to implement getRemainingLength in a derived class");
}

TEST(TcpPduValues, KeepTheValueLaws) {
    using Return = TcpPduPamReadReturn;
    expectValueLaws<Return>({Return(Return::Result::error), Return(Return::Result::error, "why"),
                             Return(Return::Result::fullPduRead)});
    expectValueLaws<TcpKeepaliveOptions>({{}, {0, 0, 1}, {0, 1, 0}, {1, 0, 0}});
    EXPECT_EQ(valueToStrep(Return(Return::Result::error, "why")),
              "Value('Pavo::TcpPduPamReadReturn', ** {'result': error, 'reason': 'why'})");
    EXPECT_EQ(valueToStrep(TcpKeepaliveOptions(1, 2, 3)),
              "Value('Pavo::TcpKeepaliveOptions', ** {'idleTime': 1, 'probeInterval': 2, "
              "'probeCount': 3})");
}

}  // namespace
}  // namespace Pavo
