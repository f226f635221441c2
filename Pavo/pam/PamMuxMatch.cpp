#include "Pavo/pam/PamMuxMatch.h"

#include <utility>

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
    return function([filter = std::move(filter)](const Mox::Ptr<Pkt>& pkt, const RxInfo&) {
        return filter->match(pkt);
    });
}

PamMuxMatch PamMuxMatch::function(Function function) {
    return PamMuxMatch(std::move(function));
}

PamMuxMatch PamMuxMatch::all() {
    return function([](const Mox::Ptr<Pkt>&, const RxInfo&) { return true; });
}

}  // namespace Pavo
