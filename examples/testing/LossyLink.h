/// @file
/// A wire that loses, repeats, swaps and delays frames.
#pragma once

#include <cstdint>
#include <map>
#include <random>

#include "Mox/Clock.h"
#include "Mox/Entity.h"
#include "Pavo/PamConnector.h"

namespace Guide {

/// The faults of a link, each drawn by itself. Chances are from 0 to 1.
struct LinkFaults {
    double loss = 0;
    /// That a frame arrives a second time, at a time of its own.
    double duplication = 0;
    /// That a frame is held back for `heldBackSeconds` more, so that others may overtake it. Frames
    /// that are not held back keep their order.
    double reordering = 0;
    double heldBackSeconds = 0.05;
    /// From sending to arrival, drawn evenly from this range.
    double minDelaySeconds = 0.001;
    double maxDelaySeconds = 0.001;
};

/// A wire between two agents, of which one uses the endpoint `left()` and the other `right()`. All
/// that happens follows from the seed and from what is sent when: with a manual clock, the same
/// test runs the same way each time.
///
/// Between each agent and the link is a connector, which adds its 2^-10 seconds to the delay.
class LossyLink {
  public:
    struct Counters {
        uint32_t taken = 0;  // From the agents.
        uint32_t lost = 0;
        uint32_t duplicated = 0;
        uint32_t heldBack = 0;
    };

    /// The clock has to outlive the link.
    LossyLink(Mox::Clock* clock, const LinkFaults& faults, uint32_t seed);

    Mox::Ptr<Pavo::PamConnectorPam> left() const { return left_.wire->pam("pam0"); }
    Mox::Ptr<Pavo::PamConnectorPam> right() const { return right_.wire->pam("pam0"); }
    const Counters& counters() const { return counters_; }
    /// Concerns frames that are sent from now on.
    void faultsIs(const LinkFaults& faults) { faults_ = faults; }

  private:
    struct Side {
        explicit Side(Mox::Clock* clock) : wire(Pavo::pamConnectorFactory(clock)) {}
        Mox::Ptr<Pavo::Pam> inner() const { return wire->pam("pam1"); }

        Mox::Ptr<Pavo::PamConnector> wire;
        double lastArrival = 0;  // Of the frames to this side that were not held back.
    };
    struct Flight {
        Side* to;
        Mox::Ptr<Pavo::Pkt> pkt;
    };

    void take(const Side& from, Side* to);
    void launch(Side* to, Mox::Ptr<Pavo::Pkt> pkt);
    void land();
    // Evenly from 0 up to, but not including, 1.
    double draw() { return static_cast<double>(random_()) / 4294967296.0; }

    LinkFaults faults_;
    std::mt19937 random_;
    Counters counters_;
    std::multimap<double, Flight> flights_;  // By arrival; those of one time in order.
    Side left_;
    Side right_;
    Mox::Timer landing_;
    Mox::Watch<Pavo::Pam> fromLeft_;
    Mox::Watch<Pavo::Pam> fromRight_;
};

}  // namespace Guide
