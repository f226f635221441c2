#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Pavo/Checksum.h"
#include "Pavo/Crc32.h"
#include "Pavo/EthHdr.h"
#include "Pavo/Icmp6Hdr.h"
#include "Pavo/IcmpHdr.h"
#include "Pavo/Ip6Hdr.h"
#include "Pavo/IpHdr.h"
#include "Pavo/MplsHdr.h"
#include "Pavo/NetU.h"
#include "Pavo/Pkt.h"
#include "Pavo/SctpHdr.h"
#include "Pavo/TcpHdr.h"
#include "Pavo/UdpHdr.h"
#include "Pavo/VlanUtils.h"
#include "parity/Parity.h"

namespace {

using namespace Pavo;

// The same numbers on every machine. Whoever draws several for one value does it in braces, which
// are read from left to right.
class Numbers {
  public:
    uint32_t next() {
        state_ = state_ * 1664525u + 1013904223u;
        return state_ >> 8;
    }
    uint16_t word() { return static_cast<uint16_t>(next()); }
    uint8_t byte() { return static_cast<uint8_t>(next()); }
    EthAddr mac() { return EthAddr{word(), word(), word()}; }
    Ip6Addr ip6() { return Ip6Addr{half(), half()}; }

  private:
    uint64_t half() {
        const uint64_t high = next();
        return high << 40 | next();
    }

    uint32_t state_ = 1;
};

void printHex(const char* what, const void* data, uint32_t bytes) {
    std::printf("%s ", what);
    parity::printHex(data, bytes);
    std::printf("\n");
}

template <class Record>
void printImage(const Record& record) {
    printHex(Record::recordName.data(), &record, sizeof(record));
}

template <class T>
void printField(T value) {
    Mox::NboAttrLog::Out log;
    log << value;
    std::printf("%s hash %u ", valueToStrep(value).c_str(), value.hash(3));
    printHex("log", log.bytes.data(), log.bytes.bytes());
}

void printLabelEntries(Numbers& numbers) {
    MplsHdr mpls{};
    mpls.labelIs(numbers.next() & MplsLabel::maxValue);
    mpls.cosIs(numbers.byte() & 7);
    mpls.bosIs((numbers.byte() & 1) != 0);
    mpls.ttlIs(numbers.byte());
    printImage(mpls);
    printField(mpls.entry());
}

void printFields(Numbers& numbers) {
    const uint32_t number = numbers.next();
    const auto low = static_cast<uint16_t>(number);
    printField(NetU8(static_cast<uint8_t>(number)));
    printField(NetU16(low));
    printField(NetU32(number << 8 | (numbers.next() & 0xff)));
    printField(IpVersionTrafficClassAndFlowLabel(number << 8 | low >> 8));
    printField(NetU64(uint64_t{number} << 40 | numbers.next()));
    printField(IpChecksum(low));
    printField(IpTotalLen(low));
    printField(IpId(low));
    printField(IpFragmentOffsetAndFlags(low));
    printField(IpVersionAndHeaderLen(low & 0xff));
    printField(IpHdrLen(low & 0xf));
    printField(IpFlags(low & 7));
    printField(IpFragmentOffset(low & 0x1fff));
    printField(OrdinalU8(low & 0xff));
}

void printHeaders(Numbers& numbers) {
    EthHdr eth;
    eth.dstIs(numbers.mac());
    eth.srcIs(numbers.mac());
    eth.typeIs(numbers.word());
    printImage(eth);

    IpHdr ip;
    ip.versionIs(4);
    ip.headerBytesIs(20);
    ip.tosIs(numbers.byte());
    ip.totalLenIs(numbers.word());
    ip.idIs(numbers.word());
    ip.flagsIs(numbers.word() & 7);
    ip.fragmentOffsetIs(numbers.word() & 0x1fff);
    ip.ttlIs(numbers.word() & 0xff);
    ip.protocolIs(numbers.byte());
    ip.srcIs(IpAddr(numbers.next()));
    ip.dstIs(IpAddr(numbers.next()));
    ip.checksumIs(ip.computedChecksum());
    printImage(ip);

    IcmpEchoHdr echo;
    echo.typeIs(static_cast<IcmpType>(numbers.word() & 0xff));
    echo.codeIs(numbers.byte());
    echo.idIs(numbers.word());
    echo.sequenceNumberIs(numbers.word());
    echo.checksumIs(echo.computedChecksum(sizeof(echo)));
    printImage(echo);
}

void printIp6Headers(Numbers& numbers) {
    Eth8021QHdr tag;
    tag.tciIs(numbers.word());
    tag.typeIs(numbers.word());
    printImage(tag);

    Ip6Hdr ip6;
    ip6.versionIs(6);
    ip6.trafficClassIs(numbers.word() & 0xff);
    ip6.flowLabelIs(numbers.next() & IpFlowLabel::max);
    ip6.payloadLenIs(numbers.word());
    ip6.nextHeaderIs(numbers.byte());
    ip6.hopLimitIs(numbers.byte());
    ip6.srcIs(numbers.ip6());
    ip6.dstIs(numbers.ip6());
    printImage(ip6);

    Icmp6EchoHdr echo;
    echo.typeIs(static_cast<Icmp6Type>(numbers.word() & 0xff));
    echo.codeIs(numbers.byte());
    echo.idIs(numbers.word());
    echo.sequenceNumberIs(numbers.word());
    echo.checksumIs(echo.computedChecksum(ip6.src(), ip6.dst(), sizeof(echo)));
    printImage(echo);

    IpHdrRouterAlertOption alert;
    alert.valueIs(numbers.word());
    printImage(alert);
    Ip6HdrRouterAlertOption alert6;
    alert6.nextHdrNumIs(numbers.byte());
    alert6.valueIs(numbers.word());
    printImage(alert6);
    Ip6HdrPadN padding;
    padding.optionLenIs(numbers.byte());
    printImage(padding);
}

void printTransportHeaders(Numbers& numbers) {
    const auto word = [&numbers] { return static_cast<uint16_t>(numbers.next()); };
    TcpHdr tcp;
    tcp.srcPortIs(word());
    tcp.dstPortIs(word());
    tcp.sequenceNumberIs(numbers.next() << 8);
    tcp.acknowledgementNumberIs(numbers.next() << 8);
    tcp.dataOffsetIs(word() & 15);
    tcp.reservedIs(word() & 7);
    tcp.nsIs((word() & 1) != 0);
    tcp.synIs((word() & 1) != 0);
    tcp.windowIs(word());
    tcp.urgentPointerIs(word());
    const TcpPseudoHdr pseudo{IpAddr(numbers.next()), IpAddr(numbers.next()), sizeof(tcp)};
    tcp.checksumIs(tcp.computedChecksum(pseudo));
    printImage(tcp);
    printField(pseudo);

    const Ip6Addr source{uint64_t{numbers.next()} << 40, numbers.next()};
    const TcpPseudoHdrIpv6 pseudo6(source, Ip6Addr(0, numbers.next()), sizeof(tcp));
    printField(pseudo6);
    std::printf("over IPv6 %04x %04x\n", tcp.computedChecksumIpv6U16(pseudo6),
                tcp.computedChecksumRfc8200U16(pseudo6));

    UdpHdr udp;
    udp.srcPortIs(word());
    udp.dstPortIs(word());
    udp.udpLenIs(sizeof(udp));
    udp.checksumIs(udp.computedChecksum({pseudo.src(), pseudo.dst(), sizeof(udp)}));
    printImage(udp);
    const UdpPseudoHdrIpv6 udpPseudo6(source, source, sizeof(udp));
    printField(udpPseudo6);
    std::printf("over IPv6 %04x\n", udp.computedChecksumIpv6U16(udpPseudo6));

    SctpHdr sctp;
    sctp.srcPortIs(word());
    sctp.dstPortIs(word());
    sctp.verificationTagIs(numbers.next() << 8);
    sctp.checksumIs(sctp.computedChecksum(sizeof(sctp)));
    printImage(sctp);
    printField(sctp.checksum());
}

void printChecksums(Numbers& numbers) {
    static uint8_t area[4096];
    for (auto& byte : area) {
        byte = numbers.byte();
    }
    for (uint32_t len = 0; len < sizeof(area); len = len * 5 / 4 + 1) {
        const auto even = static_cast<uint16_t>(len & ~1u);
        std::printf("checksum %u: %08x %04x %04x\n", len, ipChecksumChunk(area, even, ~len),
                    ipChecksumCalc(area, static_cast<uint16_t>(len), len).value(),
                    ipChksum(area, len));
        std::printf("crc %u: %08x %08x\n", len, Crc32::crc(area, len),
                    Crc32::crcByTables(area, len));
        std::printf("crc32c %u: %08x %08x\n", len, Crc32c::crc(area, len, ~len),
                    Crc32c::crcByTables(area, len, ~len));
    }
}

void printPackets(Numbers& numbers) {
    auto pkt = globalPktManager()->newPkt();
    for (int i = 0; i < 200; ++i) {
        const uint32_t n = numbers.next() % 40;
        const bool atTail = numbers.next() % 2 == 0;
        uint8_t* fresh = atTail ? pkt->newSharedTailData(n) : pkt->newSharedHeadData(n);
        std::memset(fresh, i, n);
        pkt->delSharedHeadData(numbers.next() % (n + 1));
        const Pkt::SharedBuffer& buffer = *pkt->sharedBuffer();
        std::printf("packet %u bytes at %u of %u\n", pkt->totalBytes(), buffer.headRoom(),
                    buffer.size());
    }
    for (int i = 0; i < 20; ++i) {
        addPktVlanTag(pkt, static_cast<uint16_t>(numbers.next() & 0xfff));
        maybeOffloadAnyVlanTag(pkt);
    }
    std::printf("tag %u\n", vlanIdFromEthPkt(pkt));
    const Mox::Bytes bytes = pkt->bytesValue();
    printHex("packet", bytes.data(), bytes.bytes());
}

}  // namespace

// Prints what must be the same in processes of both word sizes.
void parityOfPackets() {
    Numbers numbers;
    for (int i = 0; i < 500; ++i) {
        printFields(numbers);
        printHeaders(numbers);
        printIp6Headers(numbers);
        printTransportHeaders(numbers);
        printLabelEntries(numbers);
    }
    printChecksums(numbers);
    printPackets(numbers);
}
