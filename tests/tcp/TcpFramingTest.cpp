/// @file
/// Framings as data: which are refused, and which messages they take and refuse.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>

#include "Mox/EventLoop.h"
#include "support/Errors.h"
#include "tcp/TcpStreams.h"

namespace Pavo {
namespace {

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
