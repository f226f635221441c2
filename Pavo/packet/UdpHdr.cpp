#include "Pavo/packet/UdpHdr.h"

#include "Pavo/packet/Checksum.h"

namespace Pavo {

namespace {

// A header that has just been written is summed by its fields: a wider load would wait for the
// stores.
IpChecksum checksumOf(const UdpHdr& header, uint16_t bytes, uint32_t sum) {
    if (bytes < sizeof(UdpHdr)) {
        return ipChecksumCalc(&header, bytes, sum);
    }
    sum += uint32_t{header.srcPort()} + header.dstPort() + header.udpLen();
    return ipChecksumCalc(&header + 1, static_cast<uint16_t>(bytes - sizeof(UdpHdr)),
                          sum + header.checksum().value());
}

IpChecksum withoutZero(IpChecksum sum) {
    return sum == IpChecksum() ? IpChecksum(0xffff) : sum;
}

}  // namespace

IpChecksum UdpHdr::computedChecksum(const UdpPseudoHdr& pseudo) const {
    return withoutZero(checksumOf(*this, pseudo.udpLen(), pseudo.sum()));
}

IpChecksum UdpHdr::computedChecksumIpv6(const UdpPseudoHdrIpv6& pseudo) const {
    return withoutZero(checksumOf(*this, static_cast<uint16_t>(pseudo.udpLen()), pseudo.sum()));
}

}  // namespace Pavo
