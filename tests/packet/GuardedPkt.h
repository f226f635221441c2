/// @file
/// A packet that ends where touching the next byte kills.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

#include "Mox/Ptr.h"

#include "Pavo/Pkt.h"

namespace Pavo {

/// A packet whose buffer has an inaccessible page inside, right after the data. The first
/// `privateBytes` bytes of the frame lie in the private area.
class GuardedPkt {
  public:
    GuardedPkt(const uint8_t* frame, uint32_t bytes, uint32_t privateBytes = 0) {
        const uint32_t sharedBytes = bytes - privateBytes;
        const uint32_t size = sharedBytes + 2 * pageBytes_;
        pkt_->sharedBufferIs(globalPktManager()->newSharedBuffer(size));
        uint8_t* start = pkt_->newSharedHeadData(size);
        const auto end = reinterpret_cast<uintptr_t>(start + sharedBytes);
        const auto skipped = static_cast<uint32_t>(-end % pageBytes_);  // Then a page begins.
        guard_ = start + skipped + sharedBytes;
        pkt_->delSharedHeadData(skipped);
        pkt_->delSharedTailData(size - skipped - sharedBytes);
        if (bytes != 0) {
            std::memcpy(guard_ - sharedBytes, frame + privateBytes, sharedBytes);
            std::memcpy(pkt_->newPrivateHeadData(privateBytes), frame, privateBytes);
        }
        EXPECT_EQ(mprotect(guard_, pageBytes_, PROT_NONE), 0);
    }
    ~GuardedPkt() { EXPECT_EQ(mprotect(guard_, pageBytes_, PROT_READ | PROT_WRITE), 0); }
    GuardedPkt(const GuardedPkt&) = delete;
    GuardedPkt& operator=(const GuardedPkt&) = delete;

    const Mox::Ptr<Pkt>& pkt() const { return pkt_; }

  private:
    const uint32_t pageBytes_ = static_cast<uint32_t>(getpagesize());
    const Mox::Ptr<Pkt> pkt_ = Mox::make<Pkt>();
    uint8_t* guard_ = nullptr;
};

}  // namespace Pavo
