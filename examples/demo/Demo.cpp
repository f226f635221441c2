// The main job, shown: two agents in two network namespaces exchange ICMP echo over a wire of their
// own. Ends with 0 when every request was answered, by the agent and by the kernel.

#include <getopt.h>
#include <net/if.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <string>
#include <utility>

#include "Mox/EventLoop.h"
#include "Pavo/ScopedNetNs.h"
#include "demo/Capture.h"
#include "demo/ReceiveRates.h"
#include "echo/EchoRequester.h"
#include "echo/EchoResponder.h"
#include "sandbox/Sandbox.h"

namespace {

constexpr char usage[] =
    "usage: pavo-demo [--count N] [--interval MS] [--size BYTES] [--capture FILE]\n"
    "\n"
    "Makes two network namespaces, \"left\" and \"right\", joined by a wire. An agent in the left "
    "one\n"
    "sends ICMP echo requests; an agent in the right one answers them, and so does that "
    "namespace's\n"
    "kernel; over IPv4, then over IPv6 to one address and to a group. Then bursts of packets are "
    "read one a call and in batches, and both rates are shown.\n"
    "Runs in namespaces of its own: as root, or as a user who may make user namespaces.\n"
    "\n"
    "  --count N      requests to send, 1 to 10000 (5)\n"
    "  --interval MS  milliseconds from one to the next, 0 to 60000 (100)\n"
    "  --size BYTES   payload of a request, 0 to 1472 (56)\n"
    "  --capture FILE where to write the exchange, for tshark (pavo-demo.pcap)\n"
    "  --help         this text\n";

struct Options {
    uint16_t count = 5;
    double intervalSeconds = 0.1;
    uint32_t payloadBytes = 56;
    std::string capturePath = "pavo-demo.pcap";
};

// A whole number from `least` to `most`; anything else ends the program with the usage.
uint32_t numberIn(const char* name, const char* text, uint32_t least, uint32_t most) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || value < least || value > most) {
        std::fprintf(stderr, "pavo-demo: --%s takes a number from %u to %u, not \"%s\"\n\n%s", name,
                     least, most, text, usage);
        std::exit(2);
    }
    return static_cast<uint32_t>(value);
}

Options readOptions(int argc, char** argv) {
    static constexpr option known[] = {
        {"count", required_argument, nullptr, 'c'}, {"interval", required_argument, nullptr, 'i'},
        {"size", required_argument, nullptr, 's'},  {"capture", required_argument, nullptr, 'w'},
        {"help", no_argument, nullptr, 'h'},        {}};
    Options options;
    for (int each = 0; (each = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        switch (each) {
            case 'c':
                options.count = static_cast<uint16_t>(numberIn("count", optarg, 1, 10000));
                break;
            case 'i':
                options.intervalSeconds = numberIn("interval", optarg, 0, 60000) / 1000.0;
                break;
            case 's':
                options.payloadBytes = numberIn("size", optarg, 0, 1472);
                break;
            case 'w':
                options.capturePath = optarg;
                break;
            case 'h':
                std::fputs(usage, stdout);
                std::exit(0);
            default:
                std::fputs(usage, stderr);
                std::exit(2);
        }
    }
    if (optind != argc) {
        std::fprintf(stderr, "pavo-demo: unexpected \"%s\"\n\n%s", argv[optind], usage);
        std::exit(2);
    }
    return options;
}

const Pavo::IpAddr rightAddress(0xc0000202);  // 192.0.2.2, an address for documentation.

// An exchange: its two ends, and the width in which addresses are printed.
struct Round {
    const char* title;
    Pavo::IpGenAddr from;
    Pavo::IpGenAddr to;
    const char* ifName;
    int width;
};
const Round rounds[] = {
    {"IPv4, with headers that the agent makes", Pavo::IpAddr(0xc0000201), rightAddress, "", 11},
    {"IPv6, to a link-local address", Pavo::Ip6Addr(0xfe80000000000000, 1),
     Pavo::Ip6Addr(0xfe80000000000000, 2), "veth-left", 26},
    {"IPv6, to the group of all nodes", Pavo::Ip6Addr(0xfe80000000000000, 1), Pavo::ip6AddrAllNodes,
     "veth-left", 26},
};

// The name of an interface in a namespace, which has names and indices of its own. Looked up once,
// so that printing does not delay the packets that follow.
const std::string& interfaceName(const std::string& netNs, uint32_t index) {
    static std::map<std::pair<std::string, uint32_t>, std::string> known;
    const auto [it, isNew] = known.try_emplace({netNs, index}, "?");
    if (isNew) {
        const Pavo::ScopedNetNs inside(netNs.c_str());
        char name[IF_NAMESIZE];
        if (if_indextoname(index, name) != nullptr) {
            it->second = name;
        }
    }
    return it->second;
}

std::string text(const Pavo::IpGenAddr& address) {
    return address.stringValue().c_str();
}

void printRow(const Round& round, const char* what, const char* netNs, const Echo::Packet& packet) {
    std::printf("%4u  %-18s %-*s %-*s %-10s %4u  0x%02x %6u", packet.sequence, what, round.width,
                text(packet.from).c_str(), round.width, text(packet.to).c_str(),
                interfaceName(netNs, packet.ifIndex).c_str(), packet.ttl, packet.tos, packet.bytes);
}

void printCounters(const Pavo::RawIpPam& pam) {
    std::printf(
        "%-14s readable %u, writable %u, received %llu, empty or failed reads %u, sent %llu, "
        "send errors %u, drops %u\n",
        pam.name().c_str(), pam.readableCount(), pam.writableCount(),
        static_cast<unsigned long long>(pam.rxPktCount()), pam.rxErrors(),
        static_cast<unsigned long long>(pam.txPktCount()), pam.txErrors(), pam.txDrops());
}

// True when every request was answered twice.
bool exchange(const Options& options, const Round& round) {
    Mox::EventLoop loop;
    uint32_t byAgent = 0;
    uint32_t byKernel = 0;
    Mox::Timer giveUp(loop.clock(), [&loop] { loop.stop(); });
    const Echo::EchoResponder responder(round.to.af(), Pavo::NamespaceName("right"),
                                        [&round](const Echo::Packet& request) {
                                            printRow(round, "request, at right", "right", request);
                                            std::printf("\n");
                                        });
    const Echo::EchoRequester requester(
        {Pavo::NamespaceName("left"), round.from, round.to, round.ifName, options.count,
         options.intervalSeconds, options.payloadBytes},
        loop.clock(), [&](const Echo::Packet& answer, double seconds) {
            const bool agent = answer.ttl == Echo::EchoResponder::answerTtl;
            ++(agent ? byAgent : byKernel);
            printRow(round, agent ? "answer of agent" : "answer of kernel", "left", answer);
            std::printf(" %9.3f ms\n", seconds * 1000);
            if (byAgent == options.count && byKernel == options.count) {
                loop.stop();
            }
        });
    giveUp.expiryIs(loop.clock()->now() + options.count * options.intervalSeconds + 5);

    std::printf("%s:\n%4s  %-18s %-*s %-*s %-10s %4s  %4s %6s %12s\n", round.title, "seq", "packet",
                round.width, "from", round.width, "to", "interface", "TTL", "TOS", "bytes",
                "round trip");
    loop.run();

    std::printf("\n");
    printCounters(requester.pam());
    printCounters(responder.pam());
    std::printf("%u requests sent, %u answered by the agent, %u by the kernel\n\n",
                requester.sent(), byAgent, byKernel);
    return byAgent == options.count && byKernel == options.count;
}

void showReceiveRates() {
    const Mox::EventLoop loop;  // Endpoints want one, though nothing here waits for it.
    const Demo::ReceiveRates rates = Demo::measureReceiveRates(
        Pavo::NamespaceName("left"), Pavo::NamespaceName("right"), rightAddress);
    std::printf("reading bursts: %.0f packets/s one a call, %.0f packets/s in batches (%.2fx)\n",
                rates.single, rates.bulk, rates.bulk / rates.single);
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = readOptions(argc, argv);
    std::string why;
    if (!PavoSandbox::Sandbox::enter(&why)) {
        std::fprintf(stderr, "pavo-demo needs namespaces of its own and cannot have them: %s\n",
                     why.c_str());
        return 1;
    }
    try {
        PavoSandbox::makeWire();
        PavoSandbox::addWire6();
        std::printf("left: veth-left   <-- wire -->   right: veth-right\n");
        std::printf("The agent at right answers with TTL %u, its kernel with the system's TTL.\n\n",
                    Echo::EchoResponder::answerTtl);
        Demo::Capture capture("left", "veth-left");
        bool complete = true;
        for (const Round& round : rounds) {
            complete = exchange(options, round) && complete;
        }
        const unsigned captured = capture.write(options.capturePath);
        std::printf("%u frames of the left end of the wire are in %s\n\n", captured,
                    options.capturePath.c_str());
        showReceiveRates();
        return complete ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "pavo-demo: %s\n", error.what());
        return 1;
    }
}
