// The ways over headers of unknown number to the one that is looked for, beside plain loops that
// look at bytes.

#include "Pavo/EthHdr.h"
#include "Pavo/Ip6Hdr.h"

#include "fuzz/Frames.h"

namespace {

using namespace Pavo;

// Of the first byte behind the last type field, which begins at `type`.
uint32_t plainIpOffset(std::string_view bytes, std::size_t type) {
    for (; type + 2 <= bytes.size(); type += 4) {
        const auto value = fuzz::loadAt<uint16_t>(bytes, type);
        if (value != 0x8100) {
            return value == 0x0800 || value == 0x86dd ? static_cast<uint32_t>(type + 2) : 0;
        }
    }
    return 0;
}

// -1 when there is none.
int64_t plainProtoOffset(std::string_view bytes, uint32_t proto) {
    if (bytes.size() < 40) {
        return -1;
    }
    const auto byteAt = [bytes](std::size_t i) { return static_cast<uint8_t>(bytes[i]); };
    const auto limit = std::min<std::size_t>(fuzz::loadAt<uint16_t>(bytes, 4) + 40u, bytes.size());
    uint32_t next = byteAt(6);
    std::size_t offset = 40;
    while (next != proto) {
        const bool isFollowed = next == 0 || next == 43 || next == 44 || next == 60;
        if (!isFollowed || offset + 2 > limit) {
            return -1;
        }
        next = byteAt(offset);
        offset += byteAt(offset + 1) * 8u + 8u;
        if (offset > limit) {
            return -1;
        }
    }
    return static_cast<int64_t>(offset);
}

void checkEth(std::string_view bytes) {
    const fuzz::ExactBytes frame(bytes);
    const auto* eth = reinterpret_cast<const EthHdr*>(frame.data());
    const auto* tag = reinterpret_cast<const Eth8021QHdr*>(frame.data());
    Mox::require(ipHdrOffset(eth, frame.size()) == plainIpOffset(bytes, 12), "behind Ethernet");
    Mox::require(ipHdrOffset(tag, frame.size()) == plainIpOffset(bytes, 2), "behind a tag");
    if (bytes.size() >= sizeof(EthHdr)) {
        const auto wrapper = ethHdrWrapperFactory(fuzz::pktOf(bytes, 0), 0);
        Mox::require(wrapper->ipHdrOffset() == ipHdrOffset(eth, frame.size()), "by the wrapper");
    }
}

void checkIp6(std::string_view bytes, uint32_t proto) {
    const fuzz::ExactBytes packet(bytes);
    auto* ip6 = reinterpret_cast<Ip6Hdr*>(packet.data());
    char* const start = reinterpret_cast<char*>(packet.data());
    char* out = nullptr;
    const int result = getNextProtoHdr(ip6, proto, &out, packet.size());
    const int64_t expected = plainProtoOffset(bytes, proto);
    Mox::require(result == (expected < 0 ? -1 : 0), "found or not");
    Mox::require(out == (expected < 0 ? nullptr : start + expected), "found where it is");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const uint8_t proto = input.u8();
    const std::string_view bytes = input.rest();
    checkEth(bytes);
    checkIp6(bytes, proto);
    checkIp6(bytes, 0x100u + proto);  // No byte is this number.
    return 0;
}
