#include <random>
#include <string>

#include <gtest/gtest.h>

#include "fuzz/ValueChecks.h"
#include "support/Seeds.h"

namespace {

// Fuzzing goes deeper; this is for a type that has just been listed. What does not hold is fatal.
TEST(ValueTypes, KeepTheLawsForRandomLogs) {
    for (const uint32_t seed : PavoTest::Seeds(300)) {
        std::mt19937 random(seed);
        for (const fuzz::ValueChecks& type : fuzz::valueChecks()) {
            SCOPED_TRACE(type.typeName);
            // Many zeros, as in the length of a short sequence, and many small numbers.
            std::string log(random() % 64, '\0');
            for (char& byte : log) {
                byte = static_cast<char>(random() % 4 == 0 ? random() : random() % 16 / 8);
            }
            type.logs(log);
        }
    }
}

}  // namespace
