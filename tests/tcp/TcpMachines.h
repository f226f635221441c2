/// @file
/// Machines for tests with their configuration and status, and a fixture that runs them.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>

#include <cstdint>
#include <string>

#include "Keel/TimerWheel.h"
#include "Mox/Clock.h"
#include "Mox/EventLoop.h"
#include "Mox/ValueType.h"
#include "Pavo/TcpClientServer.h"
#include "support/SandboxTest.h"

namespace PavoTest {

inline Pavo::IpGenAddr addressOf(const char* text) {
    return Mox::fromText<Pavo::IpGenAddr>(text);
}

struct TestClient {
    TestClient() = default;
    TestClient(Pavo::TcpFileDescriptorEventRegistrationFactory* factory, Keel::TimerWheel* wheel,
               const char* server, uint16_t port, const char* netNs = "")
        : config(Pavo::tcpClientConfigFactory(addressOf(server), port)),
          status(Pavo::tcpClientStatusFactory()),
          sm(Pavo::tcpClientSmFactory(factory, wheel, /*clientId=*/7, config, status)) {
        config->networkNamespaceIs(Pavo::NamespaceName(netNs));
    }

    // "status reason attempts/errors/successes"
    std::string summary() const {
        return std::string(stringValue(status->connectionStatus())) + " " +
               std::string(status->reason()) + " " +
               std::to_string(status->connectionAttemptCount()) + "/" +
               std::to_string(status->connectionErrorCount()) + "/" +
               std::to_string(status->connectionSuccessCount());
    }

    Mox::Ptr<Pavo::TcpClientConfig> config;
    Mox::Ptr<Pavo::TcpClientStatus> status;
    Mox::Ptr<Pavo::TcpClientSm> sm;
};

struct TestServer {
    TestServer() = default;
    TestServer(Pavo::TcpFileDescriptorEventRegistrationFactory* factory, Keel::TimerWheel* wheel,
               const char* address, uint16_t port, const char* netNs = "")
        : config(Pavo::tcpServerConfigFactory(addressOf(address), port)),
          status(Pavo::tcpServerStatusFactory()),
          sm(Pavo::tcpServerSmFactory(factory, wheel, config, status)) {
        config->networkNamespaceIs(Pavo::NamespaceName(netNs));
    }

    // "+reason starts/accepted/waiting" while it listens, else with "-".
    std::string summary() const {
        return (status->listening() ? "+" : "-") + std::string(status->reason()) + " " +
               std::to_string(status->serverStartTimes()) + "/" +
               std::to_string(status->connSocketCount()) + "/" +
               std::to_string(status->connSocketMembers());
    }

    Mox::Ptr<Pavo::TcpServerConfig> config;
    Mox::Ptr<Pavo::TcpServerStatus> status;
    Mox::Ptr<Pavo::TcpServerSm> sm;
};

/// Time stands still until the test turns the clock. Readiness comes from the event loop's factory
/// `byLoop`, or with `byHand` from the test.
class TcpTest : public SandboxTest {
  protected:
    /// Waits until the kernel reports an event of a machine's socket.
    template <class Machine>
    static void await(const Machine& machine) {
        pollfd ready{machine.sm->fd()->fileDescriptor()->descriptor(), POLLIN | POLLOUT, 0};
        ASSERT_EQ(poll(&ready, 1, /*timeout=*/10000), 1);
    }
    /// The same, then injects the event into the machine, if it has a socket.
    template <class Machine>
    static void deliver(const Machine& machine) {
        if (machine.sm->fd()) {
            await(machine);
            injectInto(machine);
        }
    }
    /// Connects a client with a listening server, both by hand.
    static void meet(const TestClient& client, const TestServer& server) {
        client.sm->startConnection();
        deliver(client);
        deliver(server);
    }
    Mox::EventLoop loop_;
    Mox::ManualClock clock_;
    Keel::TimerWheel wheel_{&clock_};
    Pavo::TcpFileDescriptorEventRegistrationFactory byHand_;
    const Mox::Ptr<Pavo::TcpFileDescriptorEventRegistrationFactoryMoxc> byLoop_ =
        Pavo::tcpFileDescriptorEventRegistrationFactoryMoxcFactory();

  private:
    static void injectInto(const TestClient& client) { client.sm->fd()->handleWritable(); }
    static void injectInto(const TestServer& server) { server.sm->fd()->handleReadable(); }
};

}  // namespace PavoTest
