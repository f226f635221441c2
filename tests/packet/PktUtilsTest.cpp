#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "Mox/Trace.h"

#include "Pavo/PktUtils.h"
#include "fuzz/Frames.h"

namespace Pavo {
namespace {

using Frame = std::vector<uint8_t>;

// A frame of 42 bytes with 4 bytes of options and 4 of payload.
const Frame ipFrame = {0x02, 0,    0,    0,    0, 2, 0x02, 0, 0, 0, 0,    1,    0x08, 0x00,
                       0x46, 0x00, 0x00, 0x1c, 0, 0, 0,    0, 0, 0, 0xb9, 0xe3, 0,    0,
                       0,    0,    0,    0,    0, 0, 0,    0, 0, 0, 0,    0,    0,    0};

// ICMPv6 messages with `payload` bytes, the last of them 0x77. All but five words are zero.
Frame icmp6Frame(uint8_t payload) {
    Frame frame(54u + payload);
    storeNet<uint16_t>(&frame[12], 0x86dd);
    frame[14] = 0x60;
    frame[19] = payload;
    frame[20] = 58;
    frame.back() = 0x77;
    if (payload > 4) {
        const uint32_t lastWord = payload % 2 == 0 ? 0x77 : 0x7700;
        storeNet(&frame[56], static_cast<uint16_t>(~(58 + payload + lastWord)));
    }
    return frame;
}

Frame changed(Frame frame, uint32_t at, uint8_t value) {
    frame.at(at) = value;
    return frame;
}

Frame resized(Frame frame, uint32_t bytes) {
    frame.resize(bytes);
    return frame;
}

Mox::Ptr<Pkt> pktOf(const Frame& frame, uint32_t privateBytes) {
    return fuzz::pktOf({reinterpret_cast<const char*>(frame.data()), frame.size()}, privateBytes);
}

PktErrors ipError(const Mox::Ptr<Pkt>& pkt) {
    EthHdr* eth = nullptr;
    IpHdr* ip = nullptr;
    return checkEthIpHdr(pkt, eth, ip);
}

PktErrors ip6Error(const Mox::Ptr<Pkt>& pkt) {
    EthHdr* eth = nullptr;
    Ip6Hdr* ip6 = nullptr;
    return checkEthIp6Hdr(pkt, eth, ip6);
}

PktErrors icmp6Error(const Mox::Ptr<Pkt>& pkt) {
    Icmp6Hdr* icmp6 = nullptr;
    return checkIcmp6CheckSum(pkt, reinterpret_cast<Ip6Hdr*>(pkt->frontData() + 14), icmp6);
}

TEST(PktChecks, TraceTheFirstFault) {
    using enum PktErrors;
    const Frame& good = ipFrame;
    const Frame good6 = icmp6Frame(6);
    const struct {
        PktErrors (*check)(const Mox::Ptr<Pkt>&);
        Frame frame;
        uint32_t privateBytes;
        PktErrors error;
        const char* trace;
    } cases[] = {
        {ipError, resized(good, 33), 0, pktTooShort,
         "Packet has 33 bytes which is less than needed"},
        {ipError, good, 33, pktTooShort, "Headers do not lie in the first 33 bytes"},
        {ipError, good, 38, noError, ""},
        {ipError, changed(changed(good, 12, 0x86), 14, 0x60), 0, wrongEthType,
         "Got required Type: 0x8600 vs. 0x800 src MAC: 02:00:00:00:00:01"
         " dst MAC: 02:00:00:00:00:02"},
        {ipError, changed(good, 14, 0x50), 0, nonIpHdr, "Ip hdr is not IPv4"},
        {ipError, changed(good, 22, 1), 0, badIpHdrChecksum, "IPv4 header checksum is invalid"},
        // Less 20 makes 65535, which so large a packet could hold.
        {ipError, changed(changed(resized(good, 70000), 17, 19), 14, 0x45), 0, badIpPayloadLen,
         "IPv4 payload length is larger than the actual packet size"},
        {ip6Error, resized(good6, 53), 0, pktTooShort,
         "Packet has 53 bytes which is less than needed"},
        {ip6Error, good6, 53, pktTooShort, "Headers do not lie in the first 53 bytes"},
        {ip6Error, resized(good, 60), 0, wrongEthType,
         "Got required Type: 0x800 vs. 0x86dd src MAC: 02:00:00:00:00:01"
         " dst MAC: 02:00:00:00:00:02"},
        {ip6Error, changed(changed(good6, 19, 7), 14, 0x70), 0, nonIp6Hdr, "Ip hdr is not IPv6"},
        {ip6Error, changed(good6, 19, 7), 0, badIp6PayloadLen,
         "IPv6 payload length is larger than the actual packet size. "},
        {icmp6Error, icmp6Frame(3), 0, badIp6PayloadLen,
         "IP6 payload is too small to contain Icmp6"},
        {icmp6Error, changed(icmp6Frame(3), 20, 0), 0, nextHdrIsNotIcmp6,
         "Next header is not Icmp6"},
        {icmp6Error, changed(good6, 53, 1), 0, badIcmp6Checksum, "Icmp6 checksum is invalid"},
    };
    static std::string traced;
    const auto before =
        Mox::traceSinkIs([](const char*, int, std::string_view message) { traced += message; });
    Mox::traceSettingsIs("Pavo::PktUtils/1");
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        traced.clear();
        EXPECT_EQ(c.check(pktOf(c.frame, c.privateBytes)), c.error);
        EXPECT_EQ(traced, c.trace);
    }
    Mox::traceSettingsIs("Pavo::PktUtils/");
    Mox::traceSinkIs(before);
}

// Messages of 6 to 9 bytes, in two pieces of every size.
TEST(PktChecks, SumAMessageInPieces) {
    for (uint8_t payload = 6; payload < 10; ++payload) {
        const Frame good = icmp6Frame(payload);
        const Frame bad = changed(good, 53u + payload, 1);
        const Frame tooLong = changed(good, 19, payload + 1);
        for (uint32_t front = 54; front <= Pkt::privateAreaBytes && front <= good.size(); ++front) {
            const auto result = [front](const Frame& frame) {
                return icmp6Error(pktOf(frame, front));
            };
            const PktErrors cut = PktErrors::pktTooShort;
            EXPECT_EQ(result(good), front < 58 ? cut : PktErrors::noError) << front;
            EXPECT_EQ(result(bad), front < 58 ? cut : PktErrors::badIcmp6Checksum) << front;
            EXPECT_EQ(result(tooLong), PktErrors::badIp6PayloadLen);
        }
    }
}

}  // namespace
}  // namespace Pavo
