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

    std::filesystem::path directory_;
    std::filesystem::path before_;
};

// The answers with default off and default on.
struct Answers {
    bool whenOff;
    bool whenOn;

    bool operator==(const Answers&) const = default;
};
constexpr Answers off = {false, false};
constexpr Answers on = {true, true};
constexpr Answers byDefault = {false, true};

std::ostream& operator<<(std::ostream& out, const Answers& answers) {
    return out << answers.whenOff << '/' << answers.whenOn;
}

Answers answersOf(const std::string& file) {
    return {getToggleState("fastPath", file.c_str(), false),
            getToggleState("fastPath", file.c_str(), true)};
}

TEST_F(ToggleTest, ReadsWhatTheFileSaysAndTellsOfAFaultOnce) {
    const struct {
        const char* content;  // Null: no file.
        Answers answers;
        const char* fault;  // A piece of what standard error gets; "" when nothing is told.
    } cases[] = {
        {nullptr, byDefault, ""},
        {"{}", byDefault, ""},
        {R"({"fastpath": true, "fastPath2": true})", byDefault, ""},
        {R"({"fastPath": true, "other": "text"})", on, ""},
        {R"({"other": [], "fastPath": false})", off, ""},
        {R"({"fastPath": 1})", byDefault, "\"fastPath\" is not a boolean;"},
        {R"({"fastPath": "true"})", byDefault, "\"fastPath\" is not a boolean;"},
        {R"({"fastPath": null})", byDefault, "\"fastPath\" is not a boolean;"},
        {R"({"fastPath": true)", byDefault, "unexpected end of input"},
        {R"({"fastPath": true} x)", byDefault, "expected end of input"},
        {"[true]", byDefault, "not a JSON object;"},
        {"", byDefault, "unexpected end of input"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content == nullptr ? "absent" : c.content);
        static int number = 0;  // A file is told of once, so each row has its own.
        const std::string file = std::to_string(++number);
        if (c.content != nullptr) {
            std::ofstream(file) << c.content;
        }
        testing::internal::CaptureStderr();
        EXPECT_EQ(answersOf(file), c.answers);
        const std::string told = testing::internal::GetCapturedStderr();
        const std::string start = *c.fault == '\0' ? "" : "toggle: ./" + file + ": ";
        EXPECT_EQ(told.substr(0, start.size()), start);
        EXPECT_NE(told.find(c.fault), std::string::npos) << told;
        EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), start.empty() ? 0 : 1) << told;
    }
}

TEST_F(ToggleTest, TakesADirectoryForAFaultyFile) {
    const std::string path = directory_ / "Folder.json";
    std::filesystem::create_directory(path);
    testing::internal::CaptureStderr();
    setenv("PAVO_TOGGLE_DIR", directory_.c_str(), /*overwrite=*/1);
    EXPECT_EQ(answersOf("Folder.json"), byDefault);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "toggle: " + path + ": read: Is a directory; the file counts as absent\n");
}

TEST_F(ToggleTest, LooksInTheChosenDirectoryOrInTheWorkingDirectoryThenEtc) {
    SANDBOX_OR_SKIP();
    ASSERT_EQ(mount("tmpfs", "/etc", "tmpfs", 0, "mode=0755"), 0);
    std::filesystem::create_directory("chosen");
    const char* const sayOn = R"({"fastPath": true})";
    const char* const sayOff = R"({"fastPath": false})";
    const struct {
        const char* chosen;  // Content of the file in each place; null: no file there.
        const char* working;
        const char* etc;
        const char* variable;  // PAVO_TOGGLE_DIR; null: not set.
        Answers answers;
    } cases[] = {
        {sayOn, sayOff, sayOff, "chosen", on},
        {nullptr, sayOn, sayOn, "chosen", byDefault},
        {nullptr, sayOn, sayOn, "missing", byDefault},
        {sayOff, sayOn, sayOff, nullptr, on},
        {sayOff, nullptr, sayOn, nullptr, on},
        {sayOff, "{}", sayOn, nullptr, byDefault},  // Silent: the first file decides.
        {sayOff, "{broken", sayOn, nullptr, on},    // Faulty: as if absent.
        {sayOn, nullptr, nullptr, nullptr, byDefault},
    };
    const auto put = [](const std::string& path, const char* content) {
        std::filesystem::remove(path);
        if (content != nullptr) {
            std::ofstream(path) << content;
        }
    };
    testing::internal::CaptureStderr();
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "row " << &c - cases);
        put("chosen/Places.json", c.chosen);
        put("Places.json", c.working);
        put("/etc/Places.json", c.etc);
        unsetenv("PAVO_TOGGLE_DIR");
        if (c.variable != nullptr) {
            setenv("PAVO_TOGGLE_DIR", c.variable, /*overwrite=*/1);
        }
        EXPECT_EQ(answersOf("Places.json"), c.answers);
    }
    (void)testing::internal::GetCapturedStderr();  // The message has its own test.
    EXPECT_EQ(umount("/etc"), 0);
}

}  // namespace
