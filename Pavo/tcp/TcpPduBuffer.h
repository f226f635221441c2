/// @file
/// The buffers of both halves of an endpoint on a TCP stream.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/packet/Pkt.h"

namespace Pavo {

/// A packet with tail room for so many bytes, on a buffer of a size that is used again if that is
/// large enough.
inline Mox::Ptr<Pkt> newPktFor(uint32_t bytes) {
    const uint32_t size = bytes <= Pkt::Manager::defaultBufferSize
                              ? Pkt::Manager::defaultBufferSize
                              : std::max(bytes, Pkt::largeBufferSize);
    return globalPktManager()->newPkt(size, /*tailRoom=*/bytes);
}

/// `text`, followed by the text of an `errno`.
inline Mox::String withError(const char* text, int error) {
    return Mox::String(text) + std::strerror(error);
}

}  // namespace Pavo
