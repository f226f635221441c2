/// @file
/// What the processor has beyond the instructions that the library is compiled for.
#pragma once

#include <atomic>
#include <cstdint>

#include "Pavo/base/Export.h"

namespace Pavo {

/// The instructions that the library uses where the processor has them. Results are the same, bit
/// for bit, with and without: only the speed differs. All are found when the library is loaded;
/// until then, and on processors other than x86, there are none.
class Cpu {
  public:
    /// Bits of a set.
    enum Feature : uint32_t {
        crc32c = 1,         ///< CRC-32C of a word (SSE 4.2).
        carryless = 2,      ///< Carry-less products of 64 bits (PCLMULQDQ).
        avx2 = 4,           ///< Integers in vectors of 32 bytes.
        wideCarryless = 8,  ///< Four carry-less products at once (VPCLMULQDQ in 64-byte vectors).
        /// Integers in vectors of 64 bytes (AVX-512BW), where the clock is not lowered for them:
        /// that is so on processors with `wideCarryless`.
        avx512 = 16,
    };

    /// The set in use.
    static uint32_t features() { return features_.load(std::memory_order_relaxed); }
    /// Whether it has all of these.
    static bool has(uint32_t features) { return (Cpu::features() & features) == features; }
    /// Uses these, as far as the processor has them: a test can so compare results with and
    /// without, and an operator can avoid one. Any thread may set it at any time.
    PAVO_EXPORT static void featuresIs(uint32_t features);

  private:
    PAVO_EXPORT static std::atomic<uint32_t> features_;
};

}  // namespace Pavo
