/// @file
/// The common part of demonstrations of agents: the sandbox, the loop, and the transcript.
#pragma once

#include <functional>
#include <string>

#include "Mox/EventLoop.h"

namespace Demo {

/// An event loop, and a transcript with the time since its construction.
class Stage {
  public:
    Mox::EventLoop* loop() { return &loop_; }
    Mox::Clock* clock() { return clock_; }

    double elapsedSeconds() const { return clock_->now() - started_; }
    void print(const char* who, const std::string& line) const;
    /// Turns the loop until `done`, for a bounded time; otherwise prints that it gave up on `what`,
    /// and returns false.
    bool reaches(const char* what, double seconds, const std::function<bool()>& done);

  private:
    Mox::EventLoop loop_;
    Mox::Clock* const clock_ = loop_.clock();
    const double started_ = clock_->now();
};

/// The rest of `main`: enters the sandbox, makes its wire, and calls `show`, which returns true
/// when all was seen. The result is the exit status; failures go to standard error.
int inSandbox(const char* program, const std::function<bool()>& show);

}  // namespace Demo
