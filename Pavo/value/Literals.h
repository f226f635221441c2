/// @file
/// Addresses and prefixes as literals: `using namespace Pavo::literals;`, then `"10.0.0.1"_ip`.
///
/// The compiler reads the text, by the same parsers that read it at run time, and refuses what is
/// no text of the type: a bad literal does not compile, and none costs anything at run time. An
/// `_ip` and an `_ip6` are an `IpGenAddr` where one is asked for, both kinds of prefix an
/// `IpGenPrefix`.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Mox/Exception.h"
#include "Mox/Text.h"

#include "Pavo/base/NetOrder.h"
#include "Pavo/value/EthAddr.h"
#include "Pavo/value/EthText.h"
#include "Pavo/value/Ip6Addr.h"
#include "Pavo/value/Ip6Text.h"
#include "Pavo/value/IpAddr.h"

namespace Pavo {

// clang 14 fails to compile the use of an immediate function that returns a class whose members are
// those of its base. There a bad `_prefix6` throws, unless a constant is made of it.
#if defined(__clang__) && __clang_major__ < 15
#define PAVO_CONSTEVAL constexpr
#else
/// `consteval`, where the compiler is able to compile it.
#define PAVO_CONSTEVAL consteval
#endif

/// Throwing is no constant expression, so the compiler refuses the literal at this call.
PAVO_CONSTEVAL void requireLiteral(const char* error, const Mox::TextCursor& rest,
                                   const char* invalidText) {
    if (error != nullptr || !rest.atEnd()) {
        Mox::throwRangeException(error != nullptr ? error : invalidText);
    }
}

namespace literals {

/// The address in the text: "10.0.0.1"_ip. A text that `IpAddr` would refuse does not compile.
consteval IpAddr operator""_ip(const char* text, std::size_t length) {
    Mox::TextCursor in(text, text + length);
    IpAddr address;
    requireLiteral(address.parse(in), in, IpAddr::invalidText);
    return address;
}

/// "2001:db8::1"_ip6. A text that `Ip6Addr` would refuse does not compile.
consteval Ip6Addr operator""_ip6(const char* text, std::size_t length) {
    Mox::TextCursor in(text, text + length);
    Ip6Addr address;
    requireLiteral(readIp6Text(in, &address), in, Ip6Addr::invalidText);
    return address;
}

/// "00:11:22:aa:bb:cc"_mac. A text that `EthAddr` would refuse does not compile.
consteval EthAddr operator""_mac(const char* text, std::size_t length) {
    Mox::TextCursor in(text, text + length);
    uint8_t bytes[6] = {};
    const bool isRead = readHexBytes<6>(in, bytes);
    requireLiteral(isRead ? nullptr : EthAddr::invalidText, in, EthAddr::invalidText);
    return EthAddr(loadNet<uint16_t>(bytes), loadNet<uint16_t>(bytes + 2),
                   loadNet<uint16_t>(bytes + 4));
}

/// "10.0.0.0/8"_prefix. A text that `Prefix` would refuse does not compile.
consteval Prefix operator""_prefix(const char* text, std::size_t length) {
    Mox::TextCursor in(text, text + length);
    Prefix prefix;
    requireLiteral(prefix.parse(in), in, Prefix::invalidText);
    return prefix;
}

/// "2001:db8::/32"_prefix6. A text that `Ip6Prefix` would refuse does not compile.
PAVO_CONSTEVAL Ip6Prefix operator""_prefix6(const char* text, std::size_t length) {
    Mox::TextCursor in(text, text + length);
    Ip6Addr address;
    uint32_t len = 0;
    requireLiteral(readIp6TextAndLength(in, &address, &len), in, Ip6Prefix::invalidText);
    return Ip6Prefix(address, len);
}

}  // namespace literals
}  // namespace Pavo

#undef PAVO_CONSTEVAL
