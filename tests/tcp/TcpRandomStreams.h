/// @file
/// Random actions on message endpoints, both ends of whose streams are checked.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Mox/Clock.h"
#include "Mox/EventLoop.h"
#include "support/Errors.h"
#include "support/RandomProgram.h"
#include "tcp/TcpStreams.h"

namespace Pavo {

class RandomStreams : public PavoTest::RandomProgram {
  public:
    using RandomProgram::RandomProgram;
    ~RandomStreams() { streams.clear(); }

  protected:
    struct End {
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
    struct RandomStream {
        TcpFraming framing = simpleFraming;
        End ends[2];
        bool isSpoilt = false;  // Other bytes may arrive than those of whole messages.
        uint32_t calls = 0;     // Reads and sends that have not returned, as those that threw.
        bool isOrdered = true;  // No call was made inside one.
    };

    void open(const Mox::Ptr<TcpFileDescriptor>& near, const Mox::Ptr<TcpFileDescriptor>& far);
    Actions streamActions();
    /// Everything that was sent has arrived, and every stream that was to end has.
    void checkStreamsAtRest();

    Mox::EventLoop loop;
    Mox::ManualClock limits;
    const Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> factory =
        tcpFileDescriptorEventRegistrationFactoryMoxcFactory();
    std::vector<std::unique_ptr<RandomStream>> streams;

  private:
    void openPair() {
        int numbers[2];
        const int few = 4608;
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, numbers), 0);
        setsockopt(numbers[0], SOL_SOCKET, SO_SNDBUF, &few, sizeof(few));
        const auto near = tcpFileDescriptorFactory(numbers[0], oneIn(2));
        open(near, tcpFileDescriptorFactory(numbers[1], oneIn(2)));
    }
    TcpFraming anyFraming() {
        TcpFraming framing{.lengthAt = static_cast<uint16_t>(below(12)),
                           .lengthBytes = static_cast<uint8_t>(1 + below(4)),
                           .lengthIncludesHeader = oneIn(2)};
        framing.headerBytes =
            static_cast<uint16_t>(framing.lengthAt + framing.lengthBytes + below(9));
        return framing;
    }
    // The number of a message follows its header.
    static std::string textOf(const RandomStream& stream, uint32_t number, uint32_t bytes) {
        const TcpFraming& framing = stream.framing;
        const uint32_t length = bytes - (framing.lengthIncludesHeader ? 0 : framing.headerBytes);
        std::string text = messageOf(framing, length, bytes, number);
        std::memcpy(text.data() + framing.headerBytes, &number, sizeof(number));
        return text;
    }
    std::string newText(const RandomStream& stream, End& end, uint32_t payload) {
        const uint32_t most = stream.framing.lengthBytes == 1 ? 100 : 9500;
        end.unarrived.insert(++messages);
        return textOf(stream, messages, stream.framing.headerBytes + 4 + std::min(payload, most));
    }
    // In two pieces.
    Mox::Ptr<Pkt> newPkt(const RandomStream& stream, End& end, uint32_t payload) {
        const std::string text = newText(stream, end, payload);
        const Mox::Ptr<Pkt> pkt = globalPktManager()->newPkt(static_cast<uint32_t>(text.size()));
        const uint32_t head = stream.framing.headerBytes;
        std::memcpy(pkt->newPrivateHeadData(head), text.data(), head);
        pkt->stringValueIs(text.substr(head), /*atTail=*/true);
        return pkt;
    }
    void check(const RandomStream& stream, const Pkt& pkt, uint32_t* number) const {
        const Mox::String text = pkt.stringValue();
        std::memcpy(number, text.view().data() + stream.framing.headerBytes, sizeof(*number));
        EXPECT_TRUE(text.view() == textOf(stream, *number, text.bytes())) << "it is not whole";
        EXPECT_EQ(pkt.numIovecs(), 1u);
    }

    static void modeIs(Mox::Ptr<TcpPduPam> pam, uint32_t mode) {
        configure([&] { pam->enableModeIs(static_cast<TcpPduPamEnableMode>(mode)); });
    }
    void send(RandomStream& stream, End& end, uint32_t payload) {
        if (end.pam->writable() || end.pam->txQueueBytes() != 0 || end.isClosing) {
            stream.isOrdered &= stream.calls++ == 0;
            end.pam->txPktIs(newPkt(stream, end, payload));
            --stream.calls;
        }
    }
    // Some of them in a batch, of which those that are not taken are the agent's again.
    void sendMany(RandomStream& stream, End& end) {
        const bool isSmall = oneIn(8);
        std::vector<Mox::Ptr<Pkt>> pkts(1 + below(isSmall ? 400 : 40));
        const uint32_t first = messages + 1;
        for (auto& each : pkts) {
            each = newPkt(stream, end, below(isSmall ? 9 : oneIn(4) ? 9000 : 200));
        }
        stream.isOrdered &= stream.calls++ == 0;
        const uint32_t taken = end.pam->txPktsIs(pkts);
        --stream.calls;
        for (uint32_t i = taken; end.pam && i < pkts.size(); ++i) {
            EXPECT_EQ(end.unarrived.erase(first + i), 1u) << "it was not taken, and has arrived";
        }
    }
    void closeAfterTx(End& end) {
        end.isClosing = true;
        end.pam->closeAfterTx(below(3), &limits);
    }
    bool read(RandomStream& stream, End& end) {
        const bool isHeld = end.pam && end.pam->readable();
        stream.isOrdered &= stream.calls++ == 0;
        end.isReading = true;
        const Mox::Ptr<Pkt> pkt = end.pam ? end.pam->rxPkt() : nullptr;
        end.isReading = false;
        --stream.calls;
        EXPECT_TRUE(pkt || !isHeld || !stream.isOrdered) << "`readable` without a message";
        if (!pkt || stream.isSpoilt) {
            return pkt != nullptr;
        }
        uint32_t number = 0;
        check(stream, *pkt, &number);
        EXPECT_EQ(stream.ends[&end == stream.ends].unarrived.erase(number), 1u) << "it came twice";
        EXPECT_TRUE(number > end.lastArrived || !stream.isOrdered) << "it is out of order";
        end.lastArrived = number;
        oneIn(3) ? end.taken.push_back(pkt) : void();
        return true;
    }
    static int spoil(RandomStream& stream, const End& end) {
        stream.isSpoilt = true;
        return end.fd->descriptor();
    }
    void handle(RandomStream& stream, End& end, const TcpPduPam& pam, const Mox::Change& change);
    void onlyOne(const Mox::Ptr<TcpPduPam>& pam) {
        const bool isAhead = pam->readAheadBytes() + pam->rxBufferedBytes() != 0;
        EXPECT_EQ(rangeErrorOf([&] { pam->readOnePktOnlyIs(true); }), isAhead ? conflict : "");
    }
    void ahead(const Mox::Ptr<TcpPduPam>& pam, uint32_t bytes) {
        const bool isRefused = pam->readOnePktOnly() && bytes != 0;
        EXPECT_EQ(rangeErrorOf([&] { pam->readAheadBytesIs(bytes); }), isRefused ? conflict : "");
    }
    const char* missing();
    const char* missingFrom(const RandomStream& stream, const End& end) const;

    static constexpr char conflict[] = "TcpPduPam::readOnePktOnly not allowed with read-ahead";
    static constexpr uint32_t aheads[] = {0, 0, 1, 50, 700, 9000, 65536};
    static constexpr uint32_t takings[] = {0, 0, 1, 2, 1000};
    uint32_t messages = 0;
    bool isAtRest = false;  // Only readers act: they read once when they are notified.
};

inline void RandomStreams::open(const Mox::Ptr<TcpFileDescriptor>& near,
                                const Mox::Ptr<TcpFileDescriptor>& far) {
    RandomStream* stream = streams.emplace_back(std::make_unique<RandomStream>()).get();
    const bool isSimple = oneIn(2);
    stream->framing = isSimple ? simpleFraming : anyFraming();
    for (End& end : stream->ends) {
        end.fd = &end == stream->ends ? near : far;
        end.pam = isSimple && oneIn(2)
                      ? Mox::Ptr<TcpPduPam>(simpleTcpPduPamFactory(end.fd, factory))
                      : framedTcpPduPamFactory(end.fd, factory, stream->framing);
        end.pam->txQueueBytesIs(oneIn(2) ? 0 : below(30000));
        end.watch = {end.pam, Mox::allAttributes,
                     [=, this, &end, pam = end.pam.ptr()](const Mox::Change& change) {
                         handle(*stream, end, *pam, change);
                     }};
    }
}

inline void RandomStreams::handle(RandomStream& stream, End& end, const TcpPduPam& pam,
                                  const Mox::Change& change) {
    EXPECT_EQ(pam.readable(), pam.rxPktHolderShadow() && !pam.rxRemainingLength());
    EXPECT_FALSE(pam.writable() && pam.txQueuedBytes() > pam.txQueueBytes() / 2);
    EXPECT_FALSE(pam.writable() &&
                 pam.pendingEnableReadOnlyOrWriteOnlyMode() == tcpEnableModeReadOnly);
    EXPECT_TRUE(!std::exchange(end.isReading, false) || change.is(TcpPduPam::readableAttr))
        << "counted from inside a read";
    EXPECT_FALSE(change.is(TcpPduPam::closedAttr) && end.hasClosed) << "twice";
    end.hasClosed |= change.is(TcpPduPam::closedAttr);
    if (change.is(Pam::readableCountAttr)) {
        for (uint32_t left = isAtRest ? 1 : any(takings); left > 0 && read(stream, end); --left) {
        }
    }
    respond();  // Nothing, at rest.
}

inline RandomStreams::Actions RandomStreams::streamActions() {
    const auto end = [this](auto act) {
        return [=, this] {
            streams.empty() || oneIn(16) ? openPair() : void();
            RandomStream& stream = *any(streams);
            End& each = stream.ends[below(2)];
            each.pam ? act(stream, each) : void();
        };
    };
    return {
        {"send", end([this](auto& s, auto& e) { send(s, e, below(100)); })},
        {"read", end([this](auto& s, auto& e) { read(s, e); })},
        {"send much", end([this](auto& s, auto& e) { send(s, e, below(9500)); })},
        {"enable", end([](auto&, auto& e) { modeIs(e.pam, tcpEnableModeReadWrite); })},
        {"mode", end([this](auto&, auto& e) { modeIs(e.pam, below(4)); })},
        {"only one", end([this](auto&, auto& e) { onlyOne(e.pam); })},
        {"not only one", end([](auto&, auto& e) { e.pam->readOnePktOnlyIs(false); })},
        {"ahead", end([this](auto&, auto& e) { ahead(e.pam, any(aheads)); })},
        {"longest", end([this](auto&, auto& e) { e.pam->maxPduLengthIs(oneIn(2) ? 5000 : 9600); })},
        {"send many", end([this](auto& s, auto& e) { sendMany(s, e); })},
        {"queue", end([this](auto&, auto& e) { e.pam->txQueueBytesIs(below(30000)); })},
        {"no queue", end([](auto&, auto& e) { e.pam->txQueueBytesIs(0); })},
        {"close after", end([this](auto&, auto& e) { closeAfterTx(e); })},
        {"limit", [this] { limits.advance(1); }},
        {"close", end([](auto& s, auto& e) { spoil(s, e), e = {}; })},
        {"half close",
         end([this](auto& s, auto& e) { shutdown(spoil(s, e), oneIn(2) ? SHUT_RD : SHUT_WR); })},
        {"other bytes",
         end([](auto& s, auto& e) { ::send(spoil(s, e), "other", 5, MSG_NOSIGNAL); })},
    };
}

inline void RandomStreams::checkStreamsAtRest() {
    isAtRest = true;
    for (const auto& stream : streams) {
        for (End& end : stream->ends) {
            if (!end.pam) {
                continue;
            }
            end.pam->readOnePktOnly() ? end.pam->readOnePktOnlyIs(false) : void();
            if (end.pam->enableMode() != tcpEnableModeReadWrite ||
                end.pam->pendingEnableReadOnlyOrWriteOnlyMode() != tcpEnableModeNone) {
                modeIs(end.pam, tcpEnableModeReadWrite);
            }
            end.pam->readable() ? (void)read(*stream, end) : void();  // Was announced before.
        }
    }
    settle(loop, [this] { return missing(); });
    limits.advance(3);
    for (const auto& stream : streams) {
        for (const End& end : stream->ends) {
            EXPECT_TRUE(!end.isClosing || !end.pam || (end.pam->closed() && end.hasClosed));
            uint32_t number = 0;
            for (const auto& each : end.taken) {
                check(*stream, *each, &number);
            }
        }
    }
    settle(loop, [this] { return missing(); });
    isAtRest = false;
}

// What has arrived and should have been announced, or null.
inline const char* RandomStreams::missing() {
    for (const auto& stream : streams) {
        for (End& end : stream->ends) {
            if (const char* what = end.pam ? missingFrom(*stream, end) : nullptr) {
                return what;
            }
        }
    }
    return nullptr;
}

inline const char* RandomStreams::missingFrom(const RandomStream& stream, const End& end) const {
    const End& peer = stream.ends[&end == stream.ends];
    if (!peer.fd && end.pam->rxErrors() == 0 && !end.isClosing) {
        return "the end of a stream";
    }
    if (stream.isSpoilt || peer.isClosing || end.pam->txErrors() != 0) {
        return nullptr;
    }
    const bool isEnd = peer.pam->rxErrorReason() == "Connection closed by peer";
    if (peer.pam->rxErrors() == 0 || (end.isClosing && isEnd)) {
        if (stream.calls == 0 && end.unarrived.size() != end.pam->txDrops()) {
            return "a message";
        }
        if (!end.pam->writable() && !end.isClosing) {
            return "room";
        }
    }
    return nullptr;
}

}  // namespace Pavo
