/// @file
/// Many packet endpoints over one.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "Mox/Clock.h"
#include "Mox/Collections.h"
#include "Mox/Entity.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/CaptureFile.h"
#include "Pavo/pam/Pam.h"
#include "Pavo/pam/PamMuxMatch.h"

namespace Pavo {

class FirstException;
class PamMux;
class PamMuxIndex;
class PamMuxSm;

/// A client of a multiplexer: an endpoint that receives the packets of its match and sends through
/// the endpoint below. The packets that wait are announced by `readableCount`, once a turn of the
/// loop while there are more. `rxPkt` takes one and `rxPktBulk` up to `bulkReadLimit`; `rxInfo` is
/// what the endpoint below said of each. A read that finds nothing counts no error.
///
/// A packet goes to the endpoint below as it is; `txErrno` and `txErrors` then say what that one
/// said, at the end of all that its observers did. A client that found no room is notified by
/// `writableCount` once there is some. A client that was taken out of the multiplexer sends nothing
/// (ENOTCONN), nor does one of a disabled multiplexer (ENETDOWN).
class PAVO_EXPORT PamMuxPam : public Mox::EntityOf<PamMuxPam, Pam> {
  public:
    static constexpr Mox::Attribute<PamMuxPam> placeAttr{8, "place"};
    static constexpr Mox::Attribute<PamMuxPam> takesCopiesAttr{9, "takesCopies"};
    static constexpr Mox::Attribute<PamMuxPam> maxWaitingAttr{10, "maxWaiting"};
    static constexpr Mox::Attribute<PamMuxPam> bulkReadLimitAttr{11, "bulkReadLimit"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::PamMuxPam", Mox::attribute(placeAttr, &PamMuxPam::place),
                                Mox::attribute(takesCopiesAttr, &PamMuxPam::takesCopies),
                                Mox::attribute(maxWaitingAttr, &PamMuxPam::maxWaiting),
                                Mox::attribute(bulkReadLimitAttr, &PamMuxPam::bulkReadLimit));
    }

    /// A client of `mux`, which makes it: see `PamMux::clientIs`.
    PamMuxPam(Mox::String name, PamMuxMatch match, PamMux* mux);

    /// @pre a packet (assertion "pkt != nullptr"), and an enabled endpoint below, where that has to
    /// be enabled.
    void txPktIsImpl(Mox::Ptr<Pkt> pkt) override;
    void doGetRxPkt() override;
    int32_t doGetBulkRxPkt() override;

    /// Which packets it wants, as it was made with.
    const PamMuxMatch& match() const { return match_; }
    /// Null for a client that was taken out, or whose multiplexer was destroyed.
    PamMux* mux() const { return mux_; }

    /// Clients are asked in the order of their places, and those of one place in the order in which
    /// they were added. 0 by default.
    int32_t place() const { return place_; }
    void placeIs(int32_t place);
    /// Whether the client gets a shallow copy of each packet that it wants, so that those after it
    /// are asked too. By default it takes the packet itself, and the clients after it are not
    /// asked. A client that changes the bytes of a copy calls `Pkt::unshare` before.
    bool takesCopies() const { return takesCopies_; }
    void takesCopiesIs(bool takes) { attributeIs(takesCopies_, takes, takesCopiesAttr); }
    /// The most packets that wait, 1024 by default. Further ones are dropped and counted in
    /// `rxDrops`.
    uint32_t maxWaiting() const { return maxWaiting_; }
    void maxWaitingIs(uint32_t packets) { attributeIs(maxWaiting_, packets, maxWaitingAttr); }
    /// The most packets of a batch, 32 by default; 0 counts as 1.
    uint32_t bulkReadLimit() const { return bulkReadLimit_; }
    void bulkReadLimitIs(uint32_t packets) {
        attributeIs(bulkReadLimit_, packets, bulkReadLimitAttr);
    }
    /// Packets that wait.
    uint32_t waiting() const { return static_cast<uint32_t>(waiting_.size() - firstWaiting_); }

    /// For an endpoint that hands the packets of this one on: an attempt to read was made, after
    /// which the packets that wait are reported again in the next turn, or not before more come.
    void readTried(bool reportsAgain);
    /// For such an endpoint: something else than a packet is to be read. It is reported in the next
    /// turn, unless it was reported since the last attempt to read.
    void readableIs();

  protected:
    ~PamMuxPam() override;

  private:
    friend class PamMux;

    struct Waiting {
        Mox::Ptr<Pkt> pkt;
        RxInfo info;
    };

    static uint32_t sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts);
    uint32_t send(std::span<const Mox::Ptr<Pkt>> pkts);
    bool hasRoom();
    void add(Mox::Ptr<Pkt> pkt, const RxInfo& info) { waiting_.push_back({std::move(pkt), info}); }
    void firstDel();
    void waitingDel();
    void report();

    PamMux* mux_;
    PamMuxMatch match_;
    std::vector<Waiting> waiting_;  // From `firstWaiting_` on.
    std::size_t firstWaiting_ = 0;
    uint32_t maxWaiting_ = 1024;
    uint32_t bulkReadLimit_ = 32;
    int32_t place_ = 0;
    uint32_t addedAs_ = 0;
    uint32_t listedIn_ = 0;  // The turn in which it was put into the list for the next one.
    bool takesCopies_ = false;
    bool isReported_ = false;  // Since the last attempt to read.
    bool isDue_ = false;       // To be reported when its turn in the list comes.
    bool isListed_ = false;    // In a list of clients to report.
};

/// Reads one endpoint, and hands each packet to the clients that want it. Which ones do is found by
/// the numbers in the headers of the packet, or by functions, see `PamMuxMatch`. The first match
/// takes the packet; a client that `takesCopies` leaves it to the others. Packets that no client
/// wants are counted in `unclaimedPkts`.
///
///         agents          ARP        UDP port 7       ICMP
///                          |             |             |
///         clients      [ queue ]     [ queue ]     [ queue ]     readableCount, rxPkt, txPktIs
///                          |             |             |
///         PamMux           +---- keys, functions ------+
///                                        |
///         endpoint below          lower(), read here only
///
/// The multiplexer takes one packet, or one batch where the endpoint below reads in batches, for
/// each report of that endpoint, and announces it to the clients at once. A client that leaves
/// packets waiting is reported again in the next turn of the loop, or at the next instant of a
/// manual clock. One that does not read is not reported again before it reads.
///
/// Packets are expected to begin with the header that `linkType` names: an Ethernet header, or an
/// IP header (`rawIp`). From an endpoint whose headers the kernel removes, `rawIp` is right too:
/// `RxInfo` says of each packet what it begins with.
///
/// Room of the endpoint below is announced to the clients that found none, in the order in which
/// they began to wait, until one of them finds none again: then the others are first at the next
/// report.
///
/// The multiplexer holds the endpoint below and the clients; clients do not hold it. While it is
/// notified, an observer of any of them may read and send, add and take out clients, disable the
/// multiplexer, and drop the last reference to it. Where an observer of multiplexer or client
/// throws, all others are still notified; then the first exception leaves the call. One thread uses
/// a multiplexer and its clock.
class PAVO_EXPORT PamMux : public Mox::EntityOf<PamMux> {
  public:
    static constexpr Mox::Attribute<PamMux> enabledAttr{0, "enabled"};
    static constexpr Mox::Attribute<PamMux, Mox::String> clientAttr{1, "client"};
    static constexpr Mox::Attribute<PamMux> unclaimedPktsAttr{2, "unclaimedPkts"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::PamMux", Mox::attribute(enabledAttr, &PamMux::enabled),
                                Mox::attribute(clientAttr),
                                Mox::attribute(unclaimedPktsAttr, &PamMux::unclaimedPkts));
    }

    /// Disabled, without clients. `clock` is that of the event loop, or of a test, and outlives the
    /// multiplexer. Nobody else reads `lower`, nor does another multiplexer: each packet goes to
    /// the first that reads it.
    /// @pre both are there (assertions "lower != nullptr", "clock != nullptr").
    PamMux(Mox::String name, Mox::Ptr<Pam> lower, Mox::Clock* clock, CaptureLinkType linkType);

    Mox::String name() const override { return name_; }

    /// As it was made with.
    /// @{
    const Mox::Ptr<Pam>& lower() const { return lower_; }
    CaptureLinkType linkType() const { return linkType_; }
    /// @}

    /// Whether packets pass. Enabling reads once, and increments the `writableCount` of each
    /// client; the endpoint below is enabled before that. Disabling drops the packets that wait.
    bool enabled() const { return enabled_; }
    void enabledIs(bool enabled);

    /// The client of that name, or null.
    Mox::Ptr<PamMuxPam> client(const Mox::String& name) const;
    const Mox::Map<Mox::String, Mox::Ptr<PamMuxPam>>& client() const { return client_; }
    /// Makes a client, in place of one that has the name.
    Mox::Ptr<PamMuxPam> clientIs(const Mox::String& name, PamMuxMatch match);
    /// Takes a client out. The packets that wait there can still be read.
    void clientDel(Mox::String name);
    void clientDelAll();

    /// Packets that no client wanted.
    uint64_t unclaimedPkts() const { return unclaimedPkts_; }
    void unclaimedPktsIs(uint64_t packets) {
        attributeIs(unclaimedPkts_, packets, unclaimedPktsAttr);
    }

  protected:
    ~PamMux() override;

  private:
    friend class PamMuxPam;
    friend class PamMuxSm;

    using Clients = std::deque<Mox::Ptr<PamMuxPam>>;

    void start();
    void stop();
    void leave(const Mox::Ptr<PamMuxPam>& client);
    void handleReadable();
    void handleWritable();
    void handleNextTurn();
    void readLower(FirstException* exception);
    void readOnce(FirstException* exception);
    void readBatch(FirstException* exception);
    void distribute(const Mox::Ptr<Pkt>& pkt, const RxInfo& info, FirstException* exception);
    void reportNextTurn(const Mox::Ptr<PamMuxPam>& client);
    void wakeNextTurn();
    void waitForRoom(const Mox::Ptr<PamMuxPam>& client);
    void updateIndex();

    Mox::String name_;
    Mox::Ptr<Pam> lower_;
    Mox::Clock* clock_;
    CaptureLinkType linkType_;
    bool enabled_ = false;
    bool isIndexStale_ = false;
    bool isReading_ = false;      // The endpoint below.
    bool readsNextTurn_ = false;  // It was reported meanwhile.
    uint32_t clientsAdded_ = 0;
    uint32_t turnNumber_ = 0;
    uint32_t noRooms_ = 0;  // Sends of clients that found no room.
    uint64_t unclaimedPkts_ = 0;
    uint64_t unclaimedInRead_ = 0;
    Mox::Map<Mox::String, Mox::Ptr<PamMuxPam>> client_;
    std::vector<Mox::Ptr<PamMuxPam>> inOrder_;  // As they are asked.
    std::unique_ptr<PamMuxIndex> index_;
    Clients toReport_;  // Because of the read under way.
    Clients nextTurn_;  // To be reported in the next turn.
    Clients roomWaiters_;
    Mox::Timer turn_;
    Mox::Ptr<PamMuxSm> sm_;  // While enabled.
};

/// A disabled multiplexer over `lower`, whose packets begin with a header of `linkType`.
PAVO_EXPORT Mox::Ptr<PamMux> pamMuxFactory(Mox::String name, Mox::Ptr<Pam> lower, Mox::Clock* clock,
                                           CaptureLinkType linkType = CaptureLinkType::ethernet);

}  // namespace Pavo
