/// @file
/// The common part of endpoints on sockets that are read in batches.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Mox/Trace.h"
#include "Pavo/base/Export.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/FdPam.h"
#include "Pavo/pam/IpSocketOptions.h"

namespace Pavo {

struct RxBatch;
struct RxRound;
struct SocketOption;
struct SocketSettings;
class PktReceiver;

/// An endpoint on a socket, with options and with reading in batches. An agent uses one of the
/// classes made from it: `UdpPam` or `EthDevPam`.
class PAVO_EXPORT SocketPam : public Mox::EntityOf<SocketPam, FdPam> {
  public:
    static constexpr Mox::Attribute<SocketPam> optionsAttr{13, "options"};
    static constexpr Mox::Attribute<SocketPam> enableBulkReadAttr{14, "enableBulkRead"};
    static constexpr Mox::Attribute<SocketPam> socketReadLimitAttr{15, "socketReadLimit"};
    static constexpr Mox::Attribute<SocketPam> rxBufferBytesAttr{16, "rxBufferBytes"};
    static constexpr Mox::Attribute<SocketPam> rxBufAttr{17, "rxBuf"};
    static constexpr Mox::Attribute<SocketPam> priorityAttr{18, "priority"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::SocketPam", Mox::attribute(optionsAttr, &SocketPam::options),
                                Mox::attribute(enableBulkReadAttr, &SocketPam::enableBulkRead),
                                Mox::attribute(socketReadLimitAttr, &SocketPam::socketReadLimit),
                                Mox::attribute(rxBufferBytesAttr, &SocketPam::rxBufferBytes),
                                Mox::attribute(rxBufAttr, &SocketPam::rxBuf),
                                Mox::attribute(priorityAttr, &SocketPam::priority));
    }

    void doGetRxPkt() override;
    int32_t doGetBulkRxPkt() override;

    /// The options that are wanted, bits of `IpSocketOptions`; they describe the socket while it is
    /// open. Bits of options that this kind of socket does not have change nothing.
    uint32_t options() const { return options_; }
    /// @throws Mox::ErrnoException naming the option that failed; `options` then describes the
    /// socket. A socket that refuses `ipPriority` or `ipTransparent` is closed.
    void optionsIs(uint32_t options);

    /// As `IpPam` has them: reading in batches, the most packets of a batch (32), the size of the
    /// buffer for a packet in bytes (1536; at least `maxRxPktData` counts), the receive buffer of
    /// `ipRcvBuf`, the priority of `ipPriority`.
    /// @{
    bool enableBulkRead() const { return bulk_.isOn; }
    void enableBulkReadIs(bool enable);
    uint8_t socketReadLimit() const { return socketReadLimit_; }
    void socketReadLimitIs(uint8_t packets) {
        attributeIs(socketReadLimit_, packets, socketReadLimitAttr);
    }
    uint32_t rxBufferBytes() const { return rxBufferBytes_; }
    void rxBufferBytesIs(uint32_t bytes) { attributeIs(rxBufferBytes_, bytes, rxBufferBytesAttr); }
    uint32_t rxBuf() const { return rxBuf_; }
    void rxBufIs(uint32_t bytes) { attributeIs(rxBuf_, bytes, rxBufAttr); }
    uint32_t priority() const { return priority_; }
    void priorityIs(uint32_t priority) { attributeIs(priority_, priority, priorityAttr); }
    /// @}

  protected:
    /// The functions that each class of endpoints has of its own, beside `Steps`.
    struct SocketSteps {
        /// The table of options for the socket that is open.
        std::span<const SocketOption> (*optionTable)(const SocketPam* pam);
        /// The attribute values that the rows apply.
        SocketSettings (*socketSettings)(const SocketPam* pam);
        /// Reads one packet.
        RxRound (*readOne)(SocketPam* pam, Mox::Ptr<Pkt>* pkt, RxInfo* info);
        /// Reads a batch; null where nothing could be looked for.
        std::unique_ptr<RxBatch> (*readBatch)(SocketPam* pam);
    };
    /// The steps of `Endpoint`, which has them as members of these names.
    template <class Endpoint>
    static constexpr SocketSteps socketStepsOf();

    /// Disabled; `className` is that of the endpoint, for traces.
    SocketPam(Mox::String name, const Steps& steps, const SocketSteps& socketSteps,
              const Mox::TraceFacility& trace, const char* className);
    ~SocketPam() override;

    /// Reads the packets of the socket.
    PktReceiver& receiver() const { return *receiver_; }
    /// The packets that fit into a batch.
    uint8_t bulkSlots() const { return bulk_.slots; }

  private:
    void readSingle();
    void count(const RxRound& round);
    int32_t readBulk();

    const SocketSteps socketSteps_;
    const std::unique_ptr<PktReceiver> receiver_;
    Bulk bulk_;
    uint8_t socketReadLimit_ = 32;
    uint32_t options_ = none;
    uint32_t rxBufferBytes_ = Pkt::Manager::defaultBufferSize;
    uint32_t rxBuf_ = 0;
    uint32_t priority_ = 0;
};

template <class Endpoint>
constexpr SocketPam::SocketSteps SocketPam::socketStepsOf() {
    return {
        [](const SocketPam* pam) { return static_cast<const Endpoint*>(pam)->optionTable(); },
        [](const SocketPam* pam) { return static_cast<const Endpoint*>(pam)->socketSettings(); },
        [](SocketPam* pam, Mox::Ptr<Pkt>* pkt, RxInfo* info) {
            return static_cast<Endpoint*>(pam)->readOne(pkt, info);
        },
        [](SocketPam* pam) { return static_cast<Endpoint*>(pam)->readBatch(); }};
}

}  // namespace Pavo
