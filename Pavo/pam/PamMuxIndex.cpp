#include "Pavo/pam/PamMuxIndex.h"

#include <algorithm>
#include <cstring>
#include <tuple>

#include "Pavo/packet/EthHdr.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/pam/PamMux.h"

namespace Pavo {

namespace {

using Number = PamMuxMatch::Number;
using Bytes = std::span<const uint8_t>;

constexpr uint32_t macAddrBytes = 12;
constexpr uint32_t udpHdrBytes = 8;

uint16_t u16At(Bytes bytes, std::size_t offset) {
    return loadNet<uint16_t>(bytes.data() + offset);
}

Bytes after(Bytes bytes, std::size_t count) {
    return bytes.subspan(std::min(count, bytes.size()));
}

// The headers of a packet in two pieces, in one.
class Joined {
  public:
    explicit Joined(const Pkt& pkt) {
        for (const Pkt::Iovec& each : pkt.iovecs()) {
            const std::size_t bytes = std::min<std::size_t>(each.bytes, sizeof(room_) - bytes_);
            if (bytes != 0) {
                std::memcpy(room_ + bytes_, each.data, bytes);
            }
            bytes_ += bytes;
        }
    }
    Bytes bytes() const { return {room_, bytes_}; }

  private:
    uint8_t room_[256];
    std::size_t bytes_ = 0;
};

void addProtocol(IpProtocolNumber protocol, PamMuxKeys* keys) {
    keys->add(Number::ipProtocol, static_cast<uint16_t>(protocol));
}

// The numbers after the headers of IP.
void addTransport(IpProtocolNumber protocol, Bytes bytes, PamMuxKeys* keys) {
    addProtocol(protocol, keys);
    if (protocol == IpProtocolNumber::udp && bytes.size() >= udpHdrBytes) {
        keys->add(Number::udpPort, u16At(bytes, 2));
    }
}

void addIp4(Bytes bytes, PamMuxKeys* keys) {
    constexpr uint16_t offsetMask = 0x1fff;
    const std::size_t headerBytes = (bytes[0] & 0xf) * std::size_t{4};
    if (headerBytes < 20 || bytes.size() < headerBytes) {
        return;
    }
    const bool isLaterFragment = (u16At(bytes, 6) & offsetMask) != 0;
    addTransport(IpProtocolNumber{bytes[9]}, isLaterFragment ? Bytes() : after(bytes, headerBytes),
                 keys);
}

bool isPassedOver(IpProtocolNumber number) {
    return number == IpProtocolNumber::hopopt || number == IpProtocolNumber::ipv6Route ||
           number == IpProtocolNumber::ipv6Opts || number == IpProtocolNumber::ipv6Frag;
}

void addIp6(Bytes bytes, PamMuxKeys* keys) {
    constexpr uint16_t offsetMask = 0xfff8;
    if (bytes.size() < 40) {
        return;
    }
    IpProtocolNumber next{bytes[6]};
    bytes = after(bytes, 40);
    while (isPassedOver(next)) {
        if (bytes.size() < 8) {
            return;
        }
        const bool isFragment = next == IpProtocolNumber::ipv6Frag;
        next = IpProtocolNumber{bytes[0]};
        if (isFragment && (u16At(bytes, 2) & offsetMask) != 0) {
            addProtocol(next, keys);
            return;
        }
        const std::size_t headerBytes = isFragment ? 8 : (bytes[1] + std::size_t{1}) * 8;
        if (bytes.size() < headerBytes) {
            return;
        }
        bytes = after(bytes, headerBytes);
    }
    addTransport(next, bytes, keys);
}

void addIp(Bytes bytes, PamMuxKeys* keys) {
    const int version = bytes.empty() ? 0 : bytes[0] >> 4;
    if (version == 4) {
        keys->add(Number::etherType, EthType::ip);
        addIp4(bytes, keys);
    } else if (version == 6) {
        keys->add(Number::etherType, EthType::ip6);
        addIp6(bytes, keys);
    }
}

// An IP header of another version than the type says is none.
void addFrame(Bytes bytes, PamMuxKeys* keys) {
    std::size_t at = macAddrBytes;
    uint16_t type = 0;
    do {
        if (bytes.size() < at + 2) {
            return;
        }
        type = u16At(bytes, at);
        at += type == EthType::dot1Q || type == EthType::dot1Ad ? 4 : 0;
    } while (type == EthType::dot1Q || type == EthType::dot1Ad);
    keys->add(Number::etherType, type);
    const Bytes rest = after(bytes, at + 2);
    if (type == EthType::ip && !rest.empty() && rest[0] >> 4 == 4) {
        addIp4(rest, keys);
    } else if (type == EthType::ip6 && !rest.empty() && rest[0] >> 4 == 6) {
        addIp6(rest, keys);
    }
}

// The kernel removed the IP header, and perhaps the UDP header.
void addKnown(const RxInfo& info, Bytes bytes, PamMuxKeys* keys) {
    if (info.srcIpAddr.af() != ipunknown) {
        keys->add(Number::etherType, info.srcIpAddr.af() == ipv6 ? EthType::ip6 : EthType::ip);
    }
    if (info.isUdpHdrWithKernel) {
        addProtocol(info.protocol, keys);
        keys->add(Number::udpPort, info.dstPort.value());
    } else {
        addTransport(info.protocol, bytes, keys);
    }
}

void addKeys(Bytes bytes, const RxInfo& info, CaptureLinkType linkType, PamMuxKeys* keys) {
    if (info.isIpHdrWithKernel) {
        addKnown(info, bytes, keys);
    } else if (linkType == CaptureLinkType::ethernet) {
        addFrame(bytes, keys);
    } else if (linkType == CaptureLinkType::rawIp) {
        addIp(bytes, keys);
    }
}

}  // namespace

PamMuxKeys pamMuxKeysOf(const Pkt& pkt, const RxInfo& info, CaptureLinkType linkType) {
    PamMuxKeys keys;
    if (pkt.isLinear()) {
        addKeys(pkt.span(), info, linkType, &keys);
    } else {
        addKeys(Joined(pkt).bytes(), info, linkType, &keys);
    }
    return keys;
}

void PamMuxIndex::clientsAre(std::span<const Mox::Ptr<PamMuxPam>> clients) {
    keyed_.clear();
    functions_.clear();
    std::fill(std::begin(hasNumber_), std::end(hasNumber_), false);
    uint32_t rank = 0;
    for (const Mox::Ptr<PamMuxPam>& each : clients) {
        const PamMuxMatch& match = each->match();
        if (match.function()) {
            functions_.push_back({0, rank++, each});
        } else {
            hasNumber_[static_cast<std::size_t>(match.number())] = true;
            keyed_.push_back({PamMuxKeys::keyOf(match.number(), match.value()), rank++, each});
        }
    }
    std::sort(keyed_.begin(), keyed_.end(), [](const Entry& a, const Entry& b) {
        return std::tie(a.key, a.rank) < std::tie(b.key, b.rank);
    });
}

std::array<PamMuxIndex::Cursor, 3> PamMuxIndex::cursorsOf(const PamMuxKeys& keys) const {
    std::array<Cursor, 3> cursors;
    for (std::size_t i = 0; i < cursors.size(); ++i) {
        const auto isBefore = [](const Entry& entry, uint32_t key) { return entry.key < key; };
        cursors[i].key = hasNumber_[i] ? keys.keys[i] : 0;
        if (cursors[i].key != 0) {
            cursors[i].next =
                std::lower_bound(keyed_.begin(), keyed_.end(), cursors[i].key, isBefore);
        }
    }
    return cursors;
}

// That of the client that comes first; null when none is left.
PamMuxIndex::Cursor* PamMuxIndex::first(std::array<Cursor, 3>& cursors) const {
    Cursor* best = nullptr;
    for (Cursor& each : cursors) {
        if (isAt(each) && (best == nullptr || each.next->rank < best->next->rank)) {
            best = &each;
        }
    }
    return best;
}

bool PamMuxIndex::isMatch(const PamMuxPam& client, const Mox::Ptr<Pkt>& pkt, const RxInfo& info,
                          FirstException* exception) {
    bool isMatch = false;
    if (client.mux() != nullptr) {  // Else a function before it has taken the client out.
        exception->collect([&] { isMatch = client.match().function()(pkt, info); });
    }
    return isMatch;
}

}  // namespace Pavo
