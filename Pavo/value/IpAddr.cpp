#include "Pavo/value/IpAddr.h"

#include "toggle/toggle.h"

#include "Pavo/value/EthAddr.h"
#include "Pavo/value/QuickText.h"

namespace Pavo {

namespace {

void printAddressAndLength(Mox::TextWriter& out, const IpAddr& address, uint32_t len) {
    address.print(out);
    out.put('/');
    out.decimal(len);
}

}  // namespace

bool IpAddr::isReserved(bool routable) const {
    static const bool toggle = getToggleState("Ipv4Routable240ClassE", "Pavo.json", true);
    if (toggle && routable) {
        return false;
    }
    return value() >> 28 == 0xf && !isBroadcast();
}

EthAddr IpAddr::mcastEtherAddress() const {
    return EthAddr(0x0100, static_cast<uint16_t>(0x5e00 | (bytes_[1] & 0x7f)),
                   static_cast<uint16_t>(value()));
}

const char* IpAddr::parseAtRunTime(Mox::TextCursor& in) {
    if (const std::size_t length = quickDottedQuad(in.at(), in.end(), bytes_)) {
        in.atIs(in.at() + length);
        return nullptr;
    }
    return readDottedQuad(in, bytes_) == DottedFault::none ? nullptr : invalidText;
}

const char* IpAddrWithMask::parse(Mox::TextCursor& in) {
    if (const char* error = address_.parse(in)) {
        return error;
    }
    return readLengthSuffix(in, &len_) == LengthFault::none ? nullptr : invalidText;
}

void IpAddrWithMask::print(Mox::TextWriter& out) const {
    printAddressAndLength(out, address_, len_);
}

void IpAddrWithFullMask::print(Mox::TextWriter& out) const {
    const bool contiguous = (mask_ | (mask_ - 1)) == 0xffffffff;
    if (contiguous || mask_ == 0) {
        printAddressAndLength(out, IpAddr(address_.value() & mask_),
                              static_cast<uint32_t>(std::popcount(mask_)));
        return;
    }
    address_.print(out);
    out.put('/');
    IpAddr(mask_).print(out);
}

IpAddr Prefix::subnetHost(const IpAddr& host) const {
    const bool limited = len_ >= 1 && len_ <= 32;
    if (limited && host.value() >> (32 - len_) != 0) {
        Mox::throwRangeException("Host address too long");
    }
    return IpAddr(address_.value() | host.value());
}

void Prefix::print(Mox::TextWriter& out) const {
    printAddressAndLength(out, address_, len_);
}

}  // namespace Pavo
