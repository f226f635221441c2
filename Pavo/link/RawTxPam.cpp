#include "Pavo/link/RawTxPam.h"

#include <linux/if_packet.h>
#include <sys/socket.h>

#include "Mox/Exception.h"
#include "Mox/Trace.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/link/EthFrames.h"
#include "Pavo/pam/SocketOptions.h"
#include "Pavo/socket/SocketAt.h"

namespace Pavo {

namespace {

Mox::TraceFacility facility("Pavo::RawTxPam");

void bypassIs(int fd, bool bypasses) {
    socketOptionIs(fd, SOL_PACKET, PACKET_QDISC_BYPASS, int{bypasses},
                   "setsockopt(PACKET_QDISC_BYPASS)");
}

}  // namespace

RawTxPam::RawTxPam(Mox::String name, NamespaceName netNs)
    : EntityOf(std::move(name), stepsOf<RawTxPam>()), netNs_(std::move(netNs)) {
    socket().closesLaterIs();
}

RawTxPam::~RawTxPam() = default;

void RawTxPam::open() {
    requireEventLoop();
    const int fd =
        socketAt(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, /*protocol=*/0, netNs_.value().c_str());
    if (fd < 0) {
        Mox::throwErrnoException("socketAt");
    }
    const Mox::Ptr<Mox::FileDescriptor> descriptor = Mox::fileDescriptorFactory(fd);
    if (bypassesQdisc_) {
        bypassIs(fd, true);
    }
    socket().fileDescIs(descriptor);
}

void RawTxPam::close() {
    socket().close();
}

void RawTxPam::bypassesQdiscIs(bool bypasses) {
    if (applied(bypassesQdisc_, bypasses, [&](int fd) { bypassIs(fd, bypasses); })) {
        notify(bypassesQdiscAttr);
    }
}

void RawTxPam::doGetRxPkt() {
    rxPktIs(nullptr);
    socket().readEnded(PamSocket::ReadEnd::empty);
}

uint32_t RawTxPam::txPktsIs(uint32_t ifIndex, std::span<const Mox::Ptr<Pkt>> pkts) {
    const Mox::Ptr<RawTxPam> hold(this);
    const bool isOther = changed(txIfIndex_, ifIndex);
    uint32_t taken = 0;
    FirstException exception;
    exception.collect([&] { taken = txPktsIs(pkts); });
    exception.collect([&] { isOther ? notify(txIfIndexAttr) : void(); });
    exception.rethrow();
    return taken;
}

TxResult RawTxPam::send(int fd, std::span<const Mox::Ptr<Pkt>> pkts) {
    return sendFrames(fd, txIfIndex_, pkts, facility);
}

Mox::Ptr<RawTxPam> rawTxPamFactory(Mox::String name, NamespaceName netNs) {
    return Mox::make<RawTxPam>(std::move(name), std::move(netNs));
}

}  // namespace Pavo
