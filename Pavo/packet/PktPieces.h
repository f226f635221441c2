/// @file
/// A range of a packet, piece by piece. For the sources of this layer; an agent does not need it.
#pragma once

#include <algorithm>
#include <cstdint>

#include "Pavo/packet/Pkt.h"

namespace Pavo {

/// Calls `visit(data, n)` for each part of the `bytes` bytes from `offset` on that lies in one
/// piece of the packet; `n` is not 0. What goes past the packet's end is left out.
template <class Visit>
void forEachPiece(const Pkt& pkt, uint32_t offset, uint32_t bytes, Visit visit) {
    for (const Pkt::Iovec& piece : pkt.iovecs()) {
        const uint32_t skipped = std::min(offset, piece.bytes);
        const uint32_t n = std::min(bytes, piece.bytes - skipped);
        if (n != 0) {
            visit(piece.data + skipped, n);
        }
        offset -= skipped;
        bytes -= n;
    }
}

}  // namespace Pavo
