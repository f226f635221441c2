#include "Mox/Exception.h"

#include <cerrno>
#include <cstring>

namespace Mox {

// Out of line, so that each class has one type record, here.
Exception::~Exception() = default;
RangeException::~RangeException() = default;
ErrnoException::~ErrnoException() = default;
InternalException::~InternalException() = default;
MemoryException::~MemoryException() = default;

ErrnoException::ErrnoException(int errnoValue, const String& message)
    : Exception(message),
      errno_(errnoValue),
      what_(message + ": " + std::string_view(std::strerror(errnoValue))) {}

void throwRangeException(const char* message) {
    throw RangeException(message);
}

void throwErrnoException(const char* message) {
    throw ErrnoException(errno, message);
}

}  // namespace Mox
