#include "Pavo/packet/BuildControl.h"

#include <algorithm>
#include <cstring>

namespace Pavo {

namespace {

// Copies addresses, and returns where they end.
template <class Address>
uint8_t* copied(std::span<const Address> addresses, uint8_t* to) {
    if (!addresses.empty()) {
        std::memcpy(to, addresses.data(), addresses.size_bytes());
    }
    return to + addresses.size_bytes();
}

}  // namespace

void Arp::write(const LayerSite& site) const {
    auto& arp = site.newHdr<ArpHdr>();
    arp.opIs(op);
    arp.senderMacIs(senderMac);
    arp.senderIpIs(senderIp);
    arp.targetMacIs(targetMac);
    arp.targetIpIs(targetIp);
}

void Vrrp::write(const LayerSite& site) const {
    const std::size_t count = addresses.size() + addresses6.size();
    requireField(version <= 15, "Vrrp::version > 15 not allowed");
    requireField(interval <= (version == 2 ? 0xff : 0xfff), "Vrrp::interval too large");
    requireField(addressCount || count <= 0xff, "Vrrp: more than 255 addresses not allowed");
    auto& vrrp = site.newHdr<VrrpHdr>();
    vrrp.versionIs(version);
    vrrp.vridIs(vrid);
    vrrp.priorityIs(priority);
    vrrp.addressCountIs(addressCount.value_or(static_cast<uint8_t>(count)));
    vrrp.intervalCentisecondsIs(interval);
    if (version == 2) {
        vrrp.authTypeIs(authType);
    }
    uint8_t* const end = copied(addresses6, copied(addresses, site.data() + sizeof(VrrpHdr)));
    std::fill(end, site.data() + site.hdrBytes(), uint8_t{0});
    const bool hasPseudoHdr = site.isAfterIp6() || (version != 2 && sum != VrrpSum::message);
    vrrp.checksumIs(checksum ? *checksum
                             : site.checksum(hasPseudoHdr ? site.pseudoHdrSum(ipProtocol()) : 0));
}

void Igmp::write(const LayerSite& site) const {
    auto& igmp = site.newHdr<IgmpHdr>();
    igmp.typeIs(type);
    igmp.maxRespCodeIs(maxRespCode);
    igmp.groupIs(group);
    igmp.checksumIs(checksum ? *checksum : site.checksum());
}

void Igmp3Query::write(const LayerSite& site) const {
    requireField(robustness <= 7, "Igmp3Query::robustness > 7 not allowed");
    auto& query = site.newHdr<Igmp3QueryHdr>();
    query.typeIs(IgmpType::query);
    query.maxRespCodeIs(maxRespCode);
    query.groupIs(group);
    query.suppressIs(suppress);
    query.robustnessIs(robustness);
    query.intervalCodeIs(intervalCode);
    query.sourceCountIs(
        lenField(sourceCount, sources.size(), "Igmp3Query: more than 65535 sources not allowed"));
    copied(sources, site.data() + sizeof(Igmp3QueryHdr));
    query.checksumIs(checksum ? *checksum : site.checksum());
}

std::size_t Igmp3Report::hdrBytes() const {
    std::size_t bytes = sizeof(Igmp3ReportHdr);
    for (const IgmpRecord& record : records) {
        bytes += record.hdrBytes();
    }
    return bytes;
}

void Igmp3Report::write(const LayerSite& site) const {
    auto& report = site.newHdr<Igmp3ReportHdr>();
    report.recordCountIs(
        lenField(recordCount, records.size(), "Igmp3Report: more than 65535 records not allowed"));
    uint8_t* at = site.data() + sizeof(Igmp3ReportHdr);
    for (const IgmpRecord& record : records) {
        auto& hdr = *new (at) IgmpRecordHdr;
        hdr.typeIs(record.type);
        hdr.sourceCountIs(
            lenField({}, record.sources.size(), "IgmpRecord: more than 65535 sources not allowed"));
        hdr.groupIs(record.group);
        at = copied(record.sources, at + sizeof(IgmpRecordHdr));
    }
    report.checksumIs(checksum ? *checksum : site.checksum());
}

namespace {

// Over `site`, header and payload or the header alone, with the pseudo header of IPv6.
IpChecksum pimChecksum(LayerSite site, const LayerSite& place) {
    site.addressSumIs(place.addressSum());
    return site.checksum(place.isAfterIp6() ? site.pseudoHdrSum(IpProtocolNumber::pim) : 0);
}

}  // namespace

void Pim::write(const LayerSite& site) const {
    requireField(type <= 15, "Pim::type > 15 not allowed");
    auto& pim = site.newHdr<PimHdr>();
    pim.typeIs(type);
    pim.reservedIs(reserved);
    pim.checksumIs(checksum ? *checksum : pimChecksum(site, site));
}

void PimRegister::write(const LayerSite& site) const {
    auto& pim = site.newHdr<PimRegisterHdr>();
    pim.borderIs(border);
    pim.nullRegisterIs(nullRegister);
    const LayerSite headerAlone(site.data(), site.hdrBytes(), 0);
    pim.checksumIs(checksum ? *checksum : pimChecksum(headerAlone, site));
}

}  // namespace Pavo
