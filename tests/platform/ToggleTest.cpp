#include "toggle/toggle.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/SandboxTest.h"

namespace {

// The working directory and /etc are empty ones for the length of a test.
class ToggleTest : public PavoTest::SandboxTest {
  protected:
    void SetUp() override {
        SANDBOX_OR_SKIP();
        mkdir("/run/toggle", 0755);
        for (const char* directory : {"/etc", "/run/toggle"}) {
            ASSERT_EQ(mount("tmpfs", directory, "tmpfs", 0, "mode=0755"), 0);
        }
        before_ = std::filesystem::current_path();
        std::filesystem::current_path("/run/toggle");
    }
    void TearDown() override {
        if (PavoTest::Sandbox::isEntered()) {
            std::filesystem::current_path(before_);
            EXPECT_EQ(umount("/etc") | umount("/run/toggle"), 0);
        }
    }

    std::filesystem::path before_;
};

TEST_F(ToggleTest, ReadsTheFirstFileAndReportsAFaultOnce) {
    const char* const none = nullptr;
    const char* const directory = "a directory instead of the file";
    const char* const fifo = "a FIFO instead of the file";
    const char* const on = R"({"fastPath": true, "other": "text"})";
    const char* const off = R"({"other": [], "fastPath": false})";
    const struct {
        const char *working, *etc, *chosen;  // The file in each directory.
        bool isChosen;                       // PAVO_TOGGLE_DIR names a directory.
        bool byDefaultOff, byDefaultOn;      // The answers.
        const char* fault = "";              // The end of the report on standard error.
    } cases[] = {
        {none, none, on, false, false, true},
        {none, on, off, false, true, true},
        {on, off, off, false, true, true},
        {R"({"fastpath": true, "fastPath2": true})", on, on, false, false, true},
        {on, on, none, true, false, true},
        {R"({"fastPath": "true"})", on, off, false, true, true, "\"fastPath\" is not a boolean"},
        {R"({"fastPath": true} x)", none, on, false, false, true, "expected end of input"},
        {"[true]", none, on, false, false, true, "not a JSON object"},
        {"", none, on, false, false, true, "expected '[', '{', or a literal"},
        {directory, none, on, false, false, true, "read: Is a directory"},
        {fifo, none, on, false, false, true, "expected '[', '{', or a literal"},
    };
    std::filesystem::create_directory("chosen");
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        const std::string file = std::to_string(&c - cases);  // Each is reported once.
        const auto write = [&](const std::string& path, const char* content) {
            if (content == directory) {
                std::filesystem::create_directory(path);
            } else if (content == fifo) {
                mkfifo(path.c_str(), 0600);
            } else if (content != nullptr) {
                std::ofstream(path) << content;
            }
        };
        write(file, c.working);
        write("/etc/" + file, c.etc);
        write("chosen/" + file, c.chosen);
        if (c.isChosen) {
            setenv("PAVO_TOGGLE_DIR", "chosen", /*overwrite=*/1);
        }
        testing::internal::CaptureStderr();
        EXPECT_EQ(getToggleState("fastPath", file.c_str(), false), c.byDefaultOff);
        EXPECT_EQ(getToggleState("fastPath", file.c_str(), true), c.byDefaultOn);
        const std::string report = testing::internal::GetCapturedStderr();
        const std::string end = c.fault + std::string("; the file counts as absent\n");
        EXPECT_EQ(report.starts_with("toggle: ./" + file + ": ") && report.ends_with(end),
                  *c.fault != '\0');
        EXPECT_EQ(report.find('\n') + 1, report.size());
        unsetenv("PAVO_TOGGLE_DIR");
    }
}

// A program that another user starts, without and with the set-user-ID bit of its file.
TEST_F(ToggleTest, IsNotTheUsersChoiceInAProgramWithMorePrivilegesAndNothingIsTraced) {
    if (chown(".", 65534, 65534) != 0) {
        GTEST_SKIP() << "needs a second user: " << strerror(errno);
    }
    std::ofstream("Probe.json") << R"({"probed": true})";
    std::filesystem::copy_file(PAVO_PROBE, "probe");
    const auto outputAt = [](mode_t mode, const std::string& variable) {
        EXPECT_EQ(chmod("probe", mode), 0);
        return PavoTest::run({"setpriv", "--reuid=65534", "--clear-groups", "env",
                              "MOX_TRACE=probe/0", variable, "./probe"});
    };
    EXPECT_EQ(outputAt(0755, "A=B"), "probe/0: traced\non\n");
    EXPECT_EQ(outputAt(04755, "A=B"), "off\n");
    EXPECT_EQ(outputAt(04755, "PAVO_TOGGLE_DIR=/run/toggle"), "off\n");
}

}  // namespace
