#include "Pavo/arp/ArpTable.h"

#include <algorithm>
#include <utility>

#include "Pavo/arp/ArpWork.h"

namespace Pavo {

ArpTable::ArpTable(Mox::String name) : name_(std::move(name)) {}

ArpTable::~ArpTable() = default;

Mox::Ptr<ArpEntry> ArpTable::entry(const ArpKey& key) const {
    const auto found = entry_.find(key);
    return found == entry_.end() ? nullptr : found->second;
}

std::vector<Mox::Ptr<ArpEntry>> ArpTable::entry() const {
    std::vector<Mox::Ptr<ArpEntry>> entries;
    entries.reserve(entry_.size());
    for (const auto& [key, each] : entry_) {
        entries.push_back(each);
    }
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return a->key() < b->key(); });
    return entries;
}

Mox::Ptr<ArpTable> arpTableFactory(Mox::String name) {
    return Mox::make<ArpTable>(std::move(name));
}

}  // namespace Pavo
