/// @file
/// Label stack entries in a packet.
#pragma once

#include <cstdint>
#include <string_view>

#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/label/MplsLabel.h"
#include "Pavo/label/MplsLabelStack.h"
#include "Pavo/packet/HdrWrapper.h"
#include "Pavo/packet/NetU.h"

namespace Pavo {

/// One label stack entry, laid over the bytes of a packet, or free-standing and all zero to build
/// one from; `MplsLabelEntry` has the layout. A setter changes the bits of its field only.
class MplsHdr {
  public:
    static constexpr std::string_view recordName = "MplsHdr";

    /// All four fields.
    MplsLabelEntry entry() const { return entry_; }
    void entryIs(MplsLabelEntry entry) { entry_ = entry; }

    /// 0 to 1048575.
    MplsLabel label() const { return entry_.label(); }
    /// @throws Mox::RangeException "MplsHdrWrapper::label < MplsHdrWrapper::min or >
    /// MplsHdrWrapper::null not allowed" past 20 bits; nothing changes then.
    void labelIs(uint32_t label) {
        if (label > MplsLabel::maxValue) {
            Mox::throwRangeException(
                "MplsHdrWrapper::label < MplsHdrWrapper::min or > MplsHdrWrapper::null not "
                "allowed");
        }
        fieldIs(MplsLabelEntry::labelShift, MplsLabel::maxValue, label);
    }
    void labelIs(MplsLabel label) { labelIs(label.value()); }
    /// The traffic class, 0 to 7.
    uint8_t cos() const { return entry_.cos(); }
    /// @throws Mox::RangeException "MplsHdrWrapper::cos > 7 not allowed"; nothing changes then.
    void cosIs(uint32_t cos) {
        if (cos > MplsLabelEntry::maxCos) {
            Mox::throwRangeException("MplsHdrWrapper::cos > 7 not allowed");
        }
        fieldIs(MplsLabelEntry::cosShift, MplsLabelEntry::maxCos, cos);
    }
    /// Whether this is the bottom of the stack.
    bool bos() const { return entry_.bos(); }
    void bosIs(bool bos) { fieldIs(MplsLabelEntry::bosShift, 1, bos ? 1 : 0); }
    /// The time to live, in hops.
    uint8_t ttl() const { return entry_.ttl(); }
    void ttlIs(uint8_t ttl) { fieldIs(0, 0xff, ttl); }

    /// `noError`: an entry says nothing that could be wrong.
    PktErrors check(uint32_t) const { return PktErrors::noError; }

  private:
    void fieldIs(uint32_t shift, uint32_t mask, uint32_t field) {
        entry_ = MplsLabelEntry((entry_.value() & ~(mask << shift)) | field << shift);
    }

    MplsLabelEntry entry_;
};
static_assert(isOverlay<MplsHdr>(4));

/// For one label stack entry; the next one is 4 bytes on, unless `bos()`.
///
/// Members: as those of `MplsHdr`.
class PAVO_EXPORT MplsHdrWrapper : public HdrWrapper<MplsHdrWrapper, MplsHdr> {
  public:
    using HdrWrapper::HdrWrapper;

    static constexpr const char* typeName = "Pavo::MplsHdrWrapper";

    MplsLabel label() const { return header_->label(); }
    /// As `MplsHdr::labelIs`.
    void labelIs(uint32_t label) { header_->labelIs(label); }
    void labelIs(MplsLabel label) { header_->labelIs(label); }
    uint8_t cos() const { return header_->cos(); }
    /// As `MplsHdr::cosIs`.
    void cosIs(uint32_t cos) { header_->cosIs(cos); }
    bool bos() const { return header_->bos(); }
    void bosIs(bool bos) { header_->bosIs(bos); }
    uint8_t ttl() const { return header_->ttl(); }
    void ttlIs(uint8_t ttl) { header_->ttlIs(ttl); }
};

inline Mox::Ptr<MplsHdrWrapper> mplsHdrWrapperFactory(const Mox::Ptr<Pkt>& pkt, uint32_t offset) {
    return Mox::make<MplsHdrWrapper>(pkt, offset);
}

}  // namespace Pavo
