#include "Pavo/tcp/TcpStatusPublisher.h"

#include "Pavo/base/FirstException.h"

namespace Pavo {

void TcpStatusPublisherBase::publish(const std::function<void()>& changes) {
    if (isChanging_) {
        changes();
        return;
    }
    FirstException exception;
    isChanging_ = true;
    exception.collect(changes);
    isChanging_ = false;  // What an observer changes from now on, it publishes itself.
    for (const Pending& each : std::exchange(pending_, {})) {
        exception.collect(each.notify);
    }
    exception.rethrow();
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
