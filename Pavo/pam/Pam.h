/// @file
/// The packet access mechanism: the interface of every packet endpoint.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

#include "Mox/Collections.h"
#include "Mox/Entity.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/RxInfo.h"

namespace Pavo {

class Pam;
class PamSocket;

/// Sees the packets that pass an endpoint; `Pam::tapIs` attaches one. It changes neither packet nor
/// endpoint, and does not call back.
class PAVO_EXPORT PktTap : public Mox::PtrInterface {
  public:
    /// A packet handed over for sending, just before it is sent: the endpoint's counts say whether
    /// it was.
    virtual void handleTxPkt(const Pam& pam, const Pkt& pkt, const TxInfo& info) = 0;
    /// A packet that was read, before the agent has it.
    virtual void handleRxPkt(const Pam& pam, const Pkt& pkt, const RxInfo& info) = 0;

  protected:
    PktTap() = default;
    ~PktTap() override;
};

/// The base of packet endpoints. An agent watches `readableCount` and `writableCount`, which go up
/// when the endpoint may be read or written, and then asks for a packet with `rxPkt` or hands one
/// over with `txPktIs`. Traffic failures never throw: they are counted here. One packet, or one
/// batch, for each report is enough: while more wait, the next turn reports again. An endpoint that
/// an agent does not read is not reported again before it was read.
///
/// The concrete endpoint owns the descriptor and the `PamFdSm` that increments the two counts.
/// While it is notified of a count, an observer may read, write, disable the endpoint and drop the
/// last reference to it.
class PAVO_EXPORT Pam : public Mox::EntityOf<Pam> {
  public:
    static constexpr Mox::Attribute<Pam> readableCountAttr{0, "readableCount"};
    static constexpr Mox::Attribute<Pam> writableCountAttr{1, "writableCount"};
    static constexpr Mox::Attribute<Pam> txDropsAttr{2, "txDrops"};
    static constexpr Mox::Attribute<Pam> txErrorsAttr{3, "txErrors"};
    static constexpr Mox::Attribute<Pam> txErrnoAttr{4, "txErrno"};
    static constexpr Mox::Attribute<Pam> rxErrorsAttr{5, "rxErrors"};
    static constexpr Mox::Attribute<Pam, uint32_t> savedPacketAttr{6, "savedPacket"};
    static constexpr Mox::Attribute<Pam, uint32_t> savedPacketRxAttr{7, "savedPacketRx"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::Pam", Mox::attribute(readableCountAttr, &Pam::readableCount),
                                Mox::attribute(writableCountAttr, &Pam::writableCount),
                                Mox::attribute(txDropsAttr, &Pam::txDrops),
                                Mox::attribute(txErrorsAttr, &Pam::txErrors),
                                Mox::attribute(txErrnoAttr, &Pam::txErrno),
                                Mox::attribute(rxErrorsAttr, &Pam::rxErrors),
                                Mox::attribute(savedPacketAttr), Mox::attribute(savedPacketRxAttr));
    }

    Mox::String name() const override { return name_; }

    /// Called when `readableCount` has changed, before any observer; the base does nothing.
    virtual void handleReadableCount();
    /// Called when `writableCount` has changed, before any observer; the base does nothing.
    virtual void handleWritableCount();

    /// Packets received and dropped. Notifies no observer, so that a device endpoint may answer
    /// from the kernel's statistics.
    virtual uint32_t rxDrops() const;
    virtual void rxDropsIs(uint32_t drops);

    /// Sends; the base only keeps the packet in `txPkt`.
    virtual void txPktIsImpl(Mox::Ptr<Pkt> pkt);
    /// Reads one packet into the `rxPkt` slot, or leaves that null.
    virtual void doGetRxPkt() = 0;
    /// Reads a batch into `savedPacket` and returns its size; an endpoint that offers this hands
    /// each packet to `tapSlot`. The base fails with the assertion
    /// "0 && \"Need to implement doGetBulkRxPkt in a derived class\"".
    virtual int32_t doGetBulkRxPkt();

    /// Incremented by one, by `PamFdSm`, each time the descriptor is reported readable.
    uint32_t readableCount() const { return readableCount_; }
    void readableCountIs(uint32_t count);
    uint32_t readableCountInc(uint32_t delta);
    /// Incremented by one, by `PamFdSm`, each time the descriptor is reported writable.
    uint32_t writableCount() const { return writableCount_; }
    void writableCountIs(uint32_t count);
    uint32_t writableCountInc(uint32_t delta);

    /// Reads one packet; null when nothing was read. The packet is the caller's. When an observer
    /// of what is counted throws, the exception passes through, and the next call returns the
    /// packet.
    Mox::Ptr<Pkt> rxPkt() const;
    /// Reads a batch: returns how many packets `savedPacket` now holds, each with its
    /// `savedPacketRx` set. An endpoint that reads batches is read with this function only.
    int32_t rxPktBulk() const;
    /// Metadata of the packet that the last `rxPkt` returned; all zero when it returned null.
    const RxInfo& rxInfo() const { return rxInfo_; }
    /// Metadata of the packet in a slot of the last batch; all zero for a slot without one.
    RxInfo rxInfo(uint32_t slot) const;

    /// Sends a packet; the result is counted.
    void txPktIs(Mox::Ptr<Pkt> pkt) {
        if (tap_ && pkt && !tapsWhatItSends_) {
            tap_->handleTxPkt(*this, *pkt, TxInfo());
        }
        txPktIsImpl(std::move(pkt));
    }
    /// Sends packets in order, each of which is counted as `txPktIs` counts it; an endpoint on a
    /// socket makes one system call for many of them. Returns how many, from the first one, were
    /// sent or refused for good: those after them found no room, which is announced by
    /// `writableCount`. `txErrno` is then why the last one that failed did, or 0.
    /// @pre every packet is there (assertion "pkt != nullptr").
    uint32_t txPktsIs(std::span<const Mox::Ptr<Pkt>> pkts);
    /// The last packet handed to the base's `txPktIsImpl`.
    Mox::Ptr<Pkt> txPkt() const { return txPkt_; }

    /// The tap that sees the packets of both directions; null, and without cost, by default.
    const Mox::Ptr<PktTap>& tap() const { return tap_; }
    void tapIs(Mox::Ptr<PktTap> tap) { tap_ = std::move(tap); }

    /// Packets that the endpoint dropped without an attempt to send them. A send that finds no room
    /// has been attempted, and counts as a `txErrors`.
    uint32_t txDrops() const { return txDrops_; }
    void txDropsIs(uint32_t drops) { attributeIs(txDrops_, drops, txDropsAttr); }
    uint32_t txDropsInc(uint32_t delta) { return attributeInc(txDrops_, delta, txDropsAttr); }
    /// Sends that failed; `txErrno` says why, of the last one.
    uint32_t txErrors() const { return txErrors_; }
    void txErrorsIs(uint32_t errors) { attributeIs(txErrors_, errors, txErrorsAttr); }
    uint32_t txErrorsInc(uint32_t delta) { return attributeInc(txErrors_, delta, txErrorsAttr); }
    /// The `errno` of the last attempt to send, 0 when it succeeded.
    int32_t txErrno() const { return txErrno_; }
    void txErrnoIs(int32_t value) { attributeIs(txErrno_, value, txErrnoAttr); }
    /// Reads that failed; on raw IP endpoints, reads that found nothing count too.
    uint32_t rxErrors() const { return rxErrors_; }
    void rxErrorsIs(uint32_t errors) { attributeIs(rxErrors_, errors, rxErrorsAttr); }
    uint32_t rxErrorsInc(uint32_t delta) { return attributeInc(rxErrors_, delta, rxErrorsAttr); }

    /// The packets of a bulk read by slot, null past the last one. Keep the pointer while you use
    /// what it leads to: the next read changes the slot. Until then the slots hold their packets,
    /// which `savedPacketDelAll` gives back where memory counts; the next read then makes new ones.
    Mox::Ptr<Pkt> savedPacket(uint32_t slot) const { return savedPacket_.at(slot); }
    const Mox::Array<Mox::Ptr<Pkt>>& savedPacket() const { return savedPacket_; }
    void savedPacketIs(uint32_t slot, Mox::Ptr<Pkt> pkt);
    void savedPacketDel(uint32_t slot) { memberDel(savedPacket_, slot, savedPacketAttr); }
    void savedPacketDelAll() { memberDelAll(savedPacket_, savedPacketAttr); }
    /// Whether a slot holds a received packet.
    bool savedPacketRx(uint32_t slot) const { return savedPacketRx_.at(slot); }
    const Mox::Array<bool>& savedPacketRx() const { return savedPacketRx_; }
    /// False past the last slot changes nothing and does not grow the array.
    void savedPacketRxIs(uint32_t slot, bool received);
    void savedPacketRxDel(uint32_t slot) { memberDel(savedPacketRx_, slot, savedPacketRxAttr); }
    void savedPacketRxDelAll() { memberDelAll(savedPacketRx_, savedPacketRxAttr); }

  protected:
    explicit Pam(Mox::String name) : name_(std::move(name)) {}
    ~Pam() override;

    /// Whether `rxPktIs` has left a packet that `rxPkt` has not returned yet.
    bool hasRxPkt() const { return rxPkt_ != nullptr; }
    /// Sets `field`, lets `handle` act on it, and takes the value back when that throws. False when
    /// it is the value already.
    template <class Field, class Handle>
    static bool handled(Field& field, std::type_identity_t<Field> value, Handle handle) {
        if (field == value) {
            return false;
        }
        const Field before = std::exchange(field, std::move(value));
        try {
            handle();
        } catch (...) {
            field = before;
            throw;
        }
        return true;
    }

    /// Where `doGetRxPkt` leaves what it read, and what is known of it.
    void rxPktIs(Mox::Ptr<Pkt> pkt) {
        rxPkt_ = std::move(pkt);
        if (std::exchange(hasRxInfo_, false)) {
            rxInfo_ = RxInfo();
        }
    }
    void rxPktIs(Mox::Ptr<Pkt> pkt, const RxInfo& info) {
        rxPkt_ = std::move(pkt);
        rxInfo_ = info;
        hasRxInfo_ = true;
    }
    /// The same in two steps: the metadata, all zero, for the read to fill in; then the packet,
    /// or null where there was none. Nobody is notified between them.
    /// @{
    RxInfo* rxInfoToFill() {
        rxInfo_ = RxInfo();
        return &rxInfo_;
    }
    void rxPktFilledIs(Mox::Ptr<Pkt> pkt) {
        hasRxInfo_ = true;
        if (pkt) {
            rxPkt_ = std::move(pkt);
        } else {
            rxPktIs(nullptr);
        }
    }
    /// @}
    /// New packets for the slots of a batch, with buffers of that size.
    static std::vector<Mox::Ptr<Pkt>> newSlots(uint32_t count, uint32_t bufferBytes);
    /// How an endpoint reads in batches.
    struct Bulk {
        /// Whether it does.
        bool isOn = false;
        /// How many packets fit into a batch.
        uint8_t slots = 0;
    };
    /// Switches reading in batches, of up to `limit` packets. Returns whether that is a change
    /// which stands: an observer of a slot may have switched it again.
    bool bulkIs(Bulk* bulk, bool on, uint8_t limit, uint32_t bufferBytes, PamSocket* socket);
    /// Puts packets into the slots from 0 on; removes all slots. Observers are notified when that
    /// is done.
    /// @{
    void slotsFill(const std::vector<Mox::Ptr<Pkt>>& pkts);
    void slotsDelAll();
    /// @}
    /// Puts the packets of a batch into the slots from 0 on, of which those with an entry in
    /// `infos` were received, and leaves none in `pkts`; then calls `count`. Each slot is changed,
    /// and `count` is called, also where an observer of a slot throws. Returns how many packets the
    /// slots hold then: none where an observer has removed the slots.
    int32_t slotsPublish(std::vector<Mox::Ptr<Pkt>>* pkts, std::span<const RxInfo> infos,
                         const std::function<void()>& count);
    /// Whether observers are being notified of a batch: no other one can be read.
    bool isPublishingSlots() const { return isPublishingSlots_; }
    /// Nothing was read: no slot holds a received packet, also where an observer throws.
    void slotsReceivedNone();
    /// The metadata of the packets of a batch, by slot: as long as the batch.
    std::vector<RxInfo>& slotInfos() { return slotInfos_; }
    /// Shows the tap the packet in a slot of a batch, which `slotInfos` already describes, before
    /// any observer is notified of it.
    void tapSlot(uint32_t slot, const Pkt& pkt) const {
        if (tap_) {
            tap_->handleRxPkt(*this, pkt, slotInfos_[slot]);
        }
    }
    /// For the constructor of an endpoint that knows more of the packets that it sends than their
    /// bytes: it shows them to the tap in its `txPktIsImpl`, with `TxInfo`. For all others
    /// `txPktIs` does so.
    void tapsWhatItSendsIs(bool taps) { tapsWhatItSends_ = taps; }
    /// Sends a batch for an endpoint, as `txPktsIs` says.
    using BatchSender = uint32_t (*)(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts);
    /// For the constructor of an endpoint that sends many packets at once. A class that overrides
    /// `txPktIsImpl` of such an endpoint sets null: its batches then go there, one packet after the
    /// other.
    void batchSenderIs(BatchSender sender) { batchSender_ = sender; }

  private:
    void slotsChange(std::vector<Mox::Ptr<Pkt>>* pkts, std::span<const RxInfo> infos);

    // Released from the last to the first when the endpoint dies.
    Mox::String name_;
    Mox::Ptr<PktTap> tap_;
    Mox::Ptr<Pkt> txPkt_;
    Mox::Ptr<Pkt> rxPkt_;
    Mox::Array<Mox::Ptr<Pkt>> savedPacket_;
    Mox::Array<bool> savedPacketRx_;
    RxInfo rxInfo_;
    std::vector<RxInfo> slotInfos_;
    bool hasRxInfo_ = false;
    BatchSender batchSender_ = nullptr;
    bool tapsWhatItSends_ = false;
    bool isPublishingSlots_ = false;
    uint32_t readableCount_ = 0;
    uint32_t writableCount_ = 0;
    uint32_t txDrops_ = 0;
    uint32_t txErrors_ = 0;
    int32_t txErrno_ = 0;
    uint32_t rxErrors_ = 0;
    uint32_t rxDrops_ = 0;
};

}  // namespace Pavo
