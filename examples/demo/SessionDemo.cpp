// A session over TCP, shown: two speakers in two network namespaces say why they do not come up,
// come up, move messages, and come back when one of them is restarted and when the wire between
// them is gone for a while. Ends with 0 when all of that was seen.

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>

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
    "a small session protocol over TCP, MD5-signed and with TTL security. Shows what the speakers\n"
    "say of a missing listener, of keys and TTLs that do not fit, how the session comes up, moves\n"
    "100,000 messages, and survives the server's restart and the loss of the wire.\n"
    "Runs in namespaces of its own: as root, or as a user who may make user namespaces.\n";

class Show {
  public:
    Show()
        : wheel_(stage_.clock()),
          server_({2, 3}, Pavo::NamespaceName("right"), &wheel_,
                  [this](const std::string& line) { print("server", line); }),
          client_({1, 3}, Pavo::NamespaceName("left"), &wheel_,
                  [this](const std::string& line) { print("client", line); }) {}

    bool run() {
        return saysWhyNot() && comesUp() && movesMessages() && survivesRestart() &&
               survivesLossOfTheWire();
    }

  private:
    static Pavo::IpGenAddr left() { return Pavo::IpAddr(0xc0000201); }
    static Pavo::IpGenAddr right() { return Pavo::IpAddr(0xc0000202); }
    static Pavo::Port port() { return Pavo::Port(1790); }
    // The kernel finds a dead peer of an idle connection, and the hold timer finds it in any case.
    static Pavo::TcpPeerConfig config(const Pavo::IpGenAddr& peer, Pavo::TcpPeerMode mode) {
        return {.address = peer,
                .port = port(),
                .localAddress = peer == left() ? right() : left(),
                .mode = mode,
                .md5Key = "a secret that both know",
                .minTtl = Pavo::IpTtl(255),
                .connectRetrySeconds = 0.5,
                .connectRetryMaxSeconds = 4,
                .minUpSeconds = 2,
                .connectTimeoutSeconds = 2,
                .keepalive = {1, 1, 2}};
    }

    void print(const char* who, const std::string& line) const { stage_.print(who, line); }
    bool reaches(const char* what, double seconds, const std::function<bool()>& done) {
        return stage_.reaches(what, seconds, done);
    }
    bool bothEstablished() const { return client_.isEstablished() && server_.isEstablished(); }
    void startServer() {
        server_.peerIs(config(left(), Pavo::TcpPeerMode::passive));
        server_.listenIs(right(), port());
    }
    // Whether the client, in a configuration that was spoilt, gives a reason.
    bool fails(const char* title, const char* reason,
               const std::function<void(Pavo::TcpPeerConfig& config)>& spoil) {
        print("demo", std::string("-- ") + title);
        auto wrong = config(right(), Pavo::TcpPeerMode::active);
        spoil(wrong);
        client_.peerIs(wrong);
        return reaches(reason, 5, [&] {
            const auto peer = client_.peering().peer(right());
            return peer->state() == Pavo::TcpPeer::State::backingOff &&
                   std::string_view(peer->reason()).find(reason) != std::string_view::npos;
        });
    }

    bool saysWhyNot() {
        const auto nothing = [](Pavo::TcpPeerConfig&) {};
        const auto noKey = [](Pavo::TcpPeerConfig& config) { config.md5Key = ""; };
        if (!fails("nobody listens; without key and TTL the refusal is seen", "Connection refused",
                   [](Pavo::TcpPeerConfig& config) {
                       config.md5Key = "";
                       config.minTtl = Pavo::IpTtl(0);
                   }) ||
            !fails("nobody listens; a refusal has no key, and too small a TTL",
                   "no answer within 2 s", nothing)) {
            return false;
        }
        startServer();
        return fails("the client has another key", "no answer within 2 s",
                     [](Pavo::TcpPeerConfig& config) { config.md5Key = "what only one knows"; }) &&
               fails("the client has no key", "no answer within 2 s", noKey) &&
               fails("the client does not send with TTL 255", "Connection closed by peer",
                     [](Pavo::TcpPeerConfig& config) { config.minTtl = Pavo::IpTtl(0); });
    }

    bool comesUp() {
        print("demo", "-- the session comes up");
        client_.peerIs(config(right(), Pavo::TcpPeerMode::active));
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

    bool survivesRestart() {
        print("demo", "-- the server is restarted");
        const uint32_t failures = client_.peering().peer(right())->failures();
        server_.stop();
        const bool inVain = reaches("two attempts in vain", 10, [&] {
            return client_.peering().peer(right())->failures() >= failures + 2;
        });
        startServer();
        return inVain && reaches("the next session", 15, [this] { return bothEstablished(); });
    }

    bool survivesLossOfTheWire() {
        print("demo", "-- the wire is taken away");
        const uint32_t failures = client_.peering().peer(right())->failures();
        PavoSandbox::cutWire();
        const bool noticed = reaches("three failed attempts", 20, [&] {
            return !server_.isEstablished() &&
                   client_.peering().peer(right())->failures() >= failures + 3;
        });
        print("demo", "-- the wire is back");
        PavoSandbox::connectWire();
        return noticed && reaches("the last session", 20, [this] { return bothEstablished(); });
    }

    Demo::Stage stage_;
    Keel::TimerWheel wheel_;
    Session::Speaker server_;
    Session::Speaker client_;
};

}  // namespace

int main(int argc, char**) {
    if (argc > 1) {
        std::fputs(usage, stdout);
        return 2;
    }
    return Demo::inSandbox("pavo-session-demo", [] { return Show().run(); });
}
