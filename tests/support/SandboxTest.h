/// @file
/// Tests that run in the sandbox.
#pragma once

#include <gtest/gtest.h>
#include <net/if.h>

#include <fstream>
#include <iterator>
#include <string>

#include "Mox/EventLoop.h"
#include "Pavo/ScopedNetNs.h"
#include "sandbox/Sandbox.h"

namespace PavoTest {

using namespace PavoSandbox;

/// Skips the test, with the reason, when the program is not in a sandbox. For `SetUp` or a test's
/// first line.
#define SANDBOX_OR_SKIP()                                                        \
    if (!PavoSandbox::Sandbox::isEntered()) {                                    \
        GTEST_SKIP() << "needs the sandbox: " << PavoSandbox::Sandbox::whyNot(); \
    }                                                                            \
    static_assert(true, "takes the semicolon")

/// Tests that need the sandbox: `class NetnsTest : public PavoTest::SandboxTest {};`
class SandboxTest : public testing::Test {
  protected:
    void SetUp() override { SANDBOX_OR_SKIP(); }
};

/// What a file holds.
inline std::string fileText(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// Turns the loop until `done()`, for as long as a loaded machine may need, and says whether it
/// was.
template <class Done>
bool turnsUntil(Mox::EventLoop& loop, Done done, double seconds = 20) {
    const double end = loop.clock()->now() + seconds;
    while (!done()) {
        if (loop.clock()->now() > end) {
            return false;
        }
        loop.turn(/*timeoutSeconds=*/0.02);
    }
    return true;
}

/// Two namespaces and a wire, with addresses of both families.
struct Wire {
    Wire() {
        makeWire();
        addWire6();
    }
    ~Wire() { removeWire(); }

    /// The index of an end.
    uint32_t index(const std::string& netNs) const {
        const Pavo::ScopedNetNs inside(netNs.c_str());
        return if_nametoindex(("veth-" + netNs).c_str());
    }
};

}  // namespace PavoTest
