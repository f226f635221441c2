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

/// A packet whose buffer has an inaccessible page inside, right behind the data. The first
/// `privateBytes` bytes of the frame lie in the private area.
class GuardedPkt {
  public:
    GuardedPkt(const uint8_t* frame, uint32_t bytes, uint32_t privateBytes = 0)
        : pageBytes_(static_cast<uint32_t>(getpagesize())), pkt_(Mox::make<Pkt>()) {
        const uint32_t size = 3 * pageBytes_;
        pkt_->sharedBufferIs(globalPktManager()->newSharedBuffer(size));
        uint8_t* start = pkt_->newSharedHeadData(size);
        const auto intoPage =
            static_cast<uint32_t>(reinterpret_cast<uintptr_t>(start) % pageBytes_);
        const uint32_t beforeGuard = 2 * pageBytes_ - intoPage;
        pkt_->delSharedTailData(size - beforeGuard);
        const uint32_t sharedBytes = bytes - privateBytes;
        pkt_->delSharedHeadData(beforeGuard - sharedBytes);
        if (sharedBytes != 0) {
            std::memcpy(pkt_->frontData(), frame + privateBytes, sharedBytes);
        }
        if (privateBytes != 0) {
            std::memcpy(pkt_->newPrivateHeadData(privateBytes), frame, privateBytes);
        }
        guard_ = start + beforeGuard;
        EXPECT_EQ(mprotect(guard_, pageBytes_, PROT_NONE), 0);
    }
    ~GuardedPkt() { EXPECT_EQ(mprotect(guard_, pageBytes_, PROT_READ | PROT_WRITE), 0); }
    GuardedPkt(const GuardedPkt&) = delete;
    GuardedPkt& operator=(const GuardedPkt&) = delete;

    const Mox::Ptr<Pkt>& pkt() const { return pkt_; }

  private:
    uint32_t pageBytes_;
    Mox::Ptr<Pkt> pkt_;
    uint8_t* guard_ = nullptr;
};

}  // namespace Pavo
