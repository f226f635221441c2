/// @file
/// The common part of endpoints on descriptors of their own.
#pragma once

#include <cstdint>
#include <span>
#include <type_traits>
#include <utility>

#include "Mox/FileDescriptor.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/Pam.h"
#include "Pavo/pam/PamSocket.h"

namespace Pavo {

struct TxResult;

/// An endpoint that opens a descriptor while it is enabled: a socket, or a device. An agent uses
/// one of the classes made from it, such as `UdpPam`, `EthDevPam`, `TapPam` or `RawTxPam`.
///
/// Enabling either succeeds whole or leaves nothing open. A send that fails is counted in
/// `txErrors`, with the reason in `txErrno`, and dropped; when there was no room, `writableCount`
/// is incremented once, as soon as there is some.
class PAVO_EXPORT FdPam : public Mox::EntityOf<FdPam, Pam> {
  public:
    static constexpr Mox::Attribute<FdPam> enabledAttr{8, "enabled"};
    static constexpr Mox::Attribute<FdPam> txPktCountAttr{9, "txPktCount"};
    static constexpr Mox::Attribute<FdPam> rxPktCountAttr{10, "rxPktCount"};
    static constexpr Mox::Attribute<FdPam> rxTruncatedPktsAttr{11, "rxTruncatedPkts"};
    static constexpr Mox::Attribute<FdPam> maxRxPktDataAttr{12, "maxRxPktData"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::FdPam", Mox::attribute(enabledAttr, &FdPam::enabled),
                                Mox::attribute(txPktCountAttr, &FdPam::txPktCount),
                                Mox::attribute(rxPktCountAttr, &FdPam::rxPktCount),
                                Mox::attribute(rxTruncatedPktsAttr, &FdPam::rxTruncatedPkts),
                                Mox::attribute(maxRxPktDataAttr, &FdPam::maxRxPktData));
    }

    /// @pre enabled (assertion "enabled()"), with a packet (assertion "pkt != nullptr").
    void txPktIsImpl(Mox::Ptr<Pkt> pkt) override;

    /// Whether the descriptor is open.
    bool enabled() const { return enabled_; }
    /// @pre to enable: an event loop on this thread (assertion "EventLoop::current(): enabling
    /// needs an event loop on this thread").
    /// @throws Mox::ErrnoException naming the call that failed: one of those that the class of the
    /// endpoint lists, "fcntl(F_GETFL)", "fcntl(F_SETFL)" or "epoll_ctl"; the endpoint is then
    /// disabled.
    void enabledIs(bool enabled);

    /// Packets sent.
    uint64_t txPktCount() const { return txPktCount_; }
    void txPktCountIs(uint64_t count) { attributeIs(txPktCount_, count, txPktCountAttr); }
    uint64_t txPktCountInc(uint64_t delta) {
        return attributeInc(txPktCount_, delta, txPktCountAttr);
    }
    /// Packets received.
    uint64_t rxPktCount() const { return rxPktCount_; }
    void rxPktCountIs(uint64_t count) { attributeIs(rxPktCount_, count, rxPktCountAttr); }
    uint64_t rxPktCountInc(uint64_t delta) {
        return attributeInc(rxPktCount_, delta, rxPktCountAttr);
    }
    /// Packets received truncated, see `maxRxPktData`.
    uint32_t rxTruncatedPkts() const { return rxTruncatedPkts_; }
    void rxTruncatedPktsIs(uint32_t packets) {
        attributeIs(rxTruncatedPkts_, packets, rxTruncatedPktsAttr);
    }
    uint32_t rxTruncatedPktsInc(uint32_t delta) {
        return attributeInc(rxTruncatedPkts_, delta, rxTruncatedPktsAttr);
    }
    /// The room for a packet, in bytes (1536). A longer one arrives cut, with
    /// `RxInfo::truncated`.
    uint32_t maxRxPktData() const { return maxRxPktData_; }
    void maxRxPktDataIs(uint32_t bytes) { attributeIs(maxRxPktData_, bytes, maxRxPktDataAttr); }

    /// The descriptor and the machine that watches it; null while disabled.
    /// @{
    const Mox::Ptr<Mox::FileDescriptor>& fileDesc() const { return socket_.fileDesc(); }
    const Mox::Ptr<PamFdSm>& fdSm() const { return socket_.fdSm(); }
    /// @}

  protected:
    /// The functions that each class of endpoints has of its own. The order of the virtual
    /// operations of an endpoint is known outside, so these are none.
    struct Steps {
        /// Opens the descriptor and hands it to `socket`. Throws, with nothing left open.
        void (*open)(FdPam* pam);
        /// Forgets what described the descriptor, and closes it.
        void (*close)(FdPam* pam);
        /// Sends packets on a descriptor, which is -1 where an observer has closed it.
        TxResult (*send)(FdPam* pam, int fd, std::span<const Mox::Ptr<Pkt>> pkts);
    };
    /// The steps of `Endpoint`, which has them as members named `open`, `close` and `send`.
    template <class Endpoint>
    static constexpr Steps stepsOf();

    /// Disabled.
    FdPam(Mox::String name, const Steps& steps);
    ~FdPam() override;

    /// The descriptor, and when it is reported.
    /// @{
    PamSocket& socket() { return socket_; }
    const PamSocket& socket() const { return socket_; }
    /// @}
    /// For `open`, where there is a descriptor to watch.
    static void requireEventLoop();
    /// Disables the endpoint, also while it is being enabled.
    void cleanup();
    /// Sets an attribute, and lets `apply` change the descriptor, of the given number, while it is
    /// open; when that throws, the attribute keeps its value. False when it has it already.
    template <class Field, class Apply>
    bool applied(Field& field, std::type_identity_t<Field> value, Apply apply) {
        return appliedOn(socket_.fileDesc(), field, value, apply);
    }
    /// The same for another descriptor, which is open unless it is null.
    template <class Field, class Apply>
    static bool appliedOn(const Mox::Ptr<Mox::FileDescriptor>& fd, Field& field,
                          std::type_identity_t<Field> value, Apply apply) {
        return handled(field, value, [&] { fd ? apply(fd->descriptor()) : void(); });
    }

  private:
    static uint32_t sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts);
    void start();

    const Steps steps_;
    bool enabled_ = false;
    uint32_t rxTruncatedPkts_ = 0;
    uint32_t maxRxPktData_ = Pkt::Manager::defaultBufferSize;
    uint64_t txPktCount_ = 0;
    uint64_t rxPktCount_ = 0;
    PamSocket socket_;
};

template <class Endpoint>
constexpr FdPam::Steps FdPam::stepsOf() {
    return {[](FdPam* pam) { static_cast<Endpoint*>(pam)->open(); },
            [](FdPam* pam) { static_cast<Endpoint*>(pam)->close(); },
            [](FdPam* pam, int fd, std::span<const Mox::Ptr<Pkt>> pkts) {
                return static_cast<Endpoint*>(pam)->send(fd, pkts);
            }};
}

}  // namespace Pavo
