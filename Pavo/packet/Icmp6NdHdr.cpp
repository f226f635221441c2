#include "Pavo/packet/Icmp6NdHdr.h"

namespace Pavo {

namespace {

// The length of the header before the options; 0 for a type that is not of neighbour discovery.
uint32_t headerBytesOf(Icmp6Type type) {
    switch (type) {
        case Icmp6Type::routerSolicitation:
            return sizeof(Icmp6RsHdr);
        case Icmp6Type::routerAdvertisement:
            return sizeof(Icmp6RaHdr);
        case Icmp6Type::neighborSolicitation:
            return sizeof(Icmp6NsHdr);
        case Icmp6Type::neighborAdvertisement:
            return sizeof(Icmp6NaHdr);
        case Icmp6Type::redirect:
            return sizeof(Icmp6RedirectHdr);
        default:
            return 0;
    }
}

PktErrors optionsError(const IpMsg& msg) {
    NdOptionWalk walk(msg);
    while (walk.option()) {
        walk.next();
    }
    return walk.error();
}

bool hasSourceLinkAddr(const IpMsg& msg) {
    NdOptionWalk walk(msg);
    for (; const HdrView<NdOptionHdr> option = walk.option(); walk.next()) {
        if (option->type() == NdOptionType::sourceLinkAddr) {
            return true;
        }
    }
    return false;
}

// ff02::1:ff00:0/104 (RFC 4291, 2.7.1).
bool isSolicitedNode(const Ip6Addr& address) {
    return address.ip6AddrMaskedByLength(104) == Ip6Addr(0xff02, 0, 0, 0, 0, 1, 0xff00, 0);
}

PktErrors solicitationError(const IpMsg& msg, const Icmp6NsHdr& ns) {
    const Ip6Addr dst = msg.dst.v6Addr();
    if (ns.target().isMulticast()) {
        return PktErrors::icmp6NsTgtMcast;
    }
    if (!msg.src.v6Addr().isUnspecified()) {
        return dst.isMulticast() && !hasSourceLinkAddr(msg) ? PktErrors::noSrcLinkLayerOptInMcastNs
                                                            : PktErrors::noError;
    }
    if (!isSolicitedNode(dst)) {
        return PktErrors::unspecifiedSrcAddrAndNotSolicitedNodeDst;
    }
    return hasSourceLinkAddr(msg) ? PktErrors::unspecSrcAddrSrcLinkLayerAddr : PktErrors::noError;
}

PktErrors advertisementError(const IpMsg& msg, const Icmp6NaHdr& na) {
    if (na.target().isMulticast()) {
        return PktErrors::icmp6NaTgtMcast;
    }
    return msg.dst.isMulticast() && na.solicited()
               ? PktErrors::icmp6McastDstIpAndNonZeroSolicitation
               : PktErrors::noError;
}

PktErrors redirectError(const IpMsg& msg, const Icmp6RedirectHdr& redirect) {
    if (!msg.src.v6Addr().isLinkLocalUnicast2()) {
        return PktErrors::nonLinkLocalSrc;
    }
    if (redirect.destination().isMulticast()) {
        return PktErrors::icmp6RedirectDstMcast;
    }
    const bool isRouterOrOnLink =
        redirect.target().isLinkLocalUnicast2() || redirect.target() == redirect.destination();
    return isRouterOrOnLink ? PktErrors::noError : PktErrors::icmp6RedirectTgt;
}

// What the type demands of a message whose header and options are there.
PktErrors typeError(const IpMsg& msg, Icmp6Type type) {
    switch (type) {
        case Icmp6Type::routerSolicitation:
            return msg.src.v6Addr().isUnspecified() && hasSourceLinkAddr(msg)
                       ? PktErrors::unspecSrcAddrSrcLinkLayerAddr
                       : PktErrors::noError;
        case Icmp6Type::routerAdvertisement:
            return msg.src.v6Addr().isLinkLocalUnicast2() ? PktErrors::noError
                                                          : PktErrors::nonLinkLocalSrc;
        case Icmp6Type::neighborSolicitation:
            return solicitationError(msg, *msg.hdr<Icmp6NsHdr>());
        case Icmp6Type::neighborAdvertisement:
            return advertisementError(msg, *msg.hdr<Icmp6NaHdr>());
        default:
            return redirectError(msg, *msg.hdr<Icmp6RedirectHdr>());
    }
}

PktErrors messageError(const IpMsg& msg, const Icmp6Hdr& icmp6) {
    const uint32_t headerBytes = headerBytesOf(icmp6.type());
    if (headerBytes == 0) {
        return PktErrors::icmp6TypeNotSupported;
    }
    if (msg.bytes < headerBytes) {
        return PktErrors::icmp6PayloadLenTooShortForHdr;
    }
    if (icmp6.code() != 0) {
        return PktErrors::badIcmp6Code;
    }
    if (msg.checksum(msg.bytes, msg.pseudoHdrSum(msg.bytes)) != IpChecksum()) {
        return PktErrors::badIcmp6Checksum;
    }
    const PktErrors error = optionsError(msg);
    return error == PktErrors::noError ? typeError(msg, icmp6.type()) : error;
}

}  // namespace

NdOptionWalk::NdOptionWalk(const IpMsg& msg) : msg_(&msg), at_(msg.bytes) {
    if (const HdrView<Icmp6Hdr> icmp6 = msg.hdr<Icmp6Hdr>()) {
        const uint32_t headerBytes = headerBytesOf(icmp6->type());
        at_ = headerBytes == 0 ? msg.bytes : headerBytes;
    }
}

PktErrors NdOptionWalk::error() const {
    if (at_ == msg_->bytes) {
        return PktErrors::noError;
    }
    const PktErrors error = option().error();
    return error == PktErrors::pktTooShort ? PktErrors::icmp6OptLenExceedPayloadLen : error;
}

HdrView<Icmp6Hdr> checkNd(const IpMsg& msg) {
    if (msg.protocol != IpProtocolNumber::ipv6Icmp || msg.src.af() != ipv6 ||
        msg.dst.af() != ipv6) {
        return PktErrors::nextHdrIsNotIcmp6;
    }
    if (msg.ttl != 255) {
        return PktErrors::nonOnLink;
    }
    if (msg.bytes < sizeof(Icmp6Hdr)) {
        return PktErrors::icmp6PayloadLenTooShortForHdr;
    }
    const HdrView<Icmp6Hdr> icmp6 = msg.wholeHdr<Icmp6Hdr>();
    const PktErrors error = icmp6 ? messageError(msg, *icmp6) : icmp6.error();
    return error == PktErrors::noError ? icmp6 : HdrView<Icmp6Hdr>(error);
}

namespace {

template <class Hdr>
HdrView<Hdr> checkedAs(const IpMsg& msg, Icmp6Type type, PktErrors isOther) {
    const HdrView<Icmp6Hdr> icmp6 = checkNd(msg);
    if (!icmp6) {
        return icmp6.error();
    }
    return icmp6->type() == type ? msg.hdr<Hdr>() : HdrView<Hdr>(isOther);
}

}  // namespace

HdrView<Icmp6NsHdr> checkNs(const IpMsg& msg) {
    return checkedAs<Icmp6NsHdr>(msg, Icmp6Type::neighborSolicitation, PktErrors::notIcmp6NsType);
}

HdrView<Icmp6NaHdr> checkNa(const IpMsg& msg) {
    return checkedAs<Icmp6NaHdr>(msg, Icmp6Type::neighborAdvertisement, PktErrors::notIcmp6NaType);
}

}  // namespace Pavo
