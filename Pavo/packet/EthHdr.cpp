#include "Pavo/packet/EthHdr.h"

namespace Pavo {

namespace {

// Where the IP header begins after a record of `recordBytes` bytes that ends in the field `type`.
// What follows the record is a tag only if `len` holds all of it.
uint32_t offsetBehind(uint16_t type, uint32_t recordBytes, const uint8_t* next, uint32_t len) {
    while (type == EthType::dot1Q) {
        if (len - recordBytes < sizeof(Eth8021QHdr)) {
            return 0;
        }
        type = reinterpret_cast<const Eth8021QHdr*>(next)->type();
        next += sizeof(Eth8021QHdr);
        recordBytes += sizeof(Eth8021QHdr);
    }
    return type == EthType::ip || type == EthType::ip6 ? recordBytes : 0;
}

// `Hdr` ends in its type field.
template <class Hdr>
uint32_t offsetFrom(const Hdr* hdr, uint32_t len) {
    if (len < sizeof(Hdr)) {
        return 0;
    }
    return offsetBehind(hdr->type(), sizeof(Hdr), reinterpret_cast<const uint8_t*>(hdr + 1), len);
}

}  // namespace

uint32_t ipHdrOffset(const EthHdr* eth, uint32_t len) {
    return offsetFrom(eth, len);
}

uint32_t ipHdrOffset(const Eth8021QHdr* tag, uint32_t len) {
    return offsetFrom(tag, len);
}

}  // namespace Pavo
