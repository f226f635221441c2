// The main() of test programs that touch namespaces and mounts. With PAVO_REQUIRE_SANDBOX set in
// the environment, a machine without the sandbox is a failure rather than a reason to skip.
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include "sandbox/Sandbox.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (GTEST_FLAG_GET(list_tests)) {
        return RUN_ALL_TESTS();
    }
    std::string why;
    if (!PavoSandbox::Sandbox::enter(&why)) {
        const bool required = getenv("PAVO_REQUIRE_SANDBOX") != nullptr;
        std::cerr << "No sandbox: " << why << "\n"
                  << (required ? "PAVO_REQUIRE_SANDBOX is set: giving up.\n"
                               : "Tests that need it are skipped.\n");
        if (required) {
            return EXIT_FAILURE;
        }
    }
    return RUN_ALL_TESTS();
}
