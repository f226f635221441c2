#include "toggle/toggle.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/SandboxTest.h"

namespace {

constexpr char folder[] = "a folder in the place of the file";

// The working directory is an empty one for the length of a test.
class ToggleTest : public testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/toggleXXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        directory_ = pattern;
        before_ = std::filesystem::current_path();
        std::filesystem::current_path(directory_);
    }
    void TearDown() override {
        unsetenv("PAVO_TOGGLE_DIR");
        std::filesystem::current_path(before_);
        std::filesystem::remove_all(directory_);
    }

    // Null: no file.
    static void put(const std::string& path, const char* content) {
        std::filesystem::remove(path);
        if (content == folder) {
            std::filesystem::create_directory(path);
        } else if (content != nullptr) {
            std::ofstream(path) << content;
        }
    }

    std::filesystem::path directory_;
    std::filesystem::path before_;
};

// The answers with default off and default on.
const std::string off = "00";
const std::string on = "11";
const std::string byDefault = "01";

std::string answersOf(const std::string& file) {
    const auto digit = [&file](bool byDefault) {
        return getToggleState("fastPath", file.c_str(), byDefault) ? '1' : '0';
    };
    return {digit(false), digit(true)};
}

TEST_F(ToggleTest, ReadsWhatTheFileSaysAndTellsOfAFaultOnce) {
    const struct {
        const char* content;
        std::string answers;
        const char* fault;  // How what standard error gets ends; "" when nothing is told.
    } cases[] = {
        {nullptr, byDefault, ""},
        {R"({"fastpath": true, "fastPath2": true})", byDefault, ""},
        {R"({"fastPath": true, "other": "text"})", on, ""},
        {R"({"other": [], "fastPath": false})", off, ""},
        {R"({"fastPath": "true"})", byDefault, "\"fastPath\" is not a boolean"},
        {R"({"fastPath": null})", byDefault, "\"fastPath\" is not a boolean"},
        {R"({"fastPath": true} x)", byDefault, "expected end of input"},
        {"[true]", byDefault, "not a JSON object"},
        {"", byDefault, "expected '[', '{', or a literal"},
        {folder, byDefault, "read: Is a directory"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content == nullptr ? "absent" : c.content);
        // A file is told of once, so each row has its own.
        const std::string file = std::to_string(&c - cases);
        put(file, c.content);
        testing::internal::CaptureStderr();
        EXPECT_EQ(answersOf(file), c.answers);
        const std::string told = testing::internal::GetCapturedStderr();
        const bool isTold = *c.fault != '\0';
        EXPECT_EQ(told.starts_with("toggle: ./" + file + ": "), isTold) << told;
        EXPECT_EQ(told.ends_with(c.fault + std::string("; the file counts as absent\n")), isTold);
        EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), isTold ? 1 : 0) << told;
    }
}

TEST_F(ToggleTest, LooksInTheChosenDirectoryOrInTheWorkingDirectoryThenEtc) {
    SANDBOX_OR_SKIP();
    ASSERT_EQ(mount("tmpfs", "/etc", "tmpfs", 0, "mode=0755"), 0);
    std::filesystem::create_directory("chosen");
    const char* const sayOn = R"({"fastPath": true})";
    const char* const sayOff = R"({"fastPath": false})";
    const struct {
        const char* chosen;  // Content of the file in each place.
        const char* working;
        const char* etc;
        const char* variable;  // PAVO_TOGGLE_DIR; null: not set.
        std::string answers;
    } cases[] = {
        {sayOn, sayOff, sayOff, "chosen", on},         {nullptr, sayOn, sayOn, "chosen", byDefault},
        {sayOff, sayOn, sayOff, nullptr, on},          {sayOff, nullptr, sayOn, nullptr, on},
        {sayOff, "{}", sayOn, nullptr, byDefault},  // Silent: the first file decides.
        {sayOff, "{broken", sayOn, nullptr, on},    // Faulty: as if absent.
        {sayOn, nullptr, nullptr, nullptr, byDefault},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        put("chosen/Places.json", c.chosen);
        put("Places.json", c.working);
        put("/etc/Places.json", c.etc);
        unsetenv("PAVO_TOGGLE_DIR");
        if (c.variable != nullptr) {
            setenv("PAVO_TOGGLE_DIR", c.variable, /*overwrite=*/1);
        }
        EXPECT_EQ(answersOf("Places.json"), c.answers);
    }
    EXPECT_EQ(umount("/etc"), 0);
}

}  // namespace
