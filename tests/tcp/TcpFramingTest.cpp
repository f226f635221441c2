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
    const auto factory = tcpFileDescriptorEventRegistrationFactoryMoxcFactory();
    for (const auto& row : rows) {
        EXPECT_EQ(rangeErrorOf([&] { framedTcpPduPamFactory(stream.near, factory, row.first); }),
                  row.second);
    }
}

TEST(TcpFraming, TakesAndRefusesWhatTheProtocolsSay) {
    const char closed[] = "Connection closed by peer";
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
            Stream stream(/*edgeTriggered=*/true);
            const auto factory = tcpFileDescriptorEventRegistrationFactoryMoxcFactory();
            const auto pam = framedTcpPduPamFactory(stream.near, factory, row.framing);
            pam->readAheadBytesIs(ahead);
            pam->enabledIs(true);
            const TcpFraming& framing = row.framing;
            const uint64_t length =
                row.bytes - (framing.lengthIncludesHeader ? 0 : framing.headerBytes);
            const uint64_t size = std::clamp<uint64_t>(row.bytes, framing.headerBytes, 65535);
            std::string bytes = messageOf(framing, length, static_cast<uint32_t>(size), 1);
            bytes.replace(0, row.start.size(), row.start);
            stream.write(bytes);
            stream.write(bytes);
            stream.write(bytes.substr(0, std::min<size_t>(7, bytes.size() - 1)));  // Not a third.
            stream.far = nullptr;
            uint32_t taken = 0;
            for (Mox::Ptr<Pkt> pkt; (pkt = pam->rxPkt()); ++taken) {
                EXPECT_EQ(pkt->stringValue(), bytes);
            }
            EXPECT_EQ(pam->rxErrorReason(), row.reason);
            EXPECT_EQ(taken, row.reason == closed ? 2u : 0u);
        }
    }
}

}  // namespace
}  // namespace Pavo
