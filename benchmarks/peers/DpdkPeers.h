// The same work by DPDK. Its functions are inline, so they are compiled here, each with its loop.

#pragma once

#include <cstddef>
#include <cstdint>

namespace DpdkPeers {

// The Internet checksum of `length` bytes, `times` times; returns what it came to.
uint32_t checksums(const uint8_t* data, std::size_t length, std::size_t times);

// Starts DPDK without devices and huge pages, and makes a pool of packets, where that was not done.
// False where it cannot be done.
bool started();

// A packet of `length` bytes of payload and three headers is made and released, `times` times. With
// `withChecksums` the headers are those of a UDP datagram in a frame, else their bytes are set.
void lives(const uint8_t* payload, uint16_t length, bool withChecksums, std::size_t times);

// A frame is checked from its type to the checksum of UDP, `times` times; returns how often it was
// good.
std::size_t checks(const uint8_t* frame, uint16_t length, std::size_t times);

// A VLAN tag is put into a frame and taken out again, `times` times.
void vlanTags(const uint8_t* frame, uint16_t length, std::size_t times);

// Reads the text of a MAC address; false for one that is not.
bool readEthAddr(const char* text, uint8_t* bytes);

}  // namespace DpdkPeers
