#include "lldp/LldpPdu.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "Pavo/ByteReader.h"
#include "Pavo/EthAddr.h"

namespace Lldp {

namespace {

enum Type : uint8_t {
    endType = 0,
    chassisType = 1,
    portType = 2,
    ttlType = 3,
    portDescriptionType = 4,
    systemNameType = 5,
    systemDescriptionType = 6,
    capabilitiesType = 7,
    managementAddressType = 8,
};
constexpr size_t maxTextBytes = 255;
constexpr size_t maxPduBytes = 1500;  // Of an Ethernet frame.
constexpr size_t endBytes = 2;

struct Tlv {
    uint8_t type;
    std::string_view value;

    Pavo::ByteReader reader() const { return Pavo::ByteReader(value); }
};

// A field: 7 bits of type, 9 bits of length, and the value. Fails `in` when it runs past the end.
Tlv takeTlv(Pavo::ByteReader& in) {
    const uint16_t head = in.u16();
    return {static_cast<uint8_t>(head >> 9), in.text(head & 0x1ff)};
}

bool takeId(Pavo::ByteReader& in, uint8_t type, Id* id) {
    const Tlv tlv = takeTlv(in);
    if (tlv.type != type || tlv.value.size() < 2 || tlv.value.size() > 1 + maxTextBytes) {
        return false;
    }
    *id = {static_cast<uint8_t>(tlv.value[0]), std::string(tlv.value.substr(1))};
    return true;
}

bool takeTtl(Pavo::ByteReader& in, uint16_t* seconds) {
    const Tlv tlv = takeTlv(in);
    auto value = tlv.reader();
    *seconds = value.u16();
    return tlv.type == ttlType && value.ok();
}

// Length of subtype and address (1), subtype (1), address, interface numbering (5), and more.
void takeAddress(Pavo::ByteReader value, std::vector<Pavo::IpGenAddr>* addresses) {
    const uint8_t length = value.u8();
    const uint8_t family = value.u8();  // Families are as in `AddressFamily`.
    auto address = value;
    value.skip(std::max<size_t>(length, 1) - 1 + 5);
    if (!value.ok()) {
        return;
    }
    if (family == Pavo::ipv4 && length == 1 + 4) {
        addresses->push_back(Pavo::IpAddr(address.u32()));
    } else if (family == Pavo::ipv6 && length == 1 + 16) {
        const uint64_t high = address.u64();
        addresses->push_back(Pavo::Ip6Addr(high, address.u64()));
    }
}

void takeOptional(const Tlv& tlv, Pdu* pdu) {
    const auto text = [&tlv](std::string* to) {
        if (tlv.value.size() <= maxTextBytes) {
            *to = tlv.value;
        }
    };
    switch (tlv.type) {
        case portDescriptionType:
            return text(&pdu->portDescription);
        case systemNameType:
            return text(&pdu->systemName);
        case systemDescriptionType:
            return text(&pdu->systemDescription);
        case capabilitiesType:
            if (tlv.value.size() == 4) {
                auto value = tlv.reader();
                pdu->capabilities = value.u16();
                pdu->enabledCapabilities = value.u16();
            }
            return;
        case managementAddressType:
            return takeAddress(tlv.reader(), &pdu->managementAddresses);
        default:
            return;
    }
}

// The head, and after it what `writeValue` writes.
template <class Value>
void addTlv(Pavo::ByteWriter& out, uint8_t type, Value writeValue) {
    const size_t at = out.offset();
    out.u16(0);
    writeValue();
    out.u16At(at, size_t{type} << 9 | (out.offset() - at - 2));
}

void addId(Pavo::ByteWriter& out, uint8_t type, const Id& id) {
    addTlv(out, type, [&] {
        out.u8(id.subtype);
        out.text(std::string_view(id.bytes).substr(0, maxTextBytes));
    });
}

void addText(Pavo::ByteWriter& out, uint8_t type, std::string_view text) {
    if (!text.empty()) {
        addTlv(out, type, [&] { out.text(text.substr(0, maxTextBytes)); });
    }
}

void addAddress(Pavo::ByteWriter& out, const Pavo::IpGenAddr& address) {
    addTlv(out, managementAddressType, [&] {
        uint8_t bytes[16];
        address.copyToBuffer(bytes);
        out.u8(1 + address.size());
        out.u8(address.af());
        out.bytes({bytes, address.size()});
        // The number of the interface is not known, and there is no object identifier.
        out.u8(1);
        out.zeros(5);
    });
}

void addOptional(Pavo::ByteWriter& out, const Pdu& pdu) {
    addText(out, portDescriptionType, pdu.portDescription);
    addText(out, systemNameType, pdu.systemName);
    addText(out, systemDescriptionType, pdu.systemDescription);
    addTlv(out, capabilitiesType, [&] {
        out.u16(pdu.capabilities);
        out.u16(pdu.enabledCapabilities);
    });
    for (const Pavo::IpGenAddr& address : pdu.managementAddresses) {
        Pavo::ByteWriter longer = out;
        addAddress(longer, address);
        if (!longer.ok()) {
            return;
        }
        out = longer;
    }
}

}  // namespace

std::optional<Pdu> parse(std::span<const uint8_t> bytes) {
    Pdu pdu;
    Pavo::ByteReader in(bytes);
    if (!takeId(in, chassisType, &pdu.key.chassis) || !takeId(in, portType, &pdu.key.port) ||
        !takeTtl(in, &pdu.ttlSeconds)) {
        return {};
    }
    uint32_t seen = 0;
    while (!in.rest().empty()) {
        const Tlv tlv = takeTlv(in);
        if (!in.ok() || (tlv.type >= chassisType && tlv.type <= ttlType)) {
            return {};
        }
        if (tlv.type == endType) {
            break;
        }
        const uint32_t bit = tlv.type < managementAddressType ? 1u << tlv.type : 0;
        if ((seen & bit) == 0) {
            takeOptional(tlv, &pdu);
        }
        seen |= bit;
    }
    return pdu;
}

std::string image(const Pdu& pdu) {
    uint8_t room[maxPduBytes];
    Pavo::ByteWriter out({room, maxPduBytes - endBytes});
    addId(out, chassisType, pdu.key.chassis);
    addId(out, portType, pdu.key.port);
    addTlv(out, ttlType, [&] { out.u16(pdu.ttlSeconds); });
    if (pdu.ttlSeconds != 0) {
        addOptional(out, pdu);
    }
    const auto fields = out.written();
    return std::string(fields.begin(), fields.end()) + std::string(endBytes, endType);
}

std::string printable(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (c >= ' ' && c <= '~') {
            out.push_back(c);
            continue;
        }
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<uint8_t>(c));
        out += escaped;
    }
    return out;
}

std::string printable(const Id& id, uint8_t macSubtype) {
    if (id.subtype != macSubtype || id.bytes.size() != 6) {
        return printable(id.bytes);
    }
    Pavo::ByteReader bytes(id.bytes);
    const uint16_t first = bytes.u16();
    const uint16_t second = bytes.u16();
    return Pavo::EthAddr(first, second, bytes.u16()).stringValue().c_str();
}

}  // namespace Lldp
