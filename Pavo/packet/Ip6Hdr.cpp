#include "Pavo/packet/Ip6Hdr.h"

#include <algorithm>
#include <cstring>
#include <ostream>

#include "Mox/Trace.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::Ip6Hdr");

bool isFollowed(uint8_t nextHeader) {
    switch (static_cast<IpProtocolNumber>(nextHeader)) {
        case IpProtocolNumber::hopopt:
        case IpProtocolNumber::ipv6Route:
        case IpProtocolNumber::ipv6Frag:
        case IpProtocolNumber::ipv6Opts:
            return true;
        default:
            return false;
    }
}

// The offset from `hdr` of the header with the number `proto`, or 0. `len` bytes may be read.
uint32_t offsetOf(uint32_t proto, const Ip6Hdr* hdr, uint32_t len) {
    if (len < sizeof(Ip6Hdr)) {
        return 0;
    }
    const auto* bytes = reinterpret_cast<const uint8_t*>(hdr);
    const uint32_t limit = std::min<uint32_t>(hdr->payloadLen() + sizeof(Ip6Hdr), len);
    uint8_t next = hdr->nextHeader();
    uint32_t offset = sizeof(Ip6Hdr);
    while (next != proto) {
        if (!isFollowed(next) || limit - offset < sizeof(Ip6HdrOptionCommon)) {
            return 0;
        }
        const auto* extension = reinterpret_cast<const Ip6HdrOptionCommon*>(bytes + offset);
        if (limit - offset < extension->headerBytes()) {
            return 0;
        }
        next = extension->nextHdrNum();
        offset += extension->headerBytes();
    }
    return offset;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Ip6Hdr& header) {
    // The byte itself, which prints as its name or, where it has none, as its number.
    const auto nextHeader = static_cast<IpProtocolNumber>(header.nextHeader());
    return out << " src: " << header.src() << " dst: " << header.dst()
               << " version: " << header.version() << " trafficClass: " << header.trafficClass()
               << " flowLabel: " << header.flowLabel() << " Payload len " << header.payloadLen()
               << " nextHeader: " << nextHeader << " hopLimit: " << unsigned{header.hopLimit()};
}

int getNextProtoHdr(Ip6Hdr* hdr, uint32_t proto, char** out, uint32_t len) {
    const uint32_t offset = offsetOf(proto, hdr, len);
    if (offset == 0) {
        MOX_TRACE(facility, 1, "packet is too short to find next protocol header.");
        return -1;
    }
    *out = reinterpret_cast<char*>(hdr) + offset;
    return 0;
}

Ip6HdrOptionType Ip6HdrOptionTypeInstance(uint32_t value) {
    return Mox::enumValue<Ip6HdrOptionType>(value);
}

Ip6HdrOptionType Ip6HdrOptionTypeInstance(const Mox::String& name) {
    return Mox::enumValue<Ip6HdrOptionType>(name);
}

void Ip6HdrPadNWrapper::paddingIs(uint8_t zeros) {
    requireFront(static_cast<uint32_t>(sizeof(Ip6HdrPadN) + zeros),
                 "( offset_ + sizeof( Ip6HdrPadN ) + zeros ) <= pkt_->frontBytes()");
    *header_ = Ip6HdrPadN();
    header_->optionLenIs(zeros);
    std::memset(reinterpret_cast<uint8_t*>(header_) + sizeof(Ip6HdrPadN), 0, zeros);
}

}  // namespace Pavo
