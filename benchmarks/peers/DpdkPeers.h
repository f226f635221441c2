// The same work by DPDK. Its functions are inline, so they are compiled here, each with its loop.

#ifndef PAVO_BENCHMARKS_DPDKPEERS_H
#define PAVO_BENCHMARKS_DPDKPEERS_H

#include <cstddef>
#include <cstdint>

namespace DpdkPeers {

// The Internet checksum of `length` bytes, `times` times; returns what it came to.
uint32_t checksums(const uint8_t* data, std::size_t length, std::size_t times);

}  // namespace DpdkPeers

#endif
