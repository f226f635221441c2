#include "Pavo/TcpPduPam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
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
#include "Mox/Exception.h"
#include "support/ValueLaws.h"
#include "tcp/PduAgent.h"

namespace Pavo {
namespace {

using PavoTest::PduAgent;
using PavoTest::pduOf;
using PavoTest::pktOf;
using Strings = std::vector<std::string>;
using testing::ElementsAre;

constexpr auto none = tcpEnableModeNone;
constexpr auto readOnly = tcpEnableModeReadOnly;
constexpr auto writeOnly = tcpEnableModeWriteOnly;
constexpr auto both = tcpEnableModeReadWrite;

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
    Stream stream_{GetParam()};
    PduAgent agent_{stream_.near};
    const Mox::Ptr<SimpleTcpPduPam> pam_ = agent_.pam;
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
        const PduAgent agent(stream.near);
        agent.pam->maxPduLengthIs(c.maxPduLength);
        const std::string pdu = pduOf(c.length, std::max<uint32_t>(c.length, 20));
        stream.write(pdu);
        turns();
        const bool good = *c.reason == '\0';
        EXPECT_EQ(agent.taken, good ? Strings{pdu} : Strings());
        EXPECT_EQ(agent.pam->rxErrorReason(), c.reason);
        EXPECT_EQ(agent.pam->rxErrors(), good ? 0u : 1u);
        EXPECT_EQ(agent.pam->rxPktHolderShadow(), nullptr);
        if (!good) {
            EXPECT_EQ(stream.unread(), c.maxPduLength < 20 ? 20 : int(pdu.size()) - 20);
            EXPECT_EQ(agent.pam->rxPkt(), nullptr);
            stream.write(pduOf(20));
            loop_.turn(0);  // Level-triggered interest ends with a last report.
            EXPECT_EQ(loop_.turn(0), 0u);
            agent.send("still");
            EXPECT_EQ(stream.read(), "still");
        }
    }
}

TEST_P(TcpPduPamTest, ServesALimitedNumberOfPdusATurnAlsoWhenAnObserverThrows) {
    const Stream stream(GetParam());
    PduAgent agent(stream.near);
    const Mox::Watch<SimpleTcpPduPam> thrower(agent.pam, Pam::readableCountAttr, [&] {
        if (agent.taken.size() == 1) {
            throw std::runtime_error("from an observer");
        }
    });
    Strings sent;
    for (uint16_t length = 20; length < 120; ++length) {
        stream.write(sent.emplace_back(pduOf(length)));
    }
    EXPECT_THROW(loop_.turn(0), std::runtime_error);
    std::vector<std::size_t> served;
    while (loop_.turn(0) != 0) {
        served.push_back(agent.taken.size());
    }
    EXPECT_THAT(served, testing::IsSupersetOf({33, 65, 97, 100}));
    EXPECT_EQ(agent.taken, sent);
}

TEST_P(TcpPduPamTest, APduThatIsNotTakenWaitsAndLosesNothing) {
    const Stream stream(GetParam());
    const Strings pdus = {pduOf(30), pduOf(31), pduOf(32), pduOf(33)};
    const auto pam =
        simpleTcpPduPamFactory(stream.near, tcpFileDescriptorEventRegistrationFactoryMoxcFactory());
    pam->enabledIs(true);
    stream.write(pdus[0] + pdus[1]);
    turns();
    for (uint32_t i = 0; i < 2; ++i) {
        EXPECT_TRUE(pam->readable());
        EXPECT_EQ(pam->readableCount(), i + 1);
        EXPECT_EQ(loop_.turn(0), 0u);  // No spinning.
        EXPECT_EQ(pam->rxPkt()->stringValue(), pdus[i]);
        EXPECT_FALSE(pam->readable());
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
}

TEST_P(TcpPduPamTest, CountsAnErrorOfRxPktInTheNextTurnIfItStillExists) {
    const Stream other(GetParam());
    const auto meet = [](const Stream& stream, const PduAgent& agent) {
        stream.write(pduOf(65535, 20));
        EXPECT_EQ(agent.pam->rxPkt(), nullptr);
        EXPECT_EQ(agent.pam->rxErrorReason(), "PDU length too big");
        EXPECT_EQ(agent.pam->rxErrors(), 0u);
    };
    meet(stream_, agent_);
    meet(other, PduAgent(other.near));
    turns();
    EXPECT_EQ(pam_->rxErrors(), 1u);
}

TEST_P(TcpPduPamTest, AFullSocketTakesOnePacketMoreAndEveryByteArrivesInOrder) {
    using Registration = TcpFileDescriptorEventRegistration;
    EXPECT_EQ(pam_->writableCount(), 1u);  // From enabling.
    std::string sent;
    const Mox::Watch<Registration> user(pam_->fd(), Registration::notifyOnWritableAttr, [&] {
        if (pam_->writable()) {
            sent += "y";
            agent_.send("y");
        }
    });
    for (uint32_t round = 2; round < 5; ++round) {
        sent = fill(pam_);
        EXPECT_EQ(pam_->txPktHolderShadow()->totalBytes(), pam_->txRemainingLength());
        EXPECT_EQ(pam_->txIovLenHolderShadow(), 1u);
        EXPECT_LT(pam_->txRemainingLength(), pam_->writeLength());
        EXPECT_EQ(loop_.turn(0), 0u);  // No spinning.
        EXPECT_DEATH(pam_->txPktIs(pktOf("x")), "!txPktHolderShadow\\(\\)");
        std::string arrived;
        turns([&] { arrived += stream_.read(); });
        EXPECT_TRUE(arrived == sent);
        EXPECT_EQ(sent.back(), 'y');
        EXPECT_EQ(pam_->writableCount(), round);
        EXPECT_EQ(pam_->txIovHolderShadow(), nullptr);
    }
    EXPECT_EQ(pam_->txErrors(), 0u);
    pam_->enableModeIs(readOnly);
    EXPECT_DEATH(pam_->txPktIs(pktOf("x")), "\"?writable\\(\\)");
}

TEST_P(TcpPduPamTest, AnObserverThatThrowsDelaysWhatFollowsAndLosesNothing) {
    int left = 1;  // Notifications up to the one that throws.
    const Mox::Watch<SimpleTcpPduPam> watch(
        pam_, {SimpleTcpPduPam::writableAttr, SimpleTcpPduPam::readableAttr, Pam::txErrnoAttr},
        [&left](const Mox::Change&) {
            if (--left == 0) {
                throw std::runtime_error("from an observer");
            }
        });
    EXPECT_THROW(fill(pam_), std::runtime_error);
    left = 2;  // When the PDU is taken.
    stream_.write(pduOf(30));
    EXPECT_THROW(turns(), std::runtime_error);
    turns([&] { stream_.read(); });
    EXPECT_EQ(agent_.taken, Strings{pduOf(30)});
    EXPECT_TRUE(pam_->writable());
    EXPECT_EQ(pam_->writableCount(), 2u);
    fill(pam_);
    pam_->enableModeIs(readOnly);
    left = 1;  // When the write fails.
    stream_.far = nullptr;
    EXPECT_THROW(turns(), std::runtime_error);
    turns();
    EXPECT_EQ(pam_->txErrors(), 1u);
    EXPECT_EQ(pam_->enableMode(), readOnly);
    EXPECT_EQ(pam_->pendingEnableReadOnlyOrWriteOnlyMode(), none);
}

TEST_P(TcpPduPamTest, APacketThatNoCallCanSendIsAnErrorAfterWhichWritingGoesOn) {
    pam_->txPktIs(nullptr);
    pam_->txPktIs(Mox::make<Pkt>());
    EXPECT_EQ(pam_->txErrors(), 0u);
    agent_.send(std::string(65536, '?'));
    EXPECT_EQ(pam_->txErrno(), EMSGSIZE);
    char byte = 'x';
    std::vector<SocketIovec> pieces(IOV_MAX + 1, SocketIovec{&byte, 1});
    pam_->sendIov(pieces.data(), IOV_MAX + 1);
    EXPECT_EQ(pam_->txErrors(), 2u);
    EXPECT_EQ(pam_->txErrorReason(), "Send failed with Message too long");
    pam_->sendIov(pieces.data(), IOV_MAX);
    EXPECT_EQ(pam_->txErrno(), 0);
    expectArrival(stream_, std::string(IOV_MAX, 'x'));
    pam_->enabledIs(false);
    pam_->sendIov(pieces.data(), 1);
    EXPECT_EQ(pam_->txDrops(), 1u);
}

// The kernel lets one loop watch a descriptor once: the second endpoint that needs it fails.
TEST_P(TcpPduPamTest, ASocketThatCannotBeWatchedIsAnErrorOfTheDirectionThatNeedsIt) {
    const char* const reason = "Epoll_ctl failed with File exists";
    const PduAgent second(stream_.near, writeOnly);
    EXPECT_THROW(second.pam->enableModeIs(both), Mox::ErrnoException);
    EXPECT_FALSE(second.pam->enabled());
    second.pam->enableModeIs(writeOnly);
    fill(second.pam);
    EXPECT_EQ(second.pam->txErrorReason(), reason);
    EXPECT_EQ(second.pam->txErrno(), EEXIST);
    EXPECT_EQ(second.pam->txErrors(), 1u);
    EXPECT_EQ(second.pam->txPktHolderShadow(), nullptr);
    while (!stream_.read().empty()) {
    }

    // The first one gives the descriptor up after one PDU, and needs it again.
    pam_->readOnePktOnlyIs(true);
    stream_.write(pduOf(30) + pduOf(31));
    turns();
    const PduAgent third(stream_.near, readOnly, /*takesAll=*/true);
    pam_->readOnePktOnlyIs(false);
    EXPECT_EQ(pam_->rxErrorReason(), reason);
    EXPECT_EQ(pam_->rxErrors(), 1u);
    turns();
    EXPECT_EQ(third.taken, Strings{pduOf(31)});
    EXPECT_TRUE(pam_->writable());
    pam_->enabledIs(false);
    pam_->enabledIs(true);  // A direction that has failed is not tried again.
    EXPECT_EQ(pam_->rxErrors(), 1u);
}

TEST_P(TcpPduPamTest, ReportsHowTheStreamEnded) {
    for (const bool isReset : {false, true}) {
        Stream stream(GetParam());
        const PduAgent agent(stream.near);
        stream.write(pduOf(40).substr(0, 39));
        turns();
        EXPECT_EQ(agent.pam->rxRemainingLength(), 1u);
        if (isReset) {
            agent.send("never read");
            stream.far = nullptr;
        } else {
            shutdown(stream.far->descriptor(), SHUT_WR);
        }
        turns();
        EXPECT_EQ(agent.pam->rxErrors(), 1u);
        EXPECT_EQ(agent.pam->rxErrorReason(), isReset ? "Recv failed with Connection reset by peer"
                                                      : "Connection closed by peer");
        EXPECT_EQ(agent.pam->rxPktHolderShadow(), nullptr);
        EXPECT_TRUE(agent.pam->writable());
        stream.far = nullptr;
        agent.send("last words");
        EXPECT_EQ(agent.pam->txErrorReason(), "Send failed with Broken pipe");
        EXPECT_EQ(agent.pam->txErrno(), EPIPE);
        EXPECT_FALSE(agent.pam->writable());
    }
}

TEST_P(TcpPduPamTest, AModeIsPendingDuringATransferInTheDirectionThatItEnds) {
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
        const PduAgent agent(stream.near, c.from, /*takesAll=*/true);
        const auto& pam = agent.pam;
        const std::string pdu = pduOf(60);
        if (c.receiving) {
            stream.write(pdu.substr(0, 30));
            turns();
        }
        const std::string sent = c.sending ? fill(pam) : "";
        pam->enableModeIs(c.to);
        EXPECT_EQ(pam->enableMode(), c.meanwhile);
        EXPECT_EQ(pam->pendingEnableReadOnlyOrWriteOnlyMode(), c.pending);

        stream.write(c.receiving ? pdu.substr(30) + pduOf(20) : pduOf(20));
        std::string received;
        turns([&] { received += stream.read(); });
        EXPECT_EQ(pam->enableMode(), c.after);
        EXPECT_EQ(pam->pendingEnableReadOnlyOrWriteOnlyMode(), none);
        EXPECT_EQ(pam->writable(), c.after == writeOnly || c.after == both);
        if (c.pending == writeOnly) {
            EXPECT_EQ(agent.taken, Strings{pdu});  // And not the next one.
        }
        // Transfers that were cut short go on.
        pam->enableModeIs(both);
        expectArrival(stream, sent, received);
        EXPECT_EQ(agent.taken, c.receiving ? Strings({pdu, pduOf(20)}) : Strings{pduOf(20)});
        EXPECT_TRUE(pam->writable());
    }
    // A later mode replaces a pending one, which an error applies too.
    stream_.write(pduOf(60).substr(0, 30));
    turns();
    pam_->enableModeIs(writeOnly);
    pam_->enableModeIs(both);
    EXPECT_EQ(pam_->pendingEnableReadOnlyOrWriteOnlyMode(), none);
    pam_->enableModeIs(writeOnly);
    shutdown(stream_.far->descriptor(), SHUT_WR);
    turns();
    EXPECT_EQ(pam_->enableMode(), writeOnly);
}

TEST_P(TcpPduPamTest, StopsAfterOnePduInThatMode) {
    pam_->readOnePktOnlyIs(true);
    stream_.write(pduOf(30) + pduOf(31));
    turns();
    EXPECT_THAT(agent_.taken, ElementsAre(pduOf(30)));
    EXPECT_EQ(pam_->rxPkt(), nullptr);
    EXPECT_EQ(stream_.unread(), 31);
    pam_->readOnePktOnlyIs(false);
    turns();
    EXPECT_THAT(agent_.taken, ElementsAre(pduOf(30), pduOf(31)));
}

TEST_P(TcpPduPamTest, AppliesKeepaliveAndCountsWhatFails) {
    const auto fd = TcpFileDescriptor::socket(ipv4, NamespaceName(), GetParam());
    const PduAgent agent(fd, none);
    const auto options = [&fd] {
        std::vector<int> values;
        for (const int option : {SO_KEEPALIVE, TCP_KEEPIDLE, TCP_KEEPINTVL, TCP_KEEPCNT}) {
            const int level = values.empty() ? SOL_SOCKET : IPPROTO_TCP;
            socklen_t length = sizeof(int);
            getsockopt(fd->descriptor(), level, option, &values.emplace_back(-1), &length);
        }
        return values;
    };
    agent.pam->keepaliveOptsIs({11, 12, 13});
    EXPECT_THAT(options(), ElementsAre(1, 11, 12, 13));
    agent.pam->keepaliveOptsIs(TcpKeepaliveOptions::keepaliveDisabled);
    EXPECT_THAT(options(), ElementsAre(0, 11, 12, 13));
    agent.pam->keepaliveOptsIs({40000, 40000, 14});  // Above what Linux takes.
    EXPECT_THAT(options(), ElementsAre(1, 11, 12, 14));
    EXPECT_EQ(agent.pam->tcpOptErrors(), 2u);
    EXPECT_EQ(agent.pam->tcpOptErrorReason(), "Setsockopt failed with Invalid argument");
}

// A framing that knows no length.
class Unframed : public Mox::EntityOf<Unframed, TcpPduPam> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::Unframed"); }
    explicit Unframed(const Stream& stream)
        : EntityOf(stream.near, tcpFileDescriptorEventRegistrationFactoryMoxcFactory()) {}
    uint16_t getPduSize() override { return 0; }
};

TEST_P(TcpPduPamTest, ADerivedClassAloneKnowsTheFraming) {
    const Stream stream(GetParam());
    const auto unframed = Mox::make<Unframed>(stream);
    unframed->enabledIs(true);
    stream.write("x");
    turns();
    EXPECT_EQ(unframed->rxErrorReason(), "PDU length too small");
    EXPECT_EQ(stream.unread(), 1);
    EXPECT_DEATH(pam_->getPduSize(), "pkt");
    EXPECT_DEATH(pam_->enableModeIs(static_cast<TcpPduPamEnableMode>(4)), "Unexpected value");
    const auto bare = tcpPduPamFactory(stream.near, pam_->fdFactory());
    EXPECT_DEATH(bare->getPduSize(), "Need to implement getRemainingLength in a derived class");
}

TEST_P(TcpPduPamTest, WorksOnInjectedEvents) {
    const auto factory = Mox::make<TcpFileDescriptorEventRegistrationFactory>();
    const Stream stream(GetParam());
    const auto pam = simpleTcpPduPamFactory(stream.near, factory);
    pam->enabledIs(true);
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
