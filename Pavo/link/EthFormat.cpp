#include "Pavo/link/EthFormat.h"

#include <linux/if_packet.h>
#include <sys/socket.h>

#include <cstring>

#include "Pavo/packet/EthHdr.h"
#include "Pavo/pam/IpSocketOptions.h"

namespace Pavo {

namespace {

class EthFormat final : public RxFormat {
  public:
    constexpr EthFormat()
        : RxFormat(SOL_PACKET, sizeof(sockaddr_ll), CMSG_SPACE(sizeof(tpacket_auxdata))) {}

    void takeName(const void* name, RxInfo* info) const override {
        sockaddr_ll address{};
        std::memcpy(&address, name, sizeof(address));
        takeFrameAddress(address, info);
    }
    uint32_t takeControl(const cmsghdr* message, Pkt* pkt, RxInfo* info) const override {
        tpacket_auxdata data{};
        if (message->cmsg_type == PACKET_AUXDATA && readControl(message, &data)) {
            takeFrameStatus(data.tp_status, data.tp_vlan_tci, data.tp_vlan_tpid, pkt, info);
        }
        return none;
    }
    bool takeError(const msghdr&, QueuedError*) const override { return false; }
};

constexpr EthFormat format;

}  // namespace

const RxFormat& ethFormat() {
    return format;
}

void takeFrameStatus(uint32_t status, uint16_t vlanTci, uint16_t vlanTpid, Pkt* pkt, RxInfo* info) {
    if ((status & TP_STATUS_VLAN_VALID) != 0) {
        const bool hasTpid = (status & TP_STATUS_VLAN_TPID_VALID) != 0;
        pkt->newSeparateVlanTag(vlanTci, hasTpid ? vlanTpid : uint16_t{EthType::dot1Q});
    }
    info->isChecksumPending = (status & TP_STATUS_CSUMNOTREADY) != 0;
}

void takeFrameAddress(const sockaddr_ll& address, RxInfo* info) {
    static_assert(static_cast<int>(RxPktType::outgoing) == PACKET_OUTGOING);
    info->ifIndex = static_cast<uint32_t>(address.sll_ifindex);
    info->pktType = static_cast<RxPktType>(address.sll_pkttype);
}

}  // namespace Pavo
