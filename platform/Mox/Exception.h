/// @file
/// The exceptions of the framework. Their type information is exported, so that agents catch them
/// across the boundary of the library.
#pragma once

#include <exception>

#include "Mox/Export.h"
#include "Mox/String.h"

namespace Mox {

/// The base of the exceptions below.
class MOX_EXPORT Exception : public std::exception {
  public:
    /// `message` is what `message()` and `what()` yield.
    explicit Exception(String message) : message_(std::move(message)) {}
    ~Exception() override;

    /// The text as the thrower gave it.
    const String& message() const { return message_; }
    /// The text, as long as the exception lives.
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
/// option; `what()` adds ": " and the text of strerror(3).
class MOX_EXPORT ErrnoException : public Exception {
  public:
    /// `message` is the name of the call or option.
    ErrnoException(int errnoValue, const String& message);
    ~ErrnoException() override;

    /// The number of errno(3).
    int errnoValue() const { return errno_; }
    /// "bind: Address already in use".
    const char* what() const noexcept override { return what_.c_str(); }

  private:
    int errno_;
    String what_;
};

/// An inconsistency inside the library.
class MOX_EXPORT InternalException : public Exception {
  public:
    using Exception::Exception;
    ~InternalException() override;
};

/// Memory, or a bounded supply of objects, is exhausted.
class MOX_EXPORT MemoryException : public Exception {
  public:
    using Exception::Exception;
    ~MemoryException() override;
};

/// Throws a `RangeException` with that text.
[[noreturn]] MOX_EXPORT void throwRangeException(const char* message);
/// Throws an `ErrnoException` with `errno` as it is now.
[[noreturn]] MOX_EXPORT void throwErrnoException(const char* message);

}  // namespace Mox
