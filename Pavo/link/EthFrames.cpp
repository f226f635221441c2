#include "Pavo/link/EthFrames.h"

#include <linux/if_packet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "Pavo/packet/VlanUtils.h"

namespace Pavo {

TxResult sendFrames(int fd, uint32_t ifIndex, std::span<const Mox::Ptr<Pkt>> pkts,
                    const Mox::TraceFacility& trace) {
    sockaddr_ll name{};  // The kernel takes the EtherType from the frame.
    name.sll_family = AF_PACKET;
    name.sll_ifindex = static_cast<int>(ifIndex);
    TxHead head;
    static_assert(sizeof(name) <= sizeof(head.name));
    std::memcpy(&head.name, &name, sizeof(name));
    head.nameBytes = sizeof(name);
    const bool isTagged = std::any_of(pkts.begin(), pkts.end(),
                                      [](const auto& each) { return each->hasSeparateVlanTag(); });
    if (!isTagged) {
        return sendPkts(fd, head, pkts, trace);
    }
    if (pkts.size() == 1) {
        const Mox::Ptr<Pkt> frame = pktWithTagInFrame(pkts[0]);
        return sendPkts(fd, head, {&frame, 1}, trace);
    }
    std::vector<Mox::Ptr<Pkt>> frames(pkts.size());
    std::transform(pkts.begin(), pkts.end(), frames.begin(), pktWithTagInFrame);
    return sendPkts(fd, head, frames, trace);
}

}  // namespace Pavo
