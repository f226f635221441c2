/// @file
/// The packet access mechanism: the one shape in which every packet endpoint is offered to an
/// agent.
#pragma once

#include <cstdint>
#include <utility>

#include "Mox/Collections.h"
#include "Mox/Entity.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/packet/Pkt.h"

namespace Pavo {

class Pam;

/// Sees the packets that pass an endpoint; `Pam::tapIs` attaches one. It changes neither packet nor
/// endpoint, and does not call back.
class PAVO_EXPORT PktTap : public Mox::PtrInterface {
  public:
    /// A packet that was not read into a slot of a batch.
    static constexpr int32_t noSlot = -1;

    /// A packet handed over for sending, just before it is sent: whether it was is told by the
    /// endpoint's counts.
    virtual void handleTxPkt(const Pam& pam, const Pkt& pkt) = 0;
    /// A packet read, before the agent has it; `slot` is its place in `savedPacket`, or `noSlot`.
    virtual void handleRxPkt(const Pam& pam, const Pkt& pkt, int32_t slot) = 0;

  protected:
    PktTap() = default;
    ~PktTap() override;
};

/// The base of packet endpoints. An agent watches `readableCount` and `writableCount`, which go up
/// when the endpoint may be read or written, and then asks for a packet with `rxPkt` or hands one
/// over with `txPktIs`. Traffic failures never throw: they are counted here.
///
/// The concrete endpoint owns the descriptor and the `PamFdSm` that bumps the two counts. An
/// observer may, while it is told of a count, read, write, disable the endpoint or drop the last
/// reference to it.
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
    virtual void handleWritableCount();

    /// Packets received and dropped. Tells no observer, so that a device endpoint may answer from
    /// the kernel's statistics.
    virtual uint32_t rxDrops() const;
    virtual void rxDropsIs(uint32_t drops);

    /// Sends; the base only keeps the packet in `txPkt`.
    virtual void txPktIsImpl(Mox::Ptr<Pkt> pkt);
    /// Reads one packet into the `rxPkt` slot, or leaves that null.
    virtual void doGetRxPkt() = 0;
    /// Reads a batch into `savedPacket` and returns its size; an endpoint that has one hands each
    /// packet to `tapSlot`. The base fails with the assertion
    /// "0 && \"Need to implement doGetBulkRxPkt in a derived class\"".
    virtual int32_t doGetBulkRxPkt();

    /// Bumped by one each time the descriptor is seen readable, by `PamFdSm`.
    uint32_t readableCount() const { return readableCount_; }
    void readableCountIs(uint32_t count);
    uint32_t readableCountInc(uint32_t delta);
    /// Bumped by one each time the descriptor is seen writable, by `PamFdSm`.
    uint32_t writableCount() const { return writableCount_; }
    void writableCountIs(uint32_t count);
    uint32_t writableCountInc(uint32_t delta);

    /// Reads one packet; null when nothing was read. The packet is the caller's.
    Mox::Ptr<Pkt> rxPkt() const;
    /// Reads a batch: returns how many packets `savedPacket` now holds, each with its
    /// `savedPacketRx` set.
    int32_t rxPktBulk() const;

    /// Sends a packet; what becomes of it is counted.
    void txPktIs(Mox::Ptr<Pkt> pkt) {
        if (tap_ && pkt) {
            tap_->handleTxPkt(*this, *pkt);
        }
        txPktIsImpl(std::move(pkt));
    }
    /// The last packet handed to the base's `txPktIsImpl`.
    Mox::Ptr<Pkt> txPkt() const { return txPkt_; }

    /// What sees the packets that pass in both directions; null, and at no cost, by default.
    const Mox::Ptr<PktTap>& tap() const { return tap_; }
    void tapIs(Mox::Ptr<PktTap> tap) { tap_ = std::move(tap); }

    /// Packets that were not sent, for example for want of room.
    uint32_t txDrops() const { return txDrops_; }
    void txDropsIs(uint32_t drops) { attributeIs(txDrops_, drops, txDropsAttr); }
    uint32_t txDropsInc(uint32_t delta) { return attributeInc(txDrops_, delta, txDropsAttr); }
    /// Sends that failed, and the `errno` of the last attempt (0 when it succeeded).
    uint32_t txErrors() const { return txErrors_; }
    void txErrorsIs(uint32_t errors) { attributeIs(txErrors_, errors, txErrorsAttr); }
    uint32_t txErrorsInc(uint32_t delta) { return attributeInc(txErrors_, delta, txErrorsAttr); }
    int32_t txErrno() const { return txErrno_; }
    void txErrnoIs(int32_t value) { attributeIs(txErrno_, value, txErrnoAttr); }
    /// Reads that failed, those among them that found nothing to read.
    uint32_t rxErrors() const { return rxErrors_; }
    void rxErrorsIs(uint32_t errors) { attributeIs(rxErrors_, errors, rxErrorsAttr); }
    uint32_t rxErrorsInc(uint32_t delta) { return attributeInc(rxErrors_, delta, rxErrorsAttr); }

    /// The packets of a bulk read by slot, null past the last one.
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

    /// Where `doGetRxPkt` leaves what it read.
    void rxPktIs(Mox::Ptr<Pkt> pkt) { rxPkt_ = std::move(pkt); }
    /// Shows the tap a packet of a batch. For the time when all is known of the packet, and nobody
    /// has been told of it.
    void tapSlot(uint32_t slot, const Pkt& pkt) const {
        if (tap_) {
            tap_->handleRxPkt(*this, pkt, static_cast<int32_t>(slot));
        }
    }

  private:
    // Released from the last to the first when the endpoint dies.
    Mox::String name_;
    Mox::Ptr<PktTap> tap_;
    Mox::Ptr<Pkt> txPkt_;
    Mox::Ptr<Pkt> rxPkt_;
    Mox::Array<Mox::Ptr<Pkt>> savedPacket_;
    Mox::Array<bool> savedPacketRx_;
    uint32_t readableCount_ = 0;
    uint32_t writableCount_ = 0;
    uint32_t txDrops_ = 0;
    uint32_t txErrors_ = 0;
    int32_t txErrno_ = 0;
    uint32_t rxErrors_ = 0;
    uint32_t rxDrops_ = 0;
};

}  // namespace Pavo
