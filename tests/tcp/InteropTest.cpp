// Our ends of TCP connections against Python's, and our checksums against tshark's, over a wire
// whose ends compute no checksums for the kernel.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Pavo/Ip6Hdr.h"
#include "Pavo/IpHdr.h"
#include "Pavo/SocketAt.h"
#include "Pavo/TcpHdr.h"
#include "Pavo/TcpPduPam.h"
#include "Pavo/UdpHdr.h"
#include "demo/Capture.h"
#include "tcp/TcpMachines.h"

namespace Pavo {
namespace {

constexpr uint32_t etherBytes = 14;

// Sends the messages as soon as it is connected, and takes what comes back.
class Exchange {
  public:
    Exchange(Mox::Ptr<TcpFileDescriptor> stream, std::vector<uint16_t> sizes)
        : pam_(simpleTcpPduPamFactory(std::move(stream),
                                      tcpFileDescriptorEventRegistrationFactoryMoxcFactory())),
          readable_(pam_, Pam::readableCountAttr, [this] { take(); }) {
        pam_->enableModeIs(tcpEnableModeReadWrite);
        for (const uint16_t size : sizes) {
            const Mox::Ptr<Pkt> pkt = globalPktManager()->newPkt();
            uint8_t* bytes = pkt->newSharedHeadData(size);
            for (uint32_t i = 0; i < size; ++i) {
                bytes[i] = static_cast<uint8_t>(i * size);
            }
            bytes[2] = static_cast<uint8_t>(size >> 8);
            bytes[3] = static_cast<uint8_t>(size);
            sent_ += std::string(reinterpret_cast<char*>(bytes), size);
            pam_->txPktIs(pkt);
        }
    }

    bool isComplete() const { return taken_.size() >= sent_.size(); }
    const std::string& sent() const { return sent_; }
    const std::string& taken() const { return taken_; }

  private:
    void take() {
        if (const Mox::Ptr<Pkt> pkt = pam_->rxPkt()) {
            taken_ += std::string(reinterpret_cast<char*>(pkt->frontData()), pkt->totalBytes());
        }
    }

    Mox::Ptr<SimpleTcpPduPam> pam_;
    std::string sent_;
    std::string taken_;
    Mox::Watch<SimpleTcpPduPam> readable_;
};

// A program of Python in a namespace; it says a line when it is ready, and its exit status is 0
// when it saw what it should.
class PythonProgram {
  public:
    PythonProgram(const std::string& netNs, const std::string& text)
        : file_(popen(("ip netns exec " + netNs + " python3 -c '" + text + "'").c_str(), "r")) {
        char line[100];
        EXPECT_NE(fgets(line, sizeof(line), file_), nullptr);
    }
    ~PythonProgram() { EXPECT_EQ(pclose(file_), 0); }

  private:
    FILE* file_;
};

const std::string echoServer = R"(
import socket
server = socket.create_server((HOST, 1790), family=FAMILY)
print("ready", flush=True)
peer = server.accept()[0]
left = TOTAL
while left:
    data = peer.recv(700)
    left -= len(data)
    peer.sendall(data)
datagrams = socket.socket(FAMILY, socket.SOCK_DGRAM)
for size in range(8):
    datagrams.sendto(bytes(range(size)), (PEER, 1791))
)";

const std::string echoClient = R"(
import socket, struct
peer = socket.create_connection((PEER, 1792), timeout=20)
print("ready", flush=True)
sent = b"".join(struct.pack("!HH", 0, 20 + n) + bytes(n + 16) for n in (0, 1, 300))
for at in range(len(sent)):
    peer.sendall(sent[at:at + 1])
taken = b""
while len(taken) < len(sent):
    taken += peer.recv(700)
assert taken == sent
)";

std::string script(std::string text, bool v6) {
    const std::pair<std::string, std::string> words[] = {
        {"HOST", v6 ? "\"2001:db8::2\"" : "\"192.0.2.2\""},
        {"PEER", v6 ? "\"2001:db8::1\"" : "\"192.0.2.1\""},
        {"FAMILY", v6 ? "socket.AF_INET6" : "socket.AF_INET"},
        {"TOTAL", "5641"}};
    for (const auto& [word, value] : words) {
        for (size_t at = 0; (at = text.find(word, at)) != std::string::npos; at += value.size()) {
            if (text.compare(at - 1, word.size() + 1, "_" + word) != 0) {
                text.replace(at, word.size(), value);
            }
        }
    }
    return text;
}

// Lets the kernel compute every checksum before the capture sees the packet.
void switchOffloadOff(const char* netNs, const char* device) {
    const int fd = socketAt(AF_INET, SOCK_DGRAM, 0, netNs);
    for (const uint32_t command : {ETHTOOL_STXCSUM, ETHTOOL_STSO, ETHTOOL_SGSO}) {
        ethtool_value off{command, 0};
        ifreq request{};
        std::strcpy(request.ifr_name, device);
        request.ifr_data = reinterpret_cast<char*>(&off);
        (void)ioctl(fd, SIOCETHTOOL, &request);  // Some devices lack some; the capture tells.
    }
    close(fd);
}

// What our functions say of a frame's TCP or UDP checksum; '-' for a frame with neither.
char verdict(const Mox::Ptr<Pkt>& frame) {
    frame->delSharedHeadData(etherBytes);
    const auto ip = tryIpHdr(frame, 0);
    const auto ip6 = ip ? nullptr : tryIp6Hdr(frame, 0);
    if (!ip && !ip6) {
        return '-';
    }
    const auto protocol = ip ? ip->protocolNum() : static_cast<IpProtocolNumber>(ip6->nextHeader());
    const uint32_t offset = ip ? ip->headerBytes() : sizeof(Ip6Hdr);
    const uint16_t bytes = ip ? ip->payloadLen() : ip6->payloadLen();
    const auto judge = [&](auto wrapper, const auto& header, uint16_t good, auto compute) {
        wrapper->srcIs(header->src());
        wrapper->dstIs(header->dst());
        return compute(*wrapper) == good ? '1' : '0';
    };
    const auto plain = [](const auto& wrapper) { return wrapper.computedChecksum(); };
    if (protocol == IpProtocolNumber::tcp && ip) {
        const auto tcp = tcpHdrWrapperFactory(frame, offset);
        tcp->tcpLenIs(bytes);
        return judge(tcp, ip, 0, plain);
    }
    if (protocol == IpProtocolNumber::tcp) {
        const auto tcp = tcpHdrWrapperIpv6Factory(frame, offset);
        tcp->tcpLenIs(bytes);
        return judge(tcp, ip6, 0,
                     [](const auto& wrapper) { return wrapper.computedChecksumRfc8200(); });
    }
    if (protocol == IpProtocolNumber::udp) {
        return ip ? judge(udpHdrWrapperFactory(frame, offset), ip, 0xffff, plain)
                  : judge(udpHdrWrapperIpv6Factory(frame, offset), ip6, 0xffff, plain);
    }
    return '-';
}

// The bytes of a pcap file, and where its frames lie. Read by hand: libpcap's own record header has
// another layout in a 32-bit program whose times are 64 bits wide.
struct PcapFile {
    explicit PcapFile(const std::string& path) : image(std::filesystem::file_size(path), '\0') {
        FILE* file = fopen(path.c_str(), "r");
        EXPECT_EQ(fread(image.data(), 1, image.size(), file), image.size());
        fclose(file);
        constexpr size_t fileHeader = 24;
        constexpr size_t frameHeader = 16;
        for (size_t at = fileHeader; at < image.size();) {
            uint32_t bytes = 0;
            std::memcpy(&bytes, &image[at + 8], sizeof(bytes));
            at += frameHeader;
            frames.push_back(std::string_view(image).substr(at, bytes));
            at += bytes;
        }
    }

    std::string image;
    std::vector<std::string_view> frames;
};

// Both have a character a frame.
std::string ourVerdicts(const std::string& path) {
    const PcapFile file(path);
    std::string all;
    for (const std::string_view bytes : file.frames) {
        const Mox::Ptr<Pkt> frame = globalPktManager()->newPkt();
        std::memcpy(frame->newSharedTailData(static_cast<uint32_t>(bytes.size())), bytes.data(),
                    bytes.size());
        all += verdict(frame);
    }
    return all;
}

std::string tsharksVerdicts(const std::string& path) {
    std::istringstream lines(PavoSandbox::run(
        {"tshark", "-r", path, "-o", "tcp.check_checksum:TRUE", "-o", "udp.check_checksum:TRUE",
         "-T", "fields", "-E", "separator=,", "-e", "frame.number", "-e", "tcp.checksum.status",
         "-e", "udp.checksum.status"}));
    std::string all;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && isdigit(line[0]) != 0) {  // Else a word about running as root.
            const size_t at = line.find_last_of("01");
            all += at != std::string::npos && at > line.find(',') ? line[at] : '-';
        }
    }
    return all;
}

// Breaks a byte in the first good frame of a protocol over IPv4; gives the frame's number.
size_t breakOne(const std::string& path, const std::string& verdicts, uint8_t protocol) {
    const PcapFile file(path);
    constexpr size_t broken = etherBytes + sizeof(IpHdr) + 7;
    size_t number = 0;
    while (verdicts[number] != '1' ||
           file.frames[number].substr(12, 2) != std::string_view("\x08\0", 2) ||
           static_cast<uint8_t>(file.frames[number][23]) != protocol) {
        ++number;
    }
    FILE* out = fopen(path.c_str(), "r+");
    fseek(out, static_cast<long>(file.frames[number].data() - file.image.data() + broken),
          SEEK_SET);
    fputc(file.frames[number][broken] ^ 0x10, out);
    fclose(out);
    return number;
}

class TcpInteropTest : public PavoTest::WireTest {
  protected:
    void SetUp() override {
        WireTest::SetUp();
        if (!IsSkipped()) {
            switchOffloadOff("left", "veth-left");
            switchOffloadOff("right", "veth-right");
            // Somebody to send datagrams to, so that no error comes back.
            const int any = socketAt(AF_INET6, SOCK_DGRAM, 0, "left");
            sockaddr_in6 name{};
            name.sin6_family = AF_INET6;
            name.sin6_port = htons(1791);
            EXPECT_EQ(bind(any, reinterpret_cast<sockaddr*>(&name), sizeof(name)), 0);
            datagrams_ = Mox::fileDescriptorFactory(any);
        }
    }

    void connectToPython(bool v6) {
        SCOPED_TRACE(v6);
        const PythonProgram server("right", script(echoServer, v6));
        const PavoTest::TestClient client(byLoop_.ptr(), &wheel_, v6 ? "2001:db8::2" : "192.0.2.2",
                                          1790);
        client.config->networkNamespaceIs(NamespaceName("left"));
        client.sm->startConnection();
        ASSERT_TRUE(turnUntil([&] { return bool(client.status->connSocket()); }))
            << client.summary();
        const Exchange exchange(client.status->connSocket().fileDescriptor(), {20, 21, 600, 5000});
        EXPECT_TRUE(turnUntil([&] { return exchange.isComplete(); }));
        EXPECT_EQ(exchange.taken(), exchange.sent());
    }

    void servePython() {
        const PavoTest::TestServer server(byLoop_.ptr(), &wheel_, "192.0.2.1", 1792);
        server.config->networkNamespaceIs(NamespaceName("left"));
        ASSERT_TRUE(server.sm->startListener());
        const PythonProgram client("right", script(echoClient, false));
        ASSERT_TRUE(turnUntil([&] { return server.status->connSocketMembers() == 1; }));
        const auto pam =
            simpleTcpPduPamFactory(server.status->getConnSocket().fileDescriptor(), byLoop_.ptr());
        uint32_t messages = 0;
        const Mox::Watch<SimpleTcpPduPam> readable(pam, Pam::readableCountAttr, [&] {
            if (const Mox::Ptr<Pkt> pkt = pam->rxPkt()) {
                ++messages;
                pam->txPktIs(pkt);
            }
        });
        pam->enableModeIs(tcpEnableModeReadWrite);
        EXPECT_TRUE(turnUntil([&] { return messages == 3; }));
    }

    Mox::Ptr<Mox::FileDescriptor> datagrams_;
};

TEST_F(TcpInteropTest, TalksWithPythonAndAgreesWithTsharkAboutEveryChecksum) {
    Demo::Capture capture("left", "veth-left");
    connectToPython(/*v6=*/false);
    connectToPython(/*v6=*/true);
    servePython();
    const std::string path = std::filesystem::temp_directory_path() /
                             ("pavo-interop-" + std::to_string(getpid()) + ".pcap");
    ASSERT_GT(capture.write(path), 30u);

    std::string verdicts = ourVerdicts(path);
    EXPECT_EQ(verdicts.find('0'), std::string::npos) << verdicts;
    EXPECT_EQ(verdicts, tsharksVerdicts(path));
    for (const uint8_t protocol : {uint8_t{IPPROTO_TCP}, uint8_t{IPPROTO_UDP}}) {
        verdicts[breakOne(path, verdicts, protocol)] = '0';
        EXPECT_EQ(verdicts, ourVerdicts(path));
        EXPECT_EQ(verdicts, tsharksVerdicts(path));
    }
    std::filesystem::remove(path);
}

}  // namespace
}  // namespace Pavo
