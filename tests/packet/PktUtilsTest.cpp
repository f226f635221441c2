#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "Mox/Trace.h"

#include "Pavo/PktUtils.h"
#include "packet/GuardedPkt.h"

namespace Pavo {
namespace {

using Frame = std::vector<uint8_t>;

// A frame of 42 bytes with 4 bytes of options and 4 of payload.
const Frame ipFrame = {0x02, 0,    0,    0,    0, 2, 0x02, 0, 0, 0, 0,    1,    0x08, 0x00,
                       0x46, 0x00, 0x00, 0x1c, 0, 0, 0,    0, 0, 0, 0xb9, 0xe3, 0,    0,
                       0,    0,    0,    0,    0, 0, 0,    0, 0, 0, 0,    0,    0,    0};

// ICMPv6 echo requests with `payload` bytes, one of data among them. All but five words are zero.
Frame icmp6Frame(uint8_t payload) {
    Frame frame(54u + payload);
    frame[12] = 0x86;
    frame[13] = 0xdd;
    frame[14] = 0x60;
    frame[19] = payload;
    frame[20] = 58;
    if (payload >= 4) {
        const uint32_t data = payload > 4 ? 0x77 : 0;
        frame[54] = 128;
        frame.back() = static_cast<uint8_t>(data);
        const uint32_t dataWord = payload % 2 == 0 ? data : data << 8;
        const uint32_t sum = ~(0x8000u + 58 + payload + dataWord);
        frame[56] = static_cast<uint8_t>(sum >> 8);
        frame[57] = static_cast<uint8_t>(sum);
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

struct Case {
    const char* what;
    Frame frame;
    uint32_t privateBytes;
    PktErrors error;
    std::string trace;
};

// Runs `check` over the frames, each of which ends at a page not to be read.
template <class Check>
void expectResults(const std::vector<Case>& cases, Check check) {
    static std::string traced;
    const auto before =
        Mox::traceSinkIs([](const char*, int, std::string_view message) { traced += message; });
    Mox::traceSettingsIs("Pavo::PktUtils/1");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        traced.clear();
        const GuardedPkt guarded(c.frame.data(), static_cast<uint32_t>(c.frame.size()),
                                 c.privateBytes);
        EXPECT_EQ(check(guarded.pkt()), c.error);
        EXPECT_EQ(traced, c.trace);
    }
    Mox::traceSettingsIs("Pavo::PktUtils/");
    Mox::traceSinkIs(before);
}

template <class Hdr>
auto resultOf(PktErrors (*check)(const Mox::Ptr<Pkt>&, EthHdr*&, Hdr*&)) {
    return [check](const Mox::Ptr<Pkt>& pkt) {
        EthHdr* eth = nullptr;
        Hdr* ip = nullptr;
        return check(pkt, eth, ip);
    };
}

TEST(PktChecks, FindTheFirstFaultOfAnIpHeader) {
    const std::string badLen = "IPv4 payload length is larger than the actual packet size";
    const std::string badSum = "IPv4 header checksum is invalid";
    const Frame& good = ipFrame;
    expectResults(
        {
            {"33 bytes", resized(good, 33), 0, PktErrors::pktTooShort,
             "Packet has 33 bytes which is less than needed"},
            {"33 bytes in the first piece", good, 33, PktErrors::pktTooShort,
             "Headers do not lie in the first 33 bytes"},
            {"38 bytes in the first piece", good, 38, PktErrors::noError, ""},
            {"type before version", changed(changed(good, 12, 0x86), 14, 0x60), 0,
             PktErrors::wrongEthType,
             "Got required Type: 0x8600 vs. 0x800 src MAC: 02:00:00:00:00:01"
             " dst MAC: 02:00:00:00:00:02"},
            {"version before length", changed(good, 14, 0x50), 0, PktErrors::nonIpHdr,
             "Ip hdr is not IPv4"},
            {"total length one too long", changed(good, 17, 29), 0, PktErrors::badIpPayloadLen,
             badLen},
            {"checksum", changed(good, 22, 1), 0, PktErrors::badIpHdrChecksum, badSum},
            // Less 20 makes 65535, which so large a packet could hold.
            {"total length 19", changed(changed(resized(good, 70000), 17, 19), 14, 0x45), 0,
             PktErrors::badIpPayloadLen, badLen},
        },
        resultOf(checkEthIpHdr));
}

TEST(PktChecks, FindTheFirstFaultOfAnIp6Header) {
    const Frame good = icmp6Frame(6);
    const std::string badLen = "IPv6 payload length is larger than the actual packet size. ";
    expectResults(
        {
            {"53 bytes", resized(good, 53), 0, PktErrors::pktTooShort,
             "Packet has 53 bytes which is less than needed"},
            {"53 bytes in the first piece", good, 53, PktErrors::pktTooShort,
             "Headers do not lie in the first 53 bytes"},
            {"54 bytes in the first piece", good, 54, PktErrors::noError, ""},
            {"IPv4", resized(ipFrame, 60), 0, PktErrors::wrongEthType,
             "Got required Type: 0x800 vs. 0x86dd src MAC: 02:00:00:00:00:01"
             " dst MAC: 02:00:00:00:00:02"},
            {"version before length", changed(changed(good, 19, 7), 14, 0x70), 0,
             PktErrors::nonIp6Hdr, "Ip hdr is not IPv6"},
            {"payload one too long", changed(good, 19, 7), 0, PktErrors::badIp6PayloadLen, badLen},
        },
        resultOf(checkEthIp6Hdr));
}

TEST(PktChecks, FindTheFirstFaultOfAnIcmp6Message) {
    const std::string badSum = "Icmp6 checksum is invalid";
    const std::string tooShort = "IP6 payload is too small to contain Icmp6";
    const Frame good = icmp6Frame(9);
    const std::vector<Case> cases = {
        {"shortest", icmp6Frame(4), 0, PktErrors::noError, ""},
        {"3 bytes", icmp6Frame(3), 0, PktErrors::badIp6PayloadLen, tooShort},
        {"next header before length", changed(icmp6Frame(3), 20, 0), 0,
         PktErrors::nextHdrIsNotIcmp6, "Next header is not Icmp6"},
        {"last byte", changed(good, 62, 0), 0, PktErrors::badIcmp6Checksum, badSum},
        {"destination", changed(good, 53, 1), 0, PktErrors::badIcmp6Checksum, badSum},
    };
    for (const bool hasPkt : {false, true}) {
        expectResults(cases, [hasPkt](const Mox::Ptr<Pkt>& pkt) {
            auto* ip6 = reinterpret_cast<Ip6Hdr*>(pkt->frontData() + 14);
            Icmp6Hdr* icmp6 = nullptr;
            return hasPkt ? checkIcmp6CheckSum(pkt, ip6, icmp6) : checkIcmp6CheckSum(ip6, icmp6);
        });
    }
}

// Messages of 6 to 9 bytes, in two pieces of every size.
TEST(PktChecks, SumAMessageInPieces) {
    for (uint8_t payload = 6; payload < 10; ++payload) {
        const Frame good = icmp6Frame(payload);
        const Frame bad = changed(good, 53u + payload, 1);
        const Frame tooLong = changed(good, 19, payload + 1);
        for (uint32_t front = 54; front <= Pkt::privateAreaBytes && front <= good.size(); ++front) {
            const auto result = [front](const Frame& frame) {
                const GuardedPkt guarded(frame.data(), static_cast<uint32_t>(frame.size()), front);
                Icmp6Hdr* icmp6 = nullptr;
                return checkIcmp6CheckSum(
                    guarded.pkt(), reinterpret_cast<Ip6Hdr*>(guarded.pkt()->frontData() + 14),
                    icmp6);
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
