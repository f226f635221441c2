// TCP connections between the machines of this library and programs of Python.

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Pavo/TcpPduPam.h"
#include "tcp/TcpMachines.h"

namespace Pavo {
namespace {

// Sends messages of the given sizes, and receives what comes back.
class Exchange {
  public:
    Exchange(Mox::Ptr<TcpFileDescriptor> stream, std::vector<uint16_t> sizes)
        : pam_(simpleTcpPduPamFactory(std::move(stream),
                                      tcpFileDescriptorEventRegistrationFactoryMoxcFactory())),
          readable_(pam_, Pam::readableCountAttr, [this] { receive(); }) {
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

    bool isComplete() const { return received_.size() >= sent_.size(); }
    const std::string& sent() const { return sent_; }
    const std::string& received() const { return received_; }

  private:
    void receive() {
        if (const Mox::Ptr<Pkt> pkt = pam_->rxPkt()) {
            received_ += std::string(reinterpret_cast<char*>(pkt->frontData()), pkt->totalBytes());
        }
    }

    Mox::Ptr<SimpleTcpPduPam> pam_;
    std::string sent_;
    std::string received_;
    Mox::Watch<SimpleTcpPduPam> readable_;
};

// A Python program in a namespace. It prints a line when it is ready; its exit status is 0 when it
// received what it expects.
class PythonProgram {
  public:
    PythonProgram(const std::string& netNs, const std::string& text, const std::string& arguments)
        : file_(
              popen(("ip netns exec " + netNs + " python3 -c '" + text + "' " + arguments).c_str(),
                    "r")) {
        char line[100];
        EXPECT_NE(fgets(line, sizeof(line), file_), nullptr);
    }
    ~PythonProgram() { EXPECT_EQ(pclose(file_), 0); }

  private:
    FILE* file_;
};

// Arguments: the address to listen on and the number of bytes to expect.
const std::string echoServer = R"(
import socket, sys
family = socket.AF_INET6 if ":" in sys.argv[1] else socket.AF_INET
server = socket.create_server((sys.argv[1], 1790), family=family)
print("ready", flush=True)
peer = server.accept()[0]
left = int(sys.argv[2])
while left:
    data = peer.recv(700)
    left -= len(data)
    peer.sendall(data)
)";

// Argument: the address to connect to. Sends byte by byte.
const std::string echoClient = R"(
import socket, struct, sys
peer = socket.create_connection((sys.argv[1], 1792), timeout=20)
print("ready", flush=True)
sent = b"".join(struct.pack("!HH", 0, 20 + n) + bytes(n + 16) for n in (0, 1, 300))
for at in range(len(sent)):
    peer.sendall(sent[at:at + 1])
received = b""
while len(received) < len(sent):
    received += peer.recv(700)
assert received == sent
)";

class TcpInteropTest : public PavoTest::WireTest {};

TEST_F(TcpInteropTest, ExchangesMessagesWithAPythonServer) {
    for (const char* address : {"192.0.2.2", "2001:db8::2"}) {
        SCOPED_TRACE(address);
        const std::vector<uint16_t> sizes = {20, 21, 600, 5000};
        const PythonProgram server("right", echoServer, address + std::string(" 5641"));
        const PavoTest::TestClient client(byLoop_.ptr(), &wheel_, address, 1790);
        client.config->networkNamespaceIs(NamespaceName("left"));
        client.sm->startConnection();
        ASSERT_TRUE(turnUntil([&] { return bool(client.status->connSocket()); }))
            << client.summary();
        const Exchange exchange(client.status->connSocket().fileDescriptor(), sizes);
        EXPECT_TRUE(turnUntil([&] { return exchange.isComplete(); }));
        EXPECT_EQ(exchange.received(), exchange.sent());
    }
}

TEST_F(TcpInteropTest, ExchangesMessagesWithAPythonClient) {
    const PavoTest::TestServer server(byLoop_.ptr(), &wheel_, "192.0.2.1", 1792);
    server.config->networkNamespaceIs(NamespaceName("left"));
    ASSERT_TRUE(server.sm->startListener());
    const PythonProgram client("right", echoClient, "192.0.2.1");
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

}  // namespace
}  // namespace Pavo
