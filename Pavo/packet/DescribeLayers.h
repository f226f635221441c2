/// @file
/// What the functions share that describe one layer each. For `describe`; an agent does not need
/// it.
#pragma once

#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

#include "Pavo/packet/Icmp6Hdr.h"
#include "Pavo/packet/NetU.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/value/Ip.h"

namespace Pavo {

/// "0x" and the hexadecimal number, of at least `digits` digits.
std::string hexText(uint32_t value, uint32_t digits = 1);
/// What follows "cksum" where it is wrong, for example "1111 (->f6cc)!".
std::string wrongChecksumText(uint16_t field, uint16_t computed);

/// A name as "echoRequest" in words: "echo request".
std::string wordsOf(std::string_view name);

/// A description as far as it is written, and the place in the packet. The function of a layer
/// takes its header, writes to `out()`, and says with `nextIs` what follows; it calls `stop` where
/// it cannot. Without either, the rest is payload.
class PktDescription {
  public:
    using Layer = void (*)(PktDescription& description);

    PktDescription(const Pkt& pkt, uint32_t offset);

    const Pkt& pkt() const { return pkt_; }
    /// Bytes from the start of the packet to what is taken next.
    uint32_t offset() const { return offset_; }
    /// Bytes from there to the end of the innermost IP packet, as far as they are there.
    uint32_t left() const { return end_ - offset_; }
    /// Their number as ", length 46".
    std::string leftText() const;
    /// The line of the present layer.
    std::ostream& out() { return line_; }

    /// Copies the header that is next and moves on. Where it is not all there, the description
    /// stops, and `header` is unchanged: "[|udp] 6 of 8 bytes".
    template <class Hdr>
    bool take(Hdr* header, std::string_view name) {
        static_assert(isOverlay<Hdr>(sizeof(Hdr)));
        return takeBytes(header, sizeof(Hdr), name);
    }
    bool takeBytes(void* bytes, uint32_t count, std::string_view name);
    /// The byte that is next, 0 where there is none.
    uint8_t peek() const;
    void nextIs(Layer layer) { next_ = layer; }
    void stop(const std::string& reason);
    bool isStopped() const { return isStopped_; }

    /// The packet ends where it does, or `bytes` bytes further on, if that is less. Returns the
    /// bytes that are missing for that.
    uint32_t limitIs(uint32_t bytes);
    /// The sum of the addresses of the IP header, for what follows it.
    void addressSumIs(uint32_t sum, bool isIp6) {
        addressSum_ = sum;
        isAfterIp6_ = isIp6;
    }
    /// Whether that is the header of IPv6; none where no IP header was seen.
    std::optional<bool> isAfterIp6() const { return isAfterIp6_; }
    /// What follows lacks bytes, as part of a datagram: no checksum can be checked.
    void isPartialIs(bool isPartial) { isPartial_ = isPartial; }

    /// The checksum from `start` to the end of the IP packet, the checksum field included, and with
    /// the pseudo header for a `protocol`. None where it cannot be computed.
    std::optional<uint16_t> messageChecksum(uint32_t start,
                                            std::optional<IpProtocolNumber> protocol) const;
    bool isPartial() const { return isPartial_; }
    /// No layer was described before this one.
    bool isFirstLayer() const { return text_.empty(); }

    /// Describes layer by layer and returns the text.
    std::string run(Layer first);

  private:
    void endLine();

    const Pkt& pkt_;
    const uint32_t pktBytes_;
    uint32_t offset_;
    uint32_t end_;
    Layer next_ = nullptr;
    bool isStopped_ = false;
    bool isPartial_ = false;
    std::optional<uint32_t> addressSum_;
    std::optional<bool> isAfterIp6_;
    std::ostringstream line_;
    std::string text_;
};

/// What should stand in a checksum field that holds `field`, where the sum over everything with it
/// is `computed`, which is not 0.
uint16_t rightChecksum(uint16_t field, uint16_t computed);

// Layers. Each begins at the first byte of its header. A new one is declared here and gets a row in
// the table of EtherTypes (Describe.cpp) or of protocol numbers (DescribeIp.cpp).
void describeEthernet(PktDescription& description);
void describeMpls(PktDescription& description);
/// IPv4 or IPv6, by its version.
void describeIp(PktDescription& description);
void describeIcmp(PktDescription& description);
void describeIcmp6(PktDescription& description);
void describeUdp(PktDescription& description);
void describeTcp(PktDescription& description);
void describeSctp(PktDescription& description);
void describeArp(PktDescription& description);
void describeIgmp(PktDescription& description);
void describePim(PktDescription& description);
void describeVrrp(PktDescription& description);
void describeGre(PktDescription& description);
void describeVxlan(PktDescription& description);
void describeMim(PktDescription& description);
void describeControlWord(PktDescription& description);

/// What follows the first 8 bytes of a message of neighbour discovery: fields and options. `flags`
/// is the word before them. False for another type of message.
bool describeNd(PktDescription& description, Icmp6Type type, uint32_t flags);

/// A type field with its name, such as "ethertype IPv4 (0x0800)".
std::string etherTypeText(uint16_t type);
/// Goes on with what a type field says, or stops.
void describeEtherType(PktDescription& description, uint16_t type);

/// A protocol number with its name, such as "UDP (17)".
std::string protocolText(uint8_t number);
/// Goes on with the header that has this number in IP, or stops.
void describeProtocol(PktDescription& description, uint8_t number);

}  // namespace Pavo
