#include "Pavo/value/IpGenAddrAndPort.h"

namespace Pavo {

const char* IpGenAddrAndPort::parse(Mox::TextCursor& in) {
    IpGenAddr address;
    const bool isBracketed = in.take('[');
    if (!isBracketed && detectedFamily(in) != ipv4) {
        return invalidText;
    }
    const char* const error =
        isBracketed ? parseAs<Ip6Addr>(in, &address) : parseAs<IpAddr>(in, &address);
    if (error != nullptr) {
        return error;
    }
    uint32_t port = 0;
    if ((isBracketed && !in.take(']')) || !in.take(':') || !in.decimal(&port) || port > 0xffff) {
        return invalidText;
    }
    address_ = address;
    port_ = static_cast<uint16_t>(port);
    return nullptr;
}

void IpGenAddrAndPort::print(Mox::TextWriter& out) const {
    const bool isBracketed = address_.af() != ipv4;
    if (isBracketed) {
        out.put('[');
    }
    address_.print(out);
    out.text(isBracketed ? "]:" : ":");
    out.decimal(port_.value());
}

}  // namespace Pavo
