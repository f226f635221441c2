#include "Pavo/pam/IpPam.h"

#include <string>
#include <utility>
#include <vector>

#include "Mox/Assert.h"

namespace Pavo {

namespace {

// Sets `field`, lets `handle` act on it, and takes the value back when that throws.
template <class Field, class Handle>
bool handled(Field& field, Field value, Handle handle) {
    if (field == value) {
        return false;
    }
    const Field before = std::exchange(field, value);
    try {
        handle();
    } catch (...) {
        field = before;
        throw;
    }
    return true;
}

}  // namespace

Mox::String ipSocketOptionsText(uint32_t options) {
    if (options == none) {
        return stringValue(none);
    }
    std::string text;
    for (const auto& each : Mox::enumTable<IpSocketOptions>.members) {
        if ((options & each.value) != 0) {
            text.append(text.empty() ? "" : "|").append(each.name);
            options &= ~uint32_t{each.value};
        }
    }
    if (options != 0) {
        text.append(text.empty() ? "" : "|").append(std::to_string(options));
    }
    return Mox::String(text);
}

IpPam::IpPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs)
    : EntityOf(std::move(name)), protocol_(protocol), netNs_(std::move(netNs)) {}

IpPam::~IpPam() {
    fileDescDel();
}

void IpPam::doGetRxPkt() {
    Mox::require(false, "!\"IpPam doesn't use this interface.\"");
}

void IpPam::handleTxTOS() {}

void IpPam::handleTxTTL() {}

void IpPam::handlePriority() {}

void IpPam::optionsIsImpl(uint32_t options) {
    optionsStore(options);
}

void IpPam::enabledIsImpl(bool enabled) {
    enabledStore(enabled);
}

void IpPam::enabledIs(bool enabled) {
    if (enabled != enabled_) {
        const Mox::Ptr<IpPam> hold(this);  // An observer may drop the endpoint.
        enabledIsImpl(enabled);
    }
}

void IpPam::optionsIs(uint32_t options) {
    if (options != options_) {
        const Mox::Ptr<IpPam> hold(this);
        optionsIsImpl(options);
    }
}

void IpPam::enableBulkReadIs(bool enable) {
    if (enable == enableBulkRead_) {
        return;
    }
    const Mox::Ptr<IpPam> hold(this);
    std::vector<Mox::Ptr<Pkt>> pkts(enable ? socketReadLimit_ : 0);
    for (Mox::Ptr<Pkt>& each : pkts) {
        each = globalPktManager()->newPkt(rxBufferBytes_);
    }
    enableBulkRead_ = enable;
    bulkSlots_ = static_cast<uint8_t>(pkts.size());
    readIsPossibleAgain();
    if (enable) {
        slotsFill(pkts);
    } else {
        slotsDelAll();
    }
    if (enableBulkRead_ == enable) {  // Unless an observer of a slot has changed it again.
        notify(enableBulkReadAttr);
    }
}

void IpPam::rxFlagsIs(int flags) {
    if (changed(rxFlags_, flags)) {
        readIsPossibleAgain();
        notify(rxFlagsAttr);
    }
}

// Packets may wait behind an error that the kernel reports once, so the first failure in a row asks
// for one more report. A failure that stays then waits for the next event.
void IpPam::readEnded(ReadEnd end) {
    const bool failed = end == ReadEnd::failed;
    const bool failedBefore = std::exchange(lastReadFailed_, failed);
    if (fileDesc_) {
        fileDesc_->readTried(end == ReadEnd::packets || (failed && !failedBefore));
    }
}

// After reads that failed, packets may wait of which no event will come.
void IpPam::readIsPossibleAgain() {
    if (fileDesc_ && std::exchange(lastReadFailed_, false)) {
        fileDesc_->readTried(true);
    }
}

void IpPam::priorityIs(uint32_t priority) {
    if (handled(priority_, priority, [this] { handlePriority(); })) {
        notify(priorityAttr);
    }
}

void IpPam::txTOSIs(IpDscp tos) {
    if (handled(txTOS_, tos, [this] { handleTxTOS(); })) {
        notify(txTOSAttr);
    }
}

void IpPam::txTTLIs(IpTtl ttl) {
    if (handled(txTTL_, ttl, [this] { handleTxTTL(); })) {
        notify(txTTLAttr);
    }
}

void IpPam::rxFilterIs(uint8_t index, IpFilter instruction) {
    if (rxFilter_.is(index, instruction)) {
        notify(rxFilterAttr, index);
    }
}

void IpPam::fdSmIs() {
    const Mox::Ptr<Mox::FileDescriptor> fd = fileDesc_;
    if (!fd || fdSm_) {  // An observer of `enabled` may have disabled or reopened the endpoint.
        return;
    }
    const Mox::Ptr<PamFdSm> machine = PamFdSmIs(fd, this);
    if (fileDesc_ == fd) {
        fdSm_ = machine;
    }
}

void IpPam::fileDescDel() {
    if (const Mox::Ptr<PamFdSm> machine = std::exchange(fdSm_, nullptr)) {
        machine->moxDoZombieReactors(true);  // It points here, and others may hold it.
    }
    if (const Mox::Ptr<Mox::FileDescriptor> fd = std::exchange(fileDesc_, nullptr)) {
        fd->close();
    }
}

Mox::Ptr<IpPam> ipPamFactory(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs) {
    return Mox::make<IpPam>(std::move(name), protocol, std::move(netNs));
}

}  // namespace Pavo
