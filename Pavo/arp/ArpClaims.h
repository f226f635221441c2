/// @file
/// The own addresses of an ARP machine.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "Keel/TimerWheel.h"
#include "Mox/Clock.h"
#include "Mox/Collections.h"
#include "Pavo/arp/ArpSm.h"
#include "Pavo/arp/ArpWire.h"
#include "Pavo/packet/ArpHdr.h"
#include "Pavo/value/EthAddr.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

/// Claims addresses, announces them, and finds others that use them (RFC 5227). Its functions are
/// called inside `ArpWire::run`.
class ArpClaims {
  public:
    ArpClaims(ArpSm* sm, ArpWire* wire) : sm_(sm), wire_(wire) {}

    void start();
    void stop();
    void addressIs(IpAddr address, ArpClaim claim);
    void addressDel(IpAddr address);
    /// Announces an own or virtual address.
    void announce(IpAddr address);
    /// Announces the addresses that were not claimed silently.
    void announceAll();

    const Mox::Map<IpAddr, ArpAddressState>& address() const { return address_; }
    /// Usable, or virtual.
    bool isOwn(IpAddr address) const;
    /// Requests are answered.
    bool isUsable(IpAddr address) const;
    /// The source of a request for `target`.
    IpAddr sourceFor(IpAddr target) const;
    /// The MAC that stands for an own or virtual address.
    EthAddr macOf(IpAddr address) const;
    /// Looks for a conflict in a packet of another host. True where its sender uses an own address.
    bool handleArp(const ArpHdr& arp);

  private:
    struct Claim {
        ArpClaim how;
        uint32_t probesSent = 0;
        std::optional<Keel::Timer> timer;
    };
    struct Announcement {
        uint32_t left;
        std::optional<Keel::Timer> timer;
    };

    bool isVirtualHost(IpAddr address) const;
    void begin(IpAddr address, Claim* claim);
    void handleProbeTimer(IpAddr address);
    void handleAnnounceTimer(IpAddr address);
    void stateIs(IpAddr address, ArpAddressState state);
    void conflictIs(IpAddr address, EthAddr mac);
    void defend(IpAddr address);

    ArpSm* sm_;
    ArpWire* wire_;
    Mox::Map<IpAddr, ArpAddressState> address_;
    std::map<IpAddr, Claim> claims_;
    std::map<IpAddr, Announcement> announcements_;
    std::map<IpAddr, double> defendedAt_;
    uint32_t probeConflicts_ = 0;
    double claimedAt_ = -Mox::Clock::idle;
};

}  // namespace Pavo
