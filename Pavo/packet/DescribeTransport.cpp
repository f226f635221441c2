// What follows IP: ICMP, ICMPv6, UDP, TCP, SCTP.

#include <ostream>
#include <utility>

#include "Mox/Enum.h"

#include "Pavo/packet/Crc32.h"
#include "Pavo/packet/DescribeLayers.h"
#include "Pavo/packet/Icmp6Hdr.h"
#include "Pavo/packet/IcmpHdr.h"
#include "Pavo/packet/PktPieces.h"
#include "Pavo/packet/SctpHdr.h"
#include "Pavo/packet/TcpHdr.h"
#include "Pavo/packet/UdpHdr.h"
#include "Pavo/packet/VxlanHdr.h"

namespace Pavo {

namespace {

// "echo request", or "type-200" for a type without a name.
template <class Type>
std::string typeText(Type type) {
    const auto number = static_cast<uint32_t>(type);
    const auto* member = Mox::findEnumerator<Type>(number);
    return member == nullptr ? "type-" + std::to_string(number) : wordsOf(member->name);
}

// A checksum over a pseudo header, where it was computed: 0 is what a good one gives.
void writeSum(std::ostream& out, const char* name, uint16_t field,
              std::optional<uint16_t> computed) {
    if (computed == 0) {
        out << "[" << name << " sum ok] ";
    } else if (computed) {
        out << "[bad " << name << " cksum " << hexText(field, 4) << " -> "
            << hexText(rightChecksum(field, *computed), 4) << "!] ";
    }
}

// The fields of echo messages; else the code, where there is one.
template <class Type, class EchoHdr>
void writeIcmp(std::ostream& out, const EchoHdr& icmp) {
    out << typeText(icmp.type());
    if (icmp.type() == Type::echoRequest || icmp.type() == Type::echoReply) {
        out << ", id " << icmp.id() << ", seq " << icmp.sequenceNumber();
    } else if (icmp.code() != 0) {
        out << ", code " << +icmp.code();
    }
}

}  // namespace

void describeIcmp(PktDescription& description) {
    const uint32_t start = description.offset();
    const uint32_t length = description.left();
    const std::optional<uint16_t> computed = description.messageChecksum(start, std::nullopt);
    IcmpEchoHdr icmp;
    if (!description.take(&icmp, "icmp")) {
        return;
    }
    std::ostream& out = description.out();
    out << "ICMP ";
    writeIcmp<IcmpType>(out, icmp);
    out << ", length " << length;
    if (computed.value_or(0) != 0) {
        out << " (wrong icmp cksum " << wrongChecksumText(icmp.checksum().value(), *computed)
            << ")";
    }
    switch (icmp.type()) {
        case IcmpType::destinationUnreachable:
        case IcmpType::sourceQuench:
        case IcmpType::redirect:
        case IcmpType::timeExceeded:
        case IcmpType::parameterProblem:
            return description.nextIs(describeIp);  // The packet that the error is about.
        default:
            return;
    }
}

void describeIcmp6(PktDescription& description) {
    constexpr uint32_t firstInformational = 128;  // RFC 4443, 2.1.
    const uint32_t start = description.offset();
    const uint32_t length = description.left();
    const std::optional<uint16_t> computed =
        description.messageChecksum(start, IpProtocolNumber::ipv6Icmp);
    Icmp6EchoHdr icmp6;
    if (!description.take(&icmp6, "icmp6")) {
        return;
    }
    std::ostream& out = description.out();
    writeSum(out, "icmp6", icmp6.checksum().value(), computed);
    out << "ICMP6, ";
    writeIcmp<Icmp6Type>(out, icmp6);
    out << ", length " << length;
    const uint32_t flags = uint32_t{icmp6.id()} << 16 | icmp6.sequenceNumber();
    if (describeNd(description, icmp6.type(), flags)) {
        return;
    }
    if (static_cast<uint32_t>(icmp6.type()) < firstInformational) {
        description.nextIs(describeIp);  // The packet that the error is about.
    }
}

void describeUdp(PktDescription& description) {
    const uint32_t start = description.offset();
    UdpHdr udp;
    if (!description.take(&udp, "udp")) {
        return;
    }
    std::ostream& out = description.out();
    out << "UDP " << udp.srcPort() << " > " << udp.dstPort() << ": ";
    const uint32_t there = description.left() + static_cast<uint32_t>(sizeof(UdpHdr));
    const bool isTooLong = udp.udpLen() > there && !description.isPartial();
    if (udp.udpLen() < sizeof(UdpHdr) || isTooLong) {
        out << "bad length " << udp.udpLen();
        return description.stop("UDP length " + std::to_string(udp.udpLen()) + " of " +
                                std::to_string(there) + " bytes");
    }
    (void)description.limitIs(static_cast<uint32_t>(udp.udpLen() - sizeof(UdpHdr)));
    const uint16_t field = udp.checksum().value();
    const std::optional<uint16_t> computed =
        description.messageChecksum(start, IpProtocolNumber::udp);
    if (field == 0) {
        out << "[no cksum] ";
    } else {
        writeSum(out, "udp", field, computed);
    }
    out << "length " << udp.udpLen() - sizeof(UdpHdr);
    if (udp.dstPort() == VxlanHdr::udpPort) {
        description.nextIs(describeVxlan);
    }
}

namespace {

std::string tcpFlagsText(const TcpHdr& tcp) {
    std::string text;
    const std::pair<bool, char> flags[] = {{tcp.fin(), 'F'}, {tcp.syn(), 'S'}, {tcp.rst(), 'R'},
                                           {tcp.psh(), 'P'}, {tcp.ack(), '.'}, {tcp.urg(), 'U'},
                                           {tcp.ece(), 'E'}, {tcp.cwr(), 'W'}, {tcp.ns(), 'e'}};
    for (const auto& [isSet, letter] : flags) {
        if (isSet) {
            text += letter;
        }
    }
    return text.empty() ? "none" : text;
}

void writeTcp(std::ostream& out, const TcpHdr& tcp, uint32_t length) {
    out << ", seq " << tcp.sequenceNumber();
    if (length != 0) {
        out << ":" << static_cast<uint32_t>(tcp.sequenceNumber() + length);
    }
    if (tcp.ack()) {
        out << ", ack " << tcp.acknowledgementNumber();
    }
    out << ", win " << tcp.window();
    if (tcp.urg()) {
        out << ", urg " << tcp.urgentPointer();
    }
    if (tcp.headerBytes() > sizeof(TcpHdr)) {
        out << ", options [" << tcp.headerBytes() - sizeof(TcpHdr) << " bytes]";
    }
    out << ", length " << length;
}

}  // namespace

void describeTcp(PktDescription& description) {
    const uint32_t start = description.offset();
    const std::optional<uint16_t> computed =
        description.messageChecksum(start, IpProtocolNumber::tcp);
    TcpHdr tcp;
    if (!description.take(&tcp, "tcp")) {
        return;
    }
    std::ostream& out = description.out();
    out << "TCP " << tcp.srcPort() << " > " << tcp.dstPort() << ": Flags [" << tcpFlagsText(tcp)
        << "]";
    if (tcp.headerBytes() < sizeof(TcpHdr)) {
        return description.stop("bad hdr length " + std::to_string(tcp.headerBytes()) +
                                " - too short, < 20");
    }
    uint8_t options[40];
    const auto optionBytes = static_cast<uint32_t>(tcp.headerBytes() - sizeof(TcpHdr));
    if (!description.takeBytes(options, optionBytes, "tcp options")) {
        return;
    }
    if (computed) {
        const uint16_t field = tcp.checksum().value();
        out << ", cksum " << hexText(field, 4)
            << (*computed == 0
                    ? " (correct)"
                    : " (incorrect -> " + hexText(rightChecksum(field, *computed), 4) + ")");
    }
    writeTcp(out, tcp, description.left());
}

void describeSctp(PktDescription& description) {
    SctpHdr sctp;
    if (!description.take(&sctp, "sctp")) {
        return;
    }
    std::ostream& out = description.out();
    out << "SCTP " << sctp.srcPort() << " > " << sctp.dstPort() << ": verification tag "
        << hexText(sctp.verificationTag(), 8);
    if (!description.isPartial()) {
        const uint32_t field = sctp.checksum().value();
        sctp.checksumIs({});
        uint32_t crc = Crc32c::crc(&sctp, sizeof(sctp));
        forEachPiece(description.pkt(), description.offset(), description.left(),
                     [&crc](const uint8_t* data, uint32_t n) { crc = Crc32c::crc(data, n, crc); });
        const uint32_t right = __builtin_bswap32(crc);
        out << ", cksum " << hexText(field, 8)
            << (field == right ? " (correct)" : " (incorrect -> " + hexText(right, 8) + ")");
    }
    out << ", length " << description.left();
}

}  // namespace Pavo
