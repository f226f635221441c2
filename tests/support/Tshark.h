/// @file
/// What tshark says of a capture file.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "sandbox/Process.h"

namespace PavoTest {

/// A folder for the time of a test.
struct TempFolder {
    TempFolder() { EXPECT_NE(mkdtemp(path.data()), nullptr); }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    ~TempFolder() { std::filesystem::remove_all(path); }

    std::string path = "/tmp/pavo-test-XXXXXX";
};

/// For each packet of a file the values of the fields, divided by blanks and commas, or by nothing.
/// All checksums are verified.
inline std::vector<std::string> tshark(const std::string& path,
                                       const std::vector<std::string>& fields,
                                       bool isDivided = true) {
    std::vector<std::string> command = {"tshark", "-r", path, "-T", "fields", "-E", "separator= "};
    command.insert(command.end(), {"-o", "sctp.checksum:CRC 32c"});
    for (const std::string layer : {"ip", "tcp", "udp"}) {
        command.insert(command.end(), {"-o", layer + ".check_checksum:TRUE"});
    }
    for (const std::string& field : fields) {
        command.insert(command.end(), {"-e", field});
    }
    std::istringstream lines(PavoSandbox::run(command));
    std::vector<std::string> packets;
    for (std::string line; std::getline(lines, line);) {
        std::erase_if(line, [&](char c) { return !isDivided && (c == ' ' || c == ','); });
        if (line.find("root") == std::string::npos) {  // A word about running as root.
            packets.push_back(line);
        }
    }
    return packets;
}

}  // namespace PavoTest
