#include "Pavo/packet/BuildTunnel.h"

namespace Pavo {

void Gre::write(const LayerSite& site) const {
    auto& gre = site.newHdr<GreHdr>();
    gre.hasChecksumIs(hasChecksum || checksum);
    gre.hasKeyIs(key.has_value());
    gre.hasSequenceNumberIs(sequenceNumber.has_value());
    gre.typeIs(numberOfNext(type, site.nextEtherType(),
                            "Gre::type not set, and no layer follows that has one"));
    if (key) {
        gre.keyIs(*key);
    }
    if (sequenceNumber) {
        gre.sequenceNumberIs(*sequenceNumber);
    }
    if (gre.hasChecksum()) {
        gre.checksumIs(IpChecksum());
        gre.checksumIs(checksum ? *checksum : site.checksum());
    }
}

void Vxlan::write(const LayerSite& site) const {
    requireField(vni <= VxlanHdr::maxVni, "Vxlan::vni > 16777215 not allowed");
    site.newHdr<VxlanHdr>().vniIs(vni);
}

void ControlWord::write(const LayerSite& site) const {
    requireField(flags <= 15, "ControlWord::flags > 15 not allowed");
    requireField(fragmentation <= 3, "ControlWord::fragmentation > 3 not allowed");
    requireField(length.value_or(0) <= 63, "ControlWord::length > 63 not allowed");
    const uint32_t bytes = site.hdrBytes() + site.payloadBytes();
    const bool isShort = bytes < PwControlWord::minFrameBytes;
    auto& word = site.newHdr<PwControlWord>();
    word.flagsIs(flags);
    word.fragmentationIs(fragmentation);
    word.lengthIs(length.value_or(isShort ? static_cast<uint8_t>(bytes) : uint8_t{0}));
    word.sequenceNumberIs(sequenceNumber);
}

void Mim::write(const LayerSite& site) const {
    requireField(serviceId <= MimHdr::maxServiceId, "Mim::serviceId > 16777215 not allowed");
    requireField(priority <= 7, "Mim::priority > 7 not allowed");
    auto& tag = site.newHdr<MimHdr>();
    tag.serviceIdIs(serviceId);
    tag.priorityIs(priority);
    tag.dropEligibleIs(dropEligible);
    tag.ucaIs(uca);
}

}  // namespace Pavo
