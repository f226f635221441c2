/// @file
/// Several calls that are all made, whatever they throw.
#pragma once

#include <exception>

namespace Pavo {

/// Makes calls, such as notifications of observers, and keeps the first exception until all are
/// made.
class FirstException {
  public:
    template <class Call>
    void collect(Call call) {
        try {
            call();
        } catch (...) {
            thrown_ = thrown_ ? thrown_ : std::current_exception();
        }
    }
    /// Throws the exception that was kept, if there is one.
    void rethrow() const {
        if (thrown_) {
            std::rethrow_exception(thrown_);
        }
    }

  private:
    std::exception_ptr thrown_;
};

}  // namespace Pavo
