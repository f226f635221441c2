/// @file
/// Header records inside a packet. A record is laid over the bytes of the packet's first iovec, in
/// one of two ways: by a wrapper, which holds the packet and for which a record that does not fit
/// is fatal, or by a checked view, which is a pointer or says what is wrong.
///
/// A record is a class of alignment 1 (`isOverlay`) with
/// - `static constexpr std::string_view recordName`, as "IpHdr", and
/// - `PktErrors check(uint32_t bytes) const`: whether the lengths and the version that the record
///   holds fit the `bytes` from its start to the end of the iovec, which are at least its size.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/FwkType.h"
#include "Mox/Lifetime.h"
#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/packet/PktErrors.h"

namespace Pavo {

/// The record's name between two literals.
template <class Hdr, std::size_t before, std::size_t after>
constexpr auto aroundRecordName(const char (&head)[before], const char (&tail)[after]) {
    std::array<char, before + Hdr::recordName.size() + after - 1> text{};
    auto at = std::copy_n(head, before - 1, text.begin());
    at = std::copy(Hdr::recordName.begin(), Hdr::recordName.end(), at);
    std::copy_n(tail, after, at);
    return text;
}

/// The assertion for a record that runs past the first iovec, with the record's name:
/// "( offset_ + sizeof( IpHdr ) ) <= pkt_->frontBytes()".
template <class Hdr>
inline constexpr auto bindText = aroundRecordName<Hdr>("( offset_ + sizeof( ",
                                                       " ) ) <= pkt_->frontBytes()");

/// The common part of all wrappers: the packet, the record's offset in the packet's first iovec,
/// and the record there. The wrapper `Self` derives from this, inherits the constructor and names
/// its `typeName`. Protocol fields are never checked.
///
/// The record stays where it is until the head of the packet's data changes; then `handleHeader()`
/// binds it anew at the same offset.
template <class Self, class Hdr>
class HdrWrapper : public Mox::Described<Self> {
  public:
    /// Fatal when the record does not lie wholly in the first iovec: `bindText`.
    HdrWrapper(Mox::Ptr<Pkt> pkt, uint32_t offset) : pkt_(std::move(pkt)), offset_(offset) {
        handleHeader();
    }

    static constexpr auto description() { return Mox::classRecord(Self::typeName); }

    /// Held for the life of the wrapper.
    const Mox::Ptr<Pkt>& pkt() const { return pkt_; }
    /// Bytes from the start of the first iovec to the record.
    uint32_t offset() const { return offset_; }

    /// The record itself, in the packet.
    Hdr* header() { return header_; }
    const Hdr* header() const { return header_; }
    /// Binds to a record elsewhere, until the next `handleHeader()`.
    void headerIs(Hdr* header) { header_ = header; }
    /// Binds to the record at `offset()`. Fatal when it does not lie wholly in the first iovec.
    void handleHeader() {
        requireFront(sizeof(Hdr), bindText<Hdr>.data());
        header_ = reinterpret_cast<Hdr*>(pkt_->frontData() + offset_);
    }

  protected:
    /// Fatal, with `text`, when the first iovec holds fewer than `bytes` from the offset on.
    void requireFront(uint32_t bytes, const char* text) const {
        Mox::require(uint64_t{offset_} + bytes <= pkt_->frontBytes(), text);
    }
    /// The first iovec from the offset on; nothing where it has shrunk to less since.
    Pkt::Iovec fromOffset() const {
        const uint32_t frontBytes = pkt_->frontBytes();
        if (frontBytes <= offset_) {
            return {};
        }
        return {pkt_->frontData() + offset_, frontBytes - offset_};
    }

    Mox::Ptr<Pkt> pkt_;
    uint32_t offset_;
    Hdr* header_ = nullptr;
};

/// "Pavo::ArpHdrWrapper" for the record "ArpHdr".
template <class Hdr>
inline constexpr auto wrapperName = aroundRecordName<Hdr>("Pavo::", "Wrapper");

/// A wrapper that has nothing to add to the record.
template <class Hdr>
class PAVO_EXPORT PlainHdrWrapper : public HdrWrapper<PlainHdrWrapper<Hdr>, Hdr> {
  public:
    using HdrWrapper<PlainHdrWrapper<Hdr>, Hdr>::HdrWrapper;

    static constexpr const char* typeName = wrapperName<Hdr>.data();
};

/// A pointer to a record that was checked, or null and the reason. It does not hold the packet, and
/// is good until the head of the packet's data changes.
template <class Hdr>
class HdrView {
  public:
    /// @pre `header` is not null.
    constexpr HdrView(Hdr* header) : header_(header), error_(PktErrors::noError) {}
    /// Null, for `error`, which is not `noError`.
    constexpr HdrView(PktErrors error) : error_(error) {}
    /// Null, where there was nothing to look at.
    constexpr HdrView(std::nullptr_t = nullptr) {}

    /// The record, or null.
    /// @{
    constexpr Hdr* ptr() const { return header_; }
    constexpr Hdr* operator->() const { return header_; }
    constexpr Hdr& operator*() const { return *header_; }
    /// @}
    /// Not null.
    constexpr explicit operator bool() const { return header_ != nullptr; }

    /// `noError` for a view that is not null.
    constexpr PktErrors error() const { return error_; }

  private:
    Hdr* header_ = nullptr;
    PktErrors error_ = PktErrors::pktTooShort;
};

/// The record at `offset` of the first iovec. Null with `pktTooShort` where the iovec ends before
/// the record does, else with what the record's own `check` finds.
template <class Hdr>
HdrView<Hdr> tryHdr(const Mox::Ptr<Pkt>& pkt MOX_LIFETIME_BOUND, uint32_t offset) {
    const uint32_t frontBytes = pkt->frontBytes();
    if (uint64_t{offset} + sizeof(Hdr) > frontBytes) {
        return PktErrors::pktTooShort;
    }
    auto* header = reinterpret_cast<Hdr*>(pkt->frontData() + offset);
    const PktErrors error = header->check(frontBytes - offset);
    if (error != PktErrors::noError) {
        return error;
    }
    return header;
}

}  // namespace Pavo
