// Messages between routers and hosts: ARP, IGMP, PIM, VRRP, neighbour discovery.

#include <iterator>
#include <ostream>

#include "Pavo/packet/ArpHdr.h"
#include "Pavo/packet/DescribeLayers.h"
#include "Pavo/packet/Icmp6NdHdr.h"
#include "Pavo/packet/IgmpHdr.h"
#include "Pavo/packet/PimHdr.h"
#include "Pavo/packet/VrrpHdr.h"

namespace Pavo {

namespace {

// Lists of hostile packets end here.
constexpr uint32_t maxListed = 32;

// A checksum that was computed and is not 0.
void writeBadSum(std::ostream& out, const char* name, IpChecksum field,
                 std::optional<uint16_t> computed) {
    if (computed.value_or(0) != 0) {
        out << ", bad " << name << " cksum " << wrongChecksumText(field.value(), *computed);
    }
}

template <std::size_t count>
std::string nameOf(const char* const (&names)[count], uint32_t number) {
    return number < count && names[number] != nullptr ? names[number]
                                                      : "type-" + std::to_string(number);
}

// The addresses that are next, each after `before`, the first after `first`.
template <class Address>
void writeAddresses(PktDescription& description, uint32_t count, const char* first) {
    const char* before = first;
    for (uint32_t i = 0; i < count; ++i) {
        Address address;
        if (!description.take(&address, "address")) {
            return;
        }
        if (i < maxListed) {
            description.out() << before << address;
        }
        before = ",";
    }
}

}  // namespace

void describeArp(PktDescription& description) {
    const uint32_t length = sizeof(ArpHdr);
    ArpHdr arp;
    if (!description.take(&arp, "arp")) {
        return;
    }
    std::ostream& out = description.out();
    (void)description.limitIs(0);  // What follows is padding of the link.
    if (arp.hwType() != 1 || arp.protoType() != 0x0800 || arp.hwLen() != 6 || arp.protoLen() != 4) {
        out << "ARP, hardware " << arp.hwType() << " (len " << +arp.hwLen() << "), protocol "
            << hexText(arp.protoType(), 4) << " (len " << +arp.protoLen() << ")";
        return;
    }
    out << "ARP, ";
    if (arp.op() == ArpOp::request) {
        out << "Request who-has " << arp.targetIp();
        if (arp.targetMac() != EthAddr()) {
            out << " (" << arp.targetMac() << ")";
        }
        out << " tell " << arp.senderIp();
    } else if (arp.op() == ArpOp::reply) {
        out << "Reply " << arp.senderIp() << " is-at " << arp.senderMac();
    } else {
        out << "op " << arp.op();
    }
    out << ", length " << length;
}

void describeVrrp(PktDescription& description) {
    const uint32_t start = description.offset();
    const uint32_t length = description.left();
    const bool isIp6 = description.isAfterIp6().value_or(false);
    const std::optional<uint16_t> sum = description.messageChecksum(start, IpProtocolNumber::vrrp);
    const std::optional<uint16_t> sumAlone = description.messageChecksum(start, std::nullopt);
    VrrpHdr vrrp;
    if (!description.take(&vrrp, "vrrp")) {
        return;
    }
    std::ostream& out = description.out();
    out << "VRRPv" << +vrrp.version() << ", "
        << (vrrp.type() == VrrpHdr::advertisement ? "Advertisement"
                                                  : "type-" + std::to_string(vrrp.type()))
        << ", vrid " << +vrrp.vrid() << ", prio " << +vrrp.priority();
    if (vrrp.version() == 2) {
        out << ", authtype " << (vrrp.authType() == 0 ? "none" : std::to_string(vrrp.authType()))
            << ", intvl " << +vrrp.intervalSeconds() << "s";
    } else {
        out << ", intvl " << vrrp.intervalCentiseconds() << "cs";
    }
    out << ", length " << length;
    // Over IPv4 senders of version 3 differ; see VrrpSum.
    const bool mayBeAlone = !isIp6 && (vrrp.version() == 2 || sumAlone == 0);
    writeBadSum(out, "vrrp", vrrp.checksum(), mayBeAlone ? sumAlone : sum);
    const char* const first = ", addrs: ";
    if (isIp6) {
        writeAddresses<Ip6Addr>(description, vrrp.addressCount(), first);
    } else {
        writeAddresses<IpAddr>(description, vrrp.addressCount(), first);
    }
    if (vrrp.version() == 2 && !description.isStopped()) {
        uint8_t auth[VrrpHdr::authBytes];
        (void)description.takeBytes(auth, sizeof(auth), "vrrp auth");
    }
}

namespace {

void writeGroupRecord(PktDescription& description) {
    static constexpr const char* names[] = {nullptr, "is_in", "is_ex", "to_in",
                                            "to_ex", "allow", "block"};
    IgmpRecordHdr record;
    if (!description.take(&record, "igmp record")) {
        return;
    }
    description.out() << " [gaddr " << record.group() << " " << nameOf(names, record.type());
    writeAddresses<IpAddr>(description, record.sourceCount(), " { ");
    if (!description.isStopped()) {
        description.out() << (record.sourceCount() != 0 ? " }]" : "]");
        uint8_t skipped[255 * 4];
        (void)description.takeBytes(skipped, record.auxWords() * 4u, "igmp record");
    }
}

void writeReport3(PktDescription& description, uint32_t records) {
    description.out() << "v3 report, " << records << " group record(s)";
    for (uint32_t i = 0; i < records && i < maxListed && !description.isStopped(); ++i) {
        writeGroupRecord(description);
    }
}

void writeQuery(PktDescription& description, const IgmpHdr& igmp) {
    std::ostream& out = description.out();
    const bool isVersion3 = description.left() >= sizeof(Igmp3QueryHdr) - sizeof(IgmpHdr);
    out << "query v" << (isVersion3 ? 3 : igmp.maxRespCode() == 0 ? 1 : 2);
    if (igmp.maxRespCode() != 0) {
        const uint32_t tenths = isVersion3 ? igmpCodeValue(igmp.maxRespCode()) : igmp.maxRespCode();
        out << " [max resp time " << tenths / 10 << "." << tenths % 10 << "s]";
    }
    if (!igmp.group().isAny()) {
        out << " [gaddr " << igmp.group() << "]";
    }
    if (isVersion3) {
        NetU16 flags;
        NetU16 sources;
        (void)description.take(&flags, "igmp");
        (void)description.take(&sources, "igmp");
        writeAddresses<IpAddr>(description, sources.value(), " { ");
        out << (sources.value() != 0 && !description.isStopped() ? " }" : "");
    }
}

}  // namespace

void describeIgmp(PktDescription& description) {
    const uint32_t length = description.left();
    const std::optional<uint16_t> sum =
        description.messageChecksum(description.offset(), std::nullopt);
    IgmpHdr igmp;
    if (!description.take(&igmp, "igmp")) {
        return;
    }
    std::ostream& out = description.out();
    out << "IGMP length " << length;
    writeBadSum(out, "igmp", igmp.checksum(), sum);
    out << ": ";
    switch (igmp.type()) {
        case IgmpType::query:
            return writeQuery(description, igmp);
        case IgmpType::report1:
        case IgmpType::report2:
            out << (igmp.type() == IgmpType::report1 ? "v1" : "v2") << " report " << igmp.group();
            return;
        case IgmpType::leave:
            out << "leave " << igmp.group();
            return;
        case IgmpType::report3:
            return writeReport3(description, igmp.group().value() & 0xffff);
        default:
            out << "type " << hexText(igmp.type(), 2);
    }
}

void describePim(PktDescription& description) {
    static constexpr const char* names[] = {
        "Hello",        "Register",  "Register-Stop",
        "Join / Prune", "Bootstrap", "Assert",
        "Graft",        "Graft-ACK", "Candidate RP Advertisement"};
    const uint32_t start = description.offset();
    const uint32_t length = description.left();
    std::optional<IpProtocolNumber> pseudo;
    if (description.isAfterIp6().value_or(false)) {
        pseudo = IpProtocolNumber::pim;
    }
    const std::optional<uint16_t> sum = description.messageChecksum(start, pseudo);
    PimHdr pim;
    if (!description.take(&pim, "pim")) {
        return;
    }
    std::ostream& out = description.out();
    out << "PIMv" << +pim.version() << ", " << nameOf(names, pim.type()) << ", length " << length;
    if (pim.version() != 2 || pim.type() != PimType::registerMsg) {
        // The family, and with it the sum, is known where there is an IP header.
        return writeBadSum(out, "pim", pim.checksum(),
                           description.isAfterIp6() ? sum : std::nullopt);
    }
    NetU32 flags;
    if (description.take(&flags, "pim")) {
        const bool isBorder = (flags.value() & 0x80000000) != 0;
        const bool isNull = (flags.value() & 0x40000000) != 0;
        out << ", Flags [" << (isBorder ? " Border" : "") << (isNull ? " Null" : "")
            << (isBorder || isNull ? " ]" : "none]");
        if (description.left() != 0) {
            description.nextIs(describeIp);
        }
    }
}

namespace {

void writeRouterAdvertisement(PktDescription& description, uint32_t flags) {
    constexpr const char* preferences[] = {"medium", "high", "reserved", "low"};
    NetU32 reachable;
    NetU32 retrans;
    if (!description.take(&reachable, "icmp6") || !description.take(&retrans, "icmp6")) {
        return;
    }
    const bool isManaged = (flags & 0x800000) != 0;
    const bool isOther = (flags & 0x400000) != 0;
    description.out() << ", hop limit " << (flags >> 24) << ", Flags ["
                      << (isManaged ? "managed" : "") << (isManaged && isOther ? ", " : "")
                      << (isOther     ? "other stateful"
                          : isManaged ? ""
                                      : "none")
                      << "], pref " << preferences[flags >> 19 & 3] << ", router lifetime "
                      << (flags & 0xffff) << "s, reachable time " << reachable.value()
                      << "ms, retrans timer " << retrans.value() << "ms";
}

void writeTarget(PktDescription& description, Icmp6Type type, uint32_t flags) {
    Ip6Addr target;
    if (!description.take(&target, "icmp6")) {
        return;
    }
    std::ostream& out = description.out();
    if (type == Icmp6Type::neighborSolicitation) {
        out << ", who has " << target;
    } else if (type == Icmp6Type::neighborAdvertisement) {
        std::string names = (flags & 0x80000000) != 0 ? ", router" : "";
        names += (flags & 0x40000000) != 0 ? ", solicited" : "";
        names += (flags & 0x20000000) != 0 ? ", override" : "";
        out << ", tgt is " << target << ", Flags [" << (names.empty() ? "none" : names.substr(2))
            << "]";
    } else {
        Ip6Addr destination;
        if (description.take(&destination, "icmp6")) {
            out << ", " << destination << " to " << target;
        }
    }
}

// The bytes of an option after its first two.
void writeOption(std::ostream& out, const NdOptionHdr& hdr, const uint8_t* rest) {
    static constexpr const char* names[] = {
        nullptr, "source link-address", "destination link-address", "prefix info", "redirect",
        "mtu"};
    out << ", " << nameOf(names, hdr.type()) << " option (" << +hdr.type() << "), length "
        << hdr.totalBytes() << " (" << +hdr.len() << ")";
    const auto number = [rest](uint32_t at) { return loadNet<uint32_t>(rest + at - 2); };
    if (hdr.type() == NdOptionType::sourceLinkAddr || hdr.type() == NdOptionType::targetLinkAddr) {
        EthAddr mac;
        mac.copyFromBuffer(rest);
        out << ": " << mac;
    } else if (hdr.type() == NdOptionType::prefix && hdr.totalBytes() >= sizeof(NdPrefixOption)) {
        Ip6Addr prefix;
        prefix.copyFromBuffer(rest + 14);
        out << ": " << prefix << "/" << +rest[0] << ", Flags ["
            << ((rest[1] & 0x80) != 0 ? "onlink" : "") << ((rest[1] & 0xc0) == 0xc0 ? ", " : "")
            << ((rest[1] & 0x40) != 0 ? "auto" : "") << ((rest[1] & 0xc0) == 0 ? "none" : "")
            << "], valid time " << number(4) << "s, pref. time " << number(8) << "s";
    } else if (hdr.type() == NdOptionType::mtu) {
        out << ": " << number(4);
    }
}

void writeOptions(PktDescription& description) {
    for (uint32_t i = 0; i < maxListed && description.left() != 0; ++i) {
        NdOptionHdr hdr;
        uint8_t rest[255 * 8];
        if (!description.take(&hdr, "icmp6 option")) {
            return;
        }
        if (hdr.len() == 0) {
            return description.stop("option of length 0");
        }
        if (!description.takeBytes(rest, hdr.totalBytes() - 2, "icmp6 option")) {
            return;
        }
        writeOption(description.out(), hdr, rest);
    }
}

}  // namespace

bool describeNd(PktDescription& description, Icmp6Type type, uint32_t flags) {
    switch (type) {
        case Icmp6Type::routerSolicitation:
            break;
        case Icmp6Type::routerAdvertisement:
            writeRouterAdvertisement(description, flags);
            break;
        case Icmp6Type::neighborSolicitation:
        case Icmp6Type::neighborAdvertisement:
        case Icmp6Type::redirect:
            writeTarget(description, type, flags);
            break;
        default:
            return false;
    }
    if (!description.isStopped()) {
        writeOptions(description);
    }
    return true;
}

}  // namespace Pavo
