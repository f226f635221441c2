// IPv4, and IPv6 with its extension headers.

#include <algorithm>
#include <iterator>
#include <ostream>

#include "Pavo/packet/Checksum.h"
#include "Pavo/packet/Describe.h"
#include "Pavo/packet/DescribeLayers.h"
#include "Pavo/packet/Ip6Hdr.h"
#include "Pavo/packet/IpHdr.h"
#include "Pavo/packet/PktUtils.h"

namespace Pavo {

namespace {

void writeMissing(std::ostream& out, const char* what, uint32_t missing) {
    if (missing != 0) {
        out << ", truncated-" << what << " - " << missing << " bytes missing!";
    }
}

std::string ipFlagsText(const IpHdr& ip) {
    std::string text = ip.moreFrag() ? ", +" : "";
    text += ip.dontFrag() ? ", DF" : "";
    text += ip.reservedFragFlag() ? ", rsvd" : "";
    return text.empty() ? "none" : text.substr(2);
}

const char* ipOptionName(uint8_t type) {
    switch (type) {
        case 0:
            return "EOL";
        case 1:
            return "NOP";
        case 7:
            return "RR";
        case 68:
            return "timestamp";
        case 131:
            return "LSRR";
        case 137:
            return "SSRR";
        case IpHdrRouterAlertOption::optionType:
            return "RA";
        default:
            return "unknown";
    }
}

// The names of the options in `bytes` bytes, up to the end of the list.
void writeIpOptions(std::ostream& out, const uint8_t* options, uint32_t bytes) {
    const char* before = ", options (";
    for (uint32_t at = 0; at < bytes;) {
        const uint8_t type = options[at];
        out << before << ipOptionName(type);
        before = ",";
        const uint32_t length = type <= 1 ? 1 : at + 1 < bytes ? options[at + 1] : 0;
        if (type == 0 || length == 0 || at + length > bytes || (type > 1 && length < 2)) {
            out << (type == 0 ? "" : " [bad length]");
            break;
        }
        at += length;
    }
    out << ")";
}

void writeIp(std::ostream& out, const IpHdr& ip) {
    constexpr const char* ecn[] = {"", ",ECT(1)", ",ECT(0)", ",CE"};
    out << "IP (tos " << hexText(ip.tos()) << ecn[ip.tos() & 3] << ", ttl " << ip.ttl() << ", id "
        << ip.id() << ", offset " << ip.fragmentOffset().value() * 8 << ", flags ["
        << ipFlagsText(ip) << "], proto " << protocolText(ip.protocol()) << ", length "
        << ip.totalLen();
}

void describeIp4(PktDescription& description) {
    const uint32_t start = description.offset();
    IpHdr ip;
    if (!description.take(&ip, "ip")) {
        return;
    }
    const uint16_t headerBytes = ip.headerBytes();
    if (headerBytes < sizeof(IpHdr) || headerBytes > ip.totalLen()) {
        description.out() << "IP " << ip.src() << " > " << ip.dst();
        return description.stop(headerBytes < sizeof(IpHdr)
                                    ? "bad-hlen " + std::to_string(headerBytes)
                                    : "bad-len " + std::to_string(ip.totalLen()));
    }
    uint8_t options[40];
    const auto optionBytes = static_cast<uint32_t>(headerBytes - sizeof(IpHdr));
    if (!description.takeBytes(options, optionBytes, "ip options")) {
        return;
    }
    std::ostream& out = description.out();
    writeIp(out, ip);
    if (optionBytes != 0) {
        writeIpOptions(out, options, optionBytes);
    }
    const uint16_t computed = pktChecksum(description.pkt(), start, headerBytes).value();
    if (computed != 0) {
        out << ", bad cksum " << wrongChecksumText(ip.checksum().value(), computed);
    }
    out << ") " << ip.src() << " > " << ip.dst();
    const uint32_t missing = description.limitIs(ip.payloadLen());
    writeMissing(out, "ip", missing);
    description.isPartialIs(missing != 0 || ip.moreFrag());
    description.addressSumIs(addressSumOf(ip.src(), ip.dst()), /*isIp6=*/false);
    if (ip.fragmentOffset() != IpFragmentOffset(0)) {
        return description.stop("fragment of " + protocolText(ip.protocol()) +
                                description.leftText());
    }
    describeProtocol(description, ip.protocol());
}

void describeIp6(PktDescription& description) {
    Ip6Hdr ip6;
    if (!description.take(&ip6, "ip6")) {
        return;
    }
    std::ostream& out = description.out();
    out << "IP6 (";
    if (ip6.trafficClass() != IpTrafficClass(0)) {
        out << "class " << hexText(ip6.trafficClass().value(), 2) << ", ";
    }
    if (ip6.flowLabel() != IpFlowLabel(0)) {
        out << "flowlabel " << hexText(ip6.flowLabel().value(), 5) << ", ";
    }
    out << "hlim " << +ip6.hopLimit() << ", next-header " << protocolText(ip6.nextHeader())
        << " payload length: " << ip6.payloadLen() << ") " << ip6.src() << " > " << ip6.dst();
    const uint32_t missing = description.limitIs(ip6.payloadLen());
    writeMissing(out, "ip6", missing);
    description.isPartialIs(missing != 0);
    description.addressSumIs(addressSumOf(ip6.src(), ip6.dst()), /*isIp6=*/true);
    describeProtocol(description, ip6.nextHeader());
}

void describeExtension(PktDescription& description, const char* name) {
    Ip6HdrOptionCommon common;
    uint8_t rest[2048];
    if (!description.take(&common, name) ||
        !description.takeBytes(rest, common.headerBytes() - 2u, name)) {
        return;
    }
    description.out() << name << " (next-header " << protocolText(common.nextHdrNum())
                      << ", length " << common.headerBytes() << ")";
    describeProtocol(description, common.nextHdrNum());
}

void describeHopByHop(PktDescription& description) {
    describeExtension(description, "HBH");
}

void describeDestination(PktDescription& description) {
    describeExtension(description, "DSTOPT");
}

void describeRouting(PktDescription& description) {
    describeExtension(description, "RT6");
}

// The fragment header (RFC 8200, 4.5).
struct FragmentHdr {
    uint8_t nextHeader = 0;
    uint8_t reserved = 0;
    NetU16 offsetAndFlags;  // The offset in the upper 13 bits, "more fragments" in the lowest.
    NetU32 id;
};

void describeFragment(PktDescription& description) {
    FragmentHdr fragment;
    if (!description.take(&fragment, "frag")) {
        return;
    }
    const uint32_t offset = fragment.offsetAndFlags.value() & 0xfff8u;
    const bool isMore = (fragment.offsetAndFlags.value() & 1) != 0;
    description.out() << "frag (next-header " << protocolText(fragment.nextHeader) << ", id "
                      << hexText(fragment.id.value(), 8) << ", offset " << offset << ", flags ["
                      << (isMore ? "+" : "none") << "])";
    description.isPartialIs(description.isPartial() || isMore || offset != 0);
    if (offset != 0) {
        return description.stop("fragment of " + protocolText(fragment.nextHeader) +
                                description.leftText());
    }
    describeProtocol(description, fragment.nextHeader);
}

// No more headers; bytes that follow are ignored by nodes (RFC 8200, 4.7).
void describeNothing(PktDescription&) {}

struct NamedProtocol {
    uint8_t number;
    const char* name;
    PktDescription::Layer layer;
};

constexpr NamedProtocol namedProtocols[] = {
    {0, "Options", describeHopByHop},
    {1, "ICMP", describeIcmp},
    {2, "IGMP", describeIgmp},
    {4, "IPIP", describeIp},
    {6, "TCP", describeTcp},
    {17, "UDP", describeUdp},
    {41, "IPv6", describeIp},
    {43, "Routing", describeRouting},
    {44, "Fragment", describeFragment},
    {47, "GRE", describeGre},
    {50, "ESP", nullptr},
    {51, "AH", nullptr},
    {58, "ICMPv6", describeIcmp6},
    {59, "no next header", describeNothing},
    {60, "DSTOPT", describeDestination},
    {89, "OSPF", nullptr},
    {103, "PIM", describePim},
    {112, "VRRP", describeVrrp},
    {132, "SCTP", describeSctp},
};

const NamedProtocol& namedProtocol(uint8_t number) {
    static constexpr NamedProtocol unknown{0, "unknown", nullptr};
    const auto* found =
        std::find_if(std::begin(namedProtocols), std::end(namedProtocols),
                     [number](const NamedProtocol& each) { return each.number == number; });
    return found == std::end(namedProtocols) ? unknown : *found;
}

}  // namespace

std::string protocolText(uint8_t number) {
    return std::string(namedProtocol(number).name) + " (" + std::to_string(number) + ")";
}

void describeProtocol(PktDescription& description, uint8_t number) {
    const PktDescription::Layer layer = namedProtocol(number).layer;
    if (layer != nullptr) {
        return description.nextIs(layer);
    }
    description.stop("protocol " + protocolText(number) + " is not decoded" +
                     description.leftText());
}

void describeIp(PktDescription& description) {
    if (description.left() == 0) {
        return description.stop("[|ip] 0 of 20 bytes");
    }
    switch (description.peek() >> 4) {
        case 4:
            return describeIp4(description);
        case 6:
            return describeIp6(description);
        default:
            description.stop("IP version " + std::to_string(description.peek() >> 4) +
                             description.leftText());
    }
}

Mox::String describe(const Mox::Ptr<Pkt>& pkt, uint32_t offset, IpProtocolNumber first) {
    const auto number = static_cast<uint8_t>(first);
    const PktDescription::Layer layer = namedProtocol(number).layer;
    PktDescription description(*pkt, offset);
    if (layer == nullptr) {
        describeProtocol(description, number);
    }
    return description.run(layer);
}

}  // namespace Pavo
