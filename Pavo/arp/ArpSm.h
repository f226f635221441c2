/// @file
/// The ARP machine of an interface.
#pragma once

#include <cstdint>
#include <memory>

#include "Keel/TimerWheel.h"
#include "Mox/Clock.h"
#include "Mox/Collections.h"
#include "Mox/Entity.h"
#include "Mox/Enum.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/arp/ArpEntry.h"
#include "Pavo/arp/ArpSettings.h"
#include "Pavo/arp/ArpTable.h"
#include "Pavo/arp/MonitoredNextHop.h"
#include "Pavo/arp/ProxyArp.h"
#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/packet/ArpHdr.h"
#include "Pavo/packet/EthHdr.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/Pam.h"
#include "Pavo/value/EthAddr.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

/// How an address becomes one of the interface's own.
///
/// - `silent`: it is used at once.
/// - `announced`: it is used at once, and announced (RFC 5227, 2.3).
/// - `probed`: it is used and announced when probes have shown that no other host uses it (RFC
///   5227, 2.1.1).
enum class ArpClaim : uint32_t { silent, announced, probed };
constexpr auto enumDescription(ArpClaim) {
    return Mox::enumeration<ArpClaim>("Invalid ArpClaim", {{ArpClaim::silent, "silent"},
                                                           {ArpClaim::announced, "announced"},
                                                           {ArpClaim::probed, "probed"}});
}

/// What an own address is good for.
///
/// - `probing`: probes are sent, or the machine is disabled; requests are not answered.
/// - `usable`: requests are answered.
/// - `conflict`: a probe has shown that another host uses the address; it is not used.
enum class ArpAddressState : uint32_t { probing, usable, conflict };
constexpr auto enumDescription(ArpAddressState) {
    return Mox::enumeration<ArpAddressState>("Invalid ArpAddressState",
                                             {{ArpAddressState::probing, "probing"},
                                              {ArpAddressState::usable, "usable"},
                                              {ArpAddressState::conflict, "conflict"}});
}

/// What a machine has received, sent and dropped. Changes notify no observer.
struct ArpCounters {
    /// Requests and replies that were looked at.
    /// @{
    uint64_t rxRequests = 0;
    uint64_t rxReplies = 0;
    /// @}
    /// ARP packets with faults (`ArpHdr::check`), from a MAC of zero, or about loopback addresses.
    uint64_t rxBad = 0;
    /// Requests to find or confirm a neighbour.
    uint64_t txRequests = 0;
    /// Answers, those with a virtual MAC among them.
    uint64_t txReplies = 0;
    /// Answers with a virtual MAC.
    uint64_t txProxyReplies = 0;
    /// Probes for own addresses.
    uint64_t txProbes = 0;
    /// Announcements, those that defend an address among them.
    uint64_t txAnnouncements = 0;
    /// Times that a neighbour did not answer: the entry became `failed`.
    uint64_t failures = 0;
    /// Packets that waited for a MAC and were dropped.
    uint64_t queueDrops = 0;
    /// Packets and addresses for which the table had no room.
    uint64_t tableFull = 0;
    /// Frames for which the endpoint had no room.
    uint64_t noRoom = 0;
};

/// Another host that uses an own address.
///
/// Members: the address, the sender of the packet that shows it, and the time in seconds of the
/// machine's clock.
struct ArpConflict {
    IpAddr address;
    EthAddr mac;
    double time = -Mox::Clock::idle;
};

/// Resolves the IPv4 addresses of the neighbours on one interface, and answers for those of the
/// interface (RFC 826, 5227, 5494). It has no socket: frames pass a `Pam`, which carries whole
/// frames, such as an `EthDevPam` with the EtherType of ARP, a client of a `PamMux`, or an end of a
/// connector.
///
///     agent -- txPktIs(pkt, nextHop) --> ArpSm --- frames ---> Pam
///                                         |  ^
///       ArpTable  <-- entries ------------+  +--- timers ----- Keel::TimerWheel
///
/// **States** of an entry are those of `ArpState`. A first use makes it `incomplete`; an answer
/// makes it `reachable`, and sends the packets that waited. After `reachableSeconds` it is `stale`,
/// or `delay` where it was used in the last `delaySeconds`; the first use of a stale one makes it
/// `delay` too. After `delaySeconds` without confirmation it is `probe`: requests go to the known
/// MAC, and an answer makes it `reachable` again. Requests without answer make it `failed`. One
/// timer runs for an entry, in all states but `stale`, `failed` and `permanent`; for an entry that
/// is refreshed also in `failed`.
///
/// **Learning.** A request for an own or proxied address adds its sender to the table, as `stale`.
/// Other packets change only entries that exist: a reply to this MAC confirms, anything else makes
/// a new MAC `stale`. Another MAC is accepted `lockSeconds` after the last packet, and from an
/// announcement at once.
///
/// **Conflicts** (RFC 5227, 2.4). A packet of another MAC with an own address as its sender, or a
/// host prefix of `proxy()`, is counted in `conflicts`. The address stays in use; with `defends` it
/// is announced once more, at most once in `defendSeconds`.
///
/// **Beside the kernel's table or instead of it.** A packet socket sees all ARP packets, and the
/// kernel goes on with its own table. For an address that the kernel does not have, this machine
/// alone answers. For one that the kernel has too, both would answer, alike: set
/// `ArpSettings::answers` to false then, and the machine resolves, learns, refreshes and counts
/// conflicts from that address, and answers with virtual MACs only.
/// What the machine learns is not put into the kernel's table: send with `txPktIs`, or write it
/// there by netlink.
///
/// While it is notified, of a change here, in the table or of the endpoint, an observer may use the
/// machine, disable it, and drop the last reference to it. Each operation is complete before its
/// frames are sent, and these are sent before observers are notified of it. Where an observer
/// throws, all others are still notified; then the first exception leaves the call. The observers
/// of the table are also notified when an enabled machine is destroyed, where an exception ends the
/// process: disable it before, if they may throw. One thread uses machines, table and clock.
class PAVO_EXPORT ArpSm : public Mox::EntityOf<ArpSm> {
  public:
    static constexpr Mox::Attribute<ArpSm> enabledAttr{0, "enabled"};
    static constexpr Mox::Attribute<ArpSm> macAttr{1, "mac"};
    static constexpr Mox::Attribute<ArpSm, IpAddr> addressAttr{2, "address"};
    static constexpr Mox::Attribute<ArpSm, IpAddr> permanentAttr{3, "permanent"};
    static constexpr Mox::Attribute<ArpSm, IpAddr> refreshAttr{4, "refresh"};
    static constexpr Mox::Attribute<ArpSm, IpAddr> nextHopAttr{5, "nextHop"};
    static constexpr Mox::Attribute<ArpSm> conflictsAttr{6, "conflicts"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::ArpSm", Mox::attribute(enabledAttr, &ArpSm::enabled),
                                Mox::attribute(macAttr, &ArpSm::mac), Mox::attribute(addressAttr),
                                Mox::attribute(permanentAttr), Mox::attribute(refreshAttr),
                                Mox::attribute(nextHopAttr),
                                Mox::attribute(conflictsAttr, &ArpSm::conflicts));
    }

    /// Where a machine works.
    struct Config {
        /// Carries frames, one by one (`rxPkt`), and is not read by anyone else. Held. One that has
        /// to be enabled for sending is enabled before the machine and disabled after it.
        Mox::Ptr<Pam> pam;
        /// Held.
        Mox::Ptr<ArpTable> table;
        /// The interface, as the key of its entries.
        uint32_t ifIndex;
        /// The MAC of the interface.
        EthAddr mac;
        /// Not held; it and its clock outlive the machine.
        Keel::TimerWheel* timers;
        /// Of the random times. Machines of one network have different ones.
        uint32_t seed;
    };
    /// Disabled, without addresses.
    /// @throws Mox::RangeException "ArpSm::ifIndex is 0", and "ArpSm::mac is not unicast" for a MAC
    /// of zero or of a group, such as that of an endpoint that is not enabled yet.
    ArpSm(Mox::String name, Config config);

    Mox::String name() const override { return name_; }

    /// As the machine was made with.
    /// @{
    const Mox::Ptr<Pam>& pam() const;
    const Mox::Ptr<ArpTable>& table() const;
    uint32_t ifIndex() const;
    /// @}

    /// Whether the machine works. Enabling reads the endpoint, claims the own addresses, and
    /// resolves what is refreshed or monitored. Disabling drops the packets that wait, and removes
    /// the entries of the machine from the table; what was configured stays.
    /// @pre to enable: no other enabled machine has the same table and interface (assertion
    /// "one machine for an interface of a table"); the endpoint can send, which an `FdPam` asserts
    /// as "enabled()".
    bool enabled() const { return enabled_; }
    void enabledIs(bool enabled);

    /// The MAC of the interface. A change announces the own addresses that were not claimed
    /// silently.
    /// @throws Mox::RangeException "ArpSm::mac is not unicast"; it is then unchanged.
    EthAddr mac() const;
    void macIs(EthAddr mac);

    /// For what happens from now on; timers that run keep their times.
    /// @throws Mox::RangeException "ArpSettings: a time < 0 not allowed" (or one that is not
    /// finite), "ArpSettings: a period of 0 not allowed" (reachable, retrans, failedRetry),
    /// "ArpSettings: no requests not allowed", "ArpSettings: probeMin > probeMax not allowed"; the
    /// settings are then unchanged.
    const ArpSettings& settings() const;
    void settingsIs(const ArpSettings& settings);

    /// The own addresses. Requests for them are answered, and they are the sources of the machine's
    /// requests: of the usable ones that are not virtual, the one that shares the most leading bits
    /// with the address that is asked for. Without such an address the source is 0.0.0.0, as in a
    /// probe; a host that is claiming the address takes that for a conflict.
    const Mox::Map<IpAddr, ArpAddressState>& address() const;
    /// Adds an own address. One that is there begins anew if it is in `conflict`, and is else
    /// unchanged.
    /// @throws Mox::RangeException "ArpSm::address is not unicast" for 0.0.0.0, groups and
    /// 255.255.255.255.
    void addressIs(IpAddr address, ArpClaim claim = ArpClaim::announced);
    void addressDel(IpAddr address);

    /// The virtual MACs of the interface.
    const Mox::Ptr<ProxyArp>& proxy() const { return proxy_; }
    /// Sends announcements of an own or virtual address, `ArpSettings::announcements` of them, the
    /// first one now: for example when this router takes over a virtual address. Does nothing while
    /// disabled, and for other addresses.
    void announce(IpAddr address);

    /// Begins to resolve an address, or to confirm a stale MAC, as a packet to it would. Returns
    /// its entry; null while disabled, and where the table is full.
    /// @throws Mox::RangeException "ArpSm::resolve is not unicast", as `addressIs`.
    Mox::Ptr<ArpEntry> resolve(IpAddr address);
    /// Sends a packet to a neighbour: puts an Ethernet header before it, in place where the caller
    /// does not keep the packet, else in a shallow copy. Without the MAC the packet waits for the
    /// answer; `ArpEntry::queueDrops` and `counters` say which were dropped. Groups and
    /// 255.255.255.255 have their MACs without ARP (RFC 1112, 6.4). Does nothing while disabled.
    /// @pre a packet with at least one byte (assertion "pkt && pkt->totalBytes() != 0").
    void txPktIs(Mox::Ptr<Pkt> pkt, IpAddr nextHop, uint16_t etherType = EthType::ip);
    /// The layer above knows that packets reach the neighbour, such as from an acknowledgement of
    /// TCP: its MAC is `reachable`. Does nothing for an address without a MAC.
    void confirm(IpAddr address);

    /// MACs that the agent sets. Such an entry is `permanent`, and no packet changes it.
    const Mox::Map<IpAddr, EthAddr>& permanent() const;
    /// @throws Mox::RangeException "ArpSm::permanent is not unicast" for a MAC of zero or of a
    /// group, and for such an address, as `addressIs`.
    void permanentIs(IpAddr address, EthAddr mac);
    /// The entry is removed.
    void permanentDel(IpAddr address);
    /// Removes the entry of an address, if there is one. What is refreshed, monitored or permanent
    /// gets a new entry at once.
    void entryDel(IpAddr address);

    /// Addresses that are kept resolved, and the period of each in seconds. They are asked for
    /// again before their confirmation is too old, and stay `reachable` while they answer, so that
    /// no packet to them ever waits. With a period, that is also done once a period. A failed one
    /// is asked for again, by broadcast, once in `failedRetrySeconds` or in a period.
    const Mox::Map<IpAddr, double>& refresh() const;
    /// Begins now. 0 is no period.
    /// @throws Mox::RangeException "ArpSm::refresh: a period < 0 not allowed", or one that is not
    /// finite; "ArpSm::refresh is not unicast", as `addressIs`.
    void refreshIs(IpAddr address, double periodSeconds = 0);
    void refreshDel(IpAddr address);

    /// The neighbours that are monitored.
    const Mox::Map<IpAddr, Mox::Ptr<MonitoredNextHop>>& nextHop() const;
    /// Monitors a neighbour, which is not an own address, and returns it. One that is monitored
    /// with this period is returned as it is; with another period a new one takes its config.
    /// @throws Mox::RangeException "ArpSm::nextHop: a period <= 0 not allowed", or one that is not
    /// finite; "ArpSm::nextHop is not unicast", as `addressIs`.
    Mox::Ptr<MonitoredNextHop> nextHopIs(IpAddr address, double periodSeconds = 1);
    /// The next hop does not change any more.
    void nextHopDel(IpAddr address);

    /// Since the machine was made.
    const ArpCounters& counters() const;
    /// Packets that show another host on an own address, and the last of them.
    /// @{
    uint32_t conflicts() const { return conflicts_; }
    const ArpConflict& lastConflict() const { return lastConflict_; }
    /// @}

  protected:
    ~ArpSm() override;

  private:
    friend class ArpClaims;
    friend class ArpResolver;
    struct Parts;

    void handleReadable();
    void handleFrame(const Mox::Ptr<Pkt>& pkt, const RxInfo& info);
    void handleArp(const ArpHdr& arp, bool isToMac);
    void start();
    void stop();

    Mox::String name_;
    Mox::Ptr<ProxyArp> proxy_;
    bool enabled_ = false;
    uint32_t conflicts_ = 0;
    ArpConflict lastConflict_;
    std::unique_ptr<Parts> parts_;
};

/// A disabled machine.
PAVO_EXPORT Mox::Ptr<ArpSm> arpSmFactory(Mox::String name, ArpSm::Config config);

}  // namespace Pavo
