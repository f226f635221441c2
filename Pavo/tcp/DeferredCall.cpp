#include "Pavo/tcp/DeferredCall.h"

#include "Mox/EventLoop.h"

namespace Pavo {

void DeferredCall::request() {
    Mox::EventLoop* loop = Mox::EventLoop::current();
    if (loop == nullptr || !pending_.expired()) {
        return;
    }
    const auto pending = std::make_shared<DeferredCall*>(this);
    pending_ = pending;
    loop->defer([pending] {
        if (DeferredCall* self = *pending) {
            self->pending_.reset();
            const auto call = self->call_;  // A copy, since the call may destroy this object.
            call();
        }
    });
}

void DeferredCall::cancel() {
    if (const auto pending = pending_.lock()) {
        *pending = nullptr;
    }
}

}  // namespace Pavo
