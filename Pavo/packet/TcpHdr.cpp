#include "Pavo/packet/TcpHdr.h"

#include "Pavo/packet/Checksum.h"

namespace Pavo {

namespace {

// Both sums over IPv6, which differ in how much of the pseudo header they take.
IpChecksum checksumIpv6(const TcpHdr* header, const TcpPseudoHdrIpv6& pseudo,
                        uint16_t pseudoBytes) {
    const auto bytes = static_cast<uint16_t>(pseudo.tcpLen());
    return ipChecksumCalc(header, bytes, ipChecksumChunk(&pseudo, pseudoBytes, 0));
}

}  // namespace

IpChecksum TcpHdr::computedChecksum(const TcpPseudoHdr& pseudo) const {
    return ipChecksumCalc(this, pseudo.tcpLen(), pseudo.sum());
}

IpChecksum TcpHdr::computedChecksumIpv6(const TcpPseudoHdrIpv6& pseudo) const {
    // The size of the pseudo header of IPv4, and meant: peers hold this sum against theirs.
    return checksumIpv6(this, pseudo, sizeof(TcpPseudoHdr));
}

IpChecksum TcpHdr::computedChecksumRfc8200(const TcpPseudoHdrIpv6& pseudo) const {
    return checksumIpv6(this, pseudo, sizeof(pseudo));
}

}  // namespace Pavo
