#include "Pavo/tcp/TcpStatusPublisher.h"

#include <exception>

namespace Pavo {

void TcpStatusPublisherBase::publish(const std::function<void()>& changes) {
    if (isChanging_) {
        changes();
        return;
    }
    std::exception_ptr thrown;
    const auto call = [&thrown](const std::function<void()>& function) {
        try {
            function();
        } catch (...) {
            thrown = thrown ? thrown : std::current_exception();
        }
    };
    isChanging_ = true;
    call(changes);
    isChanging_ = false;  // What an observer changes from now on, it publishes itself.
    for (const Pending& each : std::exchange(pending_, {})) {
        call(each.notify);
    }
    if (thrown) {
        std::rethrow_exception(thrown);
    }
}

void TcpStatusPublisherBase::add(const Mox::AttributeBase& attribute, bool isMember,
                                 std::function<void()> notify) {
    if (!isChanging_) {
        notify();
        return;
    }
    if (!isMember) {
        std::erase_if(pending_, [&](const Pending& each) { return each.attribute == &attribute; });
    }
    pending_.push_back({&attribute, std::move(notify)});
}

}  // namespace Pavo
