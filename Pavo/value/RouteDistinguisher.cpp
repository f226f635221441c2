#include "Pavo/value/RouteDistinguisher.h"

#include <algorithm>

namespace Pavo {

namespace {

using Rd = RouteDistinguisher;

struct Administrator {
    Rd::Type type;
    uint32_t value;
};

bool readQuad(Mox::TextCursor& in, IpAddr* address) {
    Mox::TextCursor ahead = in;
    if (address->parse(ahead) != nullptr) {
        return false;
    }
    in = ahead;
    return true;
}

// "10.0.0.1", "65000", "65536" or "1.0", which choose the type.
bool readAdministrator(Mox::TextCursor& in, Administrator* administrator) {
    IpAddr address;
    if (readQuad(in, &address)) {
        *administrator = {Rd::type1, address.value()};
        return true;
    }
    AutonomousSystem number;
    const char* const begin = in.at();
    if (number.parseText(in) != nullptr) {
        return false;
    }
    const bool isPlain = std::find(begin, in.at(), '.') == in.at();
    *administrator = {isPlain && number.value() <= 0xffff ? Rd::type0 : Rd::type2, number.value()};
    return true;
}

// The four bytes after a two-byte administrator.
bool readType0Local(Mox::TextCursor& in, uint32_t* number, Rd::Type0LocalType* local) {
    IpAddr address;
    if (readQuad(in, &address)) {
        *number = address.value();
        *local = Rd::localIpAddr;
        return true;
    }
    *local = Rd::localNumber;
    return in.decimal(number);
}

bool readAssigned(Mox::TextCursor& in, uint64_t* hbo, Rd::Type0LocalType* local) {
    Administrator administrator{};
    uint32_t number = 0;
    if (!readAdministrator(in, &administrator) || !in.take(':')) {
        return false;
    }
    if (administrator.type == Rd::type0) {
        const bool read = readType0Local(in, &number, local);
        *hbo = uint64_t{administrator.value} << 32 | number;
        return read;
    }
    const bool read = in.decimal(&number) && number <= 0xffff;
    *hbo = uint64_t{administrator.type} << 48 | uint64_t{administrator.value} << 16 | number;
    return read;
}

// All 16 digits after "0x".
bool readUnassigned(Mox::TextCursor& in, uint64_t* hbo) {
    for (int i = 0; i < 16; ++i) {
        const int digit = Mox::TextCursor::hexValue(in.peek());
        if (digit < 0) {
            return false;
        }
        *hbo = *hbo << 4 | static_cast<uint64_t>(digit);
        in.skip();
    }
    return *hbo >> 48 > Rd::type2;
}

void printUnassigned(Mox::TextWriter& out, uint64_t hbo) {
    out.text("0x");
    for (int shift = 56; shift >= 0; shift -= 8) {
        out.text({&Mox::hexPairs[2 * (hbo >> shift & 0xff)], 2});
    }
}

}  // namespace

RouteDistinguisher::Type RouteDistinguisher::TypeInstance(uint32_t value) {
    return Mox::enumValue<Type>(value);
}

RouteDistinguisher::Type RouteDistinguisher::TypeInstance(const Mox::String& name) {
    return Mox::enumValue<Type>(name);
}

RouteDistinguisher::Type0LocalType RouteDistinguisher::Type0LocalTypeInstance(uint32_t value) {
    return Mox::enumValue<Type0LocalType>(value);
}

RouteDistinguisher::Type0LocalType RouteDistinguisher::Type0LocalTypeInstance(
    const Mox::String& name) {
    return Mox::enumValue<Type0LocalType>(name);
}

const char* RouteDistinguisher::parseText(Mox::TextCursor& in) {
    if (in.take(std::string_view("INVALID"))) {
        *this = {};
        return nullptr;
    }
    uint64_t hbo = 0;
    Type0LocalType local = localInvalid;
    const bool read =
        in.take(std::string_view("0x")) ? readUnassigned(in, &hbo) : readAssigned(in, &hbo, &local);
    *this = fromHbo(hbo, local);
    return read ? nullptr : invalidText;
}

Mox::String RouteDistinguisher::displayString(bool asdot) const {
    return Mox::printedString([&](Mox::TextWriter& out) { printDisplay(out, asdot); });
}

void RouteDistinguisher::printDisplay(Mox::TextWriter& out, bool asdot) const {
    if (!valid_) {
        out.text("INVALID");
        return;
    }
    switch (rdType()) {
        case type0:
            type0Administrator().printDisplay(out, asdot);
            out.put(':');
            if (type0LocalType_ == localIpAddr) {
                type0LocallyAssignedIpAddr().print(out);
            } else {
                out.decimal(type0LocallyAssignedNumber());
            }
            break;
        case type1:
            type1Administrator().print(out);
            out.put(':');
            out.decimal(type1LocallyAssignedNumber());
            break;
        case type2:
            type2Administrator().printDisplay(out, asdot);
            out.put(':');
            out.decimal(type2LocallyAssignedNumber());
            break;
        default:
            printUnassigned(out, rdHbo());
    }
}

}  // namespace Pavo
