// Tunnels: GRE, VXLAN, the control word of pseudowires, I-TAGs.

#include <ostream>

#include "Pavo/packet/DescribeLayers.h"
#include "Pavo/packet/GreHdr.h"
#include "Pavo/packet/MimHdr.h"
#include "Pavo/packet/PwControlWord.h"
#include "Pavo/packet/VxlanHdr.h"

namespace Pavo {

namespace {

std::string greFlagsText(const GreHdr& gre) {
    std::string text = gre.hasChecksum() ? ", checksum present" : "";
    text += gre.hasKey() ? ", key present" : "";
    text += gre.hasSequenceNumber() ? ", sequence# present" : "";
    return text.empty() ? "none" : text.substr(2);
}

}  // namespace

void describeGre(PktDescription& description) {
    const uint32_t length = description.left();
    const std::optional<uint16_t> sum =
        description.messageChecksum(description.offset(), std::nullopt);
    GreHdr gre;
    if (!description.take(&gre, "gre")) {
        return;
    }
    std::ostream& out = description.out();
    out << "GREv" << +gre.version() << ", Flags [" << greFlagsText(gre) << "]";
    if (const PktErrors error = gre.check(gre.headerBytes()); error != PktErrors::noError) {
        return description.stop(error == PktErrors::badGreVersion ? "GRE version is not decoded"
                                                                  : "GRE flags are not decoded");
    }
    NetU32 word;
    if (gre.hasChecksum() && description.take(&word, "gre") && sum.value_or(0) != 0) {
        const auto field = static_cast<uint16_t>(word.value() >> 16);
        out << ", bad gre cksum " << wrongChecksumText(field, *sum);
    }
    if (gre.hasKey() && !description.isStopped() && description.take(&word, "gre")) {
        out << ", key=" << hexText(word.value());
    }
    if (gre.hasSequenceNumber() && !description.isStopped() && description.take(&word, "gre")) {
        out << ", seq " << word.value();
    }
    if (!description.isStopped()) {
        out << ", " << etherTypeText(gre.type()) << ", length " << length;
        describeEtherType(description, gre.type());
    }
}

void describeVxlan(PktDescription& description) {
    VxlanHdr vxlan;
    if (description.take(&vxlan, "vxlan")) {
        description.out() << "VXLAN, flags [" << (vxlan.hasVni() ? "I" : ".") << "], vni "
                          << vxlan.vni();
        description.nextIs(describeEthernet);
    }
}

void describeMim(PktDescription& description) {
    MimHdr tag;
    if (description.take(&tag, "I-TAG")) {
        description.out() << "I-TAG (isid " << tag.serviceId() << ", p " << +tag.priority()
                          << (tag.dropEligible() ? ", DEI" : "") << (tag.uca() ? ", UCA" : "")
                          << ")";
        description.nextIs(describeEthernet);
    }
}

void describeControlWord(PktDescription& description) {
    const uint32_t there = description.left();
    PwControlWord word;
    if (!description.take(&word, "control word")) {
        return;
    }
    if (word.check(there) != PktErrors::noError) {
        description.out() << "PW control word";
        return description.stop(word.nibble() != 0 ? "not a control word"
                                                   : "length " + std::to_string(word.length()) +
                                                         " of " + std::to_string(there) + " bytes");
    }
    (void)description.limitIs(word.payloadBytes(there));
    description.out() << "PW control word (flags " << hexText(word.flags()) << ", frag "
                      << +word.fragmentation() << ", length " << +word.length() << ", seq "
                      << word.sequenceNumber() << ")";
    description.nextIs(describeEthernet);
}

}  // namespace Pavo
