#include "Pavo/arp/ProxyArp.h"

#include <bit>

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
    lengths_ |= uint64_t{1} << prefix.len();
    if (mac_.is(prefix, mac)) {
        notify(macAttr, prefix);
    }
}

void ProxyArp::macDel(const Prefix& prefix) {
    if (const auto gone = mac_.del(prefix)) {
        const uint32_t len = (*gone).len();
        lengths_ &= --ofLength_[len] == 0 ? ~(uint64_t{1} << len) : ~uint64_t{0};
        notify(macAttr, *gone);
    }
}

std::optional<ProxyArp::Found> ProxyArp::find(IpAddr address) const {
    for (uint64_t left = lengths_; left != 0;) {
        const auto len = static_cast<uint32_t>(std::bit_width(left) - 1);
        if (const EthAddr* mac = mac_.find(Prefix::containing(address, len))) {
            return Found{len == 32, *mac};
        }
        left ^= uint64_t{1} << len;
    }
    return std::nullopt;
}

}  // namespace Pavo
