/// @file
/// Network interfaces of a namespace.
#pragma once

#include <linux/netlink.h>
#include <net/if.h>

#include <cstdint>
#include <optional>

#include "Mox/Entity.h"
#include "Mox/Enum.h"
#include "Mox/Lifetime.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/kernel/KernelObject.h"
#include "Pavo/value/EthAddr.h"

namespace Pavo {

/// The operational state of a link (RFC 2863, ifOperStatus), with the kernel's numbers, IF_OPER_UP
/// and others.
enum class LinkOperState : uint32_t {
    unknown = 0,
    notPresent = 1,
    down = 2,
    lowerLayerDown = 3,
    testing = 4,
    dormant = 5,
    up = 6
};

/// The names are those of ip-link(8), in lowercase.
constexpr auto enumDescription(LinkOperState) {
    return Mox::enumeration<LinkOperState>("Invalid LinkOperState",
                                           {{LinkOperState::unknown, "unknown"},
                                            {LinkOperState::notPresent, "notpresent"},
                                            {LinkOperState::down, "down"},
                                            {LinkOperState::lowerLayerDown, "lowerlayerdown"},
                                            {LinkOperState::testing, "testing"},
                                            {LinkOperState::dormant, "dormant"},
                                            {LinkOperState::up, "up"}});
}

/// Counters of a link since it was made, in packets and bytes.
struct LinkStatistics {
    uint64_t rxPackets = 0;  ///< Received, without errors.
    uint64_t txPackets = 0;  ///< Sent.
    uint64_t rxBytes = 0;    ///< Bytes received.
    uint64_t txBytes = 0;    ///< Bytes sent.
    uint64_t rxErrors = 0;   ///< Bad packets received.
    uint64_t txErrors = 0;   ///< Packets that could not be sent.
    uint64_t rxDropped = 0;  ///< Received, and dropped for lack of room.
    uint64_t txDropped = 0;  ///< Dropped on the way out.
    uint64_t multicast = 0;  ///< Packets to groups received.

    friend bool operator==(const LinkStatistics&, const LinkStatistics&) = default;
};

/// A network interface. Its index and its kind never change; another link that takes the index
/// later is another entity, unless it has the same kind and the messages of both changes were lost.
class PAVO_EXPORT Link : public Mox::EntityOf<Link, KernelObject> {
  public:
    /// What a message says of a link.
    ///
    /// Members: as the functions of `Link` with these names.
    struct Properties {
        uint32_t index = 0;
        Mox::String name;
        EthAddr ethAddr;
        uint32_t mtu = 0;
        uint32_t flags = 0;
        LinkOperState operState = LinkOperState::unknown;
        uint32_t master = 0;
        Mox::String kind;
        uint32_t vrfTable = 0;
    };

    static constexpr Mox::Attribute<Link> nameAttr{1, "name"};
    static constexpr Mox::Attribute<Link> ethAddrAttr{2, "ethAddr"};
    static constexpr Mox::Attribute<Link> mtuAttr{3, "mtu"};
    static constexpr Mox::Attribute<Link> flagsAttr{4, "flags"};
    static constexpr Mox::Attribute<Link> isUpAttr{5, "isUp"};
    static constexpr Mox::Attribute<Link> isRunningAttr{6, "isRunning"};
    static constexpr Mox::Attribute<Link> operStateAttr{7, "operState"};
    static constexpr Mox::Attribute<Link> masterAttr{8, "master"};
    static constexpr auto description() {
        return Mox::classRecord(
            "Pavo::Link", Mox::attribute(nameAttr, &Link::name),
            Mox::attribute(ethAddrAttr, &Link::ethAddr), Mox::attribute(mtuAttr, &Link::mtu),
            Mox::attribute(flagsAttr, &Link::flags), Mox::attribute(isUpAttr, &Link::isUp),
            Mox::attribute(isRunningAttr, &Link::isRunning),
            Mox::attribute(operStateAttr, &Link::operState),
            Mox::attribute(masterAttr, &Link::master));
    }

    /// As the kernel described it.
    explicit Link(const Properties& properties) : properties_(properties) {}

    /// Of at most 15 bytes. It changes when the link is renamed.
    Mox::String name() const override { return properties_.name; }
    /// Above 0; `lo` has 1 in every namespace. An index is of its namespace: a request in another
    /// one concerns another link.
    uint32_t index() const { return properties_.index; }
    /// Zero for a link without a hardware address of 6 bytes.
    const EthAddr& ethAddr() const MOX_LIFETIME_BOUND { return properties_.ethAddr; }
    /// In bytes.
    uint32_t mtu() const { return properties_.mtu; }
    /// IFF_UP, IFF_LOWER_UP and others (netdevice(7)).
    uint32_t flags() const { return properties_.flags; }
    /// IFF_UP: the link is set up, whether it has a carrier or not.
    bool isUp() const { return (properties_.flags & IFF_UP) != 0; }
    /// IFF_RUNNING: it is operational.
    bool isRunning() const { return (properties_.flags & IFF_RUNNING) != 0; }
    /// The operational state (RFC 2863).
    LinkOperState operState() const { return properties_.operState; }
    /// The index of the bridge, bond or VRF that it belongs to; 0 for none.
    uint32_t master() const { return properties_.master; }
    /// "veth", "bridge", "vlan" and others; empty for hardware and for `lo`.
    const Mox::String& kind() const MOX_LIFETIME_BOUND { return properties_.kind; }
    /// The routing table of a link of the kind "vrf"; 0 for others, also for links in a VRF, whose
    /// `master` leads to it. `VrfMap` numbers VRFs by their names, which links of this kind have.
    uint32_t vrfTable() const { return properties_.vrfTable; }

  private:
    friend class KernelInfo;

    // What a message of the type RTM_NEWLINK or RTM_DELLINK (rtnetlink(7)) says; nothing for one
    // that is malformed or that describes another aspect of a link, such as its place in a bridge.
    static std::optional<Properties> read(const nlmsghdr& message);
    uint64_t commit(const Properties& properties);
    void announce(uint64_t changed);

    Properties properties_;
    bool isWithoutIp_ = false;  // The last IPv4 address has gone: next hops over it are dead.
};

}  // namespace Pavo
