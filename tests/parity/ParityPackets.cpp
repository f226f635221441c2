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
#include "Pavo/NetU.h"
#include "Pavo/Pkt.h"
#include "Pavo/VlanUtils.h"

namespace {

using namespace Pavo;

// The same numbers on every machine.
class Numbers {
  public:
    uint32_t next() {
        state_ = state_ * 1664525u + 1013904223u;
        return state_ >> 8;
    }

  private:
    uint32_t state_ = 1;
};

void printHex(const char* what, const void* data, uint32_t bytes) {
    std::printf("%s ", what);
    for (uint32_t i = 0; i < bytes; ++i) {
        std::printf("%02x", static_cast<const uint8_t*>(data)[i]);
    }
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
    EthHdr eth;  // Braces evaluate from left to right.
    const auto word = [&numbers] { return static_cast<uint16_t>(numbers.next()); };
    eth.dstIs(EthAddr{word(), word(), word()});
    eth.srcIs(EthAddr{word(), word(), word()});
    eth.typeIs(word());
    printImage(eth);

    IpHdr ip;
    ip.versionIs(4);
    ip.headerBytesIs(20);
    ip.tosIs(static_cast<uint8_t>(word()));
    ip.totalLenIs(word());
    ip.idIs(word());
    ip.flagsIs(word() & 7);
    ip.fragmentOffsetIs(word() & 0x1fff);
    ip.ttlIs(word() & 0xff);
    ip.protocolIs(static_cast<uint8_t>(word()));
    ip.srcIs(IpAddr(numbers.next()));
    ip.dstIs(IpAddr(numbers.next()));
    ip.checksumIs(ip.computedChecksum());
    printImage(ip);

    IcmpEchoHdr echo;
    echo.typeIs(static_cast<IcmpType>(word() & 0xff));
    echo.codeIs(static_cast<uint8_t>(word()));
    echo.idIs(word());
    echo.sequenceNumberIs(word());
    echo.checksumIs(echo.computedChecksum(sizeof(echo)));
    printImage(echo);
}

void printIp6Headers(Numbers& numbers) {
    const auto word = [&numbers] { return static_cast<uint16_t>(numbers.next()); };
    const auto half = [&numbers] {
        const uint64_t high = numbers.next();
        return high << 40 | numbers.next();
    };
    const auto address = [&half] {
        const uint64_t high = half();
        return Ip6Addr(high, half());
    };
    Eth8021QHdr tag;
    tag.tciIs(word());
    tag.typeIs(word());
    printImage(tag);

    Ip6Hdr ip6;
    ip6.versionIs(6);
    ip6.trafficClassIs(word() & 0xff);
    ip6.flowLabelIs(numbers.next() & IpFlowLabel::max);
    ip6.payloadLenIs(word());
    ip6.nextHeaderIs(static_cast<uint8_t>(word()));
    ip6.hopLimitIs(static_cast<uint8_t>(word()));
    ip6.srcIs(address());
    ip6.dstIs(address());
    printImage(ip6);

    Icmp6EchoHdr echo;
    echo.typeIs(static_cast<Icmp6Type>(word() & 0xff));
    echo.codeIs(static_cast<uint8_t>(word()));
    echo.idIs(word());
    echo.sequenceNumberIs(word());
    echo.checksumIs(echo.computedChecksum(ip6.src(), ip6.dst(), sizeof(echo)));
    printImage(echo);

    IpHdrRouterAlertOption alert;
    alert.valueIs(word());
    printImage(alert);
    Ip6HdrRouterAlertOption alert6;
    alert6.nextHdrNumIs(static_cast<uint8_t>(word()));
    alert6.valueIs(word());
    printImage(alert6);
    Ip6HdrPadN padding;
    padding.optionLenIs(static_cast<uint8_t>(word()));
    printImage(padding);
}

void printChecksums(Numbers& numbers) {
    static uint8_t area[4096];
    for (auto& byte : area) {
        byte = static_cast<uint8_t>(numbers.next());
    }
    for (uint32_t len = 0; len < sizeof(area); len = len * 5 / 4 + 1) {
        const auto even = static_cast<uint16_t>(len & ~1u);
        std::printf("checksum %u: %08x %04x %04x\n", len, ipChecksumChunk(area, even, ~len),
                    ipChecksumCalc(area, static_cast<uint16_t>(len), len).value(),
                    ipChksum(area, len));
        std::printf("crc %u: %08x %08x\n", len, Crc32::crc(area, len),
                    Crc32::crcByTables(area, len));
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
    }
    printChecksums(numbers);
    printPackets(numbers);
}
