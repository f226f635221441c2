#include "Pavo/arp/ArpEntry.h"

#include "Pavo/arp/ArpWork.h"

namespace Pavo {

ArpEntry::ArpEntry(const ArpKey& key) : key_(key) {}

ArpEntry::~ArpEntry() = default;

uint32_t ArpEntry::queued() const {
    return work_ ? static_cast<uint32_t>(work_->queue.size()) : 0;
}

}  // namespace Pavo
