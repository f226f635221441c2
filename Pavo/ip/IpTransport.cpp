#include "Pavo/ip/IpTransport.h"

#include <new>

namespace Pavo {

TxResult IpTransport::sendEach(std::span<const Mox::Ptr<Pkt>> pkts, const TxInfo& info,
                               const Mox::String& ifName) {
    return sendEachPkt(pkts, [&](const Mox::Ptr<Pkt>& pkt) { return send(*pkt, info, ifName); });
}

std::unique_ptr<RxBatch> IpTransport::readBatch(PamSocket* socket, const RxSettings& settings,
                                                const RxInfo& first, uint32_t count) {
    std::unique_ptr<RxBatch> batch;
    try {
        batch = count != 0 ? std::make_unique<RxBatch>(count) : nullptr;
    } catch (const std::bad_alloc&) {
    }
    if (!batch) {
        socket->readEnded(PamSocket::ReadEnd::failed);
        return nullptr;
    }
    RxRound& all = batch->round;
    all.wasTried = true;
    while (all.packets < count) {
        const uint32_t slot = all.packets;
        batch->infos[slot] = first;
        const RxRound one = readOne(socket, settings, &batch->pkts[slot], &batch->infos[slot]);
        if (one.error != 0 || !one.wasTried) {
            all.error = slot == 0 ? one.error : 0;
            break;
        }
        ++all.packets;
        all.carried = one.carried;
        all.truncated += one.truncated;
        all.drops += one.drops;
    }
    return batch;
}

}  // namespace Pavo
