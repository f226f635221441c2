#include "Pavo/arp/ProxyArp.h"

#include "Mox/Exception.h"

namespace Pavo {

ProxyArp::ProxyArp() = default;
ProxyArp::~ProxyArp() = default;

void ProxyArp::macIs(const Prefix& prefix, EthAddr mac) {
    if (!mac.isUnicast() || mac == EthAddr()) {
        Mox::throwRangeException("ProxyArp::mac is not unicast");
    }
    if (prefix.len() > 32) {
        Mox::throwRangeException("ProxyArp::prefix::len > 32 not allowed");
    }
    ofLength_[prefix.len()] += mac_.find(prefix) == nullptr ? 1 : 0;
    if (mac_.is(prefix, mac)) {
        notify(macAttr, prefix);
    }
}

void ProxyArp::macDel(const Prefix& prefix) {
    if (const auto gone = mac_.del(prefix)) {
        --ofLength_[(*gone).len()];
        notify(macAttr, *gone);
    }
}

std::optional<ProxyArp::Found> ProxyArp::find(IpAddr address) const {
    for (uint32_t len = 33; len-- > 0;) {
        if (ofLength_[len] != 0) {
            if (const EthAddr* mac = mac_.find(Prefix::containing(address, len))) {
                return Found{len == 32, *mac};
            }
        }
    }
    return std::nullopt;
}

}  // namespace Pavo
