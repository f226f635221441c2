#include "peers/DpdkPeers.h"

#include <rte_ip.h>

namespace DpdkPeers {

uint32_t checksums(const uint8_t* data, std::size_t length, std::size_t times) {
    uint32_t all = 0;
    for (std::size_t i = 0; i < times; ++i) {
        asm volatile("" ::"r"(data) : "memory");  // The bytes may have changed.
        all += rte_raw_cksum(data, length);
    }
    return all;
}

}  // namespace DpdkPeers
