/// @file
/// The entries of an ARP machine.
#pragma once

#include <cstdint>
#include <optional>

#include "Mox/Collections.h"
#include "Mox/Ptr.h"
#include "Pavo/arp/ArpClaims.h"
#include "Pavo/arp/ArpEntry.h"
#include "Pavo/arp/ArpWire.h"
#include "Pavo/arp/MonitoredNextHop.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/value/EthAddr.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

struct ArpWork;

/// Moves entries through their states. Its functions are called inside `ArpWire::run`.
class ArpResolver {
  public:
    /// What a packet says of its sender.
    struct SenderInfo {
        IpAddr address;
        EthAddr mac;
        /// A reply to this machine.
        bool isConfirmation;
        bool isAnnouncement;
        /// The sender asked for an address that is answered for.
        bool mayAdd;
    };

    ArpResolver(ArpSm* sm, ArpWire* wire, ArpClaims* claims)
        : sm_(sm), wire_(wire), claims_(claims) {}

    void start();
    void stop();

    /// Its entry as of a packet that is about to be sent; null where the table is full.
    Mox::Ptr<ArpEntry> use(IpAddr address);
    void send(Mox::Ptr<Pkt> pkt, IpAddr neighbour, uint16_t etherType);
    void confirm(IpAddr address);
    void learn(const SenderInfo& sender);
    void entryDel(IpAddr address);
    /// What the agent wants of an address has changed.
    void update(IpAddr address);
    void handleTimer(ArpEntry* entry);

    // What the agent wants; `update` follows a change.
    Mox::Map<IpAddr, EthAddr> permanent;
    Mox::Map<IpAddr, double> refresh;
    Mox::Map<IpAddr, Mox::Ptr<MonitoredNextHop>> nextHop;

    ArpWire* wire() const { return wire_; }

  private:
    Mox::Ptr<ArpEntry> find(IpAddr address) const;
    Mox::Ptr<ArpEntry> add(IpAddr address, bool isWanted);
    bool makeRoom();
    void remove(const Mox::Ptr<ArpEntry>& entry);
    bool isWanted(IpAddr address) const;
    std::optional<double> refreshSecondsOf(IpAddr address) const;
    void updateRemovable(ArpEntry* entry);

    void beginResolving(ArpEntry* entry);
    void beginProbing(ArpEntry* entry, EthAddr mac);
    void beginDelay(ArpEntry* entry, EthAddr mac);
    void ask(ArpEntry* entry);
    void askAgain(ArpEntry* entry, uint32_t limit);
    void fail(ArpEntry* entry);
    void confirmed(ArpEntry* entry, EthAddr mac);
    void unconfirmedMacIs(ArpEntry* entry, EthAddr mac);
    void handleReachableTimer(ArpEntry* entry);
    void drawInterval(ArpEntry* entry);

    void stateIs(ArpEntry* entry, ArpState state, EthAddr mac);
    void follow(const ArpEntry& entry);
    void enqueue(ArpEntry* entry, Mox::Ptr<Pkt> pkt, uint16_t etherType);
    void sendQueue(ArpEntry* entry);
    void dropQueue(ArpEntry* entry);
    void transmit(Mox::Ptr<Pkt> pkt, EthAddr dst, uint16_t etherType);
    void arm(ArpEntry* entry, double seconds);

    ArpSm* sm_;
    ArpWire* wire_;
    ArpClaims* claims_;
};

}  // namespace Pavo
