// Prints what changes in all namespaces of the machine, until it is interrupted.
#include <csignal>
#include <cstdio>
#include <exception>

#include "Mox/EventLoop.h"
#include "watch/Watcher.h"

namespace {

Mox::EventLoop* running = nullptr;

}  // namespace

int main() {
    try {
        Mox::EventLoop loop;
        running = &loop;
        std::signal(SIGINT, [](int) { running->stop(); });
        const Watch::Watcher watcher(loop.clock(),
                                     [](const std::string& netNs, const std::string& line) {
                                         std::printf("%-10s %s\n", netNs.c_str(), line.c_str());
                                     });
        loop.run();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "pavo-watch: %s\n", error.what());
        return 1;
    }
}
