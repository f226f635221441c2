/// @file
/// How fast an endpoint receives packets, one for each call and in batches.
#pragma once

#include <cstdint>

#include "Pavo/IpAddr.h"
#include "Pavo/NamespaceName.h"

namespace Demo {

/// Packets per second, the time of sending not counted.
struct ReceiveRates {
    double single;
    double bulk;
};

/// Sends bursts of small packets from one namespace to an address in another, and reads them there,
/// alternately with `rxPkt` and with `rxPktBulk`.
/// @throws std::runtime_error when a packet of a burst does not arrive.
ReceiveRates measureReceiveRates(const Pavo::NamespaceName& from, const Pavo::NamespaceName& at,
                                 const Pavo::IpAddr& address);

}  // namespace Demo
