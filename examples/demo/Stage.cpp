#include "demo/Stage.h"

#include <cstdio>
#include <exception>

#include "sandbox/Sandbox.h"

namespace Demo {

void Stage::print(const char* who, const std::string& line) const {
    std::printf("%7.3f s  %-6s  %s\n", elapsedSeconds(), who, line.c_str());
    std::fflush(stdout);
}

bool Stage::reaches(const char* what, double seconds, const std::function<bool()>& done) {
    bool late = false;
    Mox::Timer giveUp(clock(), [&late] { late = true; });
    giveUp.expiryIs(clock()->now() + seconds);
    while (!done() && !late) {
        loop_.turn();
    }
    if (late) {
        print("demo", std::string("gave up waiting: ") + what);
    }
    return !late;
}

int inSandbox(const char* program, const std::function<bool()>& show) {
    std::string why;
    if (!PavoSandbox::Sandbox::enter(&why)) {
        std::fprintf(stderr, "%s needs namespaces of its own and cannot have them: %s\n", program,
                     why.c_str());
        return 1;
    }
    try {
        PavoSandbox::makeWire();
        return show() ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", program, error.what());
        return 1;
    }
}

}  // namespace Demo
