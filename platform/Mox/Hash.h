/// @file
/// The seeded hash function of records.
#pragma once

#include <cstdint>

namespace Mox {

/// Mixes 32-bit words into a 32-bit hash, in 32-bit arithmetic only, so that processes of both word
/// sizes compute the same hash. The word and final mixes are those of MurmurHash3 (public domain),
/// with the length counted in words.
class Hash {
  public:
    /// The hash of no words depends on the seed alone.
    constexpr explicit Hash(uint32_t seed = 0) : state_(seed) {}

    /// Mixes one word in.
    constexpr Hash& mix(uint32_t word) {
        word *= 0xcc9e2d51u;
        word = rotated(word, 15) * 0x1b873593u;
        state_ = rotated(state_ ^ word, 13) * 5 + 0xe6546b64u;
        ++words_;
        return *this;
    }
    /// The low half, then the high half.
    constexpr Hash& mix64(uint64_t value) {
        return mix(static_cast<uint32_t>(value)).mix(static_cast<uint32_t>(value >> 32));
    }

    /// The hash of the words so far; more may follow.
    constexpr uint32_t result() const {
        uint32_t h = state_ ^ words_;
        h = (h ^ (h >> 16)) * 0x85ebca6bu;
        h = (h ^ (h >> 13)) * 0xc2b2ae35u;
        return h ^ (h >> 16);
    }

  private:
    static constexpr uint32_t rotated(uint32_t x, int bits) {
        return (x << bits) | (x >> (32 - bits));
    }

    uint32_t state_;
    uint32_t words_ = 0;
};

}  // namespace Mox
