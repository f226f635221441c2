// LLDP with lldpd, shown: each side shows the other one as its neighbour, ages it out or removes it
// when it stops. Ends with 0 when all of that was seen.

#include <sys/stat.h>
#include <sys/utsname.h>

#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "demo/Capture.h"
#include "demo/Stage.h"
#include "lldp/LldpAgent.h"
#include "sandbox/Sandbox.h"

namespace {

using Lldp::printable;
using PavoSandbox::Daemon;

constexpr char usage[] =
    "usage: pavo-lldp-demo [FILE]\n"
    "\n"
    "Makes two network namespaces, \"left\" and \"right\", joined by a wire. The agent at left "
    "and\n"
    "lldpd (the package of that name) at right are neighbours. Shows how each of them sees the\n"
    "other, and how it notices that the other one has stopped.\n"
    "Runs in namespaces of its own, as root.\n"
    "\n"
    "  FILE  where to write the exchange, for tshark\n";

constexpr char controlSocket[] = "/run/lldpd.ctl";

Lldp::AgentConfig configOf(const Pavo::EthDevPam& pam) {
    utsname system = {};
    uname(&system);
    Lldp::Pdu own;
    for (unsigned i = 0; i < 6; ++i) {
        own.key.chassis.bytes.push_back(static_cast<char>(pam.ethAddr().byte(i)));
    }
    own.key.chassis.subtype = Lldp::chassisMac;
    own.key.port = {Lldp::portInterfaceName, "veth-left"};
    own.portDescription = "left end of the wire";
    own.systemName = "pavo-lldp";
    own.systemDescription = std::string(system.sysname) + " " + system.release;
    own.capabilities = Lldp::router | Lldp::station;
    own.enabledCapabilities = Lldp::station;
    own.managementAddresses = {Pavo::IpAddr("192.0.2.1"), Pavo::Ip6Addr("2001:db8::1")};
    return {pam.ethAddr(), own};
}

class Show {
  public:
    bool run() {
        startLldpd();
        return isSeenByAgent() && isSeenByLldpd() && agesOut() && comesBack() && stops() &&
               isNotified();
    }

  private:
    void startLldpd() {
        stage_.print("demo", "-- lldpd is started at right");
        mkdir("/run/lldpd", 0755);  // It takes this directory as its root.
        lldpd_.emplace(
            "right",
            std::vector<std::string>{"lldpd", "-d", "-u", controlSocket, "-p", "/run/lldpd.pid",
                                     "-O", "/dev/null", "-C", "veth-right", "-I", "veth-right"},
            "/run/lldpd.log");
    }
    // What lldpd answers; nothing until it does.
    static std::string atLldpd(std::vector<std::string> question) {
        question.insert(question.begin(), {"lldpcli", "-u", controlSocket});
        try {
            return PavoSandbox::run(question);
        } catch (const std::runtime_error&) {
            return "";
        }
    }
    bool showsAtLldpd(bool isThere) {
        return stage_.reaches("lldpd's neighbours", 20, [&] {
            const std::string text = atLldpd({"show", "neighbors", "-f", "json"});
            const bool isShown = text.find("\"pavo-lldp\"") != std::string::npos;
            if (text.empty() || isShown != isThere) {
                return false;
            }
            stage_.print("lldpd", isThere ? "sees the agent" : "sees nobody");
            if (!isShown_) {
                std::printf("%s\n", text.c_str());
            }
            isShown_ = true;
            return true;
        });
    }

    void showNeighbour(const Lldp::Key& key) {
        const Lldp::Pdu* const pdu = agent_.table()->neighbour(key);
        const std::string port = printable(key.chassis, Lldp::chassisMac) + ", port " +
                                 printable(key.port, Lldp::portMac);
        if (pdu == nullptr) {
            stage_.print("agent", "gone: " + port);
            return;
        }
        std::string line = port + " (" + printable(pdu->portDescription) + "), system " +
                           printable(pdu->systemName) + ", " +
                           (pdu->enabledCapabilities & Lldp::router ? "router" : "no router") +
                           ", valid for " + std::to_string(pdu->ttlSeconds) + " s";
        for (const Pavo::IpGenAddr& address : pdu->managementAddresses) {
            line += std::string(", ") + address.stringValue().c_str();
        }
        stage_.print("agent", line);
        stage_.print("agent", "    " + printable(pdu->systemDescription));
    }

    uint32_t neighbours() const { return agent_.table()->neighbour().members(); }

    bool isSeenByAgent() {
        return stage_.reaches("lldpd as a neighbour", 20, [this] { return neighbours() == 1; });
    }

    // From then on it sends each second what is valid for two.
    bool isSeenByLldpd() {
        return showsAtLldpd(true) && stage_.reaches("lldpd's answer", 10, [] {
            return !atLldpd({"configure", "lldp", "tx-hold", "2"}).empty() &&
                   !atLldpd({"configure", "lldp", "tx-interval", "1"}).empty();
        }) && stage_.reaches("a shorter time to live", 10, [this] {
            return agent_.table()->neighbour().begin()->second.ttlSeconds == 2;
        });
    }

    bool agesOut() {
        stage_.print("demo", "-- the wire is interrupted");
        PavoSandbox::run({"ip", "-n", "right", "link", "set", "veth-right", "down"});
        return stage_.reaches("an empty table", 10, [this] { return neighbours() == 0; });
    }

    bool comesBack() {
        stage_.print("demo", "-- the wire is back");
        PavoSandbox::setUp("right", "veth-right");
        return isSeenByAgent() && showsAtLldpd(true);
    }

    // What the agent has sent is valid for two minutes, but it says that it stops.
    bool stops() {
        stage_.print("demo", "-- the agent stops");
        agent_.stop();
        return showsAtLldpd(false);
    }

    // So does lldpd, which notices that its parent process is gone.
    bool isNotified() {
        stage_.print("demo", "-- lldpd is killed");
        lldpd_.reset();
        return stage_.reaches("an empty table", 10, [this] { return neighbours() == 0; });
    }

    Demo::Stage stage_;
    const Mox::Ptr<Pavo::EthDevPam> pam_ =
        Lldp::newEndpoint(Pavo::NamespaceName("left"), "veth-left");
    Lldp::LldpAgent agent_{configOf(*pam_), pam_, stage_.clock()};
    Mox::Watch<Lldp::NeighbourTable> table_{agent_.table(), Lldp::NeighbourTable::neighbourAttr,
                                            [this](const Lldp::Key& key) { showNeighbour(key); }};
    std::optional<Daemon> lldpd_;
    bool isShown_ = false;  // What lldpd answers, once.
};

}  // namespace

int main(int argc, char** argv) {
    if (argc > 2) {
        std::fputs(usage, stderr);
        return 2;
    }
    return Demo::inSandbox("pavo-lldp-demo", [&] {
        std::optional<Demo::Capture> capture;
        if (argc > 1) {
            capture.emplace("left", "veth-left");
        }
        const bool seen = Show().run();
        if (capture) {
            capture->write(argv[1]);
        }
        if (!seen) {
            std::fputs(PavoSandbox::run({"cat", "/run/lldpd.log"}).c_str(), stderr);
        }
        return seen;
    });
}
