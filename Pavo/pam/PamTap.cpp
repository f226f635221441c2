#include "Pavo/pam/PamTap.h"

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <utility>

#include "Pavo/packet/Ip6Hdr.h"
#include "Pavo/packet/IpHdr.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/pam/Ip6HdrInclSocketPam.h"
#include "Pavo/pam/RawIpPam.h"

namespace Pavo {

namespace {

// TTL and hop limit where the kernel chooses (ip(7), ipv6(7)).
constexpr uint8_t kernelTtl = 64;
constexpr uint8_t kernelGroupTtl = 1;
constexpr uint32_t macAddrBytes = 12;

}  // namespace

// What a file gets of one packet: the packet's own pieces, and what is put between or in front.
class PamTap::Pieces {
  public:
    void addPkt(const Pkt& pkt) {
        forEachIovec(pkt, [this](const Pkt::Iovec& each) { add(each.data, each.bytes); });
    }
    // With the tag behind the first 12 bytes, the two addresses, or behind all of a shorter packet.
    void addTaggedPkt(const Pkt& pkt) {
        const NetU16 tag[] = {NetU16(pkt.separateVlanTpid()), NetU16(pkt.separateVlanTci())};
        uint32_t untilTag = macAddrBytes;
        forEachIovec(pkt, [&](const Pkt::Iovec& each) {
            const uint32_t before = std::min(untilTag, each.bytes);
            add(each.data, before);
            if (untilTag != 0 && before == untilTag) {
                addExtra(tag);
            }
            untilTag -= before;
            add(each.data + before, each.bytes - before);
        });
        if (untilTag != 0) {
            addExtra(tag);
        }
    }
    // The header of a packet of `payloadBytes`, of the family of its addresses.
    void addIpHdr(const RxPacketInfo& info, IpProtocolNumber protocol, uint32_t payloadBytes) {
        if (info.srcIpAddr.af() == ipv6 || info.dstIpAddr.af() == ipv6) {
            addExtra(ip6Hdr(info, protocol, payloadBytes));
        } else {
            addExtra(ipHdr(info, protocol, payloadBytes));
        }
    }

    void writeTo(CaptureFile* file, uint32_t interface, CaptureDirection direction) const {
        file->pktIs(interface, direction, pieces_, count_);
    }

  private:
    template <class Visit>
    static void forEachIovec(const Pkt& pkt, Visit visit) {
        for (uint32_t i = pkt.firstIoVec(); i < Pkt::maxIovecs_; ++i) {
            visit(pkt.iovec(i));
        }
    }

    void add(const uint8_t* data, uint32_t bytes) {
        if (bytes != 0) {
            pieces_[count_++] = {data, bytes};
        }
    }
    // Bytes that the packet does not hold; once a packet.
    template <class Record>
    void addExtra(const Record& record) {
        static_assert(std::is_trivially_copyable_v<Record> && sizeof(Record) <= sizeof(extra_));
        std::memcpy(extra_, &record, sizeof(record));
        add(extra_, sizeof(record));
    }

    static IpHdr ipHdr(const RxPacketInfo& info, IpProtocolNumber protocol, uint32_t payloadBytes) {
        IpHdr header;
        header.versionIs(4);
        header.headerBytesIs(sizeof(IpHdr));
        header.tosIs(info.tos);
        header.totalLenIs(static_cast<uint16_t>(sizeof(IpHdr) + payloadBytes));
        header.ttlIs(info.ttl);
        header.protocolNumIs(protocol);
        header.srcIs(info.srcIpAddr.v4Addr());
        header.dstIs(info.dstIpAddr.v4Addr());
        header.checksumIs(header.computedChecksum());
        return header;
    }
    static Ip6Hdr ip6Hdr(const RxPacketInfo& info, IpProtocolNumber protocol,
                         uint32_t payloadBytes) {
        Ip6Hdr header;
        header.versionIs(6);
        header.trafficClassIs(info.tos);
        header.payloadLenIs(static_cast<uint16_t>(payloadBytes));
        header.protocolNumIs(protocol);
        header.hopLimitIs(info.ttl);
        header.srcIs(info.srcIpAddr.v6Addr());
        header.dstIs(info.dstIpAddr.v6Addr());
        return header;
    }

    // A piece of the packet may be cut in two by the one that is put in.
    CaptureFile::Piece pieces_[Pkt::maxIovecs_ + 2];
    uint32_t count_ = 0;
    uint8_t extra_[sizeof(Ip6Hdr)];
};

namespace {

// An endpoint of IPv4 sets the TTL of what goes to one host only.
uint8_t sentTtl(const RawIpPam& pam) {
    const uint8_t asked = pam.txTTL().value();
    if (pam.txDstIpAddr().isMulticast() && (asked == 0 || pam.txDstIpAddr().af() == ipv4)) {
        return kernelGroupTtl;
    }
    return asked == 0 ? kernelTtl : asked;
}

// What is sent is described by the endpoint's attributes.
RxPacketInfo sentInfo(const RawIpPam& pam) {
    RxPacketInfo info;
    info.srcIpAddr = pam.txSrcIpAddr();
    info.dstIpAddr = pam.txDstIpAddr();
    info.tos = pam.txTOS().value();
    info.ttl = sentTtl(pam);
    return info;
}

RxPacketInfo receivedInfo(const RawIpPam& pam, int32_t slot) {
    if (slot != PktTap::noSlot) {
        return pam.savedPacketInfo(static_cast<uint32_t>(slot));
    }
    RxPacketInfo info;
    info.srcIpAddr = pam.rxSrcIpAddr();
    info.dstIpAddr = pam.rxDstIpAddr();
    info.tos = pam.rxTOS();
    info.ttl = pam.rxTTL();
    return info;
}

// The endpoint, where its packets are those of a raw IP socket.
const RawIpPam* ipPamOf(const Pam& pam, CaptureLinkType linkType) {
    return linkType == CaptureLinkType::rawIp ? dynamic_cast<const RawIpPam*>(&pam) : nullptr;
}

// The kernel takes every packet of the reserved protocol (IPPROTO_RAW) to have its header.
bool sendsWithHeader(const RawIpPam& pam) {
    return (pam.options() & ipHdrIncl) != 0 || pam.protocol() == IpProtocolNumber::reserved ||
           dynamic_cast<const Ip6HdrInclSocketPam*>(&pam) != nullptr;
}

// A raw IPv6 socket gives packets without their headers, but for those that were passing by, which
// come to endpoints of the reserved protocol.
bool receivesWithHeader(const RawIpPam& pam, const RxPacketInfo& info) {
    return info.srcIpAddr.af() != ipv6 || pam.protocol() == IpProtocolNumber::reserved;
}

}  // namespace

PamTap::PamTap(Mox::Ptr<CaptureFile> file, const Mox::String& name, CaptureLinkType linkType)
    : file_(std::move(file)),
      interface_(file_->newInterface(name, linkType)),
      linkType_(linkType) {}

PamTap::~PamTap() = default;

// Behind what is there of it already. A tag belongs into a packet that has Ethernet addresses.
void PamTap::write(Pieces* pieces, const Pkt& pkt, CaptureDirection direction) {
    if (linkType_ == CaptureLinkType::ethernet && pkt.hasSeparateVlanTag()) {
        pieces->addTaggedPkt(pkt);
    } else {
        pieces->addPkt(pkt);
    }
    pieces->writeTo(file_.ptr(), interface_, direction);
}

void PamTap::handleTxPkt(const Pam& pam, const Pkt& pkt) {
    Pieces pieces;
    const auto* const ip = ipPamOf(pam, linkType_);
    if (ip != nullptr && !sendsWithHeader(*ip)) {
        pieces.addIpHdr(sentInfo(*ip), ip->protocol(), pkt.totalBytes());
    }
    write(&pieces, pkt, CaptureDirection::outbound);
}

void PamTap::handleRxPkt(const Pam& pam, const Pkt& pkt, int32_t slot) {
    Pieces pieces;
    if (const auto* const ip = ipPamOf(pam, linkType_)) {
        const RxPacketInfo info = receivedInfo(*ip, slot);
        if (!receivesWithHeader(*ip, info)) {
            pieces.addIpHdr(info, ip->protocol(), pkt.totalBytes());
        }
    }
    write(&pieces, pkt, CaptureDirection::inbound);
}

Mox::Ptr<PamTap> pamTapFactory(Mox::Ptr<CaptureFile> file, const Mox::String& name,
                               CaptureLinkType linkType) {
    return Mox::make<PamTap>(std::move(file), name, linkType);
}

}  // namespace Pavo
