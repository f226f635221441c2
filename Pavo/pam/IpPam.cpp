#include "Pavo/pam/IpPam.h"

#include <utility>

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
        const Mox::Ptr<IpPam> hold(this);  // An observer of what follows may drop the endpoint.
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
    const Mox::Ptr<IpPam> hold(this);
    if (enable == enableBulkRead_) {
        return;
    }
    bulkSlots_ = enable ? socketReadLimit_ : 0;
    if (enable) {
        for (uint32_t slot = 0; slot < bulkSlots_; ++slot) {
            savedPacketIs(slot, globalPktManager()->newPkt());
        }
    } else {
        savedPacketDelAll();
        savedPacketRxDelAll();
    }
    attributeIs(enableBulkRead_, enable, enableBulkReadAttr);
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
    if (!fd || fdSm_) {  // An observer of what came before may have reopened the endpoint.
        return;
    }
    const Mox::Ptr<PamFdSm> machine = PamFdSmIs(fd, this);
    if (fileDesc_ == fd) {
        fdSm_ = machine;
    }
}

void IpPam::fileDescDel() {
    if (const Mox::Ptr<PamFdSm> machine = std::exchange(fdSm_, nullptr)) {
        machine->moxDoZombieReactors(true);  // Somebody may hold the machine, which points here.
    }
    if (const Mox::Ptr<Mox::FileDescriptor> fd = std::exchange(fileDesc_, nullptr)) {
        fd->close();
    }
}

Mox::Ptr<IpPam> ipPamFactory(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs) {
    return Mox::make<IpPam>(std::move(name), protocol, std::move(netNs));
}

}  // namespace Pavo
