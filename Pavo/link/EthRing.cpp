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

// A copy of the next frame, or null; throws std::bad_alloc. The copy ends where its buffer does, so
// that there is room for more headers.
Mox::Ptr<Pkt> EthRing::take(const RxSettings& settings, RxInfo* info, RxRound* round) {
    const tpacket3_hdr* const frame = front();
    if (frame == nullptr) {
        return nullptr;
    }
    Mox::Ptr<Pkt> pkt = globalPktManager()->newPkt(settings.bufferBytes);
    const uint32_t maxSize = pkt->maxSharedData();
    Mox::require(maxSize >= settings.maxBytes, "maxSize >= maxRxPktData()");
    const uint32_t bytes = std::min(frame->tp_snaplen, settings.maxBytes);
    std::memcpy(pkt->newSharedTailData(bytes), frame_ + frame->tp_mac, bytes);
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
}

RxRound EthRing::readOne(PamSocket* socket, const RxSettings& settings, Mox::Ptr<Pkt>* pkt,
                         RxInfo* info) {
    RxRound round;
    try {
        *pkt = take(settings, info, &round);
    } catch (const std::bad_alloc&) {
        socket->readEnded(PamSocket::ReadEnd::failed);
        return round;
    }
    round.wasTried = true;
    round.error = *pkt ? 0 : errorOf(socket->number());
    socket->readEnded(round.error);
    return round;
}

bool EthRing::readBatch(PamSocket* socket, const RxSettings& settings, RxBatch* batch) {
    RxRound& round = batch->round;
    if (batch->slots() == 0) {
        socket->readEnded(PamSocket::ReadEnd::failed);
        return false;
    }
    try {
        for (uint32_t slot = 0; slot < batch->slots(); ++slot) {
            RxInfo info;
            batch->pkts[slot] = take(settings, &info, &round);
            if (!batch->pkts[slot]) {
                break;
            }
            batch->infos[slot] = info;
        }
    } catch (const std::bad_alloc&) {
        if (round.packets == 0) {
            socket->readEnded(PamSocket::ReadEnd::failed);
            return false;
        }
    }
    round.error = round.packets != 0 ? 0 : errorOf(socket->number());
    socket->readEnded(round.error);
    return true;
}

}  // namespace Pavo
