/// @file
/// What IP endpoints say to the kernel of a packet that they send. For the endpoints themselves; an
/// agent does not need it.
#pragma once

#include <cstdint>

#include "Mox/String.h"
#include "Pavo/pam/PktSender.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

class IpFamily;

/// The attributes of an IP endpoint for the next packet.
struct IpTxSettings {
    const IpFamily& family;
    const IpGenAddr& source;
    const IpGenAddr& destination;
    const Mox::String& ifName;
    uint32_t ifIndex;
    int flags;
};

/// The `errno` for a packet that cannot be sent with these settings: a missing destination, an
/// address of another family; or 0.
int ipTxAddressError(const IpTxSettings& settings);
/// Fills in the head for the IP packets that `fd` sends to a port, 0 without one; a `connected`
/// socket has its destination. Makes one system call where the interface is given by name. Returns
/// 0, or why nothing can be sent, as an `errno`.
int ipTxHeadIs(TxHead* head, int fd, const IpTxSettings& settings, Port port, bool connected);

}  // namespace Pavo
