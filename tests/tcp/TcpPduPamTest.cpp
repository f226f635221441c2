#include "Pavo/TcpPduPam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

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
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

using PavoTest::FailSyscall;
using Strings = std::vector<std::string>;
using testing::ElementsAre;

// A PDU whose length field says `length`, of `bytes` bytes that differ from their neighbours'.
std::string pduOf(uint16_t length, uint32_t bytes) {
    std::string pdu(bytes, '\0');
    for (uint32_t i = 0; i < bytes; ++i) {
        pdu[i] = static_cast<char>(length + i * 7 + (i >> 8));
    }
    pdu[2] = static_cast<char>(length >> 8);
    pdu[3] = static_cast<char>(length);
    return pdu;
}
std::string pduOf(uint16_t length) {
    return pduOf(length, length);
}

Mox::Ptr<Pkt> pktOf(const std::string& bytes) {
    const Mox::Ptr<Pkt> pkt = Mox::make<Pkt>();
    pkt->sharedBufferIs(globalPktManager()->newSharedBuffer(static_cast<uint32_t>(bytes.size())));
    pkt->stringValueIs(Mox::String(std::string_view(bytes)), /*atTail=*/false);
    return pkt;
}

// A stream with an endpoint at one end and plain calls at the other, which delivers within the
// send.
struct Stream {
    explicit Stream(bool edgeTriggered) {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        const int bytes = 8192;  // So that a packet leaves in many pieces.
        EXPECT_EQ(setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes)), 0);
        near = tcpFileDescriptorFactory(ends[0], edgeTriggered);
        far = tcpFileDescriptorFactory(ends[1], false);
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
    // Takes one PDU at each notification, or all that there are.
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
    void turns(const std::function<void()>& beforeEach = [] {}) {
        int left = 1000;
        do {
            beforeEach();
            ASSERT_GT(--left, 0) << "it spins";
        } while (loop_.turn(0) != 0);
    }
    // Expects all of `sent` to arrive, `arrived` being there already.
    void expectArrival(const Stream& stream, const std::string& sent, std::string arrived = "") {
        turns([&] { arrived += stream.read(); });
        EXPECT_TRUE(arrived + stream.read() == sent);
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
    Stream stream_{GetParam()};
    Mox::Ptr<SimpleTcpPduPam> pam_ = open(stream_);
};

INSTANTIATE_TEST_SUITE_P(Watching, TcpPduPamTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "Edge" : "Level"; });

TEST_P(TcpPduPamTest, AcceptsALengthOnlyWithinItsBounds) {
    const char* const tooSmall = "PDU length too small";
    const char* const tooBig = "PDU length too big";
    const struct {
        uint16_t length, maxPduLength;
        const char* reason;  // "" when the PDU comes out.
    } cases[] = {
        {0, 9600, tooSmall}, {19, 9600, tooSmall}, {20, 9600, ""},
        {21, 9600, ""},      {9600, 9600, ""},     {9601, 9600, tooBig},
        {65535, 65535, ""},  {20, 20, ""},         {20, 19, tooBig},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.length) + " of " + std::to_string(c.maxPduLength));
        const Stream stream(GetParam());
        const auto pam = open(stream);
        Reader reader(pam);
        pam->maxPduLengthIs(c.maxPduLength);
        const std::string pdu = pduOf(c.length, std::max<uint32_t>(c.length, 20));
        stream.write(pdu);
        turns();
        const bool good = *c.reason == '\0';
        EXPECT_EQ(reader.pdus, good ? Strings{pdu} : Strings());
        EXPECT_EQ(pam->rxErrorReason(), c.reason);
        EXPECT_EQ(pam->rxErrors(), good ? 0u : 1u);
        EXPECT_EQ(pam->rxPktHolderShadow(), nullptr);
        EXPECT_EQ(pam->fd()->notifyOnReadable(), good);
        if (!good) {
            EXPECT_EQ(stream.unread(), c.maxPduLength < 20 ? 20 : int(pdu.size()) - 20);
            EXPECT_EQ(pam->rxPkt(), nullptr);
            stream.write(pduOf(20));
            loop_.turn(0);  // Level-triggered interest ends with a last report.
            EXPECT_EQ(loop_.turn(0), 0u);
            pam->txPktIs(pktOf("still"));
            EXPECT_EQ(stream.read(), "still");
        }
    }
}

TEST_P(TcpPduPamTest, ServesALimitedNumberOfPdusATurnAlsoWhenAnObserverThrows) {
    std::string sent, taken;
    uint32_t pdus = 0;
    const Mox::Watch<SimpleTcpPduPam> reader(pam_, Pam::readableCountAttr, [&] {
        taken += pam_->rxPkt()->stringValue().view();
        if (++pdus == 1) {
            throw std::runtime_error("from an observer");
        }
    });
    for (uint16_t length = 20; length < 120; ++length) {
        sent += pduOf(length);
    }
    stream_.write(sent);
    EXPECT_THROW(loop_.turn(0), std::runtime_error);
    std::vector<uint32_t> served;
    while (loop_.turn(0) != 0) {
        served.push_back(pdus);
    }
    EXPECT_THAT(served, testing::IsSupersetOf({33, 65, 97, 100}));
    EXPECT_EQ(taken, sent);
}

TEST_P(TcpPduPamTest, APduThatIsNotTakenWaitsAndLosesNothing) {
    const Strings pdus = {pduOf(30), pduOf(31), pduOf(32), pduOf(33)};
    stream_.write(pdus[0] + pdus[1]);
    turns();
    for (uint32_t i = 0; i < 2; ++i) {
        EXPECT_TRUE(pam_->readable());
        EXPECT_EQ(pam_->readableCount(), i + 1);
        EXPECT_EQ(pam_->fd()->notifyOnReadable(), GetParam());
        EXPECT_EQ(loop_.turn(0), 0u);  // No spinning.
        EXPECT_EQ(pam_->rxPkt()->stringValue(), pdus[i]);
        EXPECT_FALSE(pam_->readable());
        EXPECT_TRUE(pam_->fd()->notifyOnReadable());
        EXPECT_EQ(pam_->readableCount(), i + 1);  // Not from inside rxPkt.
        turns();
    }
    EXPECT_FALSE(pam_->readable());
    stream_.write(pdus[2] + pdus[3].substr(0, 25));  // Read on demand, without any event.
    EXPECT_EQ(pam_->rxPkt()->stringValue(), pdus[2]);
    EXPECT_EQ(pam_->rxPkt(), nullptr);
    EXPECT_EQ(pam_->rxRemainingLength(), 8u);
    stream_.write(pdus[3].substr(25));
    EXPECT_EQ(pam_->rxPkt()->stringValue(), pdus[3]);
    turns();
    EXPECT_EQ(pam_->readableCount(), 2u);
}

TEST_P(TcpPduPamTest, CountsAnErrorOfRxPktInTheNextTurnIfItStillExists) {
    const Stream other(GetParam());
    Mox::Ptr<SimpleTcpPduPam> dropped = open(other);
    for (const bool last : {false, true}) {
        const Stream& stream = last ? other : stream_;
        const auto& pam = last ? dropped : pam_;
        stream.write(pduOf(65535, 20));
        EXPECT_EQ(pam->rxPkt(), nullptr);
        EXPECT_EQ(pam->rxErrorReason(), "PDU length too big");
        EXPECT_EQ(pam->rxErrors(), 0u);
    }
    dropped = nullptr;
    turns();
    EXPECT_EQ(pam_->rxErrors(), 1u);
}

TEST_P(TcpPduPamTest, WaitsForRoomWithOnePacketAndSendsEveryByteInOrder) {
    EXPECT_EQ(pam_->writableCount(), 1u);  // From enabling.
    for (uint32_t round = 2; round < 5; ++round) {
        const std::string sent = fill(pam_);
        ASSERT_NE(pam_->txPktHolderShadow(), nullptr);
        EXPECT_EQ(pam_->txPktHolderShadow()->totalBytes(), pam_->txRemainingLength());
        EXPECT_EQ(pam_->txIovLenHolderShadow(), 1u);
        EXPECT_LT(pam_->txRemainingLength(), pam_->writeLength());
        EXPECT_EQ(loop_.turn(0), 0u);  // No spinning.
        EXPECT_DEATH(pam_->txPktIs(pktOf("x")), "!txPktHolderShadow\\(\\)");
        expectArrival(stream_, sent);
        EXPECT_EQ(pam_->writableCount(), round);
        EXPECT_EQ(pam_->txIovHolderShadow(), nullptr);
        EXPECT_FALSE(pam_->fd()->notifyOnWritable());
    }
    EXPECT_EQ(pam_->txErrors(), 0u);
    pam_->enableModeIs(tcpEnableModeReadOnly);
    EXPECT_DEATH(pam_->txPktIs(pktOf("x")), "\"?writable\\(\\)");
}

TEST_P(TcpPduPamTest, AnObserverThatThrowsLosesNoPendingByte) {
    const std::string sent = fill(pam_);
    pam_->txErrnoIs(EAGAIN);  // The next write resets it and notifies.
    bool throws = true;
    const Mox::Watch<SimpleTcpPduPam> watch(pam_, Pam::txErrnoAttr, [&throws] {
        if (std::exchange(throws, false)) {
            throw std::runtime_error("from an observer");
        }
    });
    const std::string arrived = stream_.read();
    EXPECT_THROW(loop_.turn(1.0), std::runtime_error);
    expectArrival(stream_, sent, arrived);
}

TEST_P(TcpPduPamTest, RefusesATooLongPacketAndDropsOneThatAnObserverPrecedes) {
    pam_->txPktIs(nullptr);
    pam_->txPktIs(Mox::make<Pkt>());
    pam_->txPktIs(pktOf(std::string(65536, '?')));
    EXPECT_EQ(pam_->txErrno(), EMSGSIZE);
    EXPECT_EQ(pam_->txErrors(), 1u);
    // The next packet resets the error, and an observer of that sends one that must wait.
    const std::string first(65535, '1');
    const Mox::Watch<SimpleTcpPduPam> watch(pam_, Pam::txErrnoAttr,
                                            [&] { pam_->txPktIs(pktOf(first)); });
    pam_->txPktIs(pktOf(pduOf(50000)));
    EXPECT_EQ(pam_->txErrno(), 0);
    EXPECT_EQ(pam_->txDrops(), 1u);
    expectArrival(stream_, first);
    EXPECT_TRUE(pam_->writable());
}

TEST_P(TcpPduPamTest, ReportsHowTheStreamEnded) {
    stream_.write(pduOf(40).substr(0, 39));
    turns();
    EXPECT_EQ(pam_->rxRemainingLength(), 1u);
    shutdown(stream_.far->descriptor(), SHUT_WR);
    turns();
    EXPECT_EQ(pam_->rxErrors(), 1u);
    EXPECT_EQ(pam_->rxErrorReason(), "Connection closed by peer");
    EXPECT_EQ(pam_->rxPktHolderShadow(), nullptr);
    EXPECT_TRUE(pam_->writable());
    stream_.far = nullptr;
    pam_->txPktIs(pktOf("last words"));
    EXPECT_EQ(pam_->txErrorReason(), "Send failed with Broken pipe");
}

TEST_P(TcpPduPamTest, EveryErrorEndsItsDirectionExceptEintrAndEagain) {
    const struct {
        int error;
        bool ends;
    } cases[] = {{EINTR, false}, {EAGAIN, false}, {ETIMEDOUT, true}, {ENOBUFS, true}};
    for (const auto& c : cases) {
        const std::string text = strerror(c.error);
        SCOPED_TRACE(text);
        const Stream stream(GetParam());
        const auto pam = open(stream);
        Reader reader(pam);
        stream.write(pduOf(40));
        {
            const FailSyscall fail(2, c.error, "recv");
            loop_.turn(0);
            EXPECT_TRUE(fail.happened());
        }
        EXPECT_EQ(pam->rxErrorReason(), c.ends ? "Recv failed with " + text : "");
        if (c.error == EAGAIN) {
            EXPECT_NE(pam->rxPkt(), nullptr);
        } else {
            EXPECT_EQ(reader.pdus.size(), c.ends ? 0u : 1u);
        }
        {
            const FailSyscall fail(1, c.error, "sendmsg");
            pam->txPktIs(pktOf("abc"));
            EXPECT_TRUE(fail.happened());
        }
        EXPECT_EQ(pam->txErrorReason(), c.ends ? "Send failed with " + text : "");
        EXPECT_EQ(pam->txErrors(), c.ends ? 1u : 0u);
        EXPECT_EQ(pam->txErrno(), c.ends ? c.error : 0);
        expectArrival(stream, c.ends ? "" : "abc");
        pam->enabledIs(false);
        pam->enabledIs(true);  // An ended direction stays ended.
        EXPECT_EQ(pam->writable(), !c.ends);
        EXPECT_EQ(pam->fd()->notifyOnReadable(), !c.ends);
    }
}

TEST_P(TcpPduPamTest, AModeWaitsForATransferInTheDirectionThatItEnds) {
    const auto none = tcpEnableModeNone;
    const auto readOnly = tcpEnableModeReadOnly;
    const auto writeOnly = tcpEnableModeWriteOnly;
    const auto both = tcpEnableModeReadWrite;
    const struct {
        TcpPduPamEnableMode from, to;
        bool receiving, sending;
        TcpPduPamEnableMode meanwhile, pending, after;  // After the end of both transfers.
    } cases[] = {
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

        stream.write(c.receiving ? pdu.substr(30) + pduOf(20) : pduOf(20));
        std::string received;
        turns([&] { received += stream.read(); });
        EXPECT_EQ(pam->enableMode(), c.after);
        EXPECT_EQ(pam->pendingEnableReadOnlyOrWriteOnlyMode(), none);
        EXPECT_EQ(pam->writable(), c.after == writeOnly || c.after == both);
        if (c.pending == writeOnly) {
            EXPECT_EQ(reader.pdus, Strings{pdu});  // And not the next one.
        }
        // Suspended transfers go on.
        pam->enableModeIs(both);
        expectArrival(stream, sent, received);
        EXPECT_EQ(reader.pdus, c.receiving ? Strings({pdu, pduOf(20)}) : Strings{pduOf(20)});
        EXPECT_TRUE(pam->writable());
    }
}

TEST_P(TcpPduPamTest, APendingModeYieldsToALaterOneAndToAnError) {
    stream_.write(pduOf(60).substr(0, 30));
    turns();
    pam_->enableModeIs(tcpEnableModeWriteOnly);
    pam_->enableModeIs(tcpEnableModeReadWrite);
    EXPECT_EQ(pam_->pendingEnableReadOnlyOrWriteOnlyMode(), tcpEnableModeNone);
    pam_->enableModeIs(tcpEnableModeWriteOnly);
    shutdown(stream_.far->descriptor(), SHUT_WR);
    turns();
    EXPECT_EQ(pam_->enableMode(), tcpEnableModeWriteOnly);
}

TEST_P(TcpPduPamTest, StopsAfterOnePduInThatMode) {
    Reader reader(pam_);
    pam_->readOnePktOnlyIs(true);
    stream_.write(pduOf(30) + pduOf(31));
    turns();
    EXPECT_THAT(reader.pdus, ElementsAre(pduOf(30)));
    EXPECT_EQ(pam_->rxPkt(), nullptr);
    EXPECT_EQ(stream_.unread(), 31);
    pam_->readOnePktOnlyIs(false);
    turns();
    EXPECT_THAT(reader.pdus, ElementsAre(pduOf(30), pduOf(31)));
}

Strings traced;  // NOLINT: a sink has no context.

TEST_P(TcpPduPamTest, AppliesKeepaliveAndCountsWhatFails) {
    const auto fd = TcpFileDescriptor::socket(ipv4, NamespaceName(), GetParam());
    const auto pam = simpleTcpPduPamFactory(fd, factory_);
    const auto options = [&fd] {
        std::vector<int> values;
        for (const int option : {SO_KEEPALIVE, TCP_KEEPIDLE, TCP_KEEPINTVL, TCP_KEEPCNT}) {
            const int level = values.empty() ? SOL_SOCKET : IPPROTO_TCP;
            socklen_t length = sizeof(int);
            getsockopt(fd->descriptor(), level, option, &values.emplace_back(-1), &length);
        }
        return values;
    };
    const auto before = Mox::traceSinkIs(
        [](const char*, int, std::string_view text) { traced.emplace_back(text); });
    Mox::traceSettingsIs("Pavo::TcpPduPam/0-5");
    pam->keepaliveOptsIs({11, 12, 13});
    EXPECT_THAT(options(), ElementsAre(1, 11, 12, 13));
    pam->keepaliveOptsIs(TcpKeepaliveOptions::keepaliveDisabled);
    EXPECT_THAT(options(), ElementsAre(0, 11, 12, 13));
    EXPECT_THAT(std::exchange(traced, {}),
                ElementsAre("Setsockopt(): TCP Keepalive enabled ( idletime: 11, "
                            "probeinterval: 12, probetime: 13 )",
                            "Setsockopt(): TCP Keepalive disabled"));
    uint32_t errors = 0;
    for (const char* option : {"SO_KEEPALIVE", "TCP_KEEPIDLE", "TCP_KEEPINTVL", "TCP_KEEPCNT"}) {
        const FailSyscall fail(++errors, ENOMEM, "setsockopt");
        pam->keepaliveOptsIs({20 + errors, 1, 1});
        EXPECT_EQ(fail.count(), 4u);
        EXPECT_EQ(pam->tcpOptErrors(), errors);
        EXPECT_EQ(pam->tcpOptErrorReason(), "Setsockopt failed with Cannot allocate memory");
        EXPECT_THAT(std::exchange(traced, {}),
                    ElementsAre("setsockopt() error while setting " + std::string(option) +
                                ": Cannot allocate memory"));
    }
    Mox::traceSettingsIs("Pavo::TcpPduPam/");
    Mox::traceSinkIs(before);
}

TEST_P(TcpPduPamTest, ObserversOfAnyAttributeMayDropOrDisableTheEndpoint) {
    using Pam = SimpleTcpPduPam;
    // Changes every attribute; steps are left out once the endpoint is gone.
    const auto live = [&](Stream* stream, const Mox::Ptr<Pam>& pam) {
        using Acts = std::vector<std::function<void(Pam*)>>;
        const auto steps = [&](const Acts& acts) {
            for (const auto& act : acts) {
                if (const Mox::Ptr<Pam> held = pam) {
                    act(held.ptr());
                }
                loop_.turn(0);
            }
        };
        const auto take = [](Pam* p) { p->rxPkt(); };
        const auto send = [](Pam* p) {
            if (p->writable()) {
                p->txPktIs(pktOf(pduOf(9000)));
            }
        };
        const TcpKeepaliveOptions tooLong(40000, 1, 1);  // Above what Linux takes.
        steps({[&](Pam* p) { p->keepaliveOptsIs(tooLong); }, [](Pam* p) { p->maxPduLengthIs(100); },
               [](Pam* p) { p->enabledIs(true); }});
        stream->write(pduOf(30) + pduOf(31) + pduOf(32));
        for (int i = 0; i < 50; ++i) {
            steps({take, send});
        }
        steps({[](Pam* p) { p->enableModeIs(tcpEnableModeReadOnly); }});
        while (!stream->read().empty()) {
            loop_.turn(0);
        }
        steps({[](Pam* p) { p->enableModeIs(tcpEnableModeReadWrite); },
               [](Pam* p) { p->readOnePktOnlyIs(true); },
               [](Pam* p) { p->readOnePktOnlyIs(false); }});
        stream->far = nullptr;
        steps({send, take, [](Pam*) {}});
    };
    globalPktManager();  // It stays, and must not be counted as a leak.
    const uint32_t objects = Mox::liveObjects();
    const auto descriptors = PavoSandbox::openDescriptors();
    Strings unchanged;
    for (const Mox::FwkType* type = &Mox::fwkTypeOf<Pam>(); type != nullptr; type = type->base) {
        for (const Mox::AttributeRecord& attribute : type->attributes) {
            bool notified = false;
            for (const int act : {0, 1, 2}) {
                SCOPED_TRACE(std::string(attribute.name) + " " + std::to_string(act));
                Stream stream(GetParam());
                auto pam = simpleTcpPduPamFactory(stream.near, factory_);
                Mox::Watch<Pam> watch;
                watch = {pam, Mox::allAttributes, [&](const Mox::Change& change) {
                             if (!change.is(attribute)) {
                                 return;
                             }
                             notified = true;
                             if (act == 0) {
                                 pam->rxPkt();
                             } else if (act == 1) {
                                 pam->enableModeIs(tcpEnableModeNone);
                             } else {
                                 pam = nullptr;
                                 watch = {};
                             }
                         }};
                live(&stream, pam);
            }
            if (!notified) {
                unchanged.emplace_back(attribute.name);
            }
        }
    }
    EXPECT_THAT(unchanged,
                testing::UnorderedElementsAre("txDrops", "savedPacket", "savedPacketRx"));
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
