/// @file
/// Next hops that are watched.
#pragma once

#include "Mox/Entity.h"
#include "Mox/String.h"
#include "Pavo/arp/ArpKey.h"
#include "Pavo/base/Export.h"
#include "Pavo/value/EthAddr.h"

namespace Pavo {

/// A neighbour that `ArpSm::nextHopIs` watches: a request goes to its MAC once a period after each
/// answer. It is lost when as many requests as `ArpSettings::unicastRequests` says had no answer,
/// so at the latest the period and that many times `retransSeconds` after its last answer. Then a
/// broadcast request is sent at once and in each period (of `retransSeconds` at least), so that it
/// is back within a period after it answers again, also with another MAC.
///
/// All attributes of a change are set before the first observer is notified.
class PAVO_EXPORT MonitoredNextHop : public Mox::EntityOf<MonitoredNextHop> {
  public:
    static constexpr Mox::Attribute<MonitoredNextHop> reachableAttr{0, "reachable"};
    static constexpr Mox::Attribute<MonitoredNextHop> macAttr{1, "mac"};
    static constexpr Mox::Attribute<MonitoredNextHop> sinceAttr{2, "since"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::MonitoredNextHop",
                                Mox::attribute(reachableAttr, &MonitoredNextHop::reachable),
                                Mox::attribute(macAttr, &MonitoredNextHop::mac),
                                Mox::attribute(sinceAttr, &MonitoredNextHop::since));
    }

    /// For machines.
    MonitoredNextHop(const ArpKey& key, double periodSeconds, double since);

    /// The address as text.
    Mox::String name() const override { return key_.address().stringValue(); }

    /// The neighbour in the table.
    const ArpKey& key() const { return key_; }
    /// From an answer to the next request.
    double periodSeconds() const { return periodSeconds_; }

    /// False until the first answer, and while the machine is disabled.
    bool reachable() const { return reachable_; }
    /// The last one known; zero before the first answer.
    EthAddr mac() const { return mac_; }
    /// When `reachable` became what it is, in seconds of the machine's clock.
    double since() const { return since_; }

  protected:
    ~MonitoredNextHop() override;

  private:
    friend class ArpResolver;

    ArpKey key_;
    double periodSeconds_;
    bool reachable_ = false;
    EthAddr mac_;
    double since_;
};

}  // namespace Pavo
