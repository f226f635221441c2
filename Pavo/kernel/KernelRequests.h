/// @file
/// Requests that change what the kernel knows: links, addresses, neighbours and routes.
///
/// Each is a message for `NetlinkSession::requestIs`, or many of them for `requestsAre`; its answer
/// is the kernel's error and text, such as EEXIST for an address that is there. The entities of
/// `KernelInfo` change when the kernel says so, whether before or after the answer.
///
///     info->session()->requestIs(Pavo::linkUpRequest(link->index(), true),
///                                [](const Pavo::NetlinkAnswer& answer) { ... });
#pragma once

#include <cstdint>
#include <functional>

#include "Mox/Ptr.h"
#include "Mox/String.h"

#include "Pavo/base/Export.h"
#include "Pavo/kernel/Link.h"
#include "Pavo/kernel/LinkAddress.h"
#include "Pavo/kernel/Neighbour.h"
#include "Pavo/kernel/NetlinkMessage.h"
#include "Pavo/kernel/NetlinkSession.h"
#include "Pavo/kernel/Route.h"
#include "Pavo/value/EthAddr.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

/// Sets a link up or down. Like all requests about a link that does not exist: ENODEV.
PAVO_EXPORT NetlinkMessage linkUpRequest(uint32_t ifIndex, bool isUp);
/// Sets the MTU, in bytes. EINVAL for one that the device does not take.
PAVO_EXPORT NetlinkMessage linkMtuRequest(uint32_t ifIndex, uint32_t bytes);
/// Sets the hardware address. EADDRNOTAVAIL for one of a group; EBUSY where the link has to be down
/// for it.
PAVO_EXPORT NetlinkMessage linkEthAddrRequest(uint32_t ifIndex, const EthAddr& address);
/// Renames a link: EEXIST for a name that is taken.
PAVO_EXPORT NetlinkMessage linkNameRequest(uint32_t ifIndex, const Mox::String& name);
/// Deletes a link: EOPNOTSUPP for one of hardware, and for `lo`.
PAVO_EXPORT NetlinkMessage linkDelRequest(uint32_t ifIndex);

/// Asks for the counters of a link. `done` gets them with the answer, all zero with an error.
/// Returns the number of the request, for `NetlinkSession::requestDel`.
PAVO_EXPORT uint32_t
requestLinkStatistics(const Mox::Ptr<NetlinkSession>& session, uint32_t ifIndex,
                      std::function<void(const NetlinkAnswer&, const LinkStatistics&)> done);

/// Adds an address to a link: EEXIST when it is there. The network in the key of `properties` is
/// not used, and flags have an effect only where ip-address(8) sets them, as IFA_F_NODAD. Without a
/// broadcast address a link has none.
/// @throws Mox::RangeException "LinkAddress: length or scope out of range"
PAVO_EXPORT NetlinkMessage addressAddRequest(const LinkAddress::Properties& properties);
/// Deletes an address: EADDRNOTAVAIL when there is none.
/// @throws Mox::RangeException as above.
PAVO_EXPORT NetlinkMessage addressDelRequest(const LinkAddressKey& key, uint32_t len);

/// Adds a neighbour, or replaces the one there is. A state other than `permanent` and `noArp` ages.
PAVO_EXPORT NetlinkMessage
neighbourReplaceRequest(const NeighbourKey& key, const EthAddr& address,
                        NeighbourState state = NeighbourState::permanent);
/// Adds one: EEXIST when there is one.
PAVO_EXPORT NetlinkMessage neighbourAddRequest(const NeighbourKey& key, const EthAddr& address,
                                               NeighbourState state = NeighbourState::permanent);
/// Deletes a neighbour: ENOENT when there is none.
PAVO_EXPORT NetlinkMessage neighbourDelRequest(const NeighbourKey& key);

/// Adds a route: EEXIST when its key is taken, ENETUNREACH for a gateway that is on no link.
/// @throws Mox::RangeException, as all requests about routes do,
/// "RouteHop::weight not in 1 to 256", for several next hops, and for more next hops than an
/// attribute holds, about 2,000, as `NetlinkMessage::nestEnd`.
PAVO_EXPORT NetlinkMessage routeAddRequest(const Route& route);
/// Adds a route, or replaces the first one of its key.
PAVO_EXPORT NetlinkMessage routeReplaceRequest(const Route& route);
/// Adds a route after those of its key; of IPv6, its next hops to those of a route with gateways.
PAVO_EXPORT NetlinkMessage routeAppendRequest(const Route& route);
/// Deletes the first route that is like this one; ESRCH when there is none. Without next hops, and
/// with 0 for protocol or type, any will do.
PAVO_EXPORT NetlinkMessage routeDelRequest(const Route& route);

}  // namespace Pavo
