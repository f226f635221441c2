#include "Pavo/label/MplsLabelStack.h"

#include <algorithm>

#include "Mox/Assert.h"

namespace Pavo {

MplsLabelEntry::MplsLabelEntry(MplsLabel label, uint32_t cos, bool bos, uint8_t ttl)
    : MplsLabelEntry(label.value() << labelShift | cos << cosShift | (bos ? 1u : 0u) << bosShift |
                     ttl) {
    if (label.value() > MplsLabel::maxValue) {
        Mox::throwRangeException("MplsLabelEntry::label > 1048575 not allowed");
    }
    if (cos > maxCos) {
        Mox::throwRangeException("MplsLabelEntry::cos > 7 not allowed");
    }
}

MplsLabelEntry MplsLabelStack::labelEntry(uint32_t index) const {
    if (index >= size()) {
        Mox::throwRangeException("MplsLabelStack::labelEntry: index out of range");
    }
    return entries_[index];
}

void MplsLabelStack::labelEntryIs(uint32_t index, MplsLabelEntry entry) {
    if (index > size()) {
        Mox::throwRangeException("MplsLabelStack::labelEntryIs: index out of range");
    }
    if (index == size()) {
        entries_.push_back(entry);
    } else {
        entries_[index] = entry;
    }
}

void MplsLabelStack::labelEntryDel(uint32_t index) {
    if (index >= size()) {
        Mox::throwRangeException("MplsLabelStack::labelEntryDel: index out of range");
    }
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(index));
}

bool MplsLabelStack::valid() const {
    const auto bottom = std::find_if(entries_.begin(), entries_.end(),
                                     [](MplsLabelEntry each) { return each.bos(); });
    return bottom != entries_.end() && bottom + 1 == entries_.end();
}

const char* MplsLabelStack::parse(Mox::TextCursor&) {
    Mox::require(false, "No String constructor for MplsLabelStack - has collection");
    return invalidText;
}

void MplsLabelStack::print(Mox::TextWriter& out) const {
    Mox::printRecord(out, *this, description());
}

}  // namespace Pavo
