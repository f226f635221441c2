#include "Pavo/packet/IpHdr.h"

#include <iomanip>
#include <ios>
#include <ostream>

namespace Pavo {

namespace {

struct Hex {
    IpChecksum checksum;

    friend std::ostream& operator<<(std::ostream& out, const Hex& hex) {
        const std::ios_base::fmtflags flags = out.flags();
        const char fill = out.fill('0');
        out << "0x" << std::hex << std::setw(4) << hex.checksum.value();
        out.flags(flags);
        out.fill(fill);
        return out;
    }
};

}  // namespace

std::ostream& operator<<(std::ostream& out, const IpHdr& header) {
    // The byte itself, which prints as its name or, where it has none, as its number.
    const auto protocol = static_cast<IpProtocolNumber>(header.protocol());
    out << " src: " << header.src() << " dst: " << header.dst() << " proto: " << protocol
        << " len: " << header.totalLen() << " header len " << header.headerBytes()
        << " id: " << header.id() << " ttl: " << header.ttl()
        << " checksum: " << Hex{header.checksum()} << " computed checksum: ";
    if (header.headerBytes() > sizeof(IpHdr)) {
        return out << "unknown";  // Bad packets are printed too: there may be no options.
    }
    return out << Hex{header.computedChecksum()};
}

}  // namespace Pavo
