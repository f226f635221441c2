#include "Pavo/pam/PamTap.h"

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <utility>

#include "Pavo/packet/Ip6Hdr.h"
#include "Pavo/packet/IpHdr.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/packet/UdpHdr.h"

namespace Pavo {

namespace {

// TTL and hop limit where the kernel chooses (ip(7), ipv6(7)).
constexpr uint8_t kernelTtl = 64;
constexpr uint8_t kernelGroupTtl = 1;
constexpr uint32_t macAddrBytes = 12;
constexpr uint32_t maxLength = 0xffff;

}  // namespace

// What a file gets of one packet: the packet's own pieces, and what is added between or before
// them.
class PamTap::Pieces {
  public:
    void addPkt(const Pkt& pkt) {
        for (const Pkt::Iovec& each : pkt.iovecs()) {
            add(each.data, each.bytes);
        }
    }
    // With the tag after the first 12 bytes, the two addresses, or at the end of a shorter packet.
    void addTaggedPkt(const Pkt& pkt) {
        const NetU16 tag[] = {NetU16(pkt.separateVlanTpid()), NetU16(pkt.separateVlanTci())};
        uint32_t untilTag = macAddrBytes;
        for (const Pkt::Iovec& each : pkt.iovecs()) {
            const uint32_t before = std::min(untilTag, each.bytes);
            add(each.data, before);
            if (untilTag != 0 && before == untilTag) {
                addExtra(tag, sizeof(tag));
            }
            untilTag -= before;
            add(each.data + before, each.bytes - before);
        }
        if (untilTag != 0) {
            addExtra(tag, sizeof(tag));
        }
    }
    // The header of a datagram that carries `payloadBytes`.
    void addUdpHdr(const PktInfo& info, uint32_t payloadBytes) {
        UdpHdr header;
        header.srcPortIs(info.srcPort.value());
        header.dstPortIs(info.dstPort.value());
        header.udpLenIs(static_cast<uint16_t>(
            std::min<uint64_t>(sizeof(header) + uint64_t{payloadBytes}, maxLength)));
        addExtra(header, sizeof(header));
    }
    // The header of a packet of `payloadBytes`, of the family of its addresses.
    void addIpHdr(const PktInfo& info, bool hasRouterAlert, uint32_t payloadBytes) {
        if (info.srcIpAddr.af() == ipv6 || info.dstIpAddr.af() == ipv6) {
            addIp6Hdr(info, hasRouterAlert, payloadBytes);
        } else {
            addIp4Hdr(info, hasRouterAlert, payloadBytes);
        }
    }

    void writeTo(CaptureFile* file, uint32_t interface, CaptureDirection direction) const {
        file->pktIs(interface, direction, pieces_, count_);
    }

  private:
    struct Ip4Image {
        IpHdr header;
        IpHdrRouterAlertOption alert;
    };
    struct Ip6Image {
        Ip6Hdr header;
        Ip6HdrRouterAlertOption alert;
        Ip6HdrPadN padding;
    };

    void add(const uint8_t* data, uint32_t bytes) {
        if (bytes != 0) {
            pieces_[count_++] = {data, bytes};
        }
    }
    // Bytes that the packet does not hold: a tag, or an IP header and a UDP header.
    template <class Record>
    void addExtra(const Record& record, uint32_t bytes) {
        static_assert(std::is_trivially_copyable_v<Record> &&
                      sizeof(Record) + sizeof(UdpHdr) <= sizeof(extra_));
        std::memcpy(extra_ + extraBytes_, &record, bytes);
        add(extra_ + extraBytes_, bytes);
        extraBytes_ += bytes;
    }

    void addIp4Hdr(const PktInfo& info, bool hasRouterAlert, uint32_t payloadBytes) {
        Ip4Image image;
        const uint16_t bytes = hasRouterAlert ? sizeof(image) : sizeof(image.header);
        IpHdr& header = image.header;
        header.versionIs(4);
        header.headerBytesIs(bytes);
        header.tosIs(info.tos);
        header.totalLenIs(
            static_cast<uint16_t>(std::min<uint64_t>(uint64_t{bytes} + payloadBytes, maxLength)));
        header.ttlIs(info.ttl);
        header.protocolNumIs(info.protocol);
        header.srcIs(info.srcIpAddr.v4Addr());
        header.dstIs(info.dstIpAddr.v4Addr());
        header.checksumIs(header.computedChecksum());
        addExtra(image, bytes);
    }
    void addIp6Hdr(const PktInfo& info, bool hasRouterAlert, uint32_t payloadBytes) {
        Ip6Image image;
        const uint32_t bytes = hasRouterAlert ? sizeof(image) : sizeof(image.header);
        const uint64_t length = uint64_t{bytes} - sizeof(image.header) + payloadBytes;
        Ip6Hdr& header = image.header;
        header.versionIs(6);
        header.trafficClassIs(info.tos);
        header.payloadLenIs(static_cast<uint16_t>(length > maxLength ? 0 : length));
        header.protocolNumIs(hasRouterAlert ? IpProtocolNumber::hopopt : info.protocol);
        image.alert.nextHdrNumIs(static_cast<uint8_t>(info.protocol));
        header.hopLimitIs(info.ttl);
        header.srcIs(info.srcIpAddr.v6Addr());
        header.dstIs(info.dstIpAddr.v6Addr());
        addExtra(image, bytes);
    }

    // A piece of the packet may be cut in two by the one that is added.
    CaptureFile::Piece pieces_[Pkt::maxIovecs_ + 2];
    uint32_t count_ = 0;
    uint8_t extra_[sizeof(Ip6Image) + sizeof(UdpHdr)];
    uint32_t extraBytes_ = 0;
};

PamTap::PamTap(Mox::Ptr<CaptureFile> file, const Mox::String& name, CaptureLinkType linkType)
    : file_(std::move(file)),
      interface_(file_->newInterface(name, linkType)),
      linkType_(linkType) {}

PamTap::~PamTap() = default;

// Only a packet with Ethernet addresses has a place for a tag.
void PamTap::write(const Pkt& pkt, const PktInfo& info, bool hasRouterAlert,
                   CaptureDirection direction) {
    Pieces pieces;
    if (linkType_ == CaptureLinkType::rawIp && info.isIpHdrWithKernel) {
        const uint32_t udpBytes = info.isUdpHdrWithKernel ? sizeof(UdpHdr) : 0;
        pieces.addIpHdr(info, hasRouterAlert, udpBytes + pkt.totalBytes());
        if (info.isUdpHdrWithKernel) {
            pieces.addUdpHdr(info, pkt.totalBytes());
        }
    }
    if (linkType_ == CaptureLinkType::ethernet && pkt.hasSeparateVlanTag()) {
        pieces.addTaggedPkt(pkt);
    } else {
        pieces.addPkt(pkt);
    }
    pieces.writeTo(file_.ptr(), interface_, direction);
}

void PamTap::handleTxPkt(const Pam&, const Pkt& pkt, const TxInfo& info) {
    PktInfo sent = info;
    if (sent.ttl == 0) {
        sent.ttl = sent.dstIpAddr.isMulticast() ? kernelGroupTtl : kernelTtl;
    }
    write(pkt, sent, info.hasRouterAlert, CaptureDirection::outbound);
}

void PamTap::handleRxPkt(const Pam&, const Pkt& pkt, const RxInfo& info) {
    write(pkt, info, /*hasRouterAlert=*/false, CaptureDirection::inbound);
}

Mox::Ptr<PamTap> pamTapFactory(Mox::Ptr<CaptureFile> file, const Mox::String& name,
                               CaptureLinkType linkType) {
    return Mox::make<PamTap>(std::move(file), name, linkType);
}

}  // namespace Pavo
