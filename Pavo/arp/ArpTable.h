/// @file
/// The table of neighbours.
#pragma once

#include <cstdint>
#include <list>
#include <set>
#include <unordered_map>
#include <vector>

#include "Mox/Entity.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/arp/ArpEntry.h"
#include "Pavo/arp/ArpKey.h"
#include "Pavo/base/Export.h"

namespace Pavo {

/// The neighbours of all interfaces whose machines share the table, found by interface and address
/// in constant time. Agents read it: the entries are made, changed and removed by the machines
/// (`ArpSm`), one for each interface.
///
/// The table is bounded. A new entry at the bound takes the place of the entry that became `stale`
/// or `failed` first, or was used by its neighbour least recently since; where there is none, the
/// new entry is refused, which the machine counts. Entries that the agent asked for (permanent
/// ones, those that are refreshed or monitored) are neither removed nor refused.
///
/// Observers of `entry` are notified with the key, when an entry has been added and when it has
/// been removed. Its `state` is then `none`, and does not change any more.
class PAVO_EXPORT ArpTable : public Mox::EntityOf<ArpTable> {
  public:
    static constexpr Mox::Attribute<ArpTable, ArpKey> entryAttr{0, "entry"};
    static constexpr Mox::Attribute<ArpTable> maxEntriesAttr{1, "maxEntries"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::ArpTable", Mox::attribute(entryAttr),
                                Mox::attribute(maxEntriesAttr, &ArpTable::maxEntries));
    }

    /// Empty.
    explicit ArpTable(Mox::String name);

    Mox::String name() const override { return name_; }

    /// The entry, or null.
    Mox::Ptr<ArpEntry> entry(const ArpKey& key) const;
    /// All entries, in the order of their keys.
    std::vector<Mox::Ptr<ArpEntry>> entry() const;
    /// How many there are.
    uint32_t entries() const { return static_cast<uint32_t>(entry_.size()); }

    /// The bound; 16384 by default. A lower one removes no entry by itself.
    uint32_t maxEntries() const { return maxEntries_; }
    void maxEntriesIs(uint32_t entries) { attributeIs(maxEntries_, entries, maxEntriesAttr); }
    /// Entries that were removed for new ones.
    uint32_t evictions() const { return evictions_; }

  protected:
    ~ArpTable() override;

  private:
    friend class ArpResolver;

    Mox::String name_;
    std::unordered_map<ArpKey, Mox::Ptr<ArpEntry>, ArpKey::Hasher> entry_;
    std::set<uint32_t> machines_;     // The interfaces of those that are enabled.
    std::list<ArpEntry*> removable_;  // The first one is removed first.
    uint32_t maxEntries_ = 16384;
    uint32_t evictions_ = 0;
};

PAVO_EXPORT Mox::Ptr<ArpTable> arpTableFactory(Mox::String name);

}  // namespace Pavo
