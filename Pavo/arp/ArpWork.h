/// @file
/// What a machine keeps with an entry while the entry is in a table.
#pragma once

#include <cstdint>
#include <list>
#include <optional>
#include <vector>

#include "Keel/TimerWheel.h"
#include "Mox/Ptr.h"
#include "Pavo/arp/MonitoredNextHop.h"
#include "Pavo/packet/Pkt.h"

namespace Pavo {

class ArpEntry;
class ArpResolver;

/// The timer, the packets that wait, and what the agent wants of the entry.
struct ArpWork {
    /// Calls `ArpResolver::handleTimer`.
    class Timer : public Keel::TimerWheel::Notifiee {
      public:
        Timer(Keel::TimerWheel* wheel, ArpResolver* resolver, ArpEntry* entry)
            : Notifiee(wheel), resolver_(resolver), entry_(entry) {}
        void handleExpiry() override;

      private:
        ArpResolver* resolver_;
        ArpEntry* entry_;
    };
    /// A packet without its Ethernet header.
    struct Waiting {
        Mox::Ptr<Pkt> pkt;
        uint16_t etherType;
    };
    using Order = std::list<ArpEntry*>;

    ArpWork(Keel::TimerWheel* wheel, ArpResolver* machine, ArpEntry* entry)
        : timer(wheel, machine, entry), resolver(machine) {}

    Timer timer;
    ArpResolver* resolver;
    std::vector<Waiting> queue;
    /// Requests since the state was entered, or since the last confirmation.
    uint32_t asked = 0;
    /// From a confirmation until the entry is looked at again, while it is reachable.
    double intervalSeconds = 0;
    /// Set for an entry that is refreshed: its period, or 0 to refresh it by its age.
    std::optional<double> refreshSeconds;
    /// Null for an entry that is not monitored.
    Mox::Ptr<MonitoredNextHop> nextHop;
    /// The place in the table's list of entries that may be removed.
    std::optional<Order::iterator> place;
};

}  // namespace Pavo
