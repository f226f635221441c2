/// @file
/// Frames that the kernel leaves in memory shared with the process. For the endpoints themselves;
/// an agent does not need it.
#pragma once

#include <cstdint>
#include <memory>

#include "Mox/Collections.h"
#include "Mox/Ptr.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/PamSocket.h"
#include "Pavo/pam/PktReceiver.h"
#include "Pavo/pam/RxInfo.h"

struct tpacket3_hdr;
struct tpacket_block_desc;

namespace Pavo {

/// The size of a ring.
struct EthRingSize {
    uint32_t blocks;
    /// A multiple of the size of a page.
    uint32_t blockBytes;
    /// After so long, in milliseconds, the kernel hands over a block that is not full.
    uint32_t timeoutMs;
};

/// The receive ring of a packet socket (TPACKET_V3 in the kernel's packet_mmap.rst): the kernel
/// fills one block after the other with frames, and hands each over whole. Like `PktReceiver` it
/// reads one frame or a batch. Both copy the frames, and a block goes back as soon as its last
/// frame was copied. So no frame is in use while observers are notified.
class EthRing {
  public:
    /// Sets the ring up on a socket that is not bound yet. The socket may be closed before it.
    /// @throws Mox::ErrnoException "setsockopt(PACKET_VERSION)", "setsockopt(PACKET_RX_RING)"
    /// (EINVAL for an impossible size) or "mmap".
    EthRing(int fd, const EthRingSize& size);
    ~EthRing();
    EthRing(const EthRing&) = delete;
    EthRing& operator=(const EthRing&) = delete;

    /// As `PktReceiver::readOne`. Makes a system call only when there is nothing to read.
    RxRound readOne(PamSocket* socket, const RxSettings& settings, Mox::Ptr<Pkt>* pkt,
                    RxInfo* info);
    /// Reads a frame for each slot of `*batch`, while there are any, into those packets of `slots`
    /// that nobody else holds. False when none was looked for, since there is no slot or no memory.
    bool readBatch(PamSocket* socket, const RxSettings& settings,
                   const Mox::Array<Mox::Ptr<Pkt>>& slots, RxBatch* batch);

  private:
    const tpacket3_hdr* front();
    void pop();
    tpacket_block_desc* block() const;
    void releaseBlock();
    Mox::Ptr<Pkt> take(const RxSettings& settings, const Mox::Ptr<Pkt>& slot, RxInfo* info,
                       RxRound* round);
    static bool ended(PamSocket* socket, RxRound* round);

    EthRingSize size_;
    std::size_t bytes_;
    uint8_t* memory_;
    uint32_t current_ = 0;            // The block whose frames are read.
    uint32_t left_ = 0;               // Frames of it that were not read yet.
    const uint8_t* frame_ = nullptr;  // The first of those.
};

}  // namespace Pavo
