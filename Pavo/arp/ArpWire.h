/// @file
/// What the parts of an ARP machine share: time, chance, and what leaves the machine.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <random>
#include <utility>
#include <vector>

#include "Mox/Ptr.h"
#include "Pavo/arp/ArpSettings.h"
#include "Pavo/arp/ArpSm.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/value/EthAddr.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

/// Frames and notifications wait here until the operation is complete that caused them.
class ArpWire {
  public:
    ArpWire(ArpSm* sm, ArpSm::Config config);

    /// Makes the changes, and then sends and notifies. Holds the machine meanwhile. Every operation
    /// and every timer of the machine comes in here.
    template <class Changes>
    void run(Changes changes) {
        const Mox::Ptr<ArpSm> hold(sm_);
        changes();
        flush();
    }
    /// Calls `notify` after the changes, when their frames are sent.
    void later(std::function<void()> notify) { notifications_.push_back(std::move(notify)); }
    /// Sends a frame after the changes.
    void send(Mox::Ptr<Pkt> frame) { frames_.push_back(std::move(frame)); }

    // ARP packets.

    /// To everyone where `dst` is the broadcast address.
    void sendRequest(IpAddr source, IpAddr target, EthAddr dst);
    void sendReply(EthAddr mac, IpAddr address, EthAddr dst, IpAddr target);
    /// RFC 5227, 2.1.1 and 2.3.
    /// @{
    void sendProbe(IpAddr address);
    void sendAnnouncement(IpAddr address, EthAddr mac);
    /// @}

    double now() const { return config.timers->now(); }
    /// Evenly distributed.
    double between(double from, double to) {
        return from + (to - from) * (static_cast<double>(random_()) / 4294967296.0);
    }

    ArpSm::Config config;
    ArpSettings settings;
    ArpCounters counters;

  private:
    void flush();
    void sendFrames();

    ArpSm* sm_;
    std::mt19937 random_;
    std::vector<Mox::Ptr<Pkt>> frames_;
    std::deque<std::function<void()>> notifications_;
};

}  // namespace Pavo
