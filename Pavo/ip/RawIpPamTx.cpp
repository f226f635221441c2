#include <cerrno>

#include "Mox/Assert.h"
#include "Pavo/ip/IpTransport.h"
#include "Pavo/ip/RawIpFamily.h"
#include "Pavo/ip/RawIpPam.h"
#include "Pavo/pam/PktSender.h"

namespace Pavo {

IpTxSettings RawIpPam::txSettings() const {
    return {family_.ip(), txSrcIpAddr(), txDstIpAddr(), txIfName(), txIfIndex(), txFlags()};
}

int RawIpPam::addressError() const {
    return ipTxAddressError(txSettings());
}

// The kernel takes every packet of the reserved protocol (IPPROTO_RAW) to have its header.
bool RawIpPam::sendsIpHdrWithKernel() const {
    return (options() & ipHdrIncl) == 0 && protocol() != IpProtocolNumber::reserved;
}

void RawIpPam::txPktIsImpl(Mox::Ptr<Pkt> pkt) {
    Mox::require(enabled(), "enabled()");
    Mox::require(pkt != nullptr, "pkt != nullptr");
    // An observer of a count may close the socket, or drop the endpoint.
    const Mox::Ptr<RawIpPam> hold(this);
    const Mox::Ptr<Mox::FileDescriptor> fd = fileDesc();
    tapTx(*pkt, sendsIpHdrWithKernel());
    txErrnoIs(0);
    sendEnded(fd, send(fd, *pkt));
}

// Returns 0, or why the packet was not sent, as an `errno`.
int RawIpPam::send(const Mox::Ptr<Mox::FileDescriptor>& fd, const Pkt& pkt) const {
    if (transport_) {
        const int error = addressError();
        return error != 0 ? error
                          : transport_->send(pkt, txInfo(sendsIpHdrWithKernel()), txIfName());
    }
    if (!fd) {
        return EBADF;
    }
    TxHead head;
    const int error =
        ipTxHeadIs(&head, fd->descriptor(), txSettings(), Port(), /*connected=*/false);
    return error != 0 ? error : sendPkt(fd->descriptor(), head, pkt, *family_.trace);
}

uint32_t RawIpPam::sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts) {
    RawIpPam& self = *static_cast<RawIpPam*>(pam);
    Mox::require(self.enabled(), "enabled()");
    const Mox::Ptr<Mox::FileDescriptor> fd = self.fileDesc();
    for (const Mox::Ptr<Pkt>& each : pkts) {
        self.tapTx(*each, self.sendsIpHdrWithKernel());
    }
    self.txErrnoIs(0);
    const auto count = static_cast<uint32_t>(pkts.size());
    TxResult result{0, count, count, EBADF};
    if (self.transport_) {
        result.error = self.addressError();
        if (result.error == 0) {
            result = self.transport_->sendEach(pkts, self.txInfo(self.sendsIpHdrWithKernel()),
                                               self.txIfName());
        }
    } else if (fd) {
        TxHead head;
        result.error = ipTxHeadIs(&head, fd->descriptor(), self.txSettings(), Port(),
                                  /*connected=*/false);
        if (result.error == 0) {
            result = sendPkts(fd->descriptor(), head, pkts, *self.family_.trace);
        }
    }
    return self.sendEnded(fd, result);
}

void RawIpPam::tapTx(const Pkt& pkt, bool isIpHdrWithKernel) const {
    if (tap()) {
        tap()->handleTxPkt(*this, pkt, txInfo(isIpHdrWithKernel));
    }
}

TxInfo RawIpPam::txInfo(bool isIpHdrWithKernel) const {
    TxInfo info;
    info.srcIpAddr = txSrcIpAddr();
    info.dstIpAddr = txDstIpAddr();
    info.ifIndex = txIfIndex();
    info.tos = txTOS().value();
    info.ttl = txDstIpAddr().isMulticast() ? family_.groupTtl(*this) : txTTL().value();
    info.isIpHdrWithKernel = isIpHdrWithKernel;
    info.protocol = protocol();
    info.hasRouterAlert = isIpHdrWithKernel && ipPktOption(ipPktRouterAlert);
    return info;
}

void RawIpPam::sendEnded(const Mox::Ptr<Mox::FileDescriptor>& fd, int error) {
    if (error == 0) {
        txPktCountInc(1);
    } else {
        (void)sendEnded(fd, TxResult{0, 1, 1, error});
    }
}

uint32_t RawIpPam::sendEnded(const Mox::Ptr<Mox::FileDescriptor>& fd, const TxResult& result) {
    return countSent(this, fd, result, *family_.trace);
}

}  // namespace Pavo
