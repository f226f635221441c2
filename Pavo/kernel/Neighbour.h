/// @file
/// Neighbours of network interfaces: the kernel's tables of ARP and of neighbour discovery.
#pragma once

#include <linux/netlink.h>

#include <compare>
#include <cstdint>
#include <optional>
#include <ostream>

#include "Mox/Entity.h"
#include "Mox/Enum.h"
#include "Mox/Lifetime.h"
#include "Mox/String.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/kernel/KernelObject.h"
#include "Pavo/value/EthAddr.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

/// The state of a neighbour (RFC 4861, 7.3.2, and ip-neighbour(8)), with the kernel's numbers,
/// NUD_REACHABLE and others.
enum class NeighbourState : uint32_t {
    none = 0,
    incomplete = 1,
    reachable = 2,
    stale = 4,
    delay = 8,
    probe = 0x10,
    failed = 0x20,
    noArp = 0x40,
    permanent = 0x80
};

/// The names are those of ip-neighbour(8).
constexpr auto enumDescription(NeighbourState) {
    return Mox::enumeration<NeighbourState>("Invalid NeighbourState",
                                            {{NeighbourState::none, "none"},
                                             {NeighbourState::incomplete, "incomplete"},
                                             {NeighbourState::reachable, "reachable"},
                                             {NeighbourState::stale, "stale"},
                                             {NeighbourState::delay, "delay"},
                                             {NeighbourState::probe, "probe"},
                                             {NeighbourState::failed, "failed"},
                                             {NeighbourState::noArp, "noarp"},
                                             {NeighbourState::permanent, "permanent"}});
}

/// What identifies a neighbour among those of a namespace. Ordered by link first.
struct NeighbourKey {
    uint32_t ifIndex = 0;  ///< The index of the link.
    IpGenAddr address;     ///< The address of the neighbour.

    /// "192.0.2.9 of link 7".
    PAVO_EXPORT Mox::String stringValue() const;

    friend auto operator<=>(const NeighbourKey&, const NeighbourKey&) = default;
    /// Writes `stringValue`.
    friend std::ostream& operator<<(std::ostream& out, const NeighbourKey& key) {
        return out << key.stringValue();
    }
};

/// A neighbour of a link. The kernel does not announce each change of its state: `incomplete` and
/// `delay` are as a rule passed in silence, and so are entries of the state `noArp` that it makes
/// for groups. These are seen only by chance, in a dump.
class PAVO_EXPORT Neighbour : public Mox::EntityOf<Neighbour, KernelObject> {
  public:
    /// What a message says of a neighbour.
    ///
    /// Members: as the functions of `Neighbour` with these names.
    struct Properties {
        NeighbourKey key;
        EthAddr ethAddr;
        NeighbourState state = NeighbourState::none;
        uint32_t flags = 0;
    };

    static constexpr Mox::Attribute<Neighbour> ethAddrAttr{1, "ethAddr"};
    static constexpr Mox::Attribute<Neighbour> stateAttr{2, "state"};
    static constexpr Mox::Attribute<Neighbour> flagsAttr{3, "flags"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::Neighbour", Mox::attribute(ethAddrAttr, &Neighbour::ethAddr),
                                Mox::attribute(stateAttr, &Neighbour::state),
                                Mox::attribute(flagsAttr, &Neighbour::flags));
    }

    /// As the kernel described it.
    explicit Neighbour(const Properties& properties) : properties_(properties) {}

    /// The text of the address.
    Mox::String name() const override { return address().stringValue(); }
    /// Its key in the collection of the namespace.
    const NeighbourKey& key() const MOX_LIFETIME_BOUND { return properties_.key; }
    /// The index of the link.
    uint32_t ifIndex() const { return properties_.key.ifIndex; }
    /// Its IP address.
    const IpGenAddr& address() const MOX_LIFETIME_BOUND { return properties_.key.address; }
    /// Zero while it is not known, and on links without hardware addresses of 6 bytes.
    const EthAddr& ethAddr() const MOX_LIFETIME_BOUND { return properties_.ethAddr; }
    /// The state of resolution, as the kernel last announced it.
    NeighbourState state() const { return properties_.state; }
    /// NTF_ROUTER, NTF_EXT_LEARNED and others (rtnetlink(7)).
    uint32_t flags() const { return properties_.flags; }

  private:
    friend class KernelInfo;

    // What a message of the type RTM_NEWNEIGH or RTM_DELNEIGH (rtnetlink(7)) says; nothing for one
    // that is malformed, of another family than IPv4 and IPv6, or about an address that is answered
    // for by proxy.
    static std::optional<Properties> read(const nlmsghdr& message);
    uint64_t commit(const Properties& properties);
    void announce(uint64_t changed);

    Properties properties_;
};

}  // namespace Pavo
