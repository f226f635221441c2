/// @file
/// IP addresses of network interfaces.
#pragma once

#include <linux/if_addr.h>
#include <linux/netlink.h>

#include <compare>
#include <cstdint>
#include <optional>
#include <ostream>

#include "Mox/Entity.h"
#include "Mox/Lifetime.h"
#include "Mox/String.h"

#include "Pavo/base/Export.h"
#include "Pavo/kernel/KernelObject.h"
#include "Pavo/value/IpGenAddr.h"
#include "Pavo/value/IpGenPrefix.h"

namespace Pavo {

/// What identifies an address among those of a namespace. Ordered by link first.
struct LinkAddressKey {
    /// The index of the link.
    uint32_t ifIndex = 0;
    /// The address itself.
    IpGenAddr address;
    /// For IPv4, the network: a link can have an address once in each of several networks. None
    /// (`ipunknown`) for IPv6. A request does not look at it, but `KernelInfo::address` does:
    /// `linkAddressKey` fills it in.
    IpGenPrefix network = {};

    /// "192.0.2.1 of link 7 in 192.0.2.0/24"; without the network where there is none.
    PAVO_EXPORT Mox::String stringValue() const;

    friend auto operator<=>(const LinkAddressKey&, const LinkAddressKey&) = default;
    /// Writes `stringValue`.
    friend std::ostream& operator<<(std::ostream& out, const LinkAddressKey& key) {
        return out << key.stringValue();
    }
};

/// The key that `KernelInfo` has an address under, from what an agent asks for. The network of an
/// IPv4 address with a peer is that of the peer: give `network` then.
/// @throws Mox::RangeException as `IpGenPrefix::containing`
PAVO_EXPORT LinkAddressKey linkAddressKey(uint32_t ifIndex, const IpGenAddr& address, uint32_t len);

/// An address of a link.
class PAVO_EXPORT LinkAddress : public Mox::EntityOf<LinkAddress, KernelObject> {
  public:
    /// What a message says of an address.
    ///
    /// Members: as the functions of `LinkAddress` with these names.
    struct Properties {
        LinkAddressKey key;
        uint32_t len = 0;
        IpGenAddr peer;
        IpGenAddr broadcast;
        uint32_t scope = 0;
        uint32_t flags = 0;
    };

    static constexpr Mox::Attribute<LinkAddress> lenAttr{1, "len"};
    static constexpr Mox::Attribute<LinkAddress> peerAttr{2, "peer"};
    static constexpr Mox::Attribute<LinkAddress> broadcastAttr{3, "broadcast"};
    static constexpr Mox::Attribute<LinkAddress> scopeAttr{4, "scope"};
    static constexpr Mox::Attribute<LinkAddress> flagsAttr{5, "flags"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::LinkAddress", Mox::attribute(lenAttr, &LinkAddress::len),
                                Mox::attribute(peerAttr, &LinkAddress::peer),
                                Mox::attribute(broadcastAttr, &LinkAddress::broadcast),
                                Mox::attribute(scopeAttr, &LinkAddress::scope),
                                Mox::attribute(flagsAttr, &LinkAddress::flags));
    }

    /// As the kernel described it.
    explicit LinkAddress(const Properties& properties) : properties_(properties) {}

    /// The address and its length: "192.0.2.1/24".
    Mox::String name() const override;
    /// Its key in the collection of the namespace.
    const LinkAddressKey& key() const MOX_LIFETIME_BOUND { return properties_.key; }
    /// The index of the link.
    uint32_t ifIndex() const { return properties_.key.ifIndex; }
    /// The address itself.
    const IpGenAddr& address() const MOX_LIFETIME_BOUND { return properties_.key.address; }
    /// The length of the network's prefix, 0 to 32 or 128.
    uint32_t len() const { return properties_.len; }
    /// The address of the other end of a point-to-point link; none (`ipunknown`) on other links.
    const IpGenAddr& peer() const MOX_LIFETIME_BOUND { return properties_.peer; }
    /// None where there is none, as for IPv6.
    const IpGenAddr& broadcast() const MOX_LIFETIME_BOUND { return properties_.broadcast; }
    /// RT_SCOPE_UNIVERSE, RT_SCOPE_LINK and others (rtnetlink(7)).
    uint32_t scope() const { return properties_.scope; }
    /// IFA_F_PERMANENT and others.
    uint32_t flags() const { return properties_.flags; }
    /// An IPv6 address that is not in use yet: the kernel asks whether another node has it
    /// (RFC 4862, 5.4). True of a duplicate too: look at `isDuplicate` first. A link-local
    /// address that the kernel makes itself is not announced while it asks.
    bool isTentative() const { return (properties_.flags & IFA_F_TENTATIVE) != 0; }
    /// Another node has the address, so that it is not used here.
    bool isDuplicate() const { return (properties_.flags & IFA_F_DADFAILED) != 0; }

  private:
    friend class KernelInfo;

    // What a message of the type RTM_NEWADDR or RTM_DELADDR (rtnetlink(7)) says; nothing for one
    // that is malformed or of another family than IPv4 and IPv6.
    static std::optional<Properties> read(const nlmsghdr& message);
    uint64_t commit(const Properties& properties);
    void announce(uint64_t changed);

    Properties properties_;
};

}  // namespace Pavo
