#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "Mox/Trace.h"

#include "Pavo/Checksum.h"
#include "Pavo/PktUtils.h"
#include "packet/GuardedPkt.h"

namespace Pavo {
namespace {

using Frame = std::vector<uint8_t>;

// While one lives, keeps what `PktUtils` traces.
class Traced {
  public:
    Traced() : before_(Mox::traceSinkIs(&take)) {
        text_.clear();
        Mox::traceSettingsIs("Pavo::PktUtils/1");
    }
    ~Traced() {
        Mox::traceSettingsIs("Pavo::PktUtils/");
        Mox::traceSinkIs(before_);
    }

    const std::string& text() const { return text_; }

  private:
    static void take(const char*, int, std::string_view message) { text_ += message; }

    static inline std::string text_;
    Mox::TraceSink before_;
};

void checksumIs(Frame* frame, uint32_t at, uint32_t sum, uint32_t first) {
    const IpChecksum checksum =
        ipChecksumCalc(frame->data() + first, static_cast<uint16_t>(frame->size() - first), sum);
    std::memcpy(frame->data() + at, &checksum, sizeof(checksum));
}

// A frame of `bytes` bytes, or 34 if that is more, whose one fault may be its size. The rest of the
// header length is options.
Frame ipFrame(uint32_t bytes, uint8_t words = 5) {
    Frame frame(std::max(bytes, 14u + std::max<uint8_t>(words, 5) * 4));
    EthHdr eth;
    eth.typeIs(EthType::ip);
    eth.srcIs(EthAddr(0x0200, 0, 1));
    eth.dstIs(EthAddr(0x0200, 0, 2));
    IpHdr ip;
    ip.versionIs(4);
    ip.headerLenIs(words);
    ip.totalLenIs(static_cast<uint16_t>(bytes - 14));
    std::memcpy(frame.data(), &eth, sizeof(eth));
    std::memcpy(frame.data() + 14, &ip, sizeof(ip));
    const IpChecksum checksum =
        ipChecksumCalc(frame.data() + 14, static_cast<uint16_t>(words * 4), 0);
    if (words >= 5) {
        std::memcpy(frame.data() + 24, &checksum, sizeof(checksum));
    }
    frame.resize(bytes);
    return frame;
}

Frame ip6Frame(uint32_t bytes, uint16_t payloadLen) {
    Frame frame(std::max(bytes, 54u));
    EthHdr eth;
    eth.typeIs(EthType::ip6);
    Ip6Hdr ip6;
    ip6.versionIs(6);
    ip6.payloadLenIs(payloadLen);
    std::memcpy(frame.data(), &eth, sizeof(eth));
    std::memcpy(frame.data() + 14, &ip6, sizeof(ip6));
    frame.resize(bytes);
    return frame;
}

Frame changed(Frame frame, uint32_t at, uint8_t value) {
    frame.at(at) = value;
    return frame;
}

struct Checked {
    PktErrors error;
    bool hasEth;
    bool hasIp;
};

// The check, over a frame that ends at a page not to be read.
template <class Hdr>
Checked checked(PktErrors (*check)(const Mox::Ptr<Pkt>&, EthHdr*&, Hdr*&), const Frame& frame,
                uint32_t privateBytes = 0) {
    const auto bytes = static_cast<uint32_t>(frame.size());
    const GuardedPkt guarded(frame.data(), bytes, privateBytes);
    EthHdr* eth = nullptr;
    Hdr* ip = nullptr;
    const PktErrors error = check(guarded.pkt(), eth, ip);
    const uint8_t* front = guarded.pkt()->frontData();
    EXPECT_TRUE(eth == nullptr || reinterpret_cast<uint8_t*>(eth) == front);
    EXPECT_TRUE(ip == nullptr || reinterpret_cast<uint8_t*>(ip) == front + 14);
    EXPECT_EQ(guarded.pkt()->bytesValue(), Mox::Bytes(frame.data(), bytes));
    return {error, eth != nullptr, ip != nullptr};
}

TEST(CheckEthIpHdr, FindsTheFirstFault) {
    const Frame good = ipFrame(42, 6);
    Frame many = changed(good, 12, 0x86);
    many[14] = 0x60;
    const struct {
        const char* what;
        Frame frame;
        PktErrors error;
        const char* trace;
    } cases[] = {
        {"good", good, PktErrors::noError, ""},
        {"shortest", ipFrame(34), PktErrors::noError, ""},
        {"padded",
         [] {
             Frame f = ipFrame(34);
             f.resize(60);
             return f;
         }(),
         PktErrors::noError, ""},
        {"33 bytes", ipFrame(33), PktErrors::pktTooShort,
         "Packet has 33 bytes which is less than needed"},
        {"nothing", {}, PktErrors::pktTooShort, "Packet has 0 bytes which is less than needed"},
        {"type before version", many, PktErrors::wrongEthType,
         "Got required Type: 0x8600 vs. 0x800 src MAC: 02:00:00:00:00:01"
         " dst MAC: 02:00:00:00:00:02"},
        {"version", changed(good, 14, 0x66), PktErrors::nonIpHdr, "Ip hdr is not IPv4"},
        {"version before length", changed(good, 14, 0x50), PktErrors::nonIpHdr,
         "Ip hdr is not IPv4"},
        {"total length one too long", changed(good, 17, 29), PktErrors::badIpPayloadLen,
         "IPv4 payload length is larger than the actual packet size"},
        {"total length below the header", changed(good, 17, 23), PktErrors::badIpPayloadLen,
         "IPv4 payload length is larger than the actual packet size"},
        {"header length below 20", changed(good, 14, 0x44), PktErrors::badIpPayloadLen,
         "IPv4 payload length is larger than the actual packet size"},
        {"header length past the end", changed(good, 14, 0x4f), PktErrors::badIpPayloadLen,
         "IPv4 payload length is larger than the actual packet size"},
        {"checksum", changed(good, 22, 1), PktErrors::badIpHdrChecksum,
         "IPv4 header checksum is invalid"},
        {"checksum in the options", changed(good, 37, 1), PktErrors::badIpHdrChecksum,
         "IPv4 header checksum is invalid"},
        {"payload is not summed", changed(good, 38, 1), PktErrors::noError, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const Traced traced;
        const auto result = checked(checkEthIpHdr, c.frame);
        EXPECT_EQ(result.error, c.error);
        EXPECT_EQ(traced.text(), c.trace);
        const bool bound = c.error != PktErrors::pktTooShort && c.error != PktErrors::wrongEthType;
        EXPECT_EQ(result.hasEth, bound);
        EXPECT_EQ(result.hasIp, bound);
    }
}

TEST(CheckEthIpHdr, RefusesAPayloadOfLessThanNothingInAPacketOfMoreThan64KiB) {
    IpHdr* ip = nullptr;
    EthHdr* eth = nullptr;
    Frame frame = ipFrame(70000);
    const auto pkt = Mox::make<Pkt>();
    pkt->sharedBufferIs(globalPktManager()->newSharedBuffer(70000));
    pkt->bytesValueIs(Mox::Bytes(frame.data(), 70000), /*atTail=*/true);
    pkt->frontData()[16] = 0;
    pkt->frontData()[17] = 19;  // Less 20 makes 65535, which the packet could hold.
    EXPECT_EQ(checkEthIpHdr(pkt, eth, ip), PktErrors::badIpPayloadLen);
}

TEST(CheckEthIpHdr, TouchesNoMoreThanThereIsInAnySplit) {
    for (uint32_t bytes = 0; bytes <= 80; ++bytes) {
        for (uint8_t words = 0; words < 16; ++words) {
            const Frame frame = ipFrame(bytes, words);
            const uint32_t end = 14 + words * 4;
            for (uint32_t priv = 0; priv <= std::min(bytes, Pkt::privateAreaBytes); ++priv) {
                const uint32_t front = priv == 0 ? bytes : priv;
                const PktErrors expected = bytes < 34 || front < 34   ? PktErrors::pktTooShort
                                           : words < 5 || end > bytes ? PktErrors::badIpPayloadLen
                                           : end > front              ? PktErrors::pktTooShort
                                                                      : PktErrors::noError;
                ASSERT_EQ(checked(checkEthIpHdr, frame, priv).error, expected)
                    << bytes << " " << int{words} << " " << priv;
            }
        }
    }
}

TEST(CheckEthIp6Hdr, FindsTheFirstFault) {
    const Frame good = ip6Frame(60, 6);
    const struct {
        const char* what;
        Frame frame;
        PktErrors error;
        const char* trace;
    } cases[] = {
        {"good", good, PktErrors::noError, ""},
        {"shortest", ip6Frame(54, 0), PktErrors::noError, ""},
        {"53 bytes", ip6Frame(53, 0), PktErrors::pktTooShort,
         "Packet has 53 bytes which is less than needed"},
        {"IPv4", ipFrame(60), PktErrors::wrongEthType,
         "Got required Type: 0x800 vs. 0x86dd src MAC: 02:00:00:00:00:01"
         " dst MAC: 02:00:00:00:00:02"},
        {"version before length", changed(ip6Frame(60, 7), 14, 0x70), PktErrors::nonIp6Hdr,
         "Ip hdr is not IPv6"},
        {"payload one too long", ip6Frame(60, 7), PktErrors::badIp6PayloadLen,
         "IPv6 payload length is larger than the actual packet size. "},
        {"payload as long as can be", ip6Frame(60, 0xffff), PktErrors::badIp6PayloadLen,
         "IPv6 payload length is larger than the actual packet size. "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const Traced traced;
        EXPECT_EQ(checked(checkEthIp6Hdr, c.frame).error, c.error);
        EXPECT_EQ(traced.text(), c.trace);
    }
    for (uint32_t bytes = 0; bytes <= 60; ++bytes) {
        const Frame frame = ip6Frame(bytes, static_cast<uint16_t>(std::max(bytes, 54u) - 54));
        for (uint32_t priv = 0; priv <= bytes; ++priv) {
            const uint32_t front = priv == 0 ? bytes : priv;
            ASSERT_EQ(checked(checkEthIp6Hdr, frame, priv).error,
                      front < 54 ? PktErrors::pktTooShort : PktErrors::noError)
                << bytes << " " << priv;
        }
    }
}

TEST(CheckIcmp6CheckSum, FindsTheFirstFault) {
    // Addresses all zero; the sum of the rest is that of the pseudo header.
    const auto message = [](uint8_t nextHeader, uint16_t payloadLen) {
        Frame frame = ip6Frame(54u + payloadLen, payloadLen);
        frame[20] = nextHeader;
        if (payloadLen >= 4) {
            frame[54] = 128;
            frame.back() = payloadLen > 4 ? 0x77 : 0;
            checksumIs(&frame, 56, payloadLen + 58u, 54);
        }
        return frame;
    };
    const struct {
        const char* what;
        Frame frame;
        PktErrors error;
        const char* trace;
    } cases[] = {
        {"good", message(58, 8), PktErrors::noError, ""},
        {"odd", message(58, 9), PktErrors::noError, ""},
        {"shortest", message(58, 4), PktErrors::noError, ""},
        {"3 bytes", message(58, 3), PktErrors::badIp6PayloadLen,
         "IP6 payload is too small to contain Icmp6"},
        {"none", message(58, 0), PktErrors::badIp6PayloadLen,
         "IP6 payload is too small to contain Icmp6"},
        {"next header before length", message(0, 3), PktErrors::nextHdrIsNotIcmp6,
         "Next header is not Icmp6"},
        {"number that is not assigned", message(200, 8), PktErrors::nextHdrIsNotIcmp6,
         "Next header is not Icmp6"},
        {"type", changed(message(58, 8), 54, 129), PktErrors::badIcmp6Checksum,
         "Icmp6 checksum is invalid"},
        {"last byte", changed(message(58, 9), 62, 0), PktErrors::badIcmp6Checksum,
         "Icmp6 checksum is invalid"},
        {"source", changed(message(58, 8), 22, 1), PktErrors::badIcmp6Checksum,
         "Icmp6 checksum is invalid"},
        {"destination", changed(message(58, 8), 53, 1), PktErrors::badIcmp6Checksum,
         "Icmp6 checksum is invalid"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const Traced traced;
        const GuardedPkt guarded(c.frame.data(), static_cast<uint32_t>(c.frame.size()));
        auto* ip6 = reinterpret_cast<Ip6Hdr*>(guarded.pkt()->frontData() + 14);
        Icmp6Hdr* icmp6 = nullptr;
        EXPECT_EQ(checkIcmp6CheckSum(ip6, icmp6), c.error);
        EXPECT_EQ(traced.text(), c.trace);
        const bool bound = c.error == PktErrors::noError || c.error == PktErrors::badIcmp6Checksum;
        EXPECT_EQ(static_cast<void*>(icmp6), bound ? static_cast<void*>(ip6 + 1) : nullptr);
    }
}

}  // namespace
}  // namespace Pavo
