/// @file
/// The rules by which a multiplexer picks a client for a packet.
#pragma once

#include <cstdint>
#include <functional>

#include "Mox/Ptr.h"
#include "Pavo/base/Export.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/RxInfo.h"
#include "Pavo/value/Ip.h"

namespace Pavo {

class BpfFilter;

/// Which packets a client of a `PamMux` wants: those with one number in a header, which the
/// multiplexer looks up, or those for which a function returns true, which it calls.
///
/// Numbers are read from headers as far as these are there, and no checksum is verified: a match
/// says where a packet belongs, and the client checks it. VLAN tags before the EtherType (0x8100,
/// 0x88a8) are passed over, and so are hop-by-hop options, routing, destination options and
/// fragment headers before the protocol of an IPv6 packet. A later fragment of a datagram has a
/// protocol, but no port.
class PAVO_EXPORT PamMuxMatch {
  public:
    /// Sees a packet and what is known of it, and returns whether the client wants it. It changes
    /// neither the packet nor the multiplexer, and reads nothing from an endpoint.
    using Function = std::function<bool(const Mox::Ptr<Pkt>& pkt, const RxInfo& info)>;

    /// The type field of a frame, one of `EthType`. Packets that begin with an IP header have that
    /// of their version.
    static PamMuxMatch etherType(uint16_t type);
    /// The protocol that an IPv4 or IPv6 packet carries.
    static PamMuxMatch ipProtocol(IpProtocolNumber protocol);
    /// The destination of a UDP datagram, over IPv4 or IPv6.
    static PamMuxMatch udpPort(Port port);
    /// Frames that pass the filter, which is held. It expects an Ethernet header.
    /// @pre a filter (assertion "filter != nullptr").
    static PamMuxMatch filter(Mox::Ptr<BpfFilter> filter);
    /// Packets for which it returns true. Where it throws, the packet goes to the next match, and
    /// the exception leaves the multiplexer after all clients are notified.
    /// @pre not empty (assertion "function != nullptr").
    static PamMuxMatch function(Function function);
    /// Every packet.
    static PamMuxMatch all();

    /// The kinds of numbers, from the outermost header to the innermost.
    enum class Number : uint8_t { etherType, ipProtocol, udpPort };

    /// The function; empty for a match of a number.
    const Function& function() const { return function_; }
    /// The number and its kind, for a match without a function.
    /// @{
    Number number() const { return number_; }
    uint16_t value() const { return value_; }
    /// @}

  private:
    PamMuxMatch(Number number, uint16_t value) : number_(number), value_(value) {}
    explicit PamMuxMatch(Function function) : function_(std::move(function)) {}

    Function function_;
    Number number_ = Number::etherType;
    uint16_t value_ = 0;
};

}  // namespace Pavo
