/// @file
/// A replacement for the socket of an IP endpoint. For the endpoints themselves; an agent does not
/// need it.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/PamSocket.h"
#include "Pavo/pam/PktReceiver.h"
#include "Pavo/pam/PktSender.h"
#include "Pavo/pam/RxInfo.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

/// Does what a socket does, for one endpoint, which owns it. It is used in the places where a
/// socket would be, and knows the attributes of its endpoint.
class IpTransport {
  public:
    virtual ~IpTransport() = default;

    /// Binds, as the attributes of the endpoint ask for, and gives `socket` what it watches.
    /// Returns the port of UDP.
    /// @throws Mox::ErrnoException as the endpoint does when it is enabled; nothing is then left.
    virtual Port open(AddressFamily family, PamSocket* socket) = 0;
    /// Closes; without effect when it is not open.
    virtual void close() = 0;
    /// Sends a packet whose addresses are right. Returns 0, or why it was not sent, as an `errno`.
    virtual int send(const Pkt& pkt, const TxInfo& info, const Mox::String& ifName) = 0;
    /// As `PktReceiver::readOne`: `*info` begins as the endpoint says.
    virtual RxRound readOne(PamSocket* socket, const RxSettings& settings, Mox::Ptr<Pkt>* pkt,
                            RxInfo* info) = 0;
    /// As `IpFamily::membershipIs`, of an open transport; a null `source` stands for all.
    virtual void membershipIs(uint32_t ifIndex, const IpGenAddr& group, const IpGenAddr* source,
                              bool member) = 0;

    /// As `sendPkts`.
    TxResult sendEach(std::span<const Mox::Ptr<Pkt>> pkts, const TxInfo& info,
                      const Mox::String& ifName);
    /// As `PktReceiver::readBatch`, by as many single reads as there are packets.
    std::unique_ptr<RxBatch> readBatch(PamSocket* socket, const RxSettings& settings,
                                       const RxInfo& first, uint32_t count);
};

}  // namespace Pavo
