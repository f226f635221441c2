#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "Pavo/Checksum.h"
#include "Pavo/Crc32.h"
#include "Pavo/EthHdr.h"
#include "Pavo/Icmp6Hdr.h"
#include "Pavo/IcmpHdr.h"
#include "Pavo/Ip6Hdr.h"
#include "Pavo/IpHdr.h"
#include "Pavo/MplsHdr.h"
#include "Pavo/Pkt.h"
#include "Pavo/SctpHdr.h"
#include "Pavo/TcpHdr.h"
#include "Pavo/UdpHdr.h"
#include "Pavo/VlanUtils.h"
#include "parity/Parity.h"

void printHex(const void* data, uint32_t bytes) {
    for (uint32_t i = 0; i < bytes; ++i) {
        std::printf("%02x", static_cast<const uint8_t*>(data)[i]);
    }
}

namespace {

using namespace Pavo;

// The same numbers on every machine.
class Numbers {
  public:
    uint32_t next() {
        state_ = state_ * 1664525u + 1013904223u;
        return state_ >> 8;
    }
    uint8_t byte() { return static_cast<uint8_t>(next()); }

    template <class Record>
    Record record() {
        uint8_t image[sizeof(Record)];
        for (uint8_t& each : image) {
            each = byte();
        }
        Record made;
        std::memcpy(static_cast<void*>(&made), image, sizeof(made));
        return made;
    }

  private:
    uint32_t state_ = 1;
};

// The tests of each header hold where its fields lie; here, where the next one begins.
template <class... Record>
void printRecords() {
    (std::printf("%s size=%u align=%u\n", std::string(Record::recordName).c_str(),
                 static_cast<unsigned>(sizeof(Record)), static_cast<unsigned>(alignof(Record))),
     ...);
}

void printHeaderChecksums(Numbers& numbers) {
    auto ip = numbers.record<IpHdr>();
    ip.headerBytesIs(sizeof(ip));
    auto udp = numbers.record<UdpHdr>();
    udp.udpLenIs(sizeof(udp));
    const auto ip6 = numbers.record<Ip6Hdr>();
    const auto tcp = numbers.record<TcpHdr>();
    const TcpPseudoHdr pseudo(ip.src(), ip.dst(), sizeof(tcp));
    const TcpPseudoHdrIpv6 pseudo6(ip6.src(), ip6.dst(), sizeof(tcp));
    const uint16_t checksums[] = {
        ip.computedChecksum().value(),
        numbers.record<IcmpEchoHdr>().computedChecksum(sizeof(IcmpEchoHdr)).value(),
        numbers.record<Icmp6EchoHdr>()
            .computedChecksum(ip6.src(), ip6.dst(), sizeof(Icmp6EchoHdr))
            .value(),
        tcp.computedChecksumU16(pseudo),
        tcp.computedChecksumIpv6U16(pseudo6),
        tcp.computedChecksumRfc8200U16(pseudo6),
        udp.computedChecksumU16({ip.src(), ip.dst(), sizeof(udp)}),
        udp.computedChecksumIpv6U16({ip6.src(), ip6.dst(), sizeof(udp)}),
    };
    std::printf("headers");
    for (const uint16_t checksum : checksums) {
        std::printf(" %04x", checksum);
    }
    const auto sctp = numbers.record<SctpHdr>();
    std::printf(" %s\n", sctp.computedChecksum(sizeof(sctp)).stringValue().c_str());
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
    std::printf("packet ");
    printHex(bytes.data(), bytes.bytes());
    std::printf("\n");
}

}  // namespace

void parityOfPackets() {
    printRecords<EthHdr, Eth8021QHdr, MplsHdr, IpHdr, IpHdrRouterAlertOption, Ip6Hdr, Ip6HdrPad1,
                 Ip6HdrPadN, Ip6HdrRouterAlertOption, IcmpHdr, IcmpEchoHdr, Icmp6Hdr, Icmp6EchoHdr,
                 TcpHdr, UdpHdr, SctpHdr>();
    Numbers numbers;
    for (int i = 0; i < 500; ++i) {
        printHeaderChecksums(numbers);
    }
    printChecksums(numbers);
    printPackets(numbers);
}
