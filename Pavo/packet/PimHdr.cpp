#include "Pavo/packet/PimHdr.h"

namespace Pavo {

namespace {

// Whether the checksum over the first `bytes` bytes is good. They are the length in the pseudo
// header of IPv6 too.
bool isSumGood(const IpMsg& msg, uint32_t bytes) {
    const uint32_t pseudoHdrSum = msg.dst.af() == ipv6 ? msg.pseudoHdrSum(bytes) : 0;
    return msg.checksum(bytes, pseudoHdrSum) == IpChecksum();
}

}  // namespace

HdrView<PimHdr> checkPim(const IpMsg& msg) {
    if (msg.protocol != IpProtocolNumber::pim) {
        return PktErrors::nonPimProto;
    }
    const HdrView<PimHdr> pim = msg.hdr<PimHdr>();
    if (!pim) {
        return pim;
    }
    const bool isRegister = pim->type() == PimType::registerMsg;
    if (isRegister && msg.frontBytes() < sizeof(PimRegisterHdr)) {
        return PktErrors::pktTooShort;
    }
    const bool isGood =
        (isRegister && isSumGood(msg, sizeof(PimRegisterHdr))) || isSumGood(msg, msg.bytes);
    return isGood ? pim : HdrView<PimHdr>(PktErrors::badPimChecksum);
}

}  // namespace Pavo
