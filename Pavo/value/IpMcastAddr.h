/// @file
/// The MAC addresses of IPv4 multicast groups.
#pragma once

#include "Pavo/value/EthAddr.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

/// 01:00:5e and the low 23 bits of the address (RFC 1112, 6.4), for any address.
inline EthAddr ipMcastMacAddr(const IpAddr& group) {
    return group.mcastEtherAddress();
}

/// 01:00:5e:00:00:00 to 01:00:5e:7f:ff:ff.
constexpr bool isIpMcastMacAddr(const EthAddr& mac) {
    return mac.oui() == 0x01005e && (mac.byte(3) & 0x80) == 0;
}

}  // namespace Pavo
