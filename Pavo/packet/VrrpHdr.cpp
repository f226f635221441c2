#include "Pavo/packet/VrrpHdr.h"

namespace Pavo {

namespace {

constexpr IpAddr vrrpRouters(0xe0000012);

bool isSumGood(const IpMsg& msg, const VrrpHdr& vrrp, VrrpSum sum) {
    const bool isIp6 = msg.dst.af() == ipv6;
    const bool hasPseudoHdr = isIp6 || (vrrp.version() == 3 && sum != VrrpSum::message);
    const bool isAlone = !isIp6 && (vrrp.version() == 2 || sum != VrrpSum::pseudoHdr);
    return (hasPseudoHdr && msg.checksum(msg.bytes, msg.pseudoHdrSum(msg.bytes)) == IpChecksum()) ||
           (isAlone && msg.checksum(msg.bytes) == IpChecksum());
}

PktErrors ipError(const IpMsg& msg) {
    if (msg.protocol != IpProtocolNumber::vrrp) {
        return PktErrors::nonVrrpProto;
    }
    if (msg.ttl != 255) {
        return PktErrors::nonOnLink;
    }
    const IpGenAddr group = msg.dst.af() == ipv6 ? IpGenAddr(ip6AddrVrrp) : IpGenAddr(vrrpRouters);
    return msg.dst == group ? PktErrors::noError : PktErrors::nonVrrpDstAddr;
}

PktErrors messageError(const IpMsg& msg, const VrrpHdr& vrrp, VrrpSum sum) {
    const bool isIp6 = msg.dst.af() == ipv6;
    if (isIp6 && vrrp.version() == 2) {
        return PktErrors::badVrrpVersion;
    }
    const uint32_t needed = vrrp.totalBytes(isIp6 ? sizeof(Ip6Addr) : sizeof(IpAddr));
    if (needed > msg.bytes) {
        return PktErrors::badVrrpLen;
    }
    if (!isSumGood(msg, vrrp, sum)) {
        return PktErrors::badVrrpChecksum;
    }
    if (vrrp.version() == 2 && vrrp.authType() != 0) {
        return PktErrors::badVrrpAuth;
    }
    const bool isLinkLocal = !isIp6 || (msg.src.address().isLinkLocalUnicast2() &&
                                        vrrp.addresses6()[0].isLinkLocalUnicast2());
    return isLinkLocal ? PktErrors::noError : PktErrors::badVrrpLinkLocal;
}

}  // namespace

HdrView<VrrpHdr> checkVrrp(const IpMsg& msg, VrrpSum sum) {
    PktErrors error = ipError(msg);
    if (error != PktErrors::noError) {
        return error;
    }
    const HdrView<VrrpHdr> vrrp = msg.wholeHdr<VrrpHdr>();
    if (!vrrp) {
        return vrrp;
    }
    error = messageError(msg, *vrrp, sum);
    return error == PktErrors::noError ? vrrp : HdrView<VrrpHdr>(error);
}

EthAddr vrrpMac(AddressFamily family, uint8_t vrid) {
    const uint16_t block = family == ipv6 ? 0x0200 : 0x0100;
    return EthAddr(0x0000, 0x5e00, static_cast<uint16_t>(block | vrid));
}

PktErrors checkVrrpMac(const EthHdr& eth, AddressFamily family, uint8_t vrid) {
    const EthAddr mac = eth.src();
    if (mac == vrrpMac(family, vrid)) {
        return PktErrors::noError;
    }
    const uint8_t itsVrid = mac.byte(5);
    return mac == vrrpMac(family, itsVrid) ? PktErrors::vrrpVridMacMismatch : PktErrors::nonVrrpMac;
}

}  // namespace Pavo
