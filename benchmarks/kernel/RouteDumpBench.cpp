// A dump of 100,000 routes: into the route table of a KernelInfo, with the session and the loop
// that it takes, and into the cache of libnl.
#include <benchmark/benchmark.h>
#include <linux/rtnetlink.h>
#include <netlink/cache.h>
#include <netlink/netlink.h>
#include <netlink/route/route.h>
#include <netlink/socket.h>

#include <fstream>
#include <string>

#include "Mox/EventLoop.h"
#include "Pavo/KernelInfo.h"
#include "Pavo/NetlinkSession.h"
#include "Pavo/ScopedNetNs.h"
#include "sandbox/Sandbox.h"

namespace {

constexpr uint32_t routes = 100'000;
constexpr char netNs[] = "routes";

// Made once: a namespace with that many routes, of IPv4, over one of 200 gateways each.
void makeRoutes() {
    static bool isMade = false;
    if (isMade) {
        return;
    }
    isMade = true;
    PavoSandbox::makeNetns(netNs);
    std::ofstream script("/run/routes");
    script << "link add v0 type veth peer name w0\nlink set v0 up\nlink set w0 up\n"
              "address add 172.16.0.1/16 dev v0\n";
    for (uint32_t i = 0; i < routes; ++i) {
        script << "route add 10." << i / 256 / 256 << '.' << i / 256 % 256 << '.' << i % 256
               << "/32 via 172.16.0." << 2 + i % 200 << '\n';
    }
    script.close();
    PavoSandbox::run({"ip", "-n", netNs, "-batch", "/run/routes"});
}

void pavoTable(benchmark::State& state) {
    makeRoutes();
    Mox::EventLoop loop;
    double bytes = 0;
    for (auto _ : state) {
        const auto session =
            Pavo::netlinkSessionFactory("bench", Pavo::NamespaceName(netNs), loop.clock());
        const auto info = Pavo::kernelInfoFactory("bench", session);
        info->followsRoutesIs(true);
        session->enabledIs(true);
        while (!info->isInSync()) {
            loop.turn(1);
        }
        if (info->routes()->members() < routes) {
            state.SkipWithError("routes are missing");
            return;
        }
        bytes = static_cast<double>(info->routes()->memoryBytes()) / info->routes()->members();
    }
    state.SetItemsProcessed(state.iterations() * routes);
    state.counters["bytes_per_route"] = bytes;
}

void libnlCache(benchmark::State& state) {
    makeRoutes();
    for (auto _ : state) {
        nl_sock* const socket = nl_socket_alloc();
        {
            const Pavo::ScopedNetNs inside(netNs);
            nl_connect(socket, NETLINK_ROUTE);
        }
        nl_cache* cache = nullptr;
        if (rtnl_route_alloc_cache(socket, AF_UNSPEC, 0, &cache) != 0 ||
            nl_cache_nitems(cache) < static_cast<int>(routes)) {
            state.SkipWithError("routes are missing");
            return;
        }
        state.PauseTiming();  // The end of its objects is not part of the dump.
        nl_cache_free(cache);
        nl_socket_free(socket);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * routes);
}

BENCHMARK(pavoTable)->Name("RouteDump100k/pavo");
BENCHMARK(libnlCache)->Name("RouteDump100k/libnl");

}  // namespace
