#include "Pavo/packet/Icmp6Hdr.h"

#include "Pavo/packet/Checksum.h"
#include "Pavo/value/Ip.h"

namespace Pavo {

namespace {

// What enters the checksum in place of the IPv6 header (RFC 8200, 8.1).
struct PseudoHdr {
    Ip6Addr src;
    Ip6Addr dst;
    NetU32 bytes;
    uint8_t zeros[3];
    uint8_t nextHeader;
};
static_assert(sizeof(PseudoHdr) == 40);

}  // namespace

Icmp6Type Icmp6TypeInstance(uint32_t value) {
    return Mox::enumValue<Icmp6Type>(value);
}

Icmp6Type Icmp6TypeInstance(const Mox::String& name) {
    return Mox::enumValue<Icmp6Type>(name);
}

IpChecksum Icmp6Hdr::computedChecksum(const Ip6Addr& src, const Ip6Addr& dst,
                                      uint16_t bytes) const {
    return ipChecksumCalc(this, bytes, pseudoHdrSum(src, dst, bytes));
}

uint32_t Icmp6Hdr::pseudoHdrSum(const Ip6Addr& src, const Ip6Addr& dst, uint16_t bytes) {
    const auto nextHeader = static_cast<uint8_t>(IpProtocolNumber::ipv6Icmp);
    const PseudoHdr pseudo{src, dst, NetU32(bytes), {}, nextHeader};
    return ipChecksumChunk(&pseudo, sizeof(pseudo), 0);
}

}  // namespace Pavo
