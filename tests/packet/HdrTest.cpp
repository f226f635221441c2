#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Pavo/EthHdr.h"
#include "Pavo/IcmpHdr.h"
#include "Pavo/IpHdr.h"
#include "packet/GuardedPkt.h"
#include "support/Errors.h"

namespace Pavo {
namespace {

// An IPv4 header with its checksum, and 8 bytes of ICMP: an echo request with its checksum.
constexpr uint8_t echoRequest[28] = {0x45, 0x00, 0x00, 0x1c, 0x12, 0x34, 0x40, 0x00, 0x40, 0x01,
                                     0x14, 0xab, 0x0a, 0x00, 0x00, 0x01, 0x0a, 0x00, 0x00, 0x02,
                                     0x08, 0x00, 0xf6, 0xf5, 0x00, 0x01, 0x01, 0x09};

Mox::Ptr<Pkt> pktOf(const void* bytes, uint32_t length) {
    const auto pkt = globalPktManager()->newPkt();
    pkt->bytesValueIs(Mox::Bytes(bytes, length), /*atTail=*/false);
    return pkt;
}

template <class Record>
Mox::Bytes imageOf(const Record& record) {
    return Mox::Bytes(&record, sizeof(record));
}

// In a packet of 60 bytes that lie in one iovec behind nothing.
template <class Wrapper, class Hdr>
void expectBindsToTheLastByte(Mox::Ptr<Wrapper> (*factory)(const Mox::Ptr<Pkt>&, uint32_t)) {
    const std::string name(Hdr::recordName);
    SCOPED_TRACE(name);
    constexpr uint32_t last = 60 - sizeof(Hdr);
    const auto pkt = globalPktManager()->newPkt();
    std::memset(pkt->newSharedTailData(60), 0, 60);
    const auto wrapper = factory(pkt, last);
    EXPECT_EQ(reinterpret_cast<uint8_t*>(wrapper->header()), pkt->frontData() + last);
    EXPECT_TRUE(wrapper->hasNotificationActive());
    EXPECT_EQ(wrapper->fwkType()->name, "Pavo::" + name + "Wrapper");

    const std::string text =
        "\\( offset_ \\+ sizeof\\( " + name + " \\) \\) <= pkt_->frontBytes\\(\\)";
    EXPECT_DEATH(factory(pkt, last + 1), text);
    EXPECT_DEATH(factory(pkt, 0xffffffff), text);  // Offset and size make a small number.
    EXPECT_DEATH(factory(Mox::make<Pkt>(), 0), text);

    uint8_t* front = pkt->newSharedHeadData(4);
    wrapper->handleHeader();  // The same offset, four bytes further to the front.
    EXPECT_EQ(reinterpret_cast<uint8_t*>(wrapper->header()), front + last);
    pkt->delSharedTailData(5);
    EXPECT_DEATH(wrapper->handleHeader(), text);
}

TEST(HdrWrapperDeath, BindsAtTheLastGoodOffsetAndDiesAtTheNext) {
    expectBindsToTheLastByte<EthHdrWrapper, EthHdr>(ethHdrWrapperFactory);
    expectBindsToTheLastByte<IpHdrWrapper, IpHdr>(ipHdrWrapperFactory);
    expectBindsToTheLastByte<IcmpHdrWrapper, IcmpHdr>(icmpHdrWrapperFactory);
    expectBindsToTheLastByte<IcmpEchoHdrWrapper, IcmpEchoHdr>(icmpEchoHdrWrapperFactory);
}

TEST(HdrWrapper, HoldsItsPacket) {
    auto pkt = pktOf(echoRequest, sizeof(echoRequest));
    const auto wrapper = ipHdrWrapperFactory(pkt, 0);
    pkt = nullptr;
    EXPECT_EQ(wrapper->header()->id(), 0x1234);
}

TEST(IpHdr, ChangesTheBitsOfOneFieldOnly) {
    const struct {
        const char* field;
        std::function<void(IpHdr&)> allOnes;
        std::function<void(IpHdr&)> allZeros;
        uint32_t firstByte;
        std::vector<uint8_t> mask;  // From the first byte on, the bits of the field.
    } cases[] = {
        {"version", [](IpHdr& h) { h.versionIs(15); }, [](IpHdr& h) { h.versionIs(0); }, 0, {0xf0}},
        {"headerLen",
         [](IpHdr& h) { h.headerLenIs(15); },
         [](IpHdr& h) { h.headerLenIs(0); },
         0,
         {0x0f}},
        {"headerBytes",
         [](IpHdr& h) { h.headerBytesIs(60); },
         [](IpHdr& h) { h.headerBytesIs(0); },
         0,
         {0x0f}},
        {"tos", [](IpHdr& h) { h.tosIs(0xff); }, [](IpHdr& h) { h.tosIs(0); }, 1, {0xff}},
        {"totalLen",
         [](IpHdr& h) { h.totalLenIs(0xffff); },
         [](IpHdr& h) { h.totalLenIs(0); },
         2,
         {0xff, 0xff}},
        {"id", [](IpHdr& h) { h.idIs(0xffff); }, [](IpHdr& h) { h.idIs(0); }, 4, {0xff, 0xff}},
        {"flags", [](IpHdr& h) { h.flagsIs(7); }, [](IpHdr& h) { h.flagsIs(0); }, 6, {0xe0}},
        {"reservedFragFlag",
         [](IpHdr& h) { h.reservedFragFlagIs(true); },
         [](IpHdr& h) { h.reservedFragFlagIs(false); },
         6,
         {0x80}},
        {"dontFrag",
         [](IpHdr& h) { h.dontFragIs(true); },
         [](IpHdr& h) { h.dontFragIs(false); },
         6,
         {0x40}},
        {"moreFrag",
         [](IpHdr& h) { h.moreFragIs(true); },
         [](IpHdr& h) { h.moreFragIs(false); },
         6,
         {0x20}},
        {"fragmentOffset",
         [](IpHdr& h) { h.fragmentOffsetIs(0x1fff); },
         [](IpHdr& h) { h.fragmentOffsetIs(0); },
         6,
         {0x1f, 0xff}},
        {"ttl", [](IpHdr& h) { h.ttlIs(255); }, [](IpHdr& h) { h.ttlIs(0); }, 8, {0xff}},
        {"protocol",
         [](IpHdr& h) { h.protocolIs(255); },
         [](IpHdr& h) { h.protocolIs(0); },
         9,
         {0xff}},
        {"protocolNum",
         [](IpHdr& h) { h.protocolNumIs(IpProtocolNumber::reserved); },
         [](IpHdr& h) { h.protocolNumIs(IpProtocolNumber::hopopt); },
         9,
         {0xff}},
        {"checksum",
         [](IpHdr& h) { h.checksumIs(IpChecksum(0xffff)); },
         [](IpHdr& h) { h.checksumIs({}); },
         10,
         {0xff, 0xff}},
        {"src",
         [](IpHdr& h) { h.srcIs(IpAddr(0xffffffff)); },
         [](IpHdr& h) { h.srcIs({}); },
         12,
         {0xff, 0xff, 0xff, 0xff}},
        {"dst",
         [](IpHdr& h) { h.dstIs(IpAddr(0xffffffff)); },
         [](IpHdr& h) { h.dstIs({}); },
         16,
         {0xff, 0xff, 0xff, 0xff}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.field);
        uint8_t mask[sizeof(IpHdr)] = {};
        std::copy(c.mask.begin(), c.mask.end(), mask + c.firstByte);
        uint8_t inverse[sizeof(IpHdr)];
        for (uint32_t i = 0; i < sizeof(IpHdr); ++i) {
            inverse[i] = static_cast<uint8_t>(~mask[i]);
        }
        IpHdr zeros;
        c.allOnes(zeros);
        EXPECT_EQ(imageOf(zeros), imageOf(mask));
        IpHdr ones;
        std::memset(static_cast<void*>(&ones), 0xff, sizeof(ones));
        c.allZeros(ones);
        EXPECT_EQ(imageOf(ones), imageOf(inverse));
    }
}

TEST(IpHdr, ReadsTheFieldsOfAPacket) {
    const auto pkt = pktOf(echoRequest, sizeof(echoRequest));
    const IpHdr& ip = *ipHdrWrapperFactory(pkt, 0)->header();
    EXPECT_EQ(ip.version(), 4);
    EXPECT_EQ(ip.headerBytes(), 20);
    EXPECT_EQ(ip.payloadLen(), 8);
    EXPECT_EQ(ip.flags(), 2);
    EXPECT_TRUE(ip.dontFrag());
    EXPECT_FALSE(ip.moreFrag() || ip.reservedFragFlag() || ip.hasOptions());
    EXPECT_EQ(ip.ttl(), 64);
    EXPECT_EQ(ip.protocolNum(), IpProtocolNumber::icmp);
    std::ostringstream text;
    text << ip << " " << 16;  // The stream is left as it was.
    EXPECT_EQ(text.str(),
              " src: 10.0.0.1 dst: 10.0.0.2 proto: icmp len: 28 header len 20 id: 4660 ttl: 64"
              " checksum: 0x14ab computed checksum: 0x0000 16");
}

TEST(IpHdr, RefusesLengthsThatAreNoWholeWords) {
    IpHdr ip;
    ip.headerBytesIs(24);
    EXPECT_TRUE(ip.hasOptions());
    EXPECT_EQ(rangeErrorOf([&] { ip.headerBytesIs(64); }),
              "IpHdrLen::value < 0 or > 15 not allowed");
    EXPECT_EQ(rangeErrorOf([&] { ip.fragmentOffsetIs(0x2000); }),
              "IpFragmentOffset::value < 0 or > 8191 not allowed");
    EXPECT_EQ(ip.headerBytes(), 24);
    EXPECT_DEATH(ip.headerBytesIs(22), "\\(b % 4\\) == 0");
}

TEST(IpHdr, ReadsAProtocolThatIsNotAssignedAs255) {
    IpHdr ip;
    for (uint32_t byte = 0; byte < 256; ++byte) {
        ip.protocolIs(static_cast<uint8_t>(byte));
        const bool assigned = byte <= 146 || byte >= 253;
        EXPECT_EQ(static_cast<uint32_t>(ip.protocolNum()), assigned ? byte : 255) << byte;
    }
}

TEST(IpHdr, SumsToZeroOnceItsChecksumIsFilledIn) {
    std::mt19937 random(791);
    for (uint16_t words = 5; words <= 15; ++words) {
        uint8_t frame[60];
        for (auto& byte : frame) {
            byte = static_cast<uint8_t>(random());
        }
        GuardedPkt guarded(frame, words * 4u);
        IpHdr* ip = ipHdrWrapperFactory(guarded.pkt(), 0)->header();
        ip->headerLenIs(words);
        ip->checksumIs({});
        ip->checksumIs(ip->computedChecksum());
        EXPECT_EQ(ip->computedChecksum(), IpChecksum(0));
        guarded.pkt()->frontData()[words * 4 - 1] ^= 1;
        EXPECT_NE(ip->computedChecksum(), IpChecksum(0));
    }
}

TEST(HdrView, TellsWhatIsWrongWithAnIpHeaderWithoutTouchingMore) {
    uint8_t frame[64] = {};
    for (uint32_t bytes = 0; bytes <= 60; ++bytes) {
        for (uint8_t words = 0; words < 16; ++words) {
            for (const uint32_t totalLen : {bytes, bytes + 1, words * 4u, words * 4u - 1}) {
                IpHdr ip;
                ip.versionIs(4);
                ip.headerLenIs(words);
                ip.totalLenIs(static_cast<uint16_t>(totalLen));
                std::memcpy(frame, &ip, sizeof(ip));
                const GuardedPkt guarded(frame, bytes);
                const auto view = tryIpHdr(guarded.pkt(), 0);
                const uint16_t held = ip.totalLen();
                const bool fits = words >= 5 && words * 4 <= held && held <= bytes;
                const PktErrors expected = bytes < 20 ? PktErrors::pktTooShort
                                           : fits     ? PktErrors::noError
                                                      : PktErrors::badIpPayloadLen;
                ASSERT_EQ(view.error(), expected) << bytes << " " << int{words} << " " << held;
                ASSERT_EQ(bool(view), fits && bytes >= 20);
                if (view) {  // All that the lengths promise may be read.
                    (void)view->computedChecksum();
                    (void)ipChecksumCalc(view.ptr(), view->totalLen(), 0);
                }
            }
        }
    }
}

TEST(HdrView, ActsAsACheckedPointer) {
    const auto pkt = pktOf(echoRequest, sizeof(echoRequest));
    const auto ip = tryIpHdr(pkt, 0);
    ASSERT_TRUE(ip);
    const auto icmp = ip ? tryIcmpHdr(pkt, ip->headerBytes()) : nullptr;
    ASSERT_TRUE(icmp);
    EXPECT_EQ(icmp->type(), IcmpType::echoRequest);

    pkt->frontData()[0] = 0x65;
    const auto six = tryIpHdr(pkt, 0);
    EXPECT_FALSE(six);
    EXPECT_EQ(six.error(), PktErrors::nonIpHdr);
    const auto none = six ? tryIcmpHdr(pkt, 0) : nullptr;
    EXPECT_FALSE(none);
    EXPECT_NE(none.error(), PktErrors::noError);

    const struct {
        PktErrors found, expected;
        const char* what;
    } ends[] = {
        {tryEthHdr(pkt, 14).error(), PktErrors::noError, "Ethernet, last"},
        {tryEthHdr(pkt, 15).error(), PktErrors::pktTooShort, "Ethernet, past"},
        {tryIcmpHdr(pkt, 24).error(), PktErrors::noError, "ICMP, last"},
        {tryIcmpHdr(pkt, 25).error(), PktErrors::pktTooShort, "ICMP, past"},
        {tryIcmpEchoHdr(pkt, 20).error(), PktErrors::noError, "echo, last"},
        {tryIcmpEchoHdr(pkt, 21).error(), PktErrors::pktTooShort, "echo, past"},
        {tryIcmpHdr(pkt, 0xfffffffe).error(), PktErrors::pktTooShort, "offset and size wrap"},
        {tryIcmpHdr(Mox::make<Pkt>(), 0).error(), PktErrors::pktTooShort, "no data"},
    };
    for (const auto& c : ends) {
        EXPECT_EQ(c.found, c.expected) << c.what;
    }
}

TEST(EthHdr, LiesAsItIsSent) {
    EthHdr eth;
    eth.dstIs(EthAddr(0x0102, 0x0304, 0x0506));
    eth.srcIs(EthAddr(0x1112, 0x1314, 0x1516));
    eth.typeIs(EthType::ip6);
    EXPECT_EQ(imageOf(eth),
              (Mox::Bytes{1, 2, 3, 4, 5, 6, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x86, 0xdd}));
}

TEST(IcmpHdr, LiesAsItIsSentAndKnowsItsChecksum) {
    const auto pkt = globalPktManager()->newPkt();
    pkt->newSharedTailData(8);
    const auto echo = icmpEchoHdrWrapperFactory(pkt, 0);
    *echo->header() = IcmpEchoHdr();
    echo->typeIs(IcmpType::echoRequest);
    echo->header()->idIs(1);
    echo->header()->sequenceNumberIs(0x0109);
    echo->checksumIs(echo->computedChecksum(8));
    EXPECT_EQ(pkt->bytesValue(), Mox::Bytes(echoRequest + 20, 8));
    EXPECT_EQ(echo->computedChecksum(8), IpChecksum(0));
    echo->codeIs(0xfe);
    EXPECT_EQ(pkt->bytesValue()[1], 0xfe);

    EXPECT_DEATH((void)echo->computedChecksum(9), "\\( offset_ \\+ bytes \\) <= pkt_->frontBytes");
    EXPECT_DEATH((void)icmpHdrWrapperFactory(pkt, 4)->computedChecksum(5),
                 "\\( offset_ \\+ bytes \\) <= pkt_->frontBytes");
}

TEST(IcmpHdr, ReadsATypeWithoutANameAsItsNumber) {
    IcmpHdr icmp;
    icmp.typeIs(static_cast<IcmpType>(200));
    EXPECT_EQ(stringValue(icmp.type()), "200");
    EXPECT_EQ(IcmpTypeInstance("echoReply"), IcmpType::echoReply);
    EXPECT_EQ(rangeErrorOf([] { (void)IcmpTypeInstance(200); }), "Invalid IcmpType");
}

TEST(PktErrors, HasOneNameForEachNumber) {
    std::set<PktErrors> seen;
    for (const auto& member : Mox::enumTable<PktErrors>.members) {
        EXPECT_TRUE(seen.insert(member.value).second) << member.name;
    }
    const struct {
        const char* name;
        int32_t number;
    } fixed[] = {{"noError", 0},
                 {"pktTooShort", -1},
                 {"wrongEthType", -2},
                 {"badIpHdrChecksum", -50},
                 {"badIpPayloadLen", -51},
                 {"nonIpHdr", -52},
                 {"nonIp6Hdr", -101},
                 {"badIp6PayloadLen", -102},
                 {"nextHdrIsNotIcmp6", -200},
                 {"badIcmp6Checksum", -201}};
    for (const auto& c : fixed) {
        EXPECT_EQ(PktErrorsInstance(c.name), PktErrorsInstance(static_cast<uint32_t>(c.number)));
        EXPECT_EQ(stringValue(PktErrorsInstance(static_cast<uint32_t>(c.number))), c.name);
    }
    EXPECT_EQ(rangeErrorOf([] { (void)PktErrorsInstance(1); }), "Invalid PktErrors");
}

}  // namespace
}  // namespace Pavo
