/// @file
/// Virtual MACs.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "Mox/Collections.h"
#include "Mox/Entity.h"
#include "Pavo/base/Export.h"
#include "Pavo/value/EthAddr.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

/// Which MAC stands for which addresses, where that is not the MAC of the interface. The MAC of the
/// longest prefix that contains an address is the one that an `ArpSm` answers with; it is sender in
/// the ARP packet and source of the frame.
///
/// A host prefix, of 32 bits, is an address that this router owns, such as the one of VRRP, whose
/// MAC is 00:00:5e:00:01:xx (RFC 5798, 7.3): requests and probes for it are answered, and it is
/// announced with this MAC. A shorter prefix is one of hosts elsewhere (RFC 1027): requests are
/// answered, but no host's probe for its own address and no announcement.
class PAVO_EXPORT ProxyArp : public Mox::EntityOf<ProxyArp> {
  public:
    static constexpr Mox::Attribute<ProxyArp, Prefix> macAttr{0, "mac"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::ProxyArp", Mox::attribute(macAttr));
    }

    /// Without prefixes.
    ProxyArp();

    /// By prefix.
    const Mox::Map<Prefix, EthAddr>& mac() const { return mac_; }
    /// @throws Mox::RangeException "ProxyArp::mac is not unicast" for zero and for the MAC of a
    /// group, and "ProxyArp::prefix::len > 32 not allowed".
    void macIs(const Prefix& prefix, EthAddr mac);
    /// Answers with it no more.
    void macDel(const Prefix& prefix);

    /// The prefix and the MAC for an address.
    struct Found {
        /// Whether the prefix is of 32 bits.
        bool isHost;
        /// As it was set.
        EthAddr mac;
    };
    /// That of the longest prefix which contains the address, or nothing.
    std::optional<Found> find(IpAddr address) const;

  protected:
    ~ProxyArp() override;

  private:
    Mox::Map<Prefix, EthAddr> mac_;
    std::array<uint32_t, 33> ofLength_{};  // How many prefixes there are.
    uint64_t lengths_ = 0;                 // A bit for each length of which there is one.
};

}  // namespace Pavo
