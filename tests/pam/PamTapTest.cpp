// Capture files of endpoints as tshark reads them, with its checksum checks on.

#include "Pavo/PamTap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "Pavo/Ip6SocketPam.h"
#include "Pavo/IpSocketPam.h"
#include "Pavo/PamConnector.h"
#include "Pavo/UdpPam.h"
#include "pam/PamFixture.h"
#include "support/Tshark.h"

namespace Pavo {
namespace {

using testing::AnyOf;
using testing::ElementsAre;

// A folder for one file, which tshark reads.
class CaptureTest : public PamFixture {
  protected:
    Texts tshark(const Texts& fields) const { return PavoTest::tshark(path_, fields); }

    const PavoTest::TempFolder temp_;
    const std::string& folder_ = temp_.path;
    const std::string path_ = folder_ + "/agent.pcapng";
};

std::string bytesOf(std::string_view hex) {
    std::string bytes;
    for (size_t i = 0; i < hex.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
    }
    return bytes;
}

// 192.0.2.1 > 192.0.2.2: a TCP SYN to port 179, and a UDP datagram "hello" to port 4789 - 1.
const std::string macs = bytesOf("020000000002020000000001");
const std::string tcp =
    bytesOf("080045000028000100004006f6cbc0000201c00002029c4000b30000000100000000500220006eea0000");
const std::string udp =
    bytesOf("080045000021000100004011f6c7c0000201c00002029c4112b5000d890768656c6c6f");

void hundredPkts(const Mox::Ptr<CaptureFile>& file, uint32_t interface) {
    const std::string frame = macs + udp;
    const CaptureFile::Piece whole{reinterpret_cast<const uint8_t*>(frame.data()),
                                   static_cast<uint32_t>(frame.size())};
    for (int i = 0; i < 100; ++i) {
        file->pktIs(interface, CaptureDirection::inbound, &whole, 1);
    }
    file->flush();
}

TEST_F(CaptureTest, ASessionOverAConnectorIsCompleteWithItsTags) {
    Mox::ManualClock clock;
    const auto connector = pamConnectorFactory(&clock);
    connector->separateVlanTagHdrIs(true);
    const auto agent = connector->pam("pam0");
    const auto peer = connector->pam("pam1");
    const auto file = captureFileFactory(path_);
    agent->tapIs(pamTapFactory(file, "agent's end"));
    peer->tapIs(pamTapFactory(file, "peer's end"));

    agent->txPktIs(pktOf(macs + tcp));
    const auto tagged = pktOf(macs + udp);
    tagged->newSeparateVlanTag(0x6064, 0x8100);  // Sent beside the data, in two pieces.
    std::memcpy(tagged->newPrivateHeadData(5), "\0\0\0\0\0", 5);
    tagged->delPrivateHeadData(5);
    agent->txPktIs(tagged);
    peer->txPktIs(pktOf(macs + bytesOf("88a80007") + tcp));  // The connector moves it out.
    clock.advance(1);
    EXPECT_EQ(agent->rxPkt()->stringValue(), macs + tcp);
    while (peer->rxPkt()) {
    }
    agent->tapIs(nullptr);
    agent->txPktIs(pktOf("unseen"));
    file->flush();

    EXPECT_THAT(
        tshark({"frame.interface_name", "frame.packet_flags_direction", "vlan.id", "ieee8021ad.id",
                "vlan.priority", "ip.checksum.status", "tcp.checksum.status", "udp.checksum.status",
                "frame.len"}),
        ElementsAre("agent's end 0x00000002    1 1  54", "agent's end 0x00000002 100  3 1  1 51",
                    "peer's end 0x00000002  7  1 1  58", "agent's end 0x00000001  7  1 1  58",
                    "peer's end 0x00000001    1 1  54", "peer's end 0x00000001 100  3 1  1 51"));
    EXPECT_EQ(file->stats().packets, 6u);
}

// An enabled endpoint that sends to itself, to be recorded.
Mox::Ptr<RawIpPam> openRaw(const Mox::Ptr<CaptureFile>& file, bool isFour) {
    Mox::Ptr<RawIpPam> pam = ip6SocketPamFactory("six", IpProtocolNumber::ipv6Icmp, {});
    if (isFour) {
        pam = ipSocketPamFactory("four", IpProtocolNumber::icmp, {});
    }
    pam->tapIs(pamTapFactory(file, pam->name(), CaptureLinkType::rawIp));
    pam->enabledIs(true);
    pam->txDstIpAddrIs(addr(isFour ? "127.0.0.1" : "::1"));
    return pam;
}

TEST_F(CaptureTest, RawIpEndpointsGetTheHeadersThatTheKernelKeeps) {
    const auto file = captureFileFactory(path_);
    for (const bool isFour : {true, false}) {  // The first reads singly, the other in bulk.
        const Mox::Ptr<RawIpPam> pam = openRaw(file, isFour);
        pam->enableBulkReadIs(!isFour);
        pam->optionsIs(ipPktInfo | ipRecvTTL | ipRecvTOS);
        pam->txTOSIs(0x28);
        pam->txSrcIpAddrIs(pam->txDstIpAddr());
        // An echo request. The kernel has given it back, and answered it, within the send.
        const auto pkt = pktOf(bytesOf(isFour ? "0800e5ca12340001" : "80006d8612340001"));
        pkt->newSeparateVlanTag(0x6064, 0x8100);  // Means nothing without Ethernet.
        *pkt->newPrivateHeadData(1) = 8;
        pkt->delPrivateHeadData(1);
        pam->txPktIs(pkt);
        while (isFour ? pam->rxPkt() != nullptr : pam->rxPktBulk() != 0) {
        }
    }
    file->flush();
    EXPECT_THAT(tshark({"frame.packet_flags_direction", "frame.interface_name", "ip.src", "ip.dst",
                        "ipv6.src", "ipv6.dst", "ip.ttl", "ipv6.hlim", "ip.dsfield", "ipv6.tclass",
                        "ip.checksum.status", "icmp.type", "icmpv6.type", "icmp.checksum.status",
                        "icmpv6.checksum.status"}),
                ElementsAre("0x00000002 four 127.0.0.1 127.0.0.1   64  0x28  1 8  1 ",
                            "0x00000001 four 127.0.0.1 127.0.0.1   64  0x28  1 8  1 ",
                            "0x00000001 four 127.0.0.1 127.0.0.1   64  0x28  1 0  1 ",
                            "0x00000002 six   ::1 ::1  64  0x00000028   128  1",
                            "0x00000001 six   ::1 ::1  64  0x00000028   128  1",
                            "0x00000001 six   ::1 ::1  64  0x00000028   129  1"));
}

TEST_F(CaptureTest, MadeHeadersHaveTheAlertAndNothingOfOtherPackets) {
    const auto file = captureFileFactory(path_);
    for (const bool isFour : {true, false}) {
        const Mox::Ptr<RawIpPam> pam = openRaw(file, isFour);
        pam->rxDstIpAddrIs(addr("2001:db8::bad"));  // Of an earlier packet.
        pam->rxTTLIs(200);
        pam->ipPktOptionIs(ipPktRouterAlert, true);
        pam->txPktIs(pktOf(bytesOf(isFour ? "0000e5ca12340001" : "81006d8612340001")));
        (void)pam->rxPkt();
    }
    file->flush();
    EXPECT_EQ(tshark({"ip.hdr_len", "ip.opt.ra", "ip.len", "ipv6.opt.router_alert", "ipv6.plen",
                      "ipv6.dst", "ipv6.hlim"}),
              (Texts{"24 0 32    ", "24 0 32    ", "   0 16 ::1 64", "    8 :: 0"}));
}

TEST_F(CaptureTest, UdpEndpointsGetBothHeadersThatTheKernelKeeps) {
    const auto file = captureFileFactory(path_);
    for (const bool isFour : {true, false}) {
        const auto pam = udpPamFactory(isFour ? "four" : "six");
        pam->tapIs(pamTapFactory(file, pam->name(), CaptureLinkType::rawIp));
        pam->localAddrIs(addr(isFour ? "127.0.0.1" : "::1"));
        pam->localPortIs(4321);
        pam->optionsIs(ipPktInfo | ipRecvTTL);
        pam->txTtlIs(9);
        pam->remoteIs({pam->localAddr(), 4321});
        pam->enabledIs(true);
        isFour ? pam->txPktIs(pktOf("one")) : (void)pam->txPktsIs(std::vector(1, pktOf("three")));
        (void)receive(pam);
    }
    file->flush();
    EXPECT_THAT(
        tshark({"frame.packet_flags_direction", "ip.src", "ip.dst", "ipv6.src", "ipv6.dst",
                "ip.ttl", "ipv6.hlim", "udp.srcport", "udp.dstport", "udp.length", "data.data"}),
        ElementsAre("0x00000002 127.0.0.1 127.0.0.1   9  4321 4321 11 6f6e65",
                    "0x00000001 127.0.0.1 127.0.0.1   9  4321 4321 11 6f6e65",
                    "0x00000002   ::1 ::1  9 4321 4321 13 7468726565",
                    "0x00000001   ::1 ::1  9 4321 4321 13 7468726565"));
}

TEST_F(CaptureTest, PacketsWithoutRoomAreCountedAndTheFileStaysValid) {
    // Blocks of 92 bytes, after 68 bytes at the start of the file.
    const std::pair<CaptureFile::Limits, uint32_t> rows[] = {{{1000, 1 << 20}, 10},
                                                             {{1 << 20, 91}, 0}};
    for (const auto& [limits, pkts] : rows) {
        const auto file = captureFileFactory(path_, limits);
        hundredPkts(file, file->newInterface("lo", CaptureLinkType::ethernet));
        EXPECT_EQ(file->stats().packets, pkts);
        EXPECT_EQ(file->stats().drops, 100 - pkts);
        EXPECT_EQ(tshark({"udp.checksum.status"}), Texts(pkts, "1"));
    }
}

TEST_F(CaptureTest, KeepsTheBeginningOfAHugePacket) {
    const auto file = captureFileFactory(path_);
    const std::string huge(CaptureFile::maxPktBytes - 1, 'x');
    const CaptureFile::Piece piece{reinterpret_cast<const uint8_t*>(huge.data()),
                                   static_cast<uint32_t>(huge.size())};
    const CaptureFile::Piece pieces[] = {piece, piece};
    file->pktIs(file->newInterface("lo", CaptureLinkType::user0), CaptureDirection::outbound,
                pieces, 2);
    file->flush();
    EXPECT_EQ(tshark({"frame.len", "frame.cap_len"}), (Texts{"524286 262144"}));
}

TEST_F(CaptureTest, AFullDiskLosesOnlyPacketsWithoutRoom) {
    ASSERT_EQ(mount("tmpfs", folder_.c_str(), "tmpfs", 0, "size=64k"), 0);
    const std::string filler = folder_ + "/filler";
    std::ofstream(filler) << std::string(32 << 10, ' ') << std::flush;
    const auto file = captureFileFactory(path_);
    const uint32_t interface = file->newInterface("lo", CaptureLinkType::ethernet);
    for (int i = 0; i < 100 && file->stats().writeErrors < 2; ++i) {
        hundredPkts(file, interface);
    }
    const CaptureFile::Stats full = file->stats();
    EXPECT_GE(full.writeErrors, 2u);
    EXPECT_EQ(full.writeErrno, ENOSPC);
    EXPECT_GE(full.lost, 2u);
    std::filesystem::remove(filler);
    hundredPkts(file, interface);
    EXPECT_EQ(file->stats().lost, full.lost);
    const auto written = static_cast<std::size_t>(file->stats().packets - full.lost);
    EXPECT_EQ(tshark({"udp.checksum.status"}), Texts(written, "1"));
    umount2(folder_.c_str(), MNT_DETACH);
}

TEST_F(CaptureTest, AFileThatCannotBeMadeIsAnError) {
    const auto before = PavoTest::openDescriptors();
    const std::string absent = folder_ + "/absent/file";
    EXPECT_EQ(errorOf([&] { captureFileFactory(absent); }), thrown("open(" + absent + ")", ENOENT));
    EXPECT_EQ(errorOf([] { captureFileFactory("/dev/full"); }), thrown("write(/dev/full)", ENOSPC));
    PavoTest::failEachSyscall(
        EIO, [&] { return errorOf([&] { captureFileFactory(path_)->newInterface("lo", {}); }); },
        [&](const PavoTest::FailSyscall&, const std::string& error, int) {
            EXPECT_THAT(error,
                        AnyOf(thrown("open(" + path_ + ")", EIO),
                              thrown("write(" + path_ + ")", EIO), thrown("pthread_create", EIO)));
        });
    EXPECT_EQ(PavoTest::openDescriptors(), before);
}

TEST_F(CaptureTest, AnExistingFileBecomesPrivateAndOneOfUncertainOwnerStaysAsItIs) {
    std::ofstream(path_) << std::string(4096, 'x');
    std::filesystem::permissions(path_, std::filesystem::perms::all);
    captureFileFactory(path_);
    EXPECT_EQ(std::filesystem::status(path_).permissions(), std::filesystem::perms(0600));
    EXPECT_LT(std::filesystem::file_size(path_), 100u);

    const std::string other = folder_ + "/other";
    const auto expectRefused = [&](int error) {
        std::filesystem::resize_file(path_, 4096);
        EXPECT_EQ(errorOf([&] { captureFileFactory(other); }),
                  thrown("open(" + other + ")", error));
        EXPECT_EQ(std::filesystem::file_size(path_), 4096u);
        std::filesystem::remove(other);
    };
    std::filesystem::create_symlink(path_, other);
    expectRefused(ELOOP);
    std::filesystem::create_hard_link(path_, other);
    expectRefused(EPERM);
}

}  // namespace
}  // namespace Pavo
