#include "Pavo/packet/BuildPkt.h"

#include <algorithm>
#include <limits>

#include "Mox/Exception.h"

#include "Pavo/packet/Checksum.h"

namespace Pavo {

void Eth::write(const LayerSite& site) const {
    auto& eth = site.newHdr<EthHdr>();
    eth.dstIs(dst);
    eth.srcIs(src);
    eth.typeIs(numberOfNext(type, site.nextEtherType(),
                            "Eth::type not set, and no layer follows that has one"));
}

void Vlan::write(const LayerSite& site) const {
    requireField(vlanId <= 4095, "Vlan::vlanId > 4095 not allowed");
    requireField(priority <= 7, "Vlan::priority > 7 not allowed");
    auto& tag = site.newHdr<Eth8021QHdr>();
    tag.vlanIdIs(vlanId);
    tag.priorityIs(priority);
    tag.dropEligibleIs(dropEligible);
    tag.typeIs(numberOfNext(type, site.nextEtherType(),
                            "Vlan::type not set, and no layer follows that has one"));
}

void Mpls::write(const LayerSite& site) const {
    auto& mpls = site.newHdr<MplsHdr>();
    mpls.labelIs(label);
    mpls.cosIs(cos);
    mpls.bosIs(bos.value_or(site.nextEtherType() != EthType::mpls));
    mpls.ttlIs(ttl);
}

uint32_t Ip::addressSum() const {
    return addressSumOf(src, dst);
}

void Ip::write(const LayerSite& site) const {
    auto& ip = site.newHdr<IpHdr>();
    ip.versionIs(version);
    ip.headerLenIs(headerLen ? *headerLen : IpHdrLen(site.hdrBytes() / 4));
    ip.tosIs(tos);
    ip.totalLenIs(lenField(totalLen, uint64_t{site.hdrBytes()} + site.payloadBytes(),
                           "Ip::totalLen > 65535 not allowed"));
    ip.idIs(id);
    ip.flagsIs(flags);
    ip.fragmentOffsetIs(fragmentOffset);
    ip.ttlIs(ttl);
    ip.protocolNumIs(numberOfNext(protocol, site.nextProtocol(),
                                  "Ip::protocol not set, and no layer follows that has one"));
    ip.srcIs(src);
    ip.dstIs(dst);
    site.optionsAre(sizeof(IpHdr), options);
    const LayerSite headerAlone(site.data(), site.hdrBytes(), 0);
    ip.checksumIs(checksum ? *checksum : headerAlone.checksum());
}

uint32_t Ip6::addressSum() const {
    return addressSumOf(src, dst);
}

void Ip6::write(const LayerSite& site) const {
    auto& ip6 = site.newHdr<Ip6Hdr>();
    std::optional<IpProtocolNumber> next = site.nextProtocol();
    if (!next && site.payloadBytes() == 0) {
        next = IpProtocolNumber::ipv6NoNxt;
    }
    ip6.versionIs(version);
    ip6.trafficClassIs(trafficClass);
    ip6.flowLabelIs(flowLabel);
    ip6.payloadLenIs(
        lenField(payloadLen, site.payloadBytes(), "Ip6::payloadLen > 65535 not allowed"));
    ip6.protocolNumIs(numberOfNext(nextHeader, next,
                                   "Ip6::nextHeader not set, and no layer follows that has one"));
    ip6.hopLimitIs(hopLimit);
    ip6.srcIs(src);
    ip6.dstIs(dst);
}

namespace {

template <class Hdr, class Layer>
void writeIcmp(const LayerSite& site, const Layer& layer, uint32_t pseudoHdrSum) {
    auto& icmp = site.newHdr<Hdr>();
    icmp.typeIs(layer.type);
    icmp.codeIs(layer.code);
    icmp.idIs(layer.id);
    icmp.sequenceNumberIs(layer.sequenceNumber);
    icmp.checksumIs(layer.checksum ? *layer.checksum : site.checksum(pseudoHdrSum));
}

}  // namespace

void Icmp::write(const LayerSite& site) const {
    writeIcmp<IcmpEchoHdr>(site, *this, 0);
}

void Icmp6::write(const LayerSite& site) const {
    writeIcmp<Icmp6EchoHdr>(site, *this, site.pseudoHdrSum(ipProtocol()));
}

void Udp::write(const LayerSite& site) const {
    auto& udp = site.newHdr<UdpHdr>();
    udp.srcPortIs(srcPort);
    udp.dstPortIs(dstPort);
    udp.udpLenIs(lenField(len, uint64_t{site.hdrBytes()} + site.payloadBytes(),
                          "Udp::len > 65535 not allowed"));
    if (checksum) {
        return udp.checksumIs(*checksum);
    }
    const IpChecksum computed = site.checksum(site.pseudoHdrSum(ipProtocol()));
    udp.checksumIs(computed == IpChecksum() ? IpChecksum(0xffff) : computed);
}

void Tcp::write(const LayerSite& site) const {
    auto& tcp = site.newHdr<TcpHdr>();
    tcp.srcPortIs(srcPort);
    tcp.dstPortIs(dstPort);
    tcp.sequenceNumberIs(sequenceNumber);
    tcp.acknowledgementNumberIs(acknowledgementNumber);
    tcp.dataOffsetIs(dataOffset ? *dataOffset : TcpDataOffset(site.hdrBytes() / 4));
    tcp.cwrIs(cwr);
    tcp.eceIs(ece);
    tcp.urgIs(urg);
    tcp.ackIs(ack);
    tcp.pshIs(psh);
    tcp.rstIs(rst);
    tcp.synIs(syn);
    tcp.finIs(fin);
    tcp.windowIs(window);
    tcp.urgentPointerIs(urgentPointer);
    site.optionsAre(sizeof(TcpHdr), options);
    tcp.checksumIs(checksum ? *checksum : site.checksum(site.pseudoHdrSum(ipProtocol())));
}

void Sctp::write(const LayerSite& site) const {
    auto& sctp = site.newHdr<SctpHdr>();
    sctp.srcPortIs(srcPort);
    sctp.dstPortIs(dstPort);
    sctp.verificationTagIs(verificationTag);
    sctp.checksumIs(checksum ? *checksum
                             : sctp.computedChecksum(site.hdrBytes() + site.payloadBytes()));
}

void Payload::write(const LayerSite& site) const {
    std::copy(bytes_.begin(), bytes_.end(), site.data());
}

namespace layers {

Mox::Ptr<Pkt> newPktWith(uint64_t bytes) {
    if (bytes > std::numeric_limits<uint32_t>::max()) {
        Mox::throwRangeException("buildPkt: more than 4294967295 bytes not allowed");
    }
    const auto size = static_cast<uint32_t>(bytes);
    // A buffer of the default size is one that was used before.
    Mox::Ptr<Pkt> pkt = globalPktManager()->newPkt(std::max(size, Pkt::Manager::defaultBufferSize));
    pkt->newSharedHeadData(size);
    return pkt;
}

}  // namespace layers

}  // namespace Pavo
