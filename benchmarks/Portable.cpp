// With PAVO_BENCH_PORTABLE in the environment, a program measures Pavo without what the processor
// has beyond the instructions that the library is compiled for.

#include <cstdlib>

#include "Pavo/Cpu.h"

namespace {

const bool isPortable = [] {
    const bool asked = std::getenv("PAVO_BENCH_PORTABLE") != nullptr;
    if (asked) {
        Pavo::Cpu::featuresIs(0);
    }
    return asked;
}();

}  // namespace
