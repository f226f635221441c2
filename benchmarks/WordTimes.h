/// @file
/// What Debian's libraries take and give with times in it. These are as wide as a `long` there,
/// also in 32-bit programs whose own times have 64 bits.
#pragma once

#include <sys/time.h>

#include <cstdint>

struct pcap_pkthdr;

namespace PavoBench {

/// A `timeval` for libevent.
struct WordTimeval {
    long seconds;
    long microseconds;

    const timeval* get() const { return reinterpret_cast<const timeval*>(this); }
};

/// libpcap's header of a packet.
struct WordPkthdr {
    WordTimeval time;
    uint32_t capturedBytes;
    uint32_t packetBytes;

    const pcap_pkthdr* get() const { return reinterpret_cast<const pcap_pkthdr*>(this); }
    static const WordPkthdr& of(const pcap_pkthdr* header) {
        return *reinterpret_cast<const WordPkthdr*>(header);
    }
};

}  // namespace PavoBench
