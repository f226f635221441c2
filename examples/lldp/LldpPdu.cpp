#include "lldp/LldpPdu.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "Pavo/EthAddr.h"
#include "Pavo/NetOrder.h"

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

using Bytes = std::span<const uint8_t>;

std::string_view textOf(Bytes bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

struct Tlv {
    uint8_t type;
    Bytes value;
};

// A field: 7 bits of type, 9 bits of length, and the value. Nothing when it runs past the end.
std::optional<Tlv> takeTlv(Bytes* rest) {
    if (rest->size() < 2) {
        return {};
    }
    const auto head = Pavo::loadNet<uint16_t>(rest->data());
    const size_t length = head & 0x1ff;
    if (rest->size() - 2 < length) {
        return {};
    }
    const Tlv tlv{static_cast<uint8_t>(head >> 9), rest->subspan(2, length)};
    *rest = rest->subspan(2 + length);
    return tlv;
}

bool takeId(Bytes* rest, uint8_t type, Id* id) {
    const auto tlv = takeTlv(rest);
    if (!tlv || tlv->type != type || tlv->value.size() < 2 ||
        tlv->value.size() > 1 + maxTextBytes) {
        return false;
    }
    *id = {tlv->value[0], std::string(textOf(tlv->value.subspan(1)))};
    return true;
}

bool takeTtl(Bytes* rest, uint16_t* seconds) {
    const auto tlv = takeTlv(rest);
    if (!tlv || tlv->type != ttlType || tlv->value.size() < 2) {
        return false;
    }
    *seconds = Pavo::loadNet<uint16_t>(tlv->value.data());
    return true;
}

// Length of subtype and address (1), subtype (1), address, interface numbering (5), and more.
void takeAddress(Bytes value, std::vector<Pavo::IpGenAddr>* addresses) {
    if (value.size() < 2 || value[0] < 2 || value.size() < value[0] + 6u) {
        return;
    }
    const Bytes address = value.subspan(2, value[0] - 1u);  // Families are as in `AddressFamily`.
    if (value[1] == Pavo::ipv4 && address.size() == 4) {
        addresses->push_back(Pavo::IpAddr(Pavo::loadNet<uint32_t>(address.data())));
    } else if (value[1] == Pavo::ipv6 && address.size() == 16) {
        addresses->push_back(Pavo::Ip6Addr(Pavo::loadNet<uint64_t>(address.data()),
                                           Pavo::loadNet<uint64_t>(address.data() + 8)));
    }
}

void takeOptional(const Tlv& tlv, Pdu* pdu) {
    const auto text = [&tlv](std::string* to) {
        if (tlv.value.size() <= maxTextBytes) {
            *to = textOf(tlv.value);
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
                pdu->capabilities = Pavo::loadNet<uint16_t>(tlv.value.data());
                pdu->enabledCapabilities = Pavo::loadNet<uint16_t>(tlv.value.data() + 2);
            }
            return;
        case managementAddressType:
            return takeAddress(tlv.value, &pdu->managementAddresses);
        default:
            return;
    }
}

void addU16(std::string* out, uint32_t number) {
    out->push_back(static_cast<char>(number >> 8));
    out->push_back(static_cast<char>(number));
}

void addTlv(std::string* out, uint8_t type, std::string_view value) {
    addU16(out, uint32_t{type} << 9 | static_cast<uint32_t>(value.size()));
    *out += value;
}

void addId(std::string* out, uint8_t type, const Id& id) {
    addTlv(out, type, static_cast<char>(id.subtype) + id.bytes.substr(0, maxTextBytes));
}

void addText(std::string* out, uint8_t type, const std::string& text) {
    if (!text.empty()) {
        addTlv(out, type, std::string_view(text).substr(0, maxTextBytes));
    }
}

void addCapabilities(std::string* out, const Pdu& pdu) {
    std::string value;
    addU16(&value, pdu.capabilities);
    addU16(&value, pdu.enabledCapabilities);
    addTlv(out, capabilitiesType, value);
}

void addAddress(std::string* out, const Pavo::IpGenAddr& address) {
    uint8_t bytes[16];
    address.copyToBuffer(bytes);
    std::string value{static_cast<char>(1 + address.size()), static_cast<char>(address.af())};
    value += textOf({bytes, address.size()});
    // The number of the interface is not known, and there is no object identifier.
    value += std::string({1, 0, 0, 0, 0, 0});
    addTlv(out, managementAddressType, value);
}

}  // namespace

std::optional<Pdu> parse(std::span<const uint8_t> bytes) {
    Pdu pdu;
    if (!takeId(&bytes, chassisType, &pdu.key.chassis) ||
        !takeId(&bytes, portType, &pdu.key.port) || !takeTtl(&bytes, &pdu.ttlSeconds)) {
        return {};
    }
    uint32_t seen = 0;
    while (!bytes.empty()) {
        const auto tlv = takeTlv(&bytes);
        if (!tlv || (tlv->type >= chassisType && tlv->type <= ttlType)) {
            return {};
        }
        if (tlv->type == endType) {
            break;
        }
        const uint32_t bit = tlv->type < managementAddressType ? 1u << tlv->type : 0;
        if ((seen & bit) == 0) {
            takeOptional(*tlv, &pdu);
        }
        seen |= bit;
    }
    return pdu;
}

std::string image(const Pdu& pdu) {
    std::string out;
    addId(&out, chassisType, pdu.key.chassis);
    addId(&out, portType, pdu.key.port);
    std::string ttl;
    addU16(&ttl, pdu.ttlSeconds);
    addTlv(&out, ttlType, ttl);
    if (pdu.ttlSeconds != 0) {
        addText(&out, portDescriptionType, pdu.portDescription);
        addText(&out, systemNameType, pdu.systemName);
        addText(&out, systemDescriptionType, pdu.systemDescription);
        addCapabilities(&out, pdu);
        for (const Pavo::IpGenAddr& address : pdu.managementAddresses) {
            addAddress(&out, address);
        }
    }
    addTlv(&out, endType, {});
    return out;
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
    const auto* bytes = reinterpret_cast<const uint8_t*>(id.bytes.data());
    return Pavo::EthAddr(Pavo::loadNet<uint16_t>(bytes), Pavo::loadNet<uint16_t>(bytes + 2),
                         Pavo::loadNet<uint16_t>(bytes + 4))
        .stringValue()
        .c_str();
}

}  // namespace Lldp
