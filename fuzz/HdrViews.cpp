// Checked views and wrappers of header records, anywhere in packets split anywhere. What a view
// that is given promises to lie in the packet, is there.

#include <sstream>
#include <type_traits>

#include "Pavo/ArpHdr.h"
#include "Pavo/EthHdr.h"
#include "Pavo/GreHdr.h"
#include "Pavo/Icmp6Hdr.h"
#include "Pavo/Icmp6NdHdr.h"
#include "Pavo/IcmpHdr.h"
#include "Pavo/IgmpHdr.h"
#include "Pavo/Ip6Hdr.h"
#include "Pavo/IpHdr.h"
#include "Pavo/MimHdr.h"
#include "Pavo/MplsHdr.h"
#include "Pavo/PimHdr.h"
#include "Pavo/PwControlWord.h"
#include "Pavo/SctpHdr.h"
#include "Pavo/TcpHdr.h"
#include "Pavo/UdpHdr.h"
#include "Pavo/VrrpHdr.h"
#include "Pavo/VxlanHdr.h"

#include "fuzz/Frames.h"

namespace {

using namespace Pavo;

// The header with every bit turned over.
template <class Hdr>
Hdr complementOf(const Hdr& header) {
    uint8_t image[sizeof(Hdr)];
    std::memcpy(image, &header, sizeof(Hdr));
    for (uint8_t& byte : image) {
        byte = static_cast<uint8_t>(~byte);
    }
    Hdr complement;
    std::memcpy(static_cast<void*>(&complement), image, sizeof(Hdr));
    return complement;
}

// Each pair of getter and setter: the field takes any other value, and its own again, which gives
// the header again.
template <class Hdr, class Get, class Set, class... More>
void requireFields(const Hdr& header, Get get, Set set, More... more) {
    const Hdr complement = complementOf(header);
    Hdr changed = header;
    (changed.*set)((complement.*get)());
    Mox::require((changed.*get)() == (complement.*get)(), "the field takes the value");
    (changed.*set)((header.*get)());
    Mox::require(std::memcmp(&changed, &header, sizeof(Hdr)) == 0, "no other bit changes");
    if constexpr (sizeof...(more) != 0) {
        requireFields(header, more...);
    }
}

// Getter and setter of a field of `H`.
#define FIELD(name) &H::name, &H::name##Is

// Bytes from the record on that its lengths speak of, each of which is read. A record without one
// speaks of itself.
template <class Hdr>
uint32_t extentOf(const Hdr&) {
    return sizeof(Hdr);
}

uint32_t extentOf(const EthHdr& header) {
    using H = EthHdr;
    requireFields(header, FIELD(dst), FIELD(src), FIELD(type));
    return sizeof(header);
}

uint32_t extentOf(const Eth8021QHdr& header) {
    using H = Eth8021QHdr;
    requireFields(header, FIELD(vlanId), FIELD(priority), FIELD(dropEligible), FIELD(type));
    return sizeof(header);
}

uint32_t extentOf(const MplsHdr& header) {
    using H = MplsHdr;
    requireFields(header, &H::label, static_cast<void (H::*)(MplsLabel)>(&H::labelIs), FIELD(cos),
                  FIELD(bos), FIELD(ttl));
    return sizeof(header);
}

uint32_t extentOf(const IpHdr& header) {
    using H = IpHdr;
    requireFields(header, FIELD(version), FIELD(headerBytes), FIELD(tos), FIELD(totalLen),
                  FIELD(id), FIELD(fragmentOffset), FIELD(moreFrag), FIELD(dontFrag),
                  FIELD(reservedFragFlag), FIELD(ttl), FIELD(protocol), FIELD(checksum), FIELD(src),
                  FIELD(dst));
    (void)header.computedChecksum();
    (void)(std::ostringstream() << header);
    Mox::require(header.headerBytes() >= sizeof(header), "a whole header");
    Mox::require(header.headerBytes() + header.payloadLen() == header.totalLen(), "two parts");
    return header.totalLen();
}

uint32_t extentOf(const IpHdrOptionCommon& header) {
    return header.length();
}

uint32_t extentOf(const IpHdrRouterAlertOption& header) {
    return header.length();
}

uint32_t extentOf(const Ip6Hdr& header) {
    using H = Ip6Hdr;
    requireFields(header, FIELD(version), FIELD(trafficClass), FIELD(flowLabel), FIELD(payloadLen),
                  FIELD(nextHeader), FIELD(hopLimit), FIELD(src), FIELD(dst));
    (void)(std::ostringstream() << header);
    return static_cast<uint32_t>(sizeof(header)) + header.payloadLen();
}

uint32_t extentOf(const Ip6HdrOptionCommon& header) {
    return header.headerBytes();
}

uint32_t extentOf(const Ip6HdrRouterAlertOption& header) {
    return header.headerBytes();
}

uint32_t extentOf(const Ip6HdrPadN& header) {
    return static_cast<uint32_t>(sizeof(header)) + header.optionLen();
}

uint32_t extentOf(const TcpHdr& header) {
    using H = TcpHdr;
    requireFields(header, FIELD(srcPort), FIELD(dstPort), FIELD(sequenceNumber),
                  FIELD(acknowledgementNumber), FIELD(dataOffset), FIELD(reserved), FIELD(ns),
                  FIELD(cwr), FIELD(ece), FIELD(urg), FIELD(ack), FIELD(psh), FIELD(rst),
                  FIELD(syn), FIELD(fin), FIELD(window), FIELD(checksum), FIELD(urgentPointer));
    (void)header.computedChecksum({{}, {}, header.headerBytes()});
    Mox::require(header.headerBytes() >= sizeof(header), "a whole header");
    return header.headerBytes();
}

// What was found is the plain sum of pseudo header and datagram, and never 0.
template <class Pseudo>
void requireUdpChecksum(const UdpHdr& header, const Pseudo& pseudo, uint16_t found) {
    const auto bytesOf = [](const auto& object, uint32_t bytes) {
        return std::string_view(reinterpret_cast<const char*>(&object), bytes);
    };
    const uint32_t before = fuzz::plainSum(bytesOf(pseudo, sizeof(pseudo)), 0);
    const uint16_t sum = fuzz::folded(fuzz::plainSum(bytesOf(header, header.udpLen()), before));
    Mox::require(found == (sum == 0 ? 0xffff : sum), "the checksum of the datagram");
}

uint32_t extentOf(const UdpHdr& header) {
    using H = UdpHdr;
    requireFields(header, FIELD(srcPort), FIELD(dstPort), FIELD(udpLen), FIELD(checksum));
    const UdpPseudoHdr pseudo(IpAddr(1), IpAddr(2), header.udpLen());
    requireUdpChecksum(header, pseudo, header.computedChecksumU16(pseudo));
    const UdpPseudoHdrIpv6 pseudo6(Ip6Addr(1, 2), Ip6Addr(3, 4), header.udpLen());
    requireUdpChecksum(header, pseudo6, header.computedChecksumIpv6U16(pseudo6));
    Mox::require(header.udpLen() >= sizeof(header), "a whole header");
    return header.udpLen();
}

uint32_t extentOf(const SctpHdr& header) {
    using H = SctpHdr;
    requireFields(header, FIELD(srcPort), FIELD(dstPort), FIELD(verificationTag), FIELD(checksum));
    return sizeof(header);
}

uint32_t extentOf(const ArpHdr& header) {
    using H = ArpHdr;
    requireFields(header, FIELD(hwType), FIELD(protoType), FIELD(hwLen), FIELD(protoLen), FIELD(op),
                  FIELD(senderMac), FIELD(senderIp), FIELD(targetMac), FIELD(targetIp));
    return sizeof(header);
}

uint32_t extentOf(const VrrpHdr& header) {
    using H = VrrpHdr;
    requireFields(header, FIELD(version), FIELD(type), FIELD(vrid), FIELD(priority),
                  FIELD(addressCount), FIELD(authType), FIELD(intervalSeconds), FIELD(reserved),
                  FIELD(intervalCentiseconds), FIELD(checksum));
    return header.totalBytes(sizeof(IpAddr));
}

uint32_t extentOf(const IgmpHdr& header) {
    using H = IgmpHdr;
    requireFields(header, FIELD(type), FIELD(maxRespCode), FIELD(checksum), FIELD(group));
    return sizeof(header);
}

uint32_t extentOf(const Igmp3QueryHdr& header) {
    using H = Igmp3QueryHdr;
    requireFields(header, FIELD(suppress), FIELD(robustness), FIELD(intervalCode),
                  FIELD(sourceCount));
    return static_cast<uint32_t>(sizeof(header) + header.sources().size_bytes());
}

uint32_t extentOf(const Igmp3ReportHdr& header) {
    using H = Igmp3ReportHdr;
    requireFields(header, FIELD(type), FIELD(checksum), FIELD(recordCount));
    return sizeof(header);
}

uint32_t extentOf(const IgmpRecordHdr& header) {
    using H = IgmpRecordHdr;
    requireFields(header, FIELD(type), FIELD(auxWords), FIELD(sourceCount), FIELD(group));
    return header.totalBytes();
}

uint32_t extentOf(const PimRegisterHdr& header) {
    using H = PimRegisterHdr;
    requireFields(header, FIELD(version), FIELD(type), FIELD(reserved), FIELD(checksum),
                  FIELD(border), FIELD(nullRegister));
    return sizeof(header);
}

uint32_t extentOf(const GreHdr& header) {
    using H = GreHdr;
    requireFields(header, FIELD(hasChecksum), FIELD(hasKey), FIELD(hasSequenceNumber),
                  FIELD(version), FIELD(type));
    (void)header.checksum();
    (void)header.key();
    (void)header.sequenceNumber();
    return header.headerBytes();
}

uint32_t extentOf(const VxlanHdr& header) {
    using H = VxlanHdr;
    requireFields(header, FIELD(hasVni), FIELD(vni));
    return sizeof(header);
}

uint32_t extentOf(const PwControlWord& header) {
    using H = PwControlWord;
    requireFields(header, FIELD(nibble), FIELD(flags), FIELD(fragmentation), FIELD(length),
                  FIELD(sequenceNumber));
    return std::max<uint32_t>(header.length(), sizeof(header));
}

uint32_t extentOf(const MimHdr& header) {
    using H = MimHdr;
    requireFields(header, FIELD(priority), FIELD(dropEligible), FIELD(uca), FIELD(serviceId));
    return sizeof(header);
}

uint32_t extentOf(const Icmp6RaHdr& header) {
    using H = Icmp6RaHdr;
    requireFields(header, FIELD(hopLimit), FIELD(managed), FIELD(otherConfig), FIELD(preference),
                  FIELD(lifetimeSeconds), FIELD(reachableMs), FIELD(retransMs));
    return sizeof(header);
}

uint32_t extentOf(const Icmp6NaHdr& header) {
    using H = Icmp6NaHdr;
    requireFields(header, FIELD(router), FIELD(solicited), FIELD(overriding), FIELD(target));
    return sizeof(header);
}

uint32_t extentOf(const Icmp6RedirectHdr& header) {
    using H = Icmp6RedirectHdr;
    requireFields(header, FIELD(target), FIELD(destination));
    return sizeof(header);
}

uint32_t extentOf(const NdOptionHdr& header) {
    using H = NdOptionHdr;
    requireFields(header, FIELD(type), FIELD(len));
    return header.totalBytes();
}

uint32_t extentOf(const NdLinkAddrOption& header) {
    using H = NdLinkAddrOption;
    requireFields(header, FIELD(mac));
    return header.totalBytes();
}

uint32_t extentOf(const NdMtuOption& header) {
    using H = NdMtuOption;
    requireFields(header, FIELD(mtu));
    return header.totalBytes();
}

uint32_t extentOf(const NdPrefixOption& header) {
    using H = NdPrefixOption;
    requireFields(header, FIELD(prefixLen), FIELD(onLink), FIELD(autonomous), FIELD(validSeconds),
                  FIELD(preferredSeconds), FIELD(prefix));
    return header.totalBytes();
}

template <class Hdr, class Wrapper>
void check(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    const HdrView<Hdr> view = tryHdr<Hdr>(pkt, offset);
    Mox::require((view.error() == PktErrors::noError) == static_cast<bool>(view), "view or error");
    if (uint64_t{offset} + sizeof(Hdr) > pkt->frontBytes()) {
        Mox::require(view.error() == PktErrors::pktTooShort, "no room for the record");
        return;
    }
    uint8_t* const record = pkt->frontData() + offset;
    const auto wrapper = Mox::make<Wrapper>(pkt, offset);
    Mox::require(reinterpret_cast<uint8_t*>(wrapper->header()) == record, "the wrapper's place");
    if (!view) {
        return;
    }
    Mox::require(reinterpret_cast<uint8_t*>(view.ptr()) == record, "the view's place");
    const uint32_t extent = extentOf(*view);
    Mox::require(extent <= pkt->frontBytes() - offset, "the packet holds what the record promises");
    (void)std::string(reinterpret_cast<const char*>(record), extent);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const uint32_t privateBytes = input.u8();
    // Mostly near the packet's beginning, and sometimes where sums with it overflow.
    const uint8_t place = input.u8();
    const uint32_t offset = place < 0xf0 ? place : 0u - (place & 0xfu);
    const auto pkt = fuzz::pktOf(input.rest(), privateBytes);
    check<EthHdr, EthHdrWrapper>(pkt, offset);
    check<Eth8021QHdr, Eth8021QHdrWrapper>(pkt, offset);
    check<MplsHdr, MplsHdrWrapper>(pkt, offset);
    check<IpHdr, IpHdrWrapper>(pkt, offset);
    check<IpHdrOptionCommon, IpHdrOptionCommonWrapper>(pkt, offset);
    check<IpHdrRouterAlertOption, IpHdrRouterAlertOptionWrapper>(pkt, offset);
    check<Ip6Hdr, Ip6HdrWrapper>(pkt, offset);
    check<Ip6HdrOptionCommon, Ip6HdrOptionCommonWrapper>(pkt, offset);
    check<Ip6HdrPad1, Ip6HdrPad1Wrapper>(pkt, offset);
    check<Ip6HdrPadN, Ip6HdrPadNWrapper>(pkt, offset);
    check<Ip6HdrRouterAlertOption, Ip6HdrRouterAlertOptionWrapper>(pkt, offset);
    check<Icmp6Hdr, Icmp6HdrWrapper>(pkt, offset);
    check<Icmp6EchoHdr, Icmp6EchoHdrWrapper>(pkt, offset);
    check<IcmpHdr, IcmpHdrWrapper>(pkt, offset);
    check<IcmpEchoHdr, IcmpEchoHdrWrapper>(pkt, offset);
    check<TcpHdr, TcpHdrWrapper>(pkt, offset);
    check<TcpHdr, TcpHdrWrapperIpv6>(pkt, offset);
    check<UdpHdr, UdpHdrWrapper>(pkt, offset);
    check<UdpHdr, UdpHdrWrapperIpv6>(pkt, offset);
    check<SctpHdr, SctpHdrWrapper>(pkt, offset);
    check<ArpHdr, ArpHdrWrapper>(pkt, offset);
    check<VrrpHdr, VrrpHdrWrapper>(pkt, offset);
    check<IgmpHdr, IgmpHdrWrapper>(pkt, offset);
    check<Igmp3QueryHdr, Igmp3QueryHdrWrapper>(pkt, offset);
    check<Igmp3ReportHdr, Igmp3ReportHdrWrapper>(pkt, offset);
    check<IgmpRecordHdr, IgmpRecordHdrWrapper>(pkt, offset);
    check<PimRegisterHdr, PimRegisterHdrWrapper>(pkt, offset);
    check<GreHdr, GreHdrWrapper>(pkt, offset);
    check<VxlanHdr, VxlanHdrWrapper>(pkt, offset);
    check<PwControlWord, PwControlWordWrapper>(pkt, offset);
    check<MimHdr, MimHdrWrapper>(pkt, offset);
    check<Icmp6RaHdr, Icmp6RaHdrWrapper>(pkt, offset);
    check<Icmp6NaHdr, Icmp6NaHdrWrapper>(pkt, offset);
    check<Icmp6RedirectHdr, Icmp6RedirectHdrWrapper>(pkt, offset);
    check<NdOptionHdr, PlainHdrWrapper<NdOptionHdr>>(pkt, offset);
    check<NdLinkAddrOption, PlainHdrWrapper<NdLinkAddrOption>>(pkt, offset);
    check<NdMtuOption, PlainHdrWrapper<NdMtuOption>>(pkt, offset);
    check<NdPrefixOption, PlainHdrWrapper<NdPrefixOption>>(pkt, offset);
    return 0;
}
