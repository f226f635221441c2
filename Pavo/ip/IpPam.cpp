#include "Pavo/ip/IpPam.h"

#include <string>
#include <utility>
#include <vector>

#include "Mox/Assert.h"

namespace Pavo {

IpPam::IpPam(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs)
    : EntityOf(std::move(name)), protocol_(protocol), netNs_(std::move(netNs)) {}

IpPam::~IpPam() = default;

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
    const Mox::Ptr<IpPam> hold(this);
    if (bulkIs(&bulk_, enable, socketReadLimit_, rxBufferBytes_, &socket_)) {
        notify(enableBulkReadAttr);
    }
}

void IpPam::rxFlagsIs(int flags) {
    if (changed(rxFlags_, flags)) {
        socket_.readIsPossibleAgain();
        notify(rxFlagsAttr);
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

Mox::Ptr<IpPam> ipPamFactory(Mox::String name, IpProtocolNumber protocol, NamespaceName netNs) {
    return Mox::make<IpPam>(std::move(name), protocol, std::move(netNs));
}

}  // namespace Pavo
