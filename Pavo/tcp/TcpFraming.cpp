#include "Pavo/tcp/TcpFraming.h"

#include <limits>

namespace Pavo {

const char* TcpFraming::fault() const {
    if (lengthBytes == 0 || lengthBytes > 4) {
        return "TcpFraming::lengthBytes: not 1 to 4";
    }
    if (lengthAt + lengthBytes > headerBytes) {
        return "TcpFraming::headerBytes: the length ends after them";
    }
    if (max > std::numeric_limits<uint16_t>::max()) {
        return "TcpFraming::max > 65535 not allowed";
    }
    if (max < headerBytes || max < min) {
        return "TcpFraming::max: less than the shortest message";
    }
    return nullptr;
}

const char* Detail::checkBgpMarker(std::span<const uint8_t> header) {
    const bool isAllOnes = loadNet<uint64_t>(&header[0]) == std::numeric_limits<uint64_t>::max() &&
                           loadNet<uint64_t>(&header[8]) == std::numeric_limits<uint64_t>::max();
    return isAllOnes ? nullptr : "BGP marker not all ones";
}

const char* Detail::checkLdpVersion(std::span<const uint8_t> header) {
    return loadNet<uint16_t>(&header[0]) == 1 ? nullptr : "LDP version not 1";
}

}  // namespace Pavo
