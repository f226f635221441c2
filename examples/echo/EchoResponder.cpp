#include "echo/EchoResponder.h"

#include <utility>

namespace Echo {

EchoResponder::EchoResponder(Pavo::AddressFamily family, const Pavo::NamespaceName& netNs,
                             std::function<void(const Packet&)> seen)
    : seen_(std::move(seen)),
      pam_(newPam("echoResponder", family, netNs)),
      readable_(pam_, Pavo::Pam::readableCountAttr, [this] { answerOne(); }) {
    pam_->txTTLIs(answerTtl);
    pam_->enabledIs(true);  // Opens the socket; the first read attempt follows at once.
}

// Reads one packet for each report: while more wait, the loop reports again.
void EchoResponder::answerOne() {
    const Mox::Ptr<Pavo::Pkt> pkt = pam_->rxPkt();
    const auto request = pkt ? readPacket(pkt, *pam_) : std::nullopt;
    if (!request || !request->isRequest) {
        return;
    }
    // The request becomes the answer; the kernel writes the new IP header. A group cannot be the
    // source of a packet, and a link-local address needs the interface of its link.
    makeAnswer(pkt, *request);
    pam_->txSrcIpAddrIs(request->to.isMulticast() ? Pavo::IpGenAddr() : request->to);
    pam_->txDstIpAddrIs(request->from);
    pam_->txIfIndexIs(request->from.isV6LinkLocal() ? request->ifIndex : 0);
    pam_->txPktIs(pkt);
    seen_(*request);
}

}  // namespace Echo
