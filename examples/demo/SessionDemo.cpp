// A session over TCP, shown: two speakers in two network namespaces come up, move messages, and
// come back when one of them is restarted and when the wire between them is gone for a while. Ends
// with 0 when all of that was seen.

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

#include "Keel/TimerWheel.h"
#include "demo/Stage.h"
#include "sandbox/Sandbox.h"
#include "session/Speaker.h"

namespace {

constexpr uint32_t messages = 100000;
constexpr char usage[] =
    "usage: pavo-session-demo\n"
    "\n"
    "Makes two network namespaces, \"left\" and \"right\", joined by a wire, and in each a speaker "
    "of\n"
    "a small session protocol over TCP, MD5-signed and with TTL security. Shows how the session\n"
    "comes up, moves 100,000 messages, and survives the server's restart and the loss of the "
    "wire.\n"
    "Runs in namespaces of its own: as root, or as a user who may make user namespaces.\n";

class Show {
  public:
    Show()
        : wheel_(stage_.clock()),
          server_({2, 3}, {Pavo::NamespaceName("right"), right(), left(), port(), key()},
                  stage_.loop(), &wheel_,
                  [this](const std::string& line) { print("server", line); }),
          client_({1, 3}, {Pavo::NamespaceName("left"), left(), right(), port(), key()},
                  stage_.loop(), &wheel_,
                  [this](const std::string& line) { print("client", line); }) {}

    bool run() {
        return comesUp() && movesMessages() && survivesRestart() && survivesLossOfTheWire();
    }

  private:
    static Pavo::IpGenAddr left() { return Pavo::IpAddr(0xc0000201); }
    static Pavo::IpGenAddr right() { return Pavo::IpAddr(0xc0000202); }
    static Pavo::Port port() { return Pavo::Port(1790); }
    static Mox::String key() { return "a secret that both know"; }

    void print(const char* who, const std::string& line) const { stage_.print(who, line); }
    bool reaches(const char* what, double seconds, const std::function<bool()>& done) {
        return stage_.reaches(what, seconds, done);
    }
    bool bothEstablished() const { return client_.isEstablished() && server_.isEstablished(); }

    bool comesUp() {
        print("demo", "-- the session comes up");
        return reaches("a session", 5, [this] { return bothEstablished(); });
    }

    bool movesMessages() {
        print("demo", "-- the client sends " + std::to_string(messages) + " updates");
        const double start = stage_.elapsedSeconds();
        client_.updatesToSendInc(messages);
        if (!reaches("all updates", 30, [this] { return server_.updatesReceived() == messages; })) {
            return false;
        }
        const double seconds = stage_.elapsedSeconds() - start;
        print("server", "received " + std::to_string(server_.updatesReceived()) + " updates in " +
                            std::to_string(seconds) + " s, " +
                            std::to_string(static_cast<uint32_t>(messages / seconds)) +
                            " a second");
        return true;
    }

    // Signed connections are not refused but run into the void: a refusal would not be signed.
    bool survivesRestart() {
        print("demo", "-- the server is restarted");
        const uint32_t attempts = client_.status().connectionAttemptCount();
        server_.stop();
        const bool inVain = reaches("two attempts in vain", 10, [&] {
            return client_.status().connectionAttemptCount() >= attempts + 3;
        });
        server_.start();
        return inVain && reaches("the next session", 15, [this] { return bothEstablished(); });
    }

    bool survivesLossOfTheWire() {
        print("demo", "-- the wire is taken away");
        const uint32_t errors = client_.status().connectionErrorCount();
        PavoSandbox::cutWire();
        const bool noticed = reaches("three failed attempts", 20, [&] {
            return !server_.isEstablished() &&
                   client_.status().connectionErrorCount() >= errors + 3;
        });
        print("demo", "-- the wire is back");
        PavoSandbox::connectWire();
        return noticed && reaches("the last session", 20, [this] { return bothEstablished(); });
    }

    Demo::Stage stage_;
    Keel::TimerWheel wheel_;
    Session::ServerSpeaker server_;
    Session::ClientSpeaker client_;
};

}  // namespace

int main(int argc, char**) {
    if (argc > 1) {
        std::fputs(usage, stdout);
        return 2;
    }
    return Demo::inSandbox("pavo-session-demo", [] { return Show().run(); });
}
