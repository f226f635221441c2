#include "Pavo/base/Cpu.h"

namespace Pavo {

namespace {

// What the processor has and the kernel saves at a switch of threads.
uint32_t available() {
    uint32_t features = 0;
#if defined(__x86_64__) || defined(__i386__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("sse4.2")) {
        features |= Cpu::crc32c;
    }
    if (__builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1")) {
        features |= Cpu::carryless;
    }
    if (__builtin_cpu_supports("avx2")) {
        features |= Cpu::avx2;
    }
    if (__builtin_cpu_supports("vpclmulqdq") && __builtin_cpu_supports("avx512f")) {
        features |= Cpu::wideCarryless;
        if (__builtin_cpu_supports("avx512bw")) {
            features |= Cpu::avx512;
        }
    }
#endif
    return features;
}

// Before `main`, so that the first packet is as fast as the others.
[[maybe_unused]] const bool areFeaturesSet = [] {
    Cpu::featuresIs(~0u);
    return true;
}();

}  // namespace

constinit std::atomic<uint32_t> Cpu::features_ = 0;

void Cpu::featuresIs(uint32_t features) {
    features_.store(features & available(), std::memory_order_relaxed);
}

}  // namespace Pavo
