/// @file
/// Packets that arrive at a host inside the process. For `IpHost` itself; an agent does not need
/// it.
#pragma once

#include <cstdint>

#include "Mox/Ptr.h"
#include "Pavo/packet/IpMsg.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/RxInfo.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpAddr.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

/// A packet that has arrived at a host, and what its headers say. Ports are those of UDP.
struct IpArrival {
    IpMsg msg;
    uint32_t ifIndex = 0;
    uint8_t tos = 0;
    Port srcPort;
    Port dstPort;
    /// The length of a datagram, with its header; 0 where header or checksum are wrong.
    uint32_t udpBytes = 0;

    /// Reads the headers; false for a packet that no host takes.
    static bool read(const Mox::Ptr<Pkt>& pkt, IpArrival* arrival);

    /// Takes the addresses and ports of the datagram that an ICMP message says has no receiver;
    /// false for another message.
    bool readUnreachable(PktInfo* sent) const;

    bool isToMany() const { return isToMany(msg.dst); }
    static bool isToMany(const IpGenAddr& address) {
        return address.isMulticast() || isBroadcast(address);
    }
    static bool isBroadcast(const IpGenAddr& address);

  private:
    void readUdp();
};

}  // namespace Pavo
