/// @file
/// The neighbours of a port, as far as they are known.
#pragma once

#include <cstdint>
#include <map>

#include "Mox/Clock.h"
#include "Mox/Collections.h"
#include "lldp/LldpPdu.h"

namespace Lldp {

/// The last description of each neighbour, until its time to live has passed. An observer is
/// notified of the key of a neighbour that is new, says something else, or has gone. It may do
/// anything to the table, and drop the last reference to it.
class NeighbourTable : public Mox::EntityOf<NeighbourTable> {
  public:
    static constexpr Mox::Attribute<NeighbourTable, Key> neighbourAttr{0, "neighbour"};
    static constexpr auto description() {
        return Mox::classRecord("Lldp::NeighbourTable", Mox::attribute(neighbourAttr));
    }

    /// More are not taken: anybody can invent some.
    static constexpr uint32_t maxNeighbours = 32;

    /// Empty. The clock has to outlive the table.
    explicit NeighbourTable(Mox::Clock* clock);

    /// The neighbour with that key, or null.
    const Pdu* neighbour(const Key& key) const { return neighbours_.find(key); }
    const Mox::Map<Key, Pdu>& neighbour() const { return neighbours_; }
    /// Neighbours that were not taken for lack of room, each time one was received.
    uint32_t tooManyNeighbours() const { return tooManyNeighbours_; }

    /// Enters what a neighbour says; one whose time to live is 0 is removed.
    void neighbourIs(const Pdu& pdu);
    void neighbourDelAll();

  private:
    void neighbourDel(const Key& key);
    void removeExpired();
    void armAgeing();

    Mox::Map<Key, Pdu> neighbours_;
    std::map<Key, double> expiries_;  // Of each neighbour, in seconds of the clock.
    uint32_t tooManyNeighbours_ = 0;
    Mox::Timer ageing_;
};

}  // namespace Lldp
