/// @file
/// The messages of packet sockets. For the endpoints themselves; an agent does not need
/// it.
#pragma once

#include <cstdint>

#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/RxFormat.h"
#include "Pavo/pam/RxInfo.h"

struct sockaddr_ll;

namespace Pavo {

/// The format of packet sockets that report auxiliary data (PACKET_AUXDATA in packet(7)).
const RxFormat& ethFormat();

/// Takes the status of a frame (TP_STATUS_ in <linux/if_packet.h>): the VLAN tag that the kernel
/// took out of it becomes the separate tag of the packet.
void takeFrameStatus(uint32_t status, uint16_t vlanTci, uint16_t vlanTpid, Pkt* pkt, RxInfo* info);

/// Takes the interface of a frame and the type of its receiver.
void takeFrameAddress(const sockaddr_ll& address, RxInfo* info);

}  // namespace Pavo
