/// @file
/// Packets made of fuzz inputs.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "Mox/Assert.h"
#include "Mox/Ptr.h"

#include "Pavo/NetOrder.h"
#include "Pavo/Pkt.h"

namespace fuzz {

/// Takes an input apart. Behind its end are zeros.
class Input {
  public:
    explicit Input(std::string_view bytes) : left_(bytes) {}
    Input(const uint8_t* data, std::size_t size)
        : Input({reinterpret_cast<const char*>(data), size}) {}

    bool atEnd() const { return left_.empty(); }
    uint8_t u8() {
        const std::string_view taken = bytes(1);
        return taken.empty() ? 0 : static_cast<uint8_t>(taken[0]);
    }
    uint16_t u16() {
        const uint8_t high = u8();
        return static_cast<uint16_t>(high << 8 | u8());
    }
    uint32_t u32() {
        const uint32_t high = u16();
        return high << 16 | u16();
    }
    /// `n` bytes, or as many as are left.
    std::string_view bytes(std::size_t n) {
        const std::string_view taken = left_.substr(0, n);
        left_.remove_prefix(taken.size());
        return taken;
    }
    std::string_view rest() { return bytes(left_.size()); }

  private:
    std::string_view left_;
};

/// Heap memory that holds these bytes and nothing more.
class ExactBytes {
  public:
    explicit ExactBytes(std::string_view bytes)
        : data_(new uint8_t[bytes.size()]), size_(static_cast<uint32_t>(bytes.size())) {
        std::copy(bytes.begin(), bytes.end(), data_.get());
    }

    uint8_t* data() const { return data_.get(); }
    uint32_t size() const { return size_; }

  private:
    std::unique_ptr<uint8_t[]> data_;
    uint32_t size_;
};

/// The number at `offset` of bytes in network order.
template <class Word>
Word loadAt(std::string_view bytes, std::size_t offset) {
    return Pavo::loadNet<Word>(reinterpret_cast<const uint8_t*>(bytes.data()) + offset);
}

/// `sum` plus the 16-bit words of `bytes`.
inline uint32_t plainSum(std::string_view bytes, uint32_t sum) {
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        sum += loadAt<uint16_t>(bytes, i);
    }
    return bytes.size() % 2 == 0 ? sum : sum + (uint32_t{static_cast<uint8_t>(bytes.back())} << 8);
}

/// The checksum that such a sum folds to.
inline uint16_t folded(uint32_t sum) {
    while (sum >> 16 != 0) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

/// A packet of `frame`, whose first bytes are private, up to `privateBytes` of them and as many as
/// fit. The shared buffer holds the others, with room for `headRoom` more in front and for none
/// behind; where it would be empty there is none.
inline Mox::Ptr<Pavo::Pkt> pktOf(std::string_view frame, uint32_t privateBytes,
                                 uint32_t headRoom = 0) {
    const auto apart =
        std::min<std::size_t>({privateBytes, Pavo::Pkt::privateAreaBytes, frame.size()});
    const std::string_view shared = frame.substr(apart);
    const auto sharedBytes = static_cast<uint32_t>(shared.size());
    auto pkt = Mox::make<Pavo::Pkt>();
    if (sharedBytes + headRoom != 0) {
        pkt->sharedBufferIs(Pavo::globalPktManager()->newSharedBuffer(sharedBytes + headRoom));
        std::copy(shared.begin(), shared.end(), pkt->newSharedHeadData(sharedBytes));
    }
    if (apart != 0) {
        uint8_t* head = pkt->newPrivateHeadData(static_cast<uint32_t>(apart));
        std::copy(frame.begin(), frame.begin() + apart, head);
    }
    Mox::require(pkt->stringValue() == frame, "the packet is the frame");
    return pkt;
}

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);
