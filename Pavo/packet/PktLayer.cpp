#include "Pavo/packet/PktLayer.h"

#include <algorithm>

#include "Mox/Exception.h"

#include "Pavo/packet/Checksum.h"

namespace Pavo {

void LayerSite::optionsAre(uint32_t fixedBytes, std::span<const uint8_t> options) const {
    uint8_t* const end = std::copy(options.begin(), options.end(), data_ + fixedBytes);
    std::fill(end, data_ + hdrBytes_, uint8_t{0});
}

uint32_t LayerSite::pseudoHdrSum(IpProtocolNumber number) const {
    const uint32_t bytes = hdrBytes_ + payloadBytes_;
    return addressSum_ + static_cast<uint32_t>(number) + (bytes >> 16) + (bytes & 0xffff);
}

IpChecksum LayerSite::checksum(uint32_t sum) const {
    constexpr uint32_t chunkBytes = 0xfffe;  // The most that one sum takes; even.
    const uint8_t* at = data_;
    uint32_t left = hdrBytes_ + payloadBytes_;
    for (; left > chunkBytes; left -= chunkBytes, at += chunkBytes) {
        sum = ipChecksumChunk(at, chunkBytes, sum);
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return ipChecksumCalc(at, static_cast<uint16_t>(left), sum);
}

uint16_t lenField(const std::optional<uint16_t>& set, uint64_t bytes, const char* tooLong) {
    if (!set && bytes > 0xffff) {
        Mox::throwRangeException(tooLong);
    }
    return set ? *set : static_cast<uint16_t>(bytes);
}

}  // namespace Pavo
