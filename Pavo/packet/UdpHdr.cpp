#include "Pavo/packet/UdpHdr.h"

#include "Pavo/packet/Checksum.h"

namespace Pavo {

namespace {

template <class Pseudo>
IpChecksum checksumOf(const UdpHdr* header, const Pseudo& pseudo) {
    const auto bytes = static_cast<uint16_t>(pseudo.udpLen());
    const IpChecksum sum =
        ipChecksumCalc(header, bytes, ipChecksumChunk(&pseudo, sizeof(pseudo), 0));
    return sum == IpChecksum() ? IpChecksum(0xffff) : sum;
}

}  // namespace

IpChecksum UdpHdr::computedChecksum(const UdpPseudoHdr& pseudo) const {
    return checksumOf(this, pseudo);
}

IpChecksum UdpHdr::computedChecksumIpv6(const UdpPseudoHdrIpv6& pseudo) const {
    return checksumOf(this, pseudo);
}

}  // namespace Pavo
