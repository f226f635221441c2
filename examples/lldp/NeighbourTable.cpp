#include "lldp/NeighbourTable.h"

#include <algorithm>

namespace Lldp {

NeighbourTable::NeighbourTable(Mox::Clock* clock) : ageing_(clock, [this] { removeExpired(); }) {}

void NeighbourTable::neighbourIs(const Pdu& pdu) {
    if (pdu.ttlSeconds == 0) {
        neighbourDel(pdu.key);
        return;
    }
    if (neighbour(pdu.key) == nullptr && neighbours_.members() == maxNeighbours) {
        ++tooManyNeighbours_;
        return;
    }
    expiries_[pdu.key] = ageing_.clock()->now() + pdu.ttlSeconds;
    armAgeing();
    if (neighbours_.is(pdu.key, pdu)) {
        notify(neighbourAttr, pdu.key);
    }
}

void NeighbourTable::neighbourDel(const Key& key) {
    if (const auto gone = neighbours_.del(key)) {
        expiries_.erase(*gone);
        armAgeing();
        notify(neighbourAttr, *gone);
    }
}

void NeighbourTable::neighbourDelAll() {
    const Mox::Ptr<NeighbourTable> hold(this);
    while (!expiries_.empty()) {
        neighbourDel(expiries_.begin()->first);
    }
}

// One after the other: an observer may change the table meanwhile.
void NeighbourTable::removeExpired() {
    const Mox::Ptr<NeighbourTable> hold(this);
    const auto isExpired = [this](const auto& each) {
        return each.second <= ageing_.clock()->now();
    };
    for (;;) {
        const auto it = std::find_if(expiries_.begin(), expiries_.end(), isExpired);
        if (it == expiries_.end()) {
            break;
        }
        neighbourDel(it->first);
    }
    armAgeing();
}

void NeighbourTable::armAgeing() {
    double next = Mox::Clock::idle;
    for (const auto& [key, expiry] : expiries_) {
        next = std::min(next, expiry);
    }
    ageing_.expiryIs(next);
}

}  // namespace Lldp
