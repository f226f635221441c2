// A host in user space, shown: the kernel of a namespace pings it over a tap device, over IPv4 and
// IPv6, and sends it datagrams that come back. Ends with 0 when everything was answered.

#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "Mox/EventLoop.h"
#include "Pavo/Literals.h"
#include "Pavo/ScopedNetNs.h"
#include "Pavo/TapPam.h"
#include "Pavo/UdpPam.h"
#include "host/Host.h"
#include "sandbox/Sandbox.h"

namespace {

using namespace Pavo::literals;

constexpr char usage[] =
    "usage: pavo-host-demo\n"
    "\n"
    "Makes a network namespace with a tap device in it, and at the other end of the device a "
    "small\n"
    "host in this program. The kernel of the namespace resolves the host's addresses, pings them\n"
    "with ping(8), and sends datagrams, which the host sends back.\n"
    "Runs in namespaces of its own: as root, or as a user who may make user namespaces.\n";

const Host::Config config{
    .mac = "02:00:5e:00:53:01"_mac, .ip = "192.0.2.2"_ip, .ip6 = "2001:db8::2"_ip6};

class Show {
  public:
    Show() : tap_(Pavo::tapPamFactory("host", "tap0", Pavo::NamespaceName("left"))) {
        tap_->enabledIs(true);
        PavoSandbox::addAddress("left", "tap0", "192.0.2.1/24");
        PavoSandbox::addAddress("left", "tap0", "2001:db8::1/64");
        std::printf("left: kernel, 192.0.2.1, 2001:db8::1   <-- %s -->   host, %s, %s\n\n",
                    tap_->ifName().c_str(), text(config.ip).c_str(), text(config.ip6).c_str());
    }

    bool run() {
        const bool isPinged = pings("192.0.2.2") && pings("2001:db8::2");
        const bool isEchoed = echoes(config.ip) && echoes(config.ip6);
        std::printf("%s", inLeft({"ip", "neigh", "show", "dev", "tap0"}).c_str());
        std::printf(
            "\nthe host answered: ARP %u, ICMP %u, ICMPv6 %u, UDP %u; ignored %llu frames\n",
            host_.answers("arp"), host_.answers("icmp"), host_.answers("icmp6"),
            host_.answers("udp"), static_cast<unsigned long long>(host_.ignored()));
        return isPinged && isEchoed;
    }

  private:
    template <class Value>
    static std::string text(const Value& value) {
        return std::string(value.stringValue().view());
    }

    // What a program in the namespace prints; the loop turns until it ends.
    std::string inLeft(const std::vector<std::string>& command) {
        std::string output;
        std::thread runner([&] {
            try {
                const Pavo::ScopedNetNs inside("left");
                output = PavoSandbox::run(command);
            } catch (const std::exception& error) {  // The program failed; the text has its output.
                output = error.what();
            }
            loop_.post([this] { loop_.stop(); });
        });
        loop_.run();
        runner.join();
        return output;
    }

    bool pings(const std::string& address) {
        const std::string output =
            inLeft({"ping", "-c", "5", "-i", "0.2", "-W", "2", "-s", "1400", address});
        std::printf("%s\n", output.c_str());
        return output.find(" 0% packet loss") != std::string::npos;
    }

    // Through the namespace's UDP, which drops what has a wrong checksum.
    bool echoes(const Pavo::IpGenAddr& address) {
        const auto client = Pavo::udpPamFactory("client", Pavo::NamespaceName("left"));
        client->modeIs(Pavo::UdpPam::Mode::client);
        client->remoteIs({address, Pavo::Port(7)});
        client->enabledIs(true);
        uint32_t received = 0;
        for (uint32_t sent = 0; sent < count; ++sent) {
            const auto pkt = Pavo::globalPktManager()->newPkt();
            pkt->stringValueIs("datagram " + std::to_string(sent), /*atTail=*/true);
            const Mox::String expected = pkt->stringValue();
            client->txPktIs(pkt);
            Mox::Ptr<Pavo::Pkt> answer;
            for (int turns = 0; turns < 100 && !answer; ++turns) {
                loop_.turn(/*timeoutSeconds=*/0.02);
                answer = client->rxPkt();
            }
            received += answer && answer->stringValue() == expected ? 1 : 0;
        }
        std::printf("%u datagrams to %s, %u came back\n", count, text(address).c_str(), received);
        return received == count;
    }

    static constexpr uint32_t count = 100;

    Mox::EventLoop loop_;
    Mox::Ptr<Pavo::TapPam> tap_;
    Host::Host host_{config, tap_, loop_.clock()};
};

}  // namespace

int main(int argc, char**) {
    if (argc > 1) {
        std::fputs(usage, stdout);
        return 2;
    }
    std::string why;
    if (!PavoSandbox::Sandbox::enter(&why)) {
        std::fprintf(stderr,
                     "pavo-host-demo needs namespaces of its own and cannot have them: %s\n",
                     why.c_str());
        return 1;
    }
    try {
        PavoSandbox::makeNetns("left");
        return Show().run() ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "pavo-host-demo: %s\n", error.what());
        return 1;
    }
}
