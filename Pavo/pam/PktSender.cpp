#include "Pavo/pam/PktSender.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Pavo {

msghdr TxHead::message(iovec* pieces, std::size_t count) const {
    msghdr message{};
    message.msg_name = nameBytes != 0 ? const_cast<sockaddr_in6*>(&name) : nullptr;
    message.msg_namelen = nameBytes;
    message.msg_iov = pieces;
    message.msg_iovlen = count;
    message.msg_control = controlBytes != 0 ? const_cast<char*>(control) : nullptr;
    message.msg_controllen = controlBytes;
    message.msg_flags = 0;
    return message;
}

int sendPkt(int fd, const TxHead& head, const Pkt& pkt, const Mox::TraceFacility& trace) {
    iovec data[Pkt::maxIovecs_];
    const msghdr message = head.message(data, pkt.copyIovecs(data));
    MOX_TRACE(trace, 9, "sendmsg( ) with flags : ", head.flags);
    return sendmsg(fd, &message, head.flags) < 0 ? errno : 0;
}

namespace {

constexpr std::size_t messagesPerCall = 64;

// Sends up to `messagesPerCall` packets; returns how many, or -1 with `errno` set.
int sendSome(int fd, const TxHead& head, std::span<const Mox::Ptr<Pkt>> pkts) {
    mmsghdr messages[messagesPerCall];
    iovec data[messagesPerCall][Pkt::maxIovecs_];
    for (std::size_t i = 0; i < pkts.size(); ++i) {
        messages[i].msg_hdr = head.message(data[i], pkts[i]->copyIovecs(data[i]));
        messages[i].msg_len = 0;
    }
    return sendmmsg(fd, messages, static_cast<unsigned>(pkts.size()), head.flags);
}

}  // namespace

// A call that sent some packets does not say why it stopped, so the rest is tried again.
TxResult sendPkts(int fd, const TxHead& head, std::span<const Mox::Ptr<Pkt>> pkts,
                  const Mox::TraceFacility& trace) {
    TxResult result;
    if (pkts.size() == 1) {
        result.error = sendPkt(fd, head, *pkts[0], trace);
        result.sent = result.error == 0 ? 1 : 0;
        result.failed = 1 - result.sent;
        result.taken = isNoRoom(result.error) ? 0 : 1;
        return result;
    }
    while (result.taken < pkts.size()) {
        const auto rest = pkts.subspan(result.taken);
        MOX_TRACE(trace, 9, "sendmmsg( ) with flags : ", head.flags);
        const int sent = sendSome(fd, head, rest.first(std::min(rest.size(), messagesPerCall)));
        if (sent > 0) {
            result.sent += static_cast<uint32_t>(sent);
            result.taken += static_cast<uint32_t>(sent);
            continue;
        }
        result.error = errno;
        if (isNoRoom(result.error)) {
            result.failed += static_cast<uint32_t>(rest.size());
            break;
        }
        ++result.failed;
        ++result.taken;
    }
    return result;
}

void sendHasFailed(const Mox::Ptr<Mox::FileDescriptor>& fd, int error,
                   const Mox::TraceFacility& trace) {
    MOX_TRACE(trace, 1, "sendmsg failed : ", std::strerror(error));
    if (fd && isNoRoom(error)) {
        waitForRoom(fd, trace);
    }
}

}  // namespace Pavo
