#include "Pavo/packet/GreHdr.h"

namespace Pavo {

HdrView<GreHdr> checkGre(const IpMsg& msg) {
    if (msg.protocol != IpProtocolNumber::gre) {
        return PktErrors::nonGreProto;
    }
    const HdrView<GreHdr> gre = msg.hdr<GreHdr>();
    if (!gre) {
        return gre;
    }
    if (gre->headerBytes() > msg.frontBytes()) {
        return PktErrors::pktTooShort;
    }
    if (gre->hasChecksum() && msg.checksum(msg.bytes) != IpChecksum()) {
        return PktErrors::badGreChecksum;
    }
    return gre;
}

}  // namespace Pavo
