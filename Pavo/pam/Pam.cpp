#include "Pavo/pam/Pam.h"

#include <utility>

#include "Mox/Assert.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/pam/PamSocket.h"

namespace Pavo {

PktTap::~PktTap() = default;

Pam::~Pam() {
    notifieeList()->delAll();
}

void Pam::handleReadableCount() {}

void Pam::handleWritableCount() {}

uint32_t Pam::rxDrops() const {
    return rxDrops_;
}

void Pam::rxDropsIs(uint32_t drops) {
    rxDrops_ = drops;
}

void Pam::txPktIsImpl(Mox::Ptr<Pkt> pkt) {
    txPkt_ = std::move(pkt);
}

int32_t Pam::doGetBulkRxPkt() {
    Mox::require(false, "0 && \"Need to implement doGetBulkRxPkt in a derived class\"");
    return 0;
}

// The handler runs first, so that a subclass has read its packet before an observer is notified. It
// may drop the last reference to the endpoint.
void Pam::readableCountIs(uint32_t count) {
    if (changed(readableCount_, count)) {
        const Mox::Ptr<Pam> hold(this);
        handleReadableCount();
        notify(readableCountAttr);
    }
}

void Pam::writableCountIs(uint32_t count) {
    if (changed(writableCount_, count)) {
        const Mox::Ptr<Pam> hold(this);
        handleWritableCount();
        notify(writableCountAttr);
    }
}

uint32_t Pam::readableCountInc(uint32_t delta) {
    const Mox::Ptr<Pam> hold(this);
    readableCountIs(readableCount_ + delta);
    return readableCount_;
}

uint32_t Pam::writableCountInc(uint32_t delta) {
    const Mox::Ptr<Pam> hold(this);
    writableCountIs(writableCount_ + delta);
    return writableCount_;
}

// Reading is const for the agent, since the packet comes from outside; for the endpoint it is not.
Mox::Ptr<Pkt> Pam::rxPkt() const {
    const Mox::Ptr<Pam> self(const_cast<Pam*>(this));
    self->doGetRxPkt();
    if (!rxPkt_) {
        self->rxPktIs(nullptr);  // An observer may have read it.
    }
    if (tap_ && rxPkt_) {
        tap_->handleRxPkt(*this, *rxPkt_, rxInfo_);
    }
    return std::exchange(self->rxPkt_, nullptr);
}

int32_t Pam::rxPktBulk() const {
    const Mox::Ptr<Pam> self(const_cast<Pam*>(this));
    return self->doGetBulkRxPkt();
}

uint32_t Pam::txPktsIs(std::span<const Mox::Ptr<Pkt>> pkts) {
    const Mox::Ptr<Pam> hold(this);
    for (const Mox::Ptr<Pkt>& each : pkts) {
        Mox::require(each != nullptr, "pkt != nullptr");
    }
    if (batchSender_ != nullptr) {
        for (std::size_t i = 0; tap_ && !tapsWhatItSends_ && i < pkts.size(); ++i) {
            tap_->handleTxPkt(*this, *pkts[i], TxInfo());
        }
        return batchSender_(this, pkts);
    }
    uint32_t taken = 0;
    int32_t lastError = 0;
    txErrnoIs(0);
    while (taken < pkts.size() && !isNoRoom(lastError)) {
        txPktIs(pkts[taken]);
        lastError = txErrno_ != 0 ? txErrno_ : lastError;
        taken += isNoRoom(lastError) ? 0 : 1;
    }
    FirstException exception;
    exception.collect([&] { txErrnoIs(lastError); });
    if (taken + 1 < pkts.size()) {  // The first one that found no room is counted already.
        exception.collect([&] { txErrorsInc(static_cast<uint32_t>(pkts.size()) - taken - 1); });
    }
    exception.rethrow();
    return taken;
}

RxInfo Pam::rxInfo(uint32_t slot) const {
    return slot < slotInfos_.size() ? slotInfos_[slot] : RxInfo();
}

void Pam::savedPacketIs(uint32_t slot, Mox::Ptr<Pkt> pkt) {
    if (savedPacket_.is(slot, std::move(pkt))) {
        notify(savedPacketAttr, slot);
    }
}

std::vector<Mox::Ptr<Pkt>> Pam::newSlots(uint32_t count, uint32_t bufferBytes) {
    std::vector<Mox::Ptr<Pkt>> pkts(count);
    for (Mox::Ptr<Pkt>& each : pkts) {
        each = globalPktManager()->newPkt(bufferBytes);
    }
    return pkts;
}

bool Pam::bulkIs(Bulk* bulk, bool on, uint8_t limit, uint32_t bufferBytes, PamSocket* socket) {
    if (on == bulk->isOn) {
        return false;
    }
    const std::vector<Mox::Ptr<Pkt>> pkts = newSlots(on ? limit : 0, bufferBytes);
    *bulk = {on, static_cast<uint8_t>(pkts.size())};
    socket->readIsPossibleAgain();
    if (on) {
        slotsFill(pkts);
    } else {
        slotsDelAll();
    }
    return bulk->isOn == on;
}

void Pam::slotsFill(const std::vector<Mox::Ptr<Pkt>>& pkts) {
    const Mox::Ptr<Pam> hold(this);
    for (uint32_t slot = 0; slot < pkts.size(); ++slot) {
        (void)savedPacket_.is(slot, pkts[slot]);  // New packets: each is a change.
    }
    for (uint32_t slot = 0; slot < pkts.size(); ++slot) {
        notify(savedPacketAttr, slot);
    }
}

void Pam::slotsDelAll() {
    const Mox::Ptr<Pam> hold(this);
    uint32_t pkts = savedPacket_.members();
    uint32_t flags = savedPacketRx_.members();
    isPublishingSlots_ = false;
    savedPacket_.delAll([](uint32_t) {});
    savedPacketRx_.delAll([](uint32_t) {});
    slotInfos_.clear();
    while (pkts-- != 0) {
        notify(savedPacketAttr, pkts);
    }
    while (flags-- != 0) {
        notify(savedPacketRxAttr, flags);
    }
}

int32_t Pam::slotsPublish(std::vector<Mox::Ptr<Pkt>>* pkts, std::span<const RxInfo> infos,
                          const std::function<void()>& count) {
    FirstException exception;
    isPublishingSlots_ = true;
    exception.collect([&] { slotsChange(pkts, infos); });
    exception.collect(count);
    const bool isThere = std::exchange(isPublishingSlots_, false);
    exception.rethrow();
    return isThere ? static_cast<int32_t>(infos.size()) : 0;
}

// An observer that removes the slots ends the publishing.
void Pam::slotsChange(std::vector<Mox::Ptr<Pkt>>* pkts, std::span<const RxInfo> infos) {
    slotInfos_.assign(infos.begin(), infos.end());
    for (uint32_t slot = 0; slot < infos.size(); ++slot) {
        tapSlot(slot, *(*pkts)[slot]);
    }
    FirstException exception;
    for (uint32_t slot = 0; slot < pkts->size() && isPublishingSlots_; ++slot) {
        exception.collect([&] { savedPacketIs(slot, std::move((*pkts)[slot])); });
        if (isPublishingSlots_) {
            exception.collect([&] { savedPacketRxIs(slot, slot < infos.size()); });
        }
    }
    exception.rethrow();
}

void Pam::slotsReceivedNone() {
    slotInfos_.clear();
    FirstException exception;
    for (uint32_t slot = 0; slot < savedPacketRx_.members(); ++slot) {
        exception.collect([&] { savedPacketRxIs(slot, false); });
    }
    exception.rethrow();
}

void Pam::savedPacketRxIs(uint32_t slot, bool received) {
    if (!received && slot >= savedPacketRx_.members()) {
        return;
    }
    if (savedPacketRx_.is(slot, received)) {
        notify(savedPacketRxAttr, slot);
    }
}

}  // namespace Pavo
