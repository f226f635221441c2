/// @file
/// Neighbours whose addresses ARP resolves.
#pragma once

#include <cstdint>
#include <memory>

#include "Mox/Clock.h"
#include "Mox/Entity.h"
#include "Mox/Enum.h"
#include "Pavo/arp/ArpKey.h"
#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/value/EthAddr.h"

namespace Pavo {

struct ArpWork;

/// What is known of a neighbour: the states and numbers of the kernel (NUD_* in rtnetlink(7)).
///
/// - `none`: the entry was removed from its table.
/// - `incomplete`: broadcast requests are sent, and no answer has come; packets wait.
/// - `reachable`: an answer, or the layer above, has confirmed the neighbour a short time ago.
/// - `stale`: the MAC is used, but the confirmation is old, or there was none.
/// - `delay`: a stale MAC was used; the layer above has time to confirm the neighbour.
/// - `probe`: requests are sent to the MAC, which is used meanwhile.
/// - `failed`: requests had no answer. The next use begins again.
/// - `permanent`: set by the agent, never asked for.
enum class ArpState : uint32_t {
    none = 0,
    incomplete = 0x01,
    reachable = 0x02,
    stale = 0x04,
    delay = 0x08,
    probe = 0x10,
    failed = 0x20,
    permanent = 0x80,
};
constexpr auto enumDescription(ArpState) {
    return Mox::enumeration<ArpState>("Invalid ArpState", {{ArpState::none, "none"},
                                                           {ArpState::incomplete, "incomplete"},
                                                           {ArpState::reachable, "reachable"},
                                                           {ArpState::stale, "stale"},
                                                           {ArpState::delay, "delay"},
                                                           {ArpState::probe, "probe"},
                                                           {ArpState::failed, "failed"},
                                                           {ArpState::permanent, "permanent"}});
}

/// Packets can be sent: in `reachable`, `stale`, `delay`, `probe` and `permanent`.
constexpr bool hasMac(ArpState state) {
    return state != ArpState::none && state != ArpState::incomplete && state != ArpState::failed;
}

/// A neighbour in an `ArpTable`, which an `ArpSm` makes, changes and removes. Times are those of
/// the machine's clock, in seconds; what has not happened yet was at -infinity. Only `state` and
/// `mac` notify observers. These may do anything with table and machine.
class PAVO_EXPORT ArpEntry : public Mox::EntityOf<ArpEntry> {
  public:
    static constexpr Mox::Attribute<ArpEntry> stateAttr{0, "state"};
    static constexpr Mox::Attribute<ArpEntry> macAttr{1, "mac"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::ArpEntry", Mox::attribute(stateAttr, &ArpEntry::state),
                                Mox::attribute(macAttr, &ArpEntry::mac));
    }

    /// For machines.
    explicit ArpEntry(const ArpKey& key);

    /// The address as text.
    Mox::String name() const override { return key_.address().stringValue(); }

    /// Where the table has it.
    /// @{
    const ArpKey& key() const { return key_; }
    IpAddr address() const { return key_.address(); }
    /// @}

    /// Whether the MAC is known, and how sure that is.
    ArpState state() const { return state_; }
    /// Zero while `hasMac(state())` is false.
    EthAddr mac() const { return mac_; }

    /// When the state became what it is.
    double since() const { return since_; }
    /// When an answer or the layer above confirmed the neighbour last.
    double confirmedAt() const { return confirmedAt_; }
    /// When a packet from the neighbour was last taken for its MAC.
    double updatedAt() const { return updatedAt_; }
    /// When an agent sent to the neighbour last, or resolved its address.
    double usedAt() const { return usedAt_; }
    /// Requests sent since the entry was made.
    uint32_t requestsSent() const { return requestsSent_; }
    /// Packets that waited for the MAC and were dropped: the oldest for a newer one, or all when no
    /// answer came.
    uint32_t queueDrops() const { return queueDrops_; }
    /// Packets that wait for the MAC.
    uint32_t queued() const;

  protected:
    ~ArpEntry() override;

  private:
    friend class ArpResolver;
    friend class ArpTable;

    static constexpr double never = -Mox::Clock::idle;

    ArpKey key_;
    ArpState state_ = ArpState::none;
    EthAddr mac_;
    uint32_t requestsSent_ = 0;
    uint32_t queueDrops_ = 0;
    double since_ = never;
    double confirmedAt_ = never;
    double updatedAt_ = never;
    double usedAt_ = never;
    std::unique_ptr<ArpWork> work_;  // Null for an entry that was removed.
};

}  // namespace Pavo
