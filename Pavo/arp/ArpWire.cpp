#include "Pavo/arp/ArpWire.h"

#include "Pavo/base/FirstException.h"
#include "Pavo/packet/BuildPkt.h"

namespace Pavo {
namespace {

constexpr EthAddr broadcast(0xffff, 0xffff, 0xffff);

}  // namespace

ArpWire::ArpWire(ArpSm* sm, ArpSm::Config configOfMachine)
    : config(std::move(configOfMachine)), sm_(sm), random_(config.seed) {}

// Observers may come back into the machine: what they cause is sent by their own operation,
// together with what is left here.
void ArpWire::flush() {
    FirstException exception;
    while (!frames_.empty() || !notifications_.empty()) {
        if (!frames_.empty()) {
            exception.collect([this] { sendFrames(); });
        } else {
            const auto notify = std::move(notifications_.front());
            notifications_.pop_front();
            exception.collect(notify);
        }
    }
    exception.rethrow();
}

void ArpWire::sendFrames() {
    std::vector<Mox::Ptr<Pkt>> frames;
    frames.swap(frames_);
    const Mox::Ptr<Pam> pam = config.pam;
    const uint32_t taken = pam->txPktsIs(frames);
    counters.noRoom += frames.size() - taken;
    if (frames_.capacity() == 0) {  // Its memory serves the next ones.
        frames.clear();
        frames_.swap(frames);
    }
}

void ArpWire::sendRequest(IpAddr source, IpAddr target, EthAddr dst) {
    ++counters.txRequests;
    send(buildPkt(Eth{.dst = dst, .src = config.mac},
                  Arp{.senderMac = config.mac, .senderIp = source, .targetIp = target}));
}

void ArpWire::sendReply(EthAddr mac, IpAddr address, EthAddr dst, IpAddr target) {
    ++counters.txReplies;
    send(buildPkt(Eth{.dst = dst, .src = mac}, Arp{.op = ArpOp::reply,
                                                   .senderMac = mac,
                                                   .senderIp = address,
                                                   .targetMac = dst,
                                                   .targetIp = target}));
}

void ArpWire::sendProbe(IpAddr address) {
    ++counters.txProbes;
    send(buildPkt(Eth{.dst = broadcast, .src = config.mac},
                  Arp{.senderMac = config.mac, .targetIp = address}));
}

void ArpWire::sendAnnouncement(IpAddr address, EthAddr mac) {
    ++counters.txAnnouncements;
    send(buildPkt(Eth{.dst = broadcast, .src = mac},
                  Arp{.senderMac = mac, .senderIp = address, .targetIp = address}));
}

}  // namespace Pavo
