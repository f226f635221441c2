// Prints what changes in all namespaces of the machine, until it is interrupted.
#include <csignal>
#include <cstdio>
#include <exception>

#include "Mox/Entity.h"
#include "Mox/EventLoop.h"
#include "Mox/Signal.h"
#include "watch/Watcher.h"

int main() {
    try {
        std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);  // Also into a pipe, line by line.
        Mox::EventLoop loop;
        const Mox::Watch<Mox::Signal> interrupt(Mox::signalFactory(SIGINT), Mox::Signal::countAttr,
                                                [&loop] { loop.stop(); });
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
