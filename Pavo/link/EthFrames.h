/// @file
/// Frames sent on packet sockets. For the endpoints themselves; an agent does not need it.
#pragma once

#include <cstdint>
#include <span>

#include "Mox/Ptr.h"
#include "Mox/Trace.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/PktSender.h"

namespace Pavo {

/// Sends frames out of an interface on a packet socket, as `sendPkts` does, with separate VLAN tags
/// in their places.
TxResult sendFrames(int fd, uint32_t ifIndex, std::span<const Mox::Ptr<Pkt>> pkts,
                    const Mox::TraceFacility& trace);

}  // namespace Pavo
