/// @file
/// Calls that an object defers to the next turn of the event loop.
#pragma once

#include <functional>
#include <memory>
#include <utility>

namespace Pavo {

/// A call that the thread's event loop makes in its next turn when that is requested. At most one
/// is pending, and none is made after `cancel` or after this object has gone.
class DeferredCall {
  public:
    explicit DeferredCall(std::function<void()> call) : call_(std::move(call)) {}
    DeferredCall(const DeferredCall&) = delete;
    DeferredCall& operator=(const DeferredCall&) = delete;
    ~DeferredCall() { cancel(); }

    /// Without a loop, as in tests, nothing is deferred.
    void request();
    void cancel();
    bool isPending() const { return !pending_.expired(); }

  private:
    std::function<void()> call_;
    std::weak_ptr<DeferredCall*> pending_;  // Expired when none is: the loop owns what is pending.
};

}  // namespace Pavo
