#include "testing/LossyLink.h"

#include <algorithm>
#include <utility>

namespace Guide {

namespace {

// With bytes of its own: who receives a frame may write in it.
Mox::Ptr<Pavo::Pkt> copyOf(const Pavo::Pkt& pkt) {
    Mox::Ptr<Pavo::Pkt> copy = Pavo::globalPktManager()->newPkt();
    copy->stringValueIs(pkt.stringValue(), /*atTail=*/false);
    if (pkt.hasSeparateVlanTag()) {
        copy->newSeparateVlanTag(pkt.separateVlanTci(), pkt.separateVlanTpid());
    }
    return copy;
}

}  // namespace

LossyLink::LossyLink(Mox::Clock* clock, const LinkFaults& faults, uint32_t seed)
    : faults_(faults),
      random_(seed),
      left_(clock),
      right_(clock),
      landing_(clock, [this] { land(); }),
      fromLeft_(left_.inner(), Pavo::Pam::readableCountAttr, [this] { take(left_, &right_); }),
      fromRight_(right_.inner(), Pavo::Pam::readableCountAttr, [this] { take(right_, &left_); }) {}

void LossyLink::take(const Side& from, Side* to) {
    Mox::Ptr<Pavo::Pkt> pkt = from.inner()->rxPkt();
    if (!pkt) {
        return;
    }
    ++counters_.taken;
    if (draw() < faults_.loss) {
        ++counters_.lost;
        return;
    }
    if (draw() < faults_.duplication) {
        ++counters_.duplicated;
        launch(to, copyOf(*pkt));
    }
    launch(to, std::move(pkt));
}

void LossyLink::launch(Side* to, Mox::Ptr<Pavo::Pkt> pkt) {
    const double spread = faults_.maxDelaySeconds - faults_.minDelaySeconds;
    double arrival = landing_.clock()->now() + faults_.minDelaySeconds + draw() * spread;
    if (draw() < faults_.reordering) {
        ++counters_.heldBack;
        arrival += faults_.heldBackSeconds;
    } else {
        arrival = to->lastArrival = std::max(arrival, to->lastArrival);
    }
    flights_.emplace(arrival, Flight{to, std::move(pkt)});
    landing_.expiryIs(flights_.begin()->first);
}

void LossyLink::land() {
    while (!flights_.empty() && flights_.begin()->first <= landing_.clock()->now()) {
        const Flight flight = flights_.extract(flights_.begin()).mapped();
        flight.to->inner()->txPktIs(flight.pkt);
    }
    landing_.expiryIs(flights_.empty() ? Mox::Clock::idle : flights_.begin()->first);
}

}  // namespace Guide
