#include "Pavo/packet/SctpHdr.h"

#include "Mox/Assert.h"

#include "Pavo/packet/Crc32.h"

namespace Pavo {

SctpChecksum SctpHdr::computedChecksum(uint32_t bytes) const {
    Mox::require(bytes >= sizeof(SctpHdr), "bytes >= sizeof( SctpHdr )");
    SctpHdr zeroed = *this;
    zeroed.checksumIs({});
    const auto* chunks = reinterpret_cast<const uint8_t*>(this) + sizeof(SctpHdr);
    const uint32_t header = Crc32c::crc(&zeroed, sizeof(zeroed));
    const uint32_t crc =
        Crc32c::crc(chunks, bytes - static_cast<uint32_t>(sizeof(SctpHdr)), header);
    return SctpChecksum(__builtin_bswap32(crc));
}

}  // namespace Pavo
