// Checked views and wrappers of header records, anywhere in packets split anywhere. What a view
// that is given promises to lie in the packet, is there.

#include <sstream>
#include <type_traits>

#include "Pavo/EthHdr.h"
#include "Pavo/Icmp6Hdr.h"
#include "Pavo/IcmpHdr.h"
#include "Pavo/Ip6Hdr.h"
#include "Pavo/IpHdr.h"
#include "Pavo/MplsHdr.h"
#include "Pavo/SctpHdr.h"
#include "Pavo/TcpHdr.h"
#include "Pavo/UdpHdr.h"

#include "fuzz/Frames.h"

namespace {

using namespace Pavo;

// What a header is rebuilt from: every bit has to be set by the setter of its field, and by no
// other.
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

// A header that has every field of the other is the other.
template <class Hdr>
void requireSame(const Hdr& rebuilt, const Hdr& header) {
    Mox::require(std::memcmp(&rebuilt, &header, sizeof(Hdr)) == 0, "the fields are the header");
}

// Bytes from the record on that its lengths speak of, each of which is read. A record without one
// speaks of itself.
template <class Hdr>
uint32_t extentOf(const Hdr&) {
    return sizeof(Hdr);
}

uint32_t extentOf(const EthHdr& header) {
    EthHdr rebuilt = complementOf(header);
    rebuilt.dstIs(header.dst());
    rebuilt.srcIs(header.src());
    rebuilt.typeIs(header.type());
    requireSame(rebuilt, header);
    return sizeof(header);
}

uint32_t extentOf(const Eth8021QHdr& header) {
    Eth8021QHdr rebuilt = complementOf(header);
    rebuilt.vlanIdIs(header.vlanId());
    rebuilt.priorityIs(header.priority());
    rebuilt.dropEligibleIs(header.dropEligible());
    rebuilt.typeIs(header.type());
    requireSame(rebuilt, header);
    return sizeof(header);
}

uint32_t extentOf(const MplsHdr& header) {
    MplsHdr rebuilt = complementOf(header);
    rebuilt.labelIs(header.label());
    rebuilt.cosIs(header.cos());
    rebuilt.bosIs(header.bos());
    rebuilt.ttlIs(header.ttl());
    requireSame(rebuilt, header);
    return sizeof(header);
}

uint32_t extentOf(const IpHdr& header) {
    IpHdr rebuilt = complementOf(header);
    rebuilt.versionIs(header.version());
    rebuilt.headerBytesIs(header.headerBytes());
    rebuilt.tosIs(header.tos());
    rebuilt.totalLenIs(header.totalLen());
    rebuilt.idIs(header.id());
    rebuilt.fragmentOffsetIs(header.fragmentOffset());
    rebuilt.moreFragIs(header.moreFrag());
    rebuilt.dontFragIs(header.dontFrag());
    rebuilt.reservedFragFlagIs(header.reservedFragFlag());
    rebuilt.ttlIs(header.ttl());
    rebuilt.protocolIs(header.protocol());
    rebuilt.checksumIs(header.checksum());
    rebuilt.srcIs(header.src());
    rebuilt.dstIs(header.dst());
    requireSame(rebuilt, header);
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
    Ip6Hdr rebuilt = complementOf(header);
    rebuilt.versionIs(header.version());
    rebuilt.trafficClassIs(header.trafficClass());
    rebuilt.flowLabelIs(header.flowLabel());
    rebuilt.payloadLenIs(header.payloadLen());
    rebuilt.nextHeaderIs(header.nextHeader());
    rebuilt.hopLimitIs(header.hopLimit());
    rebuilt.srcIs(header.src());
    rebuilt.dstIs(header.dst());
    requireSame(rebuilt, header);
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
    TcpHdr rebuilt = complementOf(header);
    rebuilt.srcPortIs(header.srcPort());
    rebuilt.dstPortIs(header.dstPort());
    rebuilt.sequenceNumberIs(header.sequenceNumber());
    rebuilt.acknowledgementNumberIs(header.acknowledgementNumber());
    rebuilt.dataOffsetIs(header.dataOffset());
    rebuilt.reservedIs(header.reserved());
    rebuilt.nsIs(header.ns());
    rebuilt.cwrIs(header.cwr());
    rebuilt.eceIs(header.ece());
    rebuilt.urgIs(header.urg());
    rebuilt.ackIs(header.ack());
    rebuilt.pshIs(header.psh());
    rebuilt.rstIs(header.rst());
    rebuilt.synIs(header.syn());
    rebuilt.finIs(header.fin());
    rebuilt.windowIs(header.window());
    rebuilt.checksumIs(header.checksum());
    rebuilt.urgentPointerIs(header.urgentPointer());
    requireSame(rebuilt, header);
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
    UdpHdr rebuilt = complementOf(header);
    rebuilt.srcPortIs(header.srcPort());
    rebuilt.dstPortIs(header.dstPort());
    rebuilt.udpLenIs(header.udpLen());
    rebuilt.checksumIs(header.checksum());
    requireSame(rebuilt, header);
    const UdpPseudoHdr pseudo(IpAddr(1), IpAddr(2), header.udpLen());
    requireUdpChecksum(header, pseudo, header.computedChecksumU16(pseudo));
    const UdpPseudoHdrIpv6 pseudo6(Ip6Addr(1, 2), Ip6Addr(3, 4), header.udpLen());
    requireUdpChecksum(header, pseudo6, header.computedChecksumIpv6U16(pseudo6));
    Mox::require(header.udpLen() >= sizeof(header), "a whole header");
    return header.udpLen();
}

uint32_t extentOf(const SctpHdr& header) {
    SctpHdr rebuilt = complementOf(header);
    rebuilt.srcPortIs(header.srcPort());
    rebuilt.dstPortIs(header.dstPort());
    rebuilt.verificationTagIs(header.verificationTag());
    rebuilt.checksumIs(header.checksum());
    requireSame(rebuilt, header);
    return sizeof(header);
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
    return 0;
}
