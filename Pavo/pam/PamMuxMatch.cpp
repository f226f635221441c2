#include "Pavo/pam/PamMuxMatch.h"

#include <utility>

#include "Mox/Assert.h"
#include "Pavo/pam/BpfFilter.h"

namespace Pavo {

PamMuxMatch PamMuxMatch::etherType(uint16_t type) {
    return {Number::etherType, type};
}

PamMuxMatch PamMuxMatch::ipProtocol(IpProtocolNumber protocol) {
    return {Number::ipProtocol, static_cast<uint16_t>(protocol)};
}

PamMuxMatch PamMuxMatch::udpPort(Port port) {
    return {Number::udpPort, port.value()};
}

PamMuxMatch PamMuxMatch::filter(Mox::Ptr<BpfFilter> filter) {
    Mox::require(filter != nullptr, "filter != nullptr");
    return function([filter = std::move(filter)](const Mox::Ptr<Pkt>& pkt, const RxInfo&) {
        return filter->match(pkt);
    });
}

PamMuxMatch PamMuxMatch::function(Function function) {
    Mox::require(function != nullptr, "function != nullptr");
    return PamMuxMatch(std::move(function));
}

PamMuxMatch PamMuxMatch::all() {
    return function([](const Mox::Ptr<Pkt>&, const RxInfo&) { return true; });
}

}  // namespace Pavo
