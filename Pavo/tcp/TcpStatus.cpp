#include "Pavo/tcp/TcpStatus.h"

#include <algorithm>
#include <utility>

namespace Pavo {

TcpClientStatus::~TcpClientStatus() = default;

Mox::Ptr<TcpClientStatus> tcpClientStatusFactory() {
    return Mox::make<TcpClientStatus>();
}

TcpServerStatus::~TcpServerStatus() = default;

TcpServerStatus::Queue::iterator TcpServerStatus::find(uint32_t index) {
    return std::find_if(queue_.begin(), queue_.end(),
                        [index](const Waiting& each) { return each.index == index; });
}

TcpConnSocket TcpServerStatus::connSocket(uint32_t index) const {
    const auto it = const_cast<TcpServerStatus*>(this)->find(index);
    return it == queue_.end() ? TcpConnSocket() : it->connection;
}

TcpConnSocket TcpServerStatus::connSocketFront() const {
    return queue_.empty() ? TcpConnSocket() : queue_.front().connection;
}

TcpConnSocket TcpServerStatus::connSocketBack() const {
    return queue_.empty() ? TcpConnSocket() : queue_.back().connection;
}

uint32_t TcpServerStatus::connSocketEnq(const TcpConnSocket& connection) {
    const uint32_t index = nextIndex_++;
    queue_.push_back({index, connection});
    publisher_.notify(connSocketAttr, index);
    return index;
}

TcpConnSocket TcpServerStatus::connSocketDeq() {
    if (queue_.empty()) {
        return TcpConnSocket();
    }
    const Waiting oldest = std::move(queue_.front());
    queue_.pop_front();
    publisher_.notify(connSocketAttr, oldest.index);
    return oldest.connection;
}

void TcpServerStatus::connSocketIs(uint32_t index, const TcpConnSocket& connection) {
    const auto it = find(index);
    if (it != queue_.end() && it->connection == connection) {
        return;
    }
    if (it != queue_.end()) {
        it->connection = connection;
    } else {
        queue_.push_back({index, connection});
        nextIndex_ = std::max(nextIndex_, index + 1);
    }
    publisher_.notify(connSocketAttr, index);
}

void TcpServerStatus::connSocketDel(uint32_t index) {
    const auto it = find(index);
    if (it != queue_.end()) {
        queue_.erase(it);
        publisher_.notify(connSocketAttr, index);
    }
}

void TcpServerStatus::connSocketDelAll() {
    const Mox::Ptr<TcpServerStatus> hold(this);
    for (const Waiting& each : std::exchange(queue_, {})) {
        publisher_.notify(connSocketAttr, each.index);
    }
}

Mox::Ptr<TcpServerStatus> tcpServerStatusFactory() {
    return Mox::make<TcpServerStatus>();
}

}  // namespace Pavo
