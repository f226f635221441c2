#include "Pavo/tcp/TcpConfig.h"

#include <string_view>
#include <utility>

namespace Pavo {

namespace {

// In the order of the bits.
constexpr std::string_view optionNames[] = {
    "TxTtl", "TxDs", "RxMinTtl", "Md5Auth", "SockMaxSegSize", "PathMtuDiscovery", "DontRoute",
};

constexpr std::string_view recordHead = "Value('Pavo::TcpSocketOptions', ** {";
constexpr std::string_view recordTail = "})";

}  // namespace

const char* TcpSocketOptions::parse(Mox::TextCursor& in) {
    Mox::TextCursor ahead = in;
    bool good = ahead.take(recordHead);
    uint8_t value = 0;
    uint8_t bit = 1;
    for (const std::string_view name : optionNames) {
        bool on = false;
        good = good && ahead.take(std::string_view(bit == 1 ? "'option" : ", 'option")) &&
               ahead.take(name) && ahead.take(std::string_view("': ")) &&
               Mox::Codec<bool>::parse(ahead, &on, invalidText) == nullptr;
        value = static_cast<uint8_t>(on ? value | bit : value);
        bit = static_cast<uint8_t>(bit << 1);
    }
    if (!good || !ahead.take(recordTail)) {
        return invalidText;
    }
    in = ahead;
    value_ = value;
    return nullptr;
}

void TcpSocketOptions::print(Mox::TextWriter& out) const {
    out.text(recordHead);
    uint8_t bit = 1;
    for (const std::string_view name : optionNames) {
        out.text(bit == 1 ? "'option" : ", 'option");
        out.text(name);
        out.text("': ");
        Mox::Codec<bool>::print(out, (value_ & bit) != 0);
        bit = static_cast<uint8_t>(bit << 1);
    }
    out.text(recordTail);
}

Mox::String tcpOptionsToStrep(const TcpSocketOptions& options) {
    if (!options) {
        return "none";
    }
    return Mox::printedString([&options](Mox::TextWriter& out) {
        const char* separator = "";
        uint32_t bits = options.value();
        for (const std::string_view name : optionNames) {
            if ((bits & 1) != 0) {
                out.text(separator);
                out.text(name);
                separator = "|";
            }
            bits >>= 1;
        }
    });
}

TcpConfigBase::TcpConfigBase() : networkNamespace_(NamespaceName::defaultNamespace()) {}

TcpConfigBase::~TcpConfigBase() = default;

Mox::String TcpConfigBase::md5Auth(const IpGenAddrWithMask& addrWithMask) const {
    const Mox::String* key = md5Auth_.find(addrWithMask);
    return key == nullptr ? Mox::String() : *key;
}

void TcpConfigBase::md5AuthIs(const IpGenAddrWithMask& addrWithMask, const Mox::String& key) {
    if (md5Auth_.is(addrWithMask, key)) {
        notify(md5AuthAttr, addrWithMask);
    }
}

TcpClientConfig::~TcpClientConfig() = default;

Mox::Ptr<TcpClientConfig> tcpClientConfigFactory(const IpGenAddr& serverIpAddr, Port serverPort) {
    return Mox::make<TcpClientConfig>(serverIpAddr, serverPort);
}

TcpServerConfig::~TcpServerConfig() = default;

IpTtl TcpServerConfig::peerRxMinTtl(const IpGenAddrWithMask& addrWithMask) const {
    const IpTtl* const ttl = peerRxMinTtl_.find(addrWithMask);
    return ttl == nullptr ? IpTtl() : *ttl;
}

IpTtl TcpServerConfig::peerRxMinTtlOf(const IpGenAddr& peer) const {
    const IpGenAddr mapped = IpGenAddr::getMappedV4Addr(peer);
    const IpGenAddr& address = mapped.af() == ipv4 ? mapped : peer;
    const std::pair<const IpGenAddrWithMask, IpTtl>* longest = nullptr;
    for (const auto& each : peerRxMinTtl_) {
        if (each.first.contains(address) &&
            (longest == nullptr || longest->first.len() < each.first.len())) {
            longest = &each;
        }
    }
    return longest == nullptr ? IpTtl() : longest->second;
}

void TcpServerConfig::peerRxMinTtlIs(const IpGenAddrWithMask& addrWithMask, IpTtl ttl) {
    if (peerRxMinTtl_.is(addrWithMask, ttl)) {
        notify(peerRxMinTtlAttr, addrWithMask);
    }
}

Mox::Ptr<TcpServerConfig> tcpServerConfigFactory(const IpGenAddr& listenIpAddr, Port listenPort) {
    return Mox::make<TcpServerConfig>(listenIpAddr, listenPort);
}

}  // namespace Pavo
