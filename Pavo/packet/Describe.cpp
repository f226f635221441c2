#include "Pavo/packet/Describe.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <locale>

#include "Pavo/packet/DescribeLayers.h"
#include "Pavo/packet/EthHdr.h"
#include "Pavo/packet/MplsHdr.h"
#include "Pavo/packet/PktPieces.h"
#include "Pavo/packet/PktUtils.h"

namespace Pavo {

namespace {

// A packet of nothing but tags would give a line for every four bytes.
constexpr int maxLayers = 64;

// The bytes from `offset` on, which are there, wherever the pieces meet.
void copyOut(const Pkt& pkt, uint32_t offset, void* to, uint32_t bytes) {
    auto* at = static_cast<uint8_t*>(to);
    forEachPiece(pkt, offset, bytes,
                 [&at](const uint8_t* data, uint32_t n) { at = std::copy(data, data + n, at); });
}

}  // namespace

std::string hexText(uint32_t value, uint32_t digits) {
    std::string text;
    for (; value != 0 || text.size() < digits; value >>= 4) {
        text.insert(text.begin(), "0123456789abcdef"[value & 0xf]);
    }
    return "0x" + text;
}

std::string wrongChecksumText(uint16_t field, uint16_t computed) {
    return hexText(field).substr(2) + " (->" + hexText(rightChecksum(field, computed)).substr(2) +
           ")!";
}

std::string wordsOf(std::string_view name) {
    std::string words;
    for (const char c : name) {
        if (std::isupper(static_cast<unsigned char>(c)) != 0) {
            words += ' ';
        }
        words += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return words;
}

uint16_t rightChecksum(uint16_t field, uint16_t computed) {
    const uint32_t sum = uint32_t{field} + computed;
    return static_cast<uint16_t>((sum & 0xffff) + (sum >> 16));
}

PktDescription::PktDescription(const Pkt& pkt, uint32_t offset)
    : pkt_(pkt),
      pktBytes_(pkt.totalBytes()),
      offset_(std::min(offset, pktBytes_)),
      end_(pktBytes_) {
    line_.imbue(std::locale::classic());  // No thousands separators.
}

bool PktDescription::takeBytes(void* bytes, uint32_t count, std::string_view name) {
    if (left() < count) {
        stop("[|" + std::string(name) + "] " + std::to_string(left()) + " of " +
             std::to_string(count) + " bytes");
        return false;
    }
    copyOut(pkt_, offset_, bytes, count);
    offset_ += count;
    return true;
}

std::string PktDescription::leftText() const {
    return ", length " + std::to_string(left());
}

uint8_t PktDescription::peek() const {
    uint8_t first = 0;
    copyOut(pkt_, offset_, &first, std::min(left(), 1u));
    return first;
}

void PktDescription::endLine() {
    const std::string line = line_.str();
    if (!line.empty()) {
        text_ += text_.empty() ? line : "\n" + line;
    }
    line_.str({});
}

void PktDescription::stop(const std::string& reason) {
    endLine();
    line_ << "stopped at byte " << offset_ << ": " << reason;
    isStopped_ = true;
}

uint32_t PktDescription::limitIs(uint32_t bytes) {
    const uint32_t missing = bytes - std::min(bytes, left());
    end_ = offset_ + (bytes - missing);
    return missing;
}

std::optional<uint16_t> PktDescription::messageChecksum(
    uint32_t start, std::optional<IpProtocolNumber> protocol) const {
    const uint32_t bytes = end_ - start;
    if (isPartial_ || bytes > 0xffff || (protocol && !addressSum_)) {
        return std::nullopt;
    }
    const uint32_t pseudoHdrSum =
        protocol ? *addressSum_ + static_cast<uint32_t>(*protocol) + bytes : 0;
    return pktChecksum(pkt_, start, static_cast<uint16_t>(bytes), pseudoHdrSum).value();
}

std::string PktDescription::run(Layer first) {
    next_ = first;
    for (int layers = 0; next_ != nullptr && !isStopped_; ++layers) {
        if (layers == maxLayers) {
            stop("more than " + std::to_string(maxLayers) + " layers");
            break;
        }
        const Layer layer = next_;
        next_ = nullptr;
        layer(*this);
        endLine();
    }
    if (!isStopped_ && left() != 0) {
        line_ << "payload" << leftText();
    }
    endLine();
    if (end_ != pktBytes_) {
        line_ << "padding, length " << pktBytes_ - end_;
        endLine();
    }
    return text_;
}

namespace {

void describeVlan(PktDescription& description);

struct NamedType {
    uint16_t type;
    const char* name;
    PktDescription::Layer layer;
};

constexpr NamedType namedTypes[] = {
    {EthType::ip, "IPv4", describeIp},
    {EthType::bridging, "TEB", describeEthernet},
    {EthType::arp, "ARP", describeArp},
    {EthType::dot1Q, "802.1Q", describeVlan},
    {EthType::ip6, "IPv6", describeIp},
    {EthType::slowProtocols, "Slow Protocols", nullptr},
    {EthType::mpls, "MPLS unicast", describeMpls},
    {EthType::mplsMulticast, "MPLS multicast", describeMpls},
    {EthType::eapol, "EAPOL", nullptr},
    {EthType::dot1Ad, "802.1Q-QinQ", describeVlan},
    {EthType::lldp, "LLDP", nullptr},
    {EthType::mim, "802.1ah", describeMim},
};

const NamedType& namedType(uint16_t type) {
    static constexpr NamedType unknown{0, "Unknown", nullptr};
    const auto* found = std::find_if(std::begin(namedTypes), std::end(namedTypes),
                                     [type](const NamedType& each) { return each.type == type; });
    return found == std::end(namedTypes) ? unknown : *found;
}

}  // namespace

std::string etherTypeText(uint16_t type) {
    if (type < EthType::firstType) {
        return "802.3, length " + std::to_string(type);
    }
    return std::string("ethertype ") + namedType(type).name + " (" + hexText(type, 4) + ")";
}

void describeEtherType(PktDescription& description, uint16_t type) {
    if (type < EthType::firstType) {
        (void)description.limitIs(type);
        return description.stop("LLC is not decoded" + description.leftText());
    }
    const PktDescription::Layer layer = namedType(type).layer;
    if (layer != nullptr) {
        return description.nextIs(layer);
    }
    description.stop(etherTypeText(type) + " is not decoded" + description.leftText());
}

namespace {

void writeTag(std::ostream& out, const Eth8021QHdr& tag) {
    out << "vlan " << tag.vlanId() << ", p " << +tag.priority()
        << (tag.dropEligible() ? ", DEI, " : ", ");
}

void describeVlan(PktDescription& description) {
    Eth8021QHdr tag;
    if (description.take(&tag, "vlan")) {
        writeTag(description.out(), tag);
        description.out() << etherTypeText(tag.type());
        describeEtherType(description, tag.type());
    }
}

}  // namespace

void describeEthernet(PktDescription& description) {
    const uint32_t length = description.left();
    const bool isOuter = description.isFirstLayer();
    EthHdr eth;
    if (!description.take(&eth, "ether")) {
        return;
    }
    std::ostream& out = description.out();
    out << eth.src() << " > " << eth.dst() << ", " << etherTypeText(eth.type());
    if (eth.type() >= EthType::firstType) {
        out << ", length " << length;
    }
    const Pkt& pkt = description.pkt();
    if (pkt.hasSeparateVlanTag() && isOuter) {
        Eth8021QHdr tag;
        tag.tciIs(pkt.separateVlanTci());
        out << "\n";
        writeTag(out, tag);
        out << "separate tag, tpid " << hexText(pkt.separateVlanTpid(), 4);
    }
    describeEtherType(description, eth.type());
}

// What follows the last entry is not named: the first four bits tell IP versions apart.
void describeMpls(PktDescription& description) {
    MplsHdr mpls;
    if (!description.take(&mpls, "mpls")) {
        return;
    }
    description.out() << "MPLS (label " << mpls.label().value() << ", tc " << +mpls.cos()
                      << (mpls.bos() ? ", [S]" : "") << ", ttl " << +mpls.ttl() << ")";
    if (!mpls.bos()) {
        return description.nextIs(describeMpls);
    }
    const uint8_t first = description.peek();
    if (first >> 4 == 4 || first >> 4 == 6) {
        description.nextIs(describeIp);
    }
}

namespace {

Mox::String describeFrom(const Mox::Ptr<Pkt>& pkt, uint32_t offset, PktDescription::Layer first) {
    return PktDescription(*pkt, offset).run(first);
}

}  // namespace

Mox::String describe(const Mox::Ptr<Pkt>& pkt, uint32_t offset, FirstHdr first) {
    switch (first) {
        case FirstHdr::ip:
            return describeFrom(pkt, offset, describeIp);
        case FirstHdr::mpls:
            return describeFrom(pkt, offset, describeMpls);
        case FirstHdr::controlWord:
            return describeFrom(pkt, offset, describeControlWord);
        case FirstHdr::ethernet:
            break;
    }
    return describeFrom(pkt, offset, describeEthernet);
}

}  // namespace Pavo
