#include "Pavo/link/EthRing.h"

#include <linux/if_packet.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>

#include "Mox/Assert.h"
#include "Mox/Exception.h"
#include "Pavo/link/EthFormat.h"
#include "Pavo/pam/SocketOptions.h"

namespace Pavo {

namespace {

// The kernel wants a size of frames to be named, from which nothing follows in this version.
constexpr uint32_t frameBytes = 2048;

// Why a socket without a frame has none, as an `errno`.
int errorOf(int fd) {
    int error = 0;
    socklen_t bytes = sizeof(error);
    const bool isKnown = getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &bytes) == 0;
    error = isKnown ? error : errno;
    return error != 0 ? error : EAGAIN;
}

}  // namespace

EthRing::EthRing(int fd, const EthRingSize& size) : size_(size) {
    static constexpr char ringFailure[] = "setsockopt(PACKET_RX_RING)";
    if (uint64_t{size.blocks} * size.blockBytes > PTRDIFF_MAX) {
        throw Mox::ErrnoException(EINVAL, ringFailure);
    }
    bytes_ = std::size_t{size.blocks} * size.blockBytes;
    socketOptionIs(fd, SOL_PACKET, PACKET_VERSION, int{TPACKET_V3}, "setsockopt(PACKET_VERSION)");
    tpacket_req3 request{};
    request.tp_block_size = size.blockBytes;
    request.tp_block_nr = size.blocks;
    request.tp_frame_size = frameBytes;
    request.tp_frame_nr = size.blockBytes / frameBytes * size.blocks;
    request.tp_retire_blk_tov = size.timeoutMs;
    socketOptionIs(fd, SOL_PACKET, PACKET_RX_RING, request, ringFailure);
    void* const memory = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        Mox::throwErrnoException("mmap");
    }
    memory_ = static_cast<uint8_t*>(memory);
}

EthRing::~EthRing() {
    (void)munmap(memory_, bytes_);
}

tpacket_block_desc* EthRing::block() const {
    return reinterpret_cast<tpacket_block_desc*>(memory_ +
                                                 std::size_t{current_} * size_.blockBytes);
}

// The next frame, or null.
const tpacket3_hdr* EthRing::front() {
    for (uint32_t blocks = 0; left_ == 0 && blocks < size_.blocks; ++blocks) {
        tpacket_hdr_v1& header = block()->hdr.bh1;
        const std::atomic_ref<uint32_t> status(header.block_status);
        if ((status.load(std::memory_order_acquire) & TP_STATUS_USER) == 0) {
            return nullptr;
        }
        left_ = header.num_pkts;
        frame_ = reinterpret_cast<const uint8_t*>(block()) + header.offset_to_first_pkt;
        if (left_ == 0) {
            releaseBlock();
        }
    }
    return left_ != 0 ? reinterpret_cast<const tpacket3_hdr*>(frame_) : nullptr;
}

void EthRing::pop() {
    frame_ += reinterpret_cast<const tpacket3_hdr*>(frame_)->tp_next_offset;
    if (--left_ == 0) {
        releaseBlock();
    }
}

void EthRing::releaseBlock() {
    const std::atomic_ref<uint32_t> status(block()->hdr.bh1.block_status);
    status.store(TP_STATUS_KERNEL, std::memory_order_release);
    current_ = current_ + 1 == size_.blocks ? 0 : current_ + 1;
}

// Copies the next frame into the packet of a slot or a new one. Null when there is no frame, or no
// memory, which is then the error.
Mox::Ptr<Pkt> EthRing::take(const RxSettings& settings, const Mox::Ptr<Pkt>& slot, RxInfo* info,
                            RxRound* round) try {
    const tpacket3_hdr* const frame = front();
    if (frame == nullptr) {
        return nullptr;
    }
    const uint32_t bytes = std::min(frame->tp_snaplen, settings.maxBytes);
    Mox::Ptr<Pkt> pkt = pktToReadInto(settings, slot, bytes);
    std::memcpy(pkt->frontData(), frame_ + frame->tp_mac, bytes);
    takeFrameStatus(frame->tp_status, static_cast<uint16_t>(frame->hv1.tp_vlan_tci),
                    frame->hv1.tp_vlan_tpid, pkt.ptr(), info);
    takeFrameAddress(*reinterpret_cast<const sockaddr_ll*>(frame_ + TPACKET_ALIGN(sizeof(*frame))),
                     info);
    if ((settings.options & ipRecvTimestamp) != 0) {
        info->timestampNs = int64_t{frame->tp_sec} * 1'000'000'000 + frame->tp_nsec;
    }
    info->truncated = bytes < frame->tp_len;
    round->truncated += info->truncated ? 1 : 0;
    ++round->packets;
    pop();
    return pkt;
} catch (const std::bad_alloc&) {
    round->error = ENOMEM;
    return nullptr;
}

// Reports how a read ended. False when nothing was looked for.
bool EthRing::ended(PamSocket* socket, RxRound* round) {
    if (round->packets != 0) {
        round->error = 0;
    } else if (round->error == 0) {
        round->error = errorOf(socket->number());
    }
    socket->readEnded(round->error);
    return round->error != ENOMEM;
}

RxRound EthRing::readOne(PamSocket* socket, const RxSettings& settings, Mox::Ptr<Pkt>* pkt,
                         RxInfo* info) {
    RxRound round;
    *pkt = take(settings, nullptr, info, &round);
    round.wasTried = ended(socket, &round);
    return round;
}

bool EthRing::readBatch(PamSocket* socket, const RxSettings& settings,
                        const Mox::Array<Mox::Ptr<Pkt>>& slots, RxBatch* batch) {
    RxRound& round = batch->round;
    round.error = batch->slots() == 0 ? ENOMEM : 0;  // As PktReceiver has it.
    for (uint32_t slot = 0; slot < batch->slots(); ++slot) {
        const Mox::Ptr<Pkt>& before = slots.at(slot);
        Mox::Ptr<Pkt> pkt;
        if (slot == round.packets && round.error == 0) {
            batch->infos[slot] = RxInfo();
            pkt = take(settings, before, &batch->infos[slot], &round);
        }
        batch->pkts[slot] = pkt ? pkt : before;
    }
    return ended(socket, &round);
}

}  // namespace Pavo
