// A BFD session with BIRD, shown: it comes up, notices within the detection time that the other
// side is stopped or killed, and comes up again. Ends with 0 when all of that was seen.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "bfd/BfdAgent.h"
#include "demo/Capture.h"
#include "demo/Stage.h"
#include "sandbox/Sandbox.h"

namespace {

using PavoSandbox::Daemon;

constexpr char usage[] =
    "usage: pavo-bfd-demo [MS [FILE]]\n"
    "\n"
    "Makes two network namespaces, \"left\" and \"right\", joined by a wire. The agent at left has "
    "a\n"
    "BFD session with BIRD (the package bird2) at right, with packets every 50 ms, of which three\n"
    "may be lost. Shows how it comes up, and how soon the agent notices that BIRD sends no more.\n"
    "Runs in namespaces of its own: as root, or as a user who may make user namespaces.\n"
    "\n"
    "  MS    how late that may be, in milliseconds (20)\n"
    "  FILE  where to write the exchange, for tshark\n";

constexpr char birdConfig[] =
    "router id 192.0.2.2;\n"
    "protocol device { }\n"
    "protocol bfd {\n"
    "  interface \"veth-right\" {\n"
    "    min rx interval 50 ms; min tx interval 50 ms; idle tx interval 300 ms; multiplier 3;\n"
    "  };\n"
    "  neighbor 192.0.2.1 dev \"veth-right\" local 192.0.2.2;\n"
    "}\n";
constexpr double detectionSeconds = 0.150;

class Show {
  public:
    explicit Show(double lateSeconds)
        : lateSeconds_(lateSeconds),
          agent_({Pavo::IpAddr("192.0.2.1"), Pavo::IpAddr("192.0.2.2"), "veth-left"},
                 {.localDiscr = 1},
                 {Pavo::udpPamFactory("bfdRx", Pavo::NamespaceName("left")),
                  Pavo::udpPamFactory("bfdTx", Pavo::NamespaceName("left"))},
                 stage_.clock()),
          state_(agent_.session(), Bfd::BfdSession::stateAttr, [this] { showState(); }) {
        std::ofstream("/run/bird.conf") << birdConfig;
    }

    bool run() {
        startBird();
        return comesUp() && survives("stopped", SIGSTOP, [this] { letBirdGoOn(); }) &&
               survives("killed", SIGKILL, [this] { startBird(); }) && goesAdminDown();
    }

  private:
    const Bfd::BfdSession& session() const { return *agent_.session(); }
    bool isUp() const { return session().state() == Bfd::State::up; }

    void startBird() {
        bird_.reset();
        stage_.print("demo", "-- BIRD is started at right");
        bird_.emplace("right",
                      std::vector<std::string>{"bird", "-f", "-c", "/run/bird.conf", "-s",
                                               "/run/bird.ctl", "-P", "/run/bird.pid"},
                      "/run/bird.log");
    }

    void showState() {
        std::string line = Mox::stringValue(session().state()).c_str();
        if (session().state() == Bfd::State::down) {
            silentSeconds_ = stage_.clock()->now() - session().lastRxSeconds();
            char reason[100];
            std::snprintf(reason, sizeof reason, ", %s, %.1f ms after the last packet",
                          Mox::stringValue(session().diag()).c_str(), silentSeconds_ * 1000);
            line += reason;
        }
        stage_.print("agent", line);
    }

    // What BIRD says of the session; nothing until it answers.
    std::string atBird() const {
        try {
            const std::string text =
                PavoSandbox::run({"birdc", "-s", "/run/bird.ctl", "show", "bfd", "sessions"});
            const size_t at = text.find("192.0.2.1");
            return at == std::string::npos ? "" : text.substr(at, text.find('\n', at) - at);
        } catch (const std::runtime_error&) {
            return "";
        }
    }
    bool showsAtBird(const char* state) {
        return stage_.reaches("BIRD's state", 10, [&] {
            const std::string line = atBird();
            const bool isThere = line.find(state) != std::string::npos;
            if (isThere) {
                stage_.print("BIRD", line);
            }
            return isThere;
        });
    }

    bool comesUp() {
        const bool agreed = stage_.reaches("a session", 20, [this] {
            return isUp() && !session().isPolling() &&
                   session().detectionSeconds() == detectionSeconds;
        });
        if (agreed) {
            char line[100];
            std::snprintf(line, sizeof line, "agreed: a packet every %.3f s, detection time %.3f s",
                          session().txIntervalSeconds(), session().detectionSeconds());
            stage_.print("agent", line);
        }
        return agreed && showsAtBird("Up");
    }

    void letBirdGoOn() {
        stage_.print("demo", "-- BIRD goes on");
        bird_->signalIs(SIGCONT);
    }

    // Again where the machine was so busy that BIRD had missed packets before.
    bool survives(const char* what, int signal, const std::function<void()>& revive) {
        for (int tries = 0; tries < 10; ++tries) {
            stage_.print("demo", std::string("-- BIRD is ") + what);
            bird_->signalIs(signal);
            if (!stage_.reaches("the end of the session", 5, [this] { return !isUp(); })) {
                return false;
            }
            const bool isExpired = session().diag() == Bfd::Diag::timeExpired;
            const bool isInTime = silentSeconds_ >= detectionSeconds - 1e-6 &&
                                  silentSeconds_ <= detectionSeconds + lateSeconds_;
            revive();
            if (!comesUp() || isExpired) {
                return isUp() && isInTime;
            }
        }
        return false;
    }

    bool goesAdminDown() {
        stage_.print("demo", "-- the agent takes the session down");
        agent_.session()->isAdminDownIs(true);
        return showsAtBird("Down");
    }

    Demo::Stage stage_;
    const double lateSeconds_;
    double silentSeconds_ = 0;  // Before the session went down.
    Bfd::BfdAgent agent_;
    Mox::Watch<Bfd::BfdSession> state_;
    std::optional<Daemon> bird_;
};

}  // namespace

int main(int argc, char** argv) {
    const int lateMs = argc > 1 ? std::atoi(argv[1]) : 20;
    if (argc > 3 || lateMs <= 0) {
        std::fputs(usage, stderr);
        return 2;
    }
    return Demo::inSandbox("pavo-bfd-demo", [&] {
        std::optional<Demo::Capture> capture;
        if (argc > 2) {
            capture.emplace("left", "veth-left");
        }
        const bool seen = Show(lateMs / 1000.0).run();
        if (capture) {
            capture->write(argv[2]);
        }
        if (!seen) {
            std::fputs(PavoSandbox::run({"cat", "/run/bird.log"}).c_str(), stderr);
        }
        return seen;
    });
}
