/// @file
/// What the framework throws. The type information is exported, so that agents catch these across
/// the library's edge.
#pragma once

#include <exception>

#include "Mox/Export.h"
#include "Mox/String.h"

namespace Mox {

class MOX_EXPORT Exception : public std::exception {
  public:
    explicit Exception(String message) : message_(std::move(message)) {}
    ~Exception() override;

    /// The text as the thrower gave it.
    const String& message() const { return message_; }
    const char* what() const noexcept override { return message_.c_str(); }

  private:
    String message_;
};

/// Bad text, or a value or index out of its range.
class MOX_EXPORT RangeException : public Exception {
  public:
    using Exception::Exception;
    ~RangeException() override;
};

/// A system call that failed while something was being set up. `message()` names the call or
/// option; `what()` adds the system's own words.
class MOX_EXPORT ErrnoException : public Exception {
  public:
    ErrnoException(int errnoValue, const String& message);
    ~ErrnoException() override;

    int errnoValue() const { return errno_; }
    const char* what() const noexcept override { return what_.c_str(); }

  private:
    int errno_;
    String what_;
};

/// Something that cannot happen while everybody keeps the rules.
class MOX_EXPORT InternalException : public Exception {
  public:
    using Exception::Exception;
    ~InternalException() override;
};

/// No memory, or no object, was left.
class MOX_EXPORT MemoryException : public Exception {
  public:
    using Exception::Exception;
    ~MemoryException() override;
};

[[noreturn]] MOX_EXPORT void throwRangeException(const char* message);
/// Throws an `ErrnoException` with `errno` as it is now.
[[noreturn]] MOX_EXPORT void throwErrnoException(const char* message);

}  // namespace Mox
