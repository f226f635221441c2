/// @file
/// Keys of ARP entries.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>

#include "Mox/ValueType.h"

#include "Pavo/base/IntMix.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

/// Which neighbour: an IPv4 address on an interface. Ordered by interface, then by address.
class ArpKey : public Mox::ValueType<ArpKey> {
  public:
    constexpr ArpKey() = default;
    /// Any two are a key.
    constexpr ArpKey(uint32_t ifIndex, IpAddr address) : ifIndex_(ifIndex), address_(address) {}
    ArpKey(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit ArpKey(std::string_view text) { readWhole(text); }
    ArpKey(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// The kernel's index of the interface.
    constexpr uint32_t ifIndex() const { return ifIndex_; }
    /// Of the neighbour.
    constexpr IpAddr address() const { return address_; }

    /// For tables in the process.
    struct Hasher {
        std::size_t operator()(const ArpKey& key) const {
            return intMix(key.address_.value() ^ key.ifIndex_ * 0x9e3779b1u);
        }
    };

    friend constexpr auto operator<=>(const ArpKey&, const ArpKey&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::ArpKey", Mox::field("ifIndex", &ArpKey::ifIndex_),
                           Mox::field("address", &ArpKey::address_));
    }

  private:
    uint32_t ifIndex_ = 0;
    IpAddr address_;
};
static_assert(sizeof(ArpKey) == 8);

}  // namespace Pavo
