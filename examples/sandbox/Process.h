/// @file
/// Programs that are run in the sandbox. What fails throws std::runtime_error, with the failing
/// step and its error as the text.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace PavoSandbox {

/// Runs a program (no shell; searched in PATH and the system directories) and returns what it wrote
/// to standard output and standard error.
std::string run(const std::vector<std::string>& command);

/// A program that runs beside the caller, searched as `run` does. It ends with its object, and when
/// the thread that made it ends.
class Daemon {
  public:
    /// Starts the program in a network namespace. What it writes goes to a new file.
    Daemon(const std::string& ns, const std::vector<std::string>& command,
           const std::string& logPath);
    /// Kills the process, and waits for its end.
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    pid_t pid() const { return pid_; }
    /// Sends a signal to this process alone.
    void signalIs(int number) const;

  private:
    pid_t pid_;
};

}  // namespace PavoSandbox
