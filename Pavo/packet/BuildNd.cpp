#include "Pavo/packet/BuildNd.h"

namespace Pavo {

namespace {

void writeChecksum(const LayerSite& site, Icmp6Hdr& icmp6,
                   const std::optional<IpChecksum>& checksum) {
    icmp6.checksumIs(checksum ? *checksum
                              : site.checksum(site.pseudoHdrSum(IpProtocolNumber::ipv6Icmp)));
}

}  // namespace

void Icmp6Rs::write(const LayerSite& site) const {
    auto& hdr = site.newHdr<Icmp6RsHdr>();
    writeChecksum(site, hdr, checksum);
}

void Icmp6Ra::write(const LayerSite& site) const {
    requireField(preference <= 3, "Icmp6Ra::preference > 3 not allowed");
    auto& hdr = site.newHdr<Icmp6RaHdr>();
    hdr.hopLimitIs(hopLimit);
    hdr.managedIs(managed);
    hdr.otherConfigIs(otherConfig);
    hdr.preferenceIs(preference);
    hdr.lifetimeSecondsIs(lifetimeSeconds);
    hdr.reachableMsIs(reachableMs);
    hdr.retransMsIs(retransMs);
    writeChecksum(site, hdr, checksum);
}

void Icmp6Ns::write(const LayerSite& site) const {
    auto& hdr = site.newHdr<Icmp6NsHdr>();
    hdr.targetIs(target);
    writeChecksum(site, hdr, checksum);
}

void Icmp6Na::write(const LayerSite& site) const {
    auto& hdr = site.newHdr<Icmp6NaHdr>();
    hdr.targetIs(target);
    hdr.routerIs(router);
    hdr.solicitedIs(solicited);
    hdr.overridingIs(overriding);
    writeChecksum(site, hdr, checksum);
}

void Icmp6Redirect::write(const LayerSite& site) const {
    auto& hdr = site.newHdr<Icmp6RedirectHdr>();
    hdr.targetIs(target);
    hdr.destinationIs(destination);
    writeChecksum(site, hdr, checksum);
}

void NdLinkAddr::write(const LayerSite& site) const {
    auto& option = site.newHdr<NdLinkAddrOption>();
    option.typeIs(type);
    option.macIs(mac);
}

void NdPrefix::write(const LayerSite& site) const {
    auto& option = site.newHdr<NdPrefixOption>();
    option.prefixIs(prefix);
    option.prefixLenIs(prefixLen);
    option.onLinkIs(onLink);
    option.autonomousIs(autonomous);
    option.validSecondsIs(validSeconds);
    option.preferredSecondsIs(preferredSeconds);
}

void NdMtu::write(const LayerSite& site) const {
    auto& option = site.newHdr<NdMtuOption>();
    option.mtuIs(mtu);
}

}  // namespace Pavo
