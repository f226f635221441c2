// One more attempt of a client whose server refuses, beside the bare calls.

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "Keel/TimerWheel.h"
#include "Mox/Clock.h"
#include "Pavo/TcpClientServer.h"

namespace {

// The discard port, at which nothing listens.
constexpr uint16_t port = 9;

void retryPavo(benchmark::State& state) {
    Mox::ManualClock clock;
    Keel::TimerWheel wheel(&clock);
    Pavo::TcpFileDescriptorEventRegistrationFactory registrations;
    const auto status = Pavo::tcpClientStatusFactory();
    const auto machine = Pavo::tcpClientSmFactory(
        &registrations, &wheel, /*clientId=*/1,
        Pavo::tcpClientConfigFactory(Pavo::IpAddr(INADDR_LOOPBACK), port), status);
    machine->startConnection();
    for (auto _ : state) {
        if (!machine->fd()) {
            state.SkipWithError("the attempt failed at once");
            return;
        }
        machine->fd()->handleWritable();
        machine->handleRetry();
    }
    if (status->connectionErrorCount() + 1 != status->connectionAttemptCount()) {
        state.SkipWithError("a server answered");
    }
}

void retryBare(benchmark::State& state) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    name.sin_port = htons(port);
    for (auto _ : state) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const bool isPending = connect(fd, reinterpret_cast<sockaddr*>(&name), sizeof(name)) < 0 &&
                               errno == EINPROGRESS;
        int error = 0;
        socklen_t length = sizeof(error);
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
        close(fd);
        if (!isPending || error != ECONNREFUSED) {
            state.SkipWithError("a server answered");
            return;
        }
    }
}

BENCHMARK(retryPavo)->Name("TcpRetry/pavo");
BENCHMARK(retryBare)->Name("TcpRetry/bare");

}  // namespace
