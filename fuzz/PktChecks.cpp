// The checks of received frames, beside plain ones that look at bytes. Headers and lengths that
// pass are those of bytes that are there.

#include "Pavo/PktUtils.h"

#include "fuzz/Frames.h"

namespace {

using namespace Pavo;

constexpr uint32_t ethBytes = 14;
constexpr uint32_t icmp6Proto = 58;

uint32_t byteAt(std::string_view bytes, std::size_t i) {
    return static_cast<uint8_t>(bytes[i]);
}

uint32_t ipHdrBytes(std::string_view frame) {
    return byteAt(frame, ethBytes) % 16 * 4;
}

// Of an IPv6 packet without extension headers that is all there.
uint16_t upperChecksum(std::string_view ip6) {
    const auto payloadLen = fuzz::loadAt<uint16_t>(ip6, 4);
    const uint32_t addresses = fuzz::plainSum(ip6.substr(8, 32), payloadLen + byteAt(ip6, 6));
    return fuzz::folded(fuzz::plainSum(ip6.substr(40, payloadLen), addresses));
}

PktErrors plainIpCheck(std::string_view frame, uint32_t frontBytes) {
    if (frontBytes < ethBytes + 20) {
        return PktErrors::pktTooShort;
    }
    if (fuzz::loadAt<uint16_t>(frame, 12) != 0x0800) {
        return PktErrors::wrongEthType;
    }
    if (byteAt(frame, ethBytes) >> 4 != 4) {
        return PktErrors::nonIpHdr;
    }
    const uint32_t headerBytes = ipHdrBytes(frame);
    const uint32_t totalLen = fuzz::loadAt<uint16_t>(frame, ethBytes + 2);
    if (headerBytes < 20 || headerBytes > totalLen || totalLen > frame.size() - ethBytes) {
        return PktErrors::badIpPayloadLen;
    }
    if (headerBytes > frontBytes - ethBytes) {
        return PktErrors::pktTooShort;
    }
    const uint32_t sum = fuzz::plainSum(frame.substr(ethBytes, headerBytes), 0);
    return fuzz::folded(sum) == 0 ? PktErrors::noError : PktErrors::badIpHdrChecksum;
}

PktErrors plainIp6Check(std::string_view frame, uint32_t frontBytes) {
    if (frontBytes < ethBytes + 40) {
        return PktErrors::pktTooShort;
    }
    if (fuzz::loadAt<uint16_t>(frame, 12) != 0x86dd) {
        return PktErrors::wrongEthType;
    }
    if (byteAt(frame, ethBytes) >> 4 != 6) {
        return PktErrors::nonIp6Hdr;
    }
    const uint32_t payloadLen = fuzz::loadAt<uint16_t>(frame, ethBytes + 4);
    return payloadLen <= frame.size() - ethBytes - 40 ? PktErrors::noError
                                                      : PktErrors::badIp6PayloadLen;
}

PktErrors plainIcmp6Check(std::string_view ip6) {
    if (byteAt(ip6, 6) != icmp6Proto) {
        return PktErrors::nextHdrIsNotIcmp6;
    }
    if (fuzz::loadAt<uint16_t>(ip6, 4) < 4) {
        return PktErrors::badIp6PayloadLen;
    }
    return upperChecksum(ip6) == 0 ? PktErrors::noError : PktErrors::badIcmp6Checksum;
}

// No mutation finds a checksum, so the right ones are filled in where the lengths allow.
std::string withChecksums(std::string frame) {
    const auto fill = [&frame](std::size_t at, auto checksum) {
        frame[at] = frame[at + 1] = 0;
        Pavo::storeNet<uint16_t>(reinterpret_cast<uint8_t*>(&frame[at]), checksum());
    };
    const auto size = static_cast<uint32_t>(frame.size());
    if (plainIpCheck(frame, size) == PktErrors::badIpHdrChecksum) {
        fill(ethBytes + 10, [&] {
            const std::string_view header = std::string_view(frame).substr(ethBytes);
            return fuzz::folded(fuzz::plainSum(header.substr(0, ipHdrBytes(frame)), 0));
        });
    }
    if (plainIp6Check(frame, size) == PktErrors::noError &&
        plainIcmp6Check(frame.substr(ethBytes)) == PktErrors::badIcmp6Checksum) {
        fill(ethBytes + 42,
             [&] { return upperChecksum(std::string_view(frame).substr(ethBytes)); });
    }
    return frame;
}

// Either pointer is set once the frame has the right type, and is where it belongs.
template <class Hdr>
void checkPointers(const Mox::Ptr<Pkt>& pkt, bool bound, const EthHdr* eth, const Hdr* header) {
    uint8_t* const frame = pkt->frontData();
    Mox::require(eth == (bound ? reinterpret_cast<EthHdr*>(frame) : nullptr), "the frame");
    Mox::require(header == (bound ? reinterpret_cast<Hdr*>(frame + ethBytes) : nullptr),
                 "the header");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const uint8_t split = input.u8();
    const uint32_t privateBytes = split % (Pkt::privateAreaBytes + 1);
    const std::string_view raw = input.rest();
    const std::string frame = split < 128 ? std::string(raw) : withChecksums(std::string(raw));
    const auto pkt = fuzz::pktOf(frame, privateBytes);

    EthHdr* eth = nullptr;
    IpHdr* ip = nullptr;
    const PktErrors ipResult = checkEthIpHdr(pkt, eth, ip);
    Mox::require(ipResult == plainIpCheck(frame, pkt->frontBytes()), "the IPv4 check");
    const bool longEnough = pkt->frontBytes() >= ethBytes + sizeof(IpHdr);
    checkPointers(pkt, longEnough && ipResult != PktErrors::wrongEthType, eth, ip);

    eth = nullptr;
    Ip6Hdr* ip6 = nullptr;
    const PktErrors ip6Result = checkEthIp6Hdr(pkt, eth, ip6);
    Mox::require(ip6Result == plainIp6Check(frame, pkt->frontBytes()), "the IPv6 check");
    const bool longEnough6 = pkt->frontBytes() >= ethBytes + sizeof(Ip6Hdr);
    checkPointers(pkt, longEnough6 && ip6Result != PktErrors::wrongEthType, eth, ip6);

    if (ip6Result != PktErrors::noError || pkt->frontBytes() != pkt->totalBytes()) {
        return 0;  // What the ICMPv6 check builds on is not there.
    }
    Icmp6Hdr* icmp6 = nullptr;
    const PktErrors icmp6Result = checkIcmp6CheckSum(ip6, icmp6);
    Mox::require(icmp6Result == plainIcmp6Check(std::string_view(frame).substr(ethBytes)),
                 "the ICMPv6 check");
    const bool bound =
        icmp6Result == PktErrors::noError || icmp6Result == PktErrors::badIcmp6Checksum;
    Mox::require(icmp6 == (bound ? reinterpret_cast<Icmp6Hdr*>(ip6 + 1) : nullptr), "the message");
    return 0;
}
