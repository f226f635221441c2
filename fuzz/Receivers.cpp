// Packets that arrive at a multiplexer and at a host, split anywhere. A client gets those with its
// number, and an endpoint those of its protocol, as the checked reader of IP messages says.

#include "Mox/Clock.h"
#include "Pavo/IpHost.h"
#include "Pavo/IpMsg.h"
#include "Pavo/IpSocketPam.h"
#include "Pavo/PamMux.h"

#include "fuzz/Frames.h"

namespace {

using namespace Pavo;

constexpr uint32_t options = ipPktInfo | ipRecvTTL | ipRecvTOS | ipRecvOrigDstAddr;

// What the reader finds at the beginning, or null; also for a number that it does not know.
Mox::Ptr<Pkt> wholeMsg(std::string_view bytes, IpMsg* msg) {
    const Mox::Ptr<Pkt> pkt = fuzz::pktOf(bytes, 0);
    const bool isWhole = ipMsgAt(pkt, 0, *msg) == PktErrors::noError;
    return isWhole && msg->protocol != IpProtocolNumber::reserved ? pkt : nullptr;
}

void checkMux(std::string_view bytes, uint32_t privateBytes, CaptureLinkType linkType) {
    Mox::ManualClock clock;
    const auto wire = pamConnectorFactory(&clock);
    const auto mux = pamMuxFactory("mux", wire->pam("pam1"), &clock, linkType);
    IpMsg msg;
    const bool isWhole = linkType == CaptureLinkType::rawIp && wholeMsg(bytes, &msg);
    const bool isUdp = isWhole && msg.protocol == IpProtocolNumber::udp && msg.bytes >= 8;
    const uint16_t dstPort = isUdp ? fuzz::loadAt<uint16_t>(bytes, msg.offset + 2) : 0;
    const auto protocol = mux->clientIs("protocol", PamMuxMatch::ipProtocol(msg.protocol));
    const auto port = mux->clientIs("port", PamMuxMatch::udpPort(dstPort));
    const auto all = mux->clientIs("all", PamMuxMatch::all());
    for (const Mox::Ptr<PamMuxPam>& each : {protocol, port, all}) {
        each->takesCopiesIs(true);
    }
    mux->enabledIs(true);
    for (const uint32_t count : {0u, privateBytes}) {
        wire->pam("pam0")->txPktIs(fuzz::pktOf(bytes, count));
    }
    clock.advance(1);
    Mox::require(all->waiting() == 2, "every packet arrives");
    // Long headers of a packet in two pieces may end after what is looked at.
    Mox::require(!isWhole || (msg.offset > 200 ? 1 : 2) <= protocol->waiting(), "by protocol");
    Mox::require(!isUdp || (msg.offset > 200 ? 1 : 2) <= port->waiting(), "by port");
}

void checkHost(std::string_view bytes, uint32_t privateBytes) {
    Mox::ManualClock clock;
    const auto wire = pamConnectorFactory(&clock);
    const auto host = ipHostFactory("host", wire->pam("pam1"), &clock);
    IpMsg msg;
    const bool isWhole = wholeMsg(bytes, &msg) != nullptr;
    const bool isTaken = isWhole && !msg.dst.isMulticast() && !msg.dst.address().isZero() &&
                         !msg.dst.isLoopback() && !msg.src.isLoopback() &&
                         msg.protocol != IpProtocolNumber::udp && msg.dst.af() == ipv4;
    if (isWhole) {
        host->addressIs(msg.dst);
    }
    const auto raw = host->attach(ipSocketPamFactory("raw", msg.protocol, {}));
    raw->optionsIs(options);
    raw->enabledIs(true);
    const auto udp = host->attach(udpPamFactory("udp"));
    udp->localAddrIs(IpGenAddr(msg.dst.af() == ipv6 ? ipv6 : ipv4));
    udp->localPortIs(msg.bytes >= 8 ? fuzz::loadAt<uint16_t>(bytes, msg.offset + 2) : 1);
    udp->enabledIs(true);
    wire->pam("pam0")->txPktIs(fuzz::pktOf(bytes, privateBytes));
    clock.advance(1);
    const auto pkt = raw->rxPkt();
    Mox::require(!pkt || pkt->totalBytes() <= bytes.size(), "not more than has come");
    Mox::require(!isTaken || pkt, "the raw endpoint receives it");
    const auto datagram = udp->rxPkt();
    Mox::require(!datagram || datagram->totalBytes() + 28 <= bytes.size(), "without its headers");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::Input input(data, std::min<std::size_t>(size, 1400));
    const uint32_t privateBytes = input.u8() % 65u;
    const std::string_view bytes = input.rest();
    if (bytes.empty()) {
        return 0;
    }
    checkMux(bytes, privateBytes, CaptureLinkType::rawIp);
    checkMux(bytes, privateBytes, CaptureLinkType::ethernet);
    checkHost(bytes, privateBytes);
    return 0;
}
