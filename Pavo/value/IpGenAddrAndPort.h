/// @file
/// One end of a transport connection of either IP version.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "Mox/Lifetime.h"
#include "Mox/ValueType.h"
#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/value/Ip.h"
#include "Pavo/value/IpGenAddr.h"

namespace Pavo {

/// An address of either family with a port. Ordered by address, then by port.
///
/// Text is "192.0.2.1:53" or "[2001:db8::1]:53"; an unknown family prints as IPv6. The port is
/// decimal, 0 to 65535. A fault of the address has the text of the family's type, all others are
/// "Invalid IpGenAddrAndPort".
class IpGenAddrAndPort : public Mox::ValueType<IpGenAddrAndPort> {
  public:
    constexpr IpGenAddrAndPort() = default;
    IpGenAddrAndPort(const IpGenAddr& address, Port port) : address_(address), port_(port) {}
    /// @throws Mox::RangeException "Invalid IpGenAddrAndPort", or a text of the family's type
    IpGenAddrAndPort(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit IpGenAddrAndPort(std::string_view text) { readWhole(text); }
    IpGenAddrAndPort(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// Any address, the wildcards 0.0.0.0 and :: among them.
    constexpr const IpGenAddr& address() const MOX_LIFETIME_BOUND { return address_; }
    /// In host order.
    constexpr Port port() const { return port_; }

    friend constexpr auto operator<=>(const IpGenAddrAndPort&, const IpGenAddrAndPort&) = default;

    static constexpr const char* invalidText = "Invalid IpGenAddrAndPort";
    static constexpr auto description() {
        return Mox::record("Pavo::IpGenAddrAndPort",
                           Mox::field("address", &IpGenAddrAndPort::address_),
                           Mox::field("port", &IpGenAddrAndPort::port_));
    }
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    PAVO_EXPORT void print(Mox::TextWriter& out) const;

  private:
    IpGenAddr address_;
    Port port_;
};
static_assert(std::is_trivially_copyable_v<IpGenAddrAndPort> && sizeof(IpGenAddrAndPort) == 24);

}  // namespace Pavo
