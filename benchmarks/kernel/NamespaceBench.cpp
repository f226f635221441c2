// Creating and removing a network namespace: with Pavo, with ip(8), and with the bare system calls
// and few checks. A socket of one, by the namespace's name.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "Pavo/NetnsUtils.h"
#include "Pavo/SocketAt.h"
#include "sandbox/Sandbox.h"

namespace {

bool pavo() {
    return Pavo::netNsAdd("bench") == 0 && Pavo::netNsDelete("bench") == 0;
}

bool ipNetns() {
    PavoSandbox::run({"ip", "netns", "add", "bench"});
    PavoSandbox::run({"ip", "netns", "delete", "bench"});
    return true;
}

bool bringLoUp() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING;
    const bool isUp = ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    close(fd);
    return isUp;
}

bool bare() {
    const char* const path = "/var/run/netns/bench";
    const char* const own = "/proc/thread-self/ns/net";
    const int here = open(own, O_RDONLY | O_CLOEXEC);
    close(open(path, O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0));
    const bool isCreated = unshare(CLONE_NEWNET) == 0 &&
                           mount(own, path, "none", MS_BIND, nullptr) == 0 && bringLoUp() &&
                           setns(here, CLONE_NEWNET) == 0;
    close(here);
    return isCreated && umount2(path, MNT_DETACH) == 0 && unlink(path) == 0;
}

void rounds(benchmark::State& state, bool (*round)()) {
    for (auto _ : state) {
        if (!round()) {
            state.SkipWithError("a namespace was not created or not removed");
            return;
        }
    }
}

int pavoSocket() {
    return Pavo::socketAt(AF_INET, SOCK_DGRAM, 0, "elsewhere");
}

int bareSocket() {
    const int here = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int there = open("/var/run/netns/elsewhere", O_RDONLY | O_CLOEXEC);
    const bool isThere = setns(there, CLONE_NEWNET) == 0;
    const int fd = isThere ? socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0) : -1;
    setns(here, CLONE_NEWNET);
    close(here);
    close(there);
    return fd;
}

void sockets(benchmark::State& state, int (*open)()) {
    Pavo::netNsAdd("elsewhere");
    for (auto _ : state) {
        const int fd = open();
        if (fd < 0) {
            state.SkipWithError("no socket");
            break;
        }
        close(fd);
    }
    Pavo::netNsDelete("elsewhere");
}

BENCHMARK_CAPTURE(sockets, pavo, pavoSocket)->Name("SocketInNetns/pavo");
BENCHMARK_CAPTURE(sockets, bare, bareSocket)->Name("SocketInNetns/bare");

// In real time: most of the work of ip(8) is in processes of its own.
BENCHMARK_CAPTURE(rounds, pavo, pavo)->Name("NetnsAddDelete/pavo")->UseRealTime();
BENCHMARK_CAPTURE(rounds, bare, bare)->Name("NetnsAddDelete/bare")->UseRealTime();
BENCHMARK_CAPTURE(rounds, ip_netns, ipNetns)->Name("NetnsAddDelete/ip_netns")->UseRealTime();

}  // namespace
